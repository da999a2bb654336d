#ifndef ZEV_UTILS_CLOCKADJUSTMENTDETECTOR_H
#define ZEV_UTILS_CLOCKADJUSTMENTDETECTOR_H

#include <cstdint>

/* Seen outside of the library. */
#define ZEV_UTILS_EXPORT __attribute__((visibility("default")))

namespace md {
namespace zev {
namespace utils {

/*
 * Tells by how much the wall clock was set since a reference moment.
 *
 * Usage: start() takes the reference; check(), called now and then, returns how far the wall clock has been
 * moved since, and keeps returning it until the next start().
 *
 *     offset(t) = wall clock(t) - steady clock(t)        check() = offset(now) - offset(start)
 *
 * The steady clock is one that is slewed together with the wall clock and goes on while the machine sleeps
 * (CLOCK_BOOTTIME). A clock that is not slewed would add up what NTP corrects: at 100 ppm a second in less
 * than three hours, which looks like a step. A clock that stands still in sleep would make waking up look
 * like one.
 *
 * Threads: reentrant; one thread at a time may use an object. Units: milliseconds, rounded to the nearest;
 * positive when the wall clock was set forward. Errors: none; before the first start(), check() returns 0.
 * Cost: three clock reads through the vDSO, no system call; a few more when the thread is interrupted between
 * them.
 */
class ZEV_UTILS_EXPORT ClockAdjustmentDetector
{
public:
    /* A clock: nanoseconds since its own epoch. */
    using Clock = std::int64_t (*)();

    ClockAdjustmentDetector();
    /* With clocks of the caller's. */
    ClockAdjustmentDetector(Clock wall, Clock steady);

    /* Takes the reference. */
    void start();
    /* Milliseconds by which the wall clock has been set since start(). */
    std::int64_t check();

private:
    std::int64_t offset() const;

    Clock wallClock;
    Clock steadyClock;
    std::int64_t reference = 0; /* offset at start(), nanoseconds */
    bool started = false;
};

} // namespace utils
} // namespace zev
} // namespace md

#endif
