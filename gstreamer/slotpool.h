// Buffers whose memory is a slot of the store: what upstream writes into them is published without a copy.
#ifndef ZEVGST_SLOTPOOL_H
#define ZEVGST_SLOTPOOL_H

#include "storefeed.h"

#include <gst/video/video.h>

#include <memory>

namespace zevgst {

// A pool for buffers of `info`'s format, which the caller owns. It never waits: without a free slot, or while
// there is no store yet, its buffers are of ordinary memory. Any thread.
GstBufferPool *newSlotPool(std::shared_ptr<StoreFeed> feed, const GstVideoInfo &info);

// The slot that the buffer is, as it was handed out and with nobody else who could still look at it or write
// into it; null for every other buffer.
std::shared_ptr<Slot> slotOf(GstBuffer *buffer);

// A buffer over all planes of a locked or acquired frame, with the video meta that says where they lie.
// `offsets` are those from `memory` on; `owner` lives as long as the memory.
GstBuffer *wrapPlanes(void *memory, size_t size, GstMemoryFlags flags, const GstVideoInfo &info,
                      const gsize *offsets, const gint *strides, std::shared_ptr<void> owner, GQuark tag);

// In GStreamer's order of the format's planes: where each of the store's planes, Y, U, V, is.
void planeLayout(const GstVideoInfo &info, const int64_t *planeOffsets, const int32_t *planeStrides,
                 gsize *offsets, gint *strides);

} // namespace zevgst

#endif
