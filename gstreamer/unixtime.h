// Wall-clock timestamps on buffers, as GStreamer's own elements carry them ("timestamp/x-unix").
#ifndef ZEVGST_UNIXTIME_H
#define ZEVGST_UNIXTIME_H

#include <gst/gst.h>

#include <cstdint>
#include <optional>

namespace zevgst {

// Microseconds since the epoch.
std::optional<int64_t> unixTimeUs(GstBuffer *buffer);
void addUnixTime(GstBuffer *buffer, int64_t us);

} // namespace zevgst

#endif
