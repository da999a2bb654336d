// One audio stream in shared memory: a ring of samples that is found by timestamp.
//
// Sample n of the stream (counted from the writer's start) lies at n mod capacity. Anchors say which sample
// is of which time; between anchors time runs at the sample rate, so a timestamp's rounding never adds up.
//
//     anchors      A1 (0, t1)              A2 (4800, t2)
//                   |                       |
//     samples      0 ........... 4500|000000|4800 ........... end
//                  published         gap: silence, of A1's time
//
// Writer: intent = end + n; release fence; samples; end = end + n (release). Reader: end (acquire); copy;
// acquire fence; intent again, and whatever lies below intent - capacity is thrown away. With `end` alone a
// reader would take samples that are being overwritten but not yet counted.
#ifndef SHM_AUDIO_RING_H
#define SHM_AUDIO_RING_H

#include "clock.h"
#include "frame_order.h"
#include "protocol.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace shm {

// Rounded to the nearest.
int64_t framesForUs(int64_t us, uint32_t rate);
int64_t usForFrames(int64_t frames, uint32_t rate);

struct AudioFormat
{
    uint32_t sampleRate = 0;
    uint32_t channels = 0;
    uint32_t capacity = 0; // audio frames
    uint32_t history = 0;  // audio frames that readers may count on; less than capacity
};

// What is held and of which time: a private copy of end, first and the anchors. Pure arithmetic.
class AudioTimeline
{
public:
    struct Anchor
    {
        uint64_t sample = 0;
        int64_t timestamp = 0;
    };

    AudioTimeline() = default;
    AudioTimeline(uint32_t sampleRate, uint64_t oldest, uint64_t end)
        : m_rate(sampleRate), m_oldest(oldest), m_end(end)
    {}

    // In ascending order of samples.
    void addAnchor(const Anchor &anchor);

    uint64_t oldest() const { return m_oldest; }
    uint64_t end() const { return m_end; }
    uint64_t held() const { return m_count != 0 && m_end > m_oldest ? m_end - m_oldest : 0; }
    int64_t oldestTimestamp() const; // 0 when nothing is held
    int64_t endTimestamp() const;    // of the end of the newest sample; 0 when nothing is held

    // The held sample that is nearest to `timestamp`; false when that is not held.
    bool sampleAt(int64_t timestamp, uint64_t *sample) const;

private:
    int64_t timestampOf(size_t anchor, uint64_t sample) const;
    size_t anchorOf(uint64_t sample) const;

    uint32_t m_rate = 0;
    uint64_t m_oldest = 0;
    uint64_t m_end = 0;
    size_t m_count = 0;
    std::array<Anchor, kAudioAnchors> m_anchors{};
};

// Threads: bound to the writer's audio thread. Ownership: borrows the memory. Cost: a copy, no system call.
class AudioRingWriter
{
public:
    AudioRingWriter() = default;
    AudioRingWriter(uint8_t *memory, const AudioFormat &format);

    void publish(const int16_t *samples, uint32_t frames, int64_t timestamp, const ClockReading &now);
    uint64_t published() const;

private:
    void anchor(uint64_t sample, int64_t timestamp);
    void append(const int16_t *samples, uint64_t frames); // null: silence
    void restart(int64_t timestamp);

    AudioHead *m_head = nullptr;
    int16_t *m_samples = nullptr;
    AudioFormat m_format;
    StepDetector m_steps;
    bool m_started = false;
    uint64_t m_end = 0;
    uint64_t m_anchors = 0;
    AudioTimeline::Anchor m_anchor; // the last
};

// Threads: one at a time. Ownership: borrows the memory, which may be changing or hostile. Cost: a copy.
class AudioRingReader
{
public:
    AudioRingReader() = default;
    AudioRingReader(const uint8_t *memory, const AudioFormat &format);

    struct Status
    {
        uint64_t held = 0;
        uint64_t published = 0;
        int64_t oldestTimestamp = 0;
        int64_t endTimestamp = 0;
    };
    Status status();

    // Copies up to `frames` audio frames from `timestamp` on. `channel` -1: all channels; else that channel,
    // written `copies` times side by side. Returns the audio frames delivered.
    uint64_t read(int16_t *destination, uint64_t frames, int64_t timestamp, int channel, uint32_t copies);

private:
    AudioTimeline timeline(uint64_t span) const;
    void copy(int16_t *destination, uint64_t sample, uint64_t frames, int channel, uint32_t copies) const;

    const AudioHead *m_head = nullptr;
    const int16_t *m_samples = nullptr;
    AudioFormat m_format;
    // What status() last told. A caller that asks for it a moment later gets it, although the history has
    // moved on.
    uint64_t m_toldOldest = 0;
    bool m_told = false;
};

} // namespace shm

#endif
