// The viewer as a person uses it: real processes, a store, a virtual display looked at from outside.

#include "../remedies.h"
#include "stallwatch.h"
#include "viewerrig.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonValue>
#include <QLibraryInfo>
#include <QProcessEnvironment>
#include <QThread>

#include <algorithm>
#include <chrono>
#include <cmath>

namespace {

constexpr shm_color_t bt709{SHM_MATRIX_BT709, SHM_RANGE_FULL, 0, 0};
constexpr TestPattern plain{320, 180, SHM_PIXEL_FORMAT_YUV420P, bt709};

double nowUs()
{
    return double(std::chrono::duration_cast<std::chrono::microseconds>(
                      std::chrono::system_clock::now().time_since_epoch())
                      .count());
}

// A fresh store directory and files to write to.
class ViewerTest : public testing::Test
{
protected:
    ViewerRun::Where headless() const { return {directory.path(), {}, false}; }
    QString file(const QString &name) const { return directory.filePath(name); }
    // One run without a window, to its end.
    QJsonObject report(const QStringList &more, const QString &seconds = QStringLiteral("3"))
    {
        ViewerRun run(headless(), QStringList{"shm:///cam0", "--headless", "--seconds", seconds, "--report",
                                              file("report.json")} +
                                      more);
        EXPECT_EQ(run.wait(), 0) << run.errors().toStdString();
        return readJson(file("report.json"));
    }

    const QTemporaryDir directory;
};

// A display too, for the backend that is the parameter.
class ViewerWindowTest : public ViewerTest, public testing::WithParamInterface<bool>
{
protected:
    ViewerWindowTest() : server(QStringLiteral("800x480x24")) {}
    void SetUp() override { ASSERT_FALSE(server.display().isEmpty()) << "Xvfb did not start"; }

    ViewerRun::Where window() const { return {directory.path(), server.display(), GetParam()}; }
    QString backend() const { return GetParam() ? QStringLiteral("software") : QStringLiteral("opengl"); }
    // The window has no frame and lies in the screen's corner: there is no window manager.
    QImage shot(QSize size) const { return server.screenshot().copy(QRect(QPoint(), size)); }
    // Waits until the window shows the pattern's bars.
    double waitForBars(const TestPattern &pattern)
    {
        const QImage expected = expectedPicture(pattern, 0);
        double difference = 255.0;
        waitUntil([&] {
            difference = meanDifference(shot(expected.size()), expected, pattern.numberTop());
            return difference <= 3.0;
        });
        return difference;
    }
    bool keep(const QString &name, QSize size) const
    {
        return shot(size).save(artifact(QStringLiteral("viewer-%1-%2.png").arg(name, backend())));
    }

    const XvfbServer server;
};

INSTANTIATE_TEST_SUITE_P(Backends, ViewerWindowTest, testing::Bool(),
                         [](const auto &test) { return test.param ? "software" : "opengl"; });

// --- without a window
// ----------------------------------------------------------------------------------------

class ViewerRates : public ViewerTest, public testing::WithParamInterface<double>
{};

// A machine that is busy with other things may be late with a tick, and then a frame is skipped; what a
// program gets wrong it gets wrong every time.
constexpr int attempts = 3;

TEST_P(ViewerRates, everyFrameIsHandedOutOnce)
{
    const Publisher publisher(directory.path(), plain, GetParam());
    ASSERT_TRUE(publisher.isReady());
    QJsonObject r;
    for (int i = 0; i < attempts && r["skipped"].toInt(-1) != 0; ++i)
        r = report({}, QStringLiteral("5"));
    EXPECT_GT(r["frames"].toInt(), 4 * GetParam() / 2);
    EXPECT_EQ(r["invalid"].toInt(-1), 0);
    EXPECT_EQ(r["skipped"].toInt(-1), 0);
    EXPECT_EQ(r["idle_events"].toInt(-1), 0);
    EXPECT_EQ(r["distinct"].toInt() + r["repeated"].toInt(), r["frames"].toInt());
    EXPECT_NEAR(r["source_interval_us"].toDouble(), 1e6 / GetParam(), 10.0);
    EXPECT_DOUBLE_EQ(r["tick_fps"].toDouble(), GetParam());
    EXPECT_EQ(r["size"].toObject()["width"].toInt(), plain.width);
    EXPECT_EQ(r["size"].toObject()["height"].toInt(), plain.height);
    EXPECT_EQ(r["pixel_format"].toString(), "yuv420p");
    EXPECT_EQ(r["frame_path"].toString(), "mapped");
    const QJsonObject latency = r["latency_ms"].toObject();
    EXPECT_GT(latency["p50"].toDouble(), 0.0);
    EXPECT_LE(latency["p50"].toDouble(), latency["p95"].toDouble());
    EXPECT_LE(latency["p95"].toDouble(), latency["max"].toDouble());
}

INSTANTIATE_TEST_SUITE_P(Rates, ViewerRates, testing::Values(12.5, 25.0));

TEST_F(ViewerTest, imagesAreHandedOutInTheSourcesSize)
{
    const Publisher publisher(directory.path(), plain, 25.0);
    ASSERT_TRUE(publisher.isReady());
    const QJsonObject r = report({"--frames", "image", "--snapshot", file("s.png")});
    EXPECT_GT(r["frames"].toInt(), 20);
    EXPECT_EQ(r["invalid"].toInt(-1), 0);
    EXPECT_EQ(r["frame_path"].toString(), "image");
    EXPECT_EQ(r["pixel_format"].toString(), "rgb16");
    EXPECT_EQ(QImage(file("s.png")).size(), QSize(plain.width, plain.height));
}

TEST_F(ViewerTest, aFixedRateIsKept)
{
    const Publisher publisher(directory.path(), plain, 25.0);
    ASSERT_TRUE(publisher.isReady());
    const QJsonObject r = report({"--fps", "5"});
    EXPECT_DOUBLE_EQ(r["tick_fps"].toDouble(), 5.0);
    EXPECT_GT(r["frames"].toInt(), 5);
    EXPECT_LE(r["frames"].toInt(), 17);
    EXPECT_EQ(r["skipped"].toInt(-1), 0); // slow ticks explain what passes
}

TEST_F(ViewerTest, anotherRateOfTheSourceIsFollowed)
{
    auto publisher = std::make_unique<Publisher>(directory.path(), plain, 12.5);
    ASSERT_TRUE(publisher->isReady());
    ViewerRun run(headless(), {"shm:///cam0", "--headless", "--seconds", "9", "--report", file("r.json")});
    QElapsedTimer clock;
    clock.start();
    ASSERT_TRUE(waitUntil([&] { return clock.hasExpired(3000); }));
    publisher.reset();
    publisher = std::make_unique<Publisher>(directory.path(), plain, 20.0);
    ASSERT_TRUE(publisher->isReady());
    ASSERT_EQ(run.wait(), 0) << run.errors().toStdString();
    EXPECT_DOUBLE_EQ(readJson(file("r.json"))["tick_fps"].toDouble(), 20.0);
}

TEST_F(ViewerTest, aStoreThatIsNotThereIsNoSignal)
{
    const QJsonObject r = report({}, QStringLiteral("1"));
    EXPECT_EQ(r["frames"].toInt(-1), 0);
    EXPECT_GT(r["no_signal_frames"].toInt(), 0);
    EXPECT_GT(r["invalid_before_first"].toInt(), 0);
    EXPECT_EQ(r["invalid"].toInt(-1), 0);
    EXPECT_EQ(r["frame_path"].toString(), "none");
    EXPECT_TRUE(r["size"].isNull());
}

TEST_F(ViewerTest, aSignalEndsItCleanlyWithReportAndSnapshot)
{
    const Publisher publisher(directory.path(), plain, 25.0);
    ASSERT_TRUE(publisher.isReady());
    // Nothing tells from outside that it shows: a busy machine gets longer, anew.
    for (int showsMs = 2000; showsMs <= 16000 && !QFile::exists(file("s.png")); showsMs *= 2) {
        ViewerRun run(headless(),
                      {"shm:///cam0", "--headless", "--report", file("r.json"), "--snapshot", file("s.png")});
        QElapsedTimer clock;
        clock.start();
        ASSERT_TRUE(waitUntil([&] { return clock.hasExpired(showsMs); }));
        ASSERT_TRUE(run.isRunning());
        run.terminate();
        const int code = run.wait();
        const bool shown = readJson(file("r.json"))["frames"].toInt() > 0;
        EXPECT_EQ(code, shown ? 0 : 1) << run.errors().toStdString();
    }
    EXPECT_GT(readJson(file("r.json"))["frames"].toInt(), 0);
    EXPECT_FALSE(QImage(file("s.png")).isNull());
}

struct Colors
{
    int pixelFormat;
    uint8_t matrix;
    uint8_t range;
};
class ViewerColors : public ViewerTest, public testing::WithParamInterface<Colors>
{};

TEST_P(ViewerColors, snapshotMatchesAnotherConverter)
{
    const TestPattern pattern{320, 180, GetParam().pixelFormat, {GetParam().matrix, GetParam().range, 0, 0}};
    const Publisher publisher(directory.path(), pattern, 25.0);
    ASSERT_TRUE(publisher.isReady());
    report({"--snapshot", file("s.png")}, QStringLiteral("1.5"));
    const QImage snapshot(file("s.png"));
    EXPECT_LE(meanDifference(snapshot, expectedPicture(pattern, 0), pattern.numberTop()), 2.0);
    snapshot.save(
        artifact(QStringLiteral("snapshot-%1-%2-%3.png")
                     .arg(shm_pixel_format_name(pattern.pixelFormat), shm_matrix_name(pattern.color.matrix),
                          shm_range_name(pattern.color.range))));
}

constexpr Colors everyColor[] = {{SHM_PIXEL_FORMAT_YUV420P, SHM_MATRIX_BT601, SHM_RANGE_FULL},
                                 {SHM_PIXEL_FORMAT_YUV420P, SHM_MATRIX_BT709, SHM_RANGE_FULL},
                                 {SHM_PIXEL_FORMAT_NV12, SHM_MATRIX_BT601, SHM_RANGE_FULL},
                                 {SHM_PIXEL_FORMAT_NV12, SHM_MATRIX_BT709, SHM_RANGE_FULL},
                                 {SHM_PIXEL_FORMAT_NV12, SHM_MATRIX_BT709, SHM_RANGE_LIMITED},
                                 {SHM_PIXEL_FORMAT_YUV420P, SHM_MATRIX_BT601, SHM_RANGE_LIMITED},
                                 {SHM_PIXEL_FORMAT_YUV420P, SHM_MATRIX_BT2020, SHM_RANGE_FULL}};
INSTANTIATE_TEST_SUITE_P(Formats, ViewerColors, testing::ValuesIn(everyColor));

#ifdef ZEVSHM
class ViewerToolBars : public ViewerTest,
                       public testing::WithParamInterface<std::tuple<const char *, const char *>>
{};

TEST_P(ViewerToolBars, snapshotShowsTheirColors)
{
    const auto [matrix, format] = GetParam();
    BoundProcess tool;
    auto environment = QProcessEnvironment::systemEnvironment();
    environment.insert("ZEV_SHM_DIR", directory.path());
    tool.setProcessEnvironment(environment);
    tool.start(ZEVSHM, {"publish", "cam0", "test:bars", "--no-audio", "--size", "640x360", "--matrix", matrix,
                        "--format", format});
    ASSERT_TRUE(tool.waitForStarted(30000)); // the viewer waits for the store
    report({"--snapshot", file("s.png")});
    tool.kill();
    tool.waitForFinished();
    const QImage snapshot(file("s.png"));
    ASSERT_EQ(snapshot.size(), QSize(640, 360));
    const QColor bars[] = {Qt::white,   Qt::yellow, Qt::cyan, Qt::green,
                           Qt::magenta, Qt::red,    Qt::blue, Qt::black};
    for (int i = 0; i < 8; ++i) {
        const QColor seen = snapshot.pixelColor(40 + 80 * i, 90);
        EXPECT_LE(std::abs(seen.red() - bars[i].red()), 2) << i;
        EXPECT_LE(std::abs(seen.green() - bars[i].green()), 2) << i;
        EXPECT_LE(std::abs(seen.blue() - bars[i].blue()), 2) << i;
    }
}

INSTANTIATE_TEST_SUITE_P(Tool, ViewerToolBars,
                         testing::Combine(testing::Values("bt601", "bt709"),
                                          testing::Values("yuv420p", "nv12")));
#endif

TEST_F(ViewerTest, aBlockedViewerDisturbsNobody)
{
    QJsonObject free;
    for (int i = 0; i < attempts && free["skipped"].toInt(-1) != 0; ++i) {
        Publisher publisher(directory.path(), plain, 25.0);
        ASSERT_TRUE(publisher.isReady());
        ViewerRun blocked(headless(), {"shm:///cam0", "--headless", "--seconds", "15", "--block", "2,10",
                                       "--report", file("blocked.json")});
        ViewerRun other(headless(),
                        {"shm:///cam0", "--headless", "--seconds", "14", "--report", file("other.json")});
        EXPECT_EQ(other.wait(), 0) << other.errors().toStdString();
        EXPECT_EQ(blocked.wait(), 0) << blocked.errors().toStdString();
        EXPECT_EQ(publisher.stopAndCountDrops(), 0);
        free = readJson(file("other.json"));
        EXPECT_GT(free["frames"].toInt(), 200);
        EXPECT_EQ(free["invalid"].toInt(-1), 0);

        // Two seconds before, the frames that it was holding, and three seconds after.
        const QJsonObject held = readJson(file("blocked.json"));
        EXPECT_GT(held["distinct"].toInt(), 75);
        EXPECT_LT(held["distinct"].toInt(), 160);
    }
    EXPECT_EQ(free["skipped"].toInt(-1), 0);
}

TEST_F(ViewerTest, imagesDoNotPileUpWhileTheEventLoopIsBlocked)
{
    const Publisher publisher(directory.path(), plain, 25.0);
    ASSERT_TRUE(publisher.isReady());
    const QJsonObject r = report({"--frames", "image", "--block", "1,4"}, QStringLiteral("7"));
    EXPECT_GT(r["images_withheld"].toInt(), 80);
    EXPECT_GT(r["distinct"].toInt(), 40);
}

// --- wrong use
// -----------------------------------------------------------------------------------------------

struct Wrong
{
    QStringList arguments;
    int code;
    const char *named;
};
class ViewerWrongUse : public ViewerTest, public testing::WithParamInterface<Wrong>
{};

TEST_P(ViewerWrongUse, endsWithOneLineThatNamesIt)
{
    ViewerRun run(headless(), GetParam().arguments);
    EXPECT_EQ(run.wait(), GetParam().code) << run.errors().toStdString();
    EXPECT_TRUE(run.errors().startsWith("zevqt-viewer: ")) << run.errors().toStdString();
    EXPECT_TRUE(run.errors().contains(QLatin1String(GetParam().named))) << run.errors().toStdString();
    EXPECT_EQ(run.errors().count(QLatin1Char('\n')), 1) << run.errors().toStdString();
    EXPECT_TRUE(namesARemedy(run.errors().toStdString())) << run.errors().toStdString();
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ViewerWrongUse,
    testing::Values(Wrong{{}, 2, "URL is missing"}, Wrong{{"--nonsense"}, 2, "nonsense"},
                    Wrong{{"cam0", "--headless"}, 2, "MediaProvider requires non-empty scheme"},
                    Wrong{{"rtsp://host/cam", "--headless"}, 2, "does not support video scheme rtsp"},
                    Wrong{{"shm:///cam0", "--audio", "file:///x", "--headless"}, 2, "audio scheme file"},
                    Wrong{
                        {"shm:///cam0", "--no-signal", "/nowhere/x.png", "--headless"}, 2, "/nowhere/x.png"},
                    Wrong{{"shm:///cam0", "--no-signal", "/etc/passwd", "--headless"}, 2, "/etc/passwd"},
                    Wrong{{"shm:///cam0", "--report", "/nowhere/r.json", "--headless"}, 2, "/nowhere/r.json"},
                    Wrong{{"shm:///cam0", "--snapshot", "/nowhere/s.png", "--headless"}, 2, "/nowhere/s.png"},
                    Wrong{{"shm:///cam0", "--report", "/tmp", "--headless"}, 2, "'/tmp': it is not a file"},
                    Wrong{{"shm:///cam0", "--snapshot", "/tmp/s.xyz", "--headless"}, 2, "name it s.png"},
                    Wrong{{"shm:///cam0"}, 3, "run with --headless"}));

// A copy of the program beside a qt.conf that leads to no modules.
TEST_F(ViewerTest, aWindowThatCannotBeBuiltTellsWhatToInstall)
{
    const QString program = file("zevqt-viewer");
    ASSERT_TRUE(QFile::copy(VIEWER, program));
    QFile conf(file("qt.conf"));
    ASSERT_TRUE(conf.open(QIODevice::WriteOnly));
    conf.write("[Paths]\nPrefix=" + QLibraryInfo::location(QLibraryInfo::PrefixPath).toUtf8() +
               "\nPlugins=" + QLibraryInfo::location(QLibraryInfo::PluginsPath).toUtf8() +
               "\nQml2Imports=" + file("none").toUtf8() + "\n");
    conf.close();
    BoundProcess run;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("QT_QPA_PLATFORM", "offscreen");
    environment.remove("QML2_IMPORT_PATH");
    run.setProcessEnvironment(environment);
    run.start(program, {"shm:///cam0"});
    ASSERT_TRUE(run.waitForFinished(30000));
    EXPECT_EQ(run.exitCode(), 2);
    const std::string said = run.readAllStandardError().toStdString();
    const size_t last = said.find("zevqt-viewer: cannot build the window: ");
    ASSERT_NE(last, std::string::npos) << said;
    EXPECT_TRUE(namesARemedy(said.substr(last))) << said;
}

TEST_F(ViewerTest, aSnapshotOfNothingIsAFailure)
{
    ViewerRun run(headless(), {"shm:///cam0", "--headless", "--seconds", "1", "--snapshot", file("s.png"),
                               "--report", file("r.json")});
    EXPECT_EQ(run.wait(), 1);
    EXPECT_TRUE(run.errors().contains("no picture came")) << run.errors().toStdString();
    EXPECT_FALSE(QFileInfo::exists(file("s.png")));
    EXPECT_FALSE(readJson(file("r.json")).isEmpty());
}

TEST_F(ViewerTest, theVersionGoesToStandardOutput)
{
    BoundProcess program;
    program.start(VIEWER, {"--version"});
    ASSERT_TRUE(program.waitForFinished(30000));
    EXPECT_EQ(program.exitCode(), 0);
    EXPECT_EQ(program.readAllStandardOutput(), "zevqt-viewer " PROJECT_VERSION "\n");
}

TEST_F(ViewerTest, helpGoesToStandardOutput)
{
    ViewerRun run(headless(), {"--help"});
    EXPECT_EQ(run.wait(), 0);
    EXPECT_TRUE(run.errors().isEmpty());
}

// --- with a window
// -------------------------------------------------------------------------------------------

TEST_P(ViewerWindowTest, drawsTheRightColors)
{
    for (const Colors &colors : everyColor) {
        const TestPattern pattern{320, 180, colors.pixelFormat, {colors.matrix, colors.range, 0, 0}};
        const Publisher publisher(directory.path(), pattern, 25.0);
        ASSERT_TRUE(publisher.isReady());
        ViewerRun run(window(), {"shm:///cam0", "--size", "320x180", "--report", file("r.json")});
        EXPECT_LE(waitForBars(pattern), 3.0)
            << shm_pixel_format_name(pattern.pixelFormat) << ' ' << shm_matrix_name(pattern.color.matrix)
            << ' ' << shm_range_name(pattern.color.range);
        keep(QStringLiteral("colors-%1-%2-%3")
                 .arg(shm_pixel_format_name(pattern.pixelFormat), shm_matrix_name(pattern.color.matrix),
                      shm_range_name(pattern.color.range)),
             {320, 180});
        run.terminate();
        EXPECT_EQ(run.wait(), 0) << run.errors().toStdString();
        EXPECT_EQ(readJson(file("r.json"))["frame_path"].toString(), GetParam() ? "converted" : "mapped");
    }
}

#if defined __SANITIZE_ADDRESS__ || defined __SANITIZE_THREAD__
constexpr int instrumentedMs = 1000; // such programs take their time to start and to draw
#else
constexpr int instrumentedMs = 0;
#endif

// Three times: with another size, and back. What the machine itself held up is allowed on top.
TEST_P(ViewerWindowTest, aDeadPublisherIsNoSignalAndItsReturnIsLive)
{
    const TestPattern larger{640, 360, SHM_PIXEL_FORMAT_NV12, bt709};
    const QImage noSignal = QImage(QStringLiteral(NO_SIGNAL_PICTURE))
                                .scaled(320, 180, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
    const QImage bars = expectedPicture(plain, 0);
    const int numberTop = plain.numberTop();
    const auto shows = [&](const QImage &picture) {
        return meanDifference(shot({320, 180}), picture, numberTop) <= 8.0;
    };
    auto publisher = std::make_unique<Publisher>(directory.path(), plain, 25.0);
    ASSERT_TRUE(publisher->isReady());
    ViewerRun run(window(), {"shm:///cam0", "--size", "320x180", "--report", file("r.json")});
    ASSERT_LE(waitForBars(plain), 3.0);
    keep(QStringLiteral("live"), {320, 180});

    StallWatch stalls;
    constexpr int deaths = 3;
    for (int i = 0; i < deaths; ++i) {
        QElapsedTimer clock;
        double from = nowUs();
        publisher->killNow();
        clock.start();
        // The last picture stays for five seconds, to which a coarse timer may add or take away 5 %.
        while (clock.elapsed() < 4500) {
            ASSERT_TRUE(shows(bars)) << clock.elapsed() << " ms after the death";
            if (clock.elapsed() > 2000 && clock.elapsed() < 2500)
                keep(QStringLiteral("idle"), {320, 180});
            QThread::msleep(100);
        }
        ASSERT_TRUE(waitUntil([&] { return !shows(bars); }));
        const qint64 noSignalMs = clock.elapsed();
        ASSERT_TRUE(waitUntil([&] { return shows(noSignal); }));
        const double heldUpMs = stalls.totalMs(from + 4.9e6, nowUs());
        std::printf("no-signal picture %lld ms after the publisher's death (stalls %.0f ms)\n", noSignalMs,
                    heldUpMs);
        EXPECT_LE(noSignalMs, 5600 + instrumentedMs + heldUpMs);
        keep(QStringLiteral("nosignal"), {320, 180});

        from = nowUs();
        clock.start();
        publisher = std::make_unique<Publisher>(directory.path(), i % 2 == 0 ? larger : plain, 25.0);
        ASSERT_TRUE(publisher->isReady());
        ASSERT_TRUE(waitUntil([&] { return shows(bars); }));
        const qint64 liveMs = clock.elapsed();
        const double stalledMs = stalls.totalMs(from, nowUs());
        std::printf("live %lld ms after its return (stalls %.0f ms)\n", liveMs, stalledMs);
        EXPECT_LE(liveMs, 1500 + instrumentedMs + stalledMs);
        keep(QStringLiteral("returned"), {320, 180});
    }
    run.terminate();
    EXPECT_EQ(run.wait(), 0) << run.errors().toStdString();
    const QJsonObject r = readJson(file("r.json"));
    EXPECT_EQ(r["idle_events"].toInt(), deaths);
    EXPECT_GT(r["no_signal_frames"].toInt(), 0);
    EXPECT_EQ(r["size"].toObject()["width"].toInt(), larger.width);
}

TEST_P(ViewerWindowTest, fillModesPlaceThePicture)
{
    // A picture of 16:9 in a square window: bars above and below, the whole, or the middle.
    const Publisher publisher(directory.path(), plain, 25.0);
    ASSERT_TRUE(publisher.isReady());
    const auto pixelOf = [&](const char *fill, int x, int y, const std::function<bool(QRgb)> &accept) {
        ViewerRun run(window(), {"shm:///cam0", "--size", "400x400", "--fill", fill});
        const bool seen = waitUntil([&] { return accept(shot({400, 400}).pixel(x, y)); });
        // The picture has come when its white bar has; what lies outside is decided then.
        keep(QStringLiteral("fill-%1").arg(QLatin1String(fill)), {400, 400});
        return seen;
    };
    const auto white = [](QRgb p) { return qRed(p) > 250 && qGreen(p) > 250 && qBlue(p) > 250; };
    const auto yellow = [](QRgb p) { return qRed(p) > 250 && qGreen(p) > 250 && qBlue(p) < 5; };
    EXPECT_TRUE(pixelOf("stretch", 10, 10, white));
    EXPECT_TRUE(pixelOf("crop", 2, 2, yellow)); // the white bar is cut off
    EXPECT_TRUE(pixelOf("fit", 10, 100, white));
    const QImage fit(artifact(QStringLiteral("viewer-fill-fit-%1.png").arg(backend())));
    EXPECT_EQ(fit.pixel(10, 60), qRgb(0, 0, 0));
    EXPECT_EQ(fit.pixel(10, 340), qRgb(0, 0, 0));
}

TEST_P(ViewerWindowTest, imagesAreShown)
{
    const Publisher publisher(directory.path(), plain, 25.0);
    ASSERT_TRUE(publisher.isReady());
    ViewerRun run(window(),
                  {"shm:///cam0", "--size", "320x180", "--frames", "image", "--report", file("r.json")});
    EXPECT_TRUE(waitUntil([&] {
        const QImage screen = shot({320, 180});
        return qRed(screen.pixel(10, 10)) > 240 && qBlue(screen.pixel(10, 10)) > 240 &&
               qBlue(screen.pixel(270, 10)) > 240 && qRed(screen.pixel(270, 10)) < 10;
    }));
    keep(QStringLiteral("image"), {320, 180});
    run.terminate();
    EXPECT_EQ(run.wait(), 0) << run.errors().toStdString();
    EXPECT_EQ(readJson(file("r.json"))["frame_path"].toString(), "image");
}

TEST_P(ViewerWindowTest, statisticsLieOverThePicture)
{
    const TestPattern large{768, 432, SHM_PIXEL_FORMAT_YUV420P, bt709};
    const Publisher publisher(directory.path(), large, 25.0);
    ASSERT_TRUE(publisher.isReady());
    ViewerRun run(window(), {"shm:///cam0", "--size", "768x432", "--stats"});
    // The panel darkens the white bar, and text lies on it.
    const auto lightAndDark = [&] {
        const QImage panel = shot({768, 432}).copy(20, 20, 60, 100);
        int light = 0;
        int dark = 0;
        for (int y = 0; y < panel.height(); ++y)
            for (int x = 0; x < panel.width(); ++x)
                ++(qGreen(panel.pixel(x, y)) > 160 ? light : dark);
        return light > 100 && dark > 3000;
    };
    // Bit 6 of the frame's number: 2.5 s have passed, and the figures have been refreshed since.
    EXPECT_TRUE(waitUntil([&] {
        return lightAndDark() && qGreen(shot({768, 432}).pixel(768 / 16 * 9 + 24, 400)) > 250 &&
               qBlue(shot({768, 432}).pixel(620, 20)) > 250;
    }));
    keep(QStringLiteral("statistics"), {768, 432});
}

TEST_P(ViewerWindowTest, aBlockedWindowIsLiveAgainAtOnce)
{
    Publisher publisher(directory.path(), plain, 25.0);
    ASSERT_TRUE(publisher.isReady());
    ViewerRun run(window(), {"shm:///cam0", "--size", "320x180", "--block", "2,5", "--seconds", "10",
                             "--report", file("r.json")});
    EXPECT_EQ(run.wait(), 0) << run.errors().toStdString();
    EXPECT_EQ(publisher.stopAndCountDrops(), 0);
    EXPECT_GT(readJson(file("r.json"))["distinct"].toInt(), 60);
}

} // namespace

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    QCoreApplication application(argc, argv);
    return RUN_ALL_TESTS();
}
