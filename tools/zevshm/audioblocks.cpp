#include "audioblocks.h"

#include <algorithm>

namespace zevshm {

namespace {

int64_t framesToUs(int64_t frames, int sampleRate)
{
    return (frames * 1000000 + sampleRate / 2) / sampleRate;
}

} // namespace

AudioBlocks::AudioBlocks(int sampleRate, int channels, int blockFrames)
    : m_sampleRate(sampleRate), m_channels(static_cast<size_t>(channels)), m_blockFrames(blockFrames)
{}

void AudioBlocks::startRun(int64_t mediaUs)
{
    flush();
    m_running = true;
    m_runUs = mediaUs;
    m_runFrames = 0;
}

void AudioBlocks::add(const int16_t *samples, int frames, int64_t mediaUs)
{
    if (frames <= 0)
        return;
    if (!m_running) {
        startRun(mediaUs);
    } else {
        const int64_t held = m_runFrames + static_cast<int64_t>(m_pending.size() / m_channels);
        const int64_t differenceUs = mediaUs - (m_runUs + framesToUs(held, m_sampleRate));
        if (differenceUs > driftUs) {
            startRun(mediaUs);
        } else if (differenceUs < -driftUs) {
            const int64_t cut = -differenceUs * m_sampleRate / 1000000;
            if (cut >= frames)
                return;
            samples += cut * static_cast<int64_t>(m_channels);
            frames -= static_cast<int>(cut);
        }
    }
    m_pending.insert(m_pending.end(), samples, samples + static_cast<size_t>(frames) * m_channels);

    const size_t blockSamples = static_cast<size_t>(m_blockFrames) * m_channels;
    size_t taken = 0;
    for (; m_pending.size() - taken >= blockSamples; taken += blockSamples) {
        AudioBlock block;
        block.mediaUs = m_runUs + framesToUs(m_runFrames, m_sampleRate);
        block.frames = m_blockFrames;
        const auto from = m_pending.begin() + static_cast<ptrdiff_t>(taken);
        block.samples.assign(from, from + static_cast<ptrdiff_t>(blockSamples));
        m_runFrames += m_blockFrames;
        m_ready.push_back(std::move(block));
    }
    m_pending.erase(m_pending.begin(), m_pending.begin() + static_cast<ptrdiff_t>(taken));
}

void AudioBlocks::flush()
{
    if (m_pending.empty())
        return;
    AudioBlock block;
    block.mediaUs = m_runUs + framesToUs(m_runFrames, m_sampleRate);
    block.frames = m_blockFrames;
    block.samples = std::move(m_pending);
    block.samples.resize(static_cast<size_t>(m_blockFrames) * m_channels, 0);
    m_runFrames += m_blockFrames;
    m_pending.clear();
    m_ready.push_back(std::move(block));
}

std::optional<AudioBlock> AudioBlocks::next()
{
    if (m_readyAt == m_ready.size()) {
        m_ready.clear();
        m_readyAt = 0;
        return std::nullopt;
    }
    return std::move(m_ready[m_readyAt++]);
}

} // namespace zevshm
