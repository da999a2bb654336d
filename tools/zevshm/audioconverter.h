// Turns decoded sound into the store's samples.
#ifndef ZEVSHM_AUDIOCONVERTER_H
#define ZEVSHM_AUDIOCONVERTER_H

#include "ffmpeg.h"
#include "input.h"

#include <vector>

namespace zevshm {

// Resamples to interleaved signed 16-bit at the store's rate and channels; follows an input that changes its
// own.
//
// Threads: one at a time.
// Units: media time in microseconds; the resampler's delay is taken off the timestamps.
// Errors: Failure (ExitMedia) when the resampler cannot be set up.
class AudioConverter
{
public:
    explicit AudioConverter(AudioFormat target) : m_target(target) {}

    // The samples that are ready now, and the media time of the first in `mediaUs`, which comes in as the
    // frame's. A null frame takes out what the resampler still holds.
    const std::vector<int16_t> &convert(const AVFrame *frame, int64_t &mediaUs);

private:
    void prepare(const AVFrame &frame);

    const AudioFormat m_target;
    AvPtr<SwrContext> m_resampler;
    int m_sourceRate = 0;
    int m_sourceFormat = -1;
    int m_sourceChannels = 0;
    uint64_t m_sourceMask = 0;
    std::vector<int16_t> m_samples;
};

} // namespace zevshm

#endif
