// The sound of the test inputs.
#ifndef ZEVSHM_PATTERN_TONES_H
#define ZEVSHM_PATTERN_TONES_H

#include <cstdint>

namespace zevshm {

// Makes interleaved signed 16-bit samples: a steady tone of its own for every channel, or a beep in the first
// 100 ms of every wall-clock second.
//
// Threads: immutable, reentrant.
// Units: `firstIndex` counts audio frames since the start; `timestampUs` is the wall clock of the first of
// them. Both only depend on their arguments, so blocks of any size join without a click.
class ToneGenerator
{
public:
    ToneGenerator(int sampleRate, int channels) : m_sampleRate(sampleRate), m_channels(channels) {}

    void tones(int16_t *samples, int frames, int64_t firstIndex) const;
    void beeps(int16_t *samples, int frames, int64_t timestampUs) const;

    static int toneHz(int channel); // of tones(), distinct for every channel
    static constexpr int beepHz = 1000;
    static constexpr int amplitude = 8192; // 12 dB below full scale

private:
    int m_sampleRate;
    int m_channels;
};

} // namespace zevshm

#endif
