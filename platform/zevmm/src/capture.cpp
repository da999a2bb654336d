#include "capture.h"

#include "deviceerror.h"

#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>

namespace zevmm {
namespace v4l2 {

namespace {

// The application's signals are not for the threads of its libraries: blocked while one is created, which
// inherits that.
class BlockedSignals
{
public:
    BlockedSignals()
    {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before);
    }
    ~BlockedSignals() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }

private:
    sigset_t before;
};

// "V4L video0", cut to the kernel's 15 bytes.
std::string threadName(const std::string &device)
{
    return ("V4L " + device.substr(device.rfind('/') + 1)).substr(0, 15);
}

} // namespace

Capture::Capture(const std::string &device, System &calls)
    : system(calls), source(device, calls, [this] { wakeUp(); })
{}

Capture::~Capture()
{
    stop();
}

void Capture::setup()
{
    const std::lock_guard<std::mutex> lock(control);
    if (!wakeFile) {
        const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (fd < 0)
            throw DeviceError::ofRequest(errno, source.device(), "eventfd",
                                         remedyFor(errno, source.device()));
        wakeFile = Descriptor(kernelSystem(), fd); // no device's: no test plays this one
    }
    source.setup();
}

void Capture::createImages(void *display, DmaEglCapture::CreateImage create)
{
    const std::lock_guard<std::mutex> lock(control);
    source.createImages(display, create);
}

void Capture::destroyImages(void *display, DmaEglCapture::DestroyImage destroy)
{
    const std::lock_guard<std::mutex> lock(control);
    end();
    source.destroyImages(display, destroy);
}

void Capture::start()
{
    const std::lock_guard<std::mutex> lock(control);
    if (thread.joinable())
        return;
    source.start();
    ending = false;
    try {
        const BlockedSignals blocked;
        thread = std::thread([this] { run(); });
    } catch (...) {
        source.stop();
        throw;
    }
    pthread_setname_np(thread.native_handle(), threadName(source.device()).c_str());
}

void Capture::stop()
{
    const std::lock_guard<std::mutex> lock(control);
    end();
}

void Capture::end()
{
    if (!thread.joinable())
        return;
    ending = true;
    wakeUp();
    thread.join();
    source.stop();
}

void Capture::wakeUp()
{
    const std::uint64_t one = 1;
    // It fails when the counter is full, and then the thread is awake.
    [[maybe_unused]] const ssize_t written = ::write(wakeFile.get(), &one, sizeof one);
}

void Capture::run()
{
    while (!ending) {
        pollfd descriptors[2] = {{source.descriptor(), POLLIN, 0}, {wakeFile.get(), POLLIN, 0}};
        const std::int64_t wait = source.nextStep() - system.now();
        const auto timeout = static_cast<int>(
            std::clamp<std::int64_t>((wait + 999) / 1000, 0, 60000)); // milliseconds, upwards
        const int result = system.poll(descriptors, 2, timeout);
        if (result < 0 && result != -EINTR) { // the kernel is out of memory: not at full speed
            descriptors[0] = {};
            ::poll(descriptors + 1, 1, 100);
        }
        std::uint64_t count = 0;
        [[maybe_unused]] const ssize_t got = ::read(wakeFile.get(), &count, sizeof count);
        source.step(result > 0 ? descriptors[0].revents : short(0));
    }
}

} // namespace v4l2
} // namespace zevmm
