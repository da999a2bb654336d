// The machine's clocks, and waiting on them. Everything that decides receives its instants from here.
#ifndef ZEVSHM_HOSTCLOCK_H
#define ZEVSHM_HOSTCLOCK_H

#include "mediaclock.h"

#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace zevshm {

int64_t monotonicUs();
int64_t wallUs();

// Ends every wait of a program that is told to stop. Threads: thread-safe.
class StopToken
{
public:
    void stop();
    bool stopped() const;

    // Returns at the instant of the monotonic clock, or at once when stopped: then false.
    bool waitUntil(int64_t monotonicInstantUs);

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_stopped = false; // protected by m_mutex
};

// A MediaClock that several threads use and that reads the machine's clocks itself. Threads: thread-safe.
class SharedClock
{
public:
    explicit SharedClock(double ppm) : m_clock(ppm) {}

    void anchor(int64_t mediaUs, int64_t monotonicInstantUs);
    bool anchored() const;
    // The next arrival anchors anew.
    void reset();
    bool arrived(int64_t mediaUs, int64_t latencyUs);
    void shift(int64_t us);

    int64_t dueAt(int64_t mediaUs) const;
    int64_t labelFor(int64_t monotonicInstantUs) const;

    // Looks whether the host's wall clock was stepped; returns by how much.
    int64_t observe();

private:
    mutable std::mutex m_mutex;
    MediaClock m_clock; // protected by m_mutex
};

} // namespace zevshm

#endif
