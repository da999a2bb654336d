// What listCameras() does with each node, and stateOfCamera() with one.
#ifndef ZEVMM_CAMERALIST_H
#define ZEVMM_CAMERALIST_H

#include "system.h"

#include <zevmm/v4l2/cameras.h>

#include <string>

namespace zevmm {
namespace v4l2 {

// Fills `camera`. False when this is none: a codec, an output, metadata, or nothing at all.
bool describeCamera(System &system, const std::string &path, Camera *camera);
CameraState stateOfCamera(System &system, const std::string &path);

} // namespace v4l2
} // namespace zevmm

#endif
