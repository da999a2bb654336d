#ifndef ZEVQT_UTILS_TICKSCHEDULE_H
#define ZEVQT_UTILS_TICKSCHEDULE_H

#include <cstdint>

/*
 * When the next tick is due, and which ticks are skipped. Knows no clock and no thread: the caller hands in
 * `now`.
 *
 * Tick n is due at origin + floor(n * numerator * 10^9 / denominator), computed from n each time and exactly,
 * so neither rounding nor lateness adds up.
 *
 * Threads: reentrant. Units: nanoseconds on the caller's clock. Errors: none; times beyond the clock's range
 * stay at its end.
 */
class TickSchedule
{
public:
    static constexpr int64_t shortestIntervalNs = 100000;

    /* Both numbers positive. A negative phase is 0; a shorter interval than the shortest is the shortest. */
    TickSchedule(int64_t startNs, int intervalNumerator, int intervalDenominator, long long phaseUs);

    /* Whether these two numbers describe an interval at all. */
    static bool isInterval(int numerator, int denominator) { return numerator > 0 && denominator > 0; }

    /* When the next tick is due. */
    int64_t deadline() const { return next.dueNs; }

    /*
     * Takes the newest tick that is due at `nowNs`; the deadline is that of the tick after it, and lies after
     * `nowNs`. Returns how many older ticks were due and are skipped for ever. `nowNs` before the deadline
     * counts as the deadline: a clock that is read a little early repeats no tick.
     */
    int64_t take(int64_t nowNs);

private:
    struct Due
    {
        int64_t index;
        int64_t dueNs;
        int64_t fraction; // of a nanosecond, in parts of `division`
    };

    Due dueAt(int64_t index) const;
    Due dueAfter(const Due &due) const;

    int64_t originNs;
    int64_t periodNs; // of `division` intervals: the numerator in nanoseconds
    int64_t division; // the denominator
    int64_t stepNs;   // an interval is stepNs + stepFraction / division nanoseconds
    int64_t stepFraction;
    Due next;
    Due following; // known in advance: between waking up and the tick nothing is computed that can be
                   // computed before
};

#endif
