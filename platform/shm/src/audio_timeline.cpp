#include "audio_ring.h"

namespace shm {
namespace {

__extension__ typedef __int128 Wide; // in both compilers on every 64-bit target

// floor(a * b / c + 1/2) for c > 0, without overflow.
int64_t scale(int64_t a, int64_t b, int64_t c)
{
    const Wide doubled = static_cast<Wide>(a) * b * 2 + c;
    const Wide divisor = static_cast<Wide>(c) * 2;
    Wide quotient = doubled / divisor;
    if (doubled % divisor < 0)
        --quotient;
    return static_cast<int64_t>(quotient);
}

} // namespace

int64_t framesForUs(int64_t us, uint32_t rate)
{
    return scale(us, rate, 1000000);
}

int64_t usForFrames(int64_t frames, uint32_t rate)
{
    return scale(frames, 1000000, rate);
}

void AudioTimeline::addAnchor(const Anchor &anchor)
{
    // A hostile writer's anchors may come in any order; only rising ones make sense. Two at one sample:
    // nothing was written between them, and the later one tells its time.
    if (m_count > 0 && anchor.sample < m_anchors[m_count - 1].sample)
        return;
    if (m_count > 0 && anchor.sample == m_anchors[m_count - 1].sample)
        m_anchors[m_count - 1] = anchor;
    else if (m_count < m_anchors.size())
        m_anchors[m_count++] = anchor;
    // What lies before the oldest anchor has lost its time.
    if (m_oldest < m_anchors[0].sample)
        m_oldest = m_anchors[0].sample;
}

size_t AudioTimeline::anchorOf(uint64_t sample) const
{
    size_t anchor = m_count - 1;
    while (anchor > 0 && m_anchors[anchor].sample > sample)
        --anchor;
    return anchor;
}

int64_t AudioTimeline::timestampOf(size_t anchor, uint64_t sample) const
{
    const int64_t frames = static_cast<int64_t>(sample - m_anchors[anchor].sample);
    // Wraps for a hostile timestamp instead of overflowing.
    return static_cast<int64_t>(static_cast<uint64_t>(m_anchors[anchor].timestamp) +
                                static_cast<uint64_t>(usForFrames(frames, m_rate)));
}

int64_t AudioTimeline::oldestTimestamp() const
{
    return held() != 0 ? timestampOf(anchorOf(m_oldest), m_oldest) : 0;
}

int64_t AudioTimeline::endTimestamp() const
{
    // The end belongs to the newest sample, not to an anchor that may stand there for the next one.
    return held() != 0 ? timestampOf(anchorOf(m_end - 1), m_end) : 0;
}

bool AudioTimeline::sampleAt(int64_t timestamp, uint64_t *sample) const
{
    if (held() == 0)
        return false;
    for (size_t i = m_count; i-- > 0;) {
        const Anchor &anchor = m_anchors[i];
        if (anchor.sample >= m_end)
            continue;
        const int64_t us =
            static_cast<int64_t>(static_cast<uint64_t>(timestamp) - static_cast<uint64_t>(anchor.timestamp));
        const int64_t frames = framesForUs(us, m_rate);
        if (frames < 0)
            continue; // of an earlier anchor's time
        const uint64_t found = anchor.sample + static_cast<uint64_t>(frames);
        if (i + 1 < m_count && found >= m_anchors[i + 1].sample) {
            // Rounded up to the next anchor's sample; or in time that was never held, between a restart and
            // before.
            const Anchor &next = m_anchors[i + 1];
            if (found > next.sample ||
                static_cast<int64_t>(static_cast<uint64_t>(next.timestamp) -
                                     static_cast<uint64_t>(timestamp)) > usForFrames(1, m_rate))
                return false;
        }
        if (found < m_oldest || found >= m_end)
            return false;
        *sample = found;
        return true;
    }
    return false;
}

} // namespace shm
