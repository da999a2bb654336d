/*
 * libshm: one live stream, video and audio, from one writer process to any number of readers on the same
 * machine.
 *
 * This header holds what readers and writers share: pixel formats, color description, limits.
 *
 * Units, everywhere in libshm: timestamps and durations are microseconds, timestamps on the wall clock (since
 * the Unix epoch); strides, offsets and sizes are bytes; an audio frame is one sample of every channel.
 */
#ifndef SHM_SHM_TYPES_H
#define SHM_SHM_TYPES_H

#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
#define SHM_API __attribute__((visibility("default")))
#else
#define SHM_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Pixel formats of a store. Plane addresses in records are always in the order Y, U, V (or Y, UV). */
typedef enum SHM_PIXEL_FORMAT {
    SHM_PIXEL_FORMAT_NONE = 0,    /* no video */
    SHM_PIXEL_FORMAT_YUV420P = 1, /* planar 4:2:0, in memory Y, U, V */
    SHM_PIXEL_FORMAT_YVU420P = 2, /* planar 4:2:0, in memory Y, V, U */
    SHM_PIXEL_FORMAT_NV12 = 3     /* luma plane, then one plane of interleaved U and V */
} SHM_PIXEL_FORMAT;

/* How samples become colors. 0 is "not stated" for each. */
typedef enum shm_matrix {
    SHM_MATRIX_UNKNOWN = 0,
    SHM_MATRIX_BT601 = 1,
    SHM_MATRIX_BT709 = 2,
    SHM_MATRIX_BT2020 = 3
} shm_matrix;
/* Which of a sample's values are black and white. */
typedef enum shm_range { SHM_RANGE_UNKNOWN = 0, SHM_RANGE_FULL = 1, SHM_RANGE_LIMITED = 2 } shm_range;
/* The curve between light and sample. */
typedef enum shm_transfer {
    SHM_TRANSFER_UNKNOWN = 0,
    SHM_TRANSFER_BT709 = 1, /* also BT.601 and BT.2020, whose curve is the same */
    SHM_TRANSFER_SRGB = 2,
    SHM_TRANSFER_PQ = 3,
    SHM_TRANSFER_HLG = 4
} shm_transfer;
/* Where chroma samples lie between luma samples. */
typedef enum shm_siting {
    SHM_SITING_UNKNOWN = 0,
    SHM_SITING_LEFT = 1,   /* MPEG-2, H.264: chroma beside the left luma column */
    SHM_SITING_CENTER = 2, /* JPEG, MPEG-1 */
    SHM_SITING_TOPLEFT = 3
} shm_siting;

/* How the frames of a capture device come into a store. */
typedef enum shm_capture {
    SHM_CAPTURE_NONE = 0,   /* they come from no device, or their writer does not tell */
    SHM_CAPTURE_COPIED = 1, /* the processor writes them, from the driver's buffers */
    SHM_CAPTURE_DMABUF = 2, /* the driver writes them into the store's memory, given to it as DMA-bufs */
    SHM_CAPTURE_USERPTR = 3 /* the same, given to it by address */
} shm_capture;

/* All of that of one store, or frame. Not stated: 0. */
typedef struct shm_color
{
    uint8_t matrix;   /* shm_matrix */
    uint8_t range;    /* shm_range */
    uint8_t transfer; /* shm_transfer */
    uint8_t siting;   /* shm_siting */
} shm_color_t;

enum {
    SHM_NAME_MAX = 64,         /* bytes of a store's name, [A-Za-z0-9._-], not starting with a dot */
    SHM_CHANNELS_MAX = 8,      /* audio channels of a stream */
    SHM_STREAMS_MAX = 8,       /* audio streams of a store */
    SHM_FRAMES_MAX = 200,      /* history of a store, frames */
    SHM_LENT_MAX = 32,         /* slots that a writer may fill at once */
    SHM_DIMENSION_MAX = 16384, /* width and height of a frame, pixels */
    SHM_ERROR_MAX = 256        /* bytes of an error message with its terminator */
};

/* What went wrong, for a person: one line that names the thing, what happened and the remedy. */
typedef struct shm_error
{
    int code;                    /* negative errno, 0 when nothing went wrong */
    char message[SHM_ERROR_MAX]; /* the line */
} shm_error_t;

/* Null-terminated text for a value of the enumerations above ("bt709", "full", "nv12", "copied"); "unknown"
 * for 0 and what is none ("none" of captures), never null. */
SHM_API const char *shm_pixel_format_name(int pixel_format);
/* The same of a shm_matrix. */
SHM_API const char *shm_matrix_name(int matrix);
/* The same of a shm_range. */
SHM_API const char *shm_range_name(int range);
/* The same of a shm_transfer. */
SHM_API const char *shm_transfer_name(int transfer);
/* The same of a shm_siting. */
SHM_API const char *shm_siting_name(int siting);
/* The same of a shm_capture. */
SHM_API const char *shm_capture_name(int capture);

/* 0 when `name` may name a store, else -EINVAL and, with `error` given, why and what is allowed. */
SHM_API int shm_check_name(const char *name, shm_error_t *error);

/*
 * The names of the stores that can be seen from here, each null-terminated in turn: calls `visit` with every
 * name whose socket exists in the directories that readers search (the first directory wins for a name that
 * is in several), in alphabetical order. A socket may belong to a writer that died: opening it tells.
 * `directory` is valid during the call. Returns the number of names, or a negative errno when no directory
 * could be read.
 */
SHM_API int shm_list_stores(void (*visit)(void *context, const char *name, const char *directory),
                            void *context);

#ifdef __cplusplus
}
#endif

#endif
