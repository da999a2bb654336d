// Whether the viewer's picture comes with its sound: a flash and a beep at every full second, the flash as it
// is handed out, the beep as the sink plays it.

#include "beeps.h"
#include "monitorrecorder.h"
#include "processorwaits.h"
#include "pulseserver.h"
#include "stallwatch.h"
#include "toolpublisher.h"
#include "viewerrig.h"

#include "options.h"
#include "viewer.h"
#include "wallclock.h"

#include <zevqt-mm/mediaprovider.h>

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QTimer>

#include <algorithm>
#include <cmath>
#include <memory>

namespace {

PulseServer *server = nullptr;

constexpr double secondUs = 1e6;
constexpr int portionMs = 20; // in which the sink is to work, as a sound card does
constexpr int measuredS = 30;
constexpr int longestS = 75;
constexpr int fewestPairs = 20;
constexpr int mostUnpaired = 3;
// Whoever waits so long for a processor hands out late, whatever the program does.
constexpr double stalledMs = 8.0;
constexpr double justThenUs = 60000;
// And whoever waits longer may interrupt the sound, which is heard a while later. Then it comes later or
// earlier from one second to the next, and the picture takes its time to come with it again.
constexpr double interruptedMs = 60.0;
constexpr double interruptionUs = 2e6;
constexpr double movedUs = 10000;
constexpr double recoveryUs = 8e6;

struct Case
{
    const char *name;
    double fps;
    const char *sink;
    int rate;
};

void PrintTo(const Case &c, std::ostream *out)
{
    *out << c.name;
}

struct HandOut
{
    double at;
    double timestamp;
    bool isFlash;
    double account;  // the viewer's, of the age of what is heard; 0: unknown
    bool isCounted;  // in the viewer's statistics
    double waitedMs; // for a processor since the last one: the longest of all threads
};

double percentileOf(std::vector<double> values, double share)
{
    if (values.empty())
        return 0.0;
    std::sort(values.begin(), values.end());
    return values[std::size_t(share * double(values.size() - 1) + 0.5)];
}

// The left edge of the stage, where nothing is drawn but the flash.
bool isFlash(QVideoFrame frame)
{
    if (!frame.map(QAbstractVideoBuffer::ReadOnly))
        return false;
    const bool isWhite = frame.bits(0)[frame.bytesPerLine(0) * (frame.height() / 2) + 4] > 200;
    frame.unmap();
    return isWhite;
}

class ViewerSync : public testing::TestWithParam<Case>
{
protected:
    void SetUp() override
    {
        if (!server)
            GTEST_SKIP() << "no sound server: is pulseaudio installed?";
    }
    // Runs the event loop for so long, or until the condition is true.
    static bool run(int ms, const std::function<bool()> &until = {})
    {
        QTimer waker; // or there may be no event to wait for
        waker.start(50);
        for (QDeadlineTimer deadline(ms); !deadline.hasExpired();) {
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
            if (until && until())
                return true;
        }
        return false;
    }
    void watch(const Viewer *viewer)
    {
        QObject::connect(viewer->provider(), &MediaProvider::videoReady, viewer,
                         [this, viewer](const QVideoFrame &frame) {
                             const qint64 now = wallClockUs();
                             const AudioPlaybackAge &heard = viewer->sound()->heardAge();
                             const quint64 counted = viewer->figures().live.avOffsets;
                             handOuts.push_back({double(now), double(frame.startTime()), isFlash(frame),
                                                 heard.isKnown(now) ? double(heard.age()) : 0.0,
                                                 counted > countedBefore, waits.sinceLastMs()});
                             countedBefore = counted;
                         });
    }
    bool isFirstOfFlash(std::size_t i) const
    {
        return i > 0 && handOuts[i].isFlash && !handOuts[i - 1].isFlash;
    }
    // Somebody had no processor just then.
    bool isLate(std::size_t i)
    {
        const double at = handOuts[i].at;
        return worstWaitMs(i, justThenUs) > stalledMs ||
               stalls.worstMs(at - justThenUs, at + 2000) > stalledMs;
    }
    // Somebody had none for so long that the sound may have been interrupted.
    bool mayBeInterrupted(std::size_t i)
    {
        const double at = handOuts[i].at;
        return worstWaitMs(i, interruptionUs + recoveryUs) > interruptedMs ||
               stalls.worstMs(at - interruptionUs - recoveryUs, at) > interruptedMs;
    }
    // And it was, and the picture may not yet have come with it again. A sound that moves for no such reason
    // is nothing of the machine's.
    bool isInterrupted(std::size_t i, const std::vector<double> &beeps)
    {
        const double at = handOuts[i].at;
        if (!mayBeInterrupted(i))
            return false;
        double before = 0.0;
        for (auto beep = std::lower_bound(beeps.begin(), beeps.end(), at - recoveryUs - secondUs);
             beep != beeps.end() && *beep <= at + secondUs; ++beep) {
            const double age = std::fmod(*beep, secondUs);
            if (before > 0.0 && std::abs(age - before) > movedUs)
                return true;
            before = age;
        }
        return false;
    }
    double worstWaitMs(std::size_t i, double duringUs) const
    {
        const double from = handOuts[i].at - duringUs;
        double worst = 0.0;
        for (; i > 0 && handOuts[i].at >= from; --i)
            worst = std::max(worst, handOuts[i].waitedMs);
        return worst;
    }
    int flashesSince(double from)
    {
        int result = 0;
        for (std::size_t i = 0; i < handOuts.size(); ++i)
            result +=
                isFirstOfFlash(i) && handOuts[i].at >= from && !isLate(i) && !mayBeInterrupted(i) ? 1 : 0;
        return result;
    }

    StallWatch stalls;
    ProcessorWaits waits;
    quint64 countedBefore = 0;
    const QTemporaryDir directory{QStringLiteral("/tmp/zev-XXXXXX")};
    std::vector<HandOut> handOuts;
};

INSTANTIATE_TEST_SUITE_P(All, ViewerSync,
                         testing::Values(Case{"fps25rate48000", 25.0, "a", 48000},
                                         Case{"fps25rate44100", 25.0, "b", 44100},
                                         Case{"fps60rate48000", 60.0, "a", 48000},
                                         Case{"fps60rate44100", 60.0, "b", 44100}),
                         [](const auto &test) { return test.param.name; });

TEST_P(ViewerSync, theFlashComesWithItsBeep)
{
    const Case c = GetParam();
    const double intervalUs = secondUs / c.fps;
    qputenv("ZEV_SHM_DIR", directory.path().toUtf8());
    MonitorRecorder recorder;
    ASSERT_TRUE(recorder.start(c.sink, c.rate, portionMs));
    const ToolPublisher publisher(directory.path(), "av",
                                  {"test:avsync", "--size", "320x180", "--fps", QString::number(c.fps)});
    ASSERT_TRUE(waitUntil([&] { return publisher.hasFrame(); }));
    // The store has sound for the whole delay, and the sink has played what it had rendered ahead when nobody
    // listened.
    run(3000);

    Options options;
    options.video = QUrl(QStringLiteral("shm:///av"));
    options.headless = true;
    options.audioDevice = QLatin1String(c.sink);
    auto viewer = std::make_unique<Viewer>(options, 0.0);
    watch(viewer.get());
    viewer->start();
    // From when the picture follows on, and the correction that may come after three seconds was made.
    ASSERT_TRUE(run(20000, [&] { return viewer->figures().live.avOffsets > 0; }));
    run(8000);
    const double from = double(wallClockUs());
    run(measuredS * 1000);
    run((longestS - measuredS) * 1000, [&] { return flashesSince(from) >= fewestPairs + 2; });
    const ViewerFigures figures = viewer->figures();
    const std::size_t handedOut = handOuts.size(); // closing may handle events
    viewer->stop();
    viewer.reset();
    recorder.stop();

    // Every flash's first picture with the beep of the same second.
    const std::vector<double> beeps = beepsOf(recorder, c.rate);
    std::vector<double> offsets;
    std::vector<double> sizes;
    int flashes = 0;
    int unspoiled = 0;
    double heardAge = 0.0;
    const bool isVerbose = qEnvironmentVariableIsSet("ZEV_TEST_VERBOSE");
    for (std::size_t i = 1; i < handOuts.size(); ++i) {
        const HandOut &flash = handOuts[i];
        if (!isFirstOfFlash(i) || flash.at < from)
            continue;
        ++flashes;
        const double second = std::floor(flash.timestamp / secondUs) * secondUs;
        const auto beep = std::find_if(beeps.begin(), beeps.end(),
                                       [&](double at) { return at > second && at < second + secondUs; });
        const bool isFirst = flash.timestamp - second < intervalUs / 2;
        const bool isSpoiled = isLate(i) || isInterrupted(i, beeps);
        const bool isUsed = beep != beeps.end() && isFirst && !isSpoiled;
        unspoiled += isSpoiled ? 0 : 1;
        if (isVerbose)
            std::printf("%6.1f s: heard after %.1f ms, by the viewer's account %.1f, picture after %.1f, "
                        "waits %.1f, stalls %.1f%s\n",
                        (flash.at - from) / 1e6, beep == beeps.end() ? 0.0 : (*beep - second) / 1e3,
                        flash.account / 1e3, (flash.at - flash.timestamp) / 1e3, flash.waitedMs,
                        stalls.worstMs(flash.at - 1e6, flash.at),
                        isUsed      ? ""
                        : isSpoiled ? " (spoiled)"
                                    : " (unused)");
        if (!isUsed)
            continue;
        heardAge = *beep - second;
        offsets.push_back((*beep - flash.at) / 1000.0);
        sizes.push_back(std::abs(offsets.back()));
    }
    // The viewer's account of what is heard, against the last beep before; and its statistics, which are made
    // of that account.
    std::vector<double> accountErrors;
    std::vector<double> accounted;
    std::vector<double> accountedSizes;
    for (std::size_t i = 0; i < handedOut; ++i) {
        const HandOut &picture = handOuts[i];
        if (picture.isCounted) {
            accounted.push_back((picture.account - (picture.at - picture.timestamp)) / 1000.0);
            accountedSizes.push_back(std::abs(accounted.back()));
        }
        const auto beep = std::lower_bound(beeps.begin(), beeps.end(), picture.at);
        if (picture.account > 0.0 && beep != beeps.begin() && !isLate(i) && !isInterrupted(i, beeps))
            accountErrors.push_back(std::abs(picture.account - std::fmod(beep[-1], secondUs)) / 1000.0);
    }
    const double p95 = percentileOf(sizes, 0.95);
    std::printf("%zu pairs of %d flashes, %d spoiled: p50 %.1f ms, p95 of the size %.1f ms, worst %.1f ms; "
                "sound heard "
                "after %.1f ms; accounts of it within %.2f ms\n",
                offsets.size(), flashes, flashes - unspoiled, percentileOf(offsets, 0.5), p95,
                percentileOf(sizes, 1.0), heardAge / 1000.0, recorder.spreadUs() / 1000.0);
    std::printf(
        "the viewer's account of what is heard: off by %.1f ms at p95 of %zu pictures; its statistics: "
        "p50 %.1f, p95 %.1f ms of %llu; starts %d, silence %.0f ms, history short %.0f ms, stalls up to "
        "%.0f ms\n",
        percentileOf(accountErrors, 0.95), accountErrors.size(), figures.live.avOffsetMs,
        figures.live.avOffsetP95Ms, (unsigned long long)figures.live.avOffsets, figures.sound.starts,
        double(figures.sound.silenceUs) / 1000.0, double(figures.historyShortUs) / 1000.0, stalls.worstMs());
    EXPECT_EQ(accounted.size(), figures.live.avOffsets);
    EXPECT_NEAR(figures.live.avOffsetMs, percentileOf(accounted, 0.5), 1.0);
    EXPECT_NEAR(figures.live.avOffsetP95Ms, percentileOf(accountedSizes, 0.95), 1.0);
    if (unspoiled < fewestPairs)
        GTEST_SKIP() << "this machine let nobody be in time for long enough";
    // All but those at the ends, whose beep may not be in the recording.
    ASSERT_GE(offsets.size(), std::size_t(unspoiled - mostUnpaired));
    EXPECT_LE(p95, intervalUs / 2000.0 + 10.0);
    EXPECT_LE(percentileOf(accountErrors, 0.95), 8.0);
}

} // namespace

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    PulseServer own; // before Qt looks for a server
    if (own.start())
        server = &own;
    QCoreApplication application(argc, argv);
    return RUN_ALL_TESTS();
}
