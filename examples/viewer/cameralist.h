#pragma once

#include <zevmm/v4l2/cameras.h>

#include <QString>

#include <vector>

/* For a person: devices with what they offer. */
QString cameraListText(const std::vector<zevmm::v4l2::Camera> &cameras);
