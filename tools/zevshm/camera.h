// Capture devices of this machine as inputs: "v4l2:/dev/video0".
#ifndef ZEVSHM_CAMERA_H
#define ZEVSHM_CAMERA_H

#include "ffmpeg.h"

#include <string>

namespace zevshm {

bool isCameraInput(const std::string &input);

// FFmpeg's reader of video4linux2 devices. Its library brings window systems and sound servers along, which
// nobody else here needs: it is loaded when the first camera is opened. Throws Failure when it cannot be.
const AVInputFormat *cameraDemuxer();

struct CameraColor
{
    AVColorSpace matrix = AVCOL_SPC_UNSPECIFIED;
    AVColorRange range = AVCOL_RANGE_UNSPECIFIED;
};
// What the driver says of the samples of its present format; nothing when it cannot be asked.
CameraColor colorOfCamera(const std::string &device);

// Why FFmpeg could not open a device, and what helps; `error` is FFmpeg's.
std::string cameraProblem(int error, const std::string &device);
// What can be told without FFmpeg of a device that is no use; empty when nothing can.
std::string cameraProblem(const std::string &device);
// It has the multi-planar interface only, which FFmpeg does not read.
bool isMultiplanarCamera(const std::string &device);

} // namespace zevshm

#endif
