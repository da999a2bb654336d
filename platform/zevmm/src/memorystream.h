// Capture into memory that somebody else provides: what is asked of the device, when, and who has which
// memory.
#ifndef ZEVMM_MEMORYSTREAM_H
#define ZEVMM_MEMORYSTREAM_H

#include "device.h"
#include "recovery.h"

#include <zevmm/v4l2/memorycapture.h>

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace zevmm {
namespace v4l2 {

// Operations, threads and errors as MemoryCapture says. States as Recovery does.
class MemoryStream
{
public:
    using Change = MemoryCapture::Change;

    MemoryStream(std::string path, System &calls);
    ~MemoryStream();

    const std::string &device() const { return camera.path(); }
    CaptureFormat format() const;
    CaptureStatistics statistics() const;
    std::string trouble() const;

    void setup();
    unsigned int queueLength() const { return wantedQueue; }
    bool start(MemoryWay way, const FrameLayout &layout, FrameTaker &taker, std::string *why);
    void stop();
    Change run(int timeoutMs, int wakeDescriptor);

    // run() in parts, so that a test can put its own waiting between them.
    int descriptor() const;
    std::int64_t nextStep() const { return recovery.nextStep(); }
    Change step(short events);

private:
    using State = Recovery::State;
    // A buffer of the driver's.
    struct Buffer
    {
        std::optional<FrameMemory> memory; // that the driver has; none: the buffer is free
        bool isRefused = false;            // that memory, by the driver
        // What the kernel may take it to be still: its memory of the last time, and after a refusal also what
        // was refused.
        std::vector<FrameMemory> known;
    };

    void open(std::uint32_t width, std::uint32_t height);
    void checkLayout() const;
    ForeignMemory foreign(const FrameMemory &memory) const;
    unsigned int bufferFor(const FrameMemory &memory) const;
    unsigned int lentCount() const;
    int queueBuffer(unsigned int index);
    int queueAll();
    int refill();
    int drain(short events);
    int take(const FilledBuffer &filled);
    void deliver(const FilledBuffer &filled, const FrameMemory &memory);
    bool begin(const char **request, int *result);
    void fail(int error, const char *request);
    void restart();
    void leave(const std::string &why);
    Change reopen();
    void closeDevice();
    void returnMemory();
    void returnRefused();
    void setTrouble(const std::string &text);

    System &system;
    Device camera;
    Recovery recovery;
    Negotiated negotiated; // of the present opening
    Negotiated agreed;     // by start(): a device that returns must come with the same
    unsigned int wantedQueue = 0;
    bool isSetUp = false;
    bool isChanged = false; // returned, but not with what was agreed
    MemoryWay way = MemoryWay::Mapped;
    FrameLayout layout;
    FrameTaker *taker = nullptr;
    std::vector<Buffer> buffers;      // by the driver's index
    std::vector<MappedBuffer> mapped; // the same, with MemoryWay::Mapped
    std::vector<FrameMemory> kept;    // lent to us, and no driver has it
    std::vector<FrameMemory> refused; // the same, to be returned

    mutable std::mutex mutex; // guards all that follows; never held while the driver or the taker runs
    CaptureFormat publicFormat;
    CaptureStatistics counters;
    std::string troubleText;
};

} // namespace v4l2
} // namespace zevmm

#endif
