#include "fake_shm.h"
#include "shmemreader_probe.h"

#include <QtCore/QVariant>
#include <QtTest/QtTest>

extern "C" {
#include <libavutil/time.h>
}

class tst_ShmemReader : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void constructionOpensNothing();
    void nameAndChannel_data();
    void nameAndChannel();
    void selectedChannelOfAudioOnlyStoreIsReportedAsMono();
    void selectedChannelOfStoreWithVideoKeepsItsChannels();

    void opensInOrder();
    void firstUseAfterOpenLooksAtTheStore();
    void absentStoreFails();
    void storeWithoutFormatIsClosedAgain();
    void closeGivesTheHandleBack();
    void looksAtTheStoreAtMostOnceASecond();
    void goodLookIsTrustedForAnotherSecond();
    void looksAgainWhenTheSecondIsOver();
    void triesAnAbsentStoreAtMostOnceASecond();
    void forceLooksAtOnce();
    void reopensAfterTheWriterHasGone();
    void lockedFrameOutlivesReopening();

    void realtimeRange_data();
    void realtimeRange();
    void realtimeRangeWrapsAt32Bits();
    void dropsFramesOutsideTheRealtimeRange();

    void rate_data();
    void rate();
    void rateIsAppliedAgainWhenReopened();
    void rateWaitsForAStoreWithVideo();

    void videoStatus();
    void deadStatusMakesTheReaderReopen();
    void timestamps_data();
    void timestamps();
    void frameSize();

    void lookupMode_data();
    void lookupMode();
    void frameCarriesWhatTheStoreSays();
    void pixelFormat_data();
    void pixelFormat();
    void dmaDescriptorGivesAnImageFrame();
    void emptyFramesAreDropped_data();
    void emptyFramesAreDropped();
    void nothingToLock();
    void frameIsUnlockedWhenTheLastCopyGoes();

    void everythingIsEmptyWithoutAStore();
    void everythingIsEmptyWithoutTheMedium();

private:
    FakeShm &store = FakeShm::instance();
};

void tst_ShmemReader::initTestCase()
{
    qputenv("ZEV_GL_DMABUF", ""); // set but empty: off
}

void tst_ShmemReader::init()
{
    store.reset();
}

void tst_ShmemReader::cleanup()
{
    QCOMPARE(store.lockedFrames, 0);
    QCOMPARE(store.openHandles, 0);
}

void tst_ShmemReader::constructionOpensNothing()
{
    ShmemReader reader(QStringLiteral("cam0"), 100);
    QCOMPARE(store.takeCalls(), QStringList());
}

void tst_ShmemReader::nameAndChannel_data()
{
    QTest::addColumn<QString>("given");
    QTest::addColumn<QString>("name");
    QTest::addColumn<int>("channel");
    QTest::newRow("plain") << "cam0"
                           << "cam0" << -1;
    QTest::newRow("channel") << "cam0;2"
                             << "cam0" << 2;
    QTest::newRow("letter") << "cam0;x"
                            << "cam0" << -1;
    QTest::newRow("nothing after it") << "cam0;"
                                      << "cam0" << -1;
    QTest::newRow("not base 10") << "cam0;0x2"
                                 << "cam0" << -1;
    QTest::newRow("two suffixes") << "cam0;2;3"
                                  << "cam0" << -1;
    QTest::newRow("beyond ASCII") << QString::fromUtf8("kam\xc3\xa9ra;1")
                                  << QString::fromUtf8("kam\xc3\xa9ra") << 1;
    QTest::newRow("empty") << ""
                           << "" << -1;
}

void tst_ShmemReader::nameAndChannel()
{
    QFETCH(QString, given);
    QFETCH(QString, name);
    QFETCH(int, channel);
    ShmemReader reader(given, 7);
    QCOMPARE(reader.getName(), name.toUtf8());
    short samples[2];
    QCOMPARE(reader.grabAudio(0, 1, samples, 1000000), 1LL);
    const QStringList calls = store.takeCalls();
    QCOMPARE(calls.first(), QStringLiteral("open %1 7").arg(name));
    QCOMPARE(calls.last(),
             QStringLiteral("query_audio2 stream 0 1 x 1 from 1000000 channel %1").arg(channel));
}

void tst_ShmemReader::selectedChannelOfAudioOnlyStoreIsReportedAsMono()
{
    store.format.has_video = 0;
    ShmemReader reader(QStringLiteral("mic;2"), 100);
    QCOMPARE(reader.getAudioFormat().channelCount(), 1);
    ShmemReader first(QStringLiteral("mic;0"), 100);
    QCOMPARE(first.getAudioFormat().channelCount(), 1);
    ShmemReader all(QStringLiteral("mic;x"), 100);
    QCOMPARE(all.getAudioFormat().channelCount(), 2);
}

void tst_ShmemReader::selectedChannelOfStoreWithVideoKeepsItsChannels()
{
    ShmemReader reader(QStringLiteral("cam0;2"), 100);
    QCOMPARE(reader.getAudioFormat().channelCount(), 2);
}

void tst_ShmemReader::opensInOrder()
{
    ShmemReader reader(QStringLiteral("cam0"), 100);
    QVERIFY(reader.open());
    QCOMPARE(store.takeCalls(), QStringList({"open cam0 100", "get_format", "set_fps 1/1"}));
}

void tst_ShmemReader::firstUseAfterOpenLooksAtTheStore()
{
    ShmemReader reader(QStringLiteral("cam0"), 100);
    QVERIFY(reader.open());
    store.takeCalls();
    QVERIFY(reader.getVideoFrameSize().isValid());
    QCOMPARE(store.takeCalls(), QStringList({"is_ready"}));
}

void tst_ShmemReader::absentStoreFails()
{
    store.exists = false;
    ShmemReader reader(QStringLiteral("cam0"), 100);
    QVERIFY(!reader.open());
    QCOMPARE(store.takeCalls(), QStringList({"open cam0 100"}));
}

void tst_ShmemReader::storeWithoutFormatIsClosedAgain()
{
    store.format.valid = 0;
    ShmemReader reader(QStringLiteral("cam0"), 100);
    QVERIFY(!reader.open());
    QCOMPARE(store.takeCalls(), QStringList({"open cam0 100", "get_format", "close"}));
}

void tst_ShmemReader::closeGivesTheHandleBack()
{
    ShmemReader reader(QStringLiteral("cam0"), 100);
    QVERIFY(reader.open());
    reader.close();
    QCOMPARE(store.openHandles, 0);
    ShmemReaderProbe::letASecondPass(reader);
    QVERIFY(reader.getVideoFrameSize().isValid()); // a later use opens it again
    QCOMPARE(store.openHandles, 1);
}

void tst_ShmemReader::looksAtTheStoreAtMostOnceASecond()
{
    ShmemReader reader(QStringLiteral("cam0"), 100);
    // A machine that stops for a second between two lines makes the second pass in earnest: then once more.
    for (int attempt = 0; attempt < 10; ++attempt) {
        ShmemReaderProbe::letASecondPass(reader);
        QVERIFY(reader.getVideoFrameSize().isValid());
        QElapsedTimer elapsed;
        elapsed.start();
        store.takeCalls();
        store.ready = 0; // the writer has gone, but nobody looks yet
        const bool isTrusted = reader.getVideoFrameSize().isValid();
        const QStringList calls = store.takeCalls();
        store.ready = 1;
        if (elapsed.elapsed() >= 900)
            continue;
        QVERIFY(isTrusted);
        QCOMPARE(calls, QStringList());

        ShmemReaderProbe::letASecondPass(reader);
        QVERIFY(reader.getVideoFrameSize().isValid());
        QCOMPARE(store.takeCalls(), QStringList({"is_ready"}));
        return;
    }
    QFAIL("ten times in a row, two lines took a second");
}

void tst_ShmemReader::goodLookIsTrustedForAnotherSecond()
{
    ShmemReader reader(QStringLiteral("cam0"), 100);
    QVERIFY(reader.check(false));
    ShmemReaderProbe::letASecondPass(reader);
    store.takeCalls();
    QVERIFY(reader.check(false));
    QVERIFY(reader.check(false));
    QCOMPARE(store.takeCalls(), QStringList({"is_ready"}));
}

void tst_ShmemReader::looksAgainWhenTheSecondIsOver()
{
    ShmemReader reader(QStringLiteral("cam0"), 100);
    QElapsedTimer elapsed;
    elapsed.start();
    QVERIFY(reader.check(false));
    store.takeCalls();
    bool looked = false;
    const auto hasLooked = [&] {
        looked = looked || (reader.check(false) && store.takeCalls().contains(QStringLiteral("is_ready")));
        return looked;
    };
    QTRY_VERIFY_WITH_TIMEOUT(hasLooked(), 30000);
    QVERIFY(elapsed.elapsed() >= 1000);
}

void tst_ShmemReader::triesAnAbsentStoreAtMostOnceASecond()
{
    store.exists = false;
    ShmemReader reader(QStringLiteral("cam0"), 100);
    for (int attempt = 0; attempt < 10; ++attempt) {
        ShmemReaderProbe::letASecondPass(reader);
        QElapsedTimer elapsed;
        elapsed.start();
        store.takeCalls();
        for (int use = 0; use < 5; ++use)
            QVERIFY(!reader.getVideoFrameSize().isValid());
        const QStringList calls = store.takeCalls();
        if (elapsed.elapsed() >= 900)
            continue;
        QCOMPARE(calls, QStringList({"open cam0 100"}));

        store.exists = true;
        ShmemReaderProbe::letASecondPass(reader);
        QVERIFY(reader.getVideoFrameSize().isValid());
        return;
    }
    QFAIL("ten times in a row, six lines took a second");
}

void tst_ShmemReader::forceLooksAtOnce()
{
    ShmemReader reader(QStringLiteral("cam0"), 100);
    QVERIFY(reader.check(true));
    QCOMPARE(store.takeCalls(), QStringList({"open cam0 100", "get_format", "set_fps 1/1"}));
    QVERIFY(reader.check(true));
    QCOMPARE(store.takeCalls(), QStringList({"is_ready"}));
    store.ready = 0;
    QVERIFY(reader.check(true));
    QCOMPARE(store.takeCalls(),
             QStringList({"is_ready", "open cam0 100", "close", "get_format", "set_fps 1/1"}));
    store.exists = false;
    QVERIFY(!reader.check(true));
    store.takeCalls();
    QVERIFY(!reader.check(true));
    QCOMPARE(store.takeCalls(), QStringList({"open cam0 100"}));
}

void tst_ShmemReader::reopensAfterTheWriterHasGone()
{
    ShmemReader reader(QStringLiteral("cam0"), 100);
    QVERIFY(reader.check(true));
    ShmemReaderProbe::letASecondPass(reader);
    store.ready = 0;
    store.format.width = 128;
    store.takeCalls();
    QCOMPARE(reader.getVideoFrameSize(), QSize(128, 36));
    QCOMPARE(store.takeCalls(),
             QStringList({"is_ready", "open cam0 100", "close", "get_format", "set_fps 1/1"}));
}

void tst_ShmemReader::lockedFrameOutlivesReopening()
{
    ShmemReader reader(QStringLiteral("cam0"), 100);
    QVideoFrame frame = reader.grabVideo(0);
    QVERIFY(frame.isValid());
    store.ready = 0;
    QVERIFY(reader.check(true));
    QCOMPARE(store.openHandles, 2); // the frame keeps its own handle
    QCOMPARE(store.lockedFrames, 1);
    QVERIFY(frame.map(QAbstractVideoBuffer::ReadOnly));
    QCOMPARE(static_cast<const uchar *>(frame.bits(0)), static_cast<const uchar *>(store.pixels));
    frame.unmap();
    store.takeCalls();
    frame = QVideoFrame();
    QCOMPARE(store.takeCalls(), QStringList({"unlock_video", "close"}));
    QCOMPARE(store.openHandles, 1);
}

void tst_ShmemReader::realtimeRange_data()
{
    QTest::addColumn<int>("min");
    QTest::addColumn<int>("max");
    QTest::addColumn<long long>("aheadUs");
    QTest::addColumn<bool>("passes");
    const long long second = 1000000;
    QTest::newRow("off, old") << 0 << 0 << -3600 * second << true;
    QTest::newRow("off, new") << 0 << 0 << 3600 * second << true;
    QTest::newRow("inside") << -60000 << 60000 << 0LL << true;
    QTest::newRow("late") << -100 << 100 << -60 * second << false;
    QTest::newRow("early") << -100 << 100 << 60 * second << false;
    QTest::newRow("only the past, inside") << -60000 << 0 << -30 * second << true;
    QTest::newRow("only the past, early") << -60000 << 0 << 30 * second << false;
    QTest::newRow("only the future") << 0 << 60000 << -30 * second << false;
}

void tst_ShmemReader::realtimeRange()
{
    QFETCH(int, min);
    QFETCH(int, max);
    QFETCH(long long, aheadUs);
    ShmemReader reader(QStringLiteral("cam0"), 100);
    reader.setRealtimeSyncRange(min, max);
    QTEST(reader.checkRealtimeSync(av_gettime() + aheadUs), "passes");
}

void tst_ShmemReader::realtimeRangeWrapsAt32Bits()
{
    ShmemReader reader(QStringLiteral("cam0"), 100);
    reader.setRealtimeSyncRange(-2147483, 2147483);
    QCOMPARE(ShmemReaderProbe::syncMin(reader), -2147483000LL);
    QCOMPARE(ShmemReaderProbe::syncMax(reader), 2147483000LL);
    reader.setRealtimeSyncRange(-2147484, 2147484);
    QCOMPARE(ShmemReaderProbe::syncMin(reader), 2147483296LL);
    QCOMPARE(ShmemReaderProbe::syncMax(reader), -2147483296LL);
}

void tst_ShmemReader::dropsFramesOutsideTheRealtimeRange()
{
    ShmemReader reader(QStringLiteral("cam0"), 100);
    QVERIFY(reader.grabVideo(0).isValid()); // of 1970
    reader.setRealtimeSyncRange(-100, 100);
    store.takeCalls();
    QVERIFY(!reader.grabVideo(0).isValid());
    QCOMPARE(store.takeCalls().last(), QStringLiteral("unlock_video")); // at once
    reader.setRealtimeSyncRange(-600000, 600000);
    store.frame.timestamp = av_gettime();
    QVERIFY(reader.grabVideo(0).isValid());
}

void tst_ShmemReader::rate_data()
{
    QTest::addColumn<double>("fps"); // negative: the pair
    QTest::addColumn<unsigned int>("numerator");
    QTest::addColumn<unsigned int>("denominator");
    QTest::addColumn<QString>("call");
    QTest::newRow("29.97") << 29.97 << 0u << 0u << "set_fps 29970/1000";
    QTest::newRow("25") << 25.0 << 0u << 0u << "set_fps 25000/1000";
    QTest::newRow("truncates") << 23.9767 << 0u << 0u << "set_fps 23976/1000";
    QTest::newRow("below a thousandth") << 0.0005 << 0u << 0u << "set_fps 1/1";
    QTest::newRow("pair") << -1.0 << 30000u << 1001u << "set_fps 30000/1001";
    QTest::newRow("no numerator") << -1.0 << 0u << 5u << "set_fps 1/1";
    QTest::newRow("no denominator") << -1.0 << 5u << 0u << "set_fps 1/1";
}

void tst_ShmemReader::rate()
{
    QFETCH(double, fps);
    QFETCH(unsigned int, numerator);
    QFETCH(unsigned int, denominator);
    QFETCH(QString, call);
    ShmemReader reader(QStringLiteral("cam0"), 100);
    QVERIFY(reader.check(true));
    store.takeCalls();
    if (fps >= 0)
        reader.setVideoFrameRate(fps);
    else
        reader.setVideoFrameRate(numerator, denominator);
    QCOMPARE(store.takeCalls(), QStringList({call}));
}

void tst_ShmemReader::rateIsAppliedAgainWhenReopened()
{
    ShmemReader reader(QStringLiteral("cam0"), 100);
    reader.setVideoFrameRate(50, 1);
    QCOMPARE(store.takeCalls(), QStringList()); // not open yet
    QVERIFY(reader.open());
    QCOMPARE(store.takeCalls().last(), QStringLiteral("set_fps 50/1"));
    QVERIFY(reader.open());
    QCOMPARE(store.takeCalls().last(), QStringLiteral("set_fps 50/1"));
}

void tst_ShmemReader::rateWaitsForAStoreWithVideo()
{
    store.format.has_video = 0;
    ShmemReader reader(QStringLiteral("mic"), 100);
    QVERIFY(reader.open());
    reader.setVideoFrameRate(50, 1);
    QVERIFY(store.takeCalls().filter(QStringLiteral("set_fps")).isEmpty());
}

void tst_ShmemReader::videoStatus()
{
    ShmemReader reader(QStringLiteral("cam0"), 100);
    store.videoStatus.newest_timestamp = 77;
    const shm_video_status_t status = reader.getVideoStatus();
    QCOMPARE(status.live, 1);
    QCOMPARE(status.newest_timestamp, int64_t(77));
    QCOMPARE(status.frame_interval_us, int64_t(40000));
    QCOMPARE(status.jitter_us, int64_t(100));
}

void tst_ShmemReader::deadStatusMakesTheReaderReopen()
{
    ShmemReader reader(QStringLiteral("cam0"), 100);
    for (int attempt = 0; attempt < 10; ++attempt) {
        store.videoStatus.live = 1;
        QVERIFY(reader.check(true));
        QElapsedTimer elapsed;
        elapsed.start();
        store.videoStatus.live = 0;
        QCOMPARE(reader.getVideoStatus().live, 0);
        store.takeCalls();
        const bool isEmptyMeanwhile = !reader.getVideoFrameSize().isValid();
        const QStringList calls = store.takeCalls();
        if (elapsed.elapsed() >= 900)
            continue;
        QVERIFY(isEmptyMeanwhile); // not usable, and not tried again within the second
        QCOMPARE(calls, QStringList());
        ShmemReaderProbe::letASecondPass(reader);
        QVERIFY(reader.getVideoFrameSize().isValid());
        QCOMPARE(store.takeCalls().first(),
                 QStringLiteral("open cam0 100")); // is_ready is not asked any more
        return;
    }
    QFAIL("ten times in a row, four lines took a second");
}

void tst_ShmemReader::timestamps_data()
{
    QTest::addColumn<int>("frameCount");
    QTest::addColumn<int>("result");
    QTest::addColumn<QVector<long long>>("expected");
    QTest::addColumn<QString>("call");
    QTest::newRow("fewer than room") << 8 << -1000 << QVector<long long>{1000000, 1040000, 1080000}
                                     << "get_video_timestamps 8";
    QTest::newRow("more than room") << 2 << -1000 << QVector<long long>{1040000, 1080000}
                                    << "get_video_timestamps 2";
    QTest::newRow("none") << 8 << 0 << QVector<long long>{} << "get_video_timestamps 8";
    QTest::newRow("error") << 8 << -19 << QVector<long long>{} << "get_video_timestamps 8";
    QTest::newRow("no room") << 0 << -1000 << QVector<long long>{} << "get_video_timestamps 0";
    QTest::newRow("negative room") << -3 << -1000 << QVector<long long>{} << "get_video_timestamps 0";
}

void tst_ShmemReader::timestamps()
{
    QFETCH(int, frameCount);
    QFETCH(int, result);
    QFETCH(QString, call);
    store.format.frame_count = frameCount;
    store.timestampsResult = result;
    ShmemReader reader(QStringLiteral("cam0"), 100);
    QTEST(reader.getVideoTimestamps(), "expected");
    QCOMPARE(store.takeCalls().last(), call);
}

void tst_ShmemReader::frameSize()
{
    ShmemReader reader(QStringLiteral("cam0"), 100);
    QCOMPARE(reader.getVideoFrameSize(), QSize(64, 36));
}

void tst_ShmemReader::lookupMode_data()
{
    QTest::addColumn<long long>("ts");
    QTest::addColumn<int>("mode"); // -1: none given
    QTest::addColumn<QString>("call");
    QTest::newRow("newest by default") << 0LL << -1 << "lock_video 0 mode 1";
    QTest::newRow("nearest by default") << 1040000LL << -1 << "lock_video 1040000 mode 0";
    QTest::newRow("negative is a time too") << -5LL << -1 << "lock_video -5 mode 0";
    QTest::newRow("given mode") << 1040000LL << 4 << "lock_video 1040000 mode 4";
    QTest::newRow("given mode for 0") << 0LL << 0 << "lock_video 0 mode 0";
}

void tst_ShmemReader::lookupMode()
{
    QFETCH(long long, ts);
    QFETCH(int, mode);
    QFETCH(QString, call);
    ShmemReader reader(QStringLiteral("cam0"), 100);
    QVERIFY(reader.check(true));
    store.takeCalls();
    const QVideoFrame frame =
        mode < 0 ? reader.grabVideo(ts) : reader.grabVideo(ts, static_cast<shm_video_lookup_mode_t>(mode));
    QVERIFY(frame.isValid());
    QCOMPARE(store.takeCalls(), QStringList({call, "get_dmabuf_fd"}));
}

void tst_ShmemReader::frameCarriesWhatTheStoreSays()
{
    ShmemReader reader(QStringLiteral("cam0;1"), 100);
    const QVideoFrame frame = reader.grabVideo(0);
    QVERIFY(frame.isValid());
    QCOMPARE(frame.size(), QSize(64, 36));
    QCOMPARE(frame.pixelFormat(), QVideoFrame::Format_NV12);
    QCOMPARE(frame.startTime(), qint64(1080000));
    QCOMPARE(frame.fieldType(), QVideoFrame::ProgressiveFrame);
    QCOMPARE(frame.handleType(), QAbstractVideoBuffer::NoHandle);
    QCOMPARE(frame.metaData(QStringLiteral("shmname")), QVariant(QByteArray("cam0")));
    QCOMPARE(frame.metaData(QStringLiteral("buffer")).userType(), int(QMetaType::VoidStar));
    QCOMPARE(frame.metaData(QStringLiteral("buffer")).value<void *>(), static_cast<void *>(frame.buffer()));
    QCOMPARE(frame.availableMetaData().size(), 2);
}

void tst_ShmemReader::pixelFormat_data()
{
    QTest::addColumn<int>("stored");
    QTest::addColumn<int>("dmabufFd");
    QTest::addColumn<QVideoFrame::PixelFormat>("expected");
    for (int fd : {-1, 3}) {
        QTest::addRow("0, descriptor %d", fd) << 0 << fd << QVideoFrame::Format_Invalid;
        QTest::addRow("1, descriptor %d", fd) << 1 << fd << QVideoFrame::Format_YUV420P;
        QTest::addRow("2, descriptor %d", fd) << 2 << fd << QVideoFrame::Format_YUV420P;
        QTest::addRow("3, descriptor %d", fd) << 3 << fd << QVideoFrame::Format_NV12;
        QTest::addRow("4, descriptor %d", fd) << 4 << fd << QVideoFrame::Format_Invalid;
        QTest::addRow("-1, descriptor %d", fd) << -1 << fd << QVideoFrame::Format_Invalid;
    }
}

void tst_ShmemReader::pixelFormat()
{
    QFETCH(int, stored);
    QFETCH(int, dmabufFd);
    store.format.pixel_format = stored;
    store.dmabufFd = dmabufFd;
    ShmemReader reader(QStringLiteral("cam0"), 100);
    const QVideoFrame frame = reader.grabVideo(0);
    QVERIFY(frame.isValid()); // a frame all the same
    QTEST(frame.pixelFormat(), "expected");
}

void tst_ShmemReader::dmaDescriptorGivesAnImageFrame()
{
    store.dmabufFd = 0; // any but -1
    ShmemReader reader(QStringLiteral("cam0"), 100);
    const QVideoFrame frame = reader.grabVideo(0);
    QVERIFY(frame.isValid());
    QCOMPARE(frame.handleType(), QAbstractVideoBuffer::EGLImageHandle);
    QCOMPARE(frame.pixelFormat(), QVideoFrame::Format_NV12);
    QCOMPARE(frame.metaData(QStringLiteral("buffer")).value<void *>(), static_cast<void *>(frame.buffer()));
    // With the variable empty, the store was not asked to export.
    QVERIFY(!store.takeCalls().contains(QStringLiteral("open_dmabuf_fd")));
}

void tst_ShmemReader::emptyFramesAreDropped_data()
{
    QTest::addColumn<int>("width");
    QTest::addColumn<int>("height");
    QTest::addColumn<bool>("valid");
    QTest::newRow("no width") << 0 << 36 << false;
    QTest::newRow("no height") << 64 << 0 << false;
    QTest::newRow("negative") << -64 << 36 << false;
    QTest::newRow("one pixel") << 1 << 1 << true;
}

void tst_ShmemReader::emptyFramesAreDropped()
{
    QFETCH(int, width);
    QFETCH(int, height);
    QFETCH(bool, valid);
    store.frame.width = width;
    store.frame.height = height;
    ShmemReader reader(QStringLiteral("cam0"), 100);
    const QVideoFrame frame = reader.grabVideo(0);
    QCOMPARE(frame.isValid(), valid);
    QCOMPARE(store.lockedFrames, valid ? 1 : 0);
}

void tst_ShmemReader::nothingToLock()
{
    store.lockResult = -2;
    ShmemReader reader(QStringLiteral("cam0"), 100);
    QVERIFY(!reader.grabVideo(5).isValid());
    QCOMPARE(store.takeCalls().last(), QStringLiteral("lock_video 5 mode 0")); // nothing to unlock
}

void tst_ShmemReader::frameIsUnlockedWhenTheLastCopyGoes()
{
    QVideoFrame copy;
    {
        ShmemReader reader(QStringLiteral("cam0"), 100);
        const QVideoFrame frame = reader.grabVideo(0);
        copy = frame;
    }
    QCOMPARE(store.lockedFrames, 1); // the reader has gone, the frame has not
    QCOMPARE(store.openHandles, 1);
    copy = QVideoFrame();
    QCOMPARE(store.lockedFrames, 0);
    QCOMPARE(store.openHandles, 0);
}

void tst_ShmemReader::everythingIsEmptyWithoutAStore()
{
    store.exists = false;
    ShmemReader reader(QStringLiteral("cam0"), 100);
    short sample[2] = {};
    QCOMPARE(reader.getVideoStatus().live, 0);
    QCOMPARE(reader.getVideoStatus().frame_interval_us, int64_t(0));
    QCOMPARE(reader.getVideoFrameSize(), QSize(-1, -1));
    QVERIFY(reader.getVideoTimestamps().isEmpty());
    QVERIFY(!reader.grabVideo(0).isValid());
    QVERIFY(!reader.grabAudio(0, 10, 0LL).isValid());
    QCOMPARE(reader.grabAudio(0, 1, sample, 0), 0LL);
    QCOMPARE(reader.getAudioFormat(), QAudioFormat());
    QCOMPARE(reader.getAudioLastTimestamp(), 0LL);
}

void tst_ShmemReader::everythingIsEmptyWithoutTheMedium()
{
    store.format.has_video = 0;
    ShmemReader audioOnly(QStringLiteral("mic"), 100);
    QVERIFY(audioOnly.check(true));
    store.takeCalls();
    QCOMPARE(audioOnly.getVideoStatus().live, 0);
    QCOMPARE(audioOnly.getVideoFrameSize(), QSize(-1, -1));
    QVERIFY(audioOnly.getVideoTimestamps().isEmpty());
    QVERIFY(!audioOnly.grabVideo(0).isValid());

    store.format.has_video = 1;
    store.format.has_audio = 0;
    ShmemReader videoOnly(QStringLiteral("cam0"), 100);
    short sample[2] = {};
    QVERIFY(!videoOnly.grabAudio(0, 10, 0LL).isValid());
    QCOMPARE(videoOnly.grabAudio(0, 1, sample, 0), 0LL);
    QCOMPARE(videoOnly.getAudioFormat(), QAudioFormat());
    QCOMPARE(videoOnly.getAudioLastTimestamp(), 0LL);
    const QStringList calls = store.takeCalls();
    QVERIFY(calls.filter(QStringLiteral("video")).isEmpty());
    QVERIFY(calls.filter(QStringLiteral("audio")).isEmpty());
}

QTEST_GUILESS_MAIN(tst_ShmemReader)
#include "tst_shmemreader.moc"
