// Whether the sound is heard as late after an outage of its publisher as before: a beep at every full second,
// heard in what the sink plays.

#include "beeps.h"
#include "monitorrecorder.h"
#include "pulseserver.h"
#include "stallwatch.h"
#include "toolpublisher.h"
#include "viewerrig.h"

#include "wallclock.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QTemporaryDir>
#include <QThread>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>

namespace {

PulseServer *server = nullptr;

constexpr double secondUs = 1e6;
constexpr int portionMs = 20; // in which the sink is to work, as a sound card does
constexpr int blockMs = 20;   // of the publisher's
constexpr int outageMs = 10000;
constexpr int beforeMs = 13500;
constexpr int afterMs = 14500;
constexpr std::size_t fewestBeeps = 10;
constexpr double countedBeforeUs = 6e6;
constexpr double countedAfterUs = 4e6;
// A start may find the newest block just begun or just full, and so may the sink. The output's buffer, by
// which sound that goes on after silence is late, is 250 ms.
constexpr double mostMovedMs = 45.0;
// Not more than maxDelay, what the sink takes at a time, and what it has taken before.
constexpr double latestMs = 500.0 + 2 * portionMs;
// Whoever waits so long for a processor may interrupt the sound, which is heard later from then on.
constexpr double interruptedMs = 60.0;
static_assert(mostMovedMs >= blockMs + portionMs, "neither is a fault");

struct Case
{
    const char *name;
    bool isKilled;
    const char *sink;
    int rate;
};

void PrintTo(const Case &c, std::ostream *out)
{
    *out << c.name;
}

void wait(int ms)
{
    for (const QDeadlineTimer deadline(ms); !deadline.hasExpired();) {
        QCoreApplication::processEvents();
        QThread::msleep(20);
    }
}

bool isHeard(const QString &sink, int rate)
{
    SinkRecorder recorder;
    return recorder.start(sink, rate, 2) && waitUntil([&] {
               const QByteArray &data = recorder.data();
               const auto *samples = reinterpret_cast<const qint16 *>(data.constData());
               return std::any_of(samples, samples + data.size() / 2,
                                  [](qint16 sample) { return sample > 3000; });
           });
}

// How late the beeps between two times were heard, in ms. Nothing is heard a second late.
std::vector<double> delaysOf(const std::vector<double> &beeps, double from, double to)
{
    std::vector<double> delays;
    for (const double at : beeps)
        if (at >= from && at < to)
            delays.push_back(std::fmod(at, secondUs) / 1000.0);
    return delays;
}

double medianOf(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

class ViewerDelay : public testing::TestWithParam<Case>
{
protected:
    void SetUp() override
    {
        if (!server)
            GTEST_SKIP() << "no sound server: is pulseaudio installed?";
    }

    StallWatch stalls;
    const QTemporaryDir directory{QStringLiteral("/tmp/zev-XXXXXX")};
};

INSTANTIATE_TEST_SUITE_P(Publisher, ViewerDelay,
                         testing::Values(Case{"killed", true, "a", 48000}, Case{"ended", false, "b", 44100}),
                         [](const auto &test) { return test.param.name; });

TEST_P(ViewerDelay, isAfterAnOutageAsBefore)
{
    const Case c = GetParam();
    const QStringList published{"test:avsync", "--size", "320x180"};
    MonitorRecorder recorder;
    ASSERT_TRUE(recorder.start(c.sink, c.rate, portionMs));
    auto publisher = std::make_unique<ToolPublisher>(directory.path(), "av", published);
    ASSERT_TRUE(waitUntil([&] { return publisher->hasFrame(); }));
    // The store has sound for the whole delay, and the sink has played what it had rendered ahead when nobody
    // listened.
    wait(3000);
    const double started = double(wallClockUs());
    ViewerRun run({directory.path(), {}, false}, {"shm:///av", "--headless", "--audio-device", c.sink});
    ASSERT_TRUE(isHeard(c.sink, c.rate)) << run.errors().toStdString();
    wait(beforeMs);

    const double gone = double(wallClockUs());
    EXPECT_EQ(c.isKilled ? 0 : publisher->end(), 0);
    publisher.reset(); // which kills it
    wait(outageMs);
    EXPECT_FALSE(run.errors().contains("was away and is back"));
    publisher = std::make_unique<ToolPublisher>(directory.path(), "av", published);
    ASSERT_TRUE(waitUntil([&] { return run.errors().contains("was away and is back"); }))
        << run.errors().toStdString();
    const double back = double(wallClockUs());
    wait(afterMs);
    const double ended = double(wallClockUs());
    run.terminate();
    EXPECT_EQ(run.wait(), 0) << run.errors().toStdString();
    recorder.stop();

    const std::vector<double> beeps = beepsOf(recorder, c.rate);
    const std::vector<double> before = delaysOf(beeps, gone - countedBeforeUs, gone);
    const std::vector<double> after = delaysOf(beeps, back + countedAfterUs, ended);
    const std::size_t all = delaysOf(beeps, started, gone).size();
    const std::size_t allAfter = delaysOf(beeps, back, ended).size();
    // From when the sound begins, for what interrupts it moves it for good.
    const double stalledMs = std::max(stalls.worstMs(started, gone), stalls.worstMs(back - secondUs, ended));
    const auto text = [](const std::vector<double> &delays) {
        QString result;
        for (const double delay : delays)
            result += QStringLiteral(" %1").arg(delay, 0, 'f', 1);
        return result.toStdString();
    };
    std::printf("heard after (ms)%s; after the outage%s; %zu and %zu beeps in all, stalls up to %.0f ms\n",
                text(before).c_str(), text(after).c_str(), all, allAfter, stalledMs);
    const bool isComplete =
        all >= fewestBeeps && allAfter >= fewestBeeps && !before.empty() && !after.empty();
    const double median = isComplete ? medianOf(before) : 0.0;
    const double moved = isComplete ? medianOf(after) - median : 0.0;
    const bool isRight = isComplete && median > 0.0 && median <= latestMs && std::abs(moved) <= mostMovedMs;
    if (!isRight && stalledMs > interruptedMs)
        GTEST_SKIP() << "this machine stood still for " << stalledMs << " ms while the sound was played";
    EXPECT_GE(all, fewestBeeps);
    EXPECT_GE(allAfter, fewestBeeps);
    ASSERT_TRUE(isComplete);
    EXPECT_GT(median, 0.0);
    EXPECT_LE(median, latestMs);
    EXPECT_LE(std::abs(moved), mostMovedMs) << run.errors().toStdString();
}

} // namespace

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    PulseServer own;
    if (own.start())
        server = &own;
    QCoreApplication application(argc, argv);
    return RUN_ALL_TESTS();
}
