#ifndef ZEVMM_V4L2_CAMERAS_H
#define ZEVMM_V4L2_CAMERAS_H

#include <zevmm/v4l2/capturebase.h>

#include <cstdint>
#include <string>
#include <vector>

namespace zevmm {
namespace v4l2 {

/* One size that a camera offers in a format. A range of sizes is listed as its smallest and its largest. */
struct CameraSize
{
    std::uint32_t width = 0;   /* pixels */
    std::uint32_t height = 0;  /* pixels */
    std::vector<double> rates; /* frames per second, in the driver's order; empty when it does not tell */
};

/* One pixel format that a camera offers. */
struct CameraFormat
{
    std::uint32_t pixelFormat = 0; /* V4L2's code */
    std::string code;              /* the same in its four characters: "NV12" */
    std::string description;       /* the driver's words */
    std::vector<CameraSize> sizes; /* in the driver's order; empty when it does not tell */
};

/* A capture device, as listCameras() has found it. */
struct Camera
{
    std::string device;                /* path: "/dev/video0" */
    std::string name;                  /* what the driver calls it; empty when it could not be opened */
    std::string driver;                /* of the kernel */
    std::string bus;                   /* where it is connected, in the driver's words */
    std::vector<CameraFormat> formats; /* in the driver's order */
    /* Why DmaEglCapture cannot show it, in one line with the remedy; empty when it can, as far as can be told
     * without changing its settings. */
    std::string problem;
};

/*
 * The capture devices of this machine, by number: every /dev/videoN that captures, and those that cannot be
 * opened, with the reason. Nodes that do other things (codecs, outputs, metadata) are left out.
 *
 * Threads: reentrant. Errors: none; what cannot be asked is left out, or told in `problem`. Cost: opens every
 * device for a moment, blocks as long as its driver does.
 */
ZEVMM_EXPORT std::vector<Camera> listCameras();

/* What a camera is at present, whatever its pixel format. */
struct CameraState
{
    bool multiplanar = false;                      /* it has the multi-planar interface only */
    ColorEncoding encoding = ColorEncoding::Bt601; /* the matrix of its samples */
    bool fullRange = false;                        /* luma 0 to 255; else 16 to 235 */
};

/*
 * Asks one device, and changes nothing; also while somebody streams from it.
 *
 * Threads: reentrant. Errors: throws std::system_error whose code is the errno and whose text names device,
 * request and remedy, as DmaEglCapture::setup() does: no such device, no permission, not a capture device.
 * Cost: opens the device for a moment, blocks as long as its driver does.
 */
ZEVMM_EXPORT CameraState stateOfCamera(const std::string &device);

} // namespace v4l2
} // namespace zevmm

#endif
