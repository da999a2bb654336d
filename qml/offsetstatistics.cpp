#include "offsetstatistics.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace {

constexpr qint64 stepUs = 500;
constexpr int side = 4000; // steps to either side of zero

double milliseconds(int steps)
{
    return steps * double(stepUs) / 1000.0;
}

/* Of so many steps from zero, in the table. */
std::size_t at(int steps)
{
    const int index = side + steps;
    return std::size_t(index);
}

} // namespace

OffsetStatistics::OffsetStatistics() : m_steps(2 * side + 1, 0) {}

void OffsetStatistics::add(qint64 offsetUs)
{
    const double step = std::round(double(offsetUs) / double(stepUs));
    ++m_steps[at(int(std::clamp(step, -double(side), double(side))))];
    ++m_count;
}

double OffsetStatistics::medianMs() const
{
    quint64 seen = 0;
    for (int i = -side; i <= side && m_count > 0; ++i) {
        seen += m_steps[at(i)];
        if (2 * seen >= m_count)
            return milliseconds(i);
    }
    return 0.0;
}

double OffsetStatistics::sizePercentileMs(double share) const
{
    quint64 seen = 0;
    for (int i = 0; i <= side && m_count > 0; ++i) {
        seen += m_steps[at(i)] + (i > 0 ? m_steps[at(-i)] : 0);
        if (double(seen) >= share * double(m_count))
            return milliseconds(i);
    }
    return 0.0;
}
