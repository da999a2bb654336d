#include <zev-utils/clockadjustmentdetector.h>

#include <gtest/gtest.h>

#include <cstdint>

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

TEST(ClockAdjustmentReal, TheMachinesClocksAgreeWithThemselves)
{
    ClockAdjustmentDetector detector;
    detector.start();
    for (int i = 0; i < 10000; ++i)
        ASSERT_EQ(detector.check(), 0);
}

} // namespace
