// A camera by URL: when it is opened, closed and opened again. On a virtual display of its own whose OpenGL
// comes through EGL, over a capture library of the test's own; what its frames look like is for the virtual
// machine's tests.
#include "fake_zevmm.h"
#include "livesource.h"
#include "livestream.h"
#include "livevideo.h"
#include "scenegraph_testing.h"
#include "storepublisher.h"

#include <zevqt-mm/eglimagecontext.h>
#include <zevqt-mm/mediaprovider.h>

#include <gtest/gtest.h>

#include <QAudioBuffer>
#include <QColor>
#include <QCoreApplication>
#include <QFile>
#include <QOpenGLContext>
#include <QQuickWindow>
#include <QTemporaryDir>

#include <atomic>
#include <memory>

namespace {

const QUrl camera(QStringLiteral("v4l:///dev/video0"));
const QUrl otherCamera(QStringLiteral("v4l:///dev/video1"));

class CameraSource : public testing::Test
{
protected:
    CameraSource()
    {
        library.reset();
        library.isExclusive = true; // whatever the device: one that is closed too late would be busy
        window = makeWindow();
        item = new LiveVideo(window->contentItem());
        item->setSize(window->size());
        QObject::connect(&source, &LiveSource::errorStringChanged, &source, [this] {
            if (!source.errorString().isEmpty())
                told << source.errorString();
        });
        item->setSource(&source);
    }
    ~CameraSource() override
    {
        delete item;
        window.reset();
        EXPECT_TRUE(waitUntil([this] { return library.alive == 0; }));
    }
    void SetUp() override
    {
        std::atomic<bool> isKnown{false}, hasEgl{false};
        const auto connection = QObject::connect(
            window.get(), &QQuickWindow::beforeSynchronizing, window.get(),
            [&] {
                hasEgl = zevgl::EGLImageContext::currentContext().display != nullptr;
                isKnown = true;
            },
            Qt::DirectConnection);
        window->update();
        ASSERT_TRUE(waitUntil([&] { return isKnown.load(); }));
        QObject::disconnect(connection);
        if (!hasEgl)
            GTEST_SKIP() << "OpenGL does not come through EGL here";
    }

    // So often it was made to stream since the last call.
    bool isStarted()
    {
        return waitUntil([this] {
            window->update();
            return library.takeCalls().contains(QStringLiteral("start"));
        });
    }
    bool isClosed()
    {
        return waitUntil([this] { return library.alive == 0; });
    }

    FakeZevmm &library = FakeZevmm::instance();
    QStringList told;
    LiveSource source;
    std::unique_ptr<QQuickWindow> window;
    LiveVideo *item = nullptr;
};

TEST_F(CameraSource, isClosedWithItsWindowAndOpenedWithIt)
{
    source.setVideo(camera);
    ASSERT_TRUE(isStarted());
    for (int i = 0; i < 3; ++i) {
        window->hide();
        ASSERT_TRUE(isClosed());
        const QStringList calls = library.takeCalls();
        const auto destroyed = calls.filter(QStringLiteral("destroyEGLImages"));
        ASSERT_EQ(destroyed.size(), 1) << calls.join(' ').toStdString();
        EXPECT_LT(calls.indexOf(QStringLiteral("stop")), calls.indexOf(destroyed.first()));
        EXPECT_LT(calls.indexOf(destroyed.first()), calls.indexOf(QStringLiteral("delete")));
        EXPECT_EQ(source.provider(), nullptr);
        window->show();
        ASSERT_TRUE(isStarted());
    }
    EXPECT_EQ(told, QStringList());
}

TEST_F(CameraSource, isNotBusyWithItselfWhenItsWindowIsShownAtOnce)
{
    source.setVideo(camera);
    ASSERT_TRUE(isStarted());
    for (int i = 0; i < 3; ++i) {
        window->hide();
        QCoreApplication::processEvents();
        window->show();
        ASSERT_TRUE(isStarted());
    }
    // And without it being noticed in between.
    window->hide();
    window->show();
    ASSERT_TRUE(isStarted());
    EXPECT_EQ(told, QStringList());
}

TEST_F(CameraSource, isNotBusyWithItselfAfterAnotherUrl)
{
    source.setVideo(camera);
    ASSERT_TRUE(isStarted());
    source.setVideo(otherCamera);
    ASSERT_TRUE(isStarted());
    source.setVideo(QUrl(QStringLiteral("v4l:/dev/video1")));
    ASSERT_TRUE(isStarted());
    source.setVideo(QUrl(QStringLiteral("shm:///nobody")));
    EXPECT_TRUE(isClosed());
    source.setVideo(camera);
    ASSERT_TRUE(isStarted());
    source.setRunning(false);
    EXPECT_TRUE(isClosed());
    source.setRunning(true);
    ASSERT_TRUE(isStarted());
    EXPECT_EQ(told.filter(QStringLiteral("busy")), QStringList());
}

TEST_F(CameraSource, isClosedWhenItsWindowIsHiddenBeforeItDrawsAgain)
{
    source.setVideo(camera);
    ASSERT_TRUE(isStarted());
    item->setSource(nullptr);
    window->hide();
    EXPECT_TRUE(isClosed());
}

TEST_F(CameraSource, isClosedWithAnItemThatIsHidden)
{
    source.setVideo(camera);
    ASSERT_TRUE(isStarted());
    item->setVisible(false);
    EXPECT_TRUE(isClosed());
    item->setVisible(true);
    EXPECT_TRUE(isStarted());
    EXPECT_EQ(told, QStringList());
}

// Somebody keeps the old one: it is said that the device is busy, and it is opened as soon as it is not.
TEST_F(CameraSource, isNotWaitedForForEver)
{
    source.setVideo(camera);
    ASSERT_TRUE(isStarted());
    QSharedPointer<MediaSourceBase> kept = source.provider()->getVideoSource();
    source.setVideo(otherCamera);
    EXPECT_TRUE(waitUntil([this] { return !told.isEmpty(); }));
    EXPECT_TRUE(told.value(0).contains(QStringLiteral("busy"))) << told.join(' ').toStdString();
    EXPECT_EQ(source.state(), LiveSource::Waiting);
    kept.reset();
    EXPECT_TRUE(isStarted());
    EXPECT_EQ(source.errorString(), QString());
}

TEST_F(CameraSource, soundBesideItIsAskedForWithItsTicks)
{
    const QTemporaryDir folder;
    qputenv("ZEV_SHM_DIR", QFile::encodeName(folder.path()));
    const StorePublisher microphone(QStringLiteral("mic"), QColor(), QSize(0, 0));
    ASSERT_TRUE(microphone.isOpen());
    source.setAudio(QUrl(QStringLiteral("shm:///mic")));
    source.setVideo(camera);
    ASSERT_TRUE(isStarted());
    // A provider with audio of its own would ask for video alone, which a camera does not answer.
    EXPECT_EQ(source.provider()->getAudioSource(), nullptr);
    int buffers = 0;
    const QObject here; // the source outlives the number
    QObject::connect(source.stream(), &LiveStream::audioReady, &here,
                     [&](const QAudioBuffer &buffer) { buffers += buffer.isValid() ? 1 : 0; });
    EXPECT_TRUE(waitUntil([&] { return buffers > 3; }));
    EXPECT_EQ(source.stream()->soundSource()->name(), QStringLiteral("mic"));
    EXPECT_EQ(told, QStringList());
}

// As a provider does of any other video.
TEST_F(CameraSource, soundBesideItOfASchemeThatIsNoneIsRefusedBeforeItIsOpened)
{
    source.setAudio(QUrl(QStringLiteral("file:///mic")));
    source.setVideo(camera);
    EXPECT_TRUE(waitUntil([this] {
        return source.errorString().contains("MediaProvider does not support audio scheme file");
    })) << source.errorString().toStdString();
    EXPECT_EQ(source.state(), LiveSource::NoSource);
    source.setAudio(QUrl(QStringLiteral("/tmp/mic")));
    EXPECT_TRUE(waitUntil([this] {
        return source.errorString().contains("MediaProvider requires non-empty scheme");
    })) << source.errorString().toStdString();
    EXPECT_EQ(source.state(), LiveSource::NoSource);
    EXPECT_EQ(source.provider(), nullptr);
    EXPECT_EQ(library.takeCalls(), QStringList());
    source.setAudio(QUrl());
    EXPECT_TRUE(isStarted());
}

TEST_F(CameraSource, ofTheSameNameIsTheSameSource)
{
    source.setAudio(camera);
    source.setVideo(camera);
    ASSERT_TRUE(isStarted());
    EXPECT_EQ(source.stream()->soundSource(), source.provider()->getVideoSource());
    EXPECT_EQ(source.provider()->getAudioSource(), source.provider()->getVideoSource());
}

TEST_F(CameraSource, withoutAPathSoundIsAlone)
{
    const QTemporaryDir folder;
    qputenv("ZEV_SHM_DIR", QFile::encodeName(folder.path()));
    const StorePublisher microphone(QStringLiteral("mic"), QColor(), QSize(0, 0));
    ASSERT_TRUE(microphone.isOpen());
    LiveStream::Wishes wishes;
    wishes.video = QUrl(QStringLiteral("v4l:"));
    wishes.audio = QUrl(QStringLiteral("shm:///mic"));
    const LiveStream stream(wishes);
    EXPECT_EQ(stream.provider()->getVideoSource(), nullptr);
    ASSERT_NE(stream.soundSource(), nullptr);
    EXPECT_EQ(stream.soundSource()->name(), QStringLiteral("mic"));
    EXPECT_EQ(library.takeCalls(), QStringList());
}

} // namespace

int main(int argc, char **argv)
{
    qputenv("QT_XCB_GL_INTEGRATION", "xcb_egl");
    static char openGl[] = "--opengl";
    QVector<char *> arguments(argv, argv + argc);
    arguments.insert(1, openGl);
    arguments << nullptr;
    return runOnDisplay(argc + 1, arguments.data());
}
