// The cadence of a stream from its timestamps, with everything that happens to timestamps.
#include "interval_estimator.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

using shm::IntervalEstimator;

namespace {

IntervalEstimator::Estimate run(int frames, double interval, double jitter, double dropped, unsigned seed = 1)
{
    IntervalEstimator estimator;
    std::mt19937 random(seed);
    std::normal_distribution<double> noise(0, 1);
    std::uniform_real_distribution<double> chance(0, 1);
    int64_t last = -1;
    for (int i = 0; i < frames; ++i) {
        if (chance(random) < dropped)
            continue;
        const auto t = static_cast<int64_t>(1e15 + i * interval + jitter * noise(random));
        if (t > last)
            estimator.add(last = t);
    }
    return estimator.estimate();
}

TEST(ShmInterval, IsNotKnownFromTooFewFrames)
{
    EXPECT_EQ(run(0, 40000, 0, 0).intervalUs, 0);
    EXPECT_EQ(run(4, 40000, 0, 0).intervalUs, 0);
    EXPECT_EQ(run(5, 40000, 0, 0).intervalUs, 40000);
}

TEST(ShmInterval, OfEvenStreamsIsExact)
{
    for (const double rate : {1.0, 5.0, 23.976, 25.0, 29.97002997, 50.0, 59.94005994, 120.0}) {
        const IntervalEstimator::Estimate estimate = run(100, 1e6 / rate, 0, 0);
        EXPECT_EQ(estimate.intervalUs, std::llround(1e6 / rate)) << rate;
        EXPECT_LE(estimate.jitterUs, 1) << rate;
    }
}

TEST(ShmInterval, IsNotMovedByDroppedFrames)
{
    for (unsigned seed = 1; seed <= 50; ++seed)
        EXPECT_NEAR(static_cast<double>(run(200, 33366.7, 0, 0.2, seed).intervalUs), 33367, 1) << seed;
}

TEST(ShmInterval, IsNotMovedByJitterAndDropsTogether)
{
    for (unsigned seed = 1; seed <= 50; ++seed) {
        const IntervalEstimator::Estimate estimate = run(200, 40000, 3000, 0.1, seed);
        EXPECT_NEAR(static_cast<double>(estimate.intervalUs), 40000, 100) << seed;
        EXPECT_NEAR(static_cast<double>(estimate.jitterUs), 3000, 1700) << seed;
    }
}

TEST(ShmInterval, OutliersAreRejected)
{
    IntervalEstimator estimator;
    for (int i = 0; i < 64; ++i)
        estimator.add(i * 20000 + (i % 16 == 7 ? 9000 : 0));
    EXPECT_EQ(estimator.estimate().intervalUs, 20000);
    EXPECT_LE(estimator.estimate().jitterUs, 100);
}

TEST(ShmInterval, FollowsAChangeOfRateWithinHalfASecond)
{
    IntervalEstimator estimator;
    int64_t t = 0;
    for (int i = 0; i < 64; ++i)
        estimator.add(t += 40000);
    for (int i = 0; i < 25; ++i)
        estimator.add(t += 20000);
    EXPECT_EQ(estimator.estimate().intervalUs, 20000);
}

TEST(ShmInterval, APauseDoesNotBendIt)
{
    IntervalEstimator estimator;
    int64_t t = 0;
    for (int i = 0; i < 40; ++i)
        estimator.add(t += 40000);
    t += 7013000;
    for (int i = 0; i < 10; ++i)
        estimator.add(t += 40000);
    EXPECT_EQ(estimator.estimate().intervalUs, 40000);
}

TEST(ShmInterval, IsNotKnownAfterAReset)
{
    IntervalEstimator estimator;
    for (int i = 0; i < 10; ++i)
        estimator.add(i * 40000);
    estimator.reset();
    EXPECT_EQ(estimator.estimate().intervalUs, 0);
}

} // namespace
