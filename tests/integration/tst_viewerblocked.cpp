// An application whose event loop stands still for ten seconds: what it is handed afterwards, and what that
// costs.

#include "stallwatch.h"
#include "viewerrig.h"

#include "options.h"
#include "viewer.h"
#include "wallclock.h"

#include <zevqt-mm/mediaprovider.h>

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QFile>
#include <QThread>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <vector>

namespace {

constexpr double fps = 25.0;
constexpr double intervalUs = 1e6 / fps;
constexpr int blockedMs = 10000;
constexpr int attempts = 3;

struct HandOut
{
    double at; // wall-clock microseconds, as the timestamp
    double age;
};

double ageAt(const std::vector<HandOut> &handOuts, double share)
{
    std::vector<double> ages;
    for (const HandOut &handOut : handOuts)
        ages.push_back(handOut.age);
    std::sort(ages.begin(), ages.end());
    return ages.empty() ? 1e18 : ages[std::size_t(share * double(ages.size() - 1))];
}

// A line of /proc/self/status, in bytes; -1 when it is not there.
qint64 statusBytes(const char *field)
{
    QFile file(QStringLiteral("/proc/self/status"));
    if (file.open(QIODevice::ReadOnly))
        for (const QByteArray &line : file.readAll().split('\n'))
            if (line.startsWith(field))
                return line.simplified().split(' ').value(1).toLongLong() * 1024;
    return -1;
}

// VmHWM is the peak from now on.
bool forgetPeak()
{
    QFile file(QStringLiteral("/proc/self/clear_refs"));
    return file.open(QIODevice::WriteOnly | QIODevice::Unbuffered) && file.write("5") == 1;
}

class ViewerBlocked : public testing::TestWithParam<Options::Frames>
{
protected:
    static void run(int ms)
    {
        QTimer waker; // or there may be no event to wait for
        waker.start(50);
        for (QDeadlineTimer deadline(ms); !deadline.hasExpired();)
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    void note(double timestamp)
    {
        const double now = double(wallClockUs());
        handOuts.push_back({now, now - timestamp});
    }

    const QTemporaryDir directory;
    StallWatch stalls;
    std::vector<HandOut> handOuts;
};

INSTANTIATE_TEST_SUITE_P(Frames, ViewerBlocked,
                         testing::Values(Options::Frames::Video, Options::Frames::Image),
                         [](const auto &test) {
                             return test.param == Options::Frames::Video ? "video" : "image";
                         });

} // namespace

// What was queued meanwhile comes first, in one go; the next picture is one of now, with the usual delay.
TEST_P(ViewerBlocked, isLiveAgainAtOnceAndHasQueuedLittle)
{
    const TestPattern pattern{1280, 720, SHM_PIXEL_FORMAT_YUV420P, {SHM_MATRIX_BT709, SHM_RANGE_FULL, 0, 0}};
    qputenv("ZEV_SHM_DIR", directory.path().toUtf8());
    Publisher publisher(directory.path(), pattern, fps);
    ASSERT_TRUE(publisher.isReady());
    Options options;
    options.video = QUrl(QStringLiteral("shm:///cam0"));
    options.headless = true;
    options.frames = GetParam();
    options.audioDevice = QStringLiteral("none");

    // A machine that is busy with other things may be late once; what a program gets wrong it gets wrong
    // every time.
    double liveAfterMs = 1e18;
    double allowedMs = 0;
    double usualUs = 0;
    qint64 memoryCost = 0;
    int queued = 0;
    std::vector<HandOut> after;
    double missedToStalls = 0;
    const auto isSteady = [&] { return double(after.size()) + missedToStalls > 50; }; // of 75
    for (int i = 0; i < attempts && (liveAfterMs > allowedMs || ageAt(after, 0.5) > usualUs || !isSteady());
         ++i) {
        handOuts.clear();
        Viewer viewer(options, 0.0);
        QObject::connect(viewer.provider(), &MediaProvider::videoReady, &viewer,
                         [this](const QVideoFrame &frame) { note(double(frame.startTime())); });
        QObject::connect(viewer.provider(), &MediaProvider::imageReady, &viewer,
                         [this](const QImage &image) { note(image.text(QStringLiteral("pts")).toDouble()); });
        viewer.start();
        run(4000);
        ASSERT_GT(handOuts.size(), 50u);
        // A source that is seen to be uneven is read a frame later.
        usualUs = ageAt({handOuts.end() - 25, handOuts.end()}, 0.9) + 2 * intervalUs;

        EXPECT_TRUE(forgetPeak());
        const qint64 memoryBefore = statusBytes("VmRSS");
        QThread::msleep(blockedMs);
        const double freeAt = double(wallClockUs());
        handOuts.clear();
        run(3000);
        memoryCost = statusBytes("VmHWM") - memoryBefore;

        const auto live = std::find_if(handOuts.begin(), handOuts.end(),
                                       [&](const HandOut &handOut) { return handOut.age <= usualUs; });
        if (live == handOuts.end()) {
            liveAfterMs = 1e18;
            continue;
        }
        queued = int(live - handOuts.begin());
        liveAfterMs = (live->at - freeAt) / 1000;
        const double stalledMs = stalls.worstMs(freeAt - 50000, live->at + 50000);
        allowedMs = intervalUs / 1000 + 100 + stalledMs;
        after.assign(live, handOuts.end());
        missedToStalls = stalls.totalMs(live->at, 1e18, intervalUs / 4000) / (intervalUs / 1000);
        std::printf(
            "%d queued pictures, live after %.1f ms (stalls up to %.0f ms); then %zu in three seconds "
            "(stalls up to %.0f ms, %.1f pictures long); usual delay %.1f ms, now %.1f ms; %.1f MiB more\n",
            queued, liveAfterMs, stalledMs, after.size(), stalls.worstMs(live->at, 1e18), missedToStalls,
            usualUs / 1000 - 2 * intervalUs / 1000, ageAt(after, 0.5) / 1000, double(memoryCost) / 1048576);
    }
    ASSERT_LE(liveAfterMs, allowedMs);
    EXPECT_LE(ageAt(after, 0.5), usualUs);
    EXPECT_TRUE(isSteady()) << after.size();
    EXPECT_LE(queued, 12); // what the store lets one reader hold, or the few images that are asked for
#if !defined __SANITIZE_ADDRESS__ && !defined __SANITIZE_THREAD__ // they keep what was freed
    EXPECT_LT(memoryCost, 24 << 20);                              // 250 images would be 440 MiB
#endif
    EXPECT_EQ(publisher.stopAndCountDrops(), 0);
}

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    QCoreApplication application(argc, argv);
    return RUN_ALL_TESTS();
}
