#include <zevqt-mm/audiolevel.h>

#include <QtMultimedia/QAudioBuffer>
#include <QtTest/QtTest>

namespace {

QAudioFormat pcm(int channels)
{
    QAudioFormat format;
    format.setCodec(QStringLiteral("audio/pcm"));
    format.setSampleRate(48000);
    format.setChannelCount(channels);
    format.setSampleSize(16);
    format.setSampleType(QAudioFormat::SignedInt);
    format.setByteOrder(QAudioFormat::LittleEndian);
    return format;
}

int messages = 0;

void count(QtMsgType, const QMessageLogContext &, const QString &)
{
    ++messages;
}

} // namespace

class tst_AudioLevels : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void invalidBufferHasNone();
    void stereoIsLeftFirst();
    void bufferAndBlockAgree();
    void onePerChannel_data();
    void onePerChannel();
    void noFramesAreTheFloor();
    void failuresSayNothing();
    void theRecordIsTwoFloats();
};

void tst_AudioLevels::invalidBufferHasNone()
{
    QVERIFY(getRmsMaxDecibels(QAudioBuffer()).isEmpty());
}

void tst_AudioLevels::stereoIsLeftFirst()
{
    const qint16 samples[] = {16384, 328, -16384, -328, 16384, 328};
    const QVector<AudioLevel> levels = getRmsMaxDecibels(samples, 3, pcm(2));
    QCOMPARE(levels.size(), 2);
    QVERIFY(qAbs(levels[0].rms + 6.0206) < 0.001);
    QVERIFY(qAbs(levels[0].max + 6.0206) < 0.001);
    QVERIFY(qAbs(levels[1].rms + 39.992) < 0.001);
    QVERIFY(qAbs(levels[1].max + 39.992) < 0.001);
}

void tst_AudioLevels::bufferAndBlockAgree()
{
    QAudioBuffer buffer(480, pcm(2));
    auto *samples = buffer.data<qint16>();
    for (int i = 0; i < 960; ++i)
        samples[i] = static_cast<qint16>(31 * i);
    const QVector<AudioLevel> ofBuffer = getRmsMaxDecibels(buffer);
    const QVector<AudioLevel> ofBlock = getRmsMaxDecibels(samples, 480, pcm(2));
    QCOMPARE(ofBuffer.size(), 2);
    for (int i = 0; i < 2; ++i) {
        QCOMPARE(ofBuffer[i].rms, ofBlock[i].rms);
        QCOMPARE(ofBuffer[i].max, ofBlock[i].max);
        QVERIFY(ofBuffer[i].max > ofBuffer[i].rms);
    }
}

void tst_AudioLevels::onePerChannel_data()
{
    QTest::addColumn<int>("channels");
    QTest::addColumn<int>("expected");
    QTest::newRow("default format") << -1 << 0;
    QTest::newRow("none") << 0 << 0;
    for (int channels = 1; channels <= 8; ++channels)
        QTest::addRow("%d", channels) << channels << channels;
    QTest::newRow("more than a record holds") << 9 << 0;
}

void tst_AudioLevels::onePerChannel()
{
    QFETCH(int, channels);
    QFETCH(int, expected);
    const QVector<qint16> samples(9 * 16, 1000);
    QAudioFormat format = pcm(2);
    format.setChannelCount(channels);
    const QVector<AudioLevel> levels = getRmsMaxDecibels(samples.constData(), 16, format);
    QCOMPARE(levels.size(), expected);
    for (const AudioLevel &level : levels)
        QVERIFY(qAbs(level.rms + 30.309) < 0.001 && qAbs(level.max + 30.309) < 0.001);
}

void tst_AudioLevels::noFramesAreTheFloor()
{
    const QVector<AudioLevel> levels = getRmsMaxDecibels(nullptr, 0, pcm(2));
    QCOMPARE(levels.size(), 2);
    QCOMPARE(levels[1].rms, -120.0f);
    QCOMPARE(levels[1].max, -120.0f);
    QVERIFY(getRmsMaxDecibels(nullptr, 10, pcm(2)).isEmpty());
}

void tst_AudioLevels::failuresSayNothing()
{
    const QVector<qint16> samples(9 * 16, 1000);
    const QtMessageHandler previous = qInstallMessageHandler(count);
    const QVector<int> sizes{getRmsMaxDecibels(QAudioBuffer()).size(),
                             getRmsMaxDecibels(samples.constData(), 16, pcm(9)).size(),
                             getRmsMaxDecibels(nullptr, 16, pcm(2)).size(),
                             getRmsMaxDecibels(samples.constData(), 16, pcm(0)).size()};
    qInstallMessageHandler(previous);
    QCOMPARE(sizes, QVector<int>(4, 0));
    QCOMPARE(messages, 0);
}

void tst_AudioLevels::theRecordIsTwoFloats()
{
    QCOMPARE(sizeof(AudioLevel), size_t(8));
    QCOMPARE(offsetof(AudioLevel, rms), size_t(0));
    QCOMPARE(offsetof(AudioLevel, max), size_t(4));
}

QTEST_GUILESS_MAIN(tst_AudioLevels)
#include "tst_audiolevels.moc"
