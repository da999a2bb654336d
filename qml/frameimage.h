#pragma once

#include "yuvcolors.h"

#include <QImage>
#include <QVideoFrame>

namespace zevqml {

/*
 * The frame as an image of its own size, in right colors: planar 4:2:0 frames by `colors` (what is unknown is
 * resolved by the frame's size), RGB frames as they are.
 *
 * Threads: any; the frame is mapped for reading and unmapped again.
 * Ownership: the image owns its pixels; nothing of the frame is referenced afterwards.
 * Errors: a null image for frames that are invalid, cannot be read by the CPU or have another layout.
 * Cost: allocates and converts in the calling thread; chroma is taken from the nearest sample.
 */
QImage frameToImage(const QVideoFrame &frame, YuvColors colors);

} // namespace zevqml
