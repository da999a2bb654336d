// What wakes the main thread of a command that goes on until it is told to end.
#ifndef ZEVSHM_WAKEUPS_H
#define ZEVSHM_WAKEUPS_H

namespace zevshm {

// Ctrl-C, SIGTERM and SIGHUP as a descriptor, and an event with which threads wake the main one.
//
// Usage: made before any thread is started, which then inherits that the signals are blocked.
// Errors: Failure (ExitResources). Threads: wake() from any.
class Wakeups
{
public:
    Wakeups();
    ~Wakeups();
    Wakeups(const Wakeups &) = delete;
    Wakeups &operator=(const Wakeups &) = delete;

    void wake() const;

    // True when a signal asked to end; false when woken, or after the time.
    bool wait(int timeoutMs) const;

private:
    int m_signals = -1;
    int m_event = -1;
};

} // namespace zevshm

#endif
