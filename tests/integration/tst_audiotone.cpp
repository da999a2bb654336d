#include "processorwaits.h"
#include "pulseserver.h"
#include "stallwatch.h"
#include "tonecheck.h"
#include "tonepublisher.h"

#include <zevqt-mm/audioplayer.h>

#include <QtTest/QtTest>

#include <algorithm>
#include <chrono>
#include <cmath>

namespace {

const int patienceMs = 30000;
const TonePublisher::Tone lowTone{441.0, 8000};
const TonePublisher::Tone highTone{1000.0, 4000};
const TonePublisher::Tone middleTone{700.0, 6000};

// What QIODevice asks for at a time, and what a resampler is fed with.
const int bufferedBytes = 16384;
const int framesPerGrab = 1024;

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
    for (size_t i = 0; i < qMin<size_t>(heard.seams.size(), 50); ++i)
        text += QStringLiteral(" @%1s").arg(double(heard.seams[i]) / rate, 0, 'f', 3);
    return text;
}

// The reserve beyond a block is 58 ms, and several parties in a row have to be in time. Who was late is heard
// within the delay, what the output and the server hold, and what the recorder has to wait for.
const double loadedMs = 15;
const double heardWithinUs = 1000000;
const double toldLaterUs = 100000; // by the kernel and by the recorder
// A stretch with a fault for which somebody was late is given up when it is seen, and another one begun, as
// long as there is time.
const int judgedEveryS = 5;
const int toldS = 60;
const int longestS = 100;

double wallClockUs()
{
    using namespace std::chrono;
    return duration<double, std::micro>(system_clock::now().time_since_epoch()).count();
}

// When what was recorded came, and by how much somebody was late when.
class Course
{
public:
    // Since the last call.
    void note(double atUs, int bytes, double lateMs)
    {
        moments.push_back({moments.empty() ? atUs : moments.back().to, atUs, bytes, lateMs});
    }
    double worstMs(double fromUs, double toUs) const
    {
        double worst = 0;
        for (const Moment &moment : moments)
            if (moment.to >= fromUs && moment.from <= toUs)
                worst = std::max(worst, moment.lateMs);
        return worst;
    }
    // Before this byte came.
    double lateBeforeMs(int byte) const
    {
        const auto arrival = std::find_if(moments.begin(), moments.end(),
                                          [&](const Moment &moment) { return moment.bytes > byte; });
        return arrival == moments.end() ? 0
                                        : worstMs(arrival->from - heardWithinUs, arrival->to + toldLaterUs);
    }

private:
    struct Moment
    {
        double from;
        double to;
        int bytes;
        double lateMs;
    };
    std::vector<Moment> moments;
};

QString textOf(const std::vector<ToneFault> &faults)
{
    QStringList texts;
    for (const ToneFault &fault : faults)
        texts.append(QString::fromStdString(fault.what));
    return texts.join(QLatin1String("; "));
}

// Of a recording whose first byte is `first`. What is nowhere in particular is nobody's lateness.
bool areForgiven(const std::vector<ToneFault> &faults, const Course &course, int first, int bytesPerSecond)
{
    return std::all_of(faults.begin(), faults.end(), [&](const ToneFault &fault) {
        return fault.at >= 0 &&
               course.lateBeforeMs(first + static_cast<int>(fault.at * bytesPerSecond)) >= loadedMs;
    });
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
    void checkAllowsOnlyTheSeamsOfThePositions();
    void checkForgivesOnlyWhatSomebodyWasLateFor();
    void checkFindsASampleThatIsLostOnTheWay();
    void tones_data();
    void tones();

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

// Twenty seconds as the reader makes them of reads of 4096 frames, then with one thing changed.
void tst_AudioTone::checkAllowsOnlyTheSeamsOfThePositions()
{
    const ExpectedSeams expected{48000, 4096};
    QVERIFY(std::abs(expected.intervalSeconds() - 5.333) < 0.001);
    QVERIFY(std::abs((ExpectedSeams{48000, 1024}.intervalSeconds()) - 1.333) < 0.001);
    std::vector<double> clean;
    std::vector<size_t> starts;
    for (int64_t read = 0; read < 20 * 48000 / 4096; ++read) {
        const int64_t first = (read * 85333 * 48000 + 500000) / 1000000;
        starts.push_back(clean.size());
        for (int64_t i = first; i < first + 4096; ++i)
            clean.push_back(std::lround(
                lowTone.amplitude * std::sin(2 * M_PI * lowTone.frequency * static_cast<double>(i) / 48000)));
    }
    const auto judge = [&](const std::vector<double> &samples) {
        const std::vector<size_t> seams = seamsOf(samples, 48000, lowTone.frequency, 6);
        return textOf(expected.judge(samples, 48000, lowTone.frequency, seams));
    };
    QCOMPARE(judge(clean), QString());
    const std::vector<size_t> seams = seamsOf(clean, 48000, lowTone.frequency, 6);
    QVERIFY(seams.size() >= 3);

    for (const size_t position : {size_t(100000), size_t(411111), starts[100], seams[1] + 20000}) {
        const auto at = static_cast<ptrdiff_t>(position);
        std::vector<double> changed = clean;
        changed.erase(changed.begin() + at);
        QVERIFY(!judge(changed).isEmpty());
        changed = clean;
        changed.insert(changed.begin() + at, clean[position]);
        QVERIFY(!judge(changed).isEmpty());
        changed = clean;
        std::fill(changed.begin() + at, changed.begin() + at + 100, 0.0);
        QVERIFY(!judge(changed).isEmpty());
    }
    // In the place of a seam: none, one of two samples, one of a sample too few.
    const auto seam = static_cast<ptrdiff_t>(seams[1]);
    std::vector<double> changed = clean;
    changed.erase(changed.begin() + seam);
    QVERIFY(!judge(changed).isEmpty());
    changed.erase(changed.begin() + seam);
    QVERIFY(!judge(changed).isEmpty());
    changed = clean;
    changed.insert(changed.begin() + seam, clean[seams[1]]);
    QVERIFY(!judge(changed).isEmpty());
}

// A real recording of a publisher that leaves out a sample every two seconds: each of them is found, as one
// sample too few, and the verdict is against the recording.
void tst_AudioTone::checkFindsASampleThatIsLostOnTheWay()
{
    TonePublisher publisher("tones", 48000, {lowTone, highTone}, 2 * 48000);
    QVERIFY(publisher.isPublished());
    MediaSource source(QStringLiteral("tones"), 100);
    QVERIFY(source.open());
    AudioPlayer *player = AudioPlayer::getInstance();
    QVERIFY(player->setDevice(QStringLiteral("a")));
    player->setFixedSampleRate(-1);
    player->setDelay(400000);
    player->setMaxDelay(500000);
    QVERIFY(player->start(&source, 25, true));
    const QByteArray data = record(QStringLiteral("a"), 48000, 2, 9);
    QVERIFY(!data.isEmpty());
    player->stop();

    const ExpectedSeams expected{48000, bufferedBytes / 4};
    const Heard heard = analyze(data, 2, 0, 48000, lowTone, 6);
    qInfo("%s", qPrintable(describe(heard, 48000)));
    int lost = 0;
    const size_t window = 4800;
    const size_t reach = 150;
    for (const size_t seam : heard.seams) {
        if (seam < window + reach || seam + window + reach > heard.samples.size())
            continue;
        const double lag = 48000 * lagBetween(heard.samples, 48000, lowTone.frequency, seam - window - reach,
                                              seam + reach, window);
        lost += std::abs(lag + 1) < 0.1 ? 1 : 0;
    }
    QVERIFY2(lost >= 3 && lost <= 5, qPrintable(QString::number(lost)));
    QVERIFY(!expected.judge(heard.samples, 48000, lowTone.frequency, heard.seams).empty());
}

// Twenty seconds that arrive as they are heard. Samples are missing after 8 and after 16 s, which makes a
// fault each; somebody was late just before the first, before both, somewhere else, or hardly.
void tst_AudioTone::checkForgivesOnlyWhatSomebodyWasLateFor()
{
    const int rate = 48000;
    const int bytesPerSecond = 4 * rate;
    const ExpectedSeams expected{rate, 4096};
    std::vector<double> samples;
    int64_t index = 0;
    for (int64_t read = 0; samples.size() < size_t(20 * rate); ++read) {
        index = (read * 85333 * rate + 500000) / 1000000 + (samples.size() >= size_t(8 * rate) ? 300 : 0) +
                (samples.size() >= size_t(16 * rate) ? 300 : 0);
        for (int64_t i = index; i < index + 4096; ++i)
            samples.push_back(std::lround(
                lowTone.amplitude * std::sin(2 * M_PI * lowTone.frequency * static_cast<double>(i) / rate)));
    }
    const std::vector<size_t> seams = seamsOf(samples, rate, lowTone.frequency, 6);
    const std::vector<ToneFault> faults = expected.judge(samples, rate, lowTone.frequency, seams);
    QVERIFY2(faults.size() == 2, qPrintable(textOf(faults)));
    QVERIFY(faults[0].at > 8 && faults[0].at < 8.1);
    QVERIFY(faults[1].at > 16 && faults[1].at < 16.1);

    const int first = 2 * bytesPerSecond;
    const auto isForgiven = [&](const std::vector<double> &lateAt, double ms) {
        Course course;
        for (int hundredth = 1; hundredth <= 2200; ++hundredth) {
            const bool isLate = std::any_of(lateAt.begin(), lateAt.end(), [&](double second) {
                return hundredth == static_cast<int>(100 * (second + 2));
            });
            course.note(1e15 + 1e4 * hundredth, bytesPerSecond / 100 * hundredth, isLate ? ms : 3);
        }
        return areForgiven(faults, course, first, bytesPerSecond);
    };
    QVERIFY(isForgiven({7.5, 15.9}, 20));
    QVERIFY(isForgiven({8.1, 16.1}, 20)); // the recorder was
    QVERIFY(!isForgiven({7.5, 15.9}, 14));
    QVERIFY(!isForgiven({7.5}, 200));
    QVERIFY(!isForgiven({15.9}, 200));
    QVERIFY(!isForgiven({6.9, 14.9, 8.5, 16.5, 12.0}, 200));
    QVERIFY(!areForgiven({{"the wrong frequency", -1}}, Course(), first, bytesPerSecond));
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
    QTest::addColumn<QString>("store");
    QTest::addColumn<int>("storeRate");
    QTest::addColumn<QString>("sink");
    QTest::addColumn<int>("sinkRate");
    QTest::addColumn<int>("sinkChannels");
    QTest::addColumn<int>("fixedRate");
    QTest::addColumn<int>("framesPerRead");
    QTest::addColumn<QVector<int>>("heard"); // which of the store's channels, on each of the sink's
    QTest::addColumn<double>("tolerance");
    // Without conversion, samples are exact but for the server's rounding; a resampler has its own noise.
    QTest::newRow("equal") << "tones" << 48000 << "a" << 48000 << 2 << -1 << bufferedBytes / 4
                           << QVector<int>{0, 1} << 6.0;
    QTest::newRow("resampled") << "tones" << 48000 << "b" << 44100 << 2 << 44100 << framesPerGrab
                               << QVector<int>{0, 1} << 12.0;
    QTest::newRow("raised") << "tones" << 44100 << "a" << 48000 << 2 << 48000 << framesPerGrab
                            << QVector<int>{0, 1} << 12.0;
    // A channel of many, in mono, which the server resamples.
    QTest::newRow("second") << "tones;1" << 48000 << "c" << 44100 << 1 << -1 << bufferedBytes / 2
                            << QVector<int>{1} << 12.0;
    QTest::newRow("third") << "tones;2" << 48000 << "c" << 44100 << 1 << -1 << bufferedBytes / 2
                           << QVector<int>{2} << 12.0;
}

// A minute of it, without a fault.
void tst_AudioTone::tones()
{
    QFETCH(QString, store);
    QFETCH(int, storeRate);
    QFETCH(QString, sink);
    QFETCH(int, sinkRate);
    QFETCH(int, sinkChannels);
    QFETCH(int, fixedRate);
    QFETCH(int, framesPerRead);
    QFETCH(QVector<int>, heard);
    QFETCH(double, tolerance);
    QCOMPARE(heard.size(), sinkChannels);

    std::vector<TonePublisher::Tone> tones{lowTone, highTone};
    if (store.contains(QLatin1Char(';')))
        tones.push_back(middleTone);
    TonePublisher publisher("tones", storeRate, tones);
    QVERIFY(publisher.isPublished());
    MediaSource source(store, 100);
    QVERIFY(source.open());
    AudioPlayer *player = AudioPlayer::getInstance();
    QVERIFY(player->setDevice(sink));
    player->setFixedSampleRate(fixedRate);
    player->setDelay(400000);
    player->setMaxDelay(500000);

    const ExpectedSeams expected{storeRate, framesPerRead};
    const auto faultsOf = [&](const QByteArray &data, bool isTold) {
        std::vector<ToneFault> faults;
        for (int channel = 0; channel < sinkChannels; ++channel) {
            const TonePublisher::Tone &tone = tones[static_cast<size_t>(heard[channel])];
            const Heard h = analyze(data, sinkChannels, channel, sinkRate, tone, tolerance);
            if (isTold)
                qInfo("channel %d: %s", channel, qPrintable(describe(h, sinkRate)));
            std::vector<ToneFault> ofChannel = expected.judge(h.samples, sinkRate, tone.frequency, h.seams);
            if (ofChannel.empty() && std::abs(h.frequency / tone.frequency - 1) > 0.001)
                ofChannel.push_back({"the wrong frequency", -1});
            if (ofChannel.empty() && std::abs(h.level) > 0.1) // silence changes it, which has its seams
                ofChannel.push_back({"the wrong level", -1});
            faults.insert(faults.end(), ofChannel.begin(), ofChannel.end());
        }
        return faults;
    };

    QVERIFY(player->start(&source, 25, true));
    SinkRecorder recorder;
    QVERIFY(recorder.start(sink, sinkRate, sinkChannels));
    const int secondBytes = 2 * sinkChannels * sinkRate;
    ProcessorWaits waits;
    StallWatch stalls;
    Course course;
    double noted = wallClockUs();
    int first = 2 * secondBytes;
    QString before;
    for (int seconds = 2 * judgedEveryS; seconds <= toldS;) {
        const int wanted = first + seconds * secondBytes;
        if (wanted > longestS * secondBytes)
            QSKIP(qPrintable(QStringLiteral("this machine lets nobody be in time for a minute: ") + before));
        QVERIFY(QTest::qWaitFor(
            [&] {
                const int bytes = recorder.data().size();
                const double now = wallClockUs();
                course.note(now, bytes, std::max(waits.sinceLastMs(), stalls.worstMs(noted, now)));
                noted = now;
                return bytes >= wanted;
            },
            2 * judgedEveryS * 1000 + patienceMs));
        // An output that ran dry is idle for a moment; that it did is heard.
        QTRY_VERIFY_WITH_TIMEOUT(player->isActive(), patienceMs);
        const std::vector<ToneFault> found =
            faultsOf(recorder.data().mid(first, seconds * secondBytes), seconds == toldS);
        if (found.empty()) {
            seconds += judgedEveryS;
            continue;
        }
        double lateMs = 0;
        for (const ToneFault &fault : found)
            lateMs = std::max(lateMs, course.lateBeforeMs(first + static_cast<int>(fault.at * secondBytes)));
        before = QStringLiteral("%1 (in %2 s; somebody was late by up to %3 ms before that)")
                     .arg(textOf(found))
                     .arg(seconds)
                     .arg(lateMs);
        QVERIFY2(areForgiven(found, course, first, secondBytes), qPrintable(before));
        qInfo("begun anew: %s", qPrintable(before));
        first = recorder.data().size() / secondBytes * secondBytes + secondBytes;
        seconds = 2 * judgedEveryS;
    }
    qInfo("somebody was late by up to %.0f ms", course.worstMs(0, noted));
    player->stop();
}

QTEST_GUILESS_MAIN(tst_AudioTone)
#include "tst_audiotone.moc"
