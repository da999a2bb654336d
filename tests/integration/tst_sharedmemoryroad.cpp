// The video road on a real store: writers publish, the library's public classes deliver.
#include "../unit/shmemreader_probe.h"

#include <zevqt-mm/mediaprovider.h>
#include <zevqt-mm/mediasource.h>
#include <zevqt-mm/storeframe.h>
#include <zevqt-mm/videotimeline.h>

#include <shm/shm_writer.h>

#include <QtTest/QtTest>

#include <cstring>
#include <memory>

#include <stdlib.h>
#include <unistd.h>

extern "C" {
#include <libavutil/time.h>
}

namespace {

const int width = 320;
const int height = 180;
const long long interval = 40000;

struct CloseWriter
{
    void operator()(shm_writer_t *writer) const { shm_writer_close(writer); }
};
using Writer = std::unique_ptr<shm_writer_t, CloseWriter>;

Writer openWriter(const char *name, int channels = 2, bool withVideo = true)
{
    shm_writer_params_t params;
    shm_writer_params_init(&params);
    params.name = name;
    if (withVideo) {
        params.width = width;
        params.height = height;
        params.pixel_format = SHM_PIXEL_FORMAT_NV12;
        params.color.matrix = SHM_MATRIX_BT601;
        params.color.range = SHM_RANGE_LIMITED;
        params.rate_numerator = 25;
        params.rate_denominator = 1;
    }
    if (channels > 0) {
        params.sample_rate = 48000;
        params.channels = channels;
        params.audio_streams = 1;
    }
    shm_writer_t *writer = nullptr;
    shm_error_t error = {};
    if (shm_writer_open(&params, &writer, &error) != 0)
        qWarning("%s", error.message);
    return Writer(writer);
}

/*! A frame whose luma is `shade` all over. */
bool publish(shm_writer_t *writer, long long timestamp, uchar shade)
{
    shm_writer_frame_t frame = {};
    if (shm_writer_acquire(writer, &frame) != 0)
        return false;
    std::memset(frame.planes[0], shade, size_t(frame.strides[0]) * height);
    std::memset(frame.planes[1], 128, size_t(frame.strides[1]) * (height / 2));
    return shm_writer_publish(writer, &frame, timestamp) == 0;
}

/*! `frames` audio frames whose samples count up from `first`, the channels apart by 1000. */
bool publishAudio(shm_writer_t *writer, int frames, int channels, long long timestamp, int first)
{
    QVector<int16_t> samples(frames * channels);
    for (int i = 0; i < frames; ++i) {
        for (int channel = 0; channel < channels; ++channel)
            samples[i * channels + channel] = int16_t((first + i) % 1000 + channel * 1000);
    }
    return shm_writer_publish_audio(writer, 0, samples.constData(), uint32_t(frames), timestamp) == 0;
}

uchar shadeOf(QVideoFrame frame)
{
    if (!frame.map(QAbstractVideoBuffer::ReadOnly))
        return 0;
    const uchar shade = frame.bits(0)[frame.bytesPerLine(0) * 90 + 100];
    frame.unmap();
    return shade;
}

} // namespace

class tst_SharedMemoryRoad : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();

    void framesByTime();
    void statusAndTimestamps();
    void colorTravelsWithTheFrame();
    void absentStoreIsFoundWhenItAppears();
    void writerRestartIsPickedUp();
    void lockedFramesSurviveTheRestart();
    void framesInUseAreCounted();
    void deadWriterEndsInEmptyStatus();
    void realtimeRangeDropsOldFrames();
    void audioBlocks();
    void audioChannelOfAnAudioOnlyStore();
    void audioChannelOfAStoreWithVideo();
    void moreChannelsAfterARestartDeliverNothing();
    void imagesCarryTheirTime();
    void providerDeliversPaced();
    void providerShowsNoSignalAndRecovers();

private:
    QByteArray folder;
};

void tst_SharedMemoryRoad::initTestCase()
{
    char path[] = "/tmp/zevXXXXXX";
    QVERIFY(mkdtemp(path));
    folder = path;
    qputenv("ZEV_SHM_DIR", folder);
}

void tst_SharedMemoryRoad::cleanupTestCase()
{
    QDir(QString::fromLocal8Bit(folder)).removeRecursively();
}

void tst_SharedMemoryRoad::framesByTime()
{
    const Writer writer = openWriter("times");
    QVERIFY(writer);
    const long long start = av_gettime() - 4 * interval;
    for (int i = 0; i < 4; ++i)
        QVERIFY(publish(writer.get(), start + i * interval, uchar(50 + i)));
    ShmemReader reader(QStringLiteral("times"), 5000);
    QVERIFY(reader.open());
    QCOMPARE(reader.getVideoFrameSize(), QSize(width, height));

    const QVideoFrame newest = reader.grabVideo(0);
    QCOMPARE(newest.startTime(), qint64(start + 3 * interval));
    QCOMPARE(shadeOf(newest), uchar(53));
    QCOMPARE(newest.pixelFormat(), QVideoFrame::Format_NV12);
    QCOMPARE(shadeOf(reader.grabVideo(start + interval + interval / 4)), uchar(51)); // nearest
    QCOMPARE(shadeOf(reader.grabVideo(start + interval + 3 * interval / 4)), uchar(52));
    QCOMPARE(shadeOf(reader.grabVideo(start + 5, SHM_VIDEO_AT_OR_AFTER)), uchar(51));
    QCOMPARE(shadeOf(reader.grabVideo(start + 2 * interval - 1, SHM_VIDEO_AT_OR_BEFORE)), uchar(51));
    QVERIFY(!reader.grabVideo(start + 1, SHM_VIDEO_EXACT).isValid());
    QVERIFY(!reader.grabVideo(start + 3600000000, SHM_VIDEO_NEAREST).isValid()); // too far from everything
}

void tst_SharedMemoryRoad::statusAndTimestamps()
{
    const Writer writer = openWriter("status");
    QVERIFY(writer);
    MediaSource source(QStringLiteral("status"), 5000);
    QVERIFY(source.open());
    QVERIFY(source.getVideoStatus().timestamps.isEmpty());
    const long long start = av_gettime() - 3 * interval;
    for (int i = 0; i < 3; ++i)
        QVERIFY(publish(writer.get(), start + i * interval, 50));
    QCOMPARE(source.getVideoStatus().timestamps,
             QVector<long long>({start, start + interval, start + 2 * interval}));
    QCOMPARE(source.getVideoStatus().frameInterval, interval); // declared
}

void tst_SharedMemoryRoad::colorTravelsWithTheFrame()
{
    const Writer writer = openWriter("color");
    QVERIFY(writer);
    QVERIFY(publish(writer.get(), av_gettime(), 50));
    MediaSource source(QStringLiteral("color"), 5000);
    QVERIFY(source.open());
    const QVideoFrame frame = source.grabVideo(0);
    const StoreFrame description = StoreFrame::of(frame);
    QCOMPARE(description.matrix, StoreFrame::MatrixBt601);
    QCOMPARE(description.range, StoreFrame::RangeLimited);
    QCOMPARE(description.planeCount, 2);
    QVERIFY(description.session != 0);
    // The same memory serves again: its identity is what an image may be cached by.
    QCOMPARE(StoreFrame::of(source.grabVideo(0)).slot, description.slot);
    QCOMPARE(StoreFrame::of(source.grabVideo(0)).generation, description.generation);
}

void tst_SharedMemoryRoad::framesInUseAreCounted()
{
    MediaSource source(QStringLiteral("held"), 5000);
    QCOMPARE(source.getHeldFrames(), 0); // and nothing is opened for it
    const Writer writer = openWriter("held");
    QVERIFY(writer);
    for (int i = 0; i < 3; ++i)
        QVERIFY(publish(writer.get(), av_gettime() + i, 50));
    QVERIFY(source.open());
    QVideoFrame first = source.grabVideo(0);
    const QVideoFrame second = source.grabVideo(0);
    QCOMPARE(source.getHeldFrames(), 2);
    QVideoFrame copy = first;
    first = QVideoFrame();
    QCOMPARE(source.getHeldFrames(), 2);
    copy = QVideoFrame();
    QCOMPARE(source.getHeldFrames(), 1);
    source.close();
    QCOMPARE(source.getHeldFrames(), 0); // that of a connection that is no more does not count
    QVERIFY(second.isValid());
}

void tst_SharedMemoryRoad::absentStoreIsFoundWhenItAppears()
{
    MediaSource source(QStringLiteral("later"), 5000);
    QVERIFY(!source.open());
    QVERIFY(!source.grabVideo(0).isValid());
    QCOMPARE(source.getVideoFrameSize(), QSize(-1, -1));
    const Writer writer = openWriter("later");
    QVERIFY(writer);
    QVERIFY(publish(writer.get(), av_gettime(), 60));
    QTRY_VERIFY_WITH_TIMEOUT(source.grabVideo(0).isValid(), 30000); // within a second, without being told
}

void tst_SharedMemoryRoad::writerRestartIsPickedUp()
{
    Writer writer = openWriter("restart");
    QVERIFY(writer);
    QVERIFY(publish(writer.get(), av_gettime(), 70));
    MediaSource source(QStringLiteral("restart"), 5000);
    QCOMPARE(shadeOf(source.grabVideo(0)), uchar(70));
    writer.reset();
    writer = openWriter("restart");
    QVERIFY(writer);
    QVERIFY(publish(writer.get(), av_gettime(), 71));
    QTRY_COMPARE_WITH_TIMEOUT(shadeOf(source.grabVideo(0)), uchar(71), 30000);
}

void tst_SharedMemoryRoad::lockedFramesSurviveTheRestart()
{
    Writer writer = openWriter("survive");
    QVERIFY(writer);
    QVERIFY(publish(writer.get(), av_gettime(), 80));
    ShmemReader reader(QStringLiteral("survive"), 5000);
    QVideoFrame kept = reader.grabVideo(0);
    QCOMPARE(shadeOf(kept), uchar(80));
    writer.reset();
    QCOMPARE(shadeOf(kept), uchar(80)); // the writer's death
    writer = openWriter("survive");
    QVERIFY(writer);
    for (int i = 0; i < 100; ++i)
        QVERIFY(publish(writer.get(), av_gettime() + i, 81));
    ShmemReaderProbe::letASecondPass(reader);
    QCOMPARE(shadeOf(reader.grabVideo(0)), uchar(81));
    QCOMPARE(shadeOf(kept), uchar(80)); // the reader has another handle by now
    reader.close();
    QCOMPARE(shadeOf(kept), uchar(80));
    kept = QVideoFrame();
}

void tst_SharedMemoryRoad::deadWriterEndsInEmptyStatus()
{
    Writer writer = openWriter("dead");
    QVERIFY(writer);
    QVERIFY(publish(writer.get(), av_gettime(), 90));
    MediaSource source(QStringLiteral("dead"), 5000);
    QVERIFY(!source.getVideoStatus().timestamps.isEmpty());
    writer.reset();
    QTRY_VERIFY_WITH_TIMEOUT(source.getVideoStatus().timestamps.isEmpty(), 30000);
    QCOMPARE(source.getVideoStatus().frameInterval, 0LL);
    QVERIFY(!source.grabVideo(0).isValid());
    QCOMPARE(source.getAudioLastTimestamp(), 0LL);
}

void tst_SharedMemoryRoad::realtimeRangeDropsOldFrames()
{
    const Writer writer = openWriter("sync");
    QVERIFY(writer);
    QVERIFY(publish(writer.get(), av_gettime() - 60000000, 91));
    MediaSource source(QStringLiteral("sync"), 5000);
    QVERIFY(source.grabVideo(0).isValid());
    source.setRealtimeSyncRange(-30000, 30000);
    for (int i = 0; i < 100; ++i)
        QVERIFY(!source.grabVideo(0)
                     .isValid()); // each lock is given back at once, or the ninth would find nothing
    source.setRealtimeSyncRange(0, 0);
    QVERIFY(source.grabVideo(0).isValid());
}

void tst_SharedMemoryRoad::audioBlocks()
{
    const Writer writer = openWriter("sound");
    QVERIFY(writer);
    const long long start = av_gettime() - 1000000;
    QVERIFY(publishAudio(writer.get(), 48000, 2, start, 0)); // one second
    MediaSource source(QStringLiteral("sound"), 5000);
    QCOMPARE(source.getAudioFormat().channelCount(), 2);
    QCOMPARE(source.getAudioFormat().sampleRate(), 48000);
    QCOMPARE(source.getDefaultSamplesCount(), 4800ul);
    QVERIFY(qAbs(source.getAudioLastTimestamp() - (start + 1000000)) <= 21); // within a sample

    const QAudioBuffer newest = source.grabAudio(4800ul, 0L);
    QCOMPARE(newest.frameCount(), 4800);
    QVERIFY(qAbs(newest.startTime() - (start + 900000)) <= 21);
    const auto *samples = static_cast<const int16_t *>(newest.constData());
    QCOMPARE(samples[1] - samples[0], 1000); // left and right
    QCOMPARE(int(samples[2]), (samples[0] + 1) % 1000);

    const QAudioBuffer inside = source.grabAudio(480ul, long(start + 500000));
    QCOMPARE(inside.startTime(), qint64(start + 500000));
    QCOMPARE(int(static_cast<const int16_t *>(inside.constData())[0]), 24000 % 1000);
    QCOMPARE(source.grabAudio(480ul, 1L).startTime(), qint64(start)); // older than held
    QVERIFY(!source.grabAudio(200000ul, 0L).isValid());               // more than held

    short raw[20] = {};
    QCOMPARE(source.grabAudio(0, 10ul, raw, start + 500000), 10LL);
    QCOMPARE(raw[19] - raw[18], 1000);
    QCOMPARE(source.grabAudio(0, 10ul, raw, start - 500000), 0LL); // not held, not clamped
}

void tst_SharedMemoryRoad::audioChannelOfAnAudioOnlyStore()
{
    const Writer writer = openWriter("mic", 4, false);
    QVERIFY(writer);
    QVERIFY(publishAudio(writer.get(), 4800, 4, av_gettime() - 100000, 0));
    MediaSource source(QStringLiteral("mic;2"), 5000);
    QCOMPARE(source.name(), QStringLiteral("mic"));
    QCOMPARE(source.getAudioFormat().channelCount(), 1);
    const QAudioBuffer buffer = source.grabAudio(100ul, 0L);
    QCOMPARE(buffer.frameCount(), 100);
    const auto *samples = static_cast<const int16_t *>(buffer.constData());
    QCOMPARE(samples[0] / 1000, 2);
    QCOMPARE(samples[1] - samples[0], 1);
    QCOMPARE(source.getVideoFrameSize(), QSize(-1, -1));
    QVERIFY(!source.grabVideo(0).isValid());
}

void tst_SharedMemoryRoad::audioChannelOfAStoreWithVideo()
{
    const Writer writer = openWriter("both");
    QVERIFY(writer);
    QVERIFY(publishAudio(writer.get(), 4800, 2, av_gettime() - 100000, 0));
    MediaSource source(QStringLiteral("both;1"), 5000);
    QCOMPARE(source.getAudioFormat().channelCount(), 2);
    const QAudioBuffer buffer = source.grabAudio(100ul, 0L);
    const auto *samples = static_cast<const int16_t *>(buffer.constData());
    QCOMPARE(samples[0] / 1000, 1);
    QCOMPARE(samples[1], samples[0]); // in every channel position
}

void tst_SharedMemoryRoad::moreChannelsAfterARestartDeliverNothing()
{
    Writer writer = openWriter("grow", 1, false);
    QVERIFY(writer);
    const long long start = av_gettime() - 100000;
    QVERIFY(publishAudio(writer.get(), 4800, 1, start, 0));
    ShmemReader reader(QStringLiteral("grow"), 5000);
    QCOMPARE(reader.getAudioFormat().channelCount(), 1);
    short samples[11] = {};
    samples[10] = 4711;
    QCOMPARE(reader.grabAudio(0, 10, samples, start), 10LL);
    writer.reset();
    writer = openWriter("grow", 8, false);
    QVERIFY(writer);
    QVERIFY(publishAudio(writer.get(), 4800, 8, start, 0));
    ShmemReaderProbe::letASecondPass(reader);
    QCOMPARE(reader.grabAudio(0, 10, samples, start), 0LL);
    QCOMPARE(samples[10], short(4711));
}

void tst_SharedMemoryRoad::imagesCarryTheirTime()
{
    const Writer writer = openWriter("image");
    QVERIFY(writer);
    const long long now = av_gettime();
    QVERIFY(publish(writer.get(), now, 200));
    MediaSource source(QStringLiteral("image"), 5000);
    source.setRequestedImageFormat(QSize(160, 160), QImage::Format_RGB32, true, true);
    const QImage image = source.grabImage(0);
    QCOMPARE(image.size(), QSize(160, 90));
    QCOMPARE(image.text(QStringLiteral("pts")), QString::number(now));
    QCOMPARE(image.text(QStringLiteral("shmname")), QStringLiteral("image"));
    QVERIFY(qAbs(qGreen(image.pixel(50, 50)) - 200) <= 1); // taken as full range
}

void tst_SharedMemoryRoad::providerDeliversPaced()
{
    const Writer writer = openWriter("paced");
    QVERIFY(writer);
    MediaProvider provider(QUrl(QStringLiteral("shm:///paced")), QUrl(QStringLiteral("shm:///paced")), true);
    provider.enableVideoFrames();
    QVector<long long> shown;
    connect(&provider, &MediaProvider::videoReady, this, [&](const QVideoFrame &frame) {
        if (frame.isValid())
            shown.append(frame.startTime());
    });
    // Frames and external ticks at 25 a second, the ticks between two frames, on a clock that runs as fast as
    // we do.
    const long long start = av_gettime() - 200 * interval;
    for (int i = 0; i < 200; ++i) {
        QVERIFY(publish(writer.get(), start + i * interval, uchar(i)));
        provider.getTimeline()->externalTick(start + i * interval + 7000);
    }
    QVERIFY(shown.size() > 190);
    // From the fifth frame on, one frame a tick, two intervals behind the newest.
    for (int i = 10; i < shown.size(); ++i)
        QCOMPARE(shown[i] - shown[i - 1], interval);
    QCOMPARE(shown.last(), start + 197 * interval);
}

void tst_SharedMemoryRoad::providerShowsNoSignalAndRecovers()
{
    Writer writer = openWriter("signal");
    QVERIFY(writer);
    QTemporaryDir pictures;
    const QString picture = pictures.filePath(QStringLiteral("nosignal.png"));
    QImage image(40, 30, QImage::Format_RGB32);
    image.fill(Qt::blue);
    QVERIFY(image.save(picture));

    MediaProvider provider(QUrl(QStringLiteral("shm:///signal")), QUrl(), false);
    provider.setNoSignalImage(picture, std::chrono::seconds(1));
    provider.enableVideoFrames();
    int live = 0;
    int idle = 0;
    int noSignal = 0;
    connect(&provider, &MediaProvider::videoReady, this, [&](const QVideoFrame &frame) {
        if (frame.size() == QSize(width, height))
            ++live;
        else if (frame.size() == QSize(40, 30))
            ++noSignal;
    });
    connect(&provider, &MediaProvider::videoIdle, this, [&] { ++idle; });
    QTimer publisher;
    publisher.setInterval(40);
    connect(&publisher, &QTimer::timeout, this, [&] {
        if (writer)
            publish(writer.get(), av_gettime(), 33);
    });
    publisher.start();
    provider.setRunning(true);
    QTRY_VERIFY_WITH_TIMEOUT(live > 3, 30000);
    writer.reset();
    QTRY_VERIFY_WITH_TIMEOUT(noSignal > 3, 30000);
    QVERIFY(idle > 0); // first idle, then the picture
    live = 0;
    writer = openWriter("signal");
    QVERIFY(writer);
    QTRY_VERIFY_WITH_TIMEOUT(live > 3, 30000);
    provider.setRunning(false);
}

QTEST_GUILESS_MAIN(tst_SharedMemoryRoad)
#include "tst_sharedmemoryroad.moc"
