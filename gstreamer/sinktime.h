#ifndef ZEVGST_SINKTIME_H
#define ZEVGST_SINKTIME_H

#include "clockmap.h"

#include <gst/base/gstbasesink.h>

namespace zevgst {

// When, on the wall clock, the buffers of a sink were or are to be.
//
// A timestamp of the wall clock that the buffer carries (of a store, or of a sender whose clock is known) is
// kept as it is, when it is less than ten seconds from now. Else it is the buffer's place in the pipeline's
// time, which keeps the distances between buffers whatever the moment they arrive. A sink that does not
// synchronise has the moment of arrival only.
//
// Threads: that of the sink's stream.
class SinkTime
{
public:
    int64_t timestampUs(GstBaseSink *sink, GstBuffer *buffer);
    void reset() { m_map.reset(); }

    static constexpr int64_t believedUs = 10000000;

private:
    ClockMap m_map;
};

// Reads the two clocks together, and tells the map.
void observe(ClockMap *map, GstClock *clock);

} // namespace zevgst

#endif
