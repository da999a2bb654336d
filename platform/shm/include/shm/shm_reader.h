/*
 * The reader's side of a frame store.
 *
 * Life of a reader: shm_reader_open connects to the writer of that name and maps its memory; from then on
 * frames are locked, read where they lie and unlocked, without a system call. When the writer dies or is
 * replaced, shm_reader_is_ready answers 0 and the status calls say so; the handle stays usable for the frames
 * it holds, and a new shm_reader_open finds the new writer. shm_reader_close gives everything back.
 *
 * Threads: one thread at a time may use a handle, with one exception: shm_reader_unlock_video may run in any
 * thread beside any other call. Different handles are independent. After fork() a child's handles find
 * nothing, and closing or unlocking them there is harmless.
 *
 * Cost: lock and unlock neither block, allocate nor call the system; the connection is looked at, without
 * waiting, at most every 10 ms. Locked frames are never written again until they are unlocked, also when the
 * writer dies.
 *
 * The record layouts below are binary interface: every offset and size is fixed.
 */
#ifndef SHM_SHM_READER_H
#define SHM_SHM_READER_H

#include <shm/shm_types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A connection to one store. What is in it is the library's. */
typedef struct shm_reader shm_reader_t;

/* What a store carries. 40 bytes. */
typedef struct shm_reader_format
{
    int32_t valid;        /*  0: non-zero when the store has a format */
    int32_t has_video;    /*  4 */
    int32_t width;        /*  8: pixels */
    int32_t height;       /* 12: pixels */
    int32_t frame_count;  /* 16: frames the store keeps at least; room that a list of timestamps needs */
    int32_t pixel_format; /* 20: SHM_PIXEL_FORMAT */
    int32_t reserved;     /* 24 */
    int32_t has_audio;    /* 28 */
    int32_t sample_rate;  /* 32: audio frames a second */
    int32_t channels;     /* 36: of every audio stream */
} shm_reader_format_t;

/* 56 bytes. */
typedef struct shm_video_status
{
    int32_t live;              /*  0: non-zero while the writer lives; 0: it has gone, the rest is 0 */
    int32_t frames_held;       /*  4: frames in the history now */
    int64_t oldest_timestamp;  /*  8: 0 without a frame */
    int64_t newest_timestamp;  /* 16: 0 without a frame */
    int64_t frame_interval_us; /* 24: declared, else estimated from the timestamps; 0 = not known yet */
    int64_t jitter_us; /* 32: robust deviation (1.4826 x MAD) of the timestamps from an even cadence */
    uint64_t frames_published; /* 40: since the writer started */
    uint64_t frames_dropped;   /* 48: that found no free slot, since the writer started */
} shm_video_status_t;

/* 32 bytes. */
typedef struct shm_audio_status
{
    uint32_t frames;           /*  0: audio frames held */
    uint32_t reserved;         /*  4 */
    uint64_t frames_published; /*  8: since the writer started */
    int64_t oldest_timestamp;  /* 16: of the oldest held audio frame */
    int64_t newest_timestamp;  /* 24: of the end of the newest */
} shm_audio_status_t;

/* One frame, locked. 120 bytes; zero it and write `timestamp` before shm_reader_lock_video. */
typedef struct shm_video_frame
{
    int32_t width;      /*   0: pixels */
    int32_t height;     /*   4: pixels */
    int64_t timestamp;  /*   8: in: asked for; out: the frame's own */
    uint8_t *planes[4]; /*  16: Y, U, V or Y, UV; null ends the list; [0] non-null exactly while locked */
    int32_t strides[4]; /*  48: bytes; 0 for planes that are not there */
    uint16_t slot;      /*  64: index of the slot, with the next two: the identity of its memory */
    uint8_t matrix;     /*  66: shm_matrix of this frame */
    uint8_t range;      /*  67: shm_range of this frame */
    uint32_t memory_generation; /*  68: rises when the slot's memory is replaced by fresh memory */
    uint64_t generation;        /*  72: of the frame; unique and rising while the writer lives */
    uint64_t session;           /*  80: of the writer; differs after a restart */
    int64_t
        plane_offsets[4]; /*  88: of the planes in the slot's memory (and its DMA-buf); 0 when not there */
} shm_video_frame_t;

/* Which frame shm_reader_lock_video() takes for the timestamp asked for. */
typedef enum shm_video_lookup_mode {
    SHM_VIDEO_NEAREST = 0,      /* nearest in time; nothing when that is farther than max(1 s, 3 intervals) */
    SHM_VIDEO_NEWEST = 1,       /* the newest, whatever was asked for */
    SHM_VIDEO_AT_OR_BEFORE = 2, /* the newest that is not later */
    SHM_VIDEO_AT_OR_AFTER = 3,  /* the oldest that is not earlier */
    SHM_VIDEO_EXACT = 4         /* that timestamp and no other */
} shm_video_lookup_mode_t;

/*
 * Connects to the store `name`. `timeout_ms` bounds the wait for a writer's answer; a store that is not there
 * is answered at once. Returns null with errno set: EINVAL (name), ENOENT (no such store), ECONNREFUSED (its
 * writer is dead), EACCES, ETIMEDOUT (the writer does not answer; the next open of this name looks again
 * without waiting), EPROTO (what it sent is not acceptable), EMFILE, ENOMEM. The caller owns the handle and
 * closes it.
 */
SHM_API shm_reader_t *shm_reader_open(const char *name, int timeout_ms);

/* What shm_reader_open_with() is told. Zero it first. */
typedef struct shm_reader_options
{
    uint32_t size;      /* sizeof(shm_reader_options_t) */
    int32_t timeout_ms; /* as above */
    int32_t max_locks;  /* frames this handle may hold locked at once; 0 = 8; at most 64 */
} shm_reader_options_t;

/* The same with more to say; with `error` given, why it failed in words. */
SHM_API shm_reader_t *shm_reader_open_with(const char *name, const shm_reader_options_t *options,
                                           shm_error_t *error);

/*
 * Ends the connection. Frames still locked are unlocked first: their planes must not be used any more. Null
 * is fine.
 */
SHM_API void shm_reader_close(shm_reader_t *reader);

/* Fills `format`; `valid` is 0 when there is none. Returns 0 or a negative errno. */
SHM_API int shm_reader_get_format(shm_reader_t *reader, shm_reader_format_t *format);

/* Non-zero while the writer of this handle's session lives. Looks at the connection; never waits. */
SHM_API int shm_reader_is_ready(shm_reader_t *reader);

/*
 * Wishes a rate of numerator/denominator frames a second; 1/1 is no particular wish. The writer may read the
 * highest wish of its readers; what this reader sees is not thinned. Returns 0 or a negative errno.
 */
SHM_API int shm_reader_set_fps(shm_reader_t *reader, unsigned int numerator, unsigned int denominator);

/*
 * Asks the writer for the DMA-bufs of its slots, and waits for them at most as long as the open was told to;
 * those that come later are taken as they come. Returns 0, or a negative errno: ENOTSUP (the writer has none
 * for this reader: shm_reader_get_info says why), EMFILE (this process may not open as many descriptors),
 * ETIMEDOUT (none yet), ENODEV.
 */
SHM_API int shm_reader_open_dmabuf_fd(shm_reader_t *reader);

/*
 * Descriptor of the DMA-buf behind the frame locked last through this handle, owned by the handle (never
 * close it), the same for a slot's memory for as long as that memory serves; -1 when there is none.
 */
SHM_API int shm_reader_get_dmabuf_fd(shm_reader_t *reader);

/* Returns 0, or a negative errno with the record zeroed. A writer that has gone: live = 0. */
SHM_API int shm_reader_get_video_status(shm_reader_t *reader, shm_video_status_t *status);

/*
 * Timestamps of the frames held, ascending; when there are more than `capacity`, the newest `capacity` of
 * them. Returns how many were written, or a negative errno.
 */
SHM_API int shm_reader_get_video_timestamps(shm_reader_t *reader, long long *timestamps, int capacity);

/*
 * Locks the frame that `mode` chooses for `frame->timestamp` and describes it in `frame`. Returns 0, or a
 * negative errno with planes[0] null: ENOENT (no such frame), EBUSY (max_locks frames are held), ENODEV (the
 * writer has gone), EINVAL. The planes may be read, and written where the store allows it, until the unlock.
 */
SHM_API int shm_reader_lock_video(shm_reader_t *reader, shm_video_frame_t *frame,
                                  shm_video_lookup_mode_t mode);

/* Gives a locked frame back and sets planes[0] to null. Any thread. A frame that is not locked: nothing
 * happens. */
SHM_API void shm_reader_unlock_video(shm_reader_t *reader, shm_video_frame_t *frame);

/*
 * Status of an audio stream (an index that the writer does not publish: stream 0). Returns 0; of a writer
 * that has gone, or a store without audio, a negative errno with `frames` 0.
 */
SHM_API int shm_reader_get_audio_status(shm_reader_t *reader, int stream, shm_audio_status_t *status);

/*
 * Copies interleaved signed 16-bit samples from `start_timestamp` (rounded to the nearest sample) on:
 * `count_a` items of `count_b` audio frames each, only whole items. Returns the items delivered, 0 when
 * `start_timestamp` is not held, or a negative errno.
 *
 * `channel` -1 delivers all channels. A channel index delivers that one: one-channel samples from a store
 * without video, and from a store with video that channel in every channel position.
 */
SHM_API int64_t shm_reader_query_audio2(shm_reader_t *reader, int stream, void *destination,
                                        unsigned long count_a, unsigned long count_b, int64_t start_timestamp,
                                        int channel);

/* Everything a tool wants to show about a store, beyond the format. */
typedef struct shm_store_info
{
    uint32_t size;                   /* set by the caller: sizeof(shm_store_info_t) */
    int32_t live;                    /* non-zero while the writer lives */
    uint64_t session;                /* of the writer; differs after a restart */
    int32_t writer_pid;              /* its process */
    int32_t readers;                 /* connected now */
    int32_t locks_held;              /* by all readers, as the writer last counted (at most 100 ms ago) */
    int32_t slot_count;              /* history and spare */
    uint64_t slot_bytes;             /* memory of one slot */
    uint64_t total_bytes;            /* of all shared memory of the store */
    uint64_t frames_published;       /* since the writer started, as the next two */
    uint64_t frames_dropped;         /* no free slot */
    uint64_t frames_refused;         /* timestamp not after the newest */
    int64_t oldest_timestamp;        /* of the frames held; 0 without one */
    int64_t newest_timestamp;        /* likewise */
    int64_t frame_interval_us;       /* as in shm_video_status_t */
    int64_t jitter_us;               /* as in shm_video_status_t */
    uint32_t rate_numerator;         /* declared by the writer; 0/0 when it declared none */
    uint32_t rate_denominator;       /* of the same */
    uint32_t wished_numerator;       /* highest wish of the readers; 0/0 for none */
    uint32_t wished_denominator;     /* of the same */
    shm_color_t color;               /* how samples become colors */
    int32_t audio_streams;           /* 0 without sound */
    int64_t audio_history_us;        /* capacity of the audio ring */
    uint64_t audio_frames_published; /* of stream 0 */
    int64_t started_timestamp;       /* wall clock when the writer opened the store */
    int32_t sealed;                  /* non-zero: nobody but the writer can write pixels */
    char memory[32];                 /* "memfd", "huge", ... */
    char dmabuf[128];                /* "yes", "yes, but ...", else why frames have no DMA-buf */
    char directory[128];             /* where the store's socket lies */
    int32_t capture;                 /* shm_capture: how frames come into the store, as its writer tells */
} shm_store_info_t;

/* Returns 0 or a negative errno. Fills at most info->size bytes. */
SHM_API int shm_reader_get_info(shm_reader_t *reader, shm_store_info_t *info);

/*
 * Waits until a frame newer than generation `after` (a frame's `generation`; 0 for any) is published. Returns
 * 0, -ETIMEDOUT, or -ENODEV when the writer has gone. For threads that have nothing else to do; the
 * tick-driven path never waits.
 */
SHM_API int shm_reader_wait_video(shm_reader_t *reader, uint64_t after, int timeout_ms);

#ifdef __cplusplus
}

static_assert(sizeof(shm_reader_format_t) == 40 && offsetof(shm_reader_format_t, channels) == 36,
              "shm_reader_format_t is binary interface");
static_assert(sizeof(shm_video_status_t) == 56 && offsetof(shm_video_status_t, frame_interval_us) == 24 &&
                  offsetof(shm_video_status_t, jitter_us) == 32,
              "shm_video_status_t is binary interface");
static_assert(sizeof(shm_audio_status_t) == 32 && offsetof(shm_audio_status_t, oldest_timestamp) == 16 &&
                  offsetof(shm_audio_status_t, newest_timestamp) == 24,
              "shm_audio_status_t is binary interface");
static_assert(sizeof(shm_video_frame_t) == 120 && offsetof(shm_video_frame_t, timestamp) == 8 &&
                  offsetof(shm_video_frame_t, planes) == 16 && offsetof(shm_video_frame_t, strides) == 48 &&
                  offsetof(shm_video_frame_t, plane_offsets) == 88,
              "shm_video_frame_t is binary interface");
#endif

#endif
