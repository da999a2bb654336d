// A Stream and the thread that steps it.
#ifndef ZEVMM_CAPTURE_H
#define ZEVMM_CAPTURE_H

#include "stream.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace zevmm {
namespace v4l2 {

// Threads, Errors: as DmaEglCapture, whose operations these are.
class Capture
{
public:
    explicit Capture(const std::string &device, System &calls = kernelSystem());
    ~Capture();
    Capture(const Capture &) = delete;
    Capture &operator=(const Capture &) = delete;

    const Stream &stream() const { return source; }
    void setup();
    void createImages(void *display, DmaEglCapture::CreateImage create);
    void destroyImages(void *display, DmaEglCapture::DestroyImage destroy);
    void start();
    void stop();
    void readFrame(const std::function<void(void *)> &callback) { source.readFrame(callback); }

private:
    void run();
    void wakeUp();
    void end();

    System &system;
    Stream source;
    std::mutex control;  // of setup() to stop(): one at a time
    Descriptor wakeFile; // an eventfd; there from setup() on
    std::thread thread;
    std::atomic<bool> ending{false};
};

} // namespace v4l2
} // namespace zevmm

#endif
