// Capture without a thread: what is asked of the device, when, and who has which buffer.
#ifndef ZEVMM_STREAM_H
#define ZEVMM_STREAM_H

#include "device.h"
#include "eglimages.h"
#include "mailbox.h"
#include "recovery.h"

#include <zevmm/v4l2/dmaeglcapture.h>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace zevmm {
namespace v4l2 {

// Usage: setup(), createImages(), start(), then step() whenever descriptor() is readable or nextStep() is
// over; frames are read meanwhile. stop() ends it.
//
// Threads: isFrameReady(), readFrame(), format(), statistics() and trouble() are thread-safe; the others are
// for one thread at a time: the capture thread's step() while it runs, else whoever sets up.
class Stream
{
public:
    // `wakeUp` is called, from readFrame(), when a buffer came back that step() is to give to the driver.
    Stream(std::string path, System &calls, std::function<void()> wakeUp);

    const std::string &device() const { return camera.path(); }
    CaptureFormat format() const;
    CaptureStatistics statistics() const;
    std::string trouble() const;

    void setup();
    void createImages(void *eglDisplay, DmaEglCapture::CreateImage create);
    // Waits for a callback of readFrame() that another thread is in, but not for ever.
    void destroyImages(void *eglDisplay, DmaEglCapture::DestroyImage destroy);
    void start();
    void stop();

    bool isFrameReady() const;
    void readFrame(const std::function<void(void *)> &callback);

    // To be polled for reading; -1 while there is nothing to poll.
    int descriptor() const;
    // When step() has something to do though nothing is readable: CLOCK_MONOTONIC, microseconds.
    std::int64_t nextStep() const { return recovery.nextStep(); }
    // `events` as poll() answered them for descriptor().
    void step(short events) noexcept;

private:
    using State = Recovery::State;

    int giveBack();
    int drain(short events);
    int queueFree(const std::vector<bool> &free);
    void accept(const FilledBuffer &filled, int *error);
    void fail(int error, const char *request);
    void restart();
    void leave(const std::string &why);
    void reopen();
    void prepare(std::uint32_t width, std::uint32_t height);
    void retireImages();
    void setTrouble(const std::string &text);

    System &system;
    const std::function<void()> wake;

    // Of who steps.
    Device camera;
    Recovery recovery;
    Negotiated negotiated; // of the present opening
    bool isSetUp = false;
    std::uint32_t wantedWidth = 0; // what setup() got, asked for again when the device returns
    std::uint32_t wantedHeight = 0;
    std::vector<unsigned int> giving; // of giveBack(), kept for its memory

    mutable std::mutex mutex; // guards all that follows; never held while the driver or a callback runs
    Mailbox mailbox;
    std::vector<unsigned int> returned; // for the driver
    std::uint64_t generation = 0;
    std::unique_ptr<EglImages> images; // of the present opening
    std::vector<std::unique_ptr<EglImages>>
        retired; // of earlier ones, kept because they may be on the screen
    void *display = nullptr;
    DmaEglCapture::CreateImage createImage = nullptr;
    std::thread::id reader; // in a callback; none: nobody is
    std::condition_variable readerIsThrough;
    CaptureFormat deliveredFormat;
    CaptureStatistics counters;
    std::string troubleText; // of the device
    std::string refusalText; // of EGL, of the present opening's buffers; told while the device is well
};

} // namespace v4l2
} // namespace zevmm

#endif
