#include "tickschedule.h"

#include <limits>

namespace {

// A tick's number times the numerator in nanoseconds needs 94 bits.
__extension__ using Wide = __int128;

constexpr int64_t latest = std::numeric_limits<int64_t>::max();
constexpr int64_t nsPerSecond = 1000000000;

int64_t saturated(Wide value)
{
    return value > latest ? latest : static_cast<int64_t>(value);
}

} // namespace

TickSchedule::TickSchedule(int64_t startNs, int intervalNumerator, int intervalDenominator, long long phaseUs)
    : originNs(saturated(Wide(startNs) + Wide(phaseUs > 0 ? phaseUs : 0) * 1000)),
      periodNs(intervalNumerator * nsPerSecond), division(intervalDenominator)
{
    if (Wide(periodNs) < Wide(shortestIntervalNs) * division) {
        periodNs = shortestIntervalNs;
        division = 1;
    }
    stepNs = periodNs / division;
    stepFraction = periodNs % division;
    next = dueAt(0);
    following = dueAfter(next);
}

TickSchedule::Due TickSchedule::dueAt(int64_t index) const
{
    const Wide sinceOrigin = Wide(index) * periodNs;
    return {index, saturated(originNs + sinceOrigin / division),
            static_cast<int64_t>(sinceOrigin % division)};
}

TickSchedule::Due TickSchedule::dueAfter(const Due &due) const
{
    const int64_t fraction = due.fraction + stepFraction;
    const bool carry = fraction >= division;
    if (due.dueNs > latest - stepNs - carry)
        return {due.index + 1, latest, 0};
    return {due.index + 1, due.dueNs + stepNs + carry, fraction - (carry ? division : 0)};
}

int64_t TickSchedule::take(int64_t nowNs)
{
    if (nowNs < following.dueNs || following.dueNs == latest) {
        next = following;
        following = dueAfter(next);
        return 0;
    }
    // The newest n with floor(n * period / division) <= elapsed, that is n * period < (elapsed + 1) *
    // division.
    const Wide elapsed = Wide(nowNs) - originNs;
    const int64_t taken = saturated(((elapsed + 1) * division - 1) / periodNs);
    const int64_t skipped = taken - next.index;
    next = dueAt(taken + 1);
    following = dueAfter(next);
    return skipped;
}
