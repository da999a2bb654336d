#include "tickthread.h"

#include <cerrno>
#include <chrono>
#include <climits>
#include <ctime>
#include <linux/futex.h>
#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

static_assert(std::atomic<uint32_t>::is_always_lock_free && sizeof(std::atomic<uint32_t>) == 4,
              "the kernel sleeps on a plain 32-bit word");

constexpr int64_t nsPerSecond = 1000000000;

// Above everything that is not real-time, and below sound servers and interrupt threads.
constexpr int realtimePriority = 5;

int64_t monotonicNs()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * nsPerSecond + now.tv_nsec;
}

void makeThisThreadPunctual()
{
    // The default slack lets the kernel wake an ordinary thread 50 microseconds late, to save a wake-up.
    prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
    // Refused to ordinary users without a limit that allows it: ticks then compete like any other thread.
    // What a handler starts does not inherit the priority.
    sched_param parameter = {};
    parameter.sched_priority = realtimePriority;
    sched_setscheduler(0, SCHED_FIFO | SCHED_RESET_ON_FORK, &parameter);
}

} // namespace

void TickThread::start(const TickSchedule &schedule, const std::string &name)
{
    std::unique_lock<std::mutex> lock(mutex);
    if (closed)
        return;
    pending = Plan{schedule, name};
    if (alive) {
        interrupt();
        return;
    }
    if (thread.joinable())
        thread.join(); // has ended, or is about to without needing the mutex again
    try {
        // run() looks for its plan under the mutex, so it cannot be faster than this assignment.
        thread = std::thread(&TickThread::run, shared_from_this());
        alive = true;
    } catch (...) {
        pending.reset();
        throw;
    }
}

void TickThread::stop(long long waitMs)
{
    std::unique_lock<std::mutex> lock(mutex);
    stopLocked(lock, waitMs);
}

void TickThread::close()
{
    std::unique_lock<std::mutex> lock(mutex);
    closed = true;
    stopLocked(lock, 0);
    if (thread.joinable() && thread.get_id() == std::this_thread::get_id())
        thread.detach(); // keeps this object until it has returned from the tick that got us here
}

void TickThread::stopLocked(std::unique_lock<std::mutex> &lock, long long waitMs)
{
    pending.reset();
    if (thread.joinable() && thread.get_id() == std::this_thread::get_id()) {
        interrupt();
        return;
    }
    if (alive) {
        interrupt();
        // A handler that calls start() meanwhile keeps the thread alive, but what ticked when we were called
        // is over.
        const auto left = [this, before = schedulesLeft] { return !alive || schedulesLeft != before; };
        // Beyond the clock's range is without limit, too.
        constexpr long long longestMs = LLONG_MAX / 1000000 / 2;
        if (waitMs <= 0 || waitMs > longestMs)
            scheduleLeft.wait(lock, left);
        else
            scheduleLeft.wait_for(lock, std::chrono::milliseconds(waitMs), left);
    }
    if (!alive && thread.joinable()) {
        std::thread ended = std::move(thread);
        lock.unlock(); // what the thread's end runs (thread-local objects) may call us
        ended.join();
        lock.lock();
    }
}

void TickThread::interrupt()
{
    interrupted.store(1, std::memory_order_release);
    syscall(SYS_futex, &interrupted, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

void TickThread::run()
{
    makeThisThreadPunctual();
    while (std::optional<Plan> plan = nextPlan()) {
        pthread_setname_np(pthread_self(), plan->name.c_str());
        tickBy(plan->schedule);
    }
}

std::optional<TickThread::Plan> TickThread::nextPlan()
{
    std::lock_guard<std::mutex> lock(mutex);
    std::optional<Plan> plan = std::move(pending);
    pending.reset();
    interrupted.store(0, std::memory_order_relaxed);
    alive = plan.has_value();
    ++schedulesLeft;
    scheduleLeft.notify_all();
    return plan;
}

void TickThread::tickBy(TickSchedule schedule)
{
    while (waitUntil(schedule.deadline())) {
        // After waking, not before sleeping: a machine that was stopped meanwhile must not cause two ticks in
        // a row.
        const int64_t now = monotonicNs();
        tick(); // before anything else that can wait
        schedule.take(now);
    }
}

bool TickThread::waitUntil(int64_t deadlineNs)
{
    timespec deadline;
    deadline.tv_sec = deadlineNs / nsPerSecond;
    deadline.tv_nsec = deadlineNs % nsPerSecond;
    static_assert(sizeof(timespec) == 2 * sizeof(long), "SYS_futex takes the kernel's own timespec");
    while (interrupted.load(std::memory_order_acquire) == 0) {
        // FUTEX_WAIT_BITSET is the one whose time-out is absolute, and on the monotonic clock. It sleeps only
        // while the word is still 0, so an interruption between the test above and the sleep is not lost.
        const long result = syscall(SYS_futex, &interrupted, FUTEX_WAIT_BITSET_PRIVATE, 0, &deadline, nullptr,
                                    FUTEX_BITSET_MATCH_ANY);
        if (result == -1 && errno == ETIMEDOUT)
            return interrupted.load(std::memory_order_acquire) == 0;
    }
    return false;
}
