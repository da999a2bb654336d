#include "mediaclock.h"

#include <gtest/gtest.h>

#include <random>

using namespace zevshm;

TEST(MediaClock, deadlinesComeFromTheAnchorWithoutAccumulatedError)
{
    MediaClock clock;
    clock.anchor(0, 5000000);
    // A day of 29.97 frames a second.
    for (int64_t frame = 0; frame < 24 * 3600 * 30; frame += 100003) {
        const int64_t mediaUs = frame * 1001000 / 30;
        EXPECT_EQ(clock.dueAt(mediaUs), 5000000 + mediaUs);
    }
}

TEST(MediaClock, runsFastByPartsPerMillion)
{
    MediaClock clock(100);
    clock.anchor(0, 5000000);
    EXPECT_EQ(clock.dueAt(10000000), 5000000 + 9999000);
    MediaClock slow(-100000);
    slow.anchor(1000000, 0);
    EXPECT_EQ(slow.dueAt(1000000 + 900000), 1000000);
}

TEST(MediaClock, labelsAreTheWallClockAtTheDeadline)
{
    MediaClock clock;
    clock.anchor(0, 1000);
    EXPECT_EQ(clock.observe(1000, 1767225600000000), 0);
    EXPECT_EQ(clock.labelFor(clock.dueAt(40000)), 1767225600040000);
}

TEST(MediaClock, labelsIgnoreReadingNoiseAndFollowSteps)
{
    MediaClock clock;
    clock.observe(0, 1000000000);
    EXPECT_EQ(clock.observe(1000, 1000001000 + 300), 0);
    EXPECT_EQ(clock.labelFor(2000), 1000002000);
    EXPECT_EQ(clock.observe(3000, 1000003000 - 3600000000), -3600000000);
    EXPECT_EQ(clock.labelFor(4000), 1000004000 - 3600000000);
    EXPECT_EQ(clock.observe(5000, 1000005000 + 250000), 3600000000 + 250000);
}

TEST(MediaClock, liveInputStaysSteadyUnderNetworkJitter)
{
    MediaClock clock;
    std::mt19937 random(3);
    constexpr int64_t latencyUs = 100000;
    int64_t settledDue = 0;
    for (int64_t frame = 0; frame < 3000; ++frame) {
        const int64_t mediaUs = frame * 40000;
        const int64_t arrivalUs = 7000000 + mediaUs + static_cast<int64_t>(random() % 60000);
        EXPECT_FALSE(clock.arrived(mediaUs, arrivalUs, latencyUs));
        if (frame == 300)
            settledDue = clock.dueAt(mediaUs) - mediaUs;
        if (frame > 300) {
            EXPECT_EQ(clock.dueAt(mediaUs) - mediaUs, settledDue) << frame;
            EXPECT_LE(arrivalUs, clock.dueAt(mediaUs)) << "arrived after its time";
        }
    }
    // The earliest arrivals plus the latency, within the tolerance.
    EXPECT_NEAR(static_cast<double>(settledDue), 7000000 + latencyUs, MediaClock::toleranceUs);
}

TEST(MediaClock, liveInputWithADriftingSenderKeepsItsLatency)
{
    for (const double drift : {200e-6, -200e-6}) {
        MediaClock clock;
        constexpr int64_t latencyUs = 100000;
        for (int64_t frame = 0; frame < 25 * 3600; ++frame) {
            const int64_t mediaUs = frame * 40000;
            const int64_t arrivalUs = 1000 + static_cast<int64_t>(static_cast<double>(mediaUs) * (1 + drift));
            EXPECT_FALSE(clock.arrived(mediaUs, arrivalUs, latencyUs));
            const int64_t waitUs = clock.dueAt(mediaUs) - arrivalUs;
            // 8 s of window and 200 ppm let it stray 1.6 ms beyond the tolerance.
            ASSERT_NEAR(static_cast<double>(waitUs), latencyUs, MediaClock::toleranceUs + 2000) << frame;
        }
    }
}

TEST(MediaClock, liveInputThatJumpsIsAnchoredAnew)
{
    MediaClock clock;
    EXPECT_FALSE(clock.arrived(0, 1000000, 50000));
    EXPECT_FALSE(clock.arrived(40000, 1040000, 50000));
    EXPECT_TRUE(clock.arrived(90000000, 1080000, 50000));
    EXPECT_EQ(clock.dueAt(90000000), 1130000);
    EXPECT_TRUE(clock.arrived(0, 1120000, 50000));
    EXPECT_EQ(clock.dueAt(0), 1170000);
}

TEST(MediaClock, releasedClockIsAnchoredByTheNextArrival)
{
    MediaClock clock;
    clock.arrived(0, 1000000, 0);
    clock.release();
    EXPECT_FALSE(clock.anchored());
    EXPECT_FALSE(clock.arrived(500000, 9000000, 1000));
    EXPECT_EQ(clock.dueAt(500000), 9001000);
}
