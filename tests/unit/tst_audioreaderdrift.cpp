#include "fake_audiostore.h"

#include <zevqt-mm/audioplaybackwatch.h>
#include <zevqt-mm/audioreader.h>
#include <zevqt-mm/mediasource.h>

#include <QtTest/QtTest>

#include <algorithm>
#include <cmath>

namespace {

const qint64 epoch = 1000000000;
const int blockBytes = 16384; // what QIODevice asks for: 4096 frames of stereo, 85.3 ms
const int blockFrames = blockBytes / 4;
const qint64 day = 86400000000;
const qint64 blockUs = 85333; // by which the position moves, cut from 85333.3
const int prefetched = 4;     // blocks that the output takes at once to fill its buffer of 250 ms and go on

// How far behind the newest audio a read begins, as it must be: after an anchoring the distance grows by
// what the source's clock is faster and by the third of a microsecond that every block is cut by; while the
// output fills its buffer, blocks are taken without time passing.
class Expectation
{
public:
    Expectation(double ppm, qint64 anchoredDistance)
        : passing(static_cast<double>(blockFrames) * 1e6 / 48000 * (1 + ppm / 1e6)),
          start(static_cast<double>(anchoredDistance))
    {}

    // Before read number `reads` since the anchoring, the first `atOnce` of which took no time.
    double distance(qint64 reads, int atOnce) const
    {
        const double blocks = static_cast<double>(reads);
        const double passed = static_cast<double>(qMax<qint64>(0, reads - (atOnce - 1)));
        // A position ahead reads what there is: from then on it keeps a block's time behind.
        return qMax(start + passed * passing - blocks * blockUs, reads < atOnce ? 0 : passing);
    }
    // Reads until the distance is more than `limit`.
    double readsUntil(double limit, int atOnce) const
    {
        return (limit - start + (atOnce - 1) * passing) / (passing - blockUs);
    }

private:
    double passing;
    double start;
};

struct Outcome
{
    QVector<qint64> jumps;      // the reads at which the position was put forward
    int shortReads = 0;         // that ended in silence
    qint64 silentFrames = 0;    // in them
    qint64 firstShortRead = -1; // microseconds after the start
    qint64 least = 1000000000;  // distance from the newest audio at a read, when the buffer was full
    qint64 most = 0;
    double worst = 0; // difference between the distance and the expected one
    int restarts = 0;
    int countedJumps = 0; // by the reader
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
    void distanceIsAsExpectedAllDay_data();
    void distanceIsAsExpectedAllDay();
    void slowSourceRunsDryForGood();
    void slowSourceIsMendedByStartingAnew();
    void nothingElseIsStartedAnew_data();
    void nothingElseIsStartedAnew();

private:
    Outcome play(double ppm, bool isWatched);
};

namespace {

const qint64 delayUs = 400000;
const qint64 maxDelayUs = 500000;

} // namespace

Outcome tst_AudioReaderDrift::play(double ppm, bool isWatched)
{
    FakeAudioStore &store = FakeAudioStore::instance();
    store.reset();
    store.fillsSamples = false;
    MediaSource source(QStringLiteral("mic"), 100);
    source.open();
    AudioReader reader;
    reader.setDelay(delayUs);
    reader.setMaxDelay(maxDelayUs);
    const QAudioFormat format = source.getAudioFormat();
    reader.open(&source, format, true);
    AudioPlaybackWatch watch;
    watch.begin(0);

    Outcome outcome;
    const Expectation expectation(ppm, delayUs);
    QByteArray data(blockBytes, 0);
    qint64 now = 0;
    qint64 filling = prefetched - 1; // blocks that were or are taken without time passing
    qint64 anchoredAt = 0;
    int atOnce = prefetched;
    for (qint64 block = 0;; ++block) {
        now = qMax(now, (block - filling) * blockFrames * 1000000 / 48000);
        if (now >= day)
            break;
        store.newest = epoch + now + static_cast<qint64>(static_cast<double>(now) * ppm / 1e6);
        store.oldest = store.newest - 2000000;
        store.queries.clear();
        const qint64 before = store.newest - reader.getReadPosition();
        reader.readData(data.data(), blockBytes);
        const FakeAudioStore::Query &query = store.queries.front();
        const qint64 distance = store.newest - query.timestamp;
        const double expected = expectation.distance(block - anchoredAt, atOnce);
        outcome.most = std::max(outcome.most, distance);
        if (block - anchoredAt >= prefetched)
            outcome.least = std::min(outcome.least, distance);
        if (block > anchoredAt && distance != before) {
            outcome.worst = std::max(outcome.worst, std::abs(static_cast<double>(before) - expected));
            outcome.jumps.append(block);
            anchoredAt = block;
            atOnce = 1;
        } else {
            outcome.worst = std::max(outcome.worst, std::abs(static_cast<double>(distance) - expected));
        }
        if (query.delivered < blockFrames) {
            ++outcome.shortReads;
            outcome.silentFrames += blockFrames - query.delivered;
            if (outcome.firstShortRead < 0)
                outcome.firstShortRead = now;
        }
        if (isWatched &&
            watch.check(now, true, reader.getReadPosition(), store.newest, reader.getReserve())) {
            ++outcome.restarts;
            reader.close();
            reader.open(&source, format, true);
            watch.begin(now);
            filling += prefetched;
            anchoredAt = block + 1;
            atOnce = prefetched;
        }
    }
    outcome.countedJumps = reader.getGaps().jumps;
    qInfo("%+.0f ppm%s: %d jumps, %d reads short of %lld frames in all, the first after %lld s; "
          "%.3f to %.3f ms behind, at most %.3f ms from the expectation; %d restarts",
          ppm, isWatched ? ", watched" : "", outcome.jumps.size(), outcome.shortReads, outcome.silentFrames,
          outcome.firstShortRead / 1000000, static_cast<double>(outcome.least) / 1e3,
          static_cast<double>(outcome.most) / 1e3, outcome.worst / 1e3, outcome.restarts);
    return outcome;
}

void tst_AudioReaderDrift::distanceIsAsExpectedAllDay_data()
{
    QTest::addColumn<double>("ppm");
    QTest::newRow("equal clocks") << 0.0;
    QTest::newRow("fast source") << 200.0;
    QTest::newRow("slow source") << -200.0;
}

// Within 5 ms all day long, and every jump where it has to be. Also with equal clocks: a third of a
// microsecond a block is 3.9 ppm, or 100 ms in seven hours.
void tst_AudioReaderDrift::distanceIsAsExpectedAllDay()
{
    QFETCH(double, ppm);
    const Outcome outcome = play(ppm, false);
    QVERIFY2(outcome.worst < 5000, qPrintable(QString::number(outcome.worst)));
    QVERIFY(outcome.most <= maxDelayUs);
    QVERIFY(outcome.least > 0);

    QCOMPARE(outcome.countedJumps, outcome.jumps.size());

    const Expectation expectation(ppm, delayUs);
    const double reads = static_cast<double>(day) * 48000 / 1e6 / blockFrames;
    const double first = expectation.readsUntil(static_cast<double>(maxDelayUs), prefetched);
    const double next = expectation.readsUntil(static_cast<double>(maxDelayUs), 1);
    if (first < 0) {
        QVERIFY(outcome.jumps.isEmpty()); // it comes nearer
        return;
    }
    QCOMPARE(outcome.shortReads, 0);
    QCOMPARE(outcome.jumps.size(),
             first > reads ? 0 : 1 + static_cast<int>((reads - first) / std::ceil(next)));
    if (outcome.jumps.isEmpty())
        return;
    QVERIFY(std::abs(static_cast<double>(outcome.jumps.first()) - first) <= 2 + first / 1000);
    for (int i = 1; i < outcome.jumps.size(); ++i) {
        const auto interval = static_cast<double>(outcome.jumps[i] - outcome.jumps[i - 1]);
        QVERIFY(std::abs(interval - next) <= 2 + next / 1000);
    }
}

// The reserve runs out once, and from then on reads end in silence: a position ahead is never put back.
void tst_AudioReaderDrift::slowSourceRunsDryForGood()
{
    const Outcome outcome = play(-200, false);
    QVERIFY(outcome.firstShortRead > 60000000);
    const double seconds = static_cast<double>(day - outcome.firstShortRead) / 1e6;
    // Nearly 12 reads a second, of which so many lack a frame that the position keeps the source's pace: one
    // of 4095 frames moves it by 85312 us, 21 less than a whole one.
    const double readsPerSecond = 48000.0 / blockFrames;
    const double expected = (blockUs * readsPerSecond - 1e6 * (1 - 200e-6)) / 21;
    QVERIFY2(std::abs(static_cast<double>(outcome.silentFrames) / seconds - expected) < 0.01,
             qPrintable(QString::number(expected)));
    QCOMPARE(qint64(outcome.shortReads), outcome.silentFrames);
}

void tst_AudioReaderDrift::slowSourceIsMendedByStartingAnew()
{
    const Outcome outcome = play(-200, true);
    QVERIFY(outcome.restarts > 0);
    QCOMPARE(outcome.countedJumps, 0); // a start is no jump
    QVERIFY(outcome.worst < 5000);
    // It is seen coming: the reserve is all but gone for five seconds before it is.
    QCOMPARE(outcome.shortReads, 0);
}

void tst_AudioReaderDrift::nothingElseIsStartedAnew_data()
{
    QTest::addColumn<double>("ppm");
    QTest::newRow("equal clocks") << 0.0;
    QTest::newRow("fast source") << 200.0;
}

void tst_AudioReaderDrift::nothingElseIsStartedAnew()
{
    QFETCH(double, ppm);
    QCOMPARE(play(ppm, true).restarts, 0);
}

QTEST_GUILESS_MAIN(tst_AudioReaderDrift)
#include "tst_audioreaderdrift.moc"
