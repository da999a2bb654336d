#include <zev-utils/clockadjustmentdetector.h>

#include <ctime>
#include <limits>

namespace md {
namespace zev {
namespace utils {

namespace {

using std::int64_t;

const int64_t nanosecondsPerSecond = 1000000000;
const int64_t nanosecondsPerMillisecond = 1000000;

// Two reads of a clock around one of another, in one go, take far less; more means that the thread was away.
const int64_t undisturbedReadNs = 20000;
const int attempts = 5;

int64_t readClock(clockid_t id)
{
    timespec now = {};
    clock_gettime(id, &now);
    return static_cast<int64_t>(now.tv_sec) * nanosecondsPerSecond + now.tv_nsec;
}

int64_t realtime()
{
    return readClock(CLOCK_REALTIME);
}

int64_t boottime()
{
    return readClock(CLOCK_BOOTTIME);
}

int64_t roundToMilliseconds(int64_t ns)
{
    const int64_t half = nanosecondsPerMillisecond / 2;
    return (ns < 0 ? ns - half : ns + half) / nanosecondsPerMillisecond;
}

} // namespace

ClockAdjustmentDetector::ClockAdjustmentDetector() : ClockAdjustmentDetector(realtime, boottime) {}

ClockAdjustmentDetector::ClockAdjustmentDetector(Clock wall, Clock steady)
    : wallClock(wall), steadyClock(steady)
{}

void ClockAdjustmentDetector::start()
{
    reference = offset();
    started = true;
}

int64_t ClockAdjustmentDetector::check()
{
    return started ? roundToMilliseconds(offset() - reference) : 0;
}

// The thread may be interrupted between the reads of the two clocks, for long under load, which would look
// like a step. So the wall clock is read between two reads of the steady one, and the closest pair of several
// is taken.
int64_t ClockAdjustmentDetector::offset() const
{
    int64_t best = 0;
    int64_t bestGap = std::numeric_limits<int64_t>::max();
    for (int i = 0; i < attempts && bestGap > undisturbedReadNs; ++i) {
        const int64_t before = steadyClock();
        const int64_t wall = wallClock();
        const int64_t gap = steadyClock() - before;
        if (gap < bestGap) {
            bestGap = gap;
            best = wall - (before + gap / 2);
        }
    }
    return best;
}

} // namespace utils
} // namespace zev
} // namespace md
