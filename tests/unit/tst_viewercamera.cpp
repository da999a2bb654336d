// What the viewer does with a capture device; the capture library is a fake.
#include "camera.h"
#include "cameralist.h"
#include "fake_zevmm.h"
#include "report.h"
#include "storepublisher.h"
#include "viewer.h"

#include <zevqt-mm/mediaprovider.h>
#include <zevqt-mm/mediasource.h>
#include <zevqt-mm/v4l2mediasource.h>

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QFile>
#include <QJsonObject>
#include <QTemporaryDir>

#include <ctime>
#include <functional>
#include <stdexcept>

namespace {

bool waitFor(const std::function<bool()> &condition)
{
    const QDeadlineTimer deadline(60000);
    while (!condition()) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents, 20);
    }
    return true;
}

qint64 monotonicUs()
{
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return qint64(time.tv_sec) * 1000000 + time.tv_nsec / 1000;
}

class ViewerCamera : public testing::Test
{
protected:
    ViewerCamera()
    {
        library.reset();
        library.format.frameInterval = 40000;
        options.video = QUrl("v4l:///dev/video0");
        options.audioDevice = QStringLiteral("none");
    }

    FakeZevmm &library = FakeZevmm::instance();
    Options options;
    char image = 0;
};

TEST_F(ViewerCamera, aStoreIsNone)
{
    const QSharedPointer<MediaSourceBase> store(new MediaSource(QStringLiteral("cam0"), 100));
    EXPECT_EQ(Camera::of(store), nullptr);
    EXPECT_EQ(Camera::of({}), nullptr);
}

TEST_F(ViewerCamera, twoTicksForAFrameUpToTheScreensRate)
{
    const MediaProvider provider(options.video, QUrl(), true);
    const auto camera = Camera::of(provider.getVideoSource());
    ASSERT_TRUE(camera);
    library.format.frameInterval = 33333;
    EXPECT_DOUBLE_EQ(camera->tickRate(0.0), 60.0);
    EXPECT_DOUBLE_EQ(camera->tickRate(75.0), 60.0);
    EXPECT_DOUBLE_EQ(camera->tickRate(50.0), 50.0);
    library.format.frameInterval = 100000;
    EXPECT_DOUBLE_EQ(camera->tickRate(60.0), 20.0);
    library.format.frameInterval = 0; // not told
    EXPECT_DOUBLE_EQ(camera->tickRate(50.0), 50.0);
    EXPECT_DOUBLE_EQ(camera->tickRate(0.0), 60.0);
}

TEST_F(ViewerCamera, captureTimesAreTakenToTheWallClock)
{
    const MediaProvider provider(options.video, QUrl(), true);
    const auto camera = Camera::of(provider.getVideoSource());
    EXPECT_EQ(camera->lastCapturedAt(1000000000), 1000000000); // the driver does not tell
    library.statistics.lastTimestamp = monotonicUs() - 30000;
    const qint64 age = 1000000000 - camera->lastCapturedAt(1000000000);
    EXPECT_GE(age, 30000);
    EXPECT_LT(age, 10000000); // on a machine that is busy
}

TEST_F(ViewerCamera, colorsAreTheDrivers)
{
    const MediaProvider provider(options.video, QUrl(), true);
    const auto camera = Camera::of(provider.getVideoSource());
    EXPECT_EQ(camera->colorsName(), "BT.601 limited");
    library.format.encoding = zevmm::v4l2::ColorEncoding::Bt2020;
    library.format.fullRange = true;
    EXPECT_EQ(camera->colorsName(), "BT.2020 full");
    library.format.encoding = zevmm::v4l2::ColorEncoding::Bt709;
    EXPECT_EQ(camera->colorsName(), "BT.709 full");
}

TEST_F(ViewerCamera, framesAreCounted)
{
    Viewer viewer(options, 60.0);
    EXPECT_DOUBLE_EQ(viewer.figures().live.tickRate, 50.0);
    viewer.start();
    for (quint64 i = 1; i <= 5; ++i) {
        library.statistics.lastTimestamp = 0;
        library.offer(&image);
        ASSERT_TRUE(waitFor([&] { return viewer.figures().live.frames == i; }));
    }
    viewer.stop();
    const ViewerFigures figures = viewer.figures();
    EXPECT_EQ(figures.live.pixelFormat, "nv12");
    EXPECT_EQ(figures.live.size, QSize(64, 36));
    EXPECT_EQ(figures.live.framePath, "gpu");
    EXPECT_EQ(figures.live.sourceIntervalUs, 40000);
    EXPECT_FALSE(figures.sound.isWanted);
    EXPECT_TRUE(viewer.snapshot().isNull());
}

TEST_F(ViewerCamera, ticksBetweenTwoFramesAreNoPause)
{
    library.format.frameInterval = 10000000;
    options.fps = 100.0;
    Viewer viewer(options, 60.0);
    viewer.start();
    library.offer(&image);
    ASSERT_TRUE(waitFor([&] { return viewer.figures().live.unanswered > 20; }));
    viewer.stop();
    EXPECT_EQ(viewer.figures().live.frames, 1u);
    EXPECT_EQ(viewer.figures().live.idle, 0u);
    EXPECT_TRUE(viewer.statisticsText().contains("live"));
}

TEST_F(ViewerCamera, soundBesideItIsASourceOfItsOwn)
{
    const QTemporaryDir folder;
    qputenv("ZEV_SHM_DIR", QFile::encodeName(folder.path()));
    const StorePublisher microphone(QStringLiteral("mic"), QColor(), QSize(0, 0));
    ASSERT_TRUE(microphone.isOpen());
    options.audio = QUrl("shm:///mic");
    options.audioDevice = QStringLiteral("default");
    Viewer viewer(options, 60.0);
    // Not the provider's, which would ask for video alone.
    EXPECT_EQ(viewer.provider()->getAudioSource(), nullptr);
    EXPECT_TRUE(viewer.figures().sound.isWanted);
    viewer.provider()->setRunning(true);
    library.offer(&image);
    EXPECT_TRUE(waitFor([&] { return viewer.figures().live.frames == 1; }));
    // It comes with the ticks, also with those that find no frame.
    EXPECT_TRUE(waitFor([&] { return viewer.figures().audioBuffers > 3; }));
    EXPECT_EQ(viewer.figures().live.frames, 1u);
    viewer.stop();
}

TEST_F(ViewerCamera, goneAndBack)
{
    Viewer viewer(options, 60.0);
    QStringList told;
    QObject::connect(&viewer, &Viewer::problem, &viewer, [&](const QString &text) { told << text; });
    viewer.start();
    library.offer(&image);
    ASSERT_TRUE(waitFor([&] { return viewer.figures().live.frames == 1; }));
    EXPECT_TRUE(viewer.cameraTrouble().isEmpty());

    library.setTrouble("/dev/video0: the device has gone");
    ASSERT_TRUE(waitFor([&] { return !viewer.cameraTrouble().isEmpty(); }));
    EXPECT_EQ(viewer.figures().live.idle, 1u);
    EXPECT_EQ(told, QStringList{"/dev/video0: the device has gone (waiting)"});
    EXPECT_TRUE(viewer.statisticsText().contains("the device has gone"));
    ASSERT_TRUE(waitFor([&] { return viewer.figures().live.noSignal > 0; }));
    EXPECT_EQ(viewer.cameraTrouble(), "/dev/video0: the device has gone");

    library.setTrouble({});
    library.offer(&image);
    ASSERT_TRUE(waitFor([&] { return viewer.figures().live.frames == 2; }));
    EXPECT_TRUE(viewer.cameraTrouble().isEmpty());
    viewer.stop();
    EXPECT_EQ(told.size(), 1);
}

TEST_F(ViewerCamera, theReportTellsOfIt)
{
    library.statistics.captured = 7;
    library.statistics.skipped = 2;
    library.trouble = "no frames";
    const Viewer viewer(options, 60.0);
    const QJsonObject camera = reportOf(viewer.figures(), {}, 1.0)["camera"].toObject();
    EXPECT_EQ(camera["captured"].toInt(), 7);
    EXPECT_EQ(camera["skipped"].toInt(), 2);
    EXPECT_EQ(camera["trouble"].toString(), "no frames");
    EXPECT_TRUE(reportOf(ViewerFigures(), {}, 1.0)["camera"].isNull());
}

TEST_F(ViewerCamera, whatTheLibrarySaysIsPassedOn)
{
    library.failing << QStringLiteral("setup");
    EXPECT_THROW(Viewer(options, 60.0), std::runtime_error);
    EXPECT_EQ(library.alive, 0);
}

TEST(CameraList, namesDevicesFormatsSizesAndRates)
{
    zevmm::v4l2::Camera one;
    one.device = "/dev/video0";
    one.name = "Cam One";
    one.driver = "uvcvideo";
    one.bus = "usb-1";
    one.formats.push_back({0, "NV12", "Y/UV 4:2:0", {{640, 480, {30.0, 15.0}}, {1280, 720, {}}}});
    zevmm::v4l2::Camera other;
    other.device = "/dev/video2";
    other.problem = "/dev/video2: open failed: Permission denied; join the group";
    EXPECT_EQ(cameraListText({one, other}), "/dev/video0  Cam One (uvcvideo, usb-1)\n"
                                            "  show it with: zevqt-viewer v4l:///dev/video0\n"
                                            "  NV12  Y/UV 4:2:0\n"
                                            "    640x480  30, 15 frames/s\n"
                                            "    1280x720\n"
                                            "/dev/video2\n"
                                            "  cannot be shown: /dev/video2: open failed: Permission denied; "
                                            "join the group\n");
    EXPECT_EQ(cameraListText({}), QString());
}

} // namespace

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    QCoreApplication application(argc, argv);
    return RUN_ALL_TESTS();
}
