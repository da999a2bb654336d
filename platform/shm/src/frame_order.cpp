#include "frame_order.h"

namespace shm {

void StepDetector::look(const ClockReading &now)
{
    if (m_known) {
        const int64_t wall = now.wallUs - m_last.wallUs;
        const int64_t monotonic = now.monotonicUs - m_last.monotonicUs;
        // What slewing may amount to, and what two reads of two clocks may differ by.
        const int64_t tolerance = 1000 + monotonic / 1000;
        if (wall < monotonic - tolerance) {
            m_pending = true;
            m_pendingSinceUs = now.monotonicUs;
        }
    }
    // Frames captured before the step may still come for a while, in order, before the first one that is
    // affected.
    if (m_pending && now.monotonicUs - m_pendingSinceUs > 10000000)
        m_pending = false;
    m_known = true;
    m_last = now;
}

FrameOrder::Verdict FrameOrder::judge(int64_t timestamp, const ClockReading &now)
{
    m_steps.look(now);
    if (!m_any || timestamp > m_newest)
        return Verdict::Accept;
    return m_steps.steppedBack() && timestamp < m_newest ? Verdict::Restart : Verdict::Refuse;
}

void FrameOrder::accepted(int64_t timestamp, Verdict verdict)
{
    if (verdict == Verdict::Restart)
        m_steps.consume();
    m_any = true;
    m_newest = timestamp;
}

} // namespace shm
