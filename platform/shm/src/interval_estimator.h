// Estimates the cadence of a stream from its timestamps: interval and jitter.
//
// Frames are dropped, late and early, so means and smoothing filters are off by percents. Instead every
// timestamp gets a whole frame number (from the median distance), a line is fitted through (number,
// timestamp), points far from it (by the median absolute deviation, MAD) are left out, and the line is fitted
// again: its slope is the interval. Example, 25 frames a second with the third dropped: 0, 40, 120, 160 ms
// get the numbers 0, 1, 3, 4; slope 40 ms.
//
// Threads: bound to one at a time. Units: microseconds. Cost: a few microseconds an estimate, no allocation.
#ifndef SHM_INTERVAL_ESTIMATOR_H
#define SHM_INTERVAL_ESTIMATOR_H

#include <array>
#include <cstddef>
#include <cstdint>

namespace shm {

class IntervalEstimator
{
public:
    static constexpr size_t kWindow = 64;
    static constexpr size_t kEnough = 5; // timestamps before anything is said

    struct Estimate
    {
        int64_t intervalUs = 0; // 0: not known
        int64_t jitterUs = 0;   // 1.4826 x MAD of the timestamps' distances from the line
    };

    void add(int64_t timestamp);
    void reset();
    Estimate estimate() const;

private:
    std::array<int64_t, kWindow> m_times{}; // ring
    size_t m_count = 0;
    size_t m_next = 0;
};

} // namespace shm

#endif
