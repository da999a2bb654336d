#include "hostclock.h"

#include <chrono>
#include <ctime>

namespace zevshm {

namespace {

int64_t readUs(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

} // namespace

int64_t monotonicUs()
{
    return readUs(CLOCK_MONOTONIC);
}

int64_t wallUs()
{
    return readUs(CLOCK_REALTIME);
}

void StopToken::stop()
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_stopped = true;
    }
    m_changed.notify_all();
}

bool StopToken::stopped() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_stopped;
}

bool StopToken::waitUntil(int64_t monotonicInstantUs)
{
    const std::chrono::steady_clock::time_point until{std::chrono::microseconds(monotonicInstantUs)};
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait_until(lock, until, [this] { return m_stopped; });
    return !m_stopped;
}

void SharedClock::anchor(int64_t mediaUs, int64_t monotonicInstantUs)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_clock.anchor(mediaUs, monotonicInstantUs);
}

bool SharedClock::anchored() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_clock.anchored();
}

void SharedClock::reset()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_clock.release();
}

bool SharedClock::arrived(int64_t mediaUs, int64_t latencyUs)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_clock.arrived(mediaUs, monotonicUs(), latencyUs);
}

void SharedClock::shift(int64_t us)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_clock.shift(us);
}

int64_t SharedClock::dueAt(int64_t mediaUs) const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_clock.dueAt(mediaUs);
}

int64_t SharedClock::labelFor(int64_t monotonicInstantUs) const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_clock.labelFor(monotonicInstantUs);
}

int64_t SharedClock::observe()
{
    // Preemption between two readings looks like a step: the pair read closest together is taken.
    int64_t best = INT64_MAX;
    int64_t middle = 0;
    int64_t wall = 0;
    for (int i = 0; i < 3; ++i) {
        const int64_t before = monotonicUs();
        const int64_t reading = wallUs();
        const int64_t after = monotonicUs();
        if (after - before < best) {
            best = after - before;
            middle = before + (after - before) / 2;
            wall = reading;
        }
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    return best > MediaClock::stepUs ? 0 : m_clock.observe(middle, wall);
}

} // namespace zevshm
