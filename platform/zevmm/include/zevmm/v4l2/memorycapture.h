#ifndef ZEVMM_V4L2_MEMORYCAPTURE_H
#define ZEVMM_V4L2_MEMORYCAPTURE_H

#include <zevmm/v4l2/capturebase.h>

#include <cstdint>
#include <memory>
#include <string>

namespace zevmm {
namespace v4l2 {

class MemoryStream;

/* How a frame comes to its taker. */
enum class MemoryWay {
    Address, /* the driver writes into the taker's memory, given by its address (V4L2_MEMORY_USERPTR) */
    DmaBuf,  /* the same, given as a DMA-buf (V4L2_MEMORY_DMABUF) */
    Mapped   /* the driver writes into memory of its own, which the taker may read while it is told */
};

/* Where NV12 lies in the taker's memory. The same for every frame. */
struct FrameLayout
{
    std::uint32_t strideBytes = 0;  /* of both planes */
    std::uint64_t chromaOffset = 0; /* bytes from the first of the luma plane, which is the memory's first */
    std::uint64_t bytes = 0;        /* of the memory */
};

/* Memory for one frame. */
struct FrameMemory
{
    std::uint8_t *address = nullptr; /* page-aligned; null with MemoryWay::DmaBuf if it is not mapped */
    int dmabuf = -1;                 /* borrowed while the memory is lent; -1 if it is none */
    /* The taker's. Memory that comes again with the id it had is taken to be the same; other memory has
     * another id, above all where it lies at an address at which there was memory before. */
    std::uint64_t id = 0;
};

/* A frame that the driver has filled. */
struct FilledFrame
{
    FrameMemory memory;                 /* the taker's again; none with MemoryWay::Mapped */
    const std::uint8_t *planes[2] = {}; /* luma, chroma; with MemoryWay::Mapped: until taken() returns */
    std::uint32_t strideBytes[2] = {};  /* of these planes */
    std::uint32_t sequence = 0;         /* the driver's number */
    std::int64_t timestamp = 0;         /* when it was captured: CLOCK_MONOTONIC, microseconds; 0 unknown */
};

/*
 * Who takes the frames, and lends the memory for them. Called by the operations of MemoryCapture, in their
 * thread. Must not call the capture.
 */
class ZEVMM_EXPORT FrameTaker
{
public:
    virtual ~FrameTaker();
    /* Lends memory until taken() or returned(). False when there is none now: the next frame is dropped. */
    virtual bool lend(FrameMemory *memory) = 0;
    /* A frame. What it throws ends the operation and is passed on; the frame is the taker's all the same. */
    virtual void taken(const FilledFrame &frame) = 0;
    /* Memory comes back with nothing in it. */
    virtual void returned(const FrameMemory &memory) = 0;
};

/*
 * Captures into memory that somebody else provides, such as slots of a frame store, without a copy where the
 * driver takes such memory.
 *
 * Usage:
 *
 *     MemoryCapture capture("/dev/video0");
 *     capture.setup();                                     // throws when the device is no use
 *     std::string why;
 *     if (!capture.start(MemoryWay::Address, layout, taker, &why))
 *         ... // another way; MemoryWay::Mapped needs nothing but a driver that maps its buffers
 *     while (capture.run(1000, stopDescriptor) == MemoryCapture::Change::None)
 *         ...
 *     capture.stop();
 *
 * Memory: queueLength() frames are lent to the driver, and one more while a filled one is being taken. A
 * filled frame is taken only when other memory has been lent in its place: with none the frame is dropped and
 * its memory queued again, so that the driver never runs dry. A device that stalls or vanishes keeps what it
 * was lent until stop(), and uses it when it is back. Memory that is lent again and again is best lent with
 * the same ids, up to 32 of them: the kernel then need not look it up anew.
 *
 * Trouble: as with DmaEglCapture: stalls are ended by streaming anew, a device that has gone is opened again
 * when it is back. One that comes back with another size, layout or color is not used: run() says so, once.
 *
 * Threads: one at a time, but format(), statistics(), trouble() and device(), which are thread-safe.
 * Ownership: owns the open device; borrows the taker from start() to stop(). Units: bytes, microseconds.
 * Cost: run() waits.
 */
class ZEVMM_EXPORT MemoryCapture
{
public:
    /* What run() has noticed. */
    enum class Change {
        None,  /* nothing that concerns the taker */
        Format /* the device is back and is different: stop(), setup() and start() with its new format */
    };

    /* Opens nothing yet. `device` is a path, in the file system's encoding. */
    explicit MemoryCapture(const std::string &device);
    /* stop()s. */
    ~MemoryCapture();
    MemoryCapture(const MemoryCapture &) = delete;
    MemoryCapture &operator=(const MemoryCapture &) = delete;

    /* The device's path, as given. */
    std::string device() const;
    /* As negotiated by setup(), or by start(), which may have changed strides. */
    CaptureFormat format() const;
    /* At this moment. */
    CaptureStatistics statistics() const;
    /* Why no frames come, in one line; empty when all is well. */
    std::string trouble() const;

    /*
     * Opens the device and asks it for NV12 at its present size; again after stop(). Throws std::system_error
     * as DmaEglCapture::setup() does; nothing stays open then.
     */
    void setup();
    /* Frames that the driver has at once. From setup() on. */
    unsigned int queueLength() const;
    /*
     * Asks the driver for this layout (which MemoryWay::Mapped does without), lends it memory and streams.
     * False when that is not to be had: then `why` says in a few words what stands against it, all memory has
     * been returned, and another way may be tried. The device is opened anew for that; when not even that
     * works, all ways say so. Throws std::logic_error before setup() and while it streams.
     */
    bool start(MemoryWay way, const FrameLayout &layout, FrameTaker &taker, std::string *why);
    /*
     * Waits at most `timeoutMs` for the device, or for `wakeDescriptor` (borrowed, -1 for none) to be
     * readable, and hands on what has come. Returns at once when it does not stream.
     */
    Change run(int timeoutMs, int wakeDescriptor = -1);
    /* Stops streaming, returns all memory that is lent, and closes the device. Harmless when it does not
     * stream. */
    void stop();

private:
    const std::unique_ptr<MemoryStream> stream;
};

} // namespace v4l2
} // namespace zevmm

#endif
