#ifndef ZEVMM_V4L2_CAPTUREBASE_H
#define ZEVMM_V4L2_CAPTUREBASE_H

#include <cstdint>
#include <memory>
#include <string>

/* Seen outside of the library. */
#define ZEVMM_EXPORT __attribute__((visibility("default")))

namespace zevmm {
namespace v4l2 {

class Capture;

/* The matrix by which samples become colors. */
enum class ColorEncoding { Bt601, Bt709, Bt2020 };

/* What a capture delivers. All zero before setup(). */
struct CaptureFormat
{
    std::uint32_t width = 0;  /* pixels */
    std::uint32_t height = 0; /* pixels */
    /* V4L2's code: NV12 (one descriptor for both planes), or NM12 (a descriptor each). */
    std::uint32_t pixelFormat = 0;
    std::uint32_t strideBytes = 0;                 /* of the luma plane */
    std::uint32_t chromaStrideBytes = 0;           /* of the plane of interleaved Cb and Cr */
    ColorEncoding encoding = ColorEncoding::Bt601; /* the matrix of its samples */
    bool fullRange = false;                        /* luma 0 to 255; else 16 to 235 */
    std::int64_t frameInterval = 0; /* microseconds between two frames as the driver declares it, 0 unknown */
};

/* What a capture has been through since setup(). Counters never go back. */
struct CaptureStatistics
{
    std::uint64_t captured = 0;  /* frames that the driver filled */
    std::uint64_t delivered = 0; /* frames that readFrame() handed out */
    std::uint64_t skipped = 0;   /* frames that a newer one replaced before they were asked for */
    std::uint64_t damaged =
        0; /* frames that the driver marked as damaged, or filled in part: not delivered */
    std::uint64_t restarts = 0;     /* streaming restarted after a stall or an error */
    std::uint64_t returns = 0;      /* times the device was opened anew after it had gone */
    std::uint32_t lastSequence = 0; /* the driver's number of the last delivered frame */
    std::int64_t lastTimestamp = 0; /* when it was captured: CLOCK_MONOTONIC, microseconds; 0 unknown */
};

/*
 * A video4linux2 capture device: what every way to capture from it has in common.
 *
 * Threads: every operation here is thread-safe. Ownership: owns the open device. Cost: none calls the driver.
 */
class ZEVMM_EXPORT CaptureBase
{
public:
    virtual ~CaptureBase();
    CaptureBase(const CaptureBase &) = delete;
    CaptureBase &operator=(const CaptureBase &) = delete;

    /* The device's path, as given. */
    std::string device() const;
    /*
     * The format negotiated by setup(); after a device came back different, that of the frame delivered last,
     * so that inside readFrame()'s callback it is that frame's.
     */
    CaptureFormat format() const;
    /* At this moment; of frames that are under way as well. */
    CaptureStatistics statistics() const;
    /* Why no frames come, in one line: the device is gone, or delivers nothing. Empty when all is well. */
    std::string trouble() const;

protected:
    /* Takes what does the work. */
    explicit CaptureBase(std::unique_ptr<Capture> implementation);

    /* What does the work. */
    const std::unique_ptr<Capture> capture;
};

} // namespace v4l2
} // namespace zevmm

#endif
