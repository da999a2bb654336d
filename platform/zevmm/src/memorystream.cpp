#include "memorystream.h"

#include "deviceerror.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <stdexcept>
#include <utility>

namespace zevmm {
namespace v4l2 {

namespace {

// Thrown by start()'s parts: why this way is not to be had.
struct NotThisWay
{
    std::string why;
};

std::string bytesText(std::uint64_t bytes)
{
    return std::to_string(bytes) + " bytes";
}

// To the taker: lines and memories are checked against its layout, or told with each frame.
bool isSamePicture(const CaptureFormat &a, const CaptureFormat &b)
{
    return a.width == b.width && a.height == b.height && a.encoding == b.encoding &&
           a.fullRange == b.fullRange;
}

} // namespace

MemoryStream::MemoryStream(std::string path, System &calls) : system(calls), camera(calls, std::move(path)) {}

MemoryStream::~MemoryStream()
{
    stop();
}

CaptureFormat MemoryStream::format() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return publicFormat;
}

CaptureStatistics MemoryStream::statistics() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return counters;
}

std::string MemoryStream::trouble() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return troubleText;
}

void MemoryStream::setTrouble(const std::string &text)
{
    const std::lock_guard<std::mutex> lock(mutex);
    troubleText = text;
}

void MemoryStream::setup()
{
    if (recovery.state() != State::Idle)
        throw std::logic_error(device() + ": setup while it streams");
    isSetUp = false;
    camera.close();
    camera.open();
    negotiated = camera.negotiate({0, 0, 0, Device::Wish::Memories::AsSet});
    wantedQueue = std::min(camera.wantedQueue(), std::uint32_t(VIDEO_MAX_FRAME));
    isSetUp = true;
    const std::lock_guard<std::mutex> lock(mutex);
    publicFormat = negotiated.format;
    troubleText.clear();
}

// Up to buffers without memory. Throws DeviceError or NotThisWay.
void MemoryStream::open(std::uint32_t width, std::uint32_t height)
{
    if (!camera.isOpen())
        camera.open();
    const bool isForeign = way != MemoryWay::Mapped;
    // Two memories have an address each, so that the planes may lie anywhere; a DMA-buf is handed over whole.
    using Memories = Device::Wish::Memories;
    negotiated = camera.negotiate({width, height, isForeign ? layout.strideBytes : 0,
                                   way == MemoryWay::Address  ? Memories::TwoFirst
                                   : way == MemoryWay::DmaBuf ? Memories::OneFirst
                                                              : Memories::AsSet});
    if (isForeign)
        checkLayout();
    if (!isForeign) {
        mapped = camera.allocateMapped();
        buffers.assign(mapped.size(), {});
        for (unsigned int index = 0; index < buffers.size(); ++index)
            buffers[index].memory.emplace();
        return;
    }
    // More buffers than are queued at once: each can stay with the memory that it had before.
    const auto count = camera.reserve(way == MemoryWay::Address ? V4L2_MEMORY_USERPTR : V4L2_MEMORY_DMABUF,
                                      VIDEO_MAX_FRAME, wantedQueue);
    buffers.assign(count, {});
}

void MemoryStream::checkLayout() const
{
    const CaptureFormat &is = negotiated.format;
    if (is.strideBytes != layout.strideBytes || is.chromaStrideBytes != layout.strideBytes)
        throw NotThisWay{"the driver makes lines of " + bytesText(is.strideBytes) + ", not of " +
                         std::to_string(layout.strideBytes)};
    const bool isSeparate = negotiated.memories == 2;
    if (isSeparate && way == MemoryWay::DmaBuf)
        throw NotThisWay{"the driver wants a DMA-buf for each plane"};
    if (!isSeparate && negotiated.planes[1].offset != layout.chromaOffset)
        throw NotThisWay{"the driver puts the chroma plane at byte " +
                         std::to_string(negotiated.planes[1].offset) + ", not " +
                         std::to_string(layout.chromaOffset)};
    const std::uint64_t room[2] = {isSeparate ? layout.chromaOffset : layout.bytes,
                                   layout.bytes - layout.chromaOffset};
    for (unsigned int part = 0; part < negotiated.memories; ++part) {
        if (negotiated.sizes[part] > room[part])
            throw NotThisWay{"the driver wants " + bytesText(negotiated.sizes[part]) + " where there are " +
                             std::to_string(room[part])};
    }
}

ForeignMemory MemoryStream::foreign(const FrameMemory &memory) const
{
    const bool isSeparate = negotiated.memories == 2;
    ForeignMemory result;
    result.addresses = {memory.address, isSeparate ? memory.address + layout.chromaOffset : nullptr};
    result.dmabufs = {memory.dmabuf, -1};
    result.lengths = {static_cast<std::uint32_t>(isSeparate ? layout.chromaOffset : layout.bytes),
                      static_cast<std::uint32_t>(layout.bytes - layout.chromaOffset)};
    return result;
}

// The free buffer that had this memory last, else one that had none yet, else any that the kernel does not
// take to have it already. A buffer that comes with the address it had last is not looked up anew: the driver
// would go on writing into what was at that address then.
unsigned int MemoryStream::bufferFor(const FrameMemory &memory) const
{
    const auto isMistaken = [this, &memory](const Buffer &buffer) {
        return way == MemoryWay::Address &&
               std::any_of(buffer.known.begin(), buffer.known.end(), [&](const FrameMemory &known) {
                   return known.address == memory.address && known.id != memory.id;
               });
    };
    const auto indexOf = [this, &isMistaken](auto matches) {
        const auto found = std::find_if(buffers.begin(), buffers.end(), [&](const Buffer &buffer) {
            return !buffer.memory && !isMistaken(buffer) && matches(buffer);
        });
        return static_cast<unsigned int>(found - buffers.begin());
    };
    unsigned int index = indexOf([&memory](const Buffer &buffer) {
        return !buffer.known.empty() && buffer.known.back().id == memory.id;
    });
    if (index == buffers.size())
        index = indexOf([](const Buffer &buffer) { return buffer.known.empty(); });
    if (index == buffers.size())
        index = indexOf([](const Buffer &) { return true; });
    return index;
}

unsigned int MemoryStream::lentCount() const
{
    const auto count = std::count_if(buffers.begin(), buffers.end(),
                                     [](const Buffer &buffer) { return buffer.memory.has_value(); });
    return static_cast<unsigned int>(count + static_cast<std::ptrdiff_t>(kept.size()));
}

int MemoryStream::queueBuffer(unsigned int index)
{
    if (way == MemoryWay::Mapped)
        return camera.queue(index);
    Buffer &buffer = buffers[index];
    const ForeignMemory memory = foreign(*buffer.memory);
    const int result = camera.queue(index, &memory);
    buffer.isRefused = result < 0;
    if (!buffer.isRefused)
        buffer.known.clear();
    buffer.known.push_back(*buffer.memory);
    return result;
}

// Gives the driver everything that is lent to us and that it has not.
int MemoryStream::queueAll()
{
    while (!kept.empty()) {
        const unsigned int index = bufferFor(kept.back());
        if (index == buffers.size()) // the driver came back with fewer
            break;
        buffers[index].memory = kept.back();
        kept.pop_back();
    }
    for (unsigned int index = 0; index < buffers.size(); ++index) {
        const int result = buffers[index].memory ? queueBuffer(index) : 0;
        if (result < 0)
            return result;
    }
    return 0;
}

// Borrows what is missing and gives it to the driver.
int MemoryStream::refill()
{
    while (way != MemoryWay::Mapped && lentCount() < std::min<std::size_t>(wantedQueue, buffers.size())) {
        FrameMemory fresh;
        if (!taker->lend(&fresh))
            return 0;
        const unsigned int index = bufferFor(fresh);
        if (index == buffers.size()) {
            taker->returned(fresh); // another one may do
            return 0;
        }
        buffers[index].memory = fresh;
        const int result = queueBuffer(index);
        if (result < 0)
            return result;
    }
    return 0;
}

// Buffers are there: memory, and streaming.
bool MemoryStream::begin(const char **request, int *result)
{
    *request = "VIDIOC_QBUF";
    *result = queueAll();
    if (*result == 0)
        *result = refill();
    if (*result == 0) {
        *request = "VIDIOC_STREAMON";
        *result = camera.startStreaming();
    }
    return *result == 0;
}

bool MemoryStream::start(MemoryWay wanted, const FrameLayout &given, FrameTaker &frameTaker, std::string *why)
{
    if (!isSetUp || recovery.state() != State::Idle)
        throw std::logic_error(device() + (isSetUp ? ": start while it streams" : ": start before setup"));
    if (wanted != MemoryWay::Mapped &&
        (given.chromaOffset >= given.bytes || given.bytes > std::numeric_limits<std::uint32_t>::max())) {
        throw std::invalid_argument(device() + ": start with a layout that is none");
    }
    why->clear();
    way = wanted;
    layout = given;
    taker = &frameTaker;
    const CaptureFormat asked = format();
    try {
        open(asked.width, asked.height);
        if (negotiated.format.width != asked.width || negotiated.format.height != asked.height)
            throw NotThisWay{"the driver makes another size of it"};
        const char *request = nullptr;
        int result = 0;
        if (!begin(&request, &result))
            throw NotThisWay{std::string(request) + " failed: " + errorText(-result)};
        if (way != MemoryWay::Mapped && lentCount() < wantedQueue)
            throw NotThisWay{"there is no memory to lend"};
    } catch (const DeviceError &error) {
        *why = error.reason();
    } catch (const NotThisWay &reason) {
        *why = reason.why;
    } catch (...) {
        closeDevice();
        returnMemory();
        throw;
    }
    if (!why->empty()) {
        closeDevice();
        returnMemory();
        return false;
    }
    agreed = negotiated;
    isChanged = false;
    recovery.begin(system.now(), negotiated.format.frameInterval);
    const std::lock_guard<std::mutex> lock(mutex);
    publicFormat = negotiated.format;
    return true;
}

void MemoryStream::stop()
{
    recovery.end();
    if (camera.isOpen())
        camera.stopStreaming(); // closing ends what this does not
    closeDevice();
    returnMemory();
    const std::lock_guard<std::mutex> lock(mutex);
    troubleText.clear();
}

// No driver has any memory after this.
void MemoryStream::closeDevice()
{
    mapped.clear(); // a driver that is mapped stays busy
    camera.close();
    for (Buffer &buffer : buffers) {
        if (buffer.memory && way != MemoryWay::Mapped)
            (buffer.isRefused ? refused : kept).push_back(*buffer.memory);
    }
    buffers.clear();
    returnRefused();
}

void MemoryStream::returnMemory()
{
    for (const FrameMemory &memory : std::exchange(kept, {}))
        taker->returned(memory);
}

// So that other memory is lent instead. To be called while the driver has none.
void MemoryStream::returnRefused()
{
    for (Buffer &buffer : buffers) {
        if (std::exchange(buffer.isRefused, false) && way != MemoryWay::Mapped)
            refused.push_back(*std::exchange(buffer.memory, std::nullopt));
    }
    for (const FrameMemory &memory : std::exchange(refused, {}))
        taker->returned(memory);
}

int MemoryStream::descriptor() const
{
    return recovery.state() == State::Streaming ? camera.descriptor() : -1;
}

MemoryStream::Change MemoryStream::run(int timeoutMs, int wakeDescriptor)
{
    if (recovery.state() == State::Idle)
        return Change::None;
    pollfd descriptors[2] = {{descriptor(), POLLIN, 0}, {wakeDescriptor, POLLIN, 0}};
    const std::int64_t due = nextStep() - system.now();
    const auto wait =
        static_cast<int>(std::clamp<std::int64_t>((due + 999) / 1000, 0, std::max(timeoutMs, 0)));
    const int result = system.poll(descriptors, 2, wait);
    if (result < 0 && result != -EINTR) // the kernel is out of memory: not at full speed
        ::poll(nullptr, 0, std::min(timeoutMs, 100));
    return step(result > 0 ? descriptors[0].revents : short(0));
}

MemoryStream::Change MemoryStream::step(short events)
{
    if (recovery.state() == State::Streaming) {
        const char *request = "VIDIOC_QBUF";
        int result = refill();
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
    else if (recovery.state() == State::Gone && !isChanged && system.now() >= nextStep())
        return reopen();
    return Change::None;
}

// Takes what the driver has filled.
int MemoryStream::drain(short events)
{
    constexpr int atOnce = VIDEO_MAX_FRAME; // a driver that fills faster than this gives back
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
            result = take(filled);
        if (result < 0)
            return result;
    }
    return 0;
}

int MemoryStream::take(const FilledBuffer &filled)
{
    {
        const std::lock_guard<std::mutex> lock(mutex);
        ++(filled.damaged ? counters.damaged : counters.captured);
        if (!filled.damaged)
            troubleText.clear();
    }
    if (filled.damaged)
        return queueBuffer(filled.index);
    recovery.frame(system.now());
    if (way == MemoryWay::Mapped) {
        // Given back also when the taker throws.
        struct GiveBack
        {
            MemoryStream &stream;
            unsigned int index;
            int &result;
            ~GiveBack() { result = stream.queueBuffer(index); }
        };
        int result = 0;
        {
            const GiveBack giveBack{*this, filled.index, result};
            deliver(filled, {});
        }
        return result;
    }
    // Other memory first: the driver is never left with less, whatever becomes of this frame.
    FrameMemory fresh;
    const bool isLent = taker->lend(&fresh);
    Buffer &buffer = buffers[filled.index];
    const FrameMemory memory = *std::exchange(buffer.memory, std::nullopt);
    const unsigned int index = isLent ? bufferFor(fresh) : static_cast<unsigned int>(buffers.size());
    if (index == buffers.size()) {
        if (isLent)
            taker->returned(fresh); // at an address where memory is already: no good
        buffer.memory = memory;
        {
            const std::lock_guard<std::mutex> lock(mutex);
            ++counters.skipped;
        }
        return queueBuffer(filled.index);
    }
    buffers[index].memory = fresh;
    const int result = queueBuffer(index);
    deliver(filled, memory);
    return result;
}

void MemoryStream::deliver(const FilledBuffer &filled, const FrameMemory &memory)
{
    FilledFrame frame;
    frame.memory = memory;
    frame.sequence = filled.sequence;
    frame.timestamp = filled.timestamp;
    const CaptureFormat &format = negotiated.format;
    frame.strideBytes[0] = format.strideBytes;
    frame.strideBytes[1] = format.chromaStrideBytes;
    for (unsigned int plane = 0; plane < 2; ++plane) {
        const Plane &place = negotiated.planes[plane];
        if (way == MemoryWay::Mapped)
            frame.planes[plane] = mapped[filled.index].address(place.memory) + place.offset;
        else if (memory.address != nullptr)
            frame.planes[plane] = memory.address + (plane == 0 ? 0 : layout.chromaOffset);
    }
    {
        const std::lock_guard<std::mutex> lock(mutex);
        ++counters.delivered;
        counters.lastSequence = filled.sequence;
        counters.lastTimestamp = filled.timestamp;
    }
    taker->taken(frame);
}

// Streaming has come to an end by itself.
void MemoryStream::fail(int error, const char *request)
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

void MemoryStream::restart()
{
    recovery.restarts(system.now());
    const char *request = "VIDIOC_STREAMOFF";
    int result = camera.stopStreaming(); // the driver lets go of all memory
    if (result == 0) {
        returnRefused();
        {
            const std::lock_guard<std::mutex> lock(mutex);
            ++counters.restarts;
        }
        begin(&request, &result);
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
void MemoryStream::leave(const std::string &why)
{
    recovery.gone(system.now());
    closeDevice();
    setTrouble(device() + ": " + why + "; it is opened again as soon as that is possible");
}

MemoryStream::Change MemoryStream::reopen()
{
    recovery.gone(system.now());
    bool isDifferent = false;
    try {
        open(agreed.format.width, agreed.format.height);
        isDifferent = !isSamePicture(negotiated.format, agreed.format);
    } catch (const DeviceError &error) {
        closeDevice();
        if (!isGone(error.code().value()))
            setTrouble(error.what());
    } catch (const NotThisWay &) {
        isDifferent = true;
    }
    if (isDifferent) {
        closeDevice();
        isChanged = true;
        setTrouble(device() + ": the device is back with another format");
        return Change::Format;
    }
    if (!camera.isOpen())
        return Change::None;
    const char *request = nullptr;
    int result = 0;
    if (!begin(&request, &result)) {
        leave(std::string(request) + ": " + errorText(-result));
        return Change::None;
    }
    recovery.begin(system.now(), negotiated.format.frameInterval);
    const std::lock_guard<std::mutex> lock(mutex);
    ++counters.returns;
    return Change::None;
}

} // namespace v4l2
} // namespace zevmm
