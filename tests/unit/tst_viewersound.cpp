// What the viewer decides about sound, without any: offsets, meters, when the picture is moved.

#include "levelmeter.h"
#include "offsetstatistics.h"
#include "picturefollower.h"

#include <gtest/gtest.h>

namespace {

constexpr qint64 second = 1000000;

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

// Pictures of one age, 25 a second, asked about five times a second.
class Pictures
{
public:
    explicit Pictures(PictureFollower &follower) : m_follower(follower) {}
    // True when the follower wants to move, which ends it.
    bool show(qint64 forUs, qint64 pictureAge, qint64 soundAge = 450000,
              const PictureFollower::Store &store = roomy)
    {
        for (const qint64 end = now + forUs; now < end;) {
            now += 40000;
            m_follower.handedOut(now, pictureAge);
            if (now % 200000 == 0 && m_follower.update(now, soundAge, store))
                return true;
        }
        return false;
    }
    qint64 now = 0;

private:
    PictureFollower &m_follower;
};

TEST(PictureFollower, movesOnlyForALastingDifference)
{
    PictureFollower follower;
    Pictures pictures(follower);
    follower.update(0, 450000, roomy);
    EXPECT_FALSE(pictures.show(20 * second, 450000 + 24000)); // half an interval and 4 ms
    EXPECT_FALSE(pictures.show(20 * second, 450000 - 24000));
    EXPECT_FALSE(pictures.show(2 * second, 450000 + 25000));
    EXPECT_FALSE(pictures.show(2 * second, 450000)); // it came back
    EXPECT_FALSE(pictures.show(3 * second, 450000 + 25000));
    EXPECT_TRUE(pictures.show(1 * second, 450000 + 25000));
    EXPECT_EQ(follower.target(), 470000);
}

TEST(PictureFollower, movesWithTheSound)
{
    PictureFollower follower;
    Pictures pictures(follower);
    follower.update(0, 450000, roomy);
    EXPECT_FALSE(pictures.show(20 * second, 450000));
    EXPECT_TRUE(pictures.show(4 * second, 450000, 500000));
    EXPECT_EQ(follower.target(), 520000);
}

TEST(PictureFollower, movesAreTenSecondsApartAfterTheFirst)
{
    PictureFollower follower;
    Pictures pictures(follower);
    follower.update(0, 450000, roomy);
    EXPECT_TRUE(pictures.show(5 * second, 350000));
    const qint64 first = pictures.now;
    EXPECT_FALSE(pictures.show(4 * second, 450000)); // it helped
    pictures.show(7 * second, 450000);
    EXPECT_TRUE(pictures.show(5 * second, 350000));
    EXPECT_GE(pictures.now - first, 10 * second);
}

// Gaps on a busy machine, say. What was told before was right, so there is no reason to wait.
TEST(PictureFollower, soundThatMovesAgainAndAgainIsFollowedEveryTime)
{
    PictureFollower follower;
    Pictures pictures(follower);
    follower.update(0, 450000, roomy);
    EXPECT_TRUE(pictures.show(5 * second, 350000)); // the same sound: the next moves would be far apart
    EXPECT_TRUE(pictures.show(8 * second, 350000));
    EXPECT_FALSE(pictures.show(4 * second, 350000));
    qint64 soundAge = 450000;
    for (int i = 0; i < 5; ++i) {
        const qint64 pictureAge = soundAge;
        soundAge += i % 2 == 0 ? 25000 : -30000; // 24 ms are left alone
        const qint64 moved = pictures.now;
        EXPECT_TRUE(pictures.show(10 * second, pictureAge, soundAge)) << i;
        EXPECT_LE(pictures.now - moved, 5 * second) << i;
        EXPECT_EQ(follower.target(), soundAge + 20000);
        EXPECT_FALSE(pictures.show(2 * second, soundAge, soundAge));
    }
}

TEST(PictureFollower, movesThatDoNotHelpBecomeRare)
{
    PictureFollower follower;
    Pictures pictures(follower);
    follower.update(0, 450000, roomy);
    int moves = 0;
    for (const qint64 hour = 3600 * second; pictures.now < hour;)
        moves += pictures.show(hour - pictures.now, 350000) ? 1 : 0;
    EXPECT_LT(moves, 20);
    EXPECT_GT(moves, 10);
}

TEST(PictureFollower, aSinglePictureIsNoDifference)
{
    PictureFollower follower;
    follower.update(0, 450000, roomy);
    for (qint64 now = second; now < 20 * second; now += second) {
        follower.handedOut(now, 350000);
        EXPECT_FALSE(follower.update(now, 450000, roomy));
    }
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
    Pictures pictures(follower);
    // Eight frames of 25 a second: 280 ms, of which 80 are kept.
    const PictureFollower::Store small{10000, 280000, 40000};
    EXPECT_TRUE(follower.update(0, 450000, small));
    EXPECT_EQ(follower.target(), 210000 + 20000);
    EXPECT_EQ(follower.shortfall(), 240000);
    // It moves with the newest picture's age, which is nothing to follow.
    EXPECT_FALSE(pictures.show(20 * second, 240000, 450000, small));
    // A longer one comes.
    EXPECT_TRUE(pictures.show(5 * second, 240000));
    EXPECT_EQ(follower.shortfall(), 0);
    EXPECT_EQ(follower.target(), 470000);
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
