#include <zevqt-mm/audioplaybackage.h>

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

const qint64 ms = 1000;
const qint64 second = 1000000;
const qint64 start = 1700000000 * second;

// A device that plays with the clock, and takes sound in portions whenever the last one is through.
struct Device
{
    AudioPlaybackAge age;
    qint64 now = start;
    qint64 heardAge = 450 * ms; // of what is heard at its portions' ends
    qint64 portion = 20 * ms;
    qint64 phase = 0;
    int noise = 0; // microseconds to either side, of the moment of sampling

    qint64 position() const
    {
        const qint64 taken = (now + phase - start) / portion * portion + start + portion - phase;
        return taken - heardAge;
    }
    void play(qint64 duration, int intervalMs = AudioPlaybackAge::sampleIntervalMs)
    {
        const qint64 end = now + duration;
        for (qint64 due = now; due < end;) {
            due += intervalMs * ms;
            now = due + (noise > 0 ? std::rand() % (2 * noise) - noise : 0);
            age.sample(now, position());
        }
    }
};

class AudioPlaybackAgeOf : public testing::TestWithParam<qint64>
{};

// The portion of a PulseAudio sink, of sound cards, of a sink that nobody hurries.
INSTANTIATE_TEST_SUITE_P(Portions, AudioPlaybackAgeOf,
                         testing::Values(5 * ms, 10 * ms, 20 * ms, 21333, 23219, 25 * ms, 46439, 100 * ms,
                                         210 * ms, 370 * ms));

TEST_P(AudioPlaybackAgeOf, FindsTheAgeWhateverThePhase)
{
    for (qint64 phase = 0; phase < GetParam(); phase += GetParam() / 7) {
        Device device;
        device.portion = GetParam();
        device.phase = phase;
        device.noise = 1000;
        device.play(4 * second);
        ASSERT_TRUE(device.age.isKnown(device.now)) << phase;
        EXPECT_NEAR(double(device.age.age()), 450e3, 4e3) << phase;
    }
}

TEST(AudioPlaybackAge, IsKnownAfterASecondAndALittle)
{
    Device device;
    device.play(990 * ms);
    EXPECT_FALSE(device.age.isKnown(device.now));
    device.play(60 * ms);
    EXPECT_TRUE(device.age.isKnown(device.now));
    device.age.begin();
    EXPECT_FALSE(device.age.isKnown(device.now));
    EXPECT_EQ(device.age.age(), 0);
}

TEST(AudioPlaybackAge, IsNotKnownOfWhatDoesNotPlay)
{
    AudioPlaybackAge age;
    for (int i = 0; i < 1000; ++i)
        age.sample(start + i * 7 * ms, 0);
    EXPECT_FALSE(age.isKnown(start + 7 * second));
    for (int i = 0; i < 1000; ++i)
        age.sample(start + i * 7 * ms, start - 400 * ms); // stands still
    EXPECT_FALSE(age.isKnown(start + 7 * second));
}

TEST(AudioPlaybackAge, IsForgottenWhenTheDeviceTakesNothingMore)
{
    Device device;
    device.play(3 * second);
    EXPECT_TRUE(device.age.isKnown(device.now + 900 * ms));
    EXPECT_FALSE(device.age.isKnown(device.now + 1100 * ms));
}

// A sink that was asleep: it takes the first sound at once and then nothing for a while, after which the
// reader has jumped.
TEST(AudioPlaybackAge, ALateBeginningIsNoneOfItsAge)
{
    Device device;
    device.play(30 * ms);
    const qint64 stuck = device.position();
    for (int i = 0; i < 250; ++i) {
        device.now += 7 * ms;
        device.age.sample(device.now, stuck);
    }
    EXPECT_FALSE(device.age.isKnown(device.now));
    device.heardAge = 2200 * ms; // what was in the buffer meanwhile
    device.play(250 * ms);
    device.heardAge = 650 * ms;
    device.play(2 * second);
    EXPECT_TRUE(device.age.isKnown(device.now));
    EXPECT_NEAR(double(device.age.age()), 650e3, 4e3);
}

TEST(AudioPlaybackAge, FollowsAJumpAndIsNotKnownMeanwhile)
{
    Device device;
    device.play(5 * second);
    device.heardAge = 550 * ms;
    bool wasUnknown = false;
    for (int i = 0; i < 30; ++i) {
        device.play(100 * ms);
        const bool isKnown = device.age.isKnown(device.now);
        wasUnknown = wasUnknown || !isKnown;
        if (isKnown) {
            EXPECT_TRUE(std::llabs(device.age.age() - 450 * ms) < 4 * ms ||
                        std::llabs(device.age.age() - 550 * ms) < 4 * ms)
                << device.age.age();
        }
    }
    EXPECT_TRUE(wasUnknown);
    EXPECT_TRUE(device.age.isKnown(device.now));
    EXPECT_NEAR(double(device.age.age()), 550e3, 4e3);
}

// A gap of a few milliseconds at a time: none is too small.
TEST(AudioPlaybackAge, SmallDifferencesAreFollowed)
{
    Device device;
    device.play(5 * second);
    for (int i = 0; i < 20; ++i) {
        device.heardAge += (i < 10 ? 6 : -6) * ms;
        device.play(4 * second);
        EXPECT_TRUE(device.age.isKnown(device.now));
        EXPECT_NEAR(double(device.age.age()), double(device.heardAge), 4e3) << i;
    }
}

TEST(AudioPlaybackAge, SamplesThatCameLateTellNothing)
{
    Device device;
    device.play(3 * second);
    const qint64 before = device.age.age();
    device.play(2900 * ms, 35); // a loop that is busy with other things
    EXPECT_NEAR(double(device.age.age()), double(before), 2e3);
    device.play(2 * second, 35);
    EXPECT_FALSE(device.age.isKnown(device.now));
}

TEST(AudioPlaybackAge, SinglePortionsThatComeLateDoNotCount)
{
    Device device;
    for (int i = 0; i < 20; ++i) {
        device.heardAge = i % 5 == 0 ? 600 * ms : 450 * ms;
        device.play(100 * ms);
    }
    EXPECT_TRUE(device.age.isKnown(device.now));
    EXPECT_NEAR(double(device.age.age()), 450e3, 4e3);
}

TEST(AudioPlaybackAge, AClockThatWasSetLeavesNothingBehind)
{
    Device device;
    device.play(3 * second);
    device.now -= 3600 * second;
    device.age.sample(device.now, device.now - 500 * ms);
    EXPECT_FALSE(device.age.isKnown(device.now));
    EXPECT_FALSE(device.age.isKnown(device.now + 3600 * second));
    Device ahead;
    ahead.play(3 * second);
    ahead.age.sample(ahead.now + 3600 * second, ahead.now + 3600 * second - 450 * ms);
    EXPECT_FALSE(ahead.age.isKnown(ahead.now + 3600 * second));
}

} // namespace
