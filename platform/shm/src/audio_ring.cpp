#include "audio_ring.h"

#include <algorithm>
#include <cstring>

namespace shm {

AudioRingWriter::AudioRingWriter(uint8_t *memory, const AudioFormat &format)
    : m_head(reinterpret_cast<AudioHead *>(memory)),
      m_samples(reinterpret_cast<int16_t *>(memory + sizeof(AudioHead))), m_format(format)
{}

uint64_t AudioRingWriter::published() const
{
    return m_head->published.value.load(std::memory_order_relaxed);
}

void AudioRingWriter::anchor(uint64_t sample, int64_t timestamp)
{
    m_anchor = {sample, timestamp};
    const uint64_t number = ++m_anchors;
    AudioAnchor &entry = m_head->anchors[number % kAudioAnchors];
    entry.number.store(0, std::memory_order_relaxed);
    entry.sample.store(sample, std::memory_order_release);
    entry.timestamp.store(timestamp, std::memory_order_release);
    entry.number.store(number, std::memory_order_release);
    m_head->anchorCount.value.store(number, std::memory_order_release);
}

void AudioRingWriter::append(const int16_t *samples, uint64_t frames)
{
    const size_t frameSamples = m_format.channels;
    // In pieces no larger than what the ring has beyond the history, so that the history is always held.
    const uint64_t piece = m_format.capacity - m_format.history;
    while (frames > 0) {
        const uint64_t at = m_end % m_format.capacity;
        const uint64_t n = std::min({frames, piece, m_format.capacity - at});
        m_head->intent.value.store(m_end + n, std::memory_order_relaxed);
        releaseFence();
        int16_t *target = m_samples + at * frameSamples;
        if (samples != nullptr) {
            std::memcpy(target, samples, n * frameSamples * sizeof(int16_t));
            samples += n * frameSamples;
        } else {
            std::memset(target, 0, n * frameSamples * sizeof(int16_t));
        }
        m_end += n;
        m_head->end.value.store(m_end, std::memory_order_release);
        frames -= n;
    }
}

void AudioRingWriter::restart(int64_t timestamp)
{
    m_head->first.value.store(m_end, std::memory_order_release);
    anchor(m_end, timestamp);
}

void AudioRingWriter::publish(const int16_t *samples, uint32_t frames, int64_t timestamp,
                              const ClockReading &now)
{
    m_steps.look(now);
    uint64_t left = frames;
    const int64_t expected =
        m_anchor.timestamp + usForFrames(static_cast<int64_t>(m_end - m_anchor.sample), m_format.sampleRate);
    // Positive: a gap, negative: an overlap; in audio frames, so that half a frame is no difference.
    const int64_t shift = framesForUs(timestamp - expected, m_format.sampleRate);
    if (!m_started) {
        restart(timestamp);
        m_started = true;
    } else if (shift < 0 && m_steps.steppedBack()) {
        // Trimming would eat everything until the wall clock is where it was.
        m_steps.consume();
        restart(timestamp);
    } else if (shift > 0) {
        const auto gap = static_cast<uint64_t>(shift);
        if (gap >= m_format.history) {
            // Longer than the ring: what came before is out of it, and silence fills what is not new.
            const uint64_t silence = m_format.history;
            restart(timestamp - usForFrames(static_cast<int64_t>(silence), m_format.sampleRate));
            append(nullptr, silence);
        } else {
            append(nullptr, gap);
        }
        if (frames > 0)
            anchor(m_end, timestamp);
    } else if (shift < 0) {
        const uint64_t overlap = std::min<uint64_t>(left, static_cast<uint64_t>(-shift));
        samples += overlap * m_format.channels;
        left -= overlap;
    }
    append(samples, left);
    m_head->published.value.fetch_add(frames, std::memory_order_relaxed);
}

AudioRingReader::AudioRingReader(const uint8_t *memory, const AudioFormat &format)
    : m_head(reinterpret_cast<const AudioHead *>(memory)),
      m_samples(reinterpret_cast<const int16_t *>(memory + sizeof(AudioHead))), m_format(format)
{}

// What is held of the newest `span` audio frames.
AudioTimeline AudioRingReader::timeline(uint64_t span) const
{
    const uint64_t end = m_head->end.value.load(std::memory_order_acquire);
    const uint64_t intent = std::max(m_head->intent.value.load(std::memory_order_acquire), end);
    uint64_t oldest = m_head->first.value.load(std::memory_order_acquire);
    oldest = std::max(oldest, intent > m_format.capacity ? intent - m_format.capacity : 0);
    oldest = std::max(oldest, end > span ? end - span : 0);
    if (end - oldest > m_format.capacity) // also when oldest is beyond the end
        return AudioTimeline(m_format.sampleRate, 0, 0);

    AudioTimeline timeline(m_format.sampleRate, oldest, end);
    const uint64_t last = m_head->anchorCount.value.load(std::memory_order_acquire);
    // One less than there is room for: the oldest is the next to be overwritten.
    const uint64_t count = std::min<uint64_t>(last, kAudioAnchors - 1);
    for (uint64_t i = 0; i < count; ++i) {
        const uint64_t number = last - count + 1 + i;
        const AudioAnchor &entry = m_head->anchors[number % kAudioAnchors];
        AudioTimeline::Anchor anchor;
        anchor.sample = entry.sample.load(std::memory_order_acquire);
        anchor.timestamp = entry.timestamp.load(std::memory_order_acquire);
        if (entry.number.load(std::memory_order_relaxed) == number)
            timeline.addAnchor(anchor);
    }
    return timeline;
}

AudioRingReader::Status AudioRingReader::status()
{
    const AudioTimeline now = timeline(m_format.history);
    Status status;
    status.held = now.held();
    status.published = m_head->published.value.load(std::memory_order_relaxed);
    status.oldestTimestamp = now.oldestTimestamp();
    status.endTimestamp = now.endTimestamp();
    m_toldOldest = now.oldest();
    m_told = true;
    return status;
}

void AudioRingReader::copy(int16_t *destination, uint64_t sample, uint64_t frames, int channel,
                           uint32_t copies) const
{
    const size_t channels = m_format.channels;
    while (frames > 0) {
        const uint64_t at = sample % m_format.capacity;
        const uint64_t n = std::min<uint64_t>(frames, m_format.capacity - at);
        const int16_t *source = m_samples + at * channels;
        if (channel < 0) {
            std::memcpy(destination, source, n * channels * sizeof(int16_t));
            destination += n * channels;
        } else {
            for (uint64_t i = 0; i < n; ++i) {
                const int16_t value = source[i * channels + static_cast<size_t>(channel)];
                for (uint32_t c = 0; c < copies; ++c)
                    *destination++ = value;
            }
        }
        sample += n;
        frames -= n;
    }
}

uint64_t AudioRingReader::read(int16_t *destination, uint64_t frames, int64_t timestamp, int channel,
                               uint32_t copies)
{
    for (int attempt = 0; attempt < 4; ++attempt) {
        uint64_t span = m_format.history;
        if (m_told) {
            const uint64_t end = m_head->end.value.load(std::memory_order_acquire);
            if (end > m_toldOldest)
                span = std::min<uint64_t>(std::max<uint64_t>(span, end - m_toldOldest), m_format.capacity);
        }
        const AudioTimeline now = timeline(span);
        uint64_t sample = 0;
        if (!now.sampleAt(timestamp, &sample))
            return 0;
        const uint64_t n = std::min(frames, now.end() - sample);
        copy(destination, sample, n, channel, copies);
        acquireFence();
        const uint64_t intent = m_head->intent.value.load(std::memory_order_relaxed);
        // Dropping the head would deliver samples of another time than was asked for: look again, and then
        // find that the start is not held any more.
        if (intent <= m_format.capacity || sample >= intent - m_format.capacity)
            return n;
    }
    return 0;
}

} // namespace shm
