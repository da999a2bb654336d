#include "fake_shm.h"
#include "shmemreader_probe.h"

#include <QtTest/QtTest>

#include <limits>

extern "C" {
#include <libavutil/time.h>
}

/*! What the reader makes of a store's audio; tst_shmemreader has the rest. */
class tst_ShmemReaderAudio : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void audioBlock_data();
    void audioBlock();
    void audioBlockFailures_data();
    void audioBlockFailures();
    void failedAudioStatusWithoutFramesMakesTheReaderReopen();
    void hugeAudioRequestIsRefused();
    void audioOfNoFormatIsRefused_data();
    void audioOfNoFormatIsRefused();
    void audioBlockOutsideTheRealtimeRange();
    void rawAudio_data();
    void rawAudio();
    void rawAudioDeliversNothingWhenChannelsGrew();
    void audioFormat();
    void lastAudioTimestamp_data();
    void lastAudioTimestamp();

private:
    FakeShm &store = FakeShm::instance();
};

void tst_ShmemReaderAudio::init()
{
    store.reset();
}

void tst_ShmemReaderAudio::cleanup()
{
    QCOMPARE(store.openHandles, 0);
}

void tst_ShmemReaderAudio::audioBlock_data()
{
    QTest::addColumn<unsigned long>("frames");
    QTest::addColumn<long long>("ts");
    QTest::addColumn<long long>("start");
    // Held: 500000 to 2500000; 4800 frames are 100000 microseconds.
    QTest::newRow("newest") << 4800ul << 0LL << 2400000LL;
    QTest::newRow("back from the newest") << 4800ul << -50000LL << 2350000LL;
    QTest::newRow("further back than held") << 4800ul << -9000000LL << 500000LL;
    QTest::newRow("inside") << 4800ul << 1000000LL << 1000000LL;
    QTest::newRow("older than held") << 4800ul << 1LL << 500000LL;
    QTest::newRow("newer than held") << 4800ul << 2400001LL << 2400000LL;
    QTest::newRow("just held") << 4800ul << 2400000LL << 2400000LL;
    QTest::newRow("end of time") << 4800ul << std::numeric_limits<long long>::max() << 2400000LL;
    QTest::newRow("everything") << 96000ul << 0LL << 500000LL;
}

void tst_ShmemReaderAudio::audioBlock()
{
    QFETCH(unsigned long, frames);
    QFETCH(long long, ts);
    QFETCH(long long, start);
    ShmemReader reader(QStringLiteral("cam0;1"), 100);
    QVERIFY(reader.check(true));
    store.takeCalls();
    const QAudioBuffer buffer = reader.grabAudio(3, frames, ts);
    QVERIFY(buffer.isValid());
    QCOMPARE(buffer.frameCount(), int(frames));
    QCOMPARE(buffer.startTime(), qint64(start));
    QCOMPARE(buffer.format(), reader.getAudioFormat());
    QCOMPARE(static_cast<const short *>(buffer.constData())[frames * 2 - 1], short(0x1111));
    QCOMPARE(store.takeCalls(),
             QStringList(
                 {"get_audio_status 3",
                  QStringLiteral("query_audio2 stream 3 1 x %1 from %2 channel 1").arg(frames).arg(start)}));
}

void tst_ShmemReaderAudio::audioBlockFailures_data()
{
    QTest::addColumn<unsigned long>("frames");
    QTest::addColumn<int>("statusResult");
    QTest::addColumn<qint64>("queryResult");
    QTest::addColumn<int>("callsAfterOpen");
    QTest::newRow("no frames asked for") << 0ul << 0 << qint64(-1000) << 0;
    QTest::newRow("more than held") << 96001ul << 0 << qint64(-1000) << 1;
    QTest::newRow("status fails") << 4800ul << -19 << qint64(-1000) << 1;
    QTest::newRow("nothing copied") << 4800ul << 0 << qint64(0) << 2;
    QTest::newRow("copy fails") << 4800ul << 0 << qint64(-5) << 2;
    QTest::newRow("neither a block nor an error") << 4800ul << 0 << qint64(2) << 2;
    QTest::newRow("positive status") << 4800ul << 1 << qint64(-1000) << 1;
}

void tst_ShmemReaderAudio::audioBlockFailures()
{
    QFETCH(unsigned long, frames);
    QFETCH(int, statusResult);
    QFETCH(qint64, queryResult);
    QFETCH(int, callsAfterOpen);
    ShmemReader reader(QStringLiteral("cam0"), 100);
    QVERIFY(reader.check(true));
    store.takeCalls();
    store.audioStatusResult = statusResult;
    store.queryResult = queryResult;
    const QAudioBuffer buffer = reader.grabAudio(0, frames, 0LL);
    QVERIFY(!buffer.isValid());
    QCOMPARE(buffer.frameCount(), 0);
    QCOMPARE(store.takeCalls().size(), callsAfterOpen);
    QVERIFY(reader.check(false)); // the store is still trusted
}

void tst_ShmemReaderAudio::failedAudioStatusWithoutFramesMakesTheReaderReopen()
{
    ShmemReader reader(QStringLiteral("cam0"), 100);
    QVERIFY(reader.check(true));
    store.audioStatusResult = -19;
    store.audioStatus = {};
    QVERIFY(!reader.grabAudio(0, 4800, 0LL).isValid());
    store.takeCalls();
    ShmemReaderProbe::letASecondPass(reader);
    QVERIFY(reader.check(false));
    QCOMPARE(store.takeCalls().first(), QStringLiteral("open cam0 100"));
}

void tst_ShmemReaderAudio::hugeAudioRequestIsRefused()
{
    store.audioStatus.frames = std::numeric_limits<uint32_t>::max();
    ShmemReader reader(QStringLiteral("cam0"), 100);
    QVERIFY(!reader.grabAudio(0, 0x20000000ul, 0LL).isValid()); // 2 GiB of samples
    QCOMPARE(store.takeCalls().last(), QStringLiteral("get_audio_status 0"));
}

void tst_ShmemReaderAudio::audioOfNoFormatIsRefused_data()
{
    QTest::addColumn<int>("sampleRate");
    QTest::addColumn<int>("channels");
    QTest::newRow("no rate") << 0 << 2;
    QTest::newRow("no channels") << 48000 << 0;
    QTest::newRow("negative channels") << 48000 << -2;
}

void tst_ShmemReaderAudio::audioOfNoFormatIsRefused()
{
    QFETCH(int, sampleRate);
    QFETCH(int, channels);
    store.format.sample_rate = sampleRate;
    store.format.channels = channels;
    ShmemReader reader(QStringLiteral("cam0"), 100);
    QVERIFY(!reader.grabAudio(0, 480, 0LL).isValid());
    // A buffer of no format has no memory: the store must not be asked to write there.
    QCOMPARE(store.takeCalls().last(), QStringLiteral("get_audio_status 0"));
}

void tst_ShmemReaderAudio::audioBlockOutsideTheRealtimeRange()
{
    ShmemReader reader(QStringLiteral("cam0"), 100);
    reader.setRealtimeSyncRange(-100, 100);
    QVERIFY(!reader.grabAudio(0, 4800, 0LL).isValid());
    QCOMPARE(store.takeCalls().last(), QStringLiteral("get_audio_status 0"));
    reader.setRealtimeSyncRange(-600000, 600000);
    store.audioStatus.newest_timestamp = av_gettime();
    store.audioStatus.oldest_timestamp = store.audioStatus.newest_timestamp - 2000000;
    QVERIFY(reader.grabAudio(0, 4800, 0LL).isValid());
}

void tst_ShmemReaderAudio::rawAudio_data()
{
    QTest::addColumn<qint64>("answer");
    QTest::addColumn<long long>("copied");
    QTest::newRow("all") << qint64(-1000) << 10LL;
    QTest::newRow("some") << qint64(4) << 4LL;
    QTest::newRow("none") << qint64(0) << 0LL;
    QTest::newRow("error") << qint64(-19) << 0LL;
}

void tst_ShmemReaderAudio::rawAudio()
{
    QFETCH(qint64, answer);
    store.queryResult = answer;
    ShmemReader reader(QStringLiteral("cam0;1"), 100);
    reader.setRealtimeSyncRange(-1, 1); // not looked at
    QVERIFY(reader.check(true));
    store.takeCalls();
    short samples[20] = {};
    QTEST(reader.grabAudio(2, 10, samples, -7), "copied");
    QCOMPARE(store.takeCalls(), QStringList({"query_audio2 stream 2 10 x 1 from -7 channel 1"}));
}

void tst_ShmemReaderAudio::rawAudioDeliversNothingWhenChannelsGrew()
{
    ShmemReader reader(QStringLiteral("cam0"), 100);
    QCOMPARE(reader.getAudioFormat().channelCount(), 2);
    short samples[20] = {};
    QCOMPARE(reader.grabAudio(0, 10, samples, 1), 10LL);

    store.format.channels = 6;
    store.ready = 0;
    QVERIFY(reader.check(true));
    store.takeCalls();
    QCOMPARE(reader.grabAudio(0, 10, samples, 1), 0LL);
    QCOMPARE(store.takeCalls(), QStringList()); // nothing may be written

    QCOMPARE(reader.getAudioFormat().channelCount(), 6); // now the caller knows
    short more[60] = {};
    QCOMPARE(reader.grabAudio(0, 10, more, 1), 10LL);

    store.format.channels = 1; // fewer than there is room for
    QVERIFY(reader.check(true));
    QCOMPARE(reader.grabAudio(0, 10, more, 1), 10LL);
}

void tst_ShmemReaderAudio::audioFormat()
{
    ShmemReader reader(QStringLiteral("cam0"), 100);
    const QAudioFormat format = reader.getAudioFormat();
    QCOMPARE(format.channelCount(), 2);
    QCOMPARE(format.sampleRate(), 48000);
    QCOMPARE(format.sampleSize(), 16);
    QCOMPARE(format.sampleType(), QAudioFormat::SignedInt);
    QCOMPARE(format.byteOrder(), QAudioFormat::LittleEndian);
    QCOMPARE(format.codec(), QStringLiteral("audio/pcm"));
}

void tst_ShmemReaderAudio::lastAudioTimestamp_data()
{
    QTest::addColumn<int>("statusResult");
    QTest::addColumn<long long>("expected");
    QTest::newRow("success") << 0 << 2500000LL;
    QTest::newRow("any answer of 0 or more") << 3 << 2500000LL;
    QTest::newRow("failure") << -19 << 0LL;
}

void tst_ShmemReaderAudio::lastAudioTimestamp()
{
    QFETCH(int, statusResult);
    store.audioStatusResult = statusResult;
    ShmemReader reader(QStringLiteral("cam0"), 100);
    QTEST(reader.getAudioLastTimestamp(), "expected");
    QCOMPARE(store.takeCalls().last(), QStringLiteral("get_audio_status 0"));
}

QTEST_GUILESS_MAIN(tst_ShmemReaderAudio)
#include "tst_shmemreaderaudio.moc"
