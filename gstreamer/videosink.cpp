// Publishes the frames of zevshmsink's video pad.
#include "formats.h"
#include "planes.h"
#include "shmsink.h"
#include "sinkcounts.h"
#include "sinktime.h"
#include "slotpool.h"

#include <gst/video/video.h>

GST_DEBUG_CATEGORY_EXTERN(zevshm_debug);
#define GST_CAT_DEFAULT zevshm_debug

namespace zevgst {

namespace {

struct VideoState
{
    std::shared_ptr<StoreFeed> feed;
    std::shared_ptr<SinkCounts> counts;
    SinkTime time;
    GstVideoInfo info;   // of the caps
    bool expand = false; // limited range comes in, full range is published
};

struct VideoSink
{
    GstBaseSink parent;
    VideoState *state;
};

struct VideoSinkClass
{
    GstBaseSinkClass parent;
};

G_DEFINE_TYPE(VideoSink, video_sink, GST_TYPE_BASE_SINK)

VideoState &stateOf(void *sink)
{
    return *reinterpret_cast<VideoSink *>(sink)->state;
}

gboolean setCaps(GstBaseSink *sink, GstCaps *caps)
{
    VideoState &state = stateOf(sink);
    if (!gst_video_info_from_caps(&state.info, caps))
        return FALSE;
    VideoFormat format;
    format.width = GST_VIDEO_INFO_WIDTH(&state.info);
    format.height = GST_VIDEO_INFO_HEIGHT(&state.info);
    format.pixelFormat = pixelFormat(GST_VIDEO_INFO_FORMAT(&state.info));
    format.color = colorOf(state.info);
    state.expand = format.color.range == SHM_RANGE_LIMITED && !state.feed->keepsRange();
    if (state.expand)
        format.color.range = SHM_RANGE_FULL;
    if (GST_VIDEO_INFO_FPS_N(&state.info) > 0) {
        format.rateNumerator = static_cast<unsigned>(GST_VIDEO_INFO_FPS_N(&state.info));
        format.rateDenominator = static_cast<unsigned>(GST_VIDEO_INFO_FPS_D(&state.info));
    }
    std::string error;
    if (!state.feed->setVideo(format, &error)) {
        GST_ELEMENT_ERROR(sink, RESOURCE, OPEN_WRITE, ("%s", error.c_str()), (nullptr));
        return FALSE;
    }
    return TRUE;
}

gboolean proposeAllocation(GstBaseSink *sink, GstQuery *query)
{
    const VideoState &state = stateOf(sink);
    gst_query_add_allocation_meta(query, GST_VIDEO_META_API_TYPE, nullptr);
    GstCaps *caps = nullptr;
    gboolean wantsPool = FALSE;
    gst_query_parse_allocation(query, &caps, &wantsPool);
    GstVideoInfo info;
    if (caps == nullptr || !gst_video_info_from_caps(&info, caps))
        return FALSE;
    // What is converted is written into a slot by the conversion.
    if (state.expand || !wantsPool)
        return TRUE;
    GstBufferPool *pool = newSlotPool(state.feed, info);
    GstStructure *config = gst_buffer_pool_get_config(pool);
    gst_buffer_pool_config_set_params(config, caps, static_cast<guint>(GST_VIDEO_INFO_SIZE(&info)), 0, 0);
    gst_buffer_pool_set_config(pool, config);
    gst_query_add_allocation_pool(query, pool, static_cast<guint>(GST_VIDEO_INFO_SIZE(&info)), 0, 0);
    gst_object_unref(pool);
    return TRUE;
}

void count(VideoState &state, int result, bool copied)
{
    if (result != 0) {
        ++state.counts->dropped;
        return;
    }
    ++state.counts->published;
    if (copied)
        ++state.counts->copied;
    if (copied && state.expand)
        ++state.counts->converted;
}

GstFlowReturn render(GstBaseSink *sink, GstBuffer *buffer)
{
    VideoState &state = stateOf(sink);
    const int64_t timestamp = state.time.timestampUs(sink, buffer);
    if (const std::shared_ptr<Slot> slot = slotOf(buffer); slot && state.feed->owns(*slot)) {
        count(state, slot->publish(timestamp), false);
        return GST_FLOW_OK;
    }
    const std::shared_ptr<Slot> slot =
        state.feed->acquire(GST_VIDEO_INFO_WIDTH(&state.info), GST_VIDEO_INFO_HEIGHT(&state.info),
                            pixelFormat(GST_VIDEO_INFO_FORMAT(&state.info)));
    if (!slot) {
        ++state.counts->dropped;
        return GST_FLOW_OK;
    }
    GstVideoFrame frame;
    if (!gst_video_frame_map(&frame, &state.info, buffer, GST_MAP_READ)) {
        GST_ELEMENT_ERROR(sink, RESOURCE, READ, ("a frame's memory cannot be read"),
                          ("put a videoconvert or a download element in front of this sink"));
        return GST_FLOW_ERROR;
    }
    copyPlanes(frame, slot->frame(), state.expand);
    gst_video_frame_unmap(&frame);
    count(state, slot->publish(timestamp), true);
    return GST_FLOW_OK;
}

gboolean stop(GstBaseSink *sink)
{
    VideoState &state = stateOf(sink);
    state.feed->end(StoreFeed::Kind::Video);
    state.time.reset();
    return TRUE;
}

void finalize(GObject *object)
{
    delete &stateOf(object);
    G_OBJECT_CLASS(video_sink_parent_class)->finalize(object);
}

void video_sink_class_init(VideoSinkClass *klass)
{
    G_OBJECT_CLASS(klass)->finalize = finalize;
    GstElementClass *element = GST_ELEMENT_CLASS(klass);
    static GstStaticPadTemplate pad =
        GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS(ZEVGST_VIDEO_CAPS));
    gst_element_class_add_static_pad_template(element, &pad);
    gst_element_class_set_static_metadata(element, "Frame store video", "Sink/Video",
                                          "The video pad of zevshmsink", "libzevqt-mm");
    GstBaseSinkClass *sink = GST_BASE_SINK_CLASS(klass);
    sink->set_caps = setCaps;
    sink->propose_allocation = proposeAllocation;
    sink->render = render;
    sink->stop = stop;
}

void video_sink_init(VideoSink *sink)
{
    sink->state = new VideoState;
    gst_video_info_init(&sink->state->info);
    // Who keeps the last buffer keeps its slot from being published in place.
    gst_base_sink_set_last_sample_enabled(&sink->parent, FALSE);
    // A late frame is published all the same: readers choose.
    gst_base_sink_set_max_lateness(&sink->parent, -1);
    gst_base_sink_set_qos_enabled(&sink->parent, FALSE);
}

} // namespace

GstElement *newVideoSink(std::shared_ptr<StoreFeed> feed, std::shared_ptr<SinkCounts> counts)
{
    auto *sink = static_cast<GstElement *>(g_object_new(video_sink_get_type(), "name", "video", nullptr));
    stateOf(sink).feed = std::move(feed);
    stateOf(sink).counts = std::move(counts);
    return sink;
}

} // namespace zevgst
