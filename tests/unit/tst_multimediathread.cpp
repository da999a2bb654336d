#include <zevqt-utils/multimediathread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <dirent.h>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <limits>
#include <linux/capability.h>
#include <mutex>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::chrono::seconds generousLimit(60);
constexpr int hour = 3600;

// What the tick thread tells and the test waits for.
class Ticks
{
public:
    void add()
    {
        std::lock_guard<std::mutex> lock(mutex);
        times.push_back(Clock::now());
        changed.notify_all();
    }
    bool waitFor(size_t count)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, generousLimit, [&] { return times.size() >= count; });
    }
    std::vector<Clock::time_point> all()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return times;
    }
    size_t count() { return all().size(); }

private:
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Clock::time_point> times;
};

// A handler waits here until the test lets it go on.
class Gate
{
public:
    void open()
    {
        std::lock_guard<std::mutex> lock(mutex);
        isOpen = true;
        changed.notify_all();
    }
    bool pass()
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, generousLimit, [this] { return isOpen; });
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
    bool isOpen = false;
};

void onTick(MultimediaThread &thread, std::function<void()> handler)
{
    QObject::connect(&thread, &MultimediaThread::tick, &thread, std::move(handler), Qt::DirectConnection);
}

// All threads, or those of that name.
int threadsOfThisProcess(const std::string &name = {})
{
    int count = 0;
    DIR *directory = opendir("/proc/self/task");
    while (const dirent *entry = readdir(directory)) {
        std::string comm;
        std::getline(std::ifstream(std::string("/proc/self/task/") + entry->d_name + "/comm"), comm);
        count += !comm.empty() && (name.empty() || comm == name);
    }
    closedir(directory);
    return count;
}

// Counts the threads of objects without a name. One that has been joined is still listed for a moment.
bool tickThreadsBecome(int count)
{
    const auto limit = Clock::now() + generousLimit;
    while (threadsOfThisProcess("tick") != count) {
        if (Clock::now() > limit)
            return false;
        std::this_thread::yield();
    }
    return true;
}

// Runs `question` in the tick thread of a thread object of that name.
void askInTickThread(const QString &objectName, const std::function<void()> &question)
{
    MultimediaThread thread(nullptr);
    Ticks ticks;
    onTick(thread, [&] {
        if (ticks.count() == 0)
            question();
        ticks.add();
    });
    thread.setObjectName(objectName);
    thread.start(hour, 1, 0);
    EXPECT_TRUE(ticks.waitFor(1));
    thread.stop(0);
}

TEST(MultimediaThread, isIdleUntilStarted)
{
    const int threads = threadsOfThisProcess();
    Ticks ticks;
    MultimediaThread thread(nullptr);
    onTick(thread, [&] { ticks.add(); });
    EXPECT_LE(threadsOfThisProcess(), threads);
    thread.stop(0);
    thread.stop(1);
    EXPECT_EQ(ticks.count(), 0u);
}

TEST(MultimediaThread, belongsToItsParent)
{
    QObject parent;
    auto *thread = new MultimediaThread(&parent);
    EXPECT_EQ(thread->parent(), &parent);
    EXPECT_STREQ(thread->metaObject()->className(), "MultimediaThread");
    thread->start(hour, 1, 0); // stopped with the parent's other children
}

TEST(MultimediaThread, ticksFromOneThreadOfItsOwn)
{
    std::mutex mutex;
    std::vector<std::thread::id> callers;
    Ticks ticks;
    MultimediaThread thread(nullptr);
    onTick(thread, [&] {
        {
            std::lock_guard<std::mutex> lock(mutex);
            callers.push_back(std::this_thread::get_id());
        }
        ticks.add();
    });
    thread.start(1, 500, 0);
    ASSERT_TRUE(ticks.waitFor(20));
    thread.stop(0);
    EXPECT_NE(callers.front(), std::this_thread::get_id());
    EXPECT_EQ(std::count(callers.begin(), callers.end(), callers.front()), static_cast<long>(callers.size()));
}

TEST(MultimediaThread, noTickIsEarly)
{
    Ticks ticks;
    MultimediaThread thread(nullptr);
    onTick(thread, [&] { ticks.add(); });
    const auto start = Clock::now();
    thread.start(1001, 120000, 20000);
    ASSERT_TRUE(ticks.waitFor(40));
    thread.stop(0);
    // Skipped ticks only make the later ones later, so this holds on a loaded machine, too.
    const std::vector<Clock::time_point> times = ticks.all();
    for (size_t n = 0; n < times.size(); ++n) {
        const auto due = start + milliseconds(20) + std::chrono::nanoseconds(n * 1001000000000 / 120000);
        EXPECT_GE(times[n], due) << "tick " << n;
    }
}

TEST(MultimediaThread, missedTicksAreSkippedNotMadeUpFor)
{
    const milliseconds interval(20);
    const auto start = Clock::now();
    const auto outage = start + 12 * interval;
    Ticks ticks;
    std::atomic<bool> first{true};
    MultimediaThread thread(nullptr);
    onTick(thread, [&] {
        ticks.add();
        // A handler that is at work for twelve intervals.
        while (first && Clock::now() < outage)
            std::this_thread::yield();
        first = false;
    });
    thread.start(20, 1000, 0);
    ASSERT_TRUE(ticks.waitFor(6));
    thread.stop(0);
    const std::vector<Clock::time_point> times = ticks.all();
    // The first, then at most one at once for the newest of those missed, then one for each interval that
    // passes. Had they been made up for, all of the six would be there when the outage ends.
    for (size_t n = 2; n < times.size(); ++n)
        EXPECT_GE(times[n], start + interval * static_cast<int>(10 + n)) << "tick " << n;
}

TEST(MultimediaThread, noTickAfterStopReturned)
{
    for (int round = 0; round < 200; ++round) {
        std::atomic<bool> stopped{false};
        std::atomic<int> late{0};
        Ticks ticks;
        MultimediaThread thread(nullptr);
        onTick(thread, [&] {
            late += stopped;
            ticks.add();
            late += stopped;
        });
        thread.start(1, 10000, 0);
        ASSERT_TRUE(ticks.waitFor(1 + round % 3));
        thread.stop(round % 2 ? 0 : 60000);
        stopped = true;
        const size_t count = ticks.count();
        std::this_thread::yield();
        EXPECT_EQ(ticks.count(), count);
        EXPECT_EQ(late, 0);
    }
}

TEST(MultimediaThread, stopWaitsForTheHandler)
{
    for (const long long waitMs : {0LL, -1LL, 60000LL, std::numeric_limits<long long>::max()}) {
        Ticks ticks;
        std::atomic<bool> stopping{false};
        std::atomic<bool> atWork{true};
        MultimediaThread thread(nullptr);
        onTick(thread, [&] {
            ticks.add();
            while (!stopping)
                std::this_thread::yield();
            // Long enough for a stop() that does not wait to have returned.
            for (int i = 0; i < 100000; ++i)
                std::this_thread::yield();
            atWork = false;
        });
        thread.start(hour, 1, 0);
        ASSERT_TRUE(ticks.waitFor(1));
        stopping = true;
        thread.stop(waitMs);
        EXPECT_FALSE(atWork);
    }
}

TEST(MultimediaThread, stopEndsTheThreadAlsoInALongInterval)
{
    Ticks ticks;
    MultimediaThread thread(nullptr);
    onTick(thread, [&] { ticks.add(); });
    thread.start(hour * 24, 1, 0);
    ASSERT_TRUE(ticks.waitFor(1));
    EXPECT_TRUE(tickThreadsBecome(1));
    thread.stop(0); // the test's time limit is far below a day
    EXPECT_TRUE(tickThreadsBecome(0));
    EXPECT_EQ(ticks.count(), 1u);
}

TEST(MultimediaThread, restartsAfterStop)
{
    MultimediaThread thread(nullptr);
    Ticks ticks;
    onTick(thread, [&] { ticks.add(); });
    for (size_t round = 1; round <= 5; ++round) {
        const size_t before = ticks.count();
        thread.start(1, 1000, 0);
        ASSERT_TRUE(ticks.waitFor(before + 3)) << "round " << round;
        thread.stop(0);
    }
}

TEST(MultimediaThread, stopFromAHandlerOnlyAsks)
{
    Ticks ticks;
    MultimediaThread thread(nullptr);
    onTick(thread, [&] {
        thread.stop(0);
        ticks.add();
    });
    thread.start(1, 10000, 0);
    ASSERT_TRUE(ticks.waitFor(1));
    EXPECT_TRUE(tickThreadsBecome(0));
    EXPECT_EQ(ticks.count(), 1u);
    thread.start(1, 10000, 0);
    ASSERT_TRUE(ticks.waitFor(2));
    thread.stop(0);
    EXPECT_EQ(ticks.count(), 2u);
}

TEST(MultimediaThread, stopWithALimitReturnsBesideABusyHandler)
{
    Ticks ticks;
    Gate gate;
    MultimediaThread thread(nullptr);
    onTick(thread, [&] {
        ticks.add();
        EXPECT_TRUE(gate.pass());
    });
    thread.start(1, 1000, 0);
    ASSERT_TRUE(ticks.waitFor(1));
    thread.stop(1); // the handler is still at its gate
    gate.open();
    thread.stop(0);
    EXPECT_EQ(ticks.count(), 1u);
}

TEST(MultimediaThread, startBesideABusyHandlerBeginsWhenTheHandlerReturns)
{
    std::atomic<int> active{0};
    Ticks ticks;
    Gate gate;
    MultimediaThread thread(nullptr);
    onTick(thread, [&] {
        EXPECT_EQ(++active, 1);
        ticks.add();
        EXPECT_TRUE(gate.pass());
        --active;
    });
    thread.start(hour, 1, 0);
    ASSERT_TRUE(ticks.waitFor(1));
    thread.stop(1);
    thread.start(1, 1000, 0); // does not wait for the handler
    EXPECT_EQ(ticks.count(), 1u);
    gate.open();
    EXPECT_TRUE(ticks.waitFor(5));
    thread.stop(0);
}

TEST(MultimediaThread, startWhileRunningReplacesTheInterval)
{
    Ticks ticks;
    MultimediaThread thread(nullptr);
    onTick(thread, [&] { ticks.add(); });
    thread.start(hour, 1, 0);
    ASSERT_TRUE(ticks.waitFor(1));
    thread.start(1, 1000, 0);
    ASSERT_TRUE(ticks.waitFor(4));
    thread.start(hour, 1, 1000LL * 1000 * hour);
    thread.stop(0);
    const size_t count = ticks.count();
    thread.start(hour, 1, 1000LL * 1000 * hour);
    EXPECT_EQ(ticks.count(), count);
}

TEST(MultimediaThread, restartFromAHandlerIsTakenUp)
{
    Ticks ticks;
    MultimediaThread thread(nullptr);
    onTick(thread, [&] {
        if (ticks.count() == 0) {
            thread.stop(0);
            thread.start(1, 1000, 0);
        }
        ticks.add();
    });
    thread.start(hour, 1, 0);
    EXPECT_TRUE(ticks.waitFor(5));
    thread.stop(0);
}

TEST(MultimediaThread, destructorStops)
{
    Ticks ticks;
    {
        MultimediaThread thread(nullptr);
        onTick(thread, [&] { ticks.add(); });
        thread.start(1, 10000, 0);
        ASSERT_TRUE(ticks.waitFor(3));
    }
    const size_t count = ticks.count();
    EXPECT_TRUE(tickThreadsBecome(0));
    EXPECT_EQ(ticks.count(), count);
}

TEST(MultimediaThread, mayBeDeletedByItsOwnHandler)
{
    Ticks ticks;
    auto *thread = new MultimediaThread(nullptr);
    onTick(*thread, [&] {
        delete thread;
        ticks.add();
    });
    thread->start(1, 1000, 0);
    ASSERT_TRUE(ticks.waitFor(1));
    EXPECT_TRUE(tickThreadsBecome(0));
    EXPECT_EQ(ticks.count(), 1u);
}

TEST(MultimediaThread, signalsToTheProcessCauseNoTick)
{
    struct sigaction action = {};
    action.sa_handler = [](int) {}; // without SA_RESTART, so that it interrupts the wait
    struct sigaction old;
    sigaction(SIGUSR1, &action, &old);
    pthread_t tickThread = {};
    Ticks ticks;
    MultimediaThread thread(nullptr);
    onTick(thread, [&] {
        tickThread = pthread_self();
        ticks.add();
    });
    thread.start(hour, 1, 0);
    ASSERT_TRUE(ticks.waitFor(1));
    for (int i = 0; i < 100; ++i) {
        pthread_kill(tickThread, SIGUSR1);
        std::this_thread::yield();
    }
    thread.stop(0);
    EXPECT_EQ(ticks.count(), 1u);
    sigaction(SIGUSR1, &old, nullptr);
}

class MultimediaThreadInterval : public testing::TestWithParam<std::pair<int, int>>
{};

TEST_P(MultimediaThreadInterval, thatIsNotPositiveGivesNoTicksAndEndsOlderOnes)
{
    Ticks ticks;
    MultimediaThread thread(nullptr);
    onTick(thread, [&] { ticks.add(); });
    thread.start(GetParam().first, GetParam().second, 0);
    EXPECT_TRUE(tickThreadsBecome(0));
    EXPECT_EQ(ticks.count(), 0u);
    thread.start(hour, 1, 0);
    ASSERT_TRUE(ticks.waitFor(1));
    thread.start(GetParam().first, GetParam().second, 0);
    EXPECT_TRUE(tickThreadsBecome(0));
    EXPECT_EQ(ticks.count(), 1u);
    thread.stop(0);
}

INSTANTIATE_TEST_SUITE_P(, MultimediaThreadInterval,
                         testing::Values(std::pair(0, 1), std::pair(1, 0), std::pair(0, 0), std::pair(-1, 25),
                                         std::pair(1, -25), std::pair(-1000000, -25000000)));

struct Name
{
    const char *objectName;
    const char *kernelName;
};

class MultimediaThreadName : public testing::TestWithParam<Name>
{};

TEST_P(MultimediaThreadName, isTheKernelsNameOfTheTickThread)
{
    char name[16] = {};
    askInTickThread(QString::fromUtf8(GetParam().objectName),
                    [&] { pthread_getname_np(pthread_self(), name, sizeof name); });
    EXPECT_STREQ(name, GetParam().kernelName);
}

INSTANTIATE_TEST_SUITE_P(
    , MultimediaThreadName,
    testing::Values(Name{"", "tick"}, Name{"VT camera", "VT camera"},
                    Name{"123456789012345", "123456789012345"}, Name{"1234567890123456", "123456789012345"},
                    // Two, three and four bytes a character, cut before the one that is split.
                    Name{"VT cam\xc3\xa9ra\xc3\xa9\xc3\xa9\xc3\xa9", "VT cam\xc3\xa9ra\xc3\xa9\xc3\xa9"},
                    Name{"VT \xe2\x82\xac\xe2\x82\xac\xe2\x82\xac\xe2\x82\xac\xe2\x82\xac",
                         "VT \xe2\x82\xac\xe2\x82\xac\xe2\x82\xac\xe2\x82\xac"},
                    Name{"12345678901234\xf0\x9f\x8e\xa5", "12345678901234"}));

TEST(MultimediaThread, takesTheNameThatItHasWhenItStarts)
{
    std::mutex mutex;
    std::vector<std::string> names;
    Ticks ticks;
    MultimediaThread thread(nullptr);
    onTick(thread, [&] {
        char name[16] = {};
        pthread_getname_np(pthread_self(), name, sizeof name);
        {
            std::lock_guard<std::mutex> lock(mutex);
            names.push_back(name);
        }
        ticks.add();
    });
    size_t count = 0;
    for (const char *name : {"first", "second", "third"}) {
        thread.setObjectName(name);
        thread.start(hour, 1, 0);
        ASSERT_TRUE(ticks.waitFor(++count));
        if (count == 1)
            thread.stop(0); // the second start makes a thread, the third finds it running
    }
    thread.stop(0);
    EXPECT_EQ(names, (std::vector<std::string>{"first", "second", "third"}));
}

bool realtimeIsAllowed()
{
    bool allowed = false;
    std::thread([&] {
        sched_param parameter = {};
        parameter.sched_priority = 5;
        allowed = sched_setscheduler(0, SCHED_FIFO, &parameter) == 0;
    }).join();
    return allowed;
}

TEST(MultimediaThread, asksForRealTimePriorityAndNoTimerSlack)
{
    int policy = -1;
    int slack = -1;
    askInTickThread("rt", [&] {
        policy = sched_getscheduler(0);
        slack = prctl(PR_GET_TIMERSLACK);
    });
    EXPECT_EQ(policy, realtimeIsAllowed() ? SCHED_FIFO | SCHED_RESET_ON_FORK : SCHED_OTHER);
    EXPECT_LE(slack, 1); // the kernel says 0 for real-time threads
}

TEST(MultimediaThread, carriesOnWithoutRealTimePriority)
{
    int policy = -1;
    int slack = -1;
    bool refused = false;
    std::thread([&] {
        // Of this thread alone, and of the threads that it creates.
        __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct data[2] = {};
        syscall(SYS_capget, &header, data);
        data[0].effective &= ~(1u << CAP_SYS_NICE);
        syscall(SYS_capset, &header, data);
        refused = !realtimeIsAllowed();
        askInTickThread("no rt", [&] {
            policy = sched_getscheduler(0);
            slack = prctl(PR_GET_TIMERSLACK);
        });
    }).join();
    if (!refused)
        GTEST_SKIP() << "this user's limit allows real-time priority without the capability";
    EXPECT_EQ(policy, SCHED_OTHER);
    EXPECT_EQ(slack, 1);
}

TEST(MultimediaThread, mayBeStartedAndStoppedFromManyThreads)
{
    std::atomic<int> active{0};
    std::atomic<int> overlaps{0};
    Ticks ticks;
    MultimediaThread thread(nullptr);
    onTick(thread, [&] {
        overlaps += ++active != 1;
        ticks.add();
        --active;
    });
    std::vector<std::thread> callers;
    for (int caller = 0; caller < 4; ++caller) {
        callers.emplace_back([&thread, caller] {
            for (int i = 0; i < 200; ++i) {
                if ((i + caller) % 3 == 0)
                    thread.stop(i % 2);
                else
                    thread.start(1, 1000 + i, caller);
            }
        });
    }
    for (std::thread &caller : callers)
        caller.join();
    const size_t before = ticks.count();
    thread.start(1, 1000, 0);
    EXPECT_TRUE(ticks.waitFor(before + 3));
    thread.stop(0);
    EXPECT_EQ(overlaps, 0);
}

} // namespace
