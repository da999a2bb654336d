#include "interval_estimator.h"

#include <algorithm>
#include <cmath>

namespace shm {
namespace {

constexpr double kMadToDeviation = 1.4826; // of a normal distribution

double medianOf(double *values, size_t count)
{
    std::nth_element(values, values + count / 2, values + count);
    return values[count / 2];
}

struct Points
{
    std::array<double, IntervalEstimator::kWindow> time{};   // microseconds since the first
    std::array<double, IntervalEstimator::kWindow> number{}; // frames since the first
    size_t count = 0;
};

struct Fit
{
    double slope = 0;
    double offset = 0;
};

// Least squares through the points whose distance from `previous` is at most `limit`.
Fit fitLine(const Points &points, const Fit *previous, double limit)
{
    double n = 0;
    double sumX = 0;
    double sumY = 0;
    for (size_t i = 0; i < points.count; ++i) {
        const double x = points.number[i];
        if (previous != nullptr && std::abs(points.time[i] - previous->offset - previous->slope * x) > limit)
            continue;
        n += 1;
        sumX += x;
        sumY += points.time[i];
    }
    if (n < 2)
        return previous != nullptr ? *previous : Fit{};
    const double meanX = sumX / n;
    const double meanY = sumY / n;
    double xx = 0;
    double xy = 0;
    for (size_t i = 0; i < points.count; ++i) {
        const double x = points.number[i];
        if (previous != nullptr && std::abs(points.time[i] - previous->offset - previous->slope * x) > limit)
            continue;
        xx += (x - meanX) * (x - meanX);
        xy += (x - meanX) * (points.time[i] - meanY);
    }
    if (xx <= 0)
        return previous != nullptr ? *previous : Fit{};
    const double slope = xy / xx;
    return {slope, meanY - slope * meanX};
}

// 1.4826 x MAD of the residuals. `*middle`: their median, which outliers do not move as they moved the line.
double deviation(const Points &points, const Fit &fit, double *middle)
{
    std::array<double, IntervalEstimator::kWindow> residuals;
    for (size_t i = 0; i < points.count; ++i)
        residuals[i] = points.time[i] - fit.offset - fit.slope * points.number[i];
    std::array<double, IntervalEstimator::kWindow> work = residuals;
    *middle = medianOf(work.data(), points.count);
    for (size_t i = 0; i < points.count; ++i)
        work[i] = std::abs(residuals[i] - *middle);
    return kMadToDeviation * medianOf(work.data(), points.count);
}

// Numbers the points from the one before: the error of the interval does not add up over the window.
void numberPoints(Points *points, double interval)
{
    points->number[0] = 0;
    for (size_t i = 1; i < points->count; ++i) {
        const double steps = std::round((points->time[i] - points->time[i - 1]) / interval);
        points->number[i] = points->number[i - 1] + std::max(1.0, steps);
    }
}

double medianDelta(const Points &points, size_t from)
{
    std::array<double, IntervalEstimator::kWindow> deltas;
    size_t count = 0;
    for (size_t i = from + 1; i < points.count; ++i)
        deltas[count++] = points.time[i] - points.time[i - 1];
    return medianOf(deltas.data(), count);
}

void dropBefore(Points *points, size_t from)
{
    const double origin = points->time[from];
    for (size_t i = from; i < points->count; ++i)
        points->time[i - from] = points->time[i] - origin;
    points->count -= from;
}

// Leaves what speaks of the present cadence: after a long pause the frames are in step with nothing before
// it, and after a change of rate the older half would hold the median back for a second.
void keepPresent(Points *points)
{
    const double median = medianDelta(*points, 0);
    for (size_t i = points->count - 1; i > 0; --i) {
        if (points->time[i] - points->time[i - 1] > std::max(1e6, 16 * median)) {
            if (points->count - i >= IntervalEstimator::kEnough)
                dropBefore(points, i);
            break;
        }
    }
    constexpr size_t kRecent = 12;
    if (points->count < 2 * kRecent)
        return;
    const size_t from = points->count - kRecent - 1;
    const double recent = medianDelta(*points, from);
    if (std::abs(recent - median) <= 0.3 * median)
        return;
    // Nearly all of them agree: drops in a row would not.
    size_t agreeing = 0;
    for (size_t i = from + 1; i < points->count; ++i)
        agreeing += std::abs(points->time[i] - points->time[i - 1] - recent) < 0.15 * recent ? 1 : 0;
    if (agreeing >= kRecent - 2)
        dropBefore(points, from);
}

} // namespace

void IntervalEstimator::add(int64_t timestamp)
{
    m_times[m_next] = timestamp;
    m_next = (m_next + 1) % kWindow;
    m_count = std::min(m_count + 1, kWindow);
}

void IntervalEstimator::reset()
{
    m_count = 0;
    m_next = 0;
}

IntervalEstimator::Estimate IntervalEstimator::estimate() const
{
    if (m_count < kEnough)
        return {};
    Points points;
    points.count = m_count;
    const size_t start = (m_next + kWindow - m_count) % kWindow;
    for (size_t i = 0; i < m_count; ++i)
        points.time[i] = static_cast<double>(m_times[(start + i) % kWindow] - m_times[start]);
    keepPresent(&points);

    const double median = medianDelta(points, 0);
    if (median < 1)
        return {};
    numberPoints(&points, median);
    Fit fit = fitLine(points, nullptr, 0);
    // Once more with numbers from the slope: jitter moves the median delta, hardly the slope.
    if (fit.slope >= 1) {
        numberPoints(&points, fit.slope);
        fit = fitLine(points, nullptr, 0);
    }
    double middle = 0;
    const double spread = deviation(points, fit, &middle);
    fit.offset += middle;
    fit = fitLine(points, &fit, std::max(3.5 * spread, 2.0));
    if (!(fit.slope >= 1) || fit.slope > 3600e6)
        return {};
    return {std::llround(fit.slope), std::llround(deviation(points, fit, &middle))};
}

} // namespace shm
