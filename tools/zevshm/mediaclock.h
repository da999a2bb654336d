// When the frames and samples of an input are due, and what wall-clock label they get.
#ifndef ZEVSHM_MEDIACLOCK_H
#define ZEVSHM_MEDIACLOCK_H

#include <cstdint>
#include <deque>
#include <utility>

namespace zevshm {

// One clock for the video and the audio of an input. Pure: every instant is handed in.
//
//     media time (us, the input's own)   --dueAt-->   monotonic (us)   --labelFor-->   wall clock (us)
//
// Media time is laid onto the monotonic clock at an anchor; deadlines are computed from the anchor, never
// from the frame before, so nothing accumulates. Example: anchor 0 at monotonic 5,000,000, rate +100 ppm:
// media time 10,000,000 is due at 5,000,000 + 10,000,000 / 1.0001 = 14,999,000. The label is the wall clock
// at the deadline: the same number of microseconds further on, so labels are as even as the input's
// timestamps.
//
// A live input is anchored to its arrivals: the earliest arrival of the last seconds, plus a fixed latency
// that hides the network's jitter, is where its frames belong. When that place has moved by more than
// `toleranceUs` (the sender's clock runs fast or slow, the network's path changed), the anchor moves there in
// one step: no queue grows or runs dry over hours, and sound is cut once in minutes instead of being bent all
// the time.
//
// Threads: none of its own; the caller serializes.
// Units: microseconds everywhere.
class MediaClock
{
public:
    explicit MediaClock(double ppm = 0) : m_speed(1 + ppm * 1e-6) {}

    bool anchored() const { return m_anchored; }
    void anchor(int64_t mediaUs, int64_t monotonicUs);

    int64_t dueAt(int64_t mediaUs) const;

    void release() { m_anchored = false; } // the next arrival anchors anew

    // Moves every deadline by `us`.
    void shift(int64_t us) { m_monotonicUs += us; }

    // The two clocks read together. The label follows a step of the host's wall clock (more than `stepUs`);
    // smaller differences are reading noise, because both clocks are slewed alike. Returns the step, 0 for
    // none.
    int64_t observe(int64_t monotonicUs, int64_t wallUs);
    int64_t labelFor(int64_t monotonicUs) const { return monotonicUs + m_wallOffsetUs; }

    // A live input's arrival, with the latency wanted. Returns true when the input had jumped (more than
    // `jumpUs` from where it was expected) and was anchored anew.
    bool arrived(int64_t mediaUs, int64_t monotonicUs, int64_t latencyUs);

    static constexpr int64_t stepUs = 5000;
    static constexpr int64_t toleranceUs = 20000;
    static constexpr int64_t jumpUs = 2000000;
    static constexpr int64_t windowUs = 8000000;

private:
    double m_speed; // media seconds a real second
    bool m_anchored = false;
    int64_t m_mediaUs = 0;
    int64_t m_monotonicUs = 0;

    bool m_observed = false;
    int64_t m_wallOffsetUs = 0; // wall clock less monotonic clock

    std::deque<std::pair<int64_t, int64_t>> m_earliest; // (arrival, arrival less due), rising in both
};

} // namespace zevshm

#endif
