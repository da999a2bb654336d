// Makes a decoder's timestamps even.
#ifndef ZEVSHM_CADENCE_H
#define ZEVSHM_CADENCE_H

#include "options.h"

#include <cstdint>
#include <optional>

namespace zevshm {

// Undoes the rounding of containers that count in milliseconds (or 90 kHz): a timestamp closer to the grid of
// the declared rate than the container can express is put onto the grid. Timestamps that are elsewhere (a
// variable rate, a wrong declaration) are left alone.
//
// Threads: reentrant. Units: microseconds.
class CadenceSnap
{
public:
    // `tickUs`: what one step of the container's time base lasts. Without a rate nothing is changed.
    CadenceSnap(std::optional<Ratio> rate, double tickUs) : m_rate(rate), m_toleranceUs(tickUs * 0.51 + 1) {}

    int64_t snap(int64_t ptsUs);

private:
    std::optional<Ratio> m_rate;
    double m_toleranceUs;
    std::optional<int64_t> m_originUs;
};

// Chooses, for a stream of one rate, which of its frames fill the places of another rate.
//
// Usage: for every frame: `Places p = conversion.accept(ptsUs)`; the frame before fills places [p.first,
// p.own), the frame itself fills place p.own unless `p.take` is false (another frame has that place already).
class RateConversion
{
public:
    explicit RateConversion(Ratio rate) : m_rate(rate) {}

    struct Places
    {
        int64_t first = 0;
        int64_t own = 0;
        bool take = false;
    };
    Places accept(int64_t ptsUs);
    int64_t placeUs(int64_t place) const;

private:
    Ratio m_rate;
    bool m_started = false;
    int64_t m_next = 0;
};

// Length of one frame at a rate.
int64_t intervalUs(Ratio rate);
// Start of frame `index` at a rate, rounded to the nearest microsecond and free of accumulated error.
int64_t frameStartUs(int64_t index, Ratio rate);

} // namespace zevshm

#endif
