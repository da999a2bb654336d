/*
 * The writer's side of a frame store.
 *
 * Life of a writer: fill a shm_writer_params_t (shm_writer_params_init gives the defaults), shm_writer_open
 * creates the memory and the socket and starts a service thread that talks to readers; then publish frames
 * and audio as they come; shm_writer_close removes the store. A writer that dies leaves nothing that stops
 * the next one of that name.
 *
 * Publishing never waits for a reader and makes no blocking system call. Either let the store copy a frame
 * (shm_writer_publish_video), or fill a slot in place: shm_writer_acquire, write the planes,
 * shm_writer_publish (or shm_writer_abandon). A device that writes by itself is given several slots ahead
 * (lent_frames, shm_writer_acquire_for_device), which come back in any order.
 *
 * Threads: one thread at a time may use the video calls of a handle and one the audio calls, which may be
 * different threads; shm_writer_get_stats may be called from any. After fork() the child's handle does
 * nothing, also when closed.
 */
#ifndef SHM_SHM_WRITER_H
#define SHM_SHM_WRITER_H

#include <shm/shm_types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A store that is published. What is in it is the library's. */
typedef struct shm_writer shm_writer_t;

enum {
    /* Nobody but this process can write pixels, readers of the same user included. Only a DMA-buf descriptor,
     * given to who asks for one where the memory is exported, could still be written through. */
    SHM_WRITER_SEALED = 1u,
    SHM_WRITER_DMABUF_OTHERS = 2u, /* readers of other users may have (writable) DMA-buf descriptors */
    SHM_WRITER_HUGE_PAGES = 4u     /* frame slots in huge pages; refused when none are to be had */
};

/* What shm_writer_open() is told. shm_writer_params_init() first. */
typedef struct shm_writer_params
{
    uint32_t size;    /* set by shm_writer_params_init: of this record, in bytes */
    const char *name; /* of the store */
    const char
        *directory;    /* where to publish; null: the first of the usual directories that is this user's */
    const char *group; /* null, or the name of a group whose members may read: published in /run/zev-shm */
    uint32_t flags;    /* SHM_WRITER_... */

    int32_t width;        /* pixels; 0 x 0: no video. 4:2:0 chroma rounds up for odd sizes */
    int32_t height;       /* pixels */
    int32_t pixel_format; /* SHM_PIXEL_FORMAT */
    shm_color_t color;    /* how the samples are to be read; full range unless the source's range is kept */
    uint32_t rate_numerator;   /* declared frames a second; 0: not known, readers estimate */
    uint32_t rate_denominator; /* of the same */
    uint32_t history_frames;   /* kept at least; 0: 0.75 s of frames, at least 8, at most 256 MiB */
    uint32_t spare_frames;     /* slots beyond the history that readers may pin; 0: 8 */

    int32_t sample_rate;      /* audio frames a second; 0: no audio */
    int32_t channels;         /* 1 to SHM_CHANNELS_MAX */
    int32_t audio_streams;    /* 1 to SHM_STREAMS_MAX; 0 means 1 when there is audio */
    int32_t audio_history_ms; /* 0: 2000; never less */

    /*
     * Where frames lie: null or "memfd"; "huge" (as the flag); "udmabuf", memory that is exported as DMA-bufs
     * too where the kernel does that, else as "memfd" with the reason in the statistics; "dma-heap:NAME",
     * memory from /dev/dma_heap/NAME, refused when there is none. Memory of a heap can be mapped by who has
     * its descriptor only and written by all of them: readers of other users are served with
     * SHM_WRITER_DMABUF_OTHERS only.
     */
    const char *memory;

    /*
     * Slots that may be acquired at once, 1 to SHM_LENT_MAX; 0: 1. The first is taken from the spare frames,
     * the others come on top of them, so that readers may pin as many however many are lent.
     */
    uint32_t lent_frames;
} shm_writer_params_t;

/* Zeroes `size` bytes at `params`, sets the field `size`, and the color to BT.709 full range. */
SHM_API void shm_writer_params_init_sized(shm_writer_params_t *params, size_t size);

/* The same for the record as this program knows it, which may be an older or a newer one than the library's.
 */
static inline void shm_writer_params_init(shm_writer_params_t *params)
{
    shm_writer_params_init_sized(params, sizeof(shm_writer_params_t));
}

/*
 * Creates the store. Returns 0 with *writer set, or a negative errno with *writer null and, with `error`
 * given, why in words: EINVAL (parameters), EADDRINUSE (already published by a living writer), EACCES /
 * ENOENT (directory), ENOMEM (needed and available bytes are named; nothing has been allocated), EMFILE. The
 * strings are not kept.
 */
SHM_API int shm_writer_open(const shm_writer_params_t *params, shm_writer_t **writer, shm_error_t *error);

/*
 * Removes the store; readers see it as gone at once and may keep the frames they hold. Null is fine. Slots
 * that are still acquired are gone, too: a device that writes into one has to be stopped before.
 */
SHM_API void shm_writer_close(shm_writer_t *writer);

/* A slot being filled. `planes` are Y, U, V (or Y, UV); valid until publish or abandon. */
typedef struct shm_writer_frame
{
    uint8_t *planes[4]; /* where to write; null for planes that are not there */
    int32_t strides[4]; /* bytes from row to row */
    int32_t width;      /* pixels */
    int32_t height;     /* pixels */
    int32_t slot;       /* its index */
    int32_t memory_fd;  /* borrowed descriptor of the slot's memory, for import by a device; -1 when none */
    int64_t plane_offsets[4];   /* in that memory */
    uint32_t memory_generation; /* rises when the slot is given other memory, often at the same address; 0
                                   when none */
} shm_writer_frame_t;

/*
 * Where the planes of such frames lie in a slot of any store: fills strides, plane_offsets, width and height
 * of `frame` (whose memory is none), and with `bytes` given the size of a slot in plain memory, so that a
 * device can be asked for this layout before there is a store. Returns 0, or -EINVAL (size or format).
 */
SHM_API int shm_writer_describe_frame(int32_t width, int32_t height, int32_t pixel_format,
                                      shm_writer_frame_t *frame, int64_t *bytes);

/*
 * Takes a free slot to write into. Returns 0, or a negative errno: EAGAIN (every slot is held by readers: the
 * frame is to be dropped, and is counted), EBUSY (as many are acquired already as lent_frames says), EINVAL
 * (no video).
 */
SHM_API int shm_writer_acquire(shm_writer_t *writer, shm_writer_frame_t *frame);

/*
 * The same for a slot that a device writes and this process does not: a DMA-buf of it is not bracketed as
 * written by the processor, whose caches could else be written over what the device wrote. Publish or abandon
 * it when the device is done: then caches forget what they had of it, and readers that map it see what the
 * device wrote.
 */
SHM_API int shm_writer_acquire_for_device(shm_writer_t *writer, shm_writer_frame_t *frame);

/*
 * Publishes an acquired slot under `timestamp`; of several any, in any order, the one published last being
 * the newest frame. Returns 0, or a negative errno, the slot given back: EEXIST when `timestamp` is not later
 * than the newest frame's (unless the wall clock was stepped back, which starts the history anew). EINVAL
 * with the slot left alone when `frame` is none that is acquired.
 */
SHM_API int shm_writer_publish(shm_writer_t *writer, shm_writer_frame_t *frame, int64_t timestamp);

/* Gives an acquired slot back unpublished. */
SHM_API void shm_writer_abandon(shm_writer_t *writer, shm_writer_frame_t *frame);

/* Copies a frame in and publishes it: planes in the order Y, U, V (or Y, UV). Errors as above. */
SHM_API int shm_writer_publish_video(shm_writer_t *writer, const uint8_t *const planes[4],
                                     const int32_t strides[4], int64_t timestamp);

/*
 * Appends `frames` audio frames of interleaved signed 16-bit samples to `stream`; `timestamp` is that of the
 * first. A gap to what was published before becomes silence (up to the ring's length), an overlap is trimmed,
 * less than half a sample's difference per call is taken as continuous. Returns 0 or a negative errno.
 */
SHM_API int shm_writer_publish_audio(shm_writer_t *writer, int stream, const int16_t *samples,
                                     uint32_t frames, int64_t timestamp);

/*
 * Tells readers how the frames of a capture device come into the store (shm_capture), for those who want to
 * know; changes nothing else. Any thread. Returns 0, or -EINVAL.
 */
SHM_API int shm_writer_set_capture(shm_writer_t *writer, int capture);

/* What a writer has done so far, and who reads it. Frames are counted since it was opened. */
typedef struct shm_writer_stats
{
    uint32_t size;                   /* set by the caller: sizeof(shm_writer_stats_t) */
    int32_t readers;                 /* connected now */
    int32_t locks_held;              /* by all readers, as counted last (at most 100 ms ago) */
    int32_t slot_count;              /* history and spare */
    uint64_t session;                /* of this writer; what its readers see */
    uint64_t frames_published;       /* those that readers could see */
    uint64_t frames_dropped;         /* no free slot */
    uint64_t frames_refused;         /* timestamp not after the newest */
    uint64_t audio_frames_published; /* stream 0 */
    uint64_t total_bytes;            /* of all shared memory of the store */
    uint32_t wished_numerator;       /* highest wish of the readers; 0/0 for none */
    uint32_t wished_denominator;     /* of the same */
    uint64_t readers_disconnected;   /* that pinned the last slots */
    uint64_t slots_replaced;         /* by fresh memory because readers pinned them */
    char memory[32];                 /* "memfd", "udmabuf", ... */
    char dmabuf[128];                /* "yes", "yes, but ...", else why frames have no DMA-buf */
} shm_writer_stats_t;

/* Any thread. Returns 0 or a negative errno. */
SHM_API int shm_writer_get_stats(shm_writer_t *writer, shm_writer_stats_t *stats);

#ifdef __cplusplus
}
#endif

#endif
