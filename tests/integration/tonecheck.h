#ifndef ZEV_TESTS_TONECHECK_H
#define ZEV_TESTS_TONECHECK_H

#include <stddef.h>
#include <stdint.h>

#include <vector>

/*! One channel of interleaved samples. */
std::vector<double> channelOf(const int16_t *samples, size_t frames, int channels, int channel);

/*! Frequency of a sine in Hz, from its zero crossings. */
double frequencyOf(const std::vector<double> &samples, int rate);

/*! Level of the samples in decibels relative to that of a sine of `amplitude`. */
double levelAgainst(const std::vector<double> &samples, double amplitude);

/*!
 * Where a sine has a seam: a sample left out, one too many, silence, a step. Of a sine, every sample follows
 * from the two before it, x[n] = 2 cos(w) x[n-1] - x[n-2], whatever its phase; `tolerance` covers the
 * rounding of three samples. The positions at which that fails, neighbors counted once.
 */
std::vector<size_t> seamsOf(const std::vector<double> &samples, int rate, double frequency, double tolerance);

#endif
