// V4L2's pixel formats and color spaces as capture uses them.
#ifndef ZEVMM_PIXELFORMAT_H
#define ZEVMM_PIXELFORMAT_H

#include <zevmm/v4l2/capturebase.h>

#include <linux/videodev2.h>

#include <array>
#include <cstdint>
#include <string>

namespace zevmm {
namespace v4l2 {

// One plane of a picture: in which of the buffer's memories, and where in there.
struct Plane
{
    unsigned int memory = 0;
    std::uint64_t offset = 0; // bytes
};

// What was negotiated with the driver.
struct Negotiated
{
    CaptureFormat format;
    bool multiplanar = false;           // which flavour of the API
    unsigned int memories = 0;          // per buffer: 1, or 2 when each plane has its own
    std::array<Plane, 2> planes;        // luma, chroma
    std::array<std::uint64_t, 2> bytes; // that a whole picture takes of each memory
    std::array<std::uint32_t, 2> sizes; // that the driver wants each memory to have at least

    std::uint32_t bufferType() const
    {
        return multiplanar ? V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE : V4L2_BUF_TYPE_VIDEO_CAPTURE;
    }
};

// "NV12"; what is not printable as a question mark.
std::string fourccText(std::uint32_t code);

// How the samples of any format are to be read. What EGL has no hint for takes the nearest.
void readColors(const v4l2_format &format, ColorEncoding *encoding, bool *fullRange);

// A picture of NV12 or NM12 as the driver answered it. False when the answer makes no sense; then `why` says
// so.
bool readFormat(const v4l2_format &answer, Negotiated *negotiated, std::string *why);

} // namespace v4l2
} // namespace zevmm

#endif
