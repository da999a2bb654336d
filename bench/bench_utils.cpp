// How late a tick comes, and what it costs: MultimediaThread beside a bare clock_nanosleep loop, and beside
// QTimer.
//
// One repetition is a series of ticks in a fresh thread. Its time is the median deviation of the ticks from
// when they were due, start + n * interval, and cpu_ns the processor time of the tick thread per tick.
// Deviation, not delay: a coarse QTimer comes early, too.
#include <zevqt-utils/multimediathread.h>

#include <QCoreApplication>
#include <QEventLoop>
#include <QThread>
#include <QTimer>
#include <algorithm>
#include <benchmark/benchmark.h>
#include <condition_variable>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <sched.h>
#include <sys/prctl.h>
#include <thread>
#include <vector>

namespace {

constexpr int64_t nsPerSecond = 1000000000;
constexpr int intervalMs = 10;
constexpr int64_t intervalNs = intervalMs * 1000000;
constexpr size_t warmUpTicks = 5; // includes the thread's start
constexpr size_t seriesTicks = 100;

int64_t clockNs(clockid_t clock)
{
    timespec now;
    clock_gettime(clock, &now);
    return now.tv_sec * nsPerSecond + now.tv_nsec;
}

// Collects one series. tick() runs in the tick thread, the rest in the thread that waits for the series.
class Series
{
public:
    Series() { deviations.reserve(seriesTicks); }

    // When tick 0 is due. Before the first tick.
    void setFirstDue(int64_t ns) { firstDueNs = ns; }

    // Returns false when the series is complete.
    bool tick()
    {
        const int64_t now = clockNs(CLOCK_MONOTONIC);
        if (complete)
            return false;
        // The due time that is nearest: ticks that were skipped, or lost by a timer that coalesces, are not
        // counted.
        const int64_t late = now - firstDueNs;
        const int64_t deviation = late - (late + intervalNs / 2) / intervalNs * intervalNs;
        if (++count == warmUpTicks)
            cpuStart = clockNs(CLOCK_THREAD_CPUTIME_ID);
        if (count > warmUpTicks)
            deviations.push_back(deviation < 0 ? -deviation : deviation);
        if (deviations.size() < seriesTicks)
            return true;
        cpu = clockNs(CLOCK_THREAD_CPUTIME_ID) - cpuStart;
        std::lock_guard<std::mutex> lock(mutex);
        complete = true;
        completed.notify_all();
        return false;
    }

    void report(benchmark::State &state)
    {
        std::unique_lock<std::mutex> lock(mutex);
        completed.wait(lock, [this] { return complete; });
        std::sort(deviations.begin(), deviations.end());
        state.SetIterationTime(static_cast<double>(deviations[deviations.size() / 2]) / nsPerSecond);
        state.counters["p99_ns"] = static_cast<double>(deviations[deviations.size() * 99 / 100]);
        state.counters["cpu_ns"] = static_cast<double>(cpu) / seriesTicks;
    }

private:
    int64_t firstDueNs = 0;
    size_t count = 0;
    std::vector<int64_t> deviations;
    int64_t cpuStart = 0;
    int64_t cpu = 0;
    std::mutex mutex;
    std::condition_variable completed;
    bool complete = false;
};

// What MultimediaThread asks for, so that the bare loop has the same means.
void makePunctual()
{
    prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
    sched_param parameter = {};
    parameter.sched_priority = 5;
    sched_setscheduler(0, SCHED_FIFO | SCHED_RESET_ON_FORK, &parameter);
}

void bareLoop(benchmark::State &state, bool punctual)
{
    for (auto _ : state) {
        const int64_t start = clockNs(CLOCK_MONOTONIC);
        Series series;
        series.setFirstDue(start);
        std::thread thread([&] {
            if (punctual)
                makePunctual();
            int64_t due = start;
            do {
                timespec until;
                until.tv_sec = due / nsPerSecond;
                until.tv_nsec = due % nsPerSecond;
                clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
                due += intervalNs;
            } while (series.tick());
        });
        series.report(state);
        thread.join();
    }
}

void tickBareLoop(benchmark::State &state)
{
    bareLoop(state, true);
}

void tickBareLoopOrdinary(benchmark::State &state)
{
    bareLoop(state, false);
}

void tickMultimediaThread(benchmark::State &state)
{
    for (auto _ : state) {
        MultimediaThread thread(nullptr);
        Series series;
        QObject::connect(
            &thread, &MultimediaThread::tick, &thread, [&] { series.tick(); }, Qt::DirectConnection);
        // The schedule begins inside start(), some ten nanoseconds later.
        series.setFirstDue(clockNs(CLOCK_MONOTONIC));
        thread.start(intervalMs, 1000, 0);
        series.report(state);
        thread.stop(0);
    }
}

void qTimer(benchmark::State &state, Qt::TimerType type)
{
    // Without one, Qt delivers no timer events.
    static int argc = 1;
    static char name[] = "bench_utils";
    static char *argv[] = {name, nullptr};
    static QCoreApplication application(argc, argv);
    for (auto _ : state) {
        Series series;
        QThread *thread = QThread::create([&] {
            QTimer timer;
            QEventLoop loop;
            timer.setTimerType(type);
            timer.setInterval(intervalMs);
            QObject::connect(&timer, &QTimer::timeout, &timer, [&] {
                if (!series.tick())
                    loop.quit();
            });
            timer.start();
            series.setFirstDue(clockNs(CLOCK_MONOTONIC) + intervalNs);
            loop.exec();
        });
        thread->start();
        series.report(state);
        thread->wait();
        delete thread;
    }
}

void tickQTimerPrecise(benchmark::State &state)
{
    qTimer(state, Qt::PreciseTimer);
}

void tickQTimerCoarse(benchmark::State &state)
{
    qTimer(state, Qt::CoarseTimer);
}

BENCHMARK(tickBareLoop)->Iterations(1)->UseManualTime();
BENCHMARK(tickBareLoopOrdinary)->Iterations(1)->UseManualTime();
BENCHMARK(tickMultimediaThread)->Iterations(1)->UseManualTime();
BENCHMARK(tickQTimerPrecise)->Iterations(1)->UseManualTime();
BENCHMARK(tickQTimerCoarse)->Iterations(1)->UseManualTime();

} // namespace
