#include "audioplayer_testing.h"

#include <QtTest/QtTest>

namespace {

const qint64 firstRead = now - 200000; // the delay before the newest
const int periodBytes = 3840;          // 20 ms at 48 kHz, stereo
const int blockBytes = 16384;          // what QIODevice reads at a time

} // namespace

/*!
 * Where the player says that it is: what it reads next, and what the device takes next, which QIODevice, the
 * resampler and the output's buffer lie between.
 */
class tst_AudioPlayerPosition : public AudioPlayerTest
{
    Q_OBJECT

private Q_SLOTS:
    void isUnknownWhileNothingPlays();
    void isThatOfTheNextSampleTheDeviceGets();
    void whatLiesInTheOutputsBufferIsStillToCome_data();
    void whatLiesInTheOutputsBufferIsStillToCome();
    void whatTheResamplerKeepsIsStillToCome();
    void aServerThatConvertsHasTakenMore();
    void readerCountsWhatItHasReadAhead();

private:
    static qint64 durationOf(int bytes) { return output()->format().durationForBytes(bytes); }
    bool play(int freeBytes, int deviceRate = 48000)
    {
        devices().preferred.setSampleRate(deviceRate);
        player()->setDevice(QStringLiteral("default"));
        if (!player()->start(source.get(), 25))
            return false;
        output()->free = freeBytes;
        return true;
    }
};

void tst_AudioPlayerPosition::isUnknownWhileNothingPlays()
{
    QCOMPARE(player()->getReadPosition(), qint64(0));
    QCOMPARE(player()->getDevicePosition(), qint64(0));
    QVERIFY(play(48000));
    QCOMPARE(player()->getDevicePosition(), qint64(0)); // nothing was read yet
    output()->pull(periodBytes);
    QVERIFY(player()->getDevicePosition() > 0);
    output()->enter(QAudio::IdleState, QAudio::UnderrunError);
    QCOMPARE(player()->getDevicePosition(), qint64(0));
    output()->enter(QAudio::ActiveState, QAudio::NoError);
    QVERIFY(player()->getDevicePosition() > 0);
    player()->stop();
    QCOMPARE(player()->getReadPosition(), qint64(0));
    QCOMPARE(player()->getDevicePosition(), qint64(0));
}

// An empty output: what it takes next is what it asks for next.
void tst_AudioPlayerPosition::isThatOfTheNextSampleTheDeviceGets()
{
    QVERIFY(play(48000));
    QByteArray data = output()->pull(periodBytes);
    QCOMPARE(player()->getReadPosition(), firstRead + durationOf(blockBytes));
    QCOMPARE(player()->getDevicePosition(),
             firstRead + durationOf(blockBytes) - durationOf(blockBytes - periodBytes));
    for (int i = 0; i < 20; ++i) {
        store().pass(20000);
        const qint64 position = player()->getDevicePosition();
        data = output()->pull(periodBytes);
        QCOMPARE(data.size(), periodBytes);
        // A microsecond is a 21st of a sample, and every read cuts one.
        const qint64 index = store().indexOf(position);
        const auto sample = reinterpret_cast<const qint16 *>(data.constData())[0];
        QVERIFY2(sample == FakeAudioStore::sample(index, 0) || sample == FakeAudioStore::sample(index + 1, 0),
                 qPrintable(QString::number(i)));
        QVERIFY(std::abs(player()->getDevicePosition() - position - 20000) <= 2);
    }
}

void tst_AudioPlayerPosition::whatLiesInTheOutputsBufferIsStillToCome_data()
{
    QTest::addColumn<int>("freeBytes");
    QTest::addColumn<qint64>("held");
    QTest::newRow("empty") << 48000 << qint64(0);
    QTest::newRow("a period free") << periodBytes << qint64(230000);
    QTest::newRow("full") << 0 << qint64(250000);
    QTest::newRow("more free than there is") << 60000 << qint64(0);
}

void tst_AudioPlayerPosition::whatLiesInTheOutputsBufferIsStillToCome()
{
    QFETCH(int, freeBytes);
    QFETCH(qint64, held);
    QVERIFY(play(freeBytes));
    output()->pull(blockBytes); // nothing is left that was read ahead
    QCOMPARE(player()->getReadPosition(), firstRead + durationOf(blockBytes));
    QCOMPARE(player()->getDevicePosition(), firstRead + durationOf(blockBytes) - held);
}

void tst_AudioPlayerPosition::whatTheResamplerKeepsIsStillToCome()
{
    player()->setFixedSampleRate(44100);
    QVERIFY(play(48000, 44100));
    QCOMPARE(output()->format().sampleRate(), 44100);
    for (int i = 0; i < 10; ++i) {
        output()->pull(blockBytes);
        store().pass(92880);
        // As much has come out as 10 blocks of 44.1 kHz last; the rest that was read is still to come.
        const qint64 delivered = durationOf((i + 1) * blockBytes);
        QVERIFY(player()->getReadPosition() > firstRead + delivered);
        const qint64 difference = player()->getDevicePosition() - (firstRead + delivered);
        QVERIFY2(std::abs(difference) < 1000, qPrintable(QString::number(difference)));
    }
}

// By three quarters of a period, as far as one can say.
void tst_AudioPlayerPosition::aServerThatConvertsHasTakenMore()
{
    QVERIFY(play(48000));
    output()->pull(blockBytes);
    const qint64 position = player()->getDevicePosition();
    player()->stop();
    QVERIFY(play(48000, 44100));
    QCOMPARE(output()->format().sampleRate(), 48000);
    output()->pull(blockBytes);
    QCOMPARE(player()->getDevicePosition(), position + 15000);
}

void tst_AudioPlayerPosition::readerCountsWhatItHasReadAhead()
{
    AudioReader reader;
    const QAudioFormat format = source->getAudioFormat();
    QCOMPARE(reader.readAhead(), qint64(0));
    QVERIFY(reader.open(source.get(), format, true));
    QCOMPARE(reader.readAhead(), qint64(0));
    reader.read(periodBytes);
    QCOMPARE(reader.readAhead(), format.durationForBytes(blockBytes - periodBytes));
    reader.read(blockBytes - periodBytes);
    QCOMPARE(reader.readAhead(), qint64(0));
    reader.close();
    QCOMPARE(reader.readAhead(), qint64(0));
}

QTEST_GUILESS_MAIN(tst_AudioPlayerPosition)
#include "tst_audioplayerposition.moc"
