#include "stream.h"

#include "deviceerror.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <utility>

namespace zevmm {
namespace v4l2 {

namespace {

constexpr std::uint64_t retiredLimit = 256u << 20; // bytes
// A callback may itself wait for the thread that destroys the images, as one that hides the window does.
constexpr std::chrono::seconds longestCallback{2};

} // namespace

Stream::Stream(std::string path, System &calls, std::function<void()> wakeUp)
    : system(calls), wake(std::move(wakeUp)), camera(calls, std::move(path))
{}

CaptureFormat Stream::format() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return deliveredFormat;
}

CaptureStatistics Stream::statistics() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return counters;
}

std::string Stream::trouble() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return troubleText.empty() ? refusalText : troubleText;
}

void Stream::setTrouble(const std::string &text)
{
    const std::lock_guard<std::mutex> lock(mutex);
    troubleText = text;
}

void Stream::setup()
{
    if (isSetUp)
        return;
    prepare(0, 0);
    const std::lock_guard<std::mutex> lock(mutex);
    wantedWidth = negotiated.format.width;
    wantedHeight = negotiated.format.height;
    deliveredFormat = negotiated.format;
    isSetUp = true;
}

// Opens the device up to its buffers. Throws, and has nothing open then.
void Stream::prepare(std::uint32_t width, std::uint32_t height)
{
    try {
        camera.open();
        negotiated = camera.negotiate({width, height, 0, Device::Wish::Memories::AsSet});
        auto made = std::make_unique<EglImages>(negotiated, camera.allocate());
        giving.reserve(made->count());
        const std::lock_guard<std::mutex> lock(mutex);
        returned.reserve(made->count()); // the two are swapped
        images = std::move(made);
        mailbox.beginGeneration(++generation);
        returned.clear();
        refusalText.clear();
    } catch (...) {
        camera.close();
        throw;
    }
}

void Stream::createImages(void *eglDisplay, DmaEglCapture::CreateImage create)
{
    if (!isSetUp)
        throw std::logic_error(device() + ": createEGLImages before setup");
    if (eglDisplay == nullptr || create == nullptr)
        throw std::invalid_argument(device() + ": createEGLImages without a display or eglCreateImageKHR");
    const std::lock_guard<std::mutex> lock(mutex);
    if (display != nullptr && display != eglDisplay)
        throw std::logic_error(device() +
                               ": createEGLImages for a second display; destroy the first's before");
    display = eglDisplay;
    createImage = create;
    for (unsigned int index = 0; images && index < images->count(); ++index) {
        if (images->image(index, display, createImage) == nullptr)
            throw std::runtime_error(device() + ": EGL makes no image of the camera's buffers (NV12, " +
                                     std::to_string(images->negotiated().format.width) + " x " +
                                     std::to_string(images->negotiated().format.height) +
                                     "); the GPU's driver must offer EGL_EXT_image_dma_buf_import and import "
                                     "NV12 from this device");
    }
}

void Stream::destroyImages(void *eglDisplay, DmaEglCapture::DestroyImage destroy)
{
    std::unique_lock<std::mutex> lock(mutex);
    if (destroy == nullptr)
        throw std::invalid_argument(device() + ": destroyEGLImages without eglDestroyImageKHR");
    // Whoever is told afterwards that the images have gone has been handed the last of them before.
    readerIsThrough.wait_for(lock, longestCallback, [this] {
        return reader == std::thread::id() || reader == std::this_thread::get_id();
    });
    if (images)
        images->destroy(eglDisplay, destroy);
    for (const auto &old : retired)
        old->destroy(eglDisplay, destroy);
    retired.clear();
    display = nullptr;
    createImage = nullptr;
}

// 0, or what the driver said of the first buffer that it did not take.
int Stream::queueFree(const std::vector<bool> &free)
{
    for (unsigned int index = 0; index < free.size(); ++index) {
        const int result = free[index] ? camera.queue(index) : 0;
        if (result < 0)
            return result;
    }
    return 0;
}

void Stream::start()
{
    if (recovery.state() != State::Idle)
        return;
    std::vector<bool> free;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (display == nullptr)
            throw std::logic_error(device() + ": start before createEGLImages");
        mailbox.clear();
        returned.clear();
        free = mailbox.restart(images ? images->count() : 0);
    }
    const std::int64_t now = system.now();
    if (!camera.isOpen()) {
        leave("the device has gone");
        recovery.gone(now, 0);
        return;
    }
    const char *request = "VIDIOC_QBUF";
    int result = queueFree(free);
    if (result == 0) {
        request = "VIDIOC_STREAMON";
        result = camera.startStreaming();
    }
    if (result == 0) {
        recovery.begin(now, negotiated.format.frameInterval);
        return;
    }
    if (isGone(-result)) {
        leave(std::string("the device has gone (") + request + ": " + errorText(-result) + ")");
        return;
    }
    if (camera.stopStreaming() < 0) { // the driver keeps buffers: only opening anew gets them back
        camera.close();
        retireImages();
    }
    throw DeviceError::ofRequest(-result, device(), request, remedyFor(-result, device()));
}

void Stream::stop()
{
    if (recovery.state() == State::Idle)
        return;
    recovery.end();
    if (camera.isOpen() && camera.stopStreaming() < 0) {
        camera.close();
        retireImages();
    }
    const std::lock_guard<std::mutex> lock(mutex);
    mailbox.clear();
    returned.clear();
    troubleText.clear();
    refusalText.clear();
}

bool Stream::isFrameReady() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return mailbox.hasFrame();
}

void Stream::readFrame(const std::function<void(void *)> &callback)
{
    void *image = nullptr;
    std::thread::id outer; // of a callback that this call comes from
    {
        const std::lock_guard<std::mutex> lock(mutex);
        outer = reader;
        const auto frame = mailbox.take();
        if (!frame)
            return;
        image = images->image(frame->index, display, createImage);
        if (image != nullptr) {
            deliveredFormat = images->negotiated().format;
            ++counters.delivered;
            counters.lastSequence = frame->sequence;
            counters.lastTimestamp = frame->timestamp;
            refusalText.clear();
            reader = std::this_thread::get_id();
        } else if (refusalText.empty()) {
            refusalText = device() +
                          ": EGL makes no image of the buffers since the device came back; release the "
                          "GL resources and start again";
        }
    }
    // The oldest goes back when the new one has been handed out, also if that ends in an exception.
    struct Done
    {
        Stream &stream;
        const std::thread::id outer;
        ~Done()
        {
            bool hasReturned = false;
            {
                const std::lock_guard<std::mutex> lock(stream.mutex);
                stream.reader = outer;
                if (const auto index = stream.mailbox.done()) {
                    stream.returned.push_back(*index); // room was made for all of them
                    hasReturned = true;
                }
            }
            stream.readerIsThrough.notify_all();
            if (hasReturned)
                stream.wake();
        }
    } done{*this, outer};
    if (image != nullptr)
        callback(image);
}

int Stream::descriptor() const
{
    return recovery.state() == State::Streaming ? camera.descriptor() : -1;
}

void Stream::step(short events) noexcept
{
    try {
        if (recovery.state() == State::Streaming) {
            const char *request = "VIDIOC_QBUF";
            int result = giveBack();
            if (result == 0) {
                request = "VIDIOC_DQBUF";
                result = drain(events);
            }
            if (result < 0)
                fail(-result, request);
            else if (system.now() >= nextStep())
                fail(ETIMEDOUT, "no frames");
        }
        if (recovery.state() == State::Broken && system.now() >= nextStep())
            restart();
        else if (recovery.state() == State::Gone && system.now() >= nextStep())
            reopen();
    } catch (const std::exception &exception) { // out of memory: all state is the device's, get it anew
        try {
            leave(exception.what());
        } catch (const std::exception &) { // not even for the message
            recovery.gone(system.now(), Recovery::longestWait);
        }
    }
}

int Stream::giveBack()
{
    giving.clear();
    {
        const std::lock_guard<std::mutex> lock(mutex);
        giving.swap(returned);
    }
    for (const unsigned int index : giving) {
        const int result = camera.queue(index);
        if (result < 0)
            return result;
    }
    return 0;
}

// Takes what the driver has filled.
int Stream::drain(short events)
{
    constexpr int atOnce = 2 * VIDEO_MAX_FRAME; // a driver that fills faster than this gives back
    for (int taken = 0; taken < atOnce; ++taken) {
        FilledBuffer filled;
        int result = camera.dequeue(&filled);
        if (result == -EAGAIN) {
            // Readable for an error, and no error told: the stream is dead, and poll() would not wait any
            // more.
            const bool dead = taken == 0 && (events & (POLLERR | POLLHUP | POLLNVAL)) != 0;
            return dead ? -EIO : 0;
        }
        if (result == 0)
            accept(filled, &result);
        if (result < 0)
            return result;
    }
    return 0;
}

void Stream::accept(const FilledBuffer &filled, int *error)
{
    std::optional<unsigned int> unused = filled.index;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (filled.damaged) {
            ++counters.damaged;
        } else {
            ++counters.captured;
            unused = mailbox.put({generation, filled.index, filled.sequence, filled.timestamp});
            counters.skipped += unused ? 1 : 0;
            troubleText.clear();
        }
    }
    if (!filled.damaged)
        recovery.frame(system.now());
    *error = unused ? camera.queue(*unused) : 0;
}

// Streaming has come to an end by itself.
void Stream::fail(int error, const char *request)
{
    if (isGone(error)) {
        leave(std::string("the device has gone (") + request + ": " + errorText(error) + ")");
        return;
    }
    recovery.broke(system.now());
    setTrouble(device() +
               (error == ETIMEDOUT ? ": the device delivers no frames"
                                   : ": " + std::string(request) + ": " + errorText(error)) +
               "; it is made to stream anew");
}

void Stream::restart()
{
    recovery.restarts(system.now());
    const char *request = "VIDIOC_STREAMOFF";
    int result = camera.stopStreaming();
    if (result == 0) {
        std::vector<bool> free;
        {
            const std::lock_guard<std::mutex> lock(mutex);
            returned.clear();
            free = mailbox.restart(images->count());
            ++counters.restarts;
        }
        request = "VIDIOC_QBUF";
        result = queueFree(free);
    }
    if (result == 0) {
        request = "VIDIOC_STREAMON";
        result = camera.startStreaming();
    }
    if (result < 0) {
        leave(
            std::string(isGone(-result) ? "the device has gone (" : "the driver does not stream any more (") +
            request + ": " + errorText(-result) + ")");
        return;
    }
    recovery.restarted(system.now());
}

// Closes the device, which is then looked for until it opens again.
void Stream::leave(const std::string &why)
{
    recovery.gone(system.now());
    camera.close();
    retireImages();
    setTrouble(device() + ": " + why + "; it is opened again as soon as that is possible");
}

void Stream::retireImages()
{
    const std::lock_guard<std::mutex> lock(mutex);
    mailbox.beginGeneration(++generation);
    returned.clear();
    if (images && images->imageBytes() > 0) {
        images->releaseBuffers();
        retired.push_back(std::move(images));
    }
    images.reset();
}

void Stream::reopen()
{
    recovery.gone(system.now());
    std::uint64_t kept = 0;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        for (const auto &old : retired)
            kept += old->imageBytes();
    }
    if (kept > retiredLimit) {
        setTrouble(device() + ": the device has come and gone so often that its old pictures fill " +
                   std::to_string(kept >> 20) + " MiB; release the GL resources and start again");
        return;
    }
    try {
        prepare(wantedWidth, wantedHeight);
    } catch (const DeviceError &error) {
        if (!isGone(error.code().value()))
            setTrouble(error.what());
        return;
    }
    std::vector<bool> free(images->count(), true);
    int result = queueFree(free);
    const char *request = "VIDIOC_QBUF";
    if (result == 0) {
        request = "VIDIOC_STREAMON";
        result = camera.startStreaming();
    }
    if (result < 0) {
        leave(std::string(request) + ": " + errorText(-result));
        return;
    }
    recovery.begin(system.now(), negotiated.format.frameInterval);
    const std::lock_guard<std::mutex> lock(mutex);
    ++counters.returns;
}

} // namespace v4l2
} // namespace zevmm
