// What the viewer decides about sound, without any: ages, offsets, meters, when the picture is moved.

#include "heardage.h"
#include "levelmeter.h"
#include "offsetstatistics.h"
#include "picturefollower.h"

#include <gtest/gtest.h>

namespace {

constexpr qint64 second = 1000000;
constexpr qint64 start = 1700000000 * second;

// A device that reads a block every 80 ms, 400 ms behind at the most, and lets it be heard 250 ms later.
class Player
{
public:
    explicit Player(HeardAge &age) : m_age(age) {}
    void play(qint64 forUs, bool isReading = true)
    {
        for (const qint64 end = now + forUs; now < end; now += 40000) {
            if (isReading && now - m_read >= 80000) {
                m_read = now;
                position = now - 320000 + ahead;
            }
            m_age.report({now, now - 650000 + reportedAhead + m_noise, position, silence, jumps});
            m_noise = m_noise == 0 ? 15000 : m_noise == 15000 ? -15000 : 0; // the median is right
        }
    }

    qint64 now = start;
    qint64 ahead = 0;         // the position against that of the beginning
    qint64 reportedAhead = 0; // likewise
    qint64 silence = 0;
    int jumps = 0;
    qint64 position = start - 400000;

private:
    HeardAge &m_age;
    qint64 m_read = start - 80000;
    qint64 m_noise = 0;
};

TEST(HeardAge, isKnownAfterASecondOfSteadyReading)
{
    HeardAge age;
    EXPECT_FALSE(age.isKnown(start));
    Player player(age);
    player.play(900000);
    EXPECT_FALSE(age.isKnown(player.now));
    player.play(200000);
    EXPECT_TRUE(age.isKnown(player.now));
    EXPECT_NEAR(double(age.age()), 650000.0, 1000.0);
}

TEST(HeardAge, reportsOfNothingDoNotCount)
{
    HeardAge age;
    for (int i = 0; i < 100; ++i)
        age.report({start + i * 40000, 0, start, 0, 0});
    EXPECT_FALSE(age.isKnown(start + 4 * second));
}

TEST(HeardAge, isForgottenWhenReportsStop)
{
    HeardAge age;
    Player player(age);
    player.play(2 * second);
    EXPECT_TRUE(age.isKnown(player.now + 900000));
    EXPECT_FALSE(age.isKnown(player.now + 1100000));
}

TEST(HeardAge, followsTheReadPositionWhateverTheReportsSay)
{
    HeardAge age;
    Player player(age);
    player.play(2 * second);
    player.ahead = 50000; // it was slow, and jumped forward
    player.jumps = 1;
    player.play(2 * second);
    EXPECT_TRUE(age.isKnown(player.now));
    EXPECT_FALSE(age.isSpoiled());
    EXPECT_NEAR(double(age.age()), 600000.0, 1000.0);
    player.reportedAhead = 300000; // their smoothing at work
    player.play(2 * second);
    EXPECT_NEAR(double(age.age()), 600000.0, 1000.0);
}

TEST(HeardAge, aJumpAtTheBeginningSpoilsIt)
{
    HeardAge age;
    age.restart(3);
    Player player(age);
    player.jumps = 3;
    player.play(500000);
    EXPECT_FALSE(age.isSpoiled());
    player.jumps = 4;
    player.play(2 * second);
    EXPECT_TRUE(age.isSpoiled());
    EXPECT_FALSE(age.isKnown(player.now));
    age.restart(4);
    EXPECT_FALSE(age.isSpoiled());
}

TEST(HeardAge, aDeviceThatTakesNothingYetIsWaitedFor)
{
    HeardAge age;
    Player player(age);
    player.play(3 * second, false);
    EXPECT_FALSE(age.isKnown(player.now));
    player.jumps = 1;
    player.play(100000);
    EXPECT_TRUE(age.isSpoiled());
}

TEST(HeardAge, isNotKnownWhileSilenceIsInserted)
{
    HeardAge age;
    Player player(age);
    player.play(2 * second);
    player.silence = 20000;
    player.play(40000);
    EXPECT_FALSE(age.isKnown(player.now));
    player.play(1200000);
    EXPECT_TRUE(age.isKnown(player.now));
}

TEST(HeardAge, aClockThatWasSetBackLeavesNothingBehind)
{
    HeardAge age;
    Player player(age);
    player.play(2 * second);
    player.now -= 3600 * second;
    age.restart();
    player.play(500000);
    EXPECT_FALSE(age.isKnown(player.now));
}

constexpr PictureFollower::Store roomy{10000, 720000, 40000};

TEST(PictureFollower, tellsHalfAnIntervalMoreThanTheAge)
{
    PictureFollower follower;
    EXPECT_FALSE(follower.hasTarget());
    EXPECT_TRUE(follower.update(0, 450000, roomy));
    EXPECT_EQ(follower.target(), 470000);
    EXPECT_EQ(follower.shortfall(), 0);
    EXPECT_FALSE(follower.update(200000, 450000, roomy));
}

TEST(PictureFollower, movesOnlyForALastingDifference)
{
    PictureFollower follower;
    follower.update(0, 450000, roomy);
    EXPECT_FALSE(follower.update(20 * second, 479000, roomy)); // less than half an interval and 10 ms
    EXPECT_FALSE(follower.update(21 * second, 485000, roomy));
    EXPECT_FALSE(follower.update(23 * second, 450000, roomy)); // it came back
    EXPECT_FALSE(follower.update(24 * second, 485000, roomy));
    EXPECT_FALSE(follower.update(26 * second, 485000, roomy));
    EXPECT_TRUE(follower.update(27 * second, 485000, roomy));
    EXPECT_EQ(follower.target(), 505000);
}

TEST(PictureFollower, movesAreTenSecondsApart)
{
    PictureFollower follower;
    follower.update(second, 450000, roomy);
    EXPECT_FALSE(follower.update(2 * second, 350000, roomy));
    EXPECT_FALSE(follower.update(10 * second, 350000, roomy));
    EXPECT_TRUE(follower.update(11 * second, 350000, roomy));
}

TEST(PictureFollower, newSoundMovesAtOnce)
{
    PictureFollower follower;
    follower.update(0, 450000, roomy);
    follower.soundStarted();
    EXPECT_TRUE(follower.update(second, 451000, roomy));
    EXPECT_EQ(follower.target(), 471000);
}

TEST(PictureFollower, thePictureIsNoOlderThanTheStoresHistory)
{
    PictureFollower follower;
    // Eight frames of 25 a second: 280 ms, of which 80 are kept.
    EXPECT_TRUE(follower.update(0, 450000, {10000, 280000, 40000}));
    EXPECT_EQ(follower.target(), 210000 + 20000);
    EXPECT_EQ(follower.shortfall(), 240000);
    // A longer one comes.
    EXPECT_FALSE(follower.update(11 * second, 450000, roomy));
    EXPECT_TRUE(follower.update(14 * second, 450000, roomy));
    EXPECT_EQ(follower.shortfall(), 0);
}

TEST(PictureFollower, waitsForASourceWithARate)
{
    PictureFollower follower;
    EXPECT_FALSE(follower.update(0, 450000, {0, 0, 0}));
    EXPECT_FALSE(follower.update(0, 0, roomy));
    EXPECT_FALSE(follower.hasTarget());
    EXPECT_TRUE(follower.update(0, 450000, roomy));
}

TEST(OffsetStatistics, tellsMedianWithSignAndPercentileOfSizes)
{
    OffsetStatistics offsets;
    EXPECT_EQ(offsets.count(), 0u);
    EXPECT_EQ(offsets.medianMs(), 0.0);
    EXPECT_EQ(offsets.sizePercentileMs(0.95), 0.0);
    for (int i = 0; i < 94; ++i)
        offsets.add(-7000);
    offsets.add(30000);
    for (int i = 0; i < 5; ++i)
        offsets.add(-90000);
    EXPECT_EQ(offsets.count(), 100u);
    EXPECT_EQ(offsets.medianMs(), -7.0);
    EXPECT_EQ(offsets.sizePercentileMs(0.94), 7.0);
    EXPECT_EQ(offsets.sizePercentileMs(0.95), 30.0);
    EXPECT_EQ(offsets.sizePercentileMs(1.0), 90.0);
}

TEST(OffsetStatistics, farAwayIsTwoSeconds)
{
    OffsetStatistics offsets;
    offsets.add(-86400 * second);
    EXPECT_EQ(offsets.medianMs(), -2000.0);
    offsets.add(86400 * second);
    EXPECT_EQ(offsets.sizePercentileMs(0.95), 2000.0);
}

TEST(LevelMeter, risesAtOnceAndFallsSlowly)
{
    LevelMeter meter;
    EXPECT_TRUE(meter.channels().isEmpty());
    meter.update(second, {{-20.0F, -10.0F}, {-120.0F, -120.0F}});
    ASSERT_EQ(meter.channels().size(), 2);
    EXPECT_EQ(meter.channels()[0].rms, -20.0);
    EXPECT_EQ(meter.channels()[0].peak, -10.0);
    EXPECT_EQ(meter.channels()[0].hold, -10.0);
    EXPECT_EQ(meter.channels()[1].peak, -120.0);
    meter.update(second + 500000, {{-120.0F, -120.0F}, {-6.0F, -3.0F}});
    EXPECT_DOUBLE_EQ(meter.channels()[0].rms, -40.0);
    EXPECT_DOUBLE_EQ(meter.channels()[0].peak, -30.0);
    EXPECT_EQ(meter.channels()[1].rms, -6.0);
    EXPECT_EQ(meter.channels()[1].hold, -3.0);
}

TEST(LevelMeter, holdsTheHighestPeak)
{
    LevelMeter meter;
    meter.update(second, {{-30.0F, -5.0F}});
    for (qint64 now = second + 100000; now <= second + 1500000; now += 100000)
        meter.update(now, {{-60.0F, -60.0F}});
    EXPECT_EQ(meter.channels()[0].hold, -5.0);
    meter.update(second + 2000000, {{-60.0F, -60.0F}});
    EXPECT_DOUBLE_EQ(meter.channels()[0].hold, -15.0);
    meter.update(second + 60000000, {{-60.0F, -60.0F}});
    EXPECT_DOUBLE_EQ(meter.channels()[0].hold, -60.0); // not below the peak
    meter.update(second + 60100000, {{-30.0F, -20.0F}});
    EXPECT_EQ(meter.channels()[0].hold, -20.0);
}

TEST(LevelMeter, withoutLevelsItFallsAndIsForgotten)
{
    LevelMeter meter;
    meter.update(second, {{-20.0F, -10.0F}});
    meter.update(2 * second, {});
    ASSERT_EQ(meter.channels().size(), 1);
    EXPECT_DOUBLE_EQ(meter.channels()[0].rms, -60.0);
    meter.update(12 * second, {});
    EXPECT_TRUE(meter.channels().isEmpty());
}

TEST(LevelMeter, anotherNumberOfChannelsStartsAfresh)
{
    LevelMeter meter;
    meter.update(second, {{-20.0F, -10.0F}});
    meter.update(second + 1000, {{-50.0F, -40.0F}, {-50.0F, -40.0F}});
    ASSERT_EQ(meter.channels().size(), 2);
    EXPECT_EQ(meter.channels()[0].peak, -40.0);
}

} // namespace
