#include <zevqt-mm/audioplaybackwatch.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>

namespace {

const qint64 ms = 1000;
const qint64 second = 1000000;

// A player and a source in simulated time.
struct Simulation
{
    AudioPlaybackWatch watch;
    qint64 now = 77 * second;
    qint64 newest = 1000 * second;
    qint64 position = 1000 * second - 150 * ms;
    qint64 reserve = 150 * ms;
    bool isActive = true;
    bool isSourceAlive = true;
    bool isDeviceTaking = true;
    AudioPlaybackWatch::Reason reason = AudioPlaybackWatch::None; // of the last restart

    Simulation() { watch.begin(now); }

    // Number of restarts that are asked for while `duration` passes, each of them carried out.
    int run(qint64 duration, qint64 reserveDrift = 0)
    {
        int restarts = 0;
        for (const qint64 end = now + duration; now < end;) {
            now += 40 * ms;
            if (isSourceAlive)
                newest += 40 * ms;
            if (isDeviceTaking && isSourceAlive) {
                position = qMin(newest, position + 40 * ms + reserveDrift);
                reserve = newest - position;
            }
            if (watch.check(now, isActive, position, newest, reserve)) {
                ++restarts;
                reason = watch.reason();
                EXPECT_NE(reason, AudioPlaybackWatch::None);
                position = newest - 150 * ms;
                reserve = 150 * ms;
                watch.begin(now);
            }
            EXPECT_EQ(watch.reason(), AudioPlaybackWatch::None);
        }
        return restarts;
    }
};

TEST(AudioPlaybackWatch, LeavesAHealthyPlayerAlone)
{
    Simulation simulation;
    EXPECT_EQ(simulation.run(3600 * second), 0);
    EXPECT_EQ(simulation.reason, AudioPlaybackWatch::None);
    EXPECT_EQ(simulation.watch.reserve(), 150 * ms);
}

TEST(AudioPlaybackWatch, StartsAStoppedPlayerLessAndLessOften)
{
    Simulation simulation;
    simulation.isActive = false;
    EXPECT_EQ(simulation.run(960 * ms), 0);
    EXPECT_EQ(simulation.run(40 * ms), 1);
    EXPECT_EQ(simulation.reason, AudioPlaybackWatch::Stopped);
    // 2, 4, 8, 16 and then every 30 s.
    EXPECT_EQ(simulation.run(31 * second), 4);
    EXPECT_EQ(simulation.run(301 * second), 10);
    // What helped for a minute counts from the beginning.
    simulation.isActive = true;
    EXPECT_EQ(simulation.run(61 * second), 0);
    simulation.isActive = false;
    EXPECT_EQ(simulation.run(40 * ms), 1);
    EXPECT_EQ(simulation.run(960 * ms), 0);
    EXPECT_EQ(simulation.run(40 * ms), 1);
}

TEST(AudioPlaybackWatch, ADeviceThatTakesNothingIsStuck)
{
    Simulation simulation;
    simulation.run(10 * second);
    simulation.isDeviceTaking = false;
    EXPECT_EQ(simulation.run(2900 * ms), 0);
    EXPECT_EQ(simulation.run(200 * ms), 1);
    EXPECT_EQ(simulation.reason, AudioPlaybackWatch::Stuck);
}

// A sink that was asleep has rendered silence ahead, and would again.
TEST(AudioPlaybackWatch, ADeviceThatBeginsLateIsLeftAlone)
{
    Simulation simulation;
    simulation.run(80 * ms);
    simulation.isDeviceTaking = false;
    EXPECT_EQ(simulation.run(5 * second), 0);
    simulation.isDeviceTaking = true;
    simulation.position = simulation.newest - 400 * ms;
    EXPECT_EQ(simulation.run(600 * second), 0);
}

TEST(AudioPlaybackWatch, ADeviceThatNeverBeginsIsStuck)
{
    Simulation simulation;
    simulation.run(80 * ms);
    simulation.isDeviceTaking = false;
    EXPECT_EQ(simulation.run(7 * second), 1);
    EXPECT_EQ(simulation.reason, AudioPlaybackWatch::Stuck);
}

TEST(AudioPlaybackWatch, ASourceThatIsSilentIsNoFault)
{
    Simulation simulation;
    simulation.run(10 * second);
    simulation.isSourceAlive = false;
    EXPECT_EQ(simulation.run(600 * second), 0);
    simulation.position = simulation.newest; // what it had is played
    EXPECT_EQ(simulation.run(600 * second), 0);
    simulation.newest = 0; // and gone
    EXPECT_EQ(simulation.run(600 * second), 0);
}

// Read from a full delay behind while the output holds a buffer of silence: later than it was.
TEST(AudioPlaybackWatch, ASourceThatReturnsIsStartedAnewOnce)
{
    Simulation simulation;
    simulation.run(10 * second);
    simulation.isSourceAlive = false;
    EXPECT_EQ(simulation.run(10 * second), 0);
    simulation.isSourceAlive = true;
    simulation.newest += 10 * second;
    simulation.position = simulation.newest - 400 * ms;
    EXPECT_EQ(simulation.run(60 * second), 1);
    EXPECT_EQ(simulation.reason, AudioPlaybackWatch::SourceBack);
    EXPECT_EQ(simulation.watch.reserve(), 150 * ms);
}

// The read position stands still as long as the source is away: that is not the device's fault.
TEST(AudioPlaybackWatch, AnOutageIsNotBlamedOnTheDevice)
{
    for (const qint64 away : {1500 * ms, 2500 * ms, 5 * second, 60 * second}) {
        Simulation simulation;
        simulation.run(10 * second);
        simulation.isSourceAlive = false;
        EXPECT_EQ(simulation.run(away), 0);
        simulation.isSourceAlive = true;
        simulation.newest += away;
        EXPECT_EQ(simulation.run(200 * ms), 0); // of which the first 40 are not new when it is seen
        EXPECT_EQ(simulation.run(40 * ms), 1);
        EXPECT_EQ(simulation.reason, AudioPlaybackWatch::SourceBack) << away;
    }
}

// A store that was made anew has nothing a delay behind its newest: a start would fill the output's buffer
// with silence, and be as late as what it is to mend.
TEST(AudioPlaybackWatch, ASourceThatReturnsFirstGathersSoundForTheDelay)
{
    for (const qint64 delay : {0 * ms, 400 * ms, 2000 * ms}) {
        Simulation simulation;
        simulation.watch.setDelay(delay);
        simulation.run(10 * second);
        simulation.isSourceAlive = false;
        simulation.run(10 * second);
        simulation.isSourceAlive = true;
        simulation.newest += 10 * second;
        EXPECT_EQ(simulation.run(delay), 0) << delay;
        EXPECT_EQ(simulation.run(40 * ms), 1) << delay;
        EXPECT_EQ(simulation.reason, AudioPlaybackWatch::SourceBack);
        EXPECT_EQ(simulation.run(60 * second), 0);
    }
}

TEST(AudioPlaybackWatch, ASourceThatReturnsForAMomentHasNotGatheredIt)
{
    Simulation simulation;
    simulation.watch.setDelay(400 * ms);
    simulation.run(10 * second);
    for (int i = 0; i < 3; ++i) {
        simulation.isSourceAlive = false;
        EXPECT_EQ(simulation.run(10 * second), 0);
        simulation.isSourceAlive = true;
        simulation.newest += 10 * second;
        EXPECT_EQ(simulation.run(200 * ms), 0);
    }
    simulation.newest -= 3600 * second; // its clock is set back
    EXPECT_EQ(simulation.run(400 * ms), 0);
    EXPECT_EQ(simulation.run(40 * ms), 1);
    EXPECT_EQ(simulation.reason, AudioPlaybackWatch::SourceBack);
}

// Whatever it was that was started while the source was away or had too little: it is late by the buffer.
TEST(AudioPlaybackWatch, AStartWithoutEnoughSoundIsDoneAnew)
{
    Simulation away;
    away.watch.setDelay(400 * ms);
    away.run(10 * second);
    away.isSourceAlive = false;
    away.run(5 * second);
    away.watch.begin(away.now);
    away.run(200 * ms);
    away.isSourceAlive = true;
    EXPECT_EQ(away.run(60 * second), 1);
    EXPECT_EQ(away.reason, AudioPlaybackWatch::SourceBack);

    Simulation early;
    early.watch.setDelay(3000 * ms);
    early.run(10 * second);
    early.isSourceAlive = false;
    early.run(5 * second);
    early.isSourceAlive = true;
    early.run(200 * ms);
    early.watch.begin(early.now);
    EXPECT_EQ(early.run(2800 * ms), 0);
    EXPECT_EQ(early.run(40 * ms), 1);
    EXPECT_EQ(early.reason, AudioPlaybackWatch::SourceBack);
    EXPECT_EQ(early.run(60 * second), 0);
}

TEST(AudioPlaybackWatch, TheFirstStartWaitsForSoundThatHasJustBegun)
{
    AudioPlaybackWatch fresh;
    fresh.setDelay(400 * ms);
    EXPECT_TRUE(fresh.check(0, false, 0, 0, -1)); // who wants silence may play it
    const qint64 begun = 1000 * second;
    EXPECT_FALSE(fresh.check(100 * ms, false, 0, begun, -1));
    EXPECT_FALSE(fresh.check(400 * ms, false, 0, begun + 390 * ms, -1));
    EXPECT_TRUE(fresh.check(500 * ms, false, 0, begun + 400 * ms, -1));
    EXPECT_EQ(fresh.reason(), AudioPlaybackWatch::Stopped);

    AudioPlaybackWatch late; // the sound was there before it looked
    late.setDelay(400 * ms);
    EXPECT_TRUE(late.check(0, false, 0, begun, -1));
}

// A source that is gone again is not waited for.
TEST(AudioPlaybackWatch, AStoppedPlayerWaitsForNoSourceThatIsAway)
{
    AudioPlaybackWatch watch;
    watch.setDelay(400 * ms);
    watch.check(0, false, 0, 0, -1);
    EXPECT_FALSE(watch.check(100 * ms, false, 0, 1000 * second, -1));
    EXPECT_FALSE(watch.check(1000 * ms, false, 0, 1000 * second, -1));
    EXPECT_TRUE(watch.check(1100 * ms, false, 0, 1000 * second, -1));
}

// While attempts have to wait there is nothing to tell.
TEST(AudioPlaybackWatch, AReasonIsOnlyGivenWithAStart)
{
    AudioPlaybackWatch watch;
    watch.begin(77 * second);
    EXPECT_FALSE(watch.check(77 * second + 500 * ms, false, 0, 1000 * second, -1));
    EXPECT_EQ(watch.reason(), AudioPlaybackWatch::None);
    EXPECT_TRUE(watch.check(78 * second, false, 0, 1001 * second, -1));
    EXPECT_EQ(watch.reason(), AudioPlaybackWatch::Stopped);
}

TEST(AudioPlaybackWatch, ASourceThatFaltersIsLeftAlone)
{
    Simulation simulation;
    simulation.run(10 * second);
    simulation.isSourceAlive = false;
    EXPECT_EQ(simulation.run(920 * ms), 0);
    simulation.isSourceAlive = true;
    EXPECT_EQ(simulation.run(60 * second), 0);
}

TEST(AudioPlaybackWatch, AReserveThatRanOutIsRestored)
{
    Simulation simulation;
    // A source that is 0.5 % slow.
    EXPECT_EQ(simulation.run(20 * second, 200), 0);
    EXPECT_EQ(simulation.run(30 * second, 200), 1);
    EXPECT_EQ(simulation.reason, AudioPlaybackWatch::Dry);
    EXPECT_GT(simulation.watch.reserve(), 50 * ms);
}

TEST(AudioPlaybackWatch, AReserveThatNeverWasIsNotMissed)
{
    Simulation simulation;
    simulation.position = simulation.newest;
    EXPECT_EQ(simulation.run(600 * second), 0);
    EXPECT_EQ(simulation.watch.reserve(), 0);
}

TEST(AudioPlaybackWatch, AReserveThatIsNotKnownIsNotMissed)
{
    Simulation simulation;
    simulation.run(10 * second);
    simulation.isDeviceTaking = false;
    simulation.isSourceAlive = true;
    AudioPlaybackWatch &watch = simulation.watch;
    for (int i = 0; i < 100; ++i) {
        simulation.now += 100 * ms;
        simulation.newest += 100 * ms;
        simulation.position += 100 * ms;
        EXPECT_FALSE(watch.check(simulation.now, true, simulation.position, simulation.newest, -1));
    }
    EXPECT_EQ(watch.reserve(), -1);
}

// As in the viewer: the device takes 85.3 ms at a time, which may be short, the publisher puts blocks into
// the store, and whoever watches looks every 100 ms.
struct Blocks
{
    int blockMs;
    int ppm; // of the source against the device
    const char *name;
};

class AudioPlaybackWatchBlocks : public testing::TestWithParam<Blocks>
{
protected:
    struct Outcome
    {
        int restarts = 0;
        int others = 0;     // for another reason than Dry
        qint64 silence = 0; // in short reads
        qint64 firstRestart = -1;
        qint64 firstSilence = -1;
    };
    static Outcome play(const Blocks &c, qint64 duration)
    {
        const double speed = 1 + c.ppm / 1e6;
        const double read = 4096.0 * second / 48000;
        AudioPlaybackWatch watch;
        watch.begin(0);
        Outcome outcome;
        const auto newestAt = [&](double at) {
            const double block = c.blockMs * ms;
            return static_cast<qint64>(1000.0 * second + std::floor(at * speed / block) * block);
        };
        qint64 position = newestAt(0) - 150 * ms;
        qint64 reserve = -1;
        double nextRead = 0;
        for (qint64 now = 0; now < duration; now += 100 * ms) {
            for (; nextRead <= static_cast<double>(now); nextRead += read) {
                const qint64 newest = newestAt(nextRead);
                const qint64 got = qBound<qint64>(0, newest - position, static_cast<qint64>(read));
                position += got;
                reserve = qMax<qint64>(0, newest - position);
                const qint64 missing = static_cast<qint64>(read) - got;
                outcome.silence += missing;
                if (missing > 0 && outcome.firstSilence < 0)
                    outcome.firstSilence = now;
            }
            const qint64 newest = newestAt(static_cast<double>(now));
            if (!watch.check(now, true, position, newest, reserve))
                continue;
            ++outcome.restarts;
            outcome.others += watch.reason() == AudioPlaybackWatch::Dry ? 0 : 1;
            if (outcome.firstRestart < 0)
                outcome.firstRestart = now;
            position = newest - 150 * ms;
            reserve = -1;
            watch.begin(now);
        }
        return outcome;
    }
};

INSTANTIATE_TEST_SUITE_P(All, AudioPlaybackWatchBlocks,
                         testing::Values(Blocks{1, -5000, "of1Slow"}, Blocks{5, -5000, "of5Slow"},
                                         Blocks{20, -5000, "of20Slow"}, Blocks{40, -5000, "of40Slow"},
                                         Blocks{1, -200, "of1Slower"}, Blocks{5, -200, "of5Slower"},
                                         Blocks{20, -200, "of20Slower"}, Blocks{40, -200, "of40Slower"}),
                         [](const auto &test) { return test.param.name; });

TEST_P(AudioPlaybackWatchBlocks, AReserveThatRanOutIsSeenWhateverTheBlocks)
{
    const Outcome outcome = play(GetParam(), 3600 * second);
    const double lossPerSecond = -GetParam().ppm; // us
    const double all = 3600 * lossPerSecond;
    EXPECT_GT(outcome.restarts, 0);
    EXPECT_EQ(outcome.others, 0);
    // What the source lacks comes out of the reserve, time and again, and hardly any of it as silence.
    EXPECT_LT(static_cast<double>(outcome.silence), all / 3);
    EXPECT_LT(outcome.restarts, all / (25 * ms));
    ASSERT_GE(outcome.firstRestart, 0);
    if (outcome.firstSilence >= 0) {
        EXPECT_LT(outcome.firstRestart - outcome.firstSilence, 60 * second);
    }
    std::printf("%d restarts in an hour, the first after %.1f s; silence from %.1f s on, %.1f of %.1f ms\n",
                outcome.restarts, static_cast<double>(outcome.firstRestart) / second,
                static_cast<double>(outcome.firstSilence) / second, static_cast<double>(outcome.silence) / ms,
                all / ms);
}

TEST_P(AudioPlaybackWatchBlocks, AClockThatIsAsFastIsLeftAlone)
{
    const Outcome outcome = play({GetParam().blockMs, 0, ""}, 3600 * second);
    EXPECT_EQ(outcome.restarts, 0);
    EXPECT_EQ(outcome.silence, 0);
}

} // namespace
