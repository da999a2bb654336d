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
}

int64_t TickSchedule::dueAt(int64_t index) const
{
    return saturated(Wide(originNs) + Wide(index) * periodNs / division);
}

int64_t TickSchedule::take(int64_t nowNs)
{
    // The newest n with floor(n * period / division) <= elapsed, that is n * period < (elapsed + 1) *
    // division.
    const Wide elapsed = Wide(nowNs) - originNs;
    const Wide newestDue = elapsed < 0 ? -1 : ((elapsed + 1) * division - 1) / periodNs;
    const int64_t taken = newestDue > next ? saturated(newestDue) : next;
    const int64_t skipped = taken - next;
    next = taken + 1;
    return skipped;
}
