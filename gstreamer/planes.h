// Copies the planes of a frame into a slot, as they are or with their range made full.
#ifndef ZEVGST_PLANES_H
#define ZEVGST_PLANES_H

#include <gst/video/video.h>
#include <shm/shm_writer.h>

namespace zevgst {

// `frame` has the size and format of `slot`. With `expand`, luma 16 to 235 and chroma 16 to 240 become 0 to
// 255.
void copyPlanes(const GstVideoFrame &frame, const shm_writer_frame_t &slot, bool expand);

} // namespace zevgst

#endif
