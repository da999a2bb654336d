// Sources whose frames live in the GPU, in a window: their hooks, and what is told when there is no EGL. On a
// virtual display of its own: with the software scene graph, and with --opengl on OpenGL that does not come
// through EGL. The capture library is a fake; what a camera's frames look like is for the virtual machine's
// tests.
#include "fake_zevmm.h"
#include "livevideo.h"
#include "planarframe.h"
#include "scenegraph_testing.h"
#include "sourcehooks.h"

#include <zevqt-mm/mediaprovider.h>
#include <zevqt-mm/videotimeline.h>

#include <gtest/gtest.h>

#include <QAbstractVideoBuffer>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QQuickWindow>
#include <QThread>

#include <memory>

namespace {

class Hooks : public testing::Test
{
protected:
    Hooks() : window(makeWindow()), source(new HookedSource) {}

    // Until the window has synchronized once more.
    void synchronize()
    {
        bool isDone = false;
        const auto connection = QObject::connect(
            window.get(), &QQuickWindow::afterRendering, window.get(), [&] { isDone = true; },
            Qt::QueuedConnection);
        window->update();
        window->grabWindow();
        EXPECT_TRUE(waitUntil([&] { return isDone; }));
        QObject::disconnect(connection);
    }

    std::unique_ptr<QQuickWindow> window;
    const QSharedPointer<HookedSource> source;
};

TEST_F(Hooks, resourcesAreReleasedAfterDetaching)
{
    zevqml::SourceHooks hooks;
    hooks.attach(window.get(), source);
    synchronize();
    ASSERT_GE(source->before, 1);
    EXPECT_EQ(source->released, 0);
    hooks.detach();
    EXPECT_EQ(source->released, 0) << "in another thread than the renderer's";
    synchronize();
    EXPECT_EQ(source->released, 1);
    EXPECT_EQ(source->hadContextAtRelease, withOpenGl());
    synchronize();
    EXPECT_EQ(source->released, 1);
}

TEST_F(Hooks, resourcesAreReleasedWithTheWindow)
{
    zevqml::SourceHooks hooks;
    hooks.attach(window.get(), source);
    synchronize();
    window.reset();
    EXPECT_EQ(source->released, 1);
    EXPECT_EQ(source->hadContextAtRelease, withOpenGl());
}

// As a QQuickView does: its items go first.
TEST_F(Hooks, resourcesAreReleasedWithTheWindowAlsoAfterDetaching)
{
    zevqml::SourceHooks hooks;
    hooks.attach(window.get(), source);
    synchronize();
    hooks.detach();
    window.reset();
    EXPECT_EQ(source->released, 1);
    EXPECT_EQ(source->hadContextAtRelease, withOpenGl());
}

TEST_F(Hooks, resourcesAreReleasedWhenTheWindowIsHiddenAndMadeAnewWhenItIsShown)
{
    zevqml::SourceHooks hooks;
    int released = 0;
    QObject::connect(&hooks, &zevqml::SourceHooks::released, window.get(), [&] { ++released; });
    hooks.attach(window.get(), source);
    synchronize();
    window->hide();
    EXPECT_EQ(source->released, 1);
    EXPECT_EQ(source->hadContextAtRelease, withOpenGl());
    EXPECT_TRUE(waitUntil([&] { return released == 1; }));
    EXPECT_EQ(hooks.generation(), 1u);

    const int before = source->before;
    window->show();
    ASSERT_TRUE(waitUntil([&] { return window->isExposed(); }));
    synchronize();
    EXPECT_GT(source->before, before);
    EXPECT_EQ(source->released, 1);
    window.reset();
    EXPECT_EQ(source->released, 2);
}

TEST_F(Hooks, resourcesAreReleasedWhenTheWindowIsHiddenAfterDetaching)
{
    QWeakPointer<MediaSourceBase> owned;
    {
        const QSharedPointer<HookedSource> other(new HookedSource);
        owned = other;
        zevqml::SourceHooks hooks;
        hooks.attach(window.get(), other);
        synchronize();
        hooks.detach();
        window->hide();
        EXPECT_EQ(other->released, 1);
        EXPECT_EQ(other->hadContextAtRelease, withOpenGl());
    }
    // What waits in the window for its next synchronization does not keep it.
    EXPECT_TRUE(waitUntil([&] { return owned.isNull(); }));
    window->show();
    ASSERT_TRUE(waitUntil([&] { return window->isExposed(); }));
    synchronize();
}

TEST_F(Hooks, nobodyIsKeptThatHasNothingToRelease)
{
    QWeakPointer<MediaSourceBase> owned;
    {
        const QSharedPointer<HookedSource> other(new HookedSource);
        owned = other;
        zevqml::SourceHooks hooks;
        hooks.attach(window.get(), other);
        synchronize();
        window->hide();
        hooks.detach();
        EXPECT_EQ(other->released, 1);
    }
    EXPECT_TRUE(waitUntil([&] { return owned.isNull(); }));
}

TEST_F(Hooks, whatWasNeverPreparedIsNotReleased)
{
    window->hide();
    QCoreApplication::processEvents();
    {
        zevqml::SourceHooks hooks;
        hooks.attach(window.get(), source);
    }
    window.reset();
    EXPECT_EQ(source->before, 0);
    EXPECT_EQ(source->released, 0);
}

TEST_F(Hooks, theLastOneReleases)
{
    zevqml::SourceHooks first, second;
    first.attach(window.get(), source);
    second.attach(window.get(), source);
    synchronize();
    first.detach();
    synchronize();
    EXPECT_EQ(source->released, 0);
    second.detach();
    synchronize();
    EXPECT_EQ(source->released, 1);
}

TEST_F(Hooks, aSecondWindowKeepsTheResources)
{
    auto other = makeWindow();
    zevqml::SourceHooks first, second;
    first.attach(other.get(), source);
    second.attach(window.get(), source);
    other->grabWindow();
    synchronize();
    other.reset();
    EXPECT_EQ(source->released, 0);
    EXPECT_EQ(second.generation(), 0u);
    window.reset();
    EXPECT_EQ(source->released, 1);
}

TEST_F(Hooks, attachingAnewReleasesNothing)
{
    zevqml::SourceHooks hooks;
    hooks.attach(window.get(), source);
    synchronize();
    hooks.attach(window.get(), source);
    synchronize();
    EXPECT_EQ(source->released, 0);
}

TEST_F(Hooks, framesThatWereUnderWayAreStale)
{
    zevqml::SourceHooks first, second;
    first.attach(window.get(), source);
    synchronize();
    EXPECT_EQ(first.generation(), 0u);
    EXPECT_FALSE(first.areFramesStale());
    first.detach();
    window->grabWindow(); // releases, and handles no events
    ASSERT_EQ(source->released, 1);
    second.attach(window.get(), source);
    EXPECT_EQ(second.generation(), 1u);
    EXPECT_TRUE(second.areFramesStale());
    QCoreApplication::processEvents();
    EXPECT_FALSE(second.areFramesStale());
    EXPECT_EQ(second.generation(), 1u);
}

TEST_F(Hooks, aHookThatThrewIsReleasedQuietlyAndTriedInANewSceneGraph)
{
    source->isThrowing = true;
    zevqml::SourceHooks hooks;
    QStringList messages;
    QStringList hints;
    int recovered = 0;
    QObject::connect(&hooks, &zevqml::SourceHooks::failed, window.get(),
                     [&](const QString &message, const QString &hint) {
                         messages << message;
                         hints << hint;
                     });
    QObject::connect(&hooks, &zevqml::SourceHooks::recovered, window.get(), [&] { ++recovered; });
    hooks.attach(window.get(), source);
    synchronize();
    synchronize();
    ASSERT_TRUE(waitUntil([&] { return !messages.isEmpty(); }));
    EXPECT_EQ(source->before, 1);
    EXPECT_TRUE(hints.first().contains(withOpenGl() ? "EGL" : "OpenGL")) << hints.first().toStdString();

    window->setPersistentOpenGLContext(false);
    window->setPersistentSceneGraph(false);
    window->hide();
    window->releaseResources();
    QCoreApplication::processEvents();
    if (source->released == 0)
        GTEST_SKIP() << "this scene graph outlives its window";
    source->isThrowing = false;
    window->show();
    ASSERT_TRUE(waitUntil([&] { return window->isExposed(); }));
    synchronize();
    ASSERT_TRUE(waitUntil([&] { return recovered > 0; }));
    EXPECT_GE(source->before, 2);
    EXPECT_EQ(messages, QStringList{"no usable display"});
}

TEST_F(Hooks, aHookThatThrowsAtEveryShowIsToldOnce)
{
    source->isThrowing = true;
    zevqml::SourceHooks hooks;
    QStringList messages;
    int recovered = 0;
    QObject::connect(&hooks, &zevqml::SourceHooks::failed, window.get(),
                     [&](const QString &message) { messages << message; });
    QObject::connect(&hooks, &zevqml::SourceHooks::recovered, window.get(), [&] { ++recovered; });
    hooks.attach(window.get(), source);
    synchronize();
    const auto showAgain = [&] {
        window->hide();
        QCoreApplication::processEvents();
        window->show();
        ASSERT_TRUE(waitUntil([&] { return window->isExposed(); }));
        synchronize();
    };
    showAgain();
    showAgain();
    EXPECT_GE(source->before, 3) << "not tried again";
    EXPECT_EQ(messages, QStringList{"no usable display"});

    // What was taken back is told again.
    source->isThrowing = false;
    showAgain();
    ASSERT_TRUE(waitUntil([&] { return recovered == 1; }));
    source->isThrowing = true;
    synchronize();
    EXPECT_TRUE(waitUntil([&] { return messages.size() == 2; }));
    EXPECT_EQ(messages.value(1), QStringLiteral("no usable display"));
}

// A frame whose image is somebody else's.
class BorrowedImage : public QAbstractVideoBuffer
{
public:
    BorrowedImage() : QAbstractVideoBuffer(EGLImageHandle) {}
    MapMode mapMode() const override { return NotMapped; }
    uchar *map(MapMode, int *, int *) override { return nullptr; }
    void unmap() override {}
    QVariant handle() const override
    {
        static char image;
        return QVariant::fromValue<void *>(&image);
    }
};

class CameraItem : public testing::Test
{
protected:
    CameraItem() : window(makeWindow())
    {
        FakeZevmm::instance().reset();
        provider = std::make_unique<MediaProvider>(QUrl("v4l:///dev/video0"), QUrl(), true);
        item = new LiveVideo(window->contentItem());
        item->setSize(window->size());
    }
    ~CameraItem() override
    {
        delete item;
        window.reset();
        provider.reset();
        QCoreApplication::processEvents();
        EXPECT_EQ(FakeZevmm::instance().alive, 0);
    }

    std::unique_ptr<QQuickWindow> window;
    std::unique_ptr<MediaProvider> provider;
    LiveVideo *item;
};

TEST_F(CameraItem, withoutEglTheReasonIsTold)
{
    QStringList told;
    QObject::connect(item, &LiveVideo::problemChanged, item, [&] { told << item->problem(); });
    item->setSource(provider.get());
    provider->enableVideoFrames();
    window->grabWindow();
    ASSERT_TRUE(waitUntil([&] { return !item->problem().isEmpty(); }));
    const QString hint = withOpenGl() ? QStringLiteral("the window's OpenGL does not come through EGL")
                                      : QStringLiteral("the scene graph does not draw with OpenGL");
    EXPECT_TRUE(item->problem().startsWith(hint)) << item->problem().toStdString();
    EXPECT_TRUE(item->problem().contains("V4L2MediaSource::doBeforeGLSynchronizing: display or functions"));
    EXPECT_EQ(told.size(), 1);
    EXPECT_FALSE(FakeZevmm::instance().takeCalls().contains("start"));

    // The picture that stands in keeps the reason.
    QImage picture(64, 32, QImage::Format_RGB32);
    picture.fill(Qt::yellow);
    item->present(QVideoFrame(picture));
    window->grabWindow();
    ASSERT_TRUE(waitUntil([&] { return item->framePath() == LiveVideo::Converted; }));
    EXPECT_EQ(item->framePathReason(), item->problem());

    item->setSource(nullptr);
    EXPECT_EQ(item->problem(), QString());
}

TEST_F(CameraItem, aFrameThatOnlyTheGpuCouldShowIsAProblem)
{
    item->present(QVideoFrame(new BorrowedImage, QSize(64, 36), QVideoFrame::Format_NV12));
    window->grabWindow();
    ASSERT_TRUE(waitUntil([&] { return !item->problem().isEmpty(); }));
    EXPECT_EQ(item->framePath(), LiveVideo::NoPath);
    EXPECT_EQ(item->problem(), item->framePathReason());
    EXPECT_TRUE(item->problem().startsWith("the source's frames are in the GPU only, and "))
        << item->problem().toStdString();
    EXPECT_EQ(window->grabWindow().pixelColor(100, 50), QColor(Qt::black));

    QImage picture(64, 32, QImage::Format_RGB32);
    picture.fill(Qt::yellow);
    item->present(QVideoFrame(picture));
    window->grabWindow();
    EXPECT_TRUE(waitUntil([&] { return item->problem().isEmpty(); }));
    EXPECT_EQ(item->framePath(), LiveVideo::Converted);
}

TEST_F(CameraItem, betweenTwoFramesItIsNotIdle)
{
    provider->enableVideoFrames();
    item->setSource(provider.get());
    char image;
    FakeZevmm::instance().offer(&image);
    QElapsedTimer clock;
    clock.start();
    provider->getTimeline()->externalTick(0);
    EXPECT_EQ(item->videoState(), LiveVideo::Live);
    provider->getTimeline()->externalTick(0); // for which there is no frame
    const auto state = item->videoState();
    const bool isOver = clock.elapsed() >= 400; // on a machine that is very busy half a second may be
    EXPECT_TRUE(state == LiveVideo::Live || isOver);
    EXPECT_TRUE(waitUntil([&] {
        provider->getTimeline()->externalTick(0);
        return item->videoState() == LiveVideo::Idle;
    }));
    EXPECT_GE(clock.elapsed(), 500);
}

TEST_F(CameraItem, betweenTwoFramesOfASlowCameraItIsNotIdle)
{
    provider->enableVideoFrames();
    item->setSource(provider.get());
    char images[3];
    FakeZevmm::instance().offer(&images[0]);
    provider->getTimeline()->externalTick(0);
    QThread::msleep(800);
    FakeZevmm::instance().offer(&images[1]);
    provider->getTimeline()->externalTick(0);
    QElapsedTimer clock;
    clock.start();
    QThread::msleep(800);
    provider->getTimeline()->externalTick(0); // for which there is no frame
    EXPECT_EQ(item->videoState(), LiveVideo::Live);
    EXPECT_TRUE(waitUntil([&] {
        provider->getTimeline()->externalTick(0);
        return item->videoState() == LiveVideo::Idle;
    }));
    EXPECT_GE(clock.elapsed(), 4000);

    // Nor does a long pause make the next one longer than that of a camera that slow.
    QThread::msleep(100);
    for (int i = 0; i < 2; ++i) {
        FakeZevmm::instance().offer(&images[i]);
        provider->getTimeline()->externalTick(0);
        EXPECT_EQ(item->videoState(), LiveVideo::Live);
    }
    clock.start();
    EXPECT_TRUE(waitUntil([&] {
        provider->getTimeline()->externalTick(0);
        return item->videoState() == LiveVideo::Idle;
    }));
    EXPECT_GE(clock.elapsed(), 500);
}

TEST_F(CameraItem, aProviderThatGoesBeforeItsItemIsLetGo)
{
    item->setSource(provider.get());
    window->grabWindow();
    provider.reset();
    EXPECT_EQ(item->source(), nullptr);
    window->grabWindow();
    EXPECT_TRUE(waitUntil([] { return FakeZevmm::instance().alive == 0; }));
}

} // namespace

int main(int argc, char **argv)
{
    qunsetenv("QT_XCB_GL_INTEGRATION");
    return runOnDisplay(argc, argv);
}
