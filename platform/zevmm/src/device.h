// One open V4L2 capture device: its format, its buffers and its stream.
#ifndef ZEVMM_DEVICE_H
#define ZEVMM_DEVICE_H

#include "descriptor.h"
#include "pixelformat.h"

#include <array>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace zevmm {
namespace v4l2 {

// A buffer of the driver's, exported. Descriptors are duplicated by nobody: whoever imports one looks after
// that.
struct ExportedBuffer
{
    std::array<Descriptor, 2> dmabufs;
    std::array<std::uint64_t, 2> bytes = {}; // length of each memory
};

// Memory for one frame that is not the driver's own: an address or a DMA-buf for each of the picture's
// memories.
struct ForeignMemory
{
    std::array<void *, 2> addresses = {};
    std::array<int, 2> dmabufs = {-1, -1};     // borrowed while the driver has the buffer
    std::array<std::uint32_t, 2> lengths = {}; // bytes
};

// A buffer of the driver's, mapped.
class MappedBuffer
{
public:
    explicit MappedBuffer(System &mapper) : system(&mapper) {}
    MappedBuffer(MappedBuffer &&other) noexcept
        : system(other.system), places(std::exchange(other.places, {})), sizes(std::exchange(other.sizes, {}))
    {}
    MappedBuffer &operator=(MappedBuffer &&) = delete;
    ~MappedBuffer();

    // 0 or a negative errno.
    int map(unsigned int memory, int fd, std::size_t bytes, std::int64_t offset);
    std::uint8_t *address(unsigned int memory) const { return static_cast<std::uint8_t *>(places[memory]); }

private:
    System *system;
    std::array<void *, 2> places = {};
    std::array<std::size_t, 2> sizes = {};
};

// One answer of VIDIOC_DQBUF.
struct FilledBuffer
{
    unsigned int index = 0;
    bool damaged = false; // marked so by the driver, or not filled whole
    std::uint32_t sequence = 0;
    std::int64_t timestamp = 0; // CLOCK_MONOTONIC, microseconds; 0 when the driver uses another clock
};

// Threads: one at a time. Ownership: owns the open device; closing it frees the driver's buffers, but memory
// that was exported stays as long as somebody holds it.
class Device
{
public:
    Device(System &calls, std::string devicePath);

    const std::string &path() const { return name; }
    bool isOpen() const { return bool(file); }
    int descriptor() const { return file.get(); }
    // Which flavour of the API it has; once open.
    std::uint32_t bufferType() const { return negotiatedFormat.bufferType(); }

    // These throw DeviceError; the device is closed then.
    // Opens it and makes sure that it captures.
    void open();
    // What to ask for: zero is as it is. Lines of so many bytes in every plane need not be granted.
    struct Wish
    {
        // Of the two forms of NV12 that the multi-planar interface has.
        enum class Memories { AsSet, OneFirst, TwoFirst };
        std::uint32_t width;
        std::uint32_t height;
        std::uint32_t strideBytes;
        Memories memories;
    };
    // Asks for NV12.
    Negotiated negotiate(const Wish &wish);
    // Lets the driver make buffers of that format and exports each of them once.
    std::vector<ExportedBuffer> allocate();
    // The same, each mapped.
    std::vector<MappedBuffer> allocateMapped();
    // Makes `count` buffers without memory, for V4L2_MEMORY_USERPTR or V4L2_MEMORY_DMABUF. How many there
    // are.
    unsigned int reserve(std::uint32_t memoryType, unsigned int count, unsigned int least);
    // How many frames the driver wants queued so that it has always one to fill.
    unsigned int wantedQueue();
    void close();

    // These answer 0 or a negative errno.
    int startStreaming();
    int stopStreaming();
    // With memory unless the buffers have the driver's own.
    int queue(unsigned int index, const ForeignMemory *memory = nullptr);
    // -EAGAIN: none is filled. -EBADMSG: the driver names a buffer that it does not have.
    int dequeue(FilledBuffer *filled);

private:
    [[noreturn]] void fail(int error, const char *request);
    [[noreturn]] void fail(int error, const std::string &what, const std::string &remedy);
    std::string offeredFormats();
    bool isSetToTwoMemories();
    bool tryPixelFormat(std::uint32_t code, const Wish &wish, Negotiated *negotiated);
    std::int64_t frameInterval();
    unsigned int leastQueue();
    unsigned int wantedBuffers();
    void requestBuffers(unsigned int count, unsigned int least);
    void queryBuffer(v4l2_buffer *buffer, v4l2_plane *planes, unsigned int index);
    ExportedBuffer exportBuffer(unsigned int index);

    System &system;
    const std::string name;
    Descriptor file;
    Negotiated negotiatedFormat;
    std::uint32_t memory = V4L2_MEMORY_MMAP; // of the buffers
    std::vector<bool> queued;                // by index: the driver has it
};

} // namespace v4l2
} // namespace zevmm

#endif
