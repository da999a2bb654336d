#include "clockmap.h"

#include <gtest/gtest.h>

namespace {

using zevgst::ClockMap;

constexpr int64_t kWallUs = 1800000000000000;

TEST(ClockMap, MapsBothWays)
{
    ClockMap map;
    EXPECT_FALSE(map.known());
    EXPECT_TRUE(map.observe(5000000000, kWallUs));
    EXPECT_EQ(map.wallUs(5000000000), kWallUs);
    EXPECT_EQ(map.wallUs(5040000000), kWallUs + 40000);
    EXPECT_EQ(map.clockNs(kWallUs - 40000), 4960000000);
    // To the nearest microsecond.
    EXPECT_EQ(map.wallUs(5000000499), kWallUs);
    EXPECT_EQ(map.wallUs(5000000500), kWallUs + 1);
}

TEST(ClockMap, NoiseOfReadingIsNoStep)
{
    ClockMap map;
    map.observe(0, kWallUs);
    for (int64_t i = 1; i <= 1000; ++i)
        EXPECT_FALSE(map.observe(i * 1000000, kWallUs + i * 1000 + (i % 2 == 0 ? 4900 : -4900)));
    EXPECT_EQ(map.wallUs(1000000000), kWallUs + 1000000);
}

TEST(ClockMap, AStepOfTheWallClockIsFollowed)
{
    ClockMap map;
    map.observe(0, kWallUs);
    EXPECT_TRUE(map.observe(1000000000, kWallUs + 1000000 + 3600000000));
    EXPECT_EQ(map.wallUs(2000000000), kWallUs + 2000000 + 3600000000);
    EXPECT_TRUE(map.observe(3000000000, kWallUs + 3000000));
    EXPECT_EQ(map.wallUs(3000000000), kWallUs + 3000000);
}

TEST(ClockMap, AClockThatRunsAwayIsCaughtUpWith)
{
    // A sound card 100 ppm fast: a step whenever 5 ms have come together, every 50 s.
    ClockMap map;
    int steps = -1; // the first look is one
    for (int64_t second = 0; second <= 1000; ++second)
        steps += map.observe(second * 1000100000, kWallUs + second * 1000000) ? 1 : 0;
    EXPECT_GE(steps, 18);
    EXPECT_LE(steps, 20);
    EXPECT_NEAR(static_cast<double>(map.wallUs(1000 * int64_t{1000100000}) - kWallUs), 1e9, 5000);
}

TEST(ClockMap, ResetForgets)
{
    ClockMap map;
    map.observe(0, kWallUs);
    map.reset();
    EXPECT_FALSE(map.known());
    EXPECT_TRUE(map.observe(0, kWallUs + 1));
    EXPECT_EQ(map.wallUs(0), kWallUs + 1);
}

} // namespace
