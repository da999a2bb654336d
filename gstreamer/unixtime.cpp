#include "unixtime.h"

namespace zevgst {

namespace {

GstCaps *unixCaps()
{
    static GstCaps *const caps = [] {
        GstCaps *made = gst_caps_new_empty_simple("timestamp/x-unix");
        GST_MINI_OBJECT_FLAG_SET(made, GST_MINI_OBJECT_FLAG_MAY_BE_LEAKED);
        return made;
    }();
    return caps;
}

} // namespace

std::optional<int64_t> unixTimeUs(GstBuffer *buffer)
{
    const GstReferenceTimestampMeta *meta = gst_buffer_get_reference_timestamp_meta(buffer, unixCaps());
    if (meta == nullptr)
        return std::nullopt;
    return static_cast<int64_t>((meta->timestamp + 500) / 1000);
}

void addUnixTime(GstBuffer *buffer, int64_t us)
{
    gst_buffer_add_reference_timestamp_meta(buffer, unixCaps(), static_cast<GstClockTime>(us) * 1000,
                                            GST_CLOCK_TIME_NONE);
}

} // namespace zevgst
