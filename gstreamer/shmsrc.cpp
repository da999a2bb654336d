// zevshmsrc: a live source of one store's video or sound, which outlives the store's writers.
#include "shmsrc.h"

#include "clockmap.h"
#include "formats.h"
#include "sinktime.h"
#include "storesource.h"
#include "unixtime.h"

#include <gst/base/gstpushsrc.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>

GST_DEBUG_CATEGORY_EXTERN(zevshm_debug);
#define GST_CAT_DEFAULT zevshm_debug

namespace zevgst {

namespace {

enum Property { PropStore = 1, PropMedia, PropStream, PropLatency };

constexpr auto kLookAgain = std::chrono::milliseconds(20);
constexpr auto kTellAfter = std::chrono::seconds(2);
constexpr guint kDefaultLatencyMs = 100;

GType mediaType()
{
    static const GEnumValue values[] = {{static_cast<gint>(StoreSource::Media::Video), "Frames", "video"},
                                        {static_cast<gint>(StoreSource::Media::Audio), "Sound", "audio"},
                                        {0, nullptr, nullptr}};
    static const GType type = g_enum_register_static("ZevShmSrcMedia", values);
    return type;
}

struct SrcState
{
    // Protected by the object's lock.
    std::string store;
    StoreSource::Media media = StoreSource::Media::Video;
    int stream = 0;
    guint latencyMs = kDefaultLatencyMs;

    // The streaming thread's.
    StoreSource source;
    ClockMap map;
    bool told = false; // that there is no store
    std::chrono::steady_clock::time_point lookingSince;
    bool looking = false;

    std::atomic<bool> isResumed{false};   // it plays anew
    std::atomic<int64_t> playingSince{0}; // wall clock

    std::mutex mutex;
    std::condition_variable changed;
    bool flushing = false; // protected by mutex
};

struct ZevShmSrc
{
    GstPushSrc parent;
    SrcState *state;
};

struct ZevShmSrcClass
{
    GstPushSrcClass parent;
};

G_DEFINE_TYPE(ZevShmSrc, zev_shm_src, GST_TYPE_PUSH_SRC)

SrcState &stateOf(void *source)
{
    return *reinterpret_cast<ZevShmSrc *>(source)->state;
}

void setProperty(GObject *object, guint id, const GValue *value, GParamSpec *spec)
{
    SrcState &state = stateOf(object);
    GST_OBJECT_LOCK(object);
    switch (id) {
    case PropStore: {
        const gchar *text = g_value_get_string(value);
        state.store = text != nullptr ? text : "";
        break;
    }
    case PropMedia:
        state.media = static_cast<StoreSource::Media>(g_value_get_enum(value));
        break;
    case PropStream:
        state.stream = g_value_get_int(value);
        break;
    case PropLatency:
        state.latencyMs = g_value_get_uint(value);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
        break;
    }
    GST_OBJECT_UNLOCK(object);
}

void getProperty(GObject *object, guint id, GValue *value, GParamSpec *spec)
{
    const SrcState &state = stateOf(object);
    GST_OBJECT_LOCK(object);
    switch (id) {
    case PropStore:
        g_value_set_string(value, state.store.c_str());
        break;
    case PropMedia:
        g_value_set_enum(value, static_cast<gint>(state.media));
        break;
    case PropStream:
        g_value_set_int(value, state.stream);
        break;
    case PropLatency:
        g_value_set_uint(value, state.latencyMs);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
        break;
    }
    GST_OBJECT_UNLOCK(object);
}

gboolean start(GstBaseSrc *base)
{
    SrcState &state = stateOf(base);
    GST_OBJECT_LOCK(base);
    const std::string store = state.store;
    const StoreSource::Media media = state.media;
    const int stream = state.stream;
    GST_OBJECT_UNLOCK(base);
    shm_error_t error = {};
    if (store.empty()) {
        GST_ELEMENT_ERROR(
            base, RESOURCE, SETTINGS,
            ("no name of a store; say which to read: zevshmsrc store=NAME (zevshm list shows them)"),
            (nullptr));
        return FALSE;
    }
    if (shm_check_name(store.c_str(), &error) != 0) {
        GST_ELEMENT_ERROR(base, RESOURCE, SETTINGS, ("%s", error.message), (nullptr));
        return FALSE;
    }
    state.source.configure(store, media, stream);
    state.map.reset();
    state.looking = false;
    state.told = false;
    return TRUE;
}

gboolean stop(GstBaseSrc *base)
{
    stateOf(base).source.close();
    return TRUE;
}

void setFlushing(GstBaseSrc *base, bool flushing)
{
    SrcState &state = stateOf(base);
    const std::lock_guard<std::mutex> guard(state.mutex);
    state.flushing = flushing;
    state.changed.notify_all();
}

gboolean unlock(GstBaseSrc *base)
{
    setFlushing(base, true);
    return TRUE;
}

gboolean unlockStop(GstBaseSrc *base)
{
    setFlushing(base, false);
    return TRUE;
}

// False when it is to stop.
bool pause(SrcState &state, std::chrono::milliseconds time)
{
    std::unique_lock<std::mutex> guard(state.mutex);
    return !state.changed.wait_for(guard, time, [&state] { return state.flushing; });
}

// Asks what downstream understands, which may be another element than before.
void askDownstream(GstBaseSrc *base, SrcState &state)
{
    GstCaps *caps = state.source.caps();
    GstQuery *query = gst_query_new_allocation(caps, FALSE);
    const bool answered = gst_pad_peer_query(GST_BASE_SRC_PAD(base), query) != FALSE;
    state.source.setVideoMetaSupported(
        answered && gst_query_find_allocation_meta(query, GST_VIDEO_META_API_TYPE, nullptr) != FALSE);
    gst_query_unref(query);
    gst_caps_unref(caps);
}

// The format comes from the store, once there is one.
gboolean negotiate(GstBaseSrc *base)
{
    SrcState &state = stateOf(base);
    if (state.source.hasFormat())
        askDownstream(base, state);
    return TRUE;
}

GstCaps *getCaps(GstBaseSrc *base, GstCaps *filter)
{
    SrcState &state = stateOf(base);
    GST_OBJECT_LOCK(base);
    const bool audio = state.media == StoreSource::Media::Audio;
    GST_OBJECT_UNLOCK(base);
    GstCaps *caps = gst_pad_get_current_caps(GST_BASE_SRC_PAD(base));
    if (caps == nullptr)
        caps = gst_caps_from_string(audio ? ZEVGST_AUDIO_CAPS : ZEVGST_VIDEO_CAPS);
    if (filter == nullptr)
        return caps;
    GstCaps *result = gst_caps_intersect_full(filter, caps, GST_CAPS_INTERSECT_FIRST);
    gst_caps_unref(caps);
    return result;
}

bool tellFormat(GstBaseSrc *base, SrcState &state)
{
    GstCaps *caps = state.source.caps();
    GST_INFO_OBJECT(base, "%" GST_PTR_FORMAT, static_cast<void *>(caps));
    const bool taken = gst_base_src_set_caps(base, caps) != FALSE;
    gst_caps_unref(caps);
    if (taken)
        askDownstream(base, state);
    return taken;
}

// False for a buffer of a time when the pipeline did not play.
bool stamp(GstBaseSrc *base, SrcState &state, GstBuffer *buffer, int64_t timestampUs)
{
    GST_BUFFER_DURATION(buffer) = state.source.bufferDuration();
    const int64_t now = wallNowUs();
    // A writer whose clock is another one: the moment of arrival is all there is.
    const bool isBelieved = std::abs(timestampUs - now) < SinkTime::believedUs;
    if (isBelieved)
        addUnixTime(buffer, timestampUs);
    GstClock *clock = gst_element_get_clock(GST_ELEMENT_CAST(base));
    if (clock == nullptr)
        return true;
    observe(&state.map, clock);
    gst_object_unref(clock);
    const int64_t running = state.map.clockNs(isBelieved ? timestampUs : now) -
                            static_cast<int64_t>(gst_element_get_base_time(GST_ELEMENT_CAST(base)));
    if (running < 0 || (isBelieved && timestampUs < state.playingSince))
        return false;
    GST_BUFFER_PTS(buffer) = static_cast<GstClockTime>(running);
    return true;
}

// Says once that there is nothing to read, when that lasts.
void tellOfWaiting(GstBaseSrc *base, SrcState &state)
{
    const auto now = std::chrono::steady_clock::now();
    if (!state.looking) {
        state.looking = true;
        state.lookingSince = now;
    }
    if (!state.told && now - state.lookingSince > kTellAfter) {
        state.told = true;
        GST_ELEMENT_INFO(base, RESOURCE, NOT_FOUND, ("waiting: %s", state.source.error().c_str()), (nullptr));
    }
}

GstFlowReturn create(GstPushSrc *push, GstBuffer **buffer)
{
    GstBaseSrc *base = GST_BASE_SRC_CAST(push);
    SrcState &state = stateOf(push);
    while (pause(state, std::chrono::milliseconds(0))) {
        if (state.isResumed.exchange(false))
            state.source.skipToNewest(); // what was published during a pause is of no use
        int64_t timestampUs = 0;
        const StoreSource::Result result = state.source.next(buffer, &timestampUs);
        switch (result) {
        case StoreSource::Result::Buffer:
            if (stamp(base, state, *buffer, timestampUs))
                return GST_FLOW_OK;
            gst_buffer_unref(*buffer);
            *buffer = nullptr;
            break;
        case StoreSource::Result::Failed:
            GST_ELEMENT_ERROR(base, RESOURCE, OPEN_READ, ("%s", state.source.error().c_str()), (nullptr));
            return GST_FLOW_ERROR;
        case StoreSource::Result::Gone:
            tellOfWaiting(base, state);
            pause(state, kLookAgain);
            break;
        case StoreSource::Result::Nothing:
            state.looking = state.told = false;
            break;
        }
        if (state.source.takeFormatChange() && !tellFormat(base, state))
            return GST_PAD_IS_FLUSHING(GST_BASE_SRC_PAD(base)) ? GST_FLOW_FLUSHING : GST_FLOW_NOT_NEGOTIATED;
    }
    return GST_FLOW_FLUSHING;
}

gboolean query(GstBaseSrc *base, GstQuery *asked)
{
    if (GST_QUERY_TYPE(asked) != GST_QUERY_LATENCY)
        return GST_BASE_SRC_CLASS(zev_shm_src_parent_class)->query(base, asked);
    SrcState &state = stateOf(base);
    GST_OBJECT_LOCK(base);
    const GstClockTime latency = state.latencyMs * GST_MSECOND;
    GST_OBJECT_UNLOCK(base);
    gst_query_set_latency(asked, TRUE, latency, GST_CLOCK_TIME_NONE);
    return TRUE;
}

GstStateChangeReturn changeState(GstElement *element, GstStateChange change)
{
    if (change == GST_STATE_CHANGE_PAUSED_TO_PLAYING) {
        stateOf(element).playingSince = wallNowUs();
        stateOf(element).isResumed = true;
    }
    return GST_ELEMENT_CLASS(zev_shm_src_parent_class)->change_state(element, change);
}

void finalize(GObject *object)
{
    delete &stateOf(object);
    G_OBJECT_CLASS(zev_shm_src_parent_class)->finalize(object);
}

void zev_shm_src_class_init(ZevShmSrcClass *klass)
{
    GObjectClass *object = G_OBJECT_CLASS(klass);
    object->set_property = setProperty;
    object->get_property = getProperty;
    object->finalize = finalize;
    const auto writable =
        static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY);
    const auto add = [object](guint id, GParamSpec *spec) {
        g_object_class_install_property(object, id, spec);
    };
    add(PropStore, g_param_spec_string("store", "Store", "Name of the store to read", "", writable));
    add(PropMedia, g_param_spec_enum("media", "Media", "What to read of it; another element reads the other",
                                     mediaType(), static_cast<gint>(StoreSource::Media::Video), writable));
    add(PropStream, g_param_spec_int("stream", "Stream", "Which of its audio streams", 0, SHM_STREAMS_MAX - 1,
                                     0, writable));
    add(PropLatency,
        g_param_spec_uint("latency", "Latency",
                          "How long after its timestamp a frame may come, in milliseconds: sinks that "
                          "synchronise show it so much later",
                          0, 10000, kDefaultLatencyMs, writable));

    GstElementClass *element = GST_ELEMENT_CLASS(klass);
    static GstStaticPadTemplate pad = GST_STATIC_PAD_TEMPLATE(
        "src", GST_PAD_SRC, GST_PAD_ALWAYS, GST_STATIC_CAPS(ZEVGST_VIDEO_CAPS "; " ZEVGST_AUDIO_CAPS));
    gst_element_class_add_static_pad_template(element, &pad);
    gst_element_class_set_static_metadata(
        element, "Frame store source", "Source/Video/Audio",
        "Reads the video or the sound of a live stream in shared memory; waits while "
        "there is no writer and goes on with the next",
        "libzevqt-mm");
    element->change_state = changeState;
    gst_type_mark_as_plugin_api(mediaType(), GstPluginAPIFlags{});

    GstBaseSrcClass *source = GST_BASE_SRC_CLASS(klass);
    source->start = start;
    source->stop = stop;
    source->unlock = unlock;
    source->unlock_stop = unlockStop;
    source->negotiate = negotiate;
    source->get_caps = getCaps;
    source->query = query;
    GST_PUSH_SRC_CLASS(klass)->create = create;
}

void zev_shm_src_init(ZevShmSrc *source)
{
    source->state = new SrcState;
    gst_base_src_set_live(&source->parent.parent, TRUE);
    gst_base_src_set_format(&source->parent.parent, GST_FORMAT_TIME);
}

} // namespace

GType shmSrcType()
{
    return zev_shm_src_get_type();
}

} // namespace zevgst
