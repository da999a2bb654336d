#include "ratefollower.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr double usualRates[] = {5.0,  10.0, 12.5, 15.0, 20.0, 24000.0 / 1001.0, 24.0,  25.0,
                                 30.0, 50.0, 60.0, 72.0, 75.0, 30000.0 / 1001.0, 100.0, 60000.0 / 1001.0,
                                 90.0, 120.0};
// 24 and 23.976 are 0.1 % apart.
constexpr double usualTolerance = 0.0004;
constexpr double smallChange = 0.0005;
constexpr double largeChange = 0.005;
constexpr int lastingUpdates = 10;

} // namespace

double RateFollower::rateOf(long long sourceIntervalUs)
{
    const double rate = 1e6 / double(sourceIntervalUs);
    for (const double usual : usualRates)
        if (std::abs(rate / usual - 1.0) < usualTolerance)
            return usual;
    return rate;
}

double RateFollower::update(long long sourceIntervalUs)
{
    if (sourceIntervalUs <= 1000)
        return 0.0;
    double rate = rateOf(sourceIntervalUs);
    if (m_screenRate > 0.0)
        rate = std::min(rate, m_screenRate);
    const double change = m_rate > 0.0 ? std::abs(rate / m_rate - 1.0) : 1.0;
    m_drifted = change > smallChange ? m_drifted + 1 : 0;
    if (change <= largeChange && m_drifted < lastingUpdates)
        return 0.0;
    m_drifted = 0;
    m_rate = rate;
    return rate;
}
