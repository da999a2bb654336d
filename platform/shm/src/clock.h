// The clocks of the frame store, all in microseconds.
#ifndef SHM_CLOCK_H
#define SHM_CLOCK_H

#include <time.h>

#include <cstdint>

namespace shm {

inline int64_t clockUs(clockid_t id)
{
    timespec now{};
    clock_gettime(id, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

// Durations, deadlines and liveness.
inline int64_t monotonicUs()
{
    return clockUs(CLOCK_MONOTONIC);
}

// The same clock at the resolution of the kernel's tick (1 to 10 ms): never a system call, also where the
// processor's counter cannot be used.
inline int64_t coarseUs()
{
    return clockUs(CLOCK_MONOTONIC_COARSE);
}

// Wall and monotonic clock of one moment.
struct ClockReading
{
    int64_t wallUs = 0;
    int64_t monotonicUs = 0;
};

// Where a writer gets its time from; replaced in tests.
class ClockSource
{
public:
    virtual ~ClockSource() = default;
    virtual ClockReading read() const = 0;
};

class SystemClock final : public ClockSource
{
public:
    ClockReading read() const override
    {
        // Two clocks cannot be read at once. A thread that is interrupted between them would see a step that
        // never was, so the pair is read again until it was quick.
        ClockReading reading;
        for (int attempt = 0; attempt < 4; ++attempt) {
            const int64_t before = shm::monotonicUs();
            reading.wallUs = clockUs(CLOCK_REALTIME);
            reading.monotonicUs = shm::monotonicUs();
            if (reading.monotonicUs - before < 100)
                break;
        }
        return reading;
    }
};

} // namespace shm

#endif
