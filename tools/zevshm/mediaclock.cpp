#include "mediaclock.h"

#include <cmath>
#include <cstdlib>

namespace zevshm {

void MediaClock::anchor(int64_t mediaUs, int64_t monotonicUs)
{
    m_anchored = true;
    m_mediaUs = mediaUs;
    m_monotonicUs = monotonicUs;
    m_earliest.clear();
}

int64_t MediaClock::dueAt(int64_t mediaUs) const
{
    // long double: a double would lose microseconds after some hundred years of media time, but the quotient
    // of a month already needs more digits than a float product leaves.
    return m_monotonicUs + std::llround(static_cast<long double>(mediaUs - m_mediaUs) / m_speed);
}

int64_t MediaClock::observe(int64_t monotonicUs, int64_t wallUs)
{
    const int64_t offset = wallUs - monotonicUs;
    const int64_t step = offset - m_wallOffsetUs;
    if (!m_observed) {
        m_observed = true;
        m_wallOffsetUs = offset;
        return 0;
    }
    if (std::abs(step) <= stepUs)
        return 0;
    m_wallOffsetUs = offset;
    return step;
}

bool MediaClock::arrived(int64_t mediaUs, int64_t monotonicUs, int64_t latencyUs)
{
    if (!m_anchored) {
        anchor(mediaUs, monotonicUs + latencyUs);
        return false;
    }
    const int64_t late = monotonicUs + latencyUs - dueAt(mediaUs);
    if (std::abs(late) > jumpUs) {
        anchor(mediaUs, monotonicUs + latencyUs);
        return true;
    }
    // Minimum over the window; an entry that a later one undercuts can never be the minimum again. Entries
    // are kept relative to the present anchor, so they move with it.
    while (!m_earliest.empty() && m_earliest.back().second >= late)
        m_earliest.pop_back();
    m_earliest.emplace_back(monotonicUs, late);
    while (m_earliest.front().first < monotonicUs - windowUs)
        m_earliest.pop_front();
    const int64_t earliest = m_earliest.front().second;
    if (std::abs(earliest) > toleranceUs) {
        m_monotonicUs += earliest;
        for (auto &entry : m_earliest)
            entry.second -= earliest;
    }
    return false;
}

} // namespace zevshm
