#include "faults.h"

namespace zevshm {

namespace {

// splitmix64: a bijection that scatters neighbouring numbers over the whole range.
uint64_t scatter(uint64_t x)
{
    x += 0x9e3779b97f4a7c15u;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9u;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebu;
    return x ^ (x >> 31);
}

} // namespace

double Faults::random(uint64_t frameNumber, uint64_t purpose) const
{
    const uint64_t bits = scatter(scatter(scatter(m_plan.seed) ^ frameNumber) ^ purpose);
    return static_cast<double>(bits >> 11) * 0x1p-53;
}

Faults::Verdict Faults::audio(int64_t elapsedUs) const
{
    Verdict verdict;
    verdict.withheld =
        elapsedUs >= m_plan.stallAfterUs && elapsedUs - m_plan.stallAfterUs < m_plan.stallForUs;
    if (elapsedUs >= m_plan.stepAfterUs)
        verdict.labelShiftUs = m_plan.stepByUs;
    return verdict;
}

Faults::Verdict Faults::video(uint64_t frameNumber, int64_t elapsedUs) const
{
    Verdict verdict = audio(elapsedUs);
    if (random(frameNumber, 1) * 100 < m_plan.dropPercent)
        verdict.withheld = true;
    verdict.delayUs = static_cast<int64_t>(random(frameNumber, 2) * static_cast<double>(m_plan.jitterUs));
    return verdict;
}

} // namespace zevshm
