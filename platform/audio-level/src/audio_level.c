#include <audio-level/audio_level.h>

#include <errno.h>
#include <math.h>
#include <stdint.h>
#include <string.h>

/*
 * Which vectors are used: 2 (or undefined) what this processor turns out to have, 1 only what every processor
 * of the architecture has, 0 none but the compiler's own. Tests and benchmarks build all of them.
 */
#ifndef AUDIO_LEVEL_VECTORS
#define AUDIO_LEVEL_VECTORS 2
#endif

#if AUDIO_LEVEL_VECTORS > 0 && defined(__SSE2__)
#define AUDIO_LEVEL_X86
#include <immintrin.h>
#elif AUDIO_LEVEL_VECTORS > 0 && defined(__ARM_NEON)
#define AUDIO_LEVEL_NEON
#include <arm_neon.h>
#endif

enum { MODE_S16 = 1, LANES = 8, WIDEST = 16, VECTORS_MAX = 7 };

static const double FULL_SCALE = 32768.0;
static const double FLOOR_DB = -120.0;

/* One accumulator per lane of a row of up to VECTORS_MAX vectors. */
typedef struct
{
    double squares[VECTORS_MAX * WIDEST];
    int16_t high[VECTORS_MAX * WIDEST];
    int16_t low[VECTORS_MAX * WIDEST];
} sums_t;

/* A row of whole vectors that holds a whole number of frames: a lane belongs to one channel throughout. Of 8
 * lanes or a multiple of that. */
static int vectors_per_row(int channels)
{
    static const int vectors[AUDIO_LEVEL_CHANNELS_MAX + 1] = {1, 1, 1, 3, 1, 5, 3, 7, 1};
    return vectors[channels];
}

#if defined(AUDIO_LEVEL_X86)

#define ADD_ROWS add_rows_sse2
#define ADD_ALL_ROWS add_all_rows_sse2
#define TARGET "sse2"
#define VECTOR __m128i
#define LANES_X86 LANES
#define OP(name) OP_SSE2_##name
#define OP_SSE2_setzero _mm_setzero_si128
#define OP_SSE2_max_epi16 _mm_max_epi16
#define OP_SSE2_min_epi16 _mm_min_epi16
#define OP_SSE2_unpacklo_epi16 _mm_unpacklo_epi16
#define OP_SSE2_unpackhi_epi16 _mm_unpackhi_epi16
#define OP_SSE2_madd_epi16 _mm_madd_epi16
#define OP_SSE2_add_epi32 _mm_add_epi32
#define OP_SSE2_srli_epi32 _mm_srli_epi32
#define LOAD(pointer) _mm_loadu_si128((const __m128i *)(pointer))
#define LANE(i) (i)
#include "add_rows_x86.h"
#undef ADD_ROWS
#undef ADD_ALL_ROWS
#undef TARGET
#undef VECTOR
#undef LANES_X86
#undef OP
#undef LOAD
#undef LANE

/* Unpacking works in halves of a vector: squares 0 to 3 and 8 to 11 first. */
#define ADD_ROWS add_rows_avx2
#define ADD_ALL_ROWS add_all_rows_avx2
#define TARGET "avx2"
#define VECTOR __m256i
#define LANES_X86 WIDEST
#define OP(name) OP_AVX2_##name
#define OP_AVX2_setzero _mm256_setzero_si256
#define OP_AVX2_max_epi16 _mm256_max_epi16
#define OP_AVX2_min_epi16 _mm256_min_epi16
#define OP_AVX2_unpacklo_epi16 _mm256_unpacklo_epi16
#define OP_AVX2_unpackhi_epi16 _mm256_unpackhi_epi16
#define OP_AVX2_madd_epi16 _mm256_madd_epi16
#define OP_AVX2_add_epi32 _mm256_add_epi32
#define OP_AVX2_srli_epi32 _mm256_srli_epi32
#define LOAD(pointer) _mm256_loadu_si256((const __m256i *)(pointer))
#define LANE(i) ((i) % 4 + (i) / 4 % 2 * 8 + (i) / 8 * 4)
#include "add_rows_x86.h"

/* Returns the samples that were added; `lanes` is set to a row's. */
static size_t add_all_rows(const int16_t *samples, size_t total, int channels, size_t *lanes, sums_t *sums)
{
    const int vectors = vectors_per_row(channels);
    const int hasAvx2 = AUDIO_LEVEL_VECTORS > 1 && __builtin_cpu_supports("avx2");
    *lanes = (size_t)vectors * (hasAvx2 ? WIDEST : LANES);
    const size_t pairs = total / (2 * *lanes);
    if (hasAvx2)
        add_all_rows_avx2(samples, pairs, vectors, sums);
    else
        add_all_rows_sse2(samples, pairs, vectors, sums);
    return pairs * 2 * *lanes;
}

#else

enum { ROWS_PER_GROUP = 3 };

#if defined(AUDIO_LEVEL_NEON)
#include "add_rows_neon.h"
#else
#include "add_rows_portable.h"
#endif

/* `vectors` is a constant in every call, which keeps the sums in registers. Returns the samples that were
 * added; `lanes` is set to a row's. */
static size_t add_all_rows(const int16_t *samples, size_t total, int channels, size_t *lanes, sums_t *sums)
{
    const int vectors = vectors_per_row(channels);
    *lanes = (size_t)vectors * LANES;
    const size_t groups = total / (ROWS_PER_GROUP * *lanes);
    switch (vectors) {
    case 1:
        add_rows(samples, groups, 1, sums);
        break;
    case 3:
        add_rows(samples, groups, 3, sums);
        break;
    case 5:
        add_rows(samples, groups, 5, sums);
        break;
    default:
        add_rows(samples, groups, 7, sums);
        break;
    }
    return groups * ROWS_PER_GROUP * *lanes;
}

#endif

static float decibels(double amplitude)
{
    if (!(amplitude > 0))
        return (float)FLOOR_DB;
    return (float)fmax(FLOOR_DB, 20.0 * log10(amplitude / FULL_SCALE));
}

int av_audio_level_calc(const void *data, size_t frames, long channels, int mode,
                        AudioLevelCalcResult *result)
{
    if (mode != MODE_S16 || channels < 0 || channels > AUDIO_LEVEL_CHANNELS_MAX || !result)
        return -EINVAL;
    if (!data && frames > 0 && channels > 0)
        return -EINVAL;

    for (int i = 0; i < AUDIO_LEVEL_CHANNELS_MAX; ++i) {
        result->rms[i] = (float)FLOOR_DB;
        result->max[i] = (float)FLOOR_DB;
    }
    if (frames == 0 || channels == 0)
        return 0;

    const int16_t *samples = data;
    const size_t total = frames * (size_t)channels;
    sums_t sums = {{0}, {0}, {0}};
    size_t lanes = 0;
    const size_t added = add_all_rows(samples, total, (int)channels, &lanes, &sums);

    /* The rest, which is no whole row: its samples fall on the same lanes. */
    for (size_t i = added; i < total; ++i) {
        const size_t lane = (i - added) % lanes;
        const int16_t sample = samples[i];
        sums.squares[lane] += (double)sample * sample;
        sums.high[lane] = sample > sums.high[lane] ? sample : sums.high[lane];
        sums.low[lane] = sample < sums.low[lane] ? sample : sums.low[lane];
    }

    for (long channel = 0; channel < channels; ++channel) {
        double squares = 0;
        int peak = 0;
        for (size_t lane = (size_t)channel; lane < lanes; lane += (size_t)channels) {
            squares += sums.squares[lane];
            peak = sums.high[lane] > peak ? sums.high[lane] : peak;
            peak = -sums.low[lane] > peak ? -sums.low[lane] : peak; /* -(-32768) fits an int */
        }
        result->rms[channel] = decibels(sqrt(squares / (double)frames));
        result->max[channel] = decibels(peak);
    }
    return 0;
}
