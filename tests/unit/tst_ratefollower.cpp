#include "ratefollower.h"

#include <gtest/gtest.h>

namespace {

TEST(RateFollower, unusableIntervalsChangeNothing)
{
    RateFollower follower;
    for (const long long interval : {0LL, -5LL, 1000LL})
        EXPECT_EQ(follower.update(interval), 0.0);
    EXPECT_EQ(follower.rate(), 0.0);
}

TEST(RateFollower, roundedIntervalsGiveTheUsualRate)
{
    EXPECT_DOUBLE_EQ(RateFollower::rateOf(40000), 25.0);
    EXPECT_DOUBLE_EQ(RateFollower::rateOf(80000), 12.5);
    EXPECT_DOUBLE_EQ(RateFollower::rateOf(33333), 30.0);
    EXPECT_DOUBLE_EQ(RateFollower::rateOf(33367), 30000.0 / 1001.0);
    EXPECT_DOUBLE_EQ(RateFollower::rateOf(41708), 24000.0 / 1001.0);
    EXPECT_DOUBLE_EQ(RateFollower::rateOf(41667), 24.0);
    EXPECT_DOUBLE_EQ(RateFollower::rateOf(16667), 60.0);
    EXPECT_DOUBLE_EQ(RateFollower::rateOf(54321), 1e6 / 54321.0);
}

TEST(RateFollower, firstIntervalSetsTheRateOnce)
{
    RateFollower follower;
    EXPECT_DOUBLE_EQ(follower.update(80000), 12.5);
    EXPECT_EQ(follower.update(80000), 0.0);
}

TEST(RateFollower, anotherRateIsFollowedAtOnce)
{
    RateFollower follower;
    follower.update(80000);
    EXPECT_DOUBLE_EQ(follower.update(40000), 25.0);
}

TEST(RateFollower, wobbleIsIgnoredAndLastingDriftFollowed)
{
    RateFollower follower;
    follower.update(40000);
    for (int i = 0; i < 50; ++i)
        EXPECT_EQ(follower.update(i % 2 == 0 ? 40050 : 40000), 0.0);
    int updates = 1;
    while (follower.update(40050) == 0.0 && updates < 100)
        ++updates;
    EXPECT_EQ(updates, 10);
    EXPECT_DOUBLE_EQ(follower.rate(), 1e6 / 40050.0);
}

TEST(RateFollower, screenLimitsTheRate)
{
    RateFollower follower(60.0);
    EXPECT_DOUBLE_EQ(follower.update(10000), 60.0);
    EXPECT_DOUBLE_EQ(follower.update(20000), 50.0);
}

} // namespace
