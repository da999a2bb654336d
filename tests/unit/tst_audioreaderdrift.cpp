#include "fake_audiostore.h"

#include <zevqt-mm/audioplaybackwatch.h>
#include <zevqt-mm/audioreader.h>
#include <zevqt-mm/mediasource.h>

#include <QtTest/QtTest>

#include <algorithm>

namespace {

const qint64 epoch = 1000000000;
const int blockBytes = 16384; // what QIODevice asks for: 4096 frames of stereo, 85.3 ms
const int blockFrames = blockBytes / 4;
const qint64 day = 86400000000;
const qint64 prefetched = 3; // blocks that the output takes at once to fill its buffer of 250 ms

struct Outcome
{
    int jumps = 0;              // forward, to the delay
    int shortReads = 0;         // that ended in silence, after the first minute
    qint64 silentFrames = 0;    // in them
    qint64 firstShortRead = -1; // microseconds after the start, after the first minute
    qint64 least = 1000000000;  // distance from the newest audio at a read
    qint64 most = 0;
    int restarts = 0;
};

} // namespace

/*!
 * A day of playing in which the source's clock is faster or slower than the device's. The device takes a
 * block whenever one has been played; nothing here knows the machine's clock.
 */
class tst_AudioReaderDrift : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void fastSourceIsCaughtUpByJumps();
    void slowSourceRunsDryForGood();
    void slowSourceIsMendedByStartingAnew();
    void equalClocksNeverNeedAnything();

private:
    Outcome play(double ppm, qint64 delay, bool isWatched);
};

Outcome tst_AudioReaderDrift::play(double ppm, qint64 delay, bool isWatched)
{
    FakeAudioStore &store = FakeAudioStore::instance();
    store.reset();
    store.fillsSamples = false;
    MediaSource source(QStringLiteral("mic"), 100);
    source.open();
    AudioReader reader;
    reader.setDelay(delay);
    reader.setMaxDelay(delay + 100000);
    const QAudioFormat format = source.getAudioFormat();
    reader.open(&source, format, true);
    AudioPlaybackWatch watch;
    watch.begin(0);

    Outcome outcome;
    QByteArray data(blockBytes, 0);
    qint64 sinceStart = 0;
    qint64 now = 0;
    qint64 filling = prefetched; // blocks that were or are taken without time passing
    for (qint64 block = 0;; ++block) {
        now = qMax(now, (block - filling) * blockFrames * 1000000 / 48000);
        if (now >= day)
            break;
        store.newest = epoch + now + static_cast<qint64>(static_cast<double>(now) * ppm / 1e6);
        store.oldest = store.newest - 2000000;
        store.queries.clear();
        const qint64 expected = reader.getReadPosition();
        reader.readData(data.data(), blockBytes);
        const FakeAudioStore::Query &query = store.queries.front();
        const qint64 distance = store.newest - query.timestamp;
        const bool isSettled = now - sinceStart > 60000000;
        if (isSettled) {
            outcome.least = std::min(outcome.least, distance);
            outcome.most = std::max(outcome.most, distance);
            if (query.timestamp != expected)
                ++outcome.jumps;
            if (query.delivered < blockFrames) {
                ++outcome.shortReads;
                outcome.silentFrames += blockFrames - query.delivered;
                if (outcome.firstShortRead < 0)
                    outcome.firstShortRead = now;
            }
        }
        if (isWatched && watch.check(now, true, reader.getReadPosition(), store.newest)) {
            ++outcome.restarts;
            reader.close();
            reader.open(&source, format, true);
            watch.begin(now);
            sinceStart = now;
            filling += prefetched;
        }
    }
    qInfo(
        "%+.0f ppm, delay %lld ms%s: %d jumps, %d reads short of %lld frames in all, the first after %lld s; "
        "%lld to %lld ms behind; %d restarts",
        ppm, delay / 1000, isWatched ? ", watched" : "", outcome.jumps, outcome.shortReads,
        outcome.silentFrames, outcome.firstShortRead / 1000000, outcome.least / 1000, outcome.most / 1000,
        outcome.restarts);
    return outcome;
}

// 0.2 ms a second: the 100 ms between delay and maxDelay last 500 s, then the position jumps. Nothing is
// silent.
void tst_AudioReaderDrift::fastSourceIsCaughtUpByJumps()
{
    const Outcome outcome = play(200, 400000, false);
    QVERIFY(outcome.jumps > 0);
    QCOMPARE(outcome.shortReads, 0);
    QVERIFY(outcome.most <= 500000);
    const Outcome watched = play(200, 400000, true);
    QCOMPARE(watched.restarts, 0);
    QCOMPARE(watched.jumps, outcome.jumps);
}

// The reserve runs out once, and from then on every read is short by a sample: a position ahead is never put
// back.
void tst_AudioReaderDrift::slowSourceRunsDryForGood()
{
    const Outcome outcome = play(-200, 400000, false);
    QCOMPARE(outcome.jumps, 0);
    QVERIFY(outcome.firstShortRead > 60000000);
    const double seconds = static_cast<double>(day - outcome.firstShortRead) / 1e6;
    // 9.6 frames a second are missing at 48 kHz, spread over nearly 12 reads.
    QVERIFY(std::abs(static_cast<double>(outcome.silentFrames) / seconds - 9.6) < 0.1);
    QVERIFY(outcome.shortReads > 7 * seconds);
}

void tst_AudioReaderDrift::slowSourceIsMendedByStartingAnew()
{
    const Outcome outcome = play(-200, 400000, true);
    QVERIFY(outcome.restarts > 0);
    // It is seen coming: the reserve is all but gone for five seconds before it is.
    QCOMPARE(outcome.shortReads, 0);
}

void tst_AudioReaderDrift::equalClocksNeverNeedAnything()
{
    const Outcome outcome = play(0, 400000, true);
    QCOMPARE(outcome.jumps, 0);
    QCOMPARE(outcome.shortReads, 0);
    QCOMPARE(outcome.restarts, 0);
    QVERIFY(outcome.most - outcome.least < 2); // not a sample in a day
}

QTEST_GUILESS_MAIN(tst_AudioReaderDrift)
#include "tst_audioreaderdrift.moc"
