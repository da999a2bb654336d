// zevshmsink: a bin with a sink for each pad that is asked for, all of which feed one store.
#include "shmsink.h"

#include "formats.h"
#include "sinkcounts.h"

#include <gst/video/video.h>

GST_DEBUG_CATEGORY_EXTERN(zevshm_debug);
#define GST_CAT_DEFAULT zevshm_debug

namespace zevgst {

namespace {

enum Property {
    PropStore = 1,
    PropGroup,
    PropMemory,
    PropHistory,
    PropSealed,
    PropKeepRange,
    PropSync,
    PropPublished,
    PropCopied,
    PropConverted,
    PropDropped
};

struct SinkState
{
    std::shared_ptr<StoreFeed> feed = std::make_shared<StoreFeed>();
    std::shared_ptr<SinkCounts> counts = std::make_shared<SinkCounts>();
    FeedSettings settings; // protected by the object's lock
    bool sync = true;      // as before
};

struct ZevShmSink
{
    GstBin parent;
    SinkState *state;
};

struct ZevShmSinkClass
{
    GstBinClass parent;
};

G_DEFINE_TYPE(ZevShmSink, zev_shm_sink, GST_TYPE_BIN)

SinkState &stateOf(void *sink)
{
    return *reinterpret_cast<ZevShmSink *>(sink)->state;
}

const char *const kPads[] = {"video", "audio"};

StoreFeed::Kind kindOf(const char *pad)
{
    return g_str_equal(pad, "video") ? StoreFeed::Kind::Video : StoreFeed::Kind::Audio;
}

void setSync(ZevShmSink *sink, bool sync)
{
    for (const char *name : kPads) {
        if (GstElement *child = gst_bin_get_by_name(&sink->parent, name)) {
            gst_base_sink_set_sync(GST_BASE_SINK(child), sync);
            gst_object_unref(child);
        }
    }
}

std::string text(const GValue *value)
{
    const gchar *string = g_value_get_string(value);
    return string != nullptr ? string : "";
}

void setProperty(GObject *object, guint id, const GValue *value, GParamSpec *spec)
{
    SinkState &state = stateOf(object);
    GST_OBJECT_LOCK(object);
    switch (id) {
    case PropStore:
        state.settings.store = text(value);
        break;
    case PropGroup:
        state.settings.group = text(value);
        break;
    case PropMemory:
        state.settings.memory = text(value);
        break;
    case PropHistory:
        state.settings.history = g_value_get_uint(value);
        break;
    case PropSealed:
        state.settings.sealed = g_value_get_boolean(value) != FALSE;
        break;
    case PropKeepRange:
        state.settings.keepRange = g_value_get_boolean(value) != FALSE;
        break;
    case PropSync:
        state.sync = g_value_get_boolean(value) != FALSE;
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
        break;
    }
    GST_OBJECT_UNLOCK(object);
    if (id == PropSync)
        setSync(reinterpret_cast<ZevShmSink *>(object), g_value_get_boolean(value) != FALSE);
}

void getProperty(GObject *object, guint id, GValue *value, GParamSpec *spec)
{
    const SinkState &state = stateOf(object);
    GST_OBJECT_LOCK(object);
    switch (id) {
    case PropStore:
        g_value_set_string(value, state.settings.store.c_str());
        break;
    case PropGroup:
        g_value_set_string(value, state.settings.group.c_str());
        break;
    case PropMemory:
        g_value_set_string(value, state.settings.memory.c_str());
        break;
    case PropHistory:
        g_value_set_uint(value, state.settings.history);
        break;
    case PropSealed:
        g_value_set_boolean(value, state.settings.sealed);
        break;
    case PropKeepRange:
        g_value_set_boolean(value, state.settings.keepRange);
        break;
    case PropSync:
        g_value_set_boolean(value, state.sync);
        break;
    case PropPublished:
        g_value_set_uint64(value, state.counts->published);
        break;
    case PropCopied:
        g_value_set_uint64(value, state.counts->copied);
        break;
    case PropConverted:
        g_value_set_uint64(value, state.counts->converted);
        break;
    case PropDropped:
        g_value_set_uint64(value, state.counts->dropped);
        break;
    default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
        break;
    }
    GST_OBJECT_UNLOCK(object);
}

GstPad *requestPad(GstElement *element, GstPadTemplate *wanted, const gchar *, const GstCaps *)
{
    SinkState &state = stateOf(element);
    const gchar *name = GST_PAD_TEMPLATE_NAME_TEMPLATE(wanted);
    if (GstPad *existing = gst_element_get_static_pad(element, name)) {
        gst_object_unref(existing);
        GST_WARNING_OBJECT(element, "a store has one %s pad", name);
        return nullptr;
    }
    const StoreFeed::Kind kind = kindOf(name);
    GstElement *sink =
        kind == StoreFeed::Kind::Video ? newVideoSink(state.feed, state.counts) : newAudioSink(state.feed);
    gst_base_sink_set_sync(GST_BASE_SINK(sink), state.sync);
    state.feed->expect(kind);
    gst_bin_add(GST_BIN(element), sink);
    GstPad *inner = gst_element_get_static_pad(sink, "sink");
    GstPad *pad = gst_ghost_pad_new_from_template(name, inner, wanted);
    gst_object_unref(inner);
    gst_pad_set_active(pad, TRUE);
    gst_element_add_pad(element, pad);
    gst_element_sync_state_with_parent(sink);
    return pad;
}

void releasePad(GstElement *element, GstPad *pad)
{
    GstElement *sink = gst_bin_get_by_name(GST_BIN(element), GST_PAD_NAME(pad));
    if (sink == nullptr)
        return;
    const StoreFeed::Kind kind = kindOf(GST_PAD_NAME(pad));
    gst_pad_set_active(pad, FALSE);
    gst_element_remove_pad(element, pad);
    gst_element_set_locked_state(sink, TRUE);
    gst_element_set_state(sink, GST_STATE_NULL);
    gst_bin_remove(GST_BIN(element), sink);
    gst_object_unref(sink);
    SinkState &state = stateOf(element);
    state.feed->interrupt(false); // which is what the sink that goes has left
    std::string error;
    if (!state.feed->release(kind, &error))
        GST_ELEMENT_ERROR(element, RESOURCE, OPEN_WRITE, ("%s", error.c_str()), (nullptr));
}

bool checkName(GstElement *element, const std::string &store)
{
    shm_error_t error = {};
    if (store.empty())
        GST_ELEMENT_ERROR(element, RESOURCE, SETTINGS,
                          ("no name for the store; say under which to publish: zevshmsink store=NAME"),
                          (nullptr));
    else if (shm_check_name(store.c_str(), &error) != 0)
        GST_ELEMENT_ERROR(element, RESOURCE, SETTINGS, ("%s", error.message), (nullptr));
    else
        return true;
    return false;
}

GstStateChangeReturn changeState(GstElement *element, GstStateChange change)
{
    SinkState &state = stateOf(element);
    if (change == GST_STATE_CHANGE_NULL_TO_READY || change == GST_STATE_CHANGE_READY_TO_PAUSED) {
        GST_OBJECT_LOCK(element);
        const FeedSettings settings = state.settings;
        GST_OBJECT_UNLOCK(element);
        if (!checkName(element, settings.store))
            return GST_STATE_CHANGE_FAILURE;
        state.feed->configure(settings);
        state.feed->interrupt(false);
    }
    const GstStateChangeReturn result =
        GST_ELEMENT_CLASS(zev_shm_sink_parent_class)->change_state(element, change);
    if (change == GST_STATE_CHANGE_PAUSED_TO_READY) {
        state.feed->end(StoreFeed::Kind::Video);
        state.feed->end(StoreFeed::Kind::Audio);
    }
    return result;
}

void finalize(GObject *object)
{
    SinkState *state = &stateOf(object);
    G_OBJECT_CLASS(zev_shm_sink_parent_class)->finalize(object);
    delete state;
}

void addProperties(GObjectClass *object)
{
    const auto writable =
        static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY);
    const auto readable = static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS);
    const auto add = [object](guint id, GParamSpec *spec) {
        g_object_class_install_property(object, id, spec);
    };
    add(PropStore, g_param_spec_string("store", "Store", "Name to publish under", "", writable));
    add(PropGroup, g_param_spec_string("group", "Group", "Group whose members may read, too", "", writable));
    add(PropMemory,
        g_param_spec_string("memory", "Memory", "Where frames lie: memfd, udmabuf, dma-heap:NAME or huge", "",
                            writable));
    add(PropHistory,
        g_param_spec_uint("history", "History", "Frames kept at least; 0: 0.75 s of them, at least 8", 0,
                          SHM_FRAMES_MAX, 0, writable));
    add(PropSealed, g_param_spec_boolean("sealed", "Sealed", "Nobody but this process can write pixels",
                                         FALSE, writable));
    add(PropKeepRange,
        g_param_spec_boolean(
            "keep-range", "Keep range",
            "Publish samples of limited range as they are and say so, instead of making the range full",
            FALSE, writable));
    add(PropSync, g_param_spec_boolean(
                      "sync", "Sync",
                      "Publish at the buffers' times, under these; else at once, under the time of arrival",
                      TRUE, static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS)));
    add(PropPublished, g_param_spec_uint64("frames-published", "Frames published",
                                           "Frames that the store was given", 0, G_MAXUINT64, 0, readable));
    add(PropCopied,
        g_param_spec_uint64("frames-copied", "Frames copied",
                            "Of the published frames: those that did not lie in the store's memory already",
                            0, G_MAXUINT64, 0, readable));
    add(PropConverted, g_param_spec_uint64("frames-converted", "Frames converted",
                                           "Of the copied frames: those whose range was made full", 0,
                                           G_MAXUINT64, 0, readable));
    add(PropDropped,
        g_param_spec_uint64(
            "frames-dropped", "Frames dropped",
            "Frames that found no free slot or no store yet, or were not later than the one before", 0,
            G_MAXUINT64, 0, readable));
}

void zev_shm_sink_class_init(ZevShmSinkClass *klass)
{
    GObjectClass *object = G_OBJECT_CLASS(klass);
    object->set_property = setProperty;
    object->get_property = getProperty;
    object->finalize = finalize;
    addProperties(object);

    GstElementClass *element = GST_ELEMENT_CLASS(klass);
    static GstStaticPadTemplate video =
        GST_STATIC_PAD_TEMPLATE("video", GST_PAD_SINK, GST_PAD_REQUEST, GST_STATIC_CAPS(ZEVGST_VIDEO_CAPS));
    static GstStaticPadTemplate audio =
        GST_STATIC_PAD_TEMPLATE("audio", GST_PAD_SINK, GST_PAD_REQUEST, GST_STATIC_CAPS(ZEVGST_AUDIO_CAPS));
    gst_element_class_add_static_pad_template(element, &video);
    gst_element_class_add_static_pad_template(element, &audio);
    gst_element_class_set_static_metadata(
        element, "Frame store sink", "Sink/Video/Audio",
        "Publishes video and audio as a live stream in shared memory, for any number of "
        "readers on this machine",
        "libzevqt-mm");
    element->request_new_pad = requestPad;
    element->release_pad = releasePad;
    element->change_state = changeState;
}

void zev_shm_sink_init(ZevShmSink *sink)
{
    sink->state = new SinkState;
    GST_OBJECT_FLAG_SET(sink, GST_ELEMENT_FLAG_SINK);
}

} // namespace

GType shmSinkType()
{
    return zev_shm_sink_get_type();
}

} // namespace zevgst
