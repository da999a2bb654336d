#include "pulseserver.h"
#include "tonecheck.h"
#include "tonepublisher.h"

#include <zevqt-mm/audioplayer.h>

#include <QtTest/QtTest>

#include <cmath>

namespace {

const int patienceMs = 30000;
const TonePublisher::Tone lowTone{441.0, 8000};
const TonePublisher::Tone highTone{1000.0, 4000};

struct Heard
{
    std::vector<double> samples;
    double frequency;
    double level;
    std::vector<size_t> seams;
};

Heard analyze(const QByteArray &data, int channels, int channel, int rate, const TonePublisher::Tone &tone,
              double tolerance)
{
    Heard heard;
    const size_t frames = static_cast<size_t>(data.size()) / (2 * static_cast<size_t>(channels));
    heard.samples = channelOf(reinterpret_cast<const int16_t *>(data.constData()), frames, channels, channel);
    heard.frequency = frequencyOf(heard.samples, rate);
    heard.level = levelAgainst(heard.samples, tone.amplitude);
    heard.seams = seamsOf(heard.samples, rate, tone.frequency, tolerance);
    return heard;
}

QString describe(const Heard &heard, int rate)
{
    QString text = QStringLiteral("%1 Hz, %2 dB, %3 seams in %4 s")
                       .arg(heard.frequency, 0, 'f', 3)
                       .arg(heard.level, 0, 'f', 3)
                       .arg(heard.seams.size())
                       .arg(double(heard.samples.size()) / rate, 0, 'f', 1);
    for (size_t i = 0; i < qMin<size_t>(heard.seams.size(), 10); ++i)
        text += QStringLiteral(" @%1s").arg(double(heard.seams[i]) / rate, 0, 'f', 3);
    return text;
}

} // namespace

// Tones from a store, through the player and a real sound server, sample by sample.
class tst_AudioTone : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void cleanup();

    void checkFindsASingleSample();
    void tones_data();
    void tones();
    void oneChannelOfMany();

private:
    QByteArray record(const QString &sink, int rate, int channels, int seconds);

    QTemporaryDir stores{QStringLiteral("/tmp/zev-XXXXXX")};
    PulseServer server;
};

void tst_AudioTone::initTestCase()
{
    qputenv("ZEV_SHM_DIR", stores.path().toUtf8());
    if (!server.start())
        QSKIP("no sound server: is pulseaudio installed?");
}

void tst_AudioTone::cleanupTestCase()
{
    server.kill();
}

void tst_AudioTone::cleanup()
{
    AudioPlayer::teardown();
}

// Of what it is given, whatever the phase; otherwise a recording without a finding would mean nothing.
void tst_AudioTone::checkFindsASingleSample()
{
    for (const TonePublisher::Tone &tone : {lowTone, highTone}) {
        std::vector<double> clean;
        for (int i = 0; i < 48000; ++i)
            clean.push_back(std::lround(tone.amplitude * std::sin(2 * M_PI * tone.frequency * i / 48000)));
        QVERIFY(seamsOf(clean, 48000, tone.frequency, 3).empty());
        for (int position = 24000; position < 24200; ++position) {
            std::vector<double> lost = clean;
            lost.erase(lost.begin() + position);
            QCOMPARE(seamsOf(lost, 48000, tone.frequency, 3).size(), size_t(1));
            std::vector<double> twice = clean;
            twice.insert(twice.begin() + position, twice[size_t(position)]);
            QCOMPARE(seamsOf(twice, 48000, tone.frequency, 3).size(), size_t(1));
        }
    }
}

// The given length of recording, without the beginning in which playing starts.
QByteArray tst_AudioTone::record(const QString &sink, int rate, int channels, int seconds)
{
    SinkRecorder recorder;
    if (!recorder.start(sink, rate, channels))
        return {};
    const int frameBytes = 2 * channels;
    const int settle = 2 * rate * frameBytes;
    const int wanted = seconds * rate * frameBytes;
    if (!QTest::qWaitFor([&] { return recorder.data().size() >= settle + wanted; },
                         seconds * 1000 + patienceMs))
        return {};
    return recorder.data().mid(settle, wanted);
}

void tst_AudioTone::tones_data()
{
    QTest::addColumn<QString>("sink");
    QTest::addColumn<int>("sinkRate");
    QTest::addColumn<int>("sinkChannels");
    QTest::addColumn<int>("sourceRate");
    QTest::addColumn<int>("fixedRate");
    QTest::addColumn<int>("seconds");
    QTest::addColumn<double>("tolerance");
    QTest::addColumn<qint64>("delay");
    // Without conversion, samples are exact but for the server's rounding; a resampler has its own noise.
    QTest::newRow("equal formats") << "a" << 48000 << 2 << 48000 << -1 << 30 << 6.0 << qint64(400000);
    QTest::newRow("resampled by the reader")
        << "b" << 44100 << 2 << 48000 << 44100 << 10 << 12.0 << qint64(400000);
}

void tst_AudioTone::tones()
{
    QFETCH(QString, sink);
    QFETCH(int, sinkRate);
    QFETCH(int, sinkChannels);
    QFETCH(int, sourceRate);
    QFETCH(int, fixedRate);
    QFETCH(int, seconds);
    QFETCH(double, tolerance);
    QFETCH(qint64, delay);

    TonePublisher publisher("tones", sourceRate, {lowTone, highTone});
    QVERIFY(publisher.isPublished());
    MediaSource source(QStringLiteral("tones"), 100);
    QVERIFY(source.open());
    AudioPlayer *player = AudioPlayer::getInstance();
    QVERIFY(player->setDevice(sink));
    player->setFixedSampleRate(fixedRate);
    player->setDelay(delay);
    player->setMaxDelay(delay + 100000);
    QVERIFY(player->start(&source, 25, true));
    QCOMPARE(player->sampleRate(), sinkRate);

    const QByteArray data = record(sink, sinkRate, sinkChannels, seconds);
    QVERIFY(!data.isEmpty());
    QVERIFY(player->isActive());
    const TonePublisher::Tone expected[] = {lowTone, highTone};
    for (int channel = 0; channel < 2; ++channel) {
        const TonePublisher::Tone &tone = expected[channel];
        const Heard heard = analyze(data, sinkChannels, channel, sinkRate, tone, tolerance);
        qInfo("channel %d: %s", channel, qPrintable(describe(heard, sinkRate)));
        QVERIFY(std::abs(heard.frequency / tone.frequency - 1) < 0.001);
        QVERIFY(std::abs(heard.level) < 0.1);
        QVERIFY(heard.seams.empty());
    }
}

void tst_AudioTone::oneChannelOfMany()
{
    TonePublisher publisher("many", 48000, {lowTone, lowTone, highTone, lowTone});
    QVERIFY(publisher.isPublished());
    MediaSource source(QStringLiteral("many;2"), 100);
    QVERIFY(source.open());
    QCOMPARE(source.getAudioFormat().channelCount(), 1);
    AudioPlayer *player = AudioPlayer::getInstance();
    QVERIFY(player->setDevice(QStringLiteral("c")));
    player->setDelay(400000);
    player->setMaxDelay(500000);
    QVERIFY(player->start(&source, 25, true));
    const QByteArray data = record(QStringLiteral("c"), 44100, 1, 3);
    const Heard heard = analyze(data, 1, 0, 44100, highTone, 12);
    qInfo("%s", qPrintable(describe(heard, 44100)));
    QVERIFY(std::abs(heard.frequency / highTone.frequency - 1) < 0.001);
    QVERIFY(std::abs(heard.level) < 0.1);
}

QTEST_GUILESS_MAIN(tst_AudioTone)
#include "tst_audiotone.moc"
