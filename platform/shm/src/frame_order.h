// Decides whether a frame's timestamp may enter the history.
//
// Timestamps in the history rise strictly. A frame that is not later than the newest is refused, unless the
// wall clock was stepped back since: then every frame would be refused until the clock is where it was, so
// the history starts anew. A step shows in the distance between wall and monotonic clock, which slewing
// changes by at most one part in two thousand.
//
// Threads: bound to the video thread. Units: microseconds.
#ifndef SHM_FRAME_ORDER_H
#define SHM_FRAME_ORDER_H

#include "clock.h"

namespace shm {

// Notices that the wall clock was stepped back, and remembers it until it is used up or too old to be the
// cause.
class StepDetector
{
public:
    // Call with every frame or block of samples.
    void look(const ClockReading &now);
    bool steppedBack() const { return m_pending; }
    void consume() { m_pending = false; }

private:
    bool m_known = false;
    bool m_pending = false;
    int64_t m_pendingSinceUs = 0; // monotonic
    ClockReading m_last;
};

class FrameOrder
{
public:
    enum class Verdict {
        Accept,
        Restart, // accept, and forget the history
        Refuse
    };

    // What to do with a frame; changes nothing that a second call would not find.
    Verdict judge(int64_t timestamp, const ClockReading &now);
    // The frame is in the history.
    void accepted(int64_t timestamp, Verdict verdict);

private:
    StepDetector m_steps;
    bool m_any = false;
    int64_t m_newest = 0;
};

} // namespace shm

#endif
