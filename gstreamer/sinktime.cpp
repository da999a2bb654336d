#include "sinktime.h"

#include "unixtime.h"

#include <cstdlib>
#include <optional>

namespace zevgst {

void observe(ClockMap *map, GstClock *clock)
{
    // The reading that took least was interrupted least.
    int64_t best = INT64_MAX;
    int64_t clockNs = 0;
    int64_t wallUs = 0;
    for (int i = 0; i < 3 && best > 20; ++i) {
        const int64_t before = wallNowUs();
        const auto ns = static_cast<int64_t>(gst_clock_get_time(clock));
        const int64_t after = wallNowUs();
        if (std::abs(after - before) < best) {
            best = std::abs(after - before);
            clockNs = ns;
            wallUs = before + (after - before) / 2;
        }
    }
    // One that took long proves nothing.
    if (!map->known() || best < ClockMap::stepUs / 2)
        map->observe(clockNs, wallUs);
}

int64_t SinkTime::timestampUs(GstBaseSink *sink, GstBuffer *buffer)
{
    const int64_t now = wallNowUs();
    if (const std::optional<int64_t> carried = unixTimeUs(buffer);
        carried && std::abs(*carried - now) < believedUs)
        return *carried;
    GstClock *clock = gst_element_get_clock(GST_ELEMENT_CAST(sink));
    const GstClockTime pts = GST_BUFFER_PTS(buffer);
    int64_t result = now;
    if (clock != nullptr && GST_CLOCK_TIME_IS_VALID(pts) && gst_base_sink_get_sync(sink) &&
        sink->segment.format == GST_FORMAT_TIME) {
        const GstClockTime running = gst_segment_to_running_time(&sink->segment, GST_FORMAT_TIME, pts);
        if (GST_CLOCK_TIME_IS_VALID(running)) {
            observe(&m_map, clock);
            result = m_map.wallUs(
                static_cast<int64_t>(gst_element_get_base_time(GST_ELEMENT_CAST(sink)) + running));
        }
    }
    if (clock != nullptr)
        gst_object_unref(clock);
    return result;
}

} // namespace zevgst
