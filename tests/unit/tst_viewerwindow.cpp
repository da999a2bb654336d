// Keys, full screen and what the window tells the viewer, on a virtual display of its own.

#include "livevideo.h"
#include "planarframe.h"
#include "viewer.h"
#include "viewerwindow.h"
#include "xvfbserver.h"

#include <zevqt-mm/mediaprovider.h>

#include <gtest/gtest.h>

#include <QAudioBuffer>
#include <QDeadlineTimer>
#include <QGuiApplication>
#include <QQuickItem>
#include <QQuickView>
#include <QScreen>
#include <QtTest/qtestkeyboard.h>

#include <functional>

namespace {

bool waitFor(const std::function<bool()> &condition)
{
    const QDeadlineTimer deadline(30000);
    while (!condition()) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents, 20);
    }
    return true;
}

Options options()
{
    Options result;
    result.video = QUrl("shm:///nosuchstore");
    result.windowSize = QSize(320, 180);
    return result;
}

class ViewerWindowKeys : public testing::Test
{
protected:
    ViewerWindowKeys() : viewer(options(), 0.0), window(&viewer, options())
    {
        for (QWindow *candidate : QGuiApplication::topLevelWindows())
            if (auto *found = qobject_cast<QQuickView *>(candidate))
                view = found;
        QObject::connect(&window, &ViewerWindow::closed, &window, [this] { ++closed; });
    }
    void SetUp() override
    {
        ASSERT_TRUE(window.error().isEmpty()) << window.error().toStdString();
        ASSERT_TRUE(view);
        // There is no window manager: the focus that keys need comes from the window's own request.
        ASSERT_TRUE(waitFor([this] { return view->isActive() && view->isExposed(); }));
    }
    bool statistics() const { return view->rootObject()->property("statistics").toBool(); }
    LiveVideo *video() const { return view->rootObject()->findChild<LiveVideo *>("video"); }

    Viewer viewer;
    ViewerWindow window;
    QQuickView *view = nullptr;
    int closed = 0;
};

TEST_F(ViewerWindowKeys, sShowsAndHidesStatistics)
{
    EXPECT_FALSE(statistics());
    QTest::keyClick(view, Qt::Key_S);
    EXPECT_TRUE(statistics());
    QTest::keyClick(view, Qt::Key_S);
    EXPECT_FALSE(statistics());
}

TEST_F(ViewerWindowKeys, aGoesThroughTheFillModes)
{
    EXPECT_EQ(video()->fillMode(), LiveVideo::PreserveAspectFit);
    QTest::keyClick(view, Qt::Key_A);
    EXPECT_EQ(video()->fillMode(), LiveVideo::PreserveAspectCrop);
    QTest::keyClick(view, Qt::Key_A);
    EXPECT_EQ(video()->fillMode(), LiveVideo::Stretch);
    QTest::keyClick(view, Qt::Key_A);
    EXPECT_EQ(video()->fillMode(), LiveVideo::PreserveAspectFit);
}

TEST_F(ViewerWindowKeys, mMutesAndArrowsSetTheVolume)
{
    const Sound *sound = viewer.sound();
    EXPECT_FALSE(sound->muted());
    QTest::keyClick(view, Qt::Key_M);
    EXPECT_TRUE(sound->muted());
    EXPECT_EQ(sound->text(), "muted");
    QTest::keyClick(view, Qt::Key_M);
    EXPECT_FALSE(sound->muted());
    QTest::keyClick(view, Qt::Key_Up);
    EXPECT_EQ(sound->volume(), 1.0);
    for (int i = 0; i < 3; ++i)
        QTest::keyClick(view, Qt::Key_Down);
    EXPECT_NEAR(sound->volume(), 0.85, 1e-9);
    EXPECT_EQ(sound->text(), "85 %");
    for (int i = 0; i < 30; ++i)
        QTest::keyClick(view, Qt::Key_Down);
    EXPECT_EQ(sound->volume(), 0.0);
}

TEST_F(ViewerWindowKeys, metersShowTheChannelsThatThereAre)
{
    const auto *meters = view->rootObject()->findChild<QQuickItem *>("meters");
    ASSERT_TRUE(meters);
    EXPECT_FALSE(meters->isVisible());
    view->resize(640, 360);
    ASSERT_TRUE(waitFor([this] { return view->rootObject()->height() == 360; }));

    QAudioFormat format;
    format.setSampleRate(48000);
    format.setChannelCount(2);
    format.setSampleSize(16);
    format.setSampleType(QAudioFormat::SignedInt);
    format.setByteOrder(QAudioFormat::LittleEndian);
    format.setCodec("audio/pcm");
    QByteArray samples(4 * 4800, 0);
    auto *values = reinterpret_cast<qint16 *>(samples.data());
    for (int i = 0; i < 4800; ++i)
        values[2 * i] = i % 2 ? 16384 : -16384; // left at -6 dB, right silent
    emit viewer.provider()->audioReady(QAudioBuffer(samples, format));
    EXPECT_TRUE(meters->isVisible());
    EXPECT_EQ(meters->property("channels").toInt(), 2);
    const QImage shot = view->grabWindow();
    const QPoint corner = meters->position().toPoint() + QPoint(10, 12);
    const QRgb left = shot.pixel(corner + QPoint(7, 100));
    const QRgb right = shot.pixel(corner + QPoint(19 + 7, 100));
    EXPECT_GT(qGreen(left), 150); // well below -18 dB it is green
    EXPECT_LT(qRed(left), 100);
    EXPECT_LT(qGreen(right), 90);
    EXPECT_LT(qRed(shot.pixel(corner + QPoint(7, 6))), 100); // nothing between -3 and 0 dB
    EXPECT_EQ(viewer.figures().audioBuffers, 1u);
}

TEST_F(ViewerWindowKeys, fFillsTheScreenAndGoesBack)
{
    QTest::keyClick(view, Qt::Key_F);
    EXPECT_TRUE(waitFor([this] { return view->size() == view->screen()->size(); }));
    QTest::keyClick(view, Qt::Key_F);
    EXPECT_TRUE(waitFor([this] { return view->size() == QSize(320, 180); }));
    EXPECT_EQ(closed, 0);
}

TEST_F(ViewerWindowKeys, escapeAndQEnd)
{
    QTest::keyClick(view, Qt::Key_X);
    EXPECT_EQ(closed, 0);
    QTest::keyClick(view, Qt::Key_Escape);
    EXPECT_EQ(closed, 1);
    QTest::keyClick(view, Qt::Key_Q);
    EXPECT_EQ(closed, 2);
}

TEST_F(ViewerWindowKeys, closingTheWindowEnds)
{
    view->close();
    EXPECT_EQ(closed, 1);
}

TEST_F(ViewerWindowKeys, showsItsProvidersFrames)
{
    viewer.provider()->emitVideoFrame(
        twoColorFrame(QVideoFrame::Format_YUV420P, {64, 36}, {76, 85, 255}, {29, 255, 107}));
    EXPECT_EQ(video()->videoSize(), QSize(64, 36));
    const QImage shot = view->grabWindow();
    EXPECT_GT(qRed(shot.pixel(80, 90)), 250);
    EXPECT_GT(qBlue(shot.pixel(240, 90)), 250);
}

TEST_F(ViewerWindowKeys, theNoSignalPictureIsNoPictureOfTheSource)
{
    viewer.provider()->emitVideoFrame(QVideoFrame());
    EXPECT_EQ(video()->videoSize(), QSize(1280, 720)); // the built-in picture
    EXPECT_EQ(viewer.figures().live.frames, 0u);
    EXPECT_EQ(viewer.figures().live.noSignal, 1u);
    EXPECT_TRUE(viewer.snapshot().isNull());
}

} // namespace

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    const XvfbServer server;
    if (server.display().isEmpty()) {
        std::puts("skipped: Xvfb did not start");
        return 77;
    }
    qputenv("DISPLAY", server.display());
    qputenv("QT_QPA_PLATFORM", "xcb");
    QGuiApplication application(argc, argv);
    return RUN_ALL_TESTS();
}
