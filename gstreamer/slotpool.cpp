#include "slotpool.h"

#include "formats.h"

#include <atomic>

namespace zevgst {

namespace {

struct PoolState
{
    std::shared_ptr<StoreFeed> feed;
    GstVideoInfo info;
    std::atomic<bool> mayPadRows{false};
};

struct ZevShmSlotPool
{
    GstBufferPool parent;
    PoolState *state;
};

struct ZevShmSlotPoolClass
{
    GstBufferPoolClass parent;
};

G_DEFINE_TYPE(ZevShmSlotPool, zev_shm_slot_pool, GST_TYPE_BUFFER_POOL)

ZevShmSlotPool *slotPool(void *instance)
{
    return reinterpret_cast<ZevShmSlotPool *>(instance);
}

GQuark slotQuark()
{
    static const GQuark quark = g_quark_from_static_string("zevshm-slot");
    return quark;
}

using Owner = std::shared_ptr<void>;

const gchar **poolOptions(GstBufferPool *)
{
    static const gchar *options[] = {GST_BUFFER_POOL_OPTION_VIDEO_META, nullptr};
    return options;
}

// Rows of a slot are padded: only for who looks at the video meta.
gboolean setConfig(GstBufferPool *pool, GstStructure *config)
{
    slotPool(pool)->state->mayPadRows =
        gst_buffer_pool_config_has_option(config, GST_BUFFER_POOL_OPTION_VIDEO_META) != FALSE;
    return GST_BUFFER_POOL_CLASS(zev_shm_slot_pool_parent_class)->set_config(pool, config);
}

// Slots are taken one by one as they are asked for, and given back when the buffer goes: nothing is kept in
// the pool.
gboolean startPool(GstBufferPool *)
{
    return TRUE;
}

gboolean stopPool(GstBufferPool *)
{
    return TRUE;
}

GstFlowReturn acquireBuffer(GstBufferPool *pool, GstBuffer **buffer, GstBufferPoolAcquireParams *)
{
    if (GST_BUFFER_POOL_IS_FLUSHING(pool))
        return GST_FLOW_FLUSHING;
    const PoolState &state = *slotPool(pool)->state;
    const GstVideoInfo &info = state.info;
    std::shared_ptr<Slot> slot;
    if (state.mayPadRows)
        slot = state.feed->acquire(GST_VIDEO_INFO_WIDTH(&info), GST_VIDEO_INFO_HEIGHT(&info),
                                   pixelFormat(GST_VIDEO_INFO_FORMAT(&info)), StoreFeed::For::Pool);
    if (slot) {
        gsize offsets[GST_VIDEO_MAX_PLANES] = {};
        gint strides[GST_VIDEO_MAX_PLANES] = {};
        planeLayout(info, slot->frame().plane_offsets, slot->frame().strides, offsets, strides);
        *buffer = wrapPlanes(slot->memory(), slot->size(), GstMemoryFlags{}, info, offsets, strides, slot,
                             slotQuark());
        return GST_FLOW_OK;
    }
    *buffer = gst_buffer_new_allocate(nullptr, GST_VIDEO_INFO_SIZE(&info), nullptr);
    if (*buffer == nullptr)
        return GST_FLOW_ERROR;
    gst_buffer_add_video_meta(*buffer, GST_VIDEO_FRAME_FLAG_NONE, GST_VIDEO_INFO_FORMAT(&info),
                              static_cast<guint>(GST_VIDEO_INFO_WIDTH(&info)),
                              static_cast<guint>(GST_VIDEO_INFO_HEIGHT(&info)));
    return GST_FLOW_OK;
}

void releaseBuffer(GstBufferPool *, GstBuffer *buffer)
{
    gst_buffer_unref(buffer);
}

void finalizePool(GObject *object)
{
    delete slotPool(object)->state;
    G_OBJECT_CLASS(zev_shm_slot_pool_parent_class)->finalize(object);
}

void zev_shm_slot_pool_class_init(ZevShmSlotPoolClass *klass)
{
    G_OBJECT_CLASS(klass)->finalize = finalizePool;
    GstBufferPoolClass *pool = GST_BUFFER_POOL_CLASS(klass);
    pool->get_options = poolOptions;
    pool->set_config = setConfig;
    pool->start = startPool;
    pool->stop = stopPool;
    pool->acquire_buffer = acquireBuffer;
    pool->release_buffer = releaseBuffer;
}

void zev_shm_slot_pool_init(ZevShmSlotPool *pool)
{
    pool->state = new PoolState;
}

} // namespace

GstBufferPool *newSlotPool(std::shared_ptr<StoreFeed> feed, const GstVideoInfo &info)
{
    auto *pool = slotPool(g_object_new(zev_shm_slot_pool_get_type(), nullptr));
    gst_object_ref_sink(pool);
    pool->state->feed = std::move(feed);
    pool->state->info = info;
    return &pool->parent;
}

std::shared_ptr<Slot> slotOf(GstBuffer *buffer)
{
    if (gst_buffer_n_memory(buffer) != 1 || !gst_buffer_is_writable(buffer))
        return nullptr;
    GstMemory *memory = gst_buffer_peek_memory(buffer, 0);
    if (GST_MINI_OBJECT_REFCOUNT_VALUE(memory) != 1)
        return nullptr; // part of another buffer, too
    auto *owner = static_cast<Owner *>(gst_mini_object_get_qdata(GST_MINI_OBJECT_CAST(memory), slotQuark()));
    if (owner == nullptr)
        return nullptr;
    std::shared_ptr<Slot> slot = std::static_pointer_cast<Slot>(*owner);
    const GstVideoMeta *meta = gst_buffer_get_video_meta(buffer);
    if (memory->offset != 0 || memory->size != slot->size() || meta == nullptr || meta->offset[0] != 0 ||
        meta->stride[0] != slot->frame().strides[0])
        return nullptr; // cropped or laid out anew on its way
    return slot;
}

GstBuffer *wrapPlanes(void *memory, size_t size, GstMemoryFlags flags, const GstVideoInfo &info,
                      const gsize *offsets, const gint *strides, std::shared_ptr<void> owner, GQuark tag)
{
    GstMemory *wrapped = gst_memory_new_wrapped(flags, memory, size, 0, size, nullptr, nullptr);
    gst_mini_object_set_qdata(GST_MINI_OBJECT_CAST(wrapped), tag, new Owner(std::move(owner)),
                              [](gpointer data) { delete static_cast<Owner *>(data); });
    GstBuffer *buffer = gst_buffer_new();
    gst_buffer_append_memory(buffer, wrapped);
    gsize metaOffsets[GST_VIDEO_MAX_PLANES] = {};
    gint metaStrides[GST_VIDEO_MAX_PLANES] = {};
    for (guint i = 0; i < GST_VIDEO_INFO_N_PLANES(&info); ++i) {
        metaOffsets[i] = offsets[i];
        metaStrides[i] = strides[i];
    }
    gst_buffer_add_video_meta_full(buffer, GST_VIDEO_FRAME_FLAG_NONE, GST_VIDEO_INFO_FORMAT(&info),
                                   static_cast<guint>(GST_VIDEO_INFO_WIDTH(&info)),
                                   static_cast<guint>(GST_VIDEO_INFO_HEIGHT(&info)),
                                   GST_VIDEO_INFO_N_PLANES(&info), metaOffsets, metaStrides);
    return buffer;
}

void planeLayout(const GstVideoInfo &info, const int64_t *planeOffsets, const int32_t *planeStrides,
                 gsize *offsets, gint *strides)
{
    // The second of YV12's planes is V for GStreamer and U for the store.
    const bool swapped = GST_VIDEO_INFO_FORMAT(&info) == GST_VIDEO_FORMAT_YV12;
    for (guint i = 0; i < GST_VIDEO_INFO_N_PLANES(&info); ++i) {
        const guint plane = swapped && i > 0 ? 3 - i : i;
        offsets[i] = static_cast<gsize>(planeOffsets[plane]);
        strides[i] = planeStrides[plane];
    }
}

} // namespace zevgst
