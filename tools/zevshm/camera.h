// Capture devices of this machine as inputs: "v4l2:/dev/video0".
#ifndef ZEVSHM_CAMERA_H
#define ZEVSHM_CAMERA_H

#include "ffmpeg.h"

#include <zevmm/v4l2/cameras.h>

#include <string>

namespace zevshm {

bool isCameraInput(const std::string &input);

// FFmpeg's reader of video4linux2 devices. Its library brings window systems and sound servers along, which
// nobody else here needs: it is loaded when the first camera is opened. Throws Failure when it cannot be.
const AVInputFormat *cameraDemuxer();

// What the device is at present. Throws Failure: it cannot be opened, or is no camera.
zevmm::v4l2::CameraState stateOfCamera(const std::string &device);

// The same of one that is open, and set up, by now. Drivers that are for one user at a time do not tell any
// more: what they said `before` holds then.
zevmm::v4l2::CameraState stateOfOpenCamera(const std::string &device,
                                           const zevmm::v4l2::CameraState &before) noexcept;

AVColorSpace colorSpaceOf(zevmm::v4l2::ColorEncoding encoding);
inline AVColorRange colorRangeOf(bool fullRange)
{
    return fullRange ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG;
}

// Why FFmpeg could not open a camera, and what helps; `error` is FFmpeg's.
std::string cameraProblem(int error, const std::string &device);

} // namespace zevshm

#endif
