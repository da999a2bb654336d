/*
 * Levels of a block of audio, for meters.
 *
 * Usage: call av_audio_level_calc for each block; it keeps nothing between calls. Threads: reentrant.
 *
 * Units: decibels relative to full scale, where the largest magnitude of a signed 16-bit sample, 32768, is
 * 0 dB; so a sine of full scale has a peak of 0 dB and an RMS of -3.01 dB. The floor is -120 dB: silence, and
 * anything quieter, reads exactly that, never minus infinity or NaN.
 */
#ifndef AUDIO_LEVEL_AUDIO_LEVEL_H
#define AUDIO_LEVEL_AUDIO_LEVEL_H

#include <stddef.h>

#if defined(__GNUC__)
#define AUDIO_LEVEL_API __attribute__((visibility("default")))
#else
#define AUDIO_LEVEL_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

enum { AUDIO_LEVEL_CHANNELS_MAX = 8 };

/* 64 bytes. */
typedef struct AudioLevelCalcResult
{
    float rms[AUDIO_LEVEL_CHANNELS_MAX]; /* root of the mean square, dB */
    float max[AUDIO_LEVEL_CHANNELS_MAX]; /* largest magnitude of a sample, dB */
} AudioLevelCalcResult;

/*
 * Computes the levels of `frames` audio frames (one sample of every channel) of interleaved signed 16-bit
 * samples at `data`, which need not be aligned beyond a sample. Fills the first `channels` entries of both
 * arrays and the others with the floor. No frames: the floor.
 *
 * `mode` is 1, the only one there is. Returns 0, or a negative errno with `result` untouched: EINVAL for
 * another mode, fewer than 0 or more than AUDIO_LEVEL_CHANNELS_MAX channels, no `result`, no `data` though
 * there are frames and channels.
 */
AUDIO_LEVEL_API int av_audio_level_calc(const void *data, size_t frames, long channels, int mode,
                                        AudioLevelCalcResult *result);

#ifdef __cplusplus
}
#endif

#endif
