#include <zev-utils/clockadjustmentdetector.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>

#include <sys/syscall.h>
#include <unistd.h>

using md::zev::utils::ClockAdjustmentDetector;

namespace {

const std::int64_t second = 1000000000;
const std::int64_t millisecond = 1000000;

// Both clocks of a simulated machine, nanoseconds. A read of the steady clock may take a while.
std::int64_t wallNow;
std::int64_t steadyNow;
std::int64_t interruptions; // reads of the wall clock that the thread is still interrupted before
std::int64_t interruption;  // how long each of them takes

std::int64_t wall()
{
    if (interruptions > 0) {
        --interruptions;
        wallNow += interruption;
        steadyNow += interruption;
    }
    return wallNow;
}

std::int64_t steady()
{
    return steadyNow;
}

class ClockAdjustment : public testing::Test
{
protected:
    void SetUp() override
    {
        wallNow = 1700000000 * second;
        steadyNow = 12345 * second;
        interruptions = 0;
        interruption = 0;
        detector.start();
    }

    void pass(std::int64_t ns)
    {
        wallNow += ns;
        steadyNow += ns;
    }

    ClockAdjustmentDetector detector{wall, steady};
};

TEST_F(ClockAdjustment, TimePassingIsNoAdjustment)
{
    for (int hour = 0; hour < 48; ++hour) {
        pass(3600 * second);
        ASSERT_EQ(detector.check(), 0);
    }
}

TEST_F(ClockAdjustment, StepsAreReportedWithTheirSign)
{
    pass(5 * second);
    wallNow += 1001 * millisecond;
    EXPECT_EQ(detector.check(), 1001);
    wallNow -= 1 * millisecond;
    EXPECT_EQ(detector.check(), 1000);
    wallNow -= 1000 * millisecond;
    EXPECT_EQ(detector.check(), 0);
    wallNow -= 3600 * second;
    EXPECT_EQ(detector.check(), -3600000);
}

TEST_F(ClockAdjustment, AStepStaysUntilTheNextStart)
{
    wallNow += 2 * second;
    EXPECT_EQ(detector.check(), 2000);
    pass(60 * second);
    EXPECT_EQ(detector.check(), 2000);
    detector.start();
    EXPECT_EQ(detector.check(), 0);
}

TEST_F(ClockAdjustment, RoundsToTheNearestMillisecond)
{
    wallNow += 1000 * millisecond + 499999;
    EXPECT_EQ(detector.check(), 1000);
    wallNow += 1;
    EXPECT_EQ(detector.check(), 1001);
    wallNow -= 2 * (1000 * millisecond + 500000);
    EXPECT_EQ(detector.check(), -1001);
    wallNow += 1;
    EXPECT_EQ(detector.check(), -1000);
}

// NTP slews at up to 500 ppm, and the steady clock along with the wall clock: five minutes in a week.
TEST_F(ClockAdjustment, AWeekOfSlewingDoesNotAddUp)
{
    for (int minute = 0; minute < 7 * 24 * 60; ++minute) {
        const std::int64_t elapsed = 60 * second;
        pass(elapsed + elapsed / 1000000 * 500);
        ASSERT_EQ(detector.check(), 0);
    }
}

TEST_F(ClockAdjustment, AnInterruptionBetweenTheReadsIsNoStep)
{
    interruption = 4 * second;
    interruptions = 1;
    EXPECT_EQ(detector.check(), 0);
    interruptions = 3;
    EXPECT_EQ(detector.check(), 0);
    interruptions = 1;
    detector.start();
    EXPECT_EQ(detector.check(), 0);
}

TEST_F(ClockAdjustment, InterruptedWithoutEndItStillAnswers)
{
    interruption = 10 * millisecond;
    interruptions = 1000;
    // Nothing better than half an interruption can be known; but it must not loop.
    EXPECT_LE(std::abs(detector.check()), 5);
    EXPECT_GE(interruptions, 990);
}

TEST_F(ClockAdjustment, BeforeTheFirstStartThereIsNothingToReport)
{
    ClockAdjustmentDetector fresh(wall, steady);
    wallNow += 5 * second;
    EXPECT_EQ(fresh.check(), 0);
}

// All clocks of a simulated machine, which the detector's own reads get while it exists.
class Machine
{
public:
    Machine() { current = this; }
    ~Machine() { current = nullptr; }
    Machine(const Machine &) = delete;
    Machine &operator=(const Machine &) = delete;

    void run(std::int64_t ns, std::int64_t ppm = 0)
    {
        raw += ns;
        monotonic += ns + ns / 1000000 * ppm;
        boot += ns + ns / 1000000 * ppm;
        real += ns + ns / 1000000 * ppm;
    }
    void sleep(std::int64_t ns)
    {
        boot += ns;
        real += ns;
    }
    void step(std::int64_t ns) { real += ns; }
    std::int64_t read(clockid_t id) const
    {
        switch (id) {
        case CLOCK_REALTIME:
            return real;
        case CLOCK_BOOTTIME:
            return boot;
        case CLOCK_MONOTONIC_RAW:
            return raw;
        default:
            return monotonic;
        }
    }

    static Machine *current;

private:
    std::int64_t raw = 1000 * second;
    std::int64_t monotonic = 1001 * second;
    std::int64_t boot = 5000 * second;
    std::int64_t real = 1700000000 * second;
};

Machine *Machine::current = nullptr;

// The steady clock has to be slewed like the wall clock. Five minutes are made up for in this week.
TEST(ClockAdjustmentOfAMachine, AWeekOfSlewingIsNoStep)
{
    for (const std::int64_t ppm : {500, -500}) {
        Machine machine;
        ClockAdjustmentDetector detector;
        detector.start();
        for (int minute = 0; minute < 7 * 24 * 60; ++minute) {
            machine.run(60 * second, ppm);
            ASSERT_EQ(detector.check(), 0) << "minute " << minute;
        }
        machine.step(1001 * millisecond);
        EXPECT_EQ(detector.check(), 1001);
    }
}

// And it has to go on while the machine sleeps.
TEST(ClockAdjustmentOfAMachine, SleepIsNoStep)
{
    Machine machine;
    ClockAdjustmentDetector detector;
    detector.start();
    machine.run(60 * second);
    machine.sleep(8 * 3600 * second);
    machine.run(1 * second);
    EXPECT_EQ(detector.check(), 0);
    machine.step(-1001 * millisecond);
    EXPECT_EQ(detector.check(), -1001);
}

TEST(ClockAdjustmentReal, TheMachinesClocksAgreeWithThemselves)
{
    ClockAdjustmentDetector detector;
    detector.start();
    for (int i = 0; i < 10000; ++i)
        ASSERT_EQ(detector.check(), 0);
}

} // namespace

// Stands before the C library's for all libraries of this program.
extern "C" __attribute__((visibility("default"))) int clock_gettime(clockid_t id, timespec *now)
{
    if (!Machine::current)
        return static_cast<int>(syscall(SYS_clock_gettime, id, now));
    const std::int64_t value = Machine::current->read(id);
    now->tv_sec = value / second;
    now->tv_nsec = value % second;
    return 0;
}
