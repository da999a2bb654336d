// Cuts decoded sound into steady blocks.
#ifndef ZEVSHM_AUDIOBLOCKS_H
#define ZEVSHM_AUDIOBLOCKS_H

#include <cstdint>
#include <optional>
#include <vector>

namespace zevshm {

struct AudioBlock
{
    int64_t mediaUs = 0; // of the first sample
    int frames = 0;
    std::vector<int16_t> samples; // interleaved
};

// Takes interleaved samples in whatever portions a decoder makes, hands out blocks of one length.
//
// Small differences between where a portion should start (samples counted) and its timestamp are the
// container's rounding and are ignored, as long as they stay below `driftUs`. Beyond that a gap starts a new
// run at the new timestamp (the unfinished block is completed with silence) and an overlap is cut off, so
// that sound stays where the picture is.
//
// Threads: one thread at a time. Units: microseconds of media time; frames (one sample of every channel).
class AudioBlocks
{
public:
    AudioBlocks(int sampleRate, int channels, int blockFrames);

    void add(const int16_t *samples, int frames, int64_t mediaUs);
    std::optional<AudioBlock> next();
    // Completes the last block with silence.
    void flush();

    static constexpr int64_t driftUs = 30000;

private:
    void startRun(int64_t mediaUs);

    const int m_sampleRate;
    const size_t m_channels;
    const int m_blockFrames;

    bool m_running = false;
    int64_t m_runUs = 0;     // media time of the run's first sample
    int64_t m_runFrames = 0; // handed out of this run
    std::vector<int16_t> m_pending;
    std::vector<AudioBlock> m_ready;
    size_t m_readyAt = 0;
};

} // namespace zevshm

#endif
