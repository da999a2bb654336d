#include "framestatistics.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr long long latencyStepUs = 100;
constexpr std::size_t latencySteps = 20001;
constexpr long long recentUs = 2000000;

// Intervals are estimates: a tick step of 1.02 source intervals is one frame, not two.
constexpr double stepTolerance = 0.05;

} // namespace

FrameStatistics::FrameStatistics() : m_latencies(latencySteps, 0) {}

void FrameStatistics::handedOut(long long now, long long timestamp, const QVector<long long> &history,
                                long long sourceIntervalUs)
{
    m_figures.sourceIntervalUs = sourceIntervalUs;
    ++m_figures.frames;
    if (m_figures.frames > 1 && timestamp == m_lastTimestamp) {
        ++m_figures.repeated;
    } else {
        ++m_figures.distinct;
        if (m_continuing && timestamp > m_lastTimestamp)
            countSkipped(timestamp, history);
        else if (m_continuing)
            ++m_figures.backward;
    }
    if (m_continuing) {
        m_streamedUs += now - m_lastHandOut;
        ++m_streamedSteps;
    }
    m_continuing = true;
    m_isIdle = false;
    m_lastTimestamp = timestamp;
    m_lastHandOut = now;

    m_recent.push_back(now);
    while (now - m_recent.front() > recentUs)
        m_recent.pop_front();

    const long long latency = std::max(0LL, now - timestamp);
    m_latencyMaxUs = std::max(m_latencyMaxUs, latency);
    ++m_latencies[std::min(std::size_t(latency / latencyStepUs), latencySteps - 1)];
}

void FrameStatistics::countSkipped(long long timestamp, const QVector<long long> &history)
{
    long long passed = 1;
    const double interval = double(m_figures.sourceIntervalUs);
    if (!history.isEmpty() && history.first() > m_lastTimestamp)
        ++m_figures.lapped;
    if (!history.isEmpty() && history.first() <= m_lastTimestamp) {
        const auto after = std::upper_bound(history.begin(), history.end(), m_lastTimestamp);
        passed = std::upper_bound(after, history.end(), timestamp) - after;
    } else if (interval > 1000.0) {
        passed = std::llround(double(timestamp - m_lastTimestamp) / interval);
    }
    long long explained = 1;
    if (interval > 1000.0)
        explained = std::max(1LL, (long long)(std::ceil(m_tickIntervalUs / interval - stepTolerance)));
    if (passed > explained)
        m_figures.skipped += quint64(passed - explained);
}

void FrameStatistics::idle()
{
    if (!m_isIdle)
        ++m_figures.idle;
    m_isIdle = true;
    m_continuing = false;
}

void FrameStatistics::noSignal()
{
    ++m_figures.noSignal;
    m_isIdle = false;
    m_continuing = false;
}

void FrameStatistics::paused()
{
    m_isIdle = false;
    m_continuing = false;
}

FrameStatistics::Figures FrameStatistics::figures(long long now) const
{
    Figures result = m_figures;
    if (m_streamedUs > 0)
        result.fps = double(m_streamedSteps) * 1e6 / double(m_streamedUs);
    const auto first = std::find_if(m_recent.begin(), m_recent.end(),
                                    [now](long long time) { return now - time <= recentUs; });
    const auto steps = std::distance(first, m_recent.end()) - 1;
    if (steps > 0 && m_recent.back() > *first)
        result.recentFps = double(steps) * 1e6 / double(m_recent.back() - *first);
    result.latencyP50Ms = latencyPercentileMs(0.50);
    result.latencyP95Ms = latencyPercentileMs(0.95);
    result.latencyP99Ms = latencyPercentileMs(0.99);
    result.latencyMaxMs = double(m_latencyMaxUs) / 1000.0;
    return result;
}

double FrameStatistics::latencyPercentileMs(double fraction) const
{
    // The smallest step that at least this share of the pictures lies in or below.
    const double wanted = fraction * double(m_figures.frames);
    double seen = 0.0;
    for (std::size_t i = 0; i + 1 < m_latencies.size(); ++i) {
        seen += m_latencies[i];
        if (seen > 0.0 && seen >= wanted)
            return double(i) * double(latencyStepUs) / 1000.0;
    }
    return double(m_latencyMaxUs) / 1000.0;
}
