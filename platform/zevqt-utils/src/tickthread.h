#ifndef ZEVQT_UTILS_TICKTHREAD_H
#define ZEVQT_UTILS_TICKTHREAD_H

#include "tickschedule.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

/*
 * The thread behind MultimediaThread, without Qt: calls `tick` as schedules hand it out.
 *
 * Usage: create in a shared pointer; start() and stop() at will; close() before the pointer goes.
 * Threads: every operation is thread-safe and may be called from `tick` itself.
 * Ownership: the running thread shares this object, so that `tick` may destroy whoever holds the other
 * reference. Errors: start() passes on the std::system_error of a thread that cannot be created.
 */
class TickThread : public std::enable_shared_from_this<TickThread>
{
public:
    explicit TickThread(std::function<void()> tickHandler) : tick(std::move(tickHandler)) {}

    /* Ticks by `schedule` from now on, and by no other, in a thread of that name (at most 15 bytes). */
    void start(const TickSchedule &schedule, const std::string &name);

    /* See MultimediaThread::stop(). */
    void stop(long long waitMs);

    /* Stops for good, waiting without limit; start() does nothing from then on. */
    void close();

private:
    struct Plan
    {
        TickSchedule schedule;
        std::string name;
    };

    void run();
    std::optional<Plan> nextPlan();
    void tickBy(TickSchedule schedule);
    bool waitUntil(int64_t deadlineNs);
    void interrupt();
    void stopLocked(std::unique_lock<std::mutex> &lock, long long waitMs);

    const std::function<void()> tick;

    // Non-zero: the tick thread is to leave its schedule and look for the next plan. The tick thread sleeps
    // on it. Set and cleared under the mutex, read without it.
    std::atomic<uint32_t> interrupted{0};

    std::mutex mutex;
    std::condition_variable scheduleLeft;

    // Protected by the mutex.
    std::thread thread;
    bool alive = false; // the thread will look for a plan again
    bool closed = false;
    std::optional<Plan> pending;
    unsigned long long schedulesLeft = 0; // how often the thread came back from a schedule
};

#endif
