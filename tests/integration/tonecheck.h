#ifndef ZEV_TESTS_TONECHECK_H
#define ZEV_TESTS_TONECHECK_H

#include <stddef.h>
#include <stdint.h>

#include <string>
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

/*!
 * By how many seconds a sine is later at `second` than at `first`, which are the beginnings of stretches of
 * `length` samples: 0 for one that runs through, 1 / rate after a sample that came twice, negative after one
 * that was left out. Unambiguous within half a period.
 */
double lagBetween(const std::vector<double> &samples, int rate, double frequency, size_t first, size_t second,
                  size_t length);

/*! What is wrong with a tone, and how many seconds from the beginning; less than 0: nowhere in particular. */
struct ToneFault
{
    std::string what;
    double at;
};

/*!
 * The seams that the read positions bring by design. A read of `framesPerRead` moves the position by its
 * duration, cut to microseconds; what is cut adds up, and when it has come to a sample, that sample is read
 * twice: 4096 frames at 48 kHz last 85333.3 us, so every 62nd or 63rd read begins with one, every 5.33 s.
 */
struct ExpectedSeams
{
    int sourceRate;
    int framesPerRead;

    double intervalSeconds() const;
    /*!
     * Empty when the seams are these and nothing else: each a single sample that came twice, as far apart as
     * computed but for a read, as many as fit, and the tone as late at the end as they make it. Otherwise
     * what is wrong. After a fault the positions begin at another fraction of a sample, so that the next seam
     * may come at any time up to the interval.
     */
    std::vector<ToneFault> judge(const std::vector<double> &samples, int rate, double frequency,
                                 const std::vector<size_t> &seams) const;
};

#endif
