// Publishes the frames of zevshmsink's video pad.
#include "formats.h"
#include "planes.h"
#include "shmsink.h"
#include "sinkcounts.h"
#include "sinktime.h"
#include "slotpool.h"

#include <gst/video/video.h>

#include <cerrno>

GST_DEBUG_CATEGORY_EXTERN(zevshm_debug);
#define GST_CAT_DEFAULT zevshm_debug

namespace zevgst {

namespace {

struct VideoState
{
    std::shared_ptr<StoreFeed> feed;
    std::shared_ptr<SinkCounts> counts;
    SinkTime time;
    GstVideoInfo info;      // of the caps
    bool expand = false;    // limited range comes in, full range is published
    bool isRefused = false; // there is no store of this format, and why has been said
};

struct ZevShmVideoSink
{
    GstBaseSink parent;
    VideoState *state;
};

struct ZevShmVideoSinkClass
{
    GstBaseSinkClass parent;
};

G_DEFINE_TYPE(ZevShmVideoSink, zev_shm_video_sink, GST_TYPE_BASE_SINK)

VideoState &stateOf(void *sink)
{
    return *reinterpret_cast<ZevShmVideoSink *>(sink)->state;
}

gboolean setCaps(GstBaseSink *sink, GstCaps *caps)
{
    VideoState &state = stateOf(sink);
    GstVideoInfo info;
    if (!gst_video_info_from_caps(&info, caps))
        return FALSE;
    if (state.isRefused && gst_video_info_is_equal(&info, &state.info))
        return FALSE; // why was said
    state.info = info;
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
    GST_INFO_OBJECT(sink, "%dx%d %s, range %s%s", format.width, format.height,
                    shm_pixel_format_name(format.pixelFormat), shm_range_name(format.color.range),
                    state.expand ? ", made of limited range" : "");
    state.time.reset();
    std::string error;
    if (!state.feed->setVideo(format, &error)) {
        GST_ELEMENT_ERROR(sink, RESOURCE, OPEN_WRITE, ("%s", error.c_str()), (nullptr));
        state.isRefused = true;
        return FALSE;
    }
    state.isRefused = false;
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

// `result`: 0, or why the frame is not in the store.
void count(GstBaseSink *sink, int result, bool copied)
{
    const VideoState &state = stateOf(sink);
    if (result != 0) {
        ++state.counts->dropped;
        GST_INFO_OBJECT(sink, "a frame is dropped: %s",
                        result == -EEXIST   ? "it is not later than the one before"
                        : result == -EAGAIN ? "there is no store yet, or readers hold every slot of it"
                                            : g_strerror(-result));
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
    if (!state.expand) {
        if (const std::shared_ptr<Slot> slot = slotOf(buffer); slot && state.feed->owns(*slot)) {
            count(sink, slot->publish(timestamp), false);
            return GST_FLOW_OK;
        }
    }
    const std::shared_ptr<Slot> slot =
        state.feed->acquire(GST_VIDEO_INFO_WIDTH(&state.info), GST_VIDEO_INFO_HEIGHT(&state.info),
                            pixelFormat(GST_VIDEO_INFO_FORMAT(&state.info)), StoreFeed::For::Copy);
    if (!slot) {
        count(sink, -EAGAIN, true);
        return GST_FLOW_OK;
    }
    GstVideoFrame frame;
    if (!gst_video_frame_map(&frame, &state.info, buffer, GST_MAP_READ)) {
        GST_ELEMENT_ERROR(
            sink, RESOURCE, READ,
            ("a frame cannot be read: it has %" G_GSIZE_FORMAT " bytes in memory that is not to be "
             "mapped, or fewer than the %" G_GSIZE_FORMAT " of its format; put a videoconvert or a "
             "download element in front of this sink, or mend the source",
             gst_buffer_get_size(buffer), GST_VIDEO_INFO_SIZE(&state.info)),
            (nullptr));
        return GST_FLOW_ERROR;
    }
    copyPlanes(frame, slot->frame(), state.expand);
    gst_video_frame_unmap(&frame);
    count(sink, slot->publish(timestamp), true);
    return GST_FLOW_OK;
}

gboolean unlock(GstBaseSink *sink)
{
    stateOf(sink).feed->interrupt(true);
    return TRUE;
}

gboolean unlockStop(GstBaseSink *sink)
{
    stateOf(sink).feed->interrupt(false);
    return TRUE;
}

gboolean stop(GstBaseSink *sink)
{
    VideoState &state = stateOf(sink);
    state.feed->end(StoreFeed::Kind::Video);
    state.isRefused = false;
    return TRUE;
}

void finalize(GObject *object)
{
    delete &stateOf(object);
    G_OBJECT_CLASS(zev_shm_video_sink_parent_class)->finalize(object);
}

void zev_shm_video_sink_class_init(ZevShmVideoSinkClass *klass)
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
    sink->unlock = unlock;
    sink->unlock_stop = unlockStop;
    sink->stop = stop;
}

void zev_shm_video_sink_init(ZevShmVideoSink *sink)
{
    sink->state = new VideoState;
    gst_video_info_init(&sink->state->info);
    // Who keeps the last buffer keeps its slot from being published in place.
    gst_base_sink_set_last_sample_enabled(&sink->parent, FALSE);
    // A late frame is published all the same: readers choose.
    gst_base_sink_set_max_lateness(&sink->parent, -1);
    gst_base_sink_set_qos_enabled(&sink->parent, FALSE);
    gst_base_sink_set_processing_deadline(&sink->parent, 0);
}

} // namespace

GstElement *newVideoSink(std::shared_ptr<StoreFeed> feed, std::shared_ptr<SinkCounts> counts)
{
    auto *sink =
        static_cast<GstElement *>(g_object_new(zev_shm_video_sink_get_type(), "name", "video", nullptr));
    stateOf(sink).feed = std::move(feed);
    stateOf(sink).counts = std::move(counts);
    return sink;
}

} // namespace zevgst
