// One open V4L2 capture device: its format, its buffers and its stream.
#ifndef ZEVMM_DEVICE_H
#define ZEVMM_DEVICE_H

#include "descriptor.h"
#include "pixelformat.h"

#include <array>
#include <cstdint>
#include <string>
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
    // Asks for NV12, of the present size or of the one given.
    Negotiated negotiate(std::uint32_t width = 0, std::uint32_t height = 0);
    // Lets the driver make buffers of that format and exports each of them once.
    std::vector<ExportedBuffer> allocate(const Negotiated &negotiated);
    void close();

    // These answer 0 or a negative errno.
    int startStreaming();
    int stopStreaming();
    int queue(unsigned int index);
    // -EAGAIN: none is filled. -EBADMSG: the driver names a buffer that it does not have.
    int dequeue(FilledBuffer *filled);

private:
    [[noreturn]] void fail(int error, const char *request);
    [[noreturn]] void fail(int error, const std::string &what, const std::string &remedy);
    std::string offeredFormats();
    bool tryPixelFormat(std::uint32_t code, std::uint32_t width, std::uint32_t height,
                        Negotiated *negotiated);
    std::int64_t frameInterval();
    unsigned int wantedBuffers();
    ExportedBuffer exportBuffer(unsigned int index);

    System &system;
    const std::string name;
    Descriptor file;
    Negotiated negotiatedFormat;
    std::vector<bool> queued; // by index: the driver has it
};

} // namespace v4l2
} // namespace zevmm

#endif
