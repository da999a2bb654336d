#include "fake_clockdetector.h"

#include <zev-utils/clockadjustmentdetector.h>

std::int64_t fakeclock::shiftMs;
int fakeclock::starts;

namespace md {
namespace zev {
namespace utils {

ClockAdjustmentDetector::ClockAdjustmentDetector() : wallClock(nullptr), steadyClock(nullptr) {}

void ClockAdjustmentDetector::start()
{
    ++fakeclock::starts;
}

std::int64_t ClockAdjustmentDetector::check()
{
    return fakeclock::shiftMs;
}

} // namespace utils
} // namespace zev
} // namespace md
