#include "cadence.h"

#include <cmath>

namespace zevshm {

namespace {

constexpr long double secondUs = 1000000;

int64_t nearestIndex(int64_t us, Ratio rate)
{
    return std::llround(static_cast<long double>(us) * rate.numerator / (secondUs * rate.denominator));
}

} // namespace

int64_t intervalUs(Ratio rate)
{
    return frameStartUs(1, rate);
}

int64_t frameStartUs(int64_t index, Ratio rate)
{
    return std::llround(static_cast<long double>(index) * secondUs * rate.denominator / rate.numerator);
}

int64_t CadenceSnap::snap(int64_t ptsUs)
{
    if (!m_rate)
        return ptsUs;
    if (!m_originUs)
        m_originUs = ptsUs;
    const int64_t even = *m_originUs + frameStartUs(nearestIndex(ptsUs - *m_originUs, *m_rate), *m_rate);
    // Both the first timestamp and this one were rounded: twice the tolerance of one.
    if (std::abs(static_cast<double>(even - ptsUs)) <= 2 * m_toleranceUs)
        return even;
    return ptsUs;
}

int64_t RateConversion::placeUs(int64_t place) const
{
    return frameStartUs(place, m_rate);
}

RateConversion::Places RateConversion::accept(int64_t ptsUs)
{
    Places places;
    places.own = nearestIndex(ptsUs, m_rate);
    if (!m_started) {
        m_started = true;
        m_next = places.own;
    }
    places.first = m_next;
    places.take = places.own >= m_next;
    if (places.take)
        m_next = places.own + 1;
    return places;
}

} // namespace zevshm
