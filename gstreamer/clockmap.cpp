#include "clockmap.h"

#include <time.h>

#include <cstdlib>

namespace zevgst {

bool ClockMap::observe(int64_t clockNs, int64_t wallUs)
{
    const int64_t offsetNs = wallUs * 1000 - clockNs;
    if (m_known && std::abs(offsetNs - m_offsetNs) < stepUs * 1000)
        return false;
    m_offsetNs = offsetNs;
    m_known = true;
    return true;
}

int64_t ClockMap::wallUs(int64_t clockNs) const
{
    const int64_t ns = clockNs + m_offsetNs;
    return (ns >= 0 ? ns + 500 : ns - 500) / 1000;
}

int64_t ClockMap::clockNs(int64_t wallUs) const
{
    return wallUs * 1000 - m_offsetNs;
}

int64_t wallNowUs()
{
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

} // namespace zevgst
