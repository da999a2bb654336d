// Carries a camera that offers NV12 into a store, straight into its slots where the driver takes that memory.
#ifndef ZEVSHM_CAMERAPUBLISHER_H
#define ZEVSHM_CAMERAPUBLISHER_H

#include "hostclock.h"
#include "publisher.h"
#include "slotconverter.h"
#include "storewriter.h"

#include <zevmm/v4l2/memorycapture.h>

#include <atomic>
#include <exception>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace zevshm {

// One thread. Straight: slots of the store are lent to the driver, and each is published when the driver has
// filled it, under the time at which the camera took the picture; samples stay as the camera has them, range
// and matrix told with the store. Else each frame is written into a slot from the driver's buffer: one copy,
// which also converts.
//
// A camera that stalls or vanishes is waited for while the store stays; one that returns with another size or
// color has the store opened anew. With no slot free a frame is left out, and the camera keeps the memory it
// has.
//
// Usage: open(), run(); finished() becomes true when it has ended or failed; join() throws the failure.
// Threads: those, way() and stop() in the thread that owns it; counters() in any.
class CameraPublisher : private zevmm::v4l2::FrameTaker
{
public:
    struct Settings
    {
        std::string device;
        int pixelFormat = SHM_PIXEL_FORMAT_YUV420P; // of frames that are copied
        std::optional<std::pair<int, int>> size;    // the same
        bool keepRange = false;                     // the same
        std::string obstacle; // why no frame can be captured straight; empty: none known
    };

    // A slot's memory as it is lent, and the slot of what comes back.
    static zevmm::v4l2::FrameMemory memoryOf(const shm_writer_frame_t &slot);
    static size_t slotOf(const zevmm::v4l2::FrameMemory &memory) { return memory.id & 0xffffffff; }

    CameraPublisher(const Settings &settings, StoreWriter &store, SharedClock &clock);
    ~CameraPublisher() override;

    // Opens the camera and the store and starts both. False when the camera offers no NV12; then nothing is
    // open. Throws Failure: the camera cannot be used, or the store not be opened.
    bool open();
    // How the frames come into the store, in words; the store tells its readers the same.
    std::string way() const { return m_way; }

    // `wake` is called from the thread when it ends.
    void run(std::function<void()> wake);
    bool finished() const { return m_finished; }
    Publisher::Counters counters() const;
    void stop();
    void join();

private:
    bool lend(zevmm::v4l2::FrameMemory *memory) override;
    void taken(const zevmm::v4l2::FilledFrame &frame) override;
    void returned(const zevmm::v4l2::FrameMemory &memory) override;

    VideoFormat cameraFormat() const;
    bool setUpCamera();
    void start();
    bool startStraight(const VideoFormat &format, std::string *why);
    void openWantedStore();
    void loop();
    void follow();
    int64_t labelFor(int64_t capturedUs);
    void publish(shm_writer_frame_t &slot, int64_t labelUs);
    void copy(const zevmm::v4l2::FilledFrame &frame, int64_t labelUs);

    const Settings m_settings;
    StoreWriter &m_store;
    SharedClock &m_clock;
    zevmm::v4l2::MemoryCapture m_capture;
    std::vector<shm_writer_frame_t> m_slots; // by number, those that are lent
    bool m_needsDmabufs = false;
    struct Wanted
    {
        VideoFormat format;
        uint32_t lentFrames;
    };
    std::optional<Wanted> m_wantedStore; // is opened when the driver is to have memory of it
    SlotConverter m_converter;
    std::string m_way;
    std::string m_trouble; // as last told

    int m_wakeFd = -1; // ends the thread's waiting
    std::atomic<bool> m_stopping{false};
    std::atomic<bool> m_finished{false};
    std::function<void()> m_wake;
    std::exception_ptr m_failure; // written by the thread before it ends
    std::thread m_thread;

    std::atomic<uint64_t> m_published{0};
    std::atomic<uint64_t> m_noSlot{0};
    std::atomic<uint64_t> m_refused{0};
};

} // namespace zevshm

#endif
