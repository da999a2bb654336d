#include <zevshm-pattern/tones.h>

#include <zevshm-pattern/testpattern.h>

#include <cmath>

namespace zevshm {

namespace {

constexpr double twoPi = 6.283185307179586476925;

// The phase is taken from the position within a second: it repeats there because frequencies are whole
// numbers, and a large index would cost precision.
int16_t sine(int hz, int64_t positionInSecond, int sampleRate)
{
    const double phase =
        twoPi * static_cast<double>(positionInSecond * hz % sampleRate) / static_cast<double>(sampleRate);
    return static_cast<int16_t>(std::lround(ToneGenerator::amplitude * std::sin(phase)));
}

} // namespace

int ToneGenerator::toneHz(int channel)
{
    return 440 + 110 * channel;
}

void ToneGenerator::tones(int16_t *samples, int frames, int64_t firstIndex) const
{
    for (int i = 0; i < frames; ++i) {
        const int64_t position = (firstIndex + i) % m_sampleRate;
        for (int channel = 0; channel < m_channels; ++channel)
            *samples++ = sine(toneHz(channel), position, m_sampleRate);
    }
}

void ToneGenerator::beeps(int16_t *samples, int frames, int64_t timestampUs) const
{
    constexpr int64_t secondUs = 1000000;
    const int64_t rest = timestampUs % secondUs;
    const int64_t intoSecondUs = rest < 0 ? rest + secondUs : rest;
    const int64_t first = (intoSecondUs * m_sampleRate + secondUs / 2) / secondUs;
    const int64_t beepFrames = TestPattern::flashUs * m_sampleRate / secondUs;
    for (int i = 0; i < frames; ++i) {
        const int64_t position = (first + i) % m_sampleRate;
        // A cosine: the beep starts at full amplitude, so that its first sample already marks the second.
        const int16_t value = position < beepFrames
                                  ? sine(beepHz, position + m_sampleRate / (4 * beepHz), m_sampleRate)
                                  : static_cast<int16_t>(0);
        for (int channel = 0; channel < m_channels; ++channel)
            *samples++ = value;
    }
}

} // namespace zevshm
