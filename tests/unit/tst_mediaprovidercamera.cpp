// Providers of capture devices, over a capture library of the test's own.
#include "fake_shm.h"
#include "fake_zevmm.h"

#include <zevqt-mm/mediaprovider.h>
#include <zevqt-mm/mediasource.h>
#include <zevqt-mm/v4l2mediasource.h>
#include <zevqt-mm/videotimeline.h>

#include <QtTest/QtTest>

#include <stdexcept>

using std::chrono::seconds;

class tst_MediaProviderCamera : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void devices_data();
    void devices();
    void withoutAPathThereIsNoVideo();
    void saysWhatIsUsed();
    void whatTheLibraryThrowsIsPassedOn();
    void badAudioUrlOpensNoCamera();
    void settingsAreHarmless();

    void ticksAskForVideoAndAudio();
    void sameNameServesBoth_data();
    void sameNameServesBoth();
    void separateAudioLeavesTheCameraSilent_data();
    void separateAudioLeavesTheCameraSilent();
    void imagesNeverCome();

    void goneCameraTurnsIntoThePictureAndBack();
    void deliversInItsOwnThread();
    void destructionWhileRunning();

private:
    static QUrl url(const char *text) { return QUrl(QString::fromUtf8(text)); }

    FakeShm &store = FakeShm::instance();
    FakeZevmm &library = FakeZevmm::instance();
    QTemporaryDir folder;
    QString picture;
    char image;
};

void tst_MediaProviderCamera::initTestCase()
{
    qunsetenv("ZEV_GL_DMABUF");
    QVERIFY(folder.isValid());
    picture = folder.filePath(QStringLiteral("nosignal.png"));
    QImage red(100, 50, QImage::Format_ARGB32);
    red.fill(Qt::red);
    QVERIFY(red.save(picture));
}

void tst_MediaProviderCamera::init()
{
    store.reset();
    library.reset();
}

void tst_MediaProviderCamera::cleanup()
{
    QCoreApplication::sendPostedEvents();
    QCOMPARE(library.alive, 0);
    QCOMPARE(store.openHandles, 0);
}

void tst_MediaProviderCamera::devices_data()
{
    QTest::addColumn<QUrl>("given");
    QTest::addColumn<QString>("device");
    QTest::newRow("empty authority") << url("v4l:///dev/video0") << "/dev/video0";
    QTest::newRow("no authority") << url("v4l:/dev/video0") << "/dev/video0";
    QTest::newRow("relative") << url("v4l:video0") << "video0";
    QTest::newRow("link of udev") << url("v4l:///dev/v4l/by-id/usb-Cam%20One")
                                  << "/dev/v4l/by-id/usb-Cam One";
    QTest::newRow("root") << url("v4l:///") << "/";
}

void tst_MediaProviderCamera::devices()
{
    QFETCH(QUrl, given);
    QFETCH(QString, device);
    MediaProvider provider(given, QUrl(), true);
    auto *source = qobject_cast<V4L2MediaSource *>(provider.getVideoSource().data());
    QVERIFY(source);
    QVERIFY(!source->parent());
    QCOMPARE(source->name(), device);
    QVERIFY(!provider.getAudioSource());
    QVERIFY(provider.getTimeline());
    QCOMPARE(provider.getVideoFrameSize(), QSize(64, 36));
    QVERIFY(!provider.running());
    // Prepared, not started: that is the renderer's.
    QCOMPARE(library.takeCalls(), QStringList({QStringLiteral("new ") + device, QStringLiteral("setup")}));
    QCOMPARE(store.takeCalls(), QStringList());
}

void tst_MediaProviderCamera::withoutAPathThereIsNoVideo()
{
    MediaProvider provider(url("v4l:"), url("shm:///mic"), true);
    QVERIFY(!provider.getVideoSource());
    QVERIFY(!provider.getTimeline());
    QCOMPARE(provider.getAudioSource()->name(), QStringLiteral("mic"));
    QCOMPARE(library.takeCalls(), QStringList());
}

void tst_MediaProviderCamera::saysWhatIsUsed()
{
    QTest::ignoreMessage(QtDebugMsg, "MediaProvider: video4linux2 device /dev/video0 used as a video source");
    MediaProvider provider(url("v4l:///dev/video0"), QUrl(), true);
}

void tst_MediaProviderCamera::whatTheLibraryThrowsIsPassedOn()
{
    library.failing << QStringLiteral("setup");
    QObject parent;
    try {
        MediaProvider provider(url("v4l:///dev/video0"), QUrl(), false, &parent);
        QFAIL("nothing thrown");
    } catch (const std::runtime_error &error) {
        QCOMPARE(error.what(), "setup");
    }
    QVERIFY(parent.children().isEmpty());
    QCOMPARE(library.takeCalls(), QStringList({"new /dev/video0", "setup", "delete"}));
}

void tst_MediaProviderCamera::badAudioUrlOpensNoCamera()
{
    QVERIFY_EXCEPTION_THROWN(MediaProvider(url("v4l:///dev/video0"), url("file:///a"), true),
                             std::logic_error);
    QCOMPARE(library.takeCalls(), QStringList());
}

void tst_MediaProviderCamera::settingsAreHarmless()
{
    MediaProvider provider(url("v4l:///dev/video0"), QUrl(), true);
    library.takeCalls();
    provider.setFrameRate(50);
    provider.setRequestedFrameSize(QSize(8, 8));
    QCOMPARE(library.takeCalls(), QStringList());
    QCOMPARE(provider.getVideoFrameSize(), QSize(64, 36));
}

void tst_MediaProviderCamera::ticksAskForVideoAndAudio()
{
    MediaProvider provider(url("v4l:///dev/video0"), QUrl(), true);
    provider.enableVideoFrames();
    QSignalSpy frames(&provider, &MediaProvider::videoReady);
    QSignalSpy audio(&provider, &MediaProvider::audioReady);
    library.images << &image;
    library.takeCalls();
    provider.getTimeline()->externalTick(2000000);
    QCOMPARE(library.takeCalls(), QStringList({"isFrameReady", "readFrame"}));
    QCOMPARE(frames.count(), 1);
    const auto frame = frames.at(0).at(0).value<QVideoFrame>();
    QCOMPARE(frame.handle().value<void *>(), static_cast<void *>(&image));
    QCOMPARE(audio.count(), 1);
    QVERIFY(!audio.at(0).at(0).value<QAudioBuffer>().isValid());
}

void tst_MediaProviderCamera::sameNameServesBoth_data()
{
    QTest::addColumn<QUrl>("audio");
    QTest::newRow("same URL") << url("v4l:///dev/video0");
    QTest::newRow("a store of the same name") << url("shm:////dev/video0"); // names are compared, not schemes
}

void tst_MediaProviderCamera::sameNameServesBoth()
{
    QFETCH(QUrl, audio);
    MediaProvider provider(url("v4l:///dev/video0"), audio, true);
    QCOMPARE(provider.getAudioSource(), provider.getVideoSource());
    QCOMPARE(library.alive, 1);
    provider.enableVideoFrames();
    QSignalSpy frames(&provider, &MediaProvider::videoReady);
    library.images << &image;
    provider.getTimeline()->externalTick(2000000);
    QCOMPARE(frames.count(), 1);
    QVERIFY(frames.at(0).at(0).value<QVideoFrame>().isValid());
}

void tst_MediaProviderCamera::separateAudioLeavesTheCameraSilent_data()
{
    QTest::addColumn<bool>("images");
    QTest::addColumn<QUrl>("audio");
    QTest::addColumn<QString>("name");
    QTest::newRow("frames") << false << url("shm:///mic") << "mic";
    QTest::newRow("images") << true << url("shm:///mic") << "mic";
    QTest::newRow("another device, as a store") << false << url("v4l:///dev/video1") << "/dev/video1";
}

// With audio of its own the tick asks for video alone, which a camera does not answer.
void tst_MediaProviderCamera::separateAudioLeavesTheCameraSilent()
{
    QFETCH(bool, images);
    QFETCH(QUrl, audio);
    QFETCH(QString, name);
    MediaProvider provider(url("v4l:///dev/video0"), audio, true);
    QVERIFY(qobject_cast<V4L2MediaSource *>(provider.getVideoSource().data()));
    QVERIFY(qobject_cast<MediaSource *>(provider.getAudioSource().data()));
    QCOMPARE(provider.getAudioSource()->name(), name);
    if (images)
        provider.enableImageFrames();
    else
        provider.enableVideoFrames();
    QSignalSpy frames(&provider, &MediaProvider::videoReady);
    QSignalSpy idle(&provider, &MediaProvider::videoIdle);
    QSignalSpy pictures(&provider, &MediaProvider::imageReady);
    QSignalSpy buffers(&provider, &MediaProvider::audioReady);
    library.images << &image;
    library.takeCalls();
    provider.getTimeline()->externalTick(2000000);
    QCOMPARE(library.takeCalls(), QStringList());
    QCOMPARE(frames.count(), 0);
    QCOMPARE(idle.count(), 0);
    QCOMPARE(pictures.count(), 0);
    QCOMPARE(buffers.count(), 1); // the store's
    QVERIFY(buffers.at(0).at(0).value<QAudioBuffer>().isValid());
    provider.getVideoSource()->requestVideoAudio(0); // whose empty audio goes nowhere
    QCOMPARE(buffers.count(), 1);
}

void tst_MediaProviderCamera::imagesNeverCome()
{
    MediaProvider provider(url("v4l:///dev/video0"), QUrl(), true);
    provider.setNoSignalImage(picture, seconds(0));
    provider.enableImageFrames();
    QSignalSpy pictures(&provider, &MediaProvider::imageReady);
    library.images << &image;
    library.takeCalls();
    provider.getTimeline()->externalTick(2000000);
    QCOMPARE(library.takeCalls(), QStringList());
    QCOMPARE(pictures.count(), 0);
}

void tst_MediaProviderCamera::goneCameraTurnsIntoThePictureAndBack()
{
    MediaProvider provider(url("v4l:///dev/video0"), QUrl(), true);
    provider.setNoSignalImage(picture, seconds(3600));
    provider.enableVideoFrames();
    QSignalSpy frames(&provider, &MediaProvider::videoReady);
    QSignalSpy idle(&provider, &MediaProvider::videoIdle);
    const auto newest = [&] { return frames.last().at(0).value<QVideoFrame>(); };
    const auto tick = [&] { provider.getTimeline()->externalTick(2000000); };

    library.images << &image;
    tick();
    QCOMPARE(frames.count(), 1);
    QCOMPARE(newest().handleType(), QAbstractVideoBuffer::EGLImageHandle);

    tick(); // gone: the last picture stays for a while
    QCOMPARE(frames.count(), 1);
    QCOMPARE(idle.count(), 1);
    provider.setNoSignalImage(picture, seconds(0)); // which is over
    tick();
    QCOMPARE(frames.count(), 2);
    QCOMPARE(newest().handleType(), QAbstractVideoBuffer::NoHandle);
    QCOMPARE(newest().size(), QSize(100, 50));

    provider.setNoSignalImage(picture, seconds(3600));
    library.images << &image; // back, in another size
    library.format.width = 128;
    tick();
    QCOMPARE(frames.count(), 3);
    QCOMPARE(newest().handleType(), QAbstractVideoBuffer::EGLImageHandle);
    QCOMPARE(newest().size(), QSize(128, 36));
    tick();
    QCOMPARE(frames.count(), 3);
    QCOMPARE(idle.count(), 2); // and the delay begins anew
}

void tst_MediaProviderCamera::deliversInItsOwnThread()
{
    MediaProvider provider(url("v4l:///dev/video0"), QUrl());
    QThread *asked = nullptr;
    QThread *delivered = nullptr;
    connect(
        provider.getVideoSource().data(), &MediaSourceBase::videoReady, this,
        [&](const QVideoFrame &frame) {
            if (frame.isValid())
                asked = QThread::currentThread();
        },
        Qt::DirectConnection);
    connect(&provider, &MediaProvider::videoReady, this, [&](const QVideoFrame &frame) {
        if (frame.isValid())
            delivered = QThread::currentThread();
    });
    provider.enableVideoFrames();
    library.images << &image;
    provider.setRunning(true);
    QTRY_VERIFY_WITH_TIMEOUT(delivered != nullptr, 60000);
    provider.setRunning(false);
    QVERIFY(asked != QThread::currentThread());
    QCOMPARE(delivered, QThread::currentThread());
}

void tst_MediaProviderCamera::destructionWhileRunning()
{
    auto provider = std::make_unique<MediaProvider>(url("v4l:///dev/video0"), QUrl());
    provider->enableVideoFrames();
    provider->setFrameRate(500);
    QAtomicInt requests;
    connect(
        provider->getVideoSource().data(), &MediaSourceBase::videoReady, this,
        [&](const QVideoFrame &) { requests.ref(); }, Qt::DirectConnection);
    provider->setRunning(true);
    QTRY_VERIFY_WITH_TIMEOUT(requests.loadRelaxed() > 5, 60000);
    const auto source = provider->getVideoSource();
    provider.reset();
    QCOMPARE(library.alive, 1); // whoever draws still has it, to release what lies in the GPU
    const int then = requests.loadRelaxed();
    source->requestVideoAudio(0);
    QCOMPARE(requests.loadRelaxed(), then + 1); // nobody else asks any more
}

QTEST_GUILESS_MAIN(tst_MediaProviderCamera)

#include "tst_mediaprovidercamera.moc"
