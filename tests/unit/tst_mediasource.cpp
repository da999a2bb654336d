#include "fake_shm.h"

#include <zevqt-mm/mediasource.h>
#include <zevqt-mm/videoframeconverter.h>

#include <QtTest/QtTest>

class tst_MediaSource : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void constructionOpensNothing();
    void nameIsWithoutTheSuffix_data();
    void nameIsWithoutTheSuffix();
    void openAndClose();
    void videoStatus();
    void videoStatusOfAStoreThatHasGoneIsDefault();
    void videoStatusWithoutVideoIsDefault();
    void defaultSamplesCount();
    void defaultSamplesCountWithoutAudio();
    void configurationIsForwarded();

    void requestVideo();
    void requestImage();
    void requestImageOfNothing();
    void requestAudio();
    void requestVideoAudio();
    void requestVideoAudioOfNothing();
    void requestImageAudio();
    void requestImageAudioOfNothing();
    void requestsCarryTheTime_data();
    void requestsCarryTheTime();

    void imageFormatBeforeTheFirstImage();
    void imageFormatKeepsThePixelFormatOfTheFirst();
    void grabImage();
    void rawAudio();
    void announcesDestructionBeforeTheReaderGoes();

private:
    void watch(MediaSource &source);

    FakeShm &store = FakeShm::instance();
    QStringList emitted;
    QVideoFrame video;
    QImage image;
    QAudioBuffer audio;
};

void tst_MediaSource::initTestCase()
{
    qunsetenv("ZEV_GL_DMABUF");
}

void tst_MediaSource::init()
{
    store.reset();
    emitted.clear();
}

void tst_MediaSource::cleanup()
{
    video = QVideoFrame();
    image = QImage();
    audio = QAudioBuffer();
    QCOMPARE(store.lockedFrames, 0);
    QCOMPARE(store.openHandles, 0);
}

void tst_MediaSource::watch(MediaSource &source)
{
    connect(&source, &MediaSource::videoReady, this, [this](const QVideoFrame &frame) {
        emitted << (frame.isValid() ? "video" : "no video");
        video = frame;
    });
    connect(&source, &MediaSource::imageReady, this, [this](const QImage &picture) {
        emitted << (picture.isNull() ? "no image" : "image");
        image = picture;
    });
    connect(&source, &MediaSource::audioReady, this, [this](const QAudioBuffer &buffer) {
        emitted << (buffer.isValid() ? "audio" : "no audio");
        audio = buffer;
    });
}

void tst_MediaSource::constructionOpensNothing()
{
    MediaSource source(QStringLiteral("cam0"), 100);
    QCOMPARE(store.takeCalls(), QStringList());
    QVERIFY(!source.parent());
}

void tst_MediaSource::nameIsWithoutTheSuffix_data()
{
    QTest::addColumn<QString>("given");
    QTest::addColumn<QString>("expected");
    QTest::newRow("plain") << "cam0"
                           << "cam0";
    QTest::newRow("suffix") << "cam0;2"
                            << "cam0";
    QTest::newRow("beyond ASCII") << QString::fromUtf8("\xc3\xa9") << QString::fromUtf8("\xc3\xa9");
    QTest::newRow("up to the first NUL") << QString(QLatin1String("ca\0m", 4)) << "ca";
}

void tst_MediaSource::nameIsWithoutTheSuffix()
{
    QFETCH(QString, given);
    const MediaSource source(given, 100);
    QTEST(source.name(), "expected");
}

void tst_MediaSource::openAndClose()
{
    MediaSource source(QStringLiteral("cam0"), 55);
    QVERIFY(source.open());
    QCOMPARE(store.takeCalls().first(), QStringLiteral("open cam0 55"));
    source.close();
    QCOMPARE(store.openHandles, 0);
    store.exists = false;
    QVERIFY(!source.open());
}

void tst_MediaSource::videoStatus()
{
    MediaSource source(QStringLiteral("cam0"), 100);
    const MediaSourceBase::VideoStatus status = source.getVideoStatus();
    QCOMPARE(status.timestamps, store.timestamps);
    QCOMPARE(status.frameInterval, 40000LL);
    QCOMPARE(status.jitter, 100LL);
}

void tst_MediaSource::videoStatusOfAStoreThatHasGoneIsDefault()
{
    store.videoStatus.live = 0;
    MediaSource source(QStringLiteral("cam0"), 100);
    const MediaSourceBase::VideoStatus status = source.getVideoStatus();
    QVERIFY(status.timestamps.isEmpty());
    QCOMPARE(status.frameInterval, 0LL);
    QCOMPARE(status.jitter, 0LL);
    QVERIFY(store.takeCalls().filter(QStringLiteral("timestamps")).isEmpty());
}

void tst_MediaSource::videoStatusWithoutVideoIsDefault()
{
    store.format.has_video = 0;
    MediaSource source(QStringLiteral("mic"), 100);
    const MediaSourceBase::VideoStatus status = source.getVideoStatus();
    QVERIFY(status.timestamps.isEmpty());
    QCOMPARE(status.frameInterval, 0LL);
    QCOMPARE(source.getVideoFrameSize(), QSize(-1, -1));
    QVERIFY(!source.getVideoFrameSize().isValid());
}

void tst_MediaSource::defaultSamplesCount()
{
    MediaSource source(QStringLiteral("cam0"), 100);
    QCOMPARE(source.getDefaultSamplesCount(), 4800ul);
    source.setRequestedAudioSamplesCount(1024);
    QCOMPARE(source.getDefaultSamplesCount(), 1024ul);
    source.setRequestedAudioSamplesCount(0);
    QCOMPARE(source.getDefaultSamplesCount(), 4800ul);
}

void tst_MediaSource::defaultSamplesCountWithoutAudio()
{
    store.format.has_audio = 0;
    MediaSource source(QStringLiteral("cam0"), 100);
    QCOMPARE(source.getDefaultSamplesCount(), 0ul);
    watch(source);
    source.requestAudio(0);
    QCOMPARE(emitted, QStringList({"no audio"}));
}

void tst_MediaSource::configurationIsForwarded()
{
    MediaSource source(QStringLiteral("cam0"), 100);
    QVERIFY(source.open());
    store.takeCalls();
    source.setVideoFrameRate(30000u, 1001u);
    source.setVideoFrameRate(29.97);
    QCOMPARE(store.takeCalls(), QStringList({"set_fps 30000/1001", "set_fps 29970/1000"}));
    QCOMPARE(source.getVideoFrameSize(), QSize(64, 36));
    source.setRealtimeSyncRange(-100, 100); // the store's frames are of 1970
    QVERIFY(!source.grabVideo(0).isValid());
}

void tst_MediaSource::requestVideo()
{
    MediaSource source(QStringLiteral("cam0"), 100);
    watch(source);
    source.requestVideo();
    store.lockResult = -2;
    source.requestVideo(5);
    QCOMPARE(emitted, QStringList({"video", "no video"}));
}

void tst_MediaSource::requestImage()
{
    MediaSource source(QStringLiteral("cam0;1"), 100);
    watch(source);
    source.requestImage(0);
    QCOMPARE(emitted, QStringList({"image"}));
    QCOMPARE(image.size(), QSize(64, 36));
    QCOMPARE(image.format(), QImage::Format_ARGB32_Premultiplied);
    QCOMPARE(image.text(QStringLiteral("pts")), QStringLiteral("1080000"));
    QCOMPARE(image.text(QStringLiteral("shmname")), QStringLiteral("cam0"));
    QVERIFY(image.textKeys().contains(QStringLiteral("buffer")));
    QCOMPARE(store.lockedFrames, 0); // an image does not keep its frame
}

void tst_MediaSource::requestImageOfNothing()
{
    store.lockResult = -2;
    MediaSource source(QStringLiteral("cam0"), 100);
    watch(source);
    source.requestImage(0);
    QCOMPARE(emitted, QStringList({"no image"}));
}

void tst_MediaSource::requestAudio()
{
    MediaSource source(QStringLiteral("cam0"), 100);
    watch(source);
    source.requestAudio(0);
    QCOMPARE(audio.startTime(), qint64(2400000)); // the newest 100 ms
    QCOMPARE(audio.frameCount(), 4800);
    store.audioStatusResult = -19;
    source.requestAudio(0);
    QCOMPARE(emitted, QStringList({"audio", "no audio"}));
}

void tst_MediaSource::requestVideoAudio()
{
    MediaSource source(QStringLiteral("cam0"), 100);
    watch(source);
    source.requestVideoAudio(0);
    QCOMPARE(emitted, QStringList({"video", "audio"}));
    QCOMPARE(video.startTime(), qint64(1080000));
    QCOMPARE(audio.startTime(), qint64(1080000)); // the frame's time, not the newest
}

void tst_MediaSource::requestVideoAudioOfNothing()
{
    store.lockResult = -2;
    MediaSource source(QStringLiteral("cam0"), 100);
    watch(source);
    source.requestVideoAudio(0);
    QCOMPARE(emitted, QStringList({"no video", "no audio"}));
    QVERIFY(store.takeCalls().filter(QStringLiteral("audio")).isEmpty());
}

void tst_MediaSource::requestImageAudio()
{
    MediaSource source(QStringLiteral("cam0"), 100);
    watch(source);
    source.requestImageAudio(0);
    QCOMPARE(emitted, QStringList({"image", "audio"}));
    QCOMPARE(audio.startTime(), qint64(1080000));
    QCOMPARE(image.text(QStringLiteral("pts")), QStringLiteral("1080000"));
    // The audio is fetched while the frame is still locked for the conversion to come.
    const QStringList calls = store.takeCalls();
    QVERIFY(calls.indexOf(QStringLiteral("unlock_video")) >
            calls.indexOf(QStringLiteral("get_audio_status 0")));
}

void tst_MediaSource::requestImageAudioOfNothing()
{
    store.lockResult = -2;
    MediaSource source(QStringLiteral("cam0"), 100);
    watch(source);
    source.requestImageAudio(7);
    QCOMPARE(emitted, QStringList({"no image", "no audio"}));
}

void tst_MediaSource::requestsCarryTheTime_data()
{
    QTest::addColumn<QByteArray>("request");
    for (const char *name : {"requestVideo", "requestImage", "requestVideoAudio", "requestImageAudio"})
        QTest::newRow(name) << QByteArray(name);
}

void tst_MediaSource::requestsCarryTheTime()
{
    QFETCH(QByteArray, request);
    MediaSource source(QStringLiteral("cam0"), 100);
    QVERIFY(QMetaObject::invokeMethod(&source, request.constData(), Q_ARG(qlonglong, 1040000)));
    QVERIFY(store.takeCalls().contains(QStringLiteral("lock_video 1040000 mode 0")));
    QVERIFY(QMetaObject::invokeMethod(&source, request.constData()));
    QVERIFY(store.takeCalls().contains(QStringLiteral("lock_video 0 mode 1")));
}

void tst_MediaSource::imageFormatBeforeTheFirstImage()
{
    MediaSource source(QStringLiteral("cam0"), 100);
    source.setRequestedImageFormat(QSize(32, 32), QImage::Format_RGB16, true, true);
    const QImage picture = source.grabImage(0);
    QCOMPARE(picture.size(), QSize(32, 18));
    QCOMPARE(picture.format(), QImage::Format_RGB16);
}

void tst_MediaSource::imageFormatKeepsThePixelFormatOfTheFirst()
{
    MediaSource source(QStringLiteral("cam0"), 100);
    VideoFrameConverter *converter = source.getVideoFrameConverter();
    source.setRequestedImageFormat(QSize(32, 32), QImage::Format_RGB16, false, true);
    QCOMPARE(source.getVideoFrameConverter(), converter); // reset in place
    const QImage picture = source.grabImage(0);
    QCOMPARE(picture.size(), QSize(32, 32));
    QCOMPARE(picture.format(), QImage::Format_ARGB32_Premultiplied);
}

void tst_MediaSource::grabImage()
{
    MediaSource source(QStringLiteral("cam0"), 100);
    QVERIFY(!source.grabImage(0).isNull());
    store.lockResult = -2;
    QVERIFY(source.grabImage(0).isNull());
}

void tst_MediaSource::rawAudio()
{
    MediaSource source(QStringLiteral("cam0;1"), 100);
    short samples[8] = {};
    QCOMPARE(source.grabAudio(2, 4ul, samples, 123456LL), 4LL);
    QCOMPARE(store.takeCalls().last(), QStringLiteral("query_audio2 stream 2 4 x 1 from 123456 channel 1"));
    QCOMPARE(samples[7], short(0x1111));
    QCOMPARE(source.getAudioLastTimestamp(), 2500000LL);
    QCOMPARE(source.getAudioFormat().channelCount(), 2);
    const QAudioBuffer block = source.grabAudio(480ul, -1000L);
    QCOMPARE(block.startTime(), qint64(2500000 - 10000 - 1000));
}

void tst_MediaSource::announcesDestructionBeforeTheReaderGoes()
{
    auto *source = new MediaSource(QStringLiteral("cam0"), 100);
    QVERIFY(source->open());
    int announced = 0;
    int handlesThen = -1;
    const QObject *whose = nullptr;
    connect(source, &QObject::destroyed, this, [&](QObject *object) {
        ++announced;
        handlesThen = store.openHandles;
        whose = object;
    });
    const QObject *address = source;
    delete source;
    QCOMPARE(announced, 1); // not once more from QObject's destructor
    QCOMPARE(handlesThen, 1);
    QCOMPARE(whose, address);
}

QTEST_GUILESS_MAIN(tst_MediaSource)
#include "tst_mediasource.moc"
