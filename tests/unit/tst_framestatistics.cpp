#include "framestatistics.h"

#include <gtest/gtest.h>

namespace {

constexpr long long start = 1700000000000000;
constexpr long long interval = 40000;

// A source of frames every 40 ms that holds the eight newest, and a viewer that is 100 ms behind.
struct Stream
{
    FrameStatistics statistics;

    Stream() { statistics.setTickIntervalUs(double(interval)); }

    static QVector<long long> historyUpTo(int newest)
    {
        QVector<long long> history;
        for (int i = std::max(0, newest - 7); i <= newest; ++i)
            history << start + i * interval;
        return history;
    }
    void show(int frame)
    {
        const long long timestamp = start + frame * interval;
        statistics.handedOut(timestamp + 100000, timestamp, historyUpTo(frame + 2), interval);
    }
    FrameStatistics::Figures figures() const { return statistics.figures(start + 3600LL * 1000000); }
};

TEST(FrameStatistics, nothingIsCountedBeforeThereIsAnything)
{
    const auto f = FrameStatistics().figures(start);
    EXPECT_EQ(f.frames, 0u);
    EXPECT_EQ(f.fps, 0.0);
    EXPECT_EQ(f.recentFps, 0.0);
    EXPECT_EQ(f.latencyP50Ms, 0.0);
    EXPECT_EQ(f.latencyMaxMs, 0.0);
}

TEST(FrameStatistics, everyFrameOnceIsNeitherSkippedNorRepeated)
{
    Stream s;
    for (int i = 0; i < 100; ++i)
        s.show(i);
    const auto f = s.figures();
    EXPECT_EQ(f.frames, 100u);
    EXPECT_EQ(f.distinct, 100u);
    EXPECT_EQ(f.repeated, 0u);
    EXPECT_EQ(f.skipped, 0u);
    EXPECT_NEAR(f.fps, 25.0, 1e-9);
    EXPECT_EQ(f.sourceIntervalUs, interval);
}

TEST(FrameStatistics, sameTimestampIsARepetition)
{
    Stream s;
    for (const int i : {0, 0, 1, 1, 1, 2})
        s.show(i);
    EXPECT_EQ(s.figures().frames, 6u);
    EXPECT_EQ(s.figures().distinct, 3u);
    EXPECT_EQ(s.figures().repeated, 3u);
}

TEST(FrameStatistics, framesThatPassedAreSkipped)
{
    Stream s;
    for (const int i : {0, 1, 3, 4, 7})
        s.show(i);
    EXPECT_EQ(s.figures().skipped, 3u); // 2, 5 and 6
}

TEST(FrameStatistics, gapsBeyondTheHistoryCountByTheNominalInterval)
{
    Stream s;
    s.show(0);
    s.show(100);
    EXPECT_EQ(s.figures().skipped, 99u);
}

TEST(FrameStatistics, aSourceThatHasGoneRoundIsTold)
{
    Stream s;
    s.show(0);
    s.show(6); // the history begins at frame 1, after the one that was shown
    EXPECT_EQ(s.figures().lapped, 1u);
    s.show(7);
    s.show(12); // back to frame 7
    EXPECT_EQ(s.figures().lapped, 1u);
    s.show(100);
    EXPECT_EQ(s.figures().lapped, 2u);
    s.statistics.idle();
    s.show(200); // after an interruption it is none
    EXPECT_EQ(s.figures().lapped, 2u);
}

TEST(FrameStatistics, aPauseIsAnInterruptionThatIsNotCounted)
{
    Stream s;
    for (int i = 0; i < 10; ++i)
        s.show(i);
    s.statistics.paused();
    for (int i = 1000; i < 1010; ++i)
        s.show(i);
    const auto f = s.figures();
    EXPECT_EQ(f.skipped, 0u);
    EXPECT_EQ(f.lapped, 0u);
    EXPECT_EQ(f.idle, 0u);
    EXPECT_EQ(f.noSignal, 0u);
    EXPECT_NEAR(f.fps, 25.0, 1e-9);
}

TEST(FrameStatistics, framesThatTheSourceNeverMadeAreNotSkipped)
{
    // The source paused for three intervals: its history has a hole there.
    FrameStatistics s;
    s.setTickIntervalUs(double(interval));
    const QVector<long long> history{start, start + 40000, start + 200000, start + 240000};
    s.handedOut(start + 140000, start + 40000, history, interval);
    s.handedOut(start + 300000, start + 200000, history, interval);
    EXPECT_EQ(s.figures(start + 400000).skipped, 0u);
}

struct SlowTicks
{
    double tickIntervalUs;
    std::vector<int> shown;
    quint64 skipped;
};
class FrameStatisticsTicks : public testing::TestWithParam<SlowTicks>
{};

TEST_P(FrameStatisticsTicks, ticksSlowerThanTheSourceExplainWhatPasses)
{
    Stream s;
    s.statistics.setTickIntervalUs(GetParam().tickIntervalUs);
    for (const int i : GetParam().shown)
        s.show(i);
    EXPECT_EQ(s.figures().skipped, GetParam().skipped);
}

INSTANTIATE_TEST_SUITE_P(Ratios, FrameStatisticsTicks,
                         testing::Values(SlowTicks{80000.0, {0, 2, 4, 6}, 0}, // half the rate
                                         SlowTicks{80000.0, {0, 2, 5, 7}, 1}, // one too far
                                         SlowTicks{96000.0, {0, 2, 5, 7}, 0}, // 2.4 fit: two or three
                                         SlowTicks{96000.0, {0, 2, 6}, 1},    //
                                         SlowTicks{41000.0, {0, 1, 3}, 1}, // 1.025 is one, estimates wobble
                                         SlowTicks{20000.0, {0, 0, 1, 3}, 1}, // faster than the source
                                         SlowTicks{0.0, {0, 1, 3}, 1}));      // not known: one per tick

TEST(FrameStatistics, interruptionsAreNeitherSkippedNorPartOfTheRate)
{
    Stream s;
    for (int i = 0; i < 10; ++i)
        s.show(i);
    s.statistics.idle();
    s.statistics.idle(); // the same event: one for every request that goes unanswered
    s.statistics.noSignal();
    s.statistics.noSignal();
    for (int i = 500; i < 510; ++i)
        s.show(i);
    const auto f = s.figures();
    EXPECT_EQ(f.skipped, 0u);
    EXPECT_EQ(f.idle, 1u);
    EXPECT_EQ(f.noSignal, 2u);
    EXPECT_NEAR(f.fps, 25.0, 1e-9);
}

TEST(FrameStatistics, everyTimeThatPicturesStopIsAnIdleEvent)
{
    Stream s;
    s.show(0);
    s.statistics.idle();
    s.statistics.idle();
    s.show(1);
    s.statistics.idle();
    s.statistics.noSignal();
    EXPECT_EQ(s.figures().idle, 2u);
}

TEST(FrameStatistics, eachKindOfInterruptionInterruptsAlone)
{
    for (const auto interrupt : {&FrameStatistics::idle, &FrameStatistics::noSignal}) {
        Stream s;
        s.show(0);
        s.show(1);
        (s.statistics.*interrupt)();
        s.show(50);
        EXPECT_EQ(s.figures().skipped, 0u);
        EXPECT_NEAR(s.figures().fps, 25.0, 1e-9);
    }
}

TEST(FrameStatistics, anOlderPictureIsCountedAsBackward)
{
    Stream s;
    for (const int i : {5, 4, 5})
        s.show(i);
    EXPECT_EQ(s.figures().backward, 1u);
    EXPECT_EQ(s.figures().distinct, 3u);
    EXPECT_EQ(s.figures().skipped, 0u);
}

TEST(FrameStatistics, recentRateForgetsAfterTwoSeconds)
{
    FrameStatistics s;
    long long now = start;
    for (int i = 0; i < 100; ++i, now += 100000) // 10 fps for ten seconds
        s.handedOut(now, now, {}, 100000);
    for (int i = 0; i < 100; ++i, now += 20000) // 50 fps for two
        s.handedOut(now, now, {}, 20000);
    EXPECT_NEAR(s.figures(now).recentFps, 50.0, 0.5);
    EXPECT_LT(s.figures(now).fps, 20.0);
    EXPECT_EQ(s.figures(now + 10000000).recentFps, 0.0);
}

TEST(FrameStatistics, latencyPercentilesAreOfTheHandOuts)
{
    FrameStatistics s;
    for (int ms = 1; ms <= 100; ++ms)
        s.handedOut(start + ms * 1000, start, {}, 0);
    const auto f = s.figures(start);
    EXPECT_NEAR(f.latencyP50Ms, 50.0, 0.1);
    EXPECT_NEAR(f.latencyP95Ms, 95.0, 0.1);
    EXPECT_NEAR(f.latencyP99Ms, 99.0, 0.1);
    EXPECT_NEAR(f.latencyMaxMs, 100.0, 0.001);
}

TEST(FrameStatistics, latencyBeyondTheTableIsTheMaximumAndAFutureFrameIsZero)
{
    FrameStatistics s;
    s.handedOut(start + 7000000, start, {}, 0);
    EXPECT_NEAR(s.figures(start).latencyP50Ms, 7000.0, 0.001);
    FrameStatistics future;
    future.handedOut(start, start + 5000, {}, 0);
    EXPECT_EQ(future.figures(start).latencyP50Ms, 0.0);
    EXPECT_EQ(future.figures(start).latencyMaxMs, 0.0);
}

} // namespace
