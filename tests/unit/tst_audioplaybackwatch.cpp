#include <zevqt-mm/audioplaybackwatch.h>

#include <gtest/gtest.h>

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
            if (isDeviceTaking && isSourceAlive)
                position = qMin(newest, position + 40 * ms + reserveDrift);
            if (watch.check(now, isActive, position, newest)) {
                ++restarts;
                reason = watch.reason();
                EXPECT_NE(reason, AudioPlaybackWatch::None);
                position = newest - 150 * ms;
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
        EXPECT_EQ(simulation.run(40 * ms), 1); // before the device has read anything of it
        EXPECT_EQ(simulation.reason, AudioPlaybackWatch::SourceBack) << away;
    }
}

// While attempts have to wait there is nothing to tell.
TEST(AudioPlaybackWatch, AReasonIsOnlyGivenWithAStart)
{
    AudioPlaybackWatch watch;
    watch.begin(77 * second);
    EXPECT_FALSE(watch.check(77 * second + 500 * ms, false, 0, 1000 * second));
    EXPECT_EQ(watch.reason(), AudioPlaybackWatch::None);
    EXPECT_TRUE(watch.check(78 * second, false, 0, 1001 * second));
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

} // namespace
