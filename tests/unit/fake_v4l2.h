// A V4L2 driver and its kernel in memory, behind libzevmm's seam: configured by data, strict about its
// protocol.
#ifndef FAKE_V4L2_H
#define FAKE_V4L2_H

#include "system.h"

#include <linux/videodev2.h>

#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace fake {

// What a driver is like.
struct Driver
{
    bool multiplanar = false;
    std::uint32_t capabilities = V4L2_CAP_STREAMING; // beside those of its flavour
    bool isCapture = true;
    bool isVideo = true; // else VIDIOC_QUERYCAP is unknown
    std::vector<std::uint32_t> formats = {V4L2_PIX_FMT_YUYV, V4L2_PIX_FMT_NV12};
    std::uint32_t width = 64;
    std::uint32_t height = 36;
    std::uint32_t stride = 64;      // of both planes; 0: it does not tell
    std::uint32_t sizeimage = 0;    // 0: what the format takes
    std::uint32_t bufferLength = 0; // 0: sizeimage
    unsigned int planes = 0;        // 0: as many as the format has
    std::uint32_t colorspace = V4L2_COLORSPACE_SRGB;
    std::uint32_t encoding = V4L2_YCBCR_ENC_DEFAULT;
    std::uint32_t quantization = V4L2_QUANTIZATION_DEFAULT;
    v4l2_fract interval = {1, 25};
    unsigned int mostBuffers = 32;
    int startError = 0;         // of VIDIOC_STREAMON
    int leastBuffers = 0;       // V4L2_CID_MIN_BUFFERS_FOR_CAPTURE; 0: no such control
    bool takesAddresses = true; // V4L2_MEMORY_USERPTR
    bool takesDmabufs = true;   // V4L2_MEMORY_DMABUF
    bool takesStrides = true;   // lines as long as they are asked for
};

// One call to the kernel, as it is made to fail.
struct Fault
{
    int call = -1;             // the how manieth of all calls, from 0; -1: none
    unsigned long request = 0; // or every call of this request; 0: not by request
    int error = 0;
    bool forGood = false; // and all later ones of its kind
};

constexpr unsigned long openCall = 1; // stand for open() and map() where requests are named
constexpr unsigned long mapCall = 2;

class Kernel : public zevmm::v4l2::System
{
public:
    int open(const char *path, int flags) override;
    int close(int fd) override;
    int ioctl(int fd, unsigned long request, void *argument) override;
    int poll(pollfd *descriptors, unsigned int count, int timeoutMs) override;
    int map(int fd, std::size_t bytes, std::int64_t offset, void **address) override;
    int unmap(void *address, std::size_t bytes) override;
    std::int64_t now() override;

    // Between calls (tests with threads hold `mutex` for these).
    Driver driver;
    Fault fault;
    std::string path = "/dev/video0";
    int openError = 0;     // of every open()
    bool isPresent = true; // false: unplugged; what is open answers ENODEV
    std::int64_t clock = 1000000;
    bool hasRealClock = false;
    int forgedIndex = -1; // that VIDIOC_DQBUF answers, whatever was filled; -1: the true one

    // Fills the oldest queued buffer, if there is one. Whether there was.
    bool fill(std::uint32_t flags = 0, std::uint32_t lackingBytes = 0, std::uint32_t dataOffset = 0);
    void unplug();
    void plugIn();
    unsigned int queuedCount() const { return static_cast<unsigned int>(queue.size()); }

    int calls = 0;                        // of all kinds so far
    std::map<unsigned long, int> callsOf; // by request; openCall for open()
    std::vector<std::string> violations;  // of V4L2's protocol
    std::set<int> openDescriptors;        // device and DMA-bufs
    std::vector<std::uint32_t> contents;  // by buffer: the number of the frame last written into it
    std::vector<int> exports;             // by buffer: how often it was exported (plane 0)
    std::map<int, unsigned int> bufferOfDmabuf;
    std::map<void *, std::vector<std::uint8_t>> mapped; // what is mapped now
    // What the driver has been given and not yet given back: the address, or the DMA-buf's number as one.
    std::set<std::uintptr_t> foreign() const;
    // Another memory is at these addresses from now on. What the driver has looked up before goes on to be
    // the old one, which nobody else has any more.
    void replaceMemory(std::uint8_t *address, std::size_t bytes);
    std::uintptr_t refusedPlace = 0; // memory that VIDIOC_QBUF refuses with EFAULT
    int relocations = 0;             // buffers that were given other memory than they had before
    std::uint32_t nextSequence = 1;
    bool isStreaming = false;
    v4l2_format current = {}; // as last set
    std::recursive_mutex mutex;

private:
    struct Filled
    {
        unsigned int index;
        std::uint32_t flags;
        std::uint32_t sequence;
        std::uint32_t lacking;
        std::uint32_t dataOffset;
        std::int64_t time;
    };

    int faultOf(unsigned long request);
    int answer(unsigned long request, void *argument);
    void fillFormat(v4l2_format *format) const;
    std::uint32_t bytesOf(std::uint32_t code, unsigned int plane) const;
    std::uint32_t currentBytes(unsigned int plane) const;
    std::uint32_t type() const;
    int queueBuffer(v4l2_buffer *buffer);
    int dequeueBuffer(v4l2_buffer *buffer);
    int exportBuffer(v4l2_exportbuffer *request);
    int takeMemory(const v4l2_buffer &buffer);
    void paint(unsigned int index);
    void signal(bool readable);

    int device = -1;
    bool isStale = false; // `device` was opened before the device was unplugged
    int nextDmabuf = 100000;
    bool hasBroken = false; // a fault for good has begun
    unsigned int bufferCount = 0;
    std::uint32_t memory = V4L2_MEMORY_MMAP;
    std::uint32_t stride = 0;                        // that was asked for and granted
    std::vector<std::vector<std::uintptr_t>> places; // by buffer: where each plane goes
    // The same, as it was looked up when the buffer came with other addresses than before.
    std::vector<std::vector<std::uintptr_t>> pinned;
    std::deque<std::vector<std::uint8_t>> orphans; // that are pinned, and at no address any more
    std::deque<unsigned int> queue;                // with the driver, to be filled
    std::deque<Filled> done;
};

// EGL that counts. Displays and images are addresses of its own.
struct Egl
{
    static void *display();
    static void *create(void *display, void *context, unsigned int target, void *buffer,
                        const int *attributes);
    static unsigned int destroy(void *display, void *image);

    static void reset();
    static void failFrom(int creation); // this creation, from 0, and later ones fail; -1: none
    static int alive();
    static int created();
    static std::vector<int> attributesOf(void *image);
    static int wrongDestructions(); // of what is no image, or on another display
};

} // namespace fake

#endif
