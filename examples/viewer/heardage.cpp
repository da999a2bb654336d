#include "heardage.h"

#include <algorithm>
#include <vector>

namespace {

constexpr qint64 windowUs = 1000000;

} // namespace

void HeardAge::restart(int jumps)
{
    *this = HeardAge();
    m_jumps = jumps;
}

void HeardAge::report(const Report &report)
{
    if (report.heard <= 0 || report.readPosition <= 0)
        return;
    // A clock that was set back leaves reports of the future behind, which nothing would remove.
    if (!m_reports.empty() && report.now < m_reports.back().now)
        m_reports.clear();
    if (m_first == 0)
        m_first = report.now;
    m_reports.push_back(report);
    while (report.now - m_reports.front().now > windowUs)
        m_reports.pop_front();

    if (m_buffered >= 0)
        return;
    m_isSpoiled = report.jumps != m_jumps;
    const qint64 passed = report.now - m_reports.front().now;
    const qint64 read = report.readPosition - m_reports.front().readPosition;
    const bool isSteady = 2 * read > passed && 2 * read < 3 * passed;
    if (m_isSpoiled || report.now - m_first < windowUs || !isSteady)
        return;
    std::vector<qint64> ages;
    ages.reserve(m_reports.size());
    for (const Report &past : m_reports)
        ages.push_back(past.now - past.heard);
    const auto middle = ages.begin() + std::ptrdiff_t(ages.size() / 2);
    std::nth_element(ages.begin(), middle, ages.end());
    m_buffered = std::max<qint64>(0, *middle - behind());
}

qint64 HeardAge::behind() const
{
    qint64 most = 0;
    for (const Report &report : m_reports)
        most = std::max(most, report.now - report.readPosition);
    return most;
}

bool HeardAge::isKnown(qint64 now) const
{
    if (m_buffered < 0 || m_reports.empty())
        return false;
    const qint64 since = now - m_reports.back().now;
    return since >= 0 && since <= windowUs && m_reports.front().silence == m_reports.back().silence;
}

qint64 HeardAge::age() const
{
    return m_buffered < 0 ? 0 : m_buffered + behind();
}
