// On a virtual display of its own: with the software scene graph, and with --opengl on OpenGL of GLX, without
// EGL.

#include "livevideo.h"
#include "planarframe.h"
#include "scenegraph_testing.h"
#include "sourcehooks.h"

#include <zevqt-mm/mediaprovider.h>
#include <zevqt-mm/shmemdmavideobuffer.h>

#include <shm/shm_reader.h>

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QQuickWindow>
#include <QTemporaryDir>

#include <atomic>
#include <memory>

namespace {

constexpr auto planar = QVideoFrame::Format_YUV420P;
constexpr auto nv12 = QVideoFrame::Format_NV12;

// BT.601 full range, which frames of this size without a statement are taken for.
constexpr Yuv redYuv{76, 85, 255};
constexpr Yuv blueYuv{29, 255, 107};
constexpr Yuv greenYuv{150, 44, 21};

bool near(QRgb pixel, QColor color)
{
    return std::abs(qRed(pixel) - color.red()) <= 4 && std::abs(qGreen(pixel) - color.green()) <= 4 &&
           std::abs(qBlue(pixel) - color.blue()) <= 4;
}

class LiveVideoTest : public testing::Test
{
protected:
    LiveVideoTest() : window(makeWindow()), item(new LiveVideo)
    {
        item->setParentItem(window->contentItem());
        item->setSize(window->size());
    }
    ~LiveVideoTest() override
    {
        delete item;
        window.reset();
        QCoreApplication::processEvents();
        EXPECT_EQ(PlanarBuffer::alive(), 0) << "a frame is still held";
    }

    // In the window's size: it may take a moment until the render thread knows of a new window, or size.
    QImage grab()
    {
        QImage shot;
        waitUntil([&] {
            shot = window->grabWindow();
            return shot.size() == window->size();
        });
        return shot;
    }
    QRgb pixel(int x, int y) { return grab().pixel(x, y); }
    // The picture's left and right half, in the middle of the item's height.
    void expectHalves(QColor left, QColor right)
    {
        const QImage shot = grab();
        ASSERT_EQ(shot.size(), window->size());
        EXPECT_TRUE(near(shot.pixel(shot.width() / 4, shot.height() / 2), left))
            << std::hex << shot.pixel(shot.width() / 4, shot.height() / 2);
        EXPECT_TRUE(near(shot.pixel(shot.width() * 3 / 4, shot.height() / 2), right))
            << std::hex << shot.pixel(shot.width() * 3 / 4, shot.height() / 2);
    }
    bool waitForPath(LiveVideo::FramePath path)
    {
        window->grabWindow();
        return waitUntil([&] { return item->framePath() == path; });
    }
    LiveVideo::FramePath planarPath() const
    {
        return withOpenGl() ? LiveVideo::Mapped : LiveVideo::Converted;
    }

    std::unique_ptr<QQuickWindow> window;
    LiveVideo *item;
};

TEST_F(LiveVideoTest, anEmptyItemDrawsNothing)
{
    expectHalves(Qt::black, Qt::black);
    EXPECT_EQ(item->videoSize(), QSize(0, 0));
    EXPECT_TRUE(waitForPath(LiveVideo::NoPath));
    item->present(QVideoFrame());
    item->presentImage(QImage());
    expectHalves(Qt::black, Qt::black);
}

struct Layout
{
    QVideoFrame::PixelFormat format;
    QSize size;
    int padding;
};
class LiveVideoLayouts : public LiveVideoTest, public testing::WithParamInterface<Layout>
{};

TEST_P(LiveVideoLayouts, showsItsColors)
{
    const Layout layout = GetParam();
    item->present(twoColorFrame(layout.format, layout.size, redYuv, blueYuv, layout.padding));
    expectHalves(Qt::red, Qt::blue);
    EXPECT_EQ(item->videoSize(), layout.size);
    EXPECT_TRUE(waitForPath(planarPath()));
    EXPECT_EQ(item->framePathReason().isEmpty(), withOpenGl());
}

INSTANTIATE_TEST_SUITE_P(Layouts, LiveVideoLayouts,
                         testing::Values(Layout{planar, {64, 32}, 0}, Layout{planar, {64, 32}, 64},
                                         Layout{nv12, {64, 32}, 0}, Layout{nv12, {64, 32}, 64},
                                         Layout{
                                             nv12, {64, 32}, 3}, // rows of UV pairs that are not whole texels
                                         Layout{planar, {65, 33}, 5}, Layout{nv12, {63, 31}, 0}));

TEST_F(LiveVideoTest, paddingIsNeverShown)
{
    item->setFillMode(LiveVideo::Stretch);
    for (const auto format : {planar, nv12}) {
        item->present(twoColorFrame(format, {50, 25}, redYuv, redYuv, 78));
        const QImage shot = window->grabWindow();
        for (int x = 0; x < shot.width(); ++x)
            ASSERT_TRUE(near(shot.pixel(x, 99), Qt::red)) << x;
    }
}

TEST_F(LiveVideoTest, followsEveryChangeOfFormatAndSize)
{
    QImage picture(64, 32, QImage::Format_RGB32);
    picture.fill(Qt::yellow);
    item->present(twoColorFrame(planar, {64, 32}, redYuv, blueYuv));
    expectHalves(Qt::red, Qt::blue);
    item->present(twoColorFrame(nv12, {64, 32}, blueYuv, greenYuv));
    expectHalves(Qt::blue, QColor(0, 255, 0));
    item->present(QVideoFrame(picture));
    expectHalves(Qt::yellow, Qt::yellow);
    EXPECT_TRUE(waitForPath(LiveVideo::Converted));
    item->present(twoColorFrame(planar, {128, 64}, greenYuv, redYuv, 32));
    expectHalves(QColor(0, 255, 0), Qt::red);
    EXPECT_TRUE(waitForPath(planarPath()));
    item->presentImage(picture);
    expectHalves(Qt::yellow, Qt::yellow);
    item->present(twoColorFrame(planar, {32, 16}, blueYuv, redYuv));
    expectHalves(Qt::blue, Qt::red);
}

TEST_F(LiveVideoTest, fillModesPlaceThePicture)
{
    // A square picture in a window twice as wide as high; its edges are told by their color.
    item->present(twoColorFrame(planar, {64, 64}, redYuv, blueYuv));
    EXPECT_TRUE(near(pixel(10, 50), Qt::black));
    EXPECT_TRUE(near(pixel(190, 50), Qt::black));
    EXPECT_TRUE(near(pixel(60, 2), Qt::red));
    EXPECT_TRUE(near(pixel(140, 97), Qt::blue));
    item->setFillMode(LiveVideo::Stretch);
    EXPECT_TRUE(near(pixel(10, 50), Qt::red));
    EXPECT_TRUE(near(pixel(190, 50), Qt::blue));
    item->setFillMode(LiveVideo::PreserveAspectCrop);
    EXPECT_TRUE(near(pixel(2, 2), Qt::red));
    EXPECT_TRUE(near(pixel(197, 97), Qt::blue));
}

TEST_F(LiveVideoTest, cropShowsTheMiddle)
{
    window->resize(100, 100);
    waitUntil([&] { return window->size() == QSize(100, 100); });
    item->setSize({100, 100});
    item->setFillMode(LiveVideo::PreserveAspectCrop);
    auto *buffer = new PlanarBuffer(planar, {64, 16}, 0);
    for (int row = 0; row < 16; ++row)
        for (int x = 0; x < 64; ++x)
            buffer->row(0, row)[x] = x < 20 || x >= 44 ? 0 : 255; // black outside the middle
    for (int row = 0; row < 8; ++row)
        for (int plane = 1; plane < 3; ++plane)
            std::fill_n(buffer->row(plane, row), 32, uchar(128));
    item->present(QVideoFrame(buffer, QSize(64, 16), planar));
    EXPECT_TRUE(near(pixel(2, 50), Qt::white));
    EXPECT_TRUE(near(pixel(97, 50), Qt::white));
}

TEST_F(LiveVideoTest, followsItsOwnSize)
{
    item->setFillMode(LiveVideo::Stretch);
    item->present(twoColorFrame(planar, {64, 32}, redYuv, blueYuv));
    item->setSize({100, 50});
    EXPECT_TRUE(near(pixel(75, 25), Qt::blue));
    EXPECT_TRUE(near(pixel(150, 75), Qt::black));
    item->setSize({200, 100});
    EXPECT_TRUE(near(pixel(150, 75), Qt::blue));
}

TEST_F(LiveVideoTest, opacityBlendsWithWhatIsBelow)
{
    item->present(twoColorFrame(planar, {64, 32}, redYuv, redYuv));
    item->setOpacity(0.5);
    EXPECT_TRUE(near(pixel(50, 50), QColor(127, 0, 0)));
}

TEST_F(LiveVideoTest, holdsTheNewestFrameOnly)
{
    for (int i = 0; i < 5; ++i)
        item->present(twoColorFrame(planar, {64, 32}, redYuv, blueYuv));
    EXPECT_EQ(PlanarBuffer::alive(), 1);
    window->grabWindow();
    EXPECT_EQ(PlanarBuffer::alive(), 1);
    for (int i = 0; i < 5; ++i) {
        item->present(twoColorFrame(nv12, {64, 32}, redYuv, blueYuv));
        window->grabWindow();
        EXPECT_EQ(PlanarBuffer::alive(), 1);
    }
    QImage picture(64, 32, QImage::Format_RGB32);
    picture.fill(Qt::yellow);
    item->presentImage(picture);
    EXPECT_EQ(PlanarBuffer::alive(), 0);
}

TEST_F(LiveVideoTest, clearLetsGoAndDrawsNothing)
{
    item->present(twoColorFrame(planar, {64, 32}, redYuv, blueYuv));
    expectHalves(Qt::red, Qt::blue);
    item->clear();
    EXPECT_EQ(PlanarBuffer::alive(), 0);
    expectHalves(Qt::black, Qt::black);
    EXPECT_EQ(item->videoSize(), QSize(0, 0));
}

TEST_F(LiveVideoTest, aHiddenItemDrawsNothingAndHoldsNoOldFrame)
{
    item->present(twoColorFrame(planar, {64, 32}, redYuv, blueYuv));
    window->grabWindow();
    item->setVisible(false);
    expectHalves(Qt::black, Qt::black);
    for (int i = 0; i < 3; ++i) {
        item->present(twoColorFrame(planar, {64, 32}, blueYuv, redYuv));
        window->grabWindow();
        EXPECT_EQ(PlanarBuffer::alive(), 1);
    }
    item->setVisible(true);
    expectHalves(Qt::blue, Qt::red);
}

TEST_F(LiveVideoTest, survivesAnotherWindow)
{
    item->present(twoColorFrame(planar, {64, 32}, redYuv, blueYuv));
    expectHalves(Qt::red, Qt::blue);
    const auto first = std::move(window);
    window = makeWindow();
    item->setParentItem(window->contentItem());
    expectHalves(Qt::red, Qt::blue);
    EXPECT_TRUE(near(first->grabWindow().pixel(50, 50), Qt::black));
    item->setParentItem(first->contentItem());
    EXPECT_TRUE(near(first->grabWindow().pixel(50, 50), Qt::red));
    item->setParentItem(window->contentItem());
}

TEST_F(LiveVideoTest, survivesTheLossOfItsGraphicsResources)
{
    item->present(twoColorFrame(planar, {64, 32}, redYuv, blueYuv));
    expectHalves(Qt::red, Qt::blue);
    window->setPersistentOpenGLContext(false);
    window->setPersistentSceneGraph(false);
    // It is also emitted when the window goes, after the end of this scope.
    const auto invalidated = std::make_shared<std::atomic<bool>>(false);
    QObject::connect(
        window.get(), &QQuickWindow::sceneGraphInvalidated, window.get(),
        [invalidated] { *invalidated = true; }, Qt::DirectConnection);
    window->hide();
    window->releaseResources();
    QCoreApplication::processEvents();
    window->show();
    ASSERT_TRUE(waitUntil([&] { return window->isExposed(); }));
    expectHalves(Qt::red, Qt::blue);
    EXPECT_TRUE(*invalidated || !withOpenGl());
}

TEST_F(LiveVideoTest, destructionWhileShownLeavesAnEmptyWindow)
{
    item->present(twoColorFrame(planar, {64, 32}, redYuv, blueYuv));
    expectHalves(Qt::red, Qt::blue);
    delete item;
    item = nullptr;
    EXPECT_EQ(PlanarBuffer::alive(), 0);
    expectHalves(Qt::black, Qt::black);
}

TEST_F(LiveVideoTest, aFrameThatCannotBeReadIsSaidSoAndTheNextOneShown)
{
    item->present(twoColorFrame(planar, {64, 32}, redYuv, blueYuv, 0, true));
    window->grabWindow();
    item->update();
    EXPECT_TRUE(waitForPath(LiveVideo::NoPath) || !withOpenGl());
    item->update();
    window->grabWindow();
    ASSERT_TRUE(waitUntil([&] { return item->framePathReason().contains("could not"); }))
        << item->framePathReason().toStdString();
    expectHalves(Qt::black, Qt::black);
    item->present(twoColorFrame(planar, {64, 32}, redYuv, blueYuv));
    expectHalves(Qt::red, Qt::blue);
}

TEST_F(LiveVideoTest, showsWhatItsProviderHandsOut)
{
    auto provider = std::make_unique<MediaProvider>(QUrl("shm:///nosuchstore"), QUrl());
    item->setSource(provider.get());
    EXPECT_EQ(item->source(), provider.get());
    provider->emitVideoFrame(twoColorFrame(planar, {64, 32}, redYuv, blueYuv));
    expectHalves(Qt::red, Qt::blue);
    QImage picture(64, 32, QImage::Format_RGB16);
    picture.fill(Qt::yellow);
    provider->emitImageFrame(picture);
    expectHalves(Qt::yellow, Qt::yellow);
    provider.reset();
    EXPECT_EQ(item->source(), nullptr);
    expectHalves(Qt::yellow, Qt::yellow);
}

// A frame of a store whose memory is a DMA buffer too; its halves as in twoColorFrame().
QVideoFrame dmaFrame(Yuv left, Yuv right)
{
    static uchar luma[32][64];
    static uchar chroma[16][64];
    for (int x = 0; x < 64; ++x) {
        const Yuv &color = x < 32 ? left : right;
        for (auto &row : luma)
            row[x] = color.y;
        for (auto &row : chroma)
            row[x] = x % 2 == 0 ? color.u : color.v;
    }
    std::unique_ptr<shm_video_frame_t, std::function<void(shm_video_frame_t *)>> record(
        new shm_video_frame_t(), [](shm_video_frame_t *locked) { delete locked; });
    record->width = 64;
    record->height = 32;
    record->planes[0] = luma[0];
    record->planes[1] = chroma[0];
    record->strides[0] = record->strides[1] = 64;
    record->matrix = SHM_MATRIX_BT601;
    record->range = SHM_RANGE_FULL;
    const int descriptor = 0; // never looked at here
    auto *buffer = new ShmemDmaVideoBuffer(SHM_PIXEL_FORMAT_NV12, descriptor, record);
    QVideoFrame frame(buffer, QSize(64, 32), nv12);
    frame.setMetaData(QStringLiteral("shmname"), QByteArrayLiteral("cam0"));
    frame.setMetaData(QStringLiteral("buffer"), QVariant::fromValue(static_cast<void *>(buffer)));
    return frame;
}

TEST_F(LiveVideoTest, aFrameInADmaBufferIsShownFromItsPlanesAndSaysWhy)
{
    item->present(dmaFrame(redYuv, blueYuv));
    expectHalves(Qt::red, Qt::blue);
    EXPECT_TRUE(waitForPath(planarPath()));
    EXPECT_EQ(item->framePathReason(),
              withOpenGl() ? "the window draws with desktop OpenGL, which has no external textures"
                           : "the scene graph does not draw with OpenGL");
}

TEST_F(LiveVideoTest, tellsWhatIsToBeSeen)
{
    EXPECT_EQ(item->videoState(), LiveVideo::Waiting);
    int changes = 0;
    QObject::connect(item, &LiveVideo::videoStateChanged, [&] { ++changes; });
    auto provider = std::make_unique<MediaProvider>(QUrl("shm:///nosuchstore"), QUrl());
    QImage standIn(64, 32, QImage::Format_RGB32);
    standIn.fill(Qt::yellow);
    const QTemporaryDir folder;
    ASSERT_TRUE(standIn.save(folder.filePath("none.png")));
    provider->setNoSignalImage(folder.filePath("none.png"), std::chrono::seconds(1000));
    item->setSource(provider.get());
    EXPECT_EQ(item->videoState(), LiveVideo::Waiting);
    EXPECT_EQ(changes, 0);

    provider->emitVideoFrame(dmaFrame(redYuv, blueYuv));
    EXPECT_EQ(item->videoState(), LiveVideo::Live);
    provider->emitVideoFrame(QVideoFrame());
    EXPECT_EQ(item->videoState(), LiveVideo::Idle);
    expectHalves(Qt::red, Qt::blue); // the last picture stays
    provider->setNoSignalImage(folder.filePath("none.png"), std::chrono::seconds(0));
    provider->emitVideoFrame(QVideoFrame());
    EXPECT_EQ(item->videoState(), LiveVideo::NoSignal);
    expectHalves(Qt::yellow, Qt::yellow);
    provider->emitVideoFrame(dmaFrame(blueYuv, redYuv));
    EXPECT_EQ(item->videoState(), LiveVideo::Live);
    expectHalves(Qt::blue, Qt::red);
    EXPECT_EQ(changes, 4);

    // A provider of images, and one without a picture that stands in.
    QImage image(64, 32, QImage::Format_RGB16);
    image.fill(Qt::red);
    provider->emitImageFrame(QImage());
    EXPECT_EQ(item->videoState(), LiveVideo::NoSignal);
    image.setText("pts", "1000");
    provider->emitImageFrame(image);
    EXPECT_EQ(item->videoState(), LiveVideo::Live);
    provider.reset();
    EXPECT_EQ(item->videoState(), LiveVideo::Idle);
    MediaProvider plain(QUrl("shm:///nosuchstore"), QUrl());
    item->setSource(&plain);
    EXPECT_EQ(item->videoState(), LiveVideo::Waiting);
    plain.setNoSignalImage(QString(), std::chrono::seconds(0));
    plain.emitVideoFrame(QVideoFrame());
    EXPECT_EQ(item->videoState(), LiveVideo::NoSignal);
    expectHalves(Qt::black, Qt::black);
    item->present(twoColorFrame(planar, {64, 32}, redYuv, blueYuv));
    EXPECT_EQ(item->videoState(), LiveVideo::Live);
    item->clear();
    EXPECT_EQ(item->videoState(), LiveVideo::Waiting);
    item->setSource(nullptr);
}

TEST_F(LiveVideoTest, followsTheTurnOfItsWindow)
{
    item->present(twoColorFrame(planar, {64, 32}, redYuv, blueYuv));
    for (const QSize size : {QSize(100, 200), QSize(200, 100), QSize(90, 180)}) {
        window->resize(size);
        ASSERT_TRUE(waitUntil([&] { return window->size() == size; }));
        item->setSize(size);
        const QImage shot = grab();
        ASSERT_EQ(shot.size(), size);
        const bool isPortrait = size.height() > size.width();
        // As wide as the window, so in a high one with black above and below.
        EXPECT_TRUE(near(shot.pixel(size.width() / 4, size.height() / 2), Qt::red));
        EXPECT_TRUE(near(shot.pixel(size.width() * 3 / 4, size.height() / 2), Qt::blue));
        EXPECT_TRUE(near(shot.pixel(size.width() / 4, 5), isPortrait ? Qt::black : Qt::red));
        EXPECT_TRUE(near(shot.pixel(size.width() / 4, size.height() - 5), isPortrait ? Qt::black : Qt::red));
    }
}

TEST_F(LiveVideoTest, aSourceThatIsNoProviderIsRefused)
{
    QObject other;
    item->setSource(&other);
    EXPECT_EQ(item->source(), nullptr);
}

TEST_F(LiveVideoTest, hooksOfTheSourceRunWithEverySynchronization)
{
    const QSharedPointer<HookedSource> source(new HookedSource);
    zevqml::SourceHooks hooks;
    hooks.attach(window.get(), source);
    item->update();
    window->grabWindow();
    EXPECT_GE(source->before, 1);
    EXPECT_EQ(source->before, source->after);
    EXPECT_EQ(source->hadContextBefore, withOpenGl());
    const int calls = source->before;
    hooks.detach();
    item->update();
    window->grabWindow();
    EXPECT_EQ(source->before, calls);
}

TEST_F(LiveVideoTest, aHookThatThrowsIsReportedOnceAndNotCalledAgain)
{
    const QSharedPointer<HookedSource> source(new HookedSource);
    source->isThrowing = true;
    zevqml::SourceHooks hooks;
    QStringList messages;
    QObject::connect(&hooks, &zevqml::SourceHooks::failed, window.get(),
                     [&](const QString &message) { messages << message; });
    hooks.attach(window.get(), source);
    for (int i = 0; i < 3; ++i) {
        item->present(twoColorFrame(planar, {64, 32}, redYuv, blueYuv));
        expectHalves(Qt::red, Qt::blue);
    }
    ASSERT_TRUE(waitUntil([&] { return !messages.isEmpty(); }));
    EXPECT_EQ(messages, QStringList{"no usable display"});
    EXPECT_EQ(source->before, 1);
}

// What a capture source does whose frames are EGL images: nothing leaves the render thread, nothing reaches
// the event loop, and other frames are shown.
TEST_F(LiveVideoTest, aSourceThatNeedsEglIsToldOfWhereThereIsNone)
{
    const QSharedPointer<HookedSource> source(new HookedSource);
    source->needsEgl = true;
    zevqml::SourceHooks hooks;
    QStringList messages;
    QObject::connect(&hooks, &zevqml::SourceHooks::failed, window.get(),
                     [&](const QString &message) { messages << message; });
    hooks.attach(window.get(), source);
    item->present(dmaFrame(redYuv, blueYuv));
    expectHalves(Qt::red, Qt::blue);
    ASSERT_TRUE(waitUntil([&] { return !messages.isEmpty(); }));
    item->present(dmaFrame(blueYuv, redYuv));
    expectHalves(Qt::blue, Qt::red);
    EXPECT_EQ(messages, QStringList{"no EGL here"});
    EXPECT_EQ(source->before, 1);
}

} // namespace

int main(int argc, char **argv)
{
    qputenv("QT_XCB_GL_INTEGRATION", "xcb_glx");
    return runOnDisplay(argc, argv);
}
