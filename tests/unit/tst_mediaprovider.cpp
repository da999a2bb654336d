#include "fake_shm.h"

#include "provider/sourceurl.h"

#include <zevqt-mm/mediaprovider.h>
#include <zevqt-mm/mediasource.h>
#include <zevqt-mm/videotimeline.h>

#include <QtTest/QtTest>

#include <stdexcept>

class tst_MediaProvider : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void urls_data();
    void urls();
    void badUrls_data();
    void badUrls();
    void videoUrlIsLookedAtFirst();
    void badUrlLeavesTheConstructor();

    void sameStoreServesBoth();
    void separateAudio();
    void audioOfADeviceUrlComesFromAStore();
    void videoOnly();
    void audioOnly_data();
    void audioOnly();
    void saysWhatIsUsed();

    void ticksReachNobodyAtFirst();
    void enabling_data();
    void enabling();
    void enablingRemovesOtherConnections();
    void running();
    void runningWithoutVideo();
    void runningAsAProperty();
    void stoppedByAListenerStaysStopped();
    void rapidSwitchingEndsAsAsked();
    void frameRateFromATick();
    void readsTwoFramesBehindTheNewest();
    void ticks25TimesASecondAtFirst();
    void frameRate();
    void frameRateOfTheThread();

    void deliversInItsOwnThread();
    void destructionWhileRunning();
    void framesOutliveTheProvider();

private:
    static QUrl url(const char *text) { return QUrl(QString::fromUtf8(text)); }

    FakeShm &store = FakeShm::instance();
};

void tst_MediaProvider::initTestCase()
{
    qunsetenv("ZEV_GL_DMABUF");
}

void tst_MediaProvider::init()
{
    store.reset();
}

void tst_MediaProvider::cleanup()
{
    QCoreApplication::sendPostedEvents();
    QCOMPARE(store.lockedFrames, 0);
    QCOMPARE(store.openHandles, 0);
}

void tst_MediaProvider::urls_data()
{
    QTest::addColumn<QUrl>("given");
    QTest::addColumn<int>("scheme");
    QTest::addColumn<QString>("name");
    QTest::newRow("empty") << QUrl() << int(MediaProvider::none) << "";
    QTest::newRow("shm with an empty authority") << url("shm:///cam0") << int(MediaProvider::shm) << "cam0";
    QTest::newRow("shm without") << url("shm:/cam0") << int(MediaProvider::shm) << "cam0";
    QTest::newRow("shm without a slash loses a letter")
        << url("shm:cam0") << int(MediaProvider::shm) << "am0";
    QTest::newRow("shm with a channel") << url("shm:///mic;2") << int(MediaProvider::shm) << "mic;2";
    QTest::newRow("shm, percent-encoded") << url("shm:///cam%200") << int(MediaProvider::shm) << "cam 0";
    QTest::newRow("shm without a name") << url("shm:///") << int(MediaProvider::shm) << "";
    QTest::newRow("v4l keeps the path whole")
        << url("v4l:///dev/video0") << int(MediaProvider::v4l) << "/dev/video0";
}

void tst_MediaProvider::urls()
{
    QFETCH(QUrl, given);
    QFETCH(int, scheme);
    QFETCH(QString, name);
    const auto video = extractSourceFromUrl<Video>(given);
    QCOMPARE(int(video.first), scheme);
    QCOMPARE(video.second, name);
    QVERIFY(extractSourceFromUrl<Audio>(given) == video);
}

void tst_MediaProvider::badUrls_data()
{
    QTest::addColumn<QUrl>("given");
    QTest::addColumn<QByteArray>("video");
    QTest::addColumn<QByteArray>("audio");
    const QByteArray noScheme = "MediaProvider requires non-empty scheme";
    QTest::newRow("bare path") << url("/dev/video0") << noScheme << noScheme;
    QTest::newRow("relative path") << url("cam0") << noScheme << noScheme;
    const auto row = [](const char *text, const char *scheme) {
        QTest::newRow(scheme) << url(text)
                              << QByteArray("MediaProvider does not support video scheme ") + scheme
                              << QByteArray("MediaProvider does not support audio scheme ") + scheme;
    };
    row("rtsp://camera/live", "rtsp");
    row("file:///tmp/a.mp4", "file");
    row("none:///cam0", "none"); // the value for an empty URL is no scheme
    row("shmx:///cam0", "shmx");
}

void tst_MediaProvider::badUrls()
{
    QFETCH(QUrl, given);
    QFETCH(QByteArray, video);
    QFETCH(QByteArray, audio);
    try {
        extractSourceFromUrl<Video>(given);
        QFAIL("video: nothing thrown");
    } catch (const std::logic_error &error) {
        QCOMPARE(QByteArray(error.what()), video);
    }
    try {
        extractSourceFromUrl<Audio>(given);
        QFAIL("audio: nothing thrown");
    } catch (const std::logic_error &error) {
        QCOMPARE(QByteArray(error.what()), audio);
    }
}

void tst_MediaProvider::videoUrlIsLookedAtFirst()
{
    try {
        MediaProvider provider(url("rtsp://a"), url("file:///b"), true);
        QFAIL("nothing thrown");
    } catch (const std::logic_error &error) {
        QCOMPARE(QByteArray(error.what()), QByteArray("MediaProvider does not support video scheme rtsp"));
    }
}

void tst_MediaProvider::badUrlLeavesTheConstructor()
{
    QObject parent;
    QVERIFY_EXCEPTION_THROWN(MediaProvider(url("shm:///cam0"), url("file:///a"), true, &parent),
                             std::logic_error);
    QVERIFY_EXCEPTION_THROWN(MediaProvider(url("cam0"), QUrl(), true, &parent), std::logic_error);
    QVERIFY(parent.children().isEmpty());
    QCOMPARE(store.takeCalls(), QStringList());
}

void tst_MediaProvider::sameStoreServesBoth()
{
    MediaProvider provider(url("shm:///cam0"), url("shm:///cam0"), true);
    QVERIFY(provider.getVideoSource());
    QCOMPARE(provider.getVideoSource(), provider.getAudioSource());
    QVERIFY(qobject_cast<MediaSource *>(provider.getVideoSource().data()));
    QCOMPARE(provider.getVideoSource()->name(), QStringLiteral("cam0"));
    QVERIFY(!provider.getVideoSource()->parent());
    QVERIFY(provider.getTimeline());
    QCOMPARE(provider.getTimeline()->parent(), &provider);
    QCOMPARE(store.takeCalls(), QStringList()); // nothing is opened yet
    QVERIFY(!provider.running());
}

void tst_MediaProvider::separateAudio()
{
    MediaProvider provider(url("shm:///cam0"), url("shm:///mic"), true);
    QVERIFY(provider.getAudioSource() != provider.getVideoSource());
    QCOMPARE(provider.getAudioSource()->name(), QStringLiteral("mic"));
    QSignalSpy audio(&provider, &MediaProvider::audioReady);
    provider.getAudioSource()->requestAudio(0);
    QCOMPARE(audio.count(), 1);
    provider.getVideoSource()->requestAudio(0); // not the video source's
    QCOMPARE(audio.count(), 1);
}

void tst_MediaProvider::audioOfADeviceUrlComesFromAStore()
{
    MediaProvider provider(url("shm:///cam0"), url("v4l:///dev/video0"), true);
    QVERIFY(qobject_cast<MediaSource *>(provider.getAudioSource().data()));
    QCOMPARE(provider.getAudioSource()->name(), QStringLiteral("/dev/video0"));
}

void tst_MediaProvider::videoOnly()
{
    MediaProvider provider(url("shm:///cam0"), QUrl(), true);
    QVERIFY(!provider.getAudioSource());
    QSignalSpy audio(&provider, &MediaProvider::audioReady);
    provider.getVideoSource()->requestAudio(0); // its own audio is delivered all the same
    QCOMPARE(audio.count(), 1);
}

void tst_MediaProvider::audioOnly_data()
{
    QTest::addColumn<QUrl>("video");
    QTest::addColumn<QUrl>("audio");
    QTest::addColumn<QString>("name");
    QTest::newRow("no video URL") << QUrl() << url("shm:///mic") << "mic";
    QTest::newRow("video URL without a name") << url("shm:///") << url("shm:///mic") << "mic";
    QTest::newRow("a device for audio") << QUrl() << url("v4l:///dev/video0") << "/dev/video0";
    QTest::newRow("nothing at all") << QUrl() << QUrl() << "";
}

void tst_MediaProvider::audioOnly()
{
    QFETCH(QUrl, video);
    QFETCH(QUrl, audio);
    QFETCH(QString, name);
    MediaProvider provider(video, audio, false);
    QVERIFY(!provider.getVideoSource());
    QVERIFY(!provider.getTimeline());
    QCOMPARE(provider.getAudioSource()->name(), name);
    QCOMPARE(provider.getVideoFrameSize(), QSize(-1, -1));
    provider.enableImageFrames();
    provider.enableVideoFrames();
    provider.setFrameRate(50);
    provider.setRunning(true);
    provider.setRunning(false);
    QCOMPARE(store.takeCalls(), QStringList());
    QSignalSpy buffers(&provider, &MediaProvider::audioReady);
    provider.getAudioSource()->requestAudio(0);
    QCOMPARE(buffers.count(), 1);
}

void tst_MediaProvider::saysWhatIsUsed()
{
    QTest::ignoreMessage(QtDebugMsg, "MediaProvider: shared memory cam0 used as a video source");
    MediaProvider provider(url("shm:///cam0"), QUrl(), true);
}

void tst_MediaProvider::ticksReachNobodyAtFirst()
{
    MediaProvider provider(url("shm:///cam0"), QUrl(), true);
    provider.getTimeline()->externalTick(0);
    QVERIFY(store.takeCalls().filter(QStringLiteral("lock_video ")).isEmpty());
}

void tst_MediaProvider::enabling_data()
{
    QTest::addColumn<bool>("images");
    QTest::addColumn<bool>("separate");
    QTest::newRow("frames") << false << false;
    QTest::newRow("frames, separate audio") << false << true;
    QTest::newRow("images") << true << false;
    QTest::newRow("images, separate audio") << true << true;
}

void tst_MediaProvider::enabling()
{
    QFETCH(bool, images);
    QFETCH(bool, separate);
    MediaProvider provider(url("shm:///cam0"), separate ? url("shm:///mic") : url("shm:///cam0"), true);
    if (images) {
        provider.enableVideoFrames(); // switching takes the former connections away
        provider.enableImageFrames();
    } else {
        provider.enableImageFrames();
        provider.enableVideoFrames();
    }
    QSignalSpy frames(&provider, &MediaProvider::videoReady);
    QSignalSpy pictures(&provider, &MediaProvider::imageReady);
    QSignalSpy audio(&provider, &MediaProvider::audioReady);
    QSignalSpy ticks(provider.getTimeline(), &VideoTimeline::tick);
    store.takeCalls();
    provider.getTimeline()->externalTick(2000000);
    QCOMPARE(ticks.count(), 1);
    const long long asked = ticks.at(0).at(0).toLongLong();

    QCOMPARE(frames.count(), images ? 0 : 1);
    QCOMPARE(pictures.count(), images ? 1 : 0);
    QCOMPARE(audio.count(), 1);
    const QStringList calls = store.takeCalls();
    QCOMPARE(calls.filter(QStringLiteral("lock_video ")),
             QStringList({QStringLiteral("lock_video %1 mode 0").arg(asked)}));
    // Combined requests take the audio of the frame's time, separate ones that of the tick.
    const long long start = separate ? asked : 1080000;
    QCOMPARE(audio.at(0).at(0).value<QAudioBuffer>().startTime(), qint64(start));
    QCOMPARE(calls.contains(QStringLiteral("open mic 100")), separate);
    if (images) {
        const auto image = pictures.at(0).at(0).value<QImage>();
        QCOMPARE(image.format(), QImage::Format_RGB16);
        QCOMPARE(image.size(), QSize(320, 180)); // of 64 x 36 in 320 x 240
    }
}

void tst_MediaProvider::enablingRemovesOtherConnections()
{
    MediaProvider provider(url("shm:///cam0"), QUrl(), true);
    QSignalSpy ticks(provider.getTimeline(), &VideoTimeline::tick);
    provider.getTimeline()->externalTick(0);
    QCOMPARE(ticks.count(), 1);
    provider.enableVideoFrames();
    provider.getTimeline()->externalTick(0);
    QCOMPARE(ticks.count(), 1);
}

void tst_MediaProvider::running()
{
    MediaProvider provider(url("shm:///cam0"), QUrl(), true);
    QStringList events;
    connect(&provider, &MediaProvider::runningChanged, this, [&](bool on) {
        events << QStringLiteral("running %1").arg(on);
        QCOMPARE(provider.running(), on);
    });
    connect(&provider, &MediaProvider::audioReady, this,
            [&](const QAudioBuffer &buffer) { events << (buffer.isValid() ? "audio" : "empty"); });
    provider.setRunning(false);
    QCOMPARE(events, QStringList());
    provider.setRunning(true);
    provider.setRunning(true);
    QCOMPARE(events, QStringList({"empty", "running 1"}));
    provider.setRunning(false);
    QCOMPARE(events, QStringList({"empty", "running 1", "empty", "running 0"}));
}

void tst_MediaProvider::runningWithoutVideo()
{
    MediaProvider provider(QUrl(), url("shm:///mic"), false);
    QSignalSpy changed(&provider, &MediaProvider::runningChanged);
    QSignalSpy audio(&provider, &MediaProvider::audioReady);
    provider.setRunning(true);
    provider.setRunning(false);
    QCOMPARE(changed.count(), 2);
    QCOMPARE(audio.count(), 2);
}

void tst_MediaProvider::runningAsAProperty()
{
    MediaProvider provider(url("shm:///cam0"), QUrl(), true);
    QCOMPARE(provider.property("running"), QVariant(false));
    QVERIFY(provider.setProperty("running", true));
    QVERIFY(provider.running());
}

void tst_MediaProvider::stoppedByAListenerStaysStopped()
{
    MediaProvider provider(url("shm:///cam0"), QUrl(), false);
    QAtomicInt ticks;
    connect(
        provider.getTimeline(), &VideoTimeline::tick, this, [&](long long) { ticks.ref(); },
        Qt::DirectConnection);
    const auto stops = connect(&provider, &MediaProvider::audioReady, this,
                               [&](const QAudioBuffer &) { provider.setRunning(false); });
    provider.setRunning(true);
    disconnect(stops);
    QVERIFY(!provider.running());
    const int then = ticks.loadRelaxed();
    // Ten ticks of another provider are time enough for one of the first.
    MediaProvider other(url("shm:///cam1"), QUrl(), false);
    QAtomicInt otherTicks;
    connect(
        other.getTimeline(), &VideoTimeline::tick, this, [&](long long) { otherTicks.ref(); },
        Qt::DirectConnection);
    other.setRunning(true);
    QTRY_VERIFY_WITH_TIMEOUT(otherTicks.loadRelaxed() > 10, 30000);
    QCOMPARE(ticks.loadRelaxed(), then);
}

void tst_MediaProvider::rapidSwitchingEndsAsAsked()
{
    MediaProvider provider(url("shm:///cam0"), QUrl(), false);
    QAtomicInt ticks;
    provider.setFrameRate(500);
    provider.enableVideoFrames();
    connect(
        provider.getTimeline(), &VideoTimeline::tick, this, [&](long long) { ticks.ref(); },
        Qt::DirectConnection);
    for (int i = 0; i < 500; ++i) {
        provider.setRunning(true);
        provider.setRunning(false);
    }
    const int then = ticks.loadRelaxed();
    QCoreApplication::processEvents();
    QCOMPARE(ticks.loadRelaxed(), then); // stopped means that no tick is under way
    provider.setRunning(true);
    QTRY_VERIFY_WITH_TIMEOUT(ticks.loadRelaxed() > then + 10, 30000);
}

void tst_MediaProvider::frameRateFromATick()
{
    MediaProvider provider(url("shm:///cam0"), QUrl(), false);
    QAtomicInt ticks;
    connect(
        provider.getTimeline(), &VideoTimeline::tick, this,
        [&](long long) {
            if (ticks.fetchAndAddRelaxed(1) < 20) // from the tick thread, which must not wait for itself
                provider.getTimeline()->setFrameRate(300000000 + ticks.loadRelaxed(), 1000000);
        },
        Qt::DirectConnection);
    provider.setRunning(true);
    QTRY_VERIFY_WITH_TIMEOUT(ticks.loadRelaxed() > 30, 30000);
    provider.setRunning(false);
    const int then = ticks.loadRelaxed();
    QCoreApplication::processEvents();
    QCOMPARE(ticks.loadRelaxed(), then);
}

void tst_MediaProvider::readsTwoFramesBehindTheNewest()
{
    MediaProvider provider(url("shm:///cam0"), QUrl(), true);
    QSignalSpy ticks(provider.getTimeline(), &VideoTimeline::tick);
    provider.getTimeline()->externalTick(1100000);
    QCOMPARE(ticks.at(0).at(0).toLongLong(), 1080000LL - 2 * 40000);
}

void tst_MediaProvider::ticks25TimesASecondAtFirst()
{
    MediaProvider provider(url("shm:///cam0"), QUrl(), true);
    VideoTimeline *timeline = provider.getTimeline();
    const auto now = [] {
        return std::chrono::duration_cast<std::chrono::microseconds>(
                   std::chrono::system_clock::now().time_since_epoch())
            .count();
    };
    provider.setRunning(true);
    timeline->adjustReadPosition(now());
    timeline->externalTick(1100000);
    QVERIFY(timeline->getReadOffset() != 0);
    provider.setFrameRate(25); // what it is already: no restart, after which a report would count again
    timeline->adjustReadPosition(now());
    QVERIFY(timeline->getReadOffset() != 0);
    provider.setFrameRate(24);
    timeline->adjustReadPosition(now());
    QCOMPARE(timeline->getReadOffset(), 0LL);
}

void tst_MediaProvider::frameRate()
{
    MediaProvider provider(url("shm:///cam0"), QUrl(), true);
    QVERIFY(provider.getVideoSource()->open());
    store.takeCalls();
    provider.setFrameRate(29.97);
    QCOMPARE(store.takeCalls(), QStringList({"set_fps 29970/1000"}));
}

void tst_MediaProvider::frameRateOfTheThread()
{
    MediaProvider provider(url("shm:///cam0"), QUrl(), false);
    QAtomicInt ticks;
    connect(
        provider.getTimeline(), &VideoTimeline::tick, this, [&](long long) { ticks.ref(); },
        Qt::DirectConnection);
    provider.setFrameRate(200);
    provider.setRunning(true);
    QTRY_VERIFY_WITH_TIMEOUT(ticks.loadRelaxed() > 10, 30000);
    provider.setRunning(false);
    const int then = ticks.loadRelaxed();
    provider.setFrameRate(100); // a stopped provider stays stopped
    QCoreApplication::processEvents();
    QCOMPARE(ticks.loadRelaxed(), then);
}

void tst_MediaProvider::deliversInItsOwnThread()
{
    MediaProvider provider(url("shm:///cam0"), url("shm:///cam0"), false);
    provider.setFrameRate(100);
    provider.enableVideoFrames();
    int frames = 0;
    bool isOwnThread = true;
    // Direct: tells where the provider emits.
    connect(
        &provider, &MediaProvider::videoReady, this,
        [&](const QVideoFrame &frame) {
            frames += frame.isValid() ? 1 : 0;
            isOwnThread = isOwnThread && QThread::currentThread() == thread();
        },
        Qt::DirectConnection);
    provider.setRunning(true);
    QTRY_VERIFY_WITH_TIMEOUT(frames > 10, 30000);
    QVERIFY(isOwnThread);
    provider.enableImageFrames(); // switched while running
    QSignalSpy images(&provider, &MediaProvider::imageReady);
    QTRY_VERIFY_WITH_TIMEOUT(images.count() > 10, 30000);
    provider.setRunning(false);
}

void tst_MediaProvider::destructionWhileRunning()
{
    for (int i = 0; i < 20; ++i) {
        MediaProvider provider(url("shm:///cam0"), url("shm:///mic"), false);
        provider.setFrameRate(500);
        provider.enableVideoFrames();
        provider.setRunning(true);
        bool ticked = false;
        const auto hasTicked = [&] {
            ticked = ticked || !store.takeCalls().filter(QStringLiteral("lock_video ")).isEmpty();
            return ticked;
        };
        QTRY_VERIFY_WITH_TIMEOUT(hasTicked(), 30000);
    }
}

void tst_MediaProvider::framesOutliveTheProvider()
{
    QVideoFrame kept;
    {
        MediaProvider provider(url("shm:///cam0"), QUrl(), true);
        connect(&provider, &MediaProvider::videoReady, this, [&](const QVideoFrame &frame) { kept = frame; });
        provider.enableVideoFrames();
        provider.getTimeline()->externalTick(0);
    }
    QVERIFY(kept.isValid());
    QCOMPARE(store.lockedFrames, 1);
    QVERIFY(kept.map(QAbstractVideoBuffer::ReadOnly));
    kept.unmap();
}

QTEST_GUILESS_MAIN(tst_MediaProvider)
#include "tst_mediaprovider.moc"
