#include "pulseserver.h"
#include "tonecheck.h"
#include "tonepublisher.h"

#include <zevqt-mm/audioplaybackwatch.h>
#include <zevqt-mm/audioplayer.h>

#include <QtTest/QtTest>

#include <unistd.h>

#include <algorithm>

namespace {

const int patienceMs = 30000;
const TonePublisher::Tone tone{441.0, 8000};

} // namespace

// What goes wrong while it plays: nothing of it may crash or hang the application, or stop the sound for
// longer than the cause lasts. The order matters: the last ones take the sound server away.
class tst_AudioEvents : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanup();

    void unknownDevice();
    void playedTimeRunsWithTheClock();
    void waveformIsWhatTheSinkPlays();
    void publisherGoesAndReturns();
    void delayAfterAnOutageIsWhatItWas();
    void publisherReturnsWithAnotherFormat_data();
    void publisherReturnsWithAnotherFormat();
    void sourceDestroyed();
    void sourceDestroyedInAnotherThread();
    void teardownWhilePlaying();
    void sinkIsTakenAway();
    void serverDies();

private:
    AudioPlayer *player() const { return AudioPlayer::getInstance(); }
    bool play(MediaSource *source, const char *sink);
    // The recording ends with `frames` frames of tone, or of silence.
    bool hears(SinkRecorder &recorder, bool isTone, int frames = 4800);

    QTemporaryDir stores{QStringLiteral("/tmp/zev-XXXXXX")};
    PulseServer server;
};

void tst_AudioEvents::initTestCase()
{
    qputenv("ZEV_SHM_DIR", stores.path().toUtf8());
    if (!server.start())
        QSKIP("no sound server: is pulseaudio installed?");
}

void tst_AudioEvents::cleanup()
{
    AudioPlayer::teardown();
}

bool tst_AudioEvents::play(MediaSource *source, const char *sink)
{
    player()->setDelay(400000);
    player()->setMaxDelay(500000);
    return player()->setDevice(QLatin1String(sink)) && player()->start(source, 25);
}

bool tst_AudioEvents::hears(SinkRecorder &recorder, bool isTone, int frames)
{
    return QTest::qWaitFor(
        [&] {
            const QByteArray &data = recorder.data();
            if (data.size() < 4 * frames)
                return false;
            const auto *end = reinterpret_cast<const int16_t *>(data.constData()) + data.size() / 4 * 2;
            const std::vector<double> samples =
                channelOf(end - 2 * frames, static_cast<size_t>(frames), 2, 0);
            if (!isTone)
                return std::all_of(samples.begin(), samples.end(), [](double value) { return value == 0; });
            return std::abs(frequencyOf(samples, 48000) / tone.frequency - 1) < 0.02 &&
                   std::abs(levelAgainst(samples, tone.amplitude)) < 0.5;
        },
        patienceMs);
}

void tst_AudioEvents::unknownDevice()
{
    QVERIFY(!player()->setDevice(QStringLiteral("no such sink")));
    QVERIFY(!player()->enabled());
    QVERIFY(player()->setDevice(QStringLiteral("b")));
}

// The time heard is behind live by the delay, the server's buffer and a period, and goes on as fast as the
// clock.
void tst_AudioEvents::playedTimeRunsWithTheClock()
{
    TonePublisher publisher("tone", 48000, {tone, tone});
    MediaSource source(QStringLiteral("tone"), 100);
    QVERIFY(source.open());
    QVERIFY(play(&source, "a"));
    QVector<qint64> times;
    QVector<qint64> ages;
    connect(player(), &AudioPlayer::audioPlayed, this, [&](qint64 timestamp) {
        if (timestamp > 0) {
            times.append(timestamp);
            ages.append(QDateTime::currentMSecsSinceEpoch() * 1000 - timestamp);
        }
    });
    QElapsedTimer playing;
    playing.start();
    QTRY_VERIFY_WITH_TIMEOUT(times.size() >= 50 && playing.hasExpired(4000), patienceMs);
    player()->stop();
    for (const qint64 age : qAsConst(ages)) {
        QVERIFY(age > 0);
        QVERIFY(age < 500000 + 250000 + 20000); // maxDelay, the server's buffer, a period
    }
    // As far as the clock, give or take what the server takes in one go.
    const qint64 reported = times.last() - times.first();
    const qint64 passed = reported + ages.last() - ages.first();
    QVERIFY2(std::abs(reported - passed) < 2 * 250000, qPrintable(QString::number(reported - passed)));
    QVERIFY(reported > 2000000);
}

void tst_AudioEvents::waveformIsWhatTheSinkPlays()
{
    TonePublisher publisher("tone", 48000, {tone, {700, 3000}});
    MediaSource source(QStringLiteral("tone"), 100);
    QVERIFY(source.open());
    const QString path = server.path(QStringLiteral("dump.pcm"));
    player()->setWaveformFile(path);
    SinkRecorder recorder;
    QVERIFY(recorder.start(QStringLiteral("a"), 48000, 2));
    QVERIFY(play(&source, "a"));
    QVERIFY(hears(recorder, true, 96000));
    const QByteArray recorded = recorder.data();
    AudioPlayer::teardown();
    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QByteArray dumped = file.readAll();
    QVERIFY(dumped.size() > 192000);
    // A second from the middle of the file is in the recording, byte for byte.
    QVERIFY(recorded.contains(dumped.mid(96000, 192000)));
}

void tst_AudioEvents::publisherGoesAndReturns()
{
    auto publisher =
        std::make_unique<TonePublisher>("tone", 48000, std::vector<TonePublisher::Tone>{tone, tone});
    MediaSource source(QStringLiteral("tone"), 100);
    QVERIFY(source.open());
    QSignalSpy stopped(player(), &AudioPlayer::playerStopped);
    SinkRecorder recorder;
    QVERIFY(recorder.start(QStringLiteral("a"), 48000, 2));
    QVERIFY(play(&source, "a"));
    stopped.clear();
    for (int i = 0; i < 2; ++i) {
        QVERIFY(hears(recorder, true));
        publisher.reset();
        QVERIFY(hears(recorder, false));
        publisher =
            std::make_unique<TonePublisher>("tone", 48000, std::vector<TonePublisher::Tone>{tone, tone});
        QVERIFY(hears(recorder, true));
    }
    QCOMPARE(stopped.count(), 0);
    QVERIFY(player()->isActive());
    player()->stop(); // before the source goes, which belongs to this function
}

// Ten seconds without a publisher. The player goes on by itself, a buffer later than before; whoever watches
// starts it anew, and it is as late as it was. What is compared is the reserve, the newest audio less the
// read position, which together with the output's constant buffer is the delay.
void tst_AudioEvents::delayAfterAnOutageIsWhatItWas()
{
    const std::vector<TonePublisher::Tone> tones{tone, tone};
    auto publisher = std::make_unique<TonePublisher>("tone", 48000, tones);
    MediaSource source(QStringLiteral("tone"), 100);
    QVERIFY(source.open());
    QVERIFY(play(&source, "a"));
    AudioPlaybackWatch watch;
    QElapsedTimer clock;
    clock.start();
    watch.begin(0);
    int restarts = 0;
    const auto playFor = [&](qint64 us) {
        const qint64 end = clock.nsecsElapsed() / 1000 + us;
        return QTest::qWaitFor(
            [&] {
                const qint64 at = clock.nsecsElapsed() / 1000;
                const qint64 newest = source.getAudioLastTimestamp();
                const qint64 position = player()->getReadPosition();
                if (watch.check(at, player()->isActive(), position, newest, player()->getReserve())) {
                    if (!player()->start(&source, 25))
                        return false;
                    watch.begin(at);
                    ++restarts;
                }
                return at >= end;
            },
            patienceMs);
    };
    QVERIFY(playFor(5000000));
    const int disturbances = restarts;
    const qint64 before = watch.reserve();
    publisher.reset();
    QVERIFY(playFor(10000000));
    QCOMPARE(restarts, disturbances);
    publisher = std::make_unique<TonePublisher>("tone", 48000, tones);
    QVERIFY(playFor(6000000));
    qInfo("reserve %lld ms before, %lld ms after %d restart(s)", before / 1000, watch.reserve() / 1000,
          restarts);
    QVERIFY(restarts > disturbances);
    QVERIFY(before > 0);
    // Give or take a block of the publisher's and what a read is late: an output's buffer is far more.
    QVERIFY(std::abs(watch.reserve() - before) < 85000);
    player()->stop();
}

void tst_AudioEvents::publisherReturnsWithAnotherFormat_data()
{
    QTest::addColumn<int>("rate");
    QTest::addColumn<int>("channels");
    QTest::newRow("more channels") << 48000 << 8;
    QTest::newRow("another rate") << 44100 << 2;
    QTest::newRow("one channel, another rate") << 32000 << 1;
}

void tst_AudioEvents::publisherReturnsWithAnotherFormat()
{
    QFETCH(int, rate);
    QFETCH(int, channels);
    auto publisher =
        std::make_unique<TonePublisher>("tone", 48000, std::vector<TonePublisher::Tone>{tone, tone});
    MediaSource source(QStringLiteral("tone"), 100);
    QVERIFY(source.open());
    SinkRecorder recorder;
    QVERIFY(recorder.start(QStringLiteral("a"), 48000, 2));
    QVERIFY(play(&source, "a"));
    QVERIFY(hears(recorder, true));
    publisher.reset();
    // Eight channels are mixed into two: only the front ones sound.
    std::vector<TonePublisher::Tone> tones(static_cast<size_t>(channels), {tone.frequency, 0});
    tones[0] = tone;
    if (channels > 1)
        tones[1] = tone;
    publisher = std::make_unique<TonePublisher>("tone", rate, tones);
    QVERIFY(hears(recorder, false));
    const int before = recorder.data().size();
    QTRY_VERIFY_WITH_TIMEOUT(
        [&] {
            const QByteArray &data = recorder.data();
            if (data.size() < before + 4 * 9600)
                return false;
            const auto *end = reinterpret_cast<const int16_t *>(data.constData()) + data.size() / 4 * 2;
            const std::vector<double> samples = channelOf(end - 2 * 9600, 9600, 2, 0);
            // Mixing eight channels down lowers the level; the frequency tells that the format was followed.
            return std::abs(frequencyOf(samples, 48000) / tone.frequency - 1) < 0.01 &&
                   levelAgainst(samples, tone.amplitude) > -20;
        }(),
        patienceMs);
    QVERIFY(player()->isActive());
    player()->stop();
}

void tst_AudioEvents::sourceDestroyed()
{
    TonePublisher publisher("tone", 48000, {tone, tone});
    auto source = std::make_unique<MediaSource>(QStringLiteral("tone"), 100);
    QVERIFY(source->open());
    SinkRecorder recorder;
    QVERIFY(recorder.start(QStringLiteral("a"), 48000, 2));
    QVERIFY(play(source.get(), "a"));
    QVERIFY(hears(recorder, true));
    QSignalSpy stopped(player(), &AudioPlayer::playerStopped);
    source.reset();
    QCOMPARE(stopped.count(), 1);
    QVERIFY(!player()->isActive());
    QVERIFY(hears(recorder, false));
}

void tst_AudioEvents::sourceDestroyedInAnotherThread()
{
    TonePublisher publisher("tone", 48000, {tone, tone});
    QThread thread;
    thread.start();
    auto *source = new MediaSource(QStringLiteral("tone"), 100);
    QVERIFY(source->open());
    source->moveToThread(&thread);
    QPointer<MediaSource> guard(source);
    QVERIFY(play(source, "a"));
    QSignalSpy played(player(), &AudioPlayer::audioPlayed);
    QTRY_VERIFY_WITH_TIMEOUT(played.count() > 5, patienceMs);
    QSignalSpy stopped(player(), &AudioPlayer::playerStopped);
    source->deleteLater();
    QTRY_COMPARE_WITH_TIMEOUT(stopped.count(), 1, patienceMs);
    QTRY_VERIFY_WITH_TIMEOUT(!guard, patienceMs);
    QVERIFY(!player()->isActive());
    thread.quit();
    QVERIFY(thread.wait(patienceMs));
}

void tst_AudioEvents::teardownWhilePlaying()
{
    TonePublisher publisher("tone", 48000, {tone, tone});
    MediaSource source(QStringLiteral("tone"), 100);
    QVERIFY(source.open());
    SinkRecorder recorder;
    QVERIFY(recorder.start(QStringLiteral("a"), 48000, 2));
    for (int i = 0; i < 3; ++i) {
        QVERIFY(play(&source, "a"));
        QVERIFY(hears(recorder, true));
        AudioPlayer::teardown();
        QVERIFY(hears(recorder, false));
    }
}

void tst_AudioEvents::sinkIsTakenAway()
{
    TonePublisher publisher("tone", 48000, {tone, tone});
    MediaSource source(QStringLiteral("tone"), 100);
    QVERIFY(source.open());
    QVERIFY(play(&source, "b"));
    QSignalSpy played(player(), &AudioPlayer::audioPlayed);
    QTRY_VERIFY_WITH_TIMEOUT(played.count() > 5, patienceMs);
    QVERIFY(server.removeSink(QStringLiteral("b")));
    player()->stop();
    QTRY_VERIFY_WITH_TIMEOUT(!player()->start(&source, 25), patienceMs); // once Qt has heard of it
    QVERIFY(!player()->isActive());
    // The application lives, and can play elsewhere.
    SinkRecorder recorder;
    QVERIFY(recorder.start(QStringLiteral("a"), 48000, 2));
    QVERIFY(play(&source, "a"));
    QVERIFY(hears(recorder, true));
    player()->stop();
}

void tst_AudioEvents::serverDies()
{
    TonePublisher publisher("tone", 48000, {tone, tone});
    MediaSource source(QStringLiteral("tone"), 100);
    QVERIFY(source.open());
    QVERIFY(play(&source, "a"));
    QSignalSpy played(player(), &AudioPlayer::audioPlayed);
    QSignalSpy stopped(player(), &AudioPlayer::playerStopped);
    QTRY_VERIFY_WITH_TIMEOUT(played.count() > 5, patienceMs);
    server.kill();
    QTRY_COMPARE_WITH_TIMEOUT(stopped.count(), 1, patienceMs);
    QVERIFY(!player()->isActive());
    // Qt still lists the device; it can no longer be opened.
    QVERIFY(!play(&source, "a"));
    QVERIFY(!player()->isActive());
}

QTEST_GUILESS_MAIN(tst_AudioEvents)
#include "tst_audioevents.moc"
