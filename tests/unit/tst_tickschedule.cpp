#include "tickschedule.h"

#include <gtest/gtest.h>
#include <limits>

namespace {

constexpr int64_t second = 1000000000;
constexpr int64_t millisecond = 1000000;
constexpr int64_t latest = std::numeric_limits<int64_t>::max();

// Takes every tick as it is due.
int64_t deadlineAfter(TickSchedule schedule, int64_t ticks)
{
    for (int64_t i = 0; i < ticks; ++i)
        EXPECT_EQ(schedule.take(schedule.deadline()), 0);
    return schedule.deadline();
}

TEST(TickSchedule, firstTickIsDueAtTheStartAndTheNextAnIntervalLater)
{
    const TickSchedule schedule(7 * second, 1, 25, 0);
    EXPECT_EQ(schedule.deadline(), 7 * second);
    EXPECT_EQ(deadlineAfter(schedule, 1), 7 * second + 40 * millisecond);
    EXPECT_EQ(deadlineAfter(schedule, 25), 8 * second);
}

TEST(TickSchedule, providerStyleFractionIsTheSameInterval)
{
    EXPECT_EQ(deadlineAfter(TickSchedule(0, 1000000, 25000000, 0), 25), second);
    EXPECT_EQ(deadlineAfter(TickSchedule(0, 1000000, 59940059, 0), 59940059), 1000000 * second);
}

TEST(TickSchedule, phaseDelaysEveryTick)
{
    const TickSchedule schedule(second, 1, 50, 12345);
    EXPECT_EQ(schedule.deadline(), second + 12345000);
    EXPECT_EQ(deadlineAfter(schedule, 3), second + 12345000 + 60 * millisecond);
}

TEST(TickSchedule, negativePhaseIsNone)
{
    EXPECT_EQ(TickSchedule(second, 1, 50, -1).deadline(), second);
    EXPECT_EQ(TickSchedule(second, 1, 50, std::numeric_limits<long long>::min()).deadline(), second);
}

TEST(TickSchedule, repeatingFractionNeverDriftsInYearsOfTicks)
{
    // 30000 intervals of 1001/30000 s are 1001 s to the nanosecond, however many went before.
    const int64_t start = 123456789;
    const int64_t rounds = int64_t(10) * 365 * 86400 / 1001;
    TickSchedule schedule(start, 1001, 30000, 0);
    for (int64_t round = 0; round < rounds; ++round) {
        const int64_t roundStart = start + round * 1001 * second;
        ASSERT_EQ(schedule.deadline(), roundStart) << "round " << round;
        ASSERT_EQ(schedule.take(roundStart), 0);
        ASSERT_EQ(schedule.deadline(), roundStart + 33366666);
        ASSERT_EQ(schedule.take(roundStart + 1001 * second - 1),
                  29998); // ticks 1 to 29999, the newest is taken
    }
}

TEST(TickSchedule, everyTickOfTwoHoursIsTheExactFractionRoundedDown)
{
    TickSchedule schedule(0, 1001, 30000, 0);
    for (int64_t n = 0; n < 2 * 3600 * 30; ++n) {
        ASSERT_EQ(schedule.deadline(), n * 1001 * second / 30000) << "tick " << n;
        schedule.take(schedule.deadline() +
                      n % 33000000); // lateness of less than an interval changes nothing
    }
}

struct Lateness
{
    const char *what;
    int64_t nowMs;
    int64_t skipped;
    int64_t nextMs;
};

class TickScheduleSkips : public testing::TestWithParam<Lateness>
{};

TEST_P(TickScheduleSkips, takesOnlyTheNewestDueTick)
{
    TickSchedule schedule(0, 1, 10, 0);
    schedule.take(0); // tick 1 is due at 100 ms
    EXPECT_EQ(schedule.take(GetParam().nowMs * millisecond), GetParam().skipped);
    EXPECT_EQ(schedule.deadline(), GetParam().nextMs * millisecond);
    EXPECT_GT(schedule.deadline(), GetParam().nowMs * millisecond);
}

INSTANTIATE_TEST_SUITE_P(, TickScheduleSkips,
                         testing::Values(Lateness{"before_due", 50, 0, 200}, Lateness{"on_time", 100, 0, 200},
                                         Lateness{"late", 130, 0, 200},
                                         Lateness{"almost_one_late", 199, 0, 200},
                                         Lateness{"one_late", 200, 1, 300},
                                         Lateness{"two_and_a_half", 350, 2, 400},
                                         Lateness{"an_hour", 3600000, 35999, 3600100}),
                         [](const auto &test) { return test.param.what; });

TEST(TickSchedule, clockBeforeTheStartTakesTheFirstTickOnce)
{
    TickSchedule schedule(second, 1, 10, 0);
    EXPECT_EQ(schedule.take(second - 1), 0);
    EXPECT_EQ(schedule.deadline(), second + 100 * millisecond);
}

TEST(TickSchedule, anInstantBeforeATickIsNotYetThatTick)
{
    TickSchedule schedule(0, 1, 3, 0); // due at 0, 333333333, 666666666, 1000000000
    EXPECT_EQ(schedule.take(333333332), 0);
    EXPECT_EQ(schedule.deadline(), 333333333);
    EXPECT_EQ(schedule.take(666666666), 1);
    EXPECT_EQ(schedule.deadline(), second);
}

TEST(TickSchedule, intervalsAreHeldToTheShortest)
{
    EXPECT_EQ(deadlineAfter(TickSchedule(0, 1, 10000, 0), 1), 100000);
    EXPECT_EQ(deadlineAfter(TickSchedule(0, 1, 10001, 0), 1), 100000);
    EXPECT_EQ(deadlineAfter(TickSchedule(0, 1, std::numeric_limits<int>::max(), 0), 3), 300000);
}

TEST(TickSchedule, longestIntervalsAndPhasesStayAtTheClocksEnd)
{
    const int longest = std::numeric_limits<int>::max();
    const TickSchedule schedule(0, longest, 1, 0);
    EXPECT_EQ(deadlineAfter(schedule, 4), int64_t(4) * longest * second);
    EXPECT_EQ(deadlineAfter(schedule, 5), latest);
    EXPECT_EQ(deadlineAfter(schedule, 6), latest);
    EXPECT_EQ(TickSchedule(second, 1, 25, std::numeric_limits<long long>::max()).deadline(), latest);
}

TEST(TickSchedule, onlyPositiveFractionsAreIntervals)
{
    EXPECT_TRUE(TickSchedule::isInterval(1, 1));
    EXPECT_TRUE(TickSchedule::isInterval(std::numeric_limits<int>::max(), std::numeric_limits<int>::max()));
    EXPECT_FALSE(TickSchedule::isInterval(0, 1));
    EXPECT_FALSE(TickSchedule::isInterval(1, 0));
    EXPECT_FALSE(TickSchedule::isInterval(-1, 25));
    EXPECT_FALSE(TickSchedule::isInterval(1, -25));
    EXPECT_FALSE(TickSchedule::isInterval(-1, -25));
}

} // namespace
