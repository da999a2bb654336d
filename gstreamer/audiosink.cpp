// Publishes the samples of zevshmsink's audio pad.
#include "formats.h"
#include "shmsink.h"
#include "sinktime.h"

#include <gst/audio/audio.h>

#include <cstdlib>

GST_DEBUG_CATEGORY_EXTERN(zevshm_debug);
#define GST_CAT_DEFAULT zevshm_debug

namespace zevgst {

namespace {

// Timestamps that differ by less from where the samples so far end are rounding, or a sender's jitter.
constexpr int64_t kContinuousUs = 20000;

struct AudioState
{
    std::shared_ptr<StoreFeed> feed;
    SinkTime time;
    GstAudioInfo info; // of the caps
    bool running = false;
    int64_t anchorUs = 0;     // wall clock, of the run's first sample
    int64_t anchorFrames = 0; // published since
};

struct ZevShmAudioSink
{
    GstBaseSink parent;
    AudioState *state;
};

struct ZevShmAudioSinkClass
{
    GstBaseSinkClass parent;
};

G_DEFINE_TYPE(ZevShmAudioSink, zev_shm_audio_sink, GST_TYPE_BASE_SINK)

AudioState &stateOf(void *sink)
{
    return *reinterpret_cast<ZevShmAudioSink *>(sink)->state;
}

gboolean setCaps(GstBaseSink *sink, GstCaps *caps)
{
    AudioState &state = stateOf(sink);
    if (!gst_audio_info_from_caps(&state.info, caps))
        return FALSE;
    state.running = false;
    state.time.reset();
    GST_INFO_OBJECT(sink, "%d Hz, %d channels", GST_AUDIO_INFO_RATE(&state.info),
                    GST_AUDIO_INFO_CHANNELS(&state.info));
    std::string error;
    if (!state.feed->setAudio({GST_AUDIO_INFO_RATE(&state.info), GST_AUDIO_INFO_CHANNELS(&state.info)},
                              &error)) {
        GST_ELEMENT_ERROR(sink, RESOURCE, OPEN_WRITE, ("%s", error.c_str()), (nullptr));
        return FALSE;
    }
    return TRUE;
}

GstFlowReturn render(GstBaseSink *sink, GstBuffer *buffer)
{
    AudioState &state = stateOf(sink);
    const int64_t stated = state.time.timestampUs(sink, buffer);
    const int64_t rate = GST_AUDIO_INFO_RATE(&state.info);
    int64_t timestamp = state.anchorUs + state.anchorFrames * 1000000 / rate;
    if (!state.running || std::abs(stated - timestamp) > kContinuousUs) {
        state.running = true;
        state.anchorUs = timestamp = stated;
        state.anchorFrames = 0;
    }
    GstMapInfo map;
    if (!gst_buffer_map(buffer, &map, GST_MAP_READ))
        return GST_FLOW_ERROR;
    const auto frames = static_cast<uint32_t>(map.size / static_cast<gsize>(GST_AUDIO_INFO_BPF(&state.info)));
    if (state.feed->publishAudio(reinterpret_cast<const int16_t *>(map.data), frames, timestamp) == 0)
        state.anchorFrames += frames;
    else
        state.running = false;
    gst_buffer_unmap(buffer, &map);
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
    AudioState &state = stateOf(sink);
    state.feed->end(StoreFeed::Kind::Audio);
    state.running = false;
    return TRUE;
}

void finalize(GObject *object)
{
    delete &stateOf(object);
    G_OBJECT_CLASS(zev_shm_audio_sink_parent_class)->finalize(object);
}

void zev_shm_audio_sink_class_init(ZevShmAudioSinkClass *klass)
{
    G_OBJECT_CLASS(klass)->finalize = finalize;
    GstElementClass *element = GST_ELEMENT_CLASS(klass);
    static GstStaticPadTemplate pad =
        GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS, GST_STATIC_CAPS(ZEVGST_AUDIO_CAPS));
    gst_element_class_add_static_pad_template(element, &pad);
    gst_element_class_set_static_metadata(element, "Frame store audio", "Sink/Audio",
                                          "The audio pad of zevshmsink", "libzevqt-mm");
    GstBaseSinkClass *sink = GST_BASE_SINK_CLASS(klass);
    sink->set_caps = setCaps;
    sink->render = render;
    sink->unlock = unlock;
    sink->unlock_stop = unlockStop;
    sink->stop = stop;
}

void zev_shm_audio_sink_init(ZevShmAudioSink *sink)
{
    sink->state = new AudioState;
    gst_audio_info_init(&sink->state->info);
    gst_base_sink_set_last_sample_enabled(&sink->parent, FALSE);
    gst_base_sink_set_max_lateness(&sink->parent, -1);
    gst_base_sink_set_qos_enabled(&sink->parent, FALSE);
    gst_base_sink_set_processing_deadline(&sink->parent, 0);
}

} // namespace

GstElement *newAudioSink(std::shared_ptr<StoreFeed> feed)
{
    auto *sink =
        static_cast<GstElement *>(g_object_new(zev_shm_audio_sink_get_type(), "name", "audio", nullptr));
    stateOf(sink).feed = std::move(feed);
    return sink;
}

} // namespace zevgst
