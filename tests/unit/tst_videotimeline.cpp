// Built with a MultimediaThread of its own that ticks when the test says so and notes what it was asked.
#include "fake_source.h"

#include <zevqt-mm/videotimeline.h>

#include <zevqt-utils/multimediathread.h>

#include <QtTest/QtTest>

#include <atomic>
#include <chrono>
#include <limits>
#include <thread>

Q_DECLARE_METATYPE(VideoTimeline::OffsetUpdateMode)

namespace {

const long long base = 1700000000000000; // a clock of 2023

long long systemClock()
{
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

MediaSourceBase::VideoStatus statusOf(long long newest, int count, long long interval, long long jitter = 0)
{
    MediaSourceBase::VideoStatus status;
    for (int i = count - 1; i >= 0; --i)
        status.timestamps.append(newest - i * interval);
    status.frameInterval = interval;
    status.jitter = jitter;
    return status;
}

} // namespace

class tst_VideoTimeline : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();

    void threadModeHasANamedThread();
    void externalModeHasNone();
    void startAndStopDriveTheThread();
    void threadTickAsksWithTheSystemClock();
    void externalTickIsIgnoredWithAThread();
    void externalTickUsesItsTime();
    void externalTickOfZeroReadsTheClock();
    void setFrameRateRestartsOnlyOnChange();
    void setFrameRateRestartsTheWarmUp();

    void noFramesResetsEverything();
    void tooLittleToComputeWith_data();
    void tooLittleToComputeWith();
    void zeroRateKeepsTheOffset_data();
    void zeroRateKeepsTheOffset();
    void oneStatusPerTick();

    void offset_data();
    void offset();
    void offsetModes_data();
    void offsetModes();

    void warmUpLowersTwiceASecond_data();
    void warmUpLowersTwiceASecond();
    void warmUpNeverRaises();
    void unsetOffsetIsComputedAfterTheWarmUp();
    void stopKeepsTheOffset();

    void correction_data();
    void correction();
    void midpointThreshold_data();
    void midpointThreshold();
    void readPointOutsideTheHistoryIsLeftAlone_data();
    void readPointOutsideTheHistoryIsLeftAlone();
    void readPointOnATimestampLiesBehindIt_data();
    void readPointOnATimestampLiesBehindIt();
    void beatTestRunsDuringTheWarmUpToo();

    void adjustReadPosition();
    void adjustReadPositionCountsOnce();
    void adjustReadPositionOfZeroIsIgnored();
    void aimIsNotLostToATickUnderWay();

    void oddRatesDoNotTrap_data();
    void oddRatesDoNotTrap();

private:
    /*! Past the warm-up, with the read offset `offset`. */
    void prepare(VideoTimeline &timeline, long long offset, int ticksPerSecond);

    QSharedPointer<FakeSource> source;
};

void tst_VideoTimeline::init()
{
    source.reset(new FakeSource);
    MultimediaThread::calls.clear();
}

void tst_VideoTimeline::prepare(VideoTimeline &timeline, long long offset, int ticksPerSecond)
{
    timeline.setMinDepth(0);
    timeline.updateReadOffset(base + offset, 0, statusOf(base, 2, 0), VideoTimeline::Replace);
    QCOMPARE(timeline.getReadOffset(), offset);
    timeline.start();
    // Frames so old that the warm-up never lowers to them, at an interval that gives no beat (ratio 1.6).
    source->status = statusOf(base - 900000000, 2, 1600000 / ticksPerSecond);
    for (int i = 0; i < 2 * ticksPerSecond + 2; ++i)
        timeline.nextTimestamp(base);
    QCOMPARE(timeline.getReadOffset(), offset);
}

void tst_VideoTimeline::threadModeHasANamedThread()
{
    source->sourceName = QStringLiteral("cam 0");
    VideoTimeline timeline(source, 25000000, 1000000, false, nullptr);
    const auto threads = timeline.findChildren<MultimediaThread *>();
    QCOMPARE(threads.size(), 1);
    QCOMPARE(threads.first()->parent(), &timeline);
    QCOMPARE(threads.first()->objectName(), QStringLiteral("VT cam 0"));
    QCOMPARE(MultimediaThread::calls, QStringList()); // does not tick until start()
}

void tst_VideoTimeline::externalModeHasNone()
{
    VideoTimeline timeline(source, 25000000, 1000000, true, nullptr);
    QVERIFY(timeline.findChildren<MultimediaThread *>().isEmpty());
    timeline.start();
    timeline.stop();
    QCOMPARE(MultimediaThread::calls, QStringList());
}

void tst_VideoTimeline::startAndStopDriveTheThread()
{
    VideoTimeline timeline(source, 25000000, 1000000, false, nullptr);
    timeline.start();
    timeline.stop();
    QCOMPARE(MultimediaThread::calls, QStringList({"start 1000000 25000000 0", "stop 0"}));
}

void tst_VideoTimeline::threadTickAsksWithTheSystemClock()
{
    VideoTimeline timeline(source, 25000000, 1000000, false, nullptr);
    QVector<long long> asked;
    connect(&timeline, &VideoTimeline::tick, [&](long long ts) { asked.append(ts); });
    const long long before = systemClock();
    Q_EMIT timeline.findChild<MultimediaThread *>()->tick();
    const long long after = systemClock();
    QCOMPARE(asked.size(), 1);
    QVERIFY(before <= asked.first() && asked.first() <= after); // no frames: the clock itself
}

void tst_VideoTimeline::externalTickIsIgnoredWithAThread()
{
    VideoTimeline timeline(source, 25000000, 1000000, false, nullptr);
    QSignalSpy ticks(&timeline, &VideoTimeline::tick);
    timeline.externalTick(base);
    QCOMPARE(ticks.count(), 0);
    QCOMPARE(source->statusCalls, 0);
}

void tst_VideoTimeline::externalTickUsesItsTime()
{
    VideoTimeline timeline(source, 25000000, 1000000, true, nullptr);
    QSignalSpy ticks(&timeline, &VideoTimeline::tick);
    timeline.externalTick(base);
    QVERIFY(QMetaObject::invokeMethod(&timeline, "externalTick", Q_ARG(qlonglong, base + 1)));
    QCOMPARE(ticks.count(), 2);
    QCOMPARE(ticks.at(0).at(0).toLongLong(), base);
    QCOMPARE(ticks.at(1).at(0).toLongLong(), base + 1);
}

void tst_VideoTimeline::externalTickOfZeroReadsTheClock()
{
    VideoTimeline timeline(source, 25000000, 1000000, true, nullptr);
    QSignalSpy ticks(&timeline, &VideoTimeline::tick);
    const long long before = systemClock();
    timeline.externalTick(0);
    const long long after = systemClock();
    const long long asked = ticks.at(0).at(0).toLongLong();
    QVERIFY(before <= asked && asked <= after);
}

void tst_VideoTimeline::setFrameRateRestartsOnlyOnChange()
{
    VideoTimeline timeline(source, 25000000, 1000000, false, nullptr);
    timeline.setFrameRate(50, 1);
    QCOMPARE(MultimediaThread::calls, QStringList()); // not running: only stored
    timeline.start();
    timeline.setFrameRate(50, 1);
    QCOMPARE(MultimediaThread::calls, QStringList({"start 1 50 0"}));
    timeline.setFrameRate(50, 2);
    timeline.setFrameRate(60, 2);
    QCOMPARE(MultimediaThread::calls,
             QStringList({"start 1 50 0", "stop 0", "start 2 50 0", "stop 0", "start 2 60 0"}));
}

void tst_VideoTimeline::setFrameRateRestartsTheWarmUp()
{
    VideoTimeline timeline(source, 25, 1, true, nullptr);
    prepare(timeline, 5000000, 25);
    source->status = statusOf(base, 3, 64000); // ratio 1.6: no beat
    QCOMPARE(timeline.nextTimestamp(base), base - 5000000);
    timeline.setFrameRate(25, 1); // the same: goes on
    for (int i = 0; i < 30; ++i)
        QCOMPARE(timeline.nextTimestamp(base), base - 5000000);
    timeline.setFrameRate(50, 2); // another pair for the same rate restarts: tick 13 lowers
    for (int i = 1; i < 13; ++i)
        QCOMPARE(timeline.nextTimestamp(base), base - 5000000);
    QCOMPARE(timeline.nextTimestamp(base), base - 1); // depth 0, a newest frame 0 old: 0, stored as 1
    QCOMPARE(timeline.getReadOffset(), 1LL);
}

void tst_VideoTimeline::noFramesResetsEverything()
{
    VideoTimeline timeline(source, 25, 1, true, nullptr);
    prepare(timeline, 70000, 25);
    source->status = {};
    QCOMPARE(timeline.nextTimestamp(base), base);
    QCOMPARE(timeline.nextTimestamp(base + 40000), base + 40000);
    QCOMPARE(timeline.getReadOffset(), 0LL);
    // The warm-up counts from the start again: 12 ticks without, the 13th lowers.
    source->status = statusOf(base - 1000000, 3, 64000);
    QCOMPARE(timeline.nextTimestamp(base), base - 1000000); // tick 1 computes
    source->status = statusOf(base - 10, 3, 64000);
    for (int i = 2; i < 13; ++i)
        QCOMPARE(timeline.nextTimestamp(base), base - 1000000);
    QCOMPARE(timeline.nextTimestamp(base), base - 10);
}

void tst_VideoTimeline::tooLittleToComputeWith_data()
{
    QTest::addColumn<int>("frames");
    QTest::addColumn<long long>("interval");
    QTest::addColumn<bool>("computes");
    QTest::newRow("one frame") << 1 << 40000LL << false;
    QTest::newRow("two frames") << 2 << 40000LL << true;
    QTest::newRow("interval 1999") << 3 << 1999LL << false;
    QTest::newRow("interval 2000") << 3 << 2000LL << true;
    QTest::newRow("interval unknown") << 3 << 0LL << false;
    QTest::newRow("interval negative") << 3 << -40000LL << false;
}

void tst_VideoTimeline::tooLittleToComputeWith()
{
    QFETCH(int, frames);
    QFETCH(long long, interval);
    QFETCH(bool, computes);
    VideoTimeline timeline(source, 25, 1, true, nullptr);
    source->status = statusOf(base - 30000, frames, interval);
    const long long expected = computes ? 30000 + interval : 0; // depth 1
    QCOMPARE(timeline.nextTimestamp(base), base - expected);
    QCOMPARE(timeline.getReadOffset(), expected);
    // With an offset there, it is used.
    timeline.updateReadOffset(base + 500, 0, statusOf(base, 2, 0), VideoTimeline::Replace);
    QCOMPARE(timeline.getReadOffset(), 500LL);
    QCOMPARE(timeline.nextTimestamp(base), base - 500);
}

void tst_VideoTimeline::zeroRateKeepsTheOffset_data()
{
    QTest::addColumn<int>("numerator");
    QTest::addColumn<int>("denominator");
    QTest::newRow("numerator") << 0 << 1;
    QTest::newRow("denominator") << 25 << 0;
    QTest::newRow("both") << 0 << 0;
}

void tst_VideoTimeline::zeroRateKeepsTheOffset()
{
    QFETCH(int, numerator);
    QFETCH(int, denominator);
    VideoTimeline timeline(source, numerator, denominator, true, nullptr);
    source->status = statusOf(base, 3, 40000);
    QCOMPARE(timeline.nextTimestamp(base + 7), base + 7);
    QCOMPARE(timeline.getReadOffset(), 0LL);
    timeline.updateReadOffset(base + 500, 0, statusOf(base, 2, 0), VideoTimeline::Replace);
    QCOMPARE(timeline.nextTimestamp(base + 7), base + 7 - 500);
}

void tst_VideoTimeline::oneStatusPerTick()
{
    VideoTimeline timeline(source, 25, 1, true, nullptr);
    source->status = statusOf(base, 3, 40000);
    for (int i = 1; i <= 60; ++i) {
        timeline.nextTimestamp(base + i * 40000);
        QCOMPARE(source->statusCalls, i);
    }
}

void tst_VideoTimeline::offset_data()
{
    QTest::addColumn<long long>("latency"); // 0: none
    QTest::addColumn<int>("minDepth");
    QTest::addColumn<long long>("age");
    QTest::addColumn<long long>("interval");
    QTest::addColumn<long long>("jitter");
    QTest::addColumn<long long>("correction");
    QTest::addColumn<long long>("expected");

    const long long i = 40000;
    QTest::newRow("depth 2") << 0LL << 2 << 30000LL << i << 0LL << 0LL << 30000 + 2 * i;
    QTest::newRow("jitter of a tenth: depth 2") << 0LL << 2 << 30000LL << i << 4000LL << 0LL << 30000 + 2 * i;
    QTest::newRow("jitter above a tenth: depth 3")
        << 0LL << 2 << 30000LL << i << 4001LL << 0LL << 30000 + 3 * i;
    QTest::newRow("a tenth is truncated") << 0LL << 2 << 0LL << 40009LL << 4001LL << 0LL << 3 * 40009LL;
    QTest::newRow("latency: depth 4") << 200000LL << 2 << 30000LL << i << 0LL << 0LL << 30000 + 4 * i;
    QTest::newRow("latency: no jitter frame")
        << 200000LL << 2 << 30000LL << i << 9999LL << 0LL << 30000 + 4 * i;
    QTest::newRow("as deep as the least: jitter counts")
        << 200000LL << 4 << 30000LL << i << 4001LL << 0LL << 30000 + 5 * i;
    QTest::newRow("shallower than the least") << 50000LL << 2 << 30000LL << i << 0LL << 0LL << 30000 + 2 * i;
    QTest::newRow("latency below the age") << 10000LL << 1 << 90000LL << i << 0LL << 0LL << 90000 + i;
    QTest::newRow("interval too short for counting")
        << 200000LL << 1 << 30000LL << 1000LL << 0LL << 0LL << 31000LL;
    QTest::newRow("interval long enough")
        << 30000LL << 1 << 10000LL << 1001LL << 0LL << 0LL << 10000 + 19 * 1001LL;
    QTest::newRow("correction") << 0LL << 1 << 30000LL << i << 0LL << -8333LL << 30000 + i - 8333;
    QTest::newRow("exactly 0 becomes 1") << 0LL << 0 << 0LL << i << 0LL << 0LL << 1LL;
    QTest::newRow("0 by correction becomes 1") << 0LL << 1 << 0LL << i << 0LL << -i << 1LL;
    QTest::newRow("a negative least depth is none")
        << 0LL << -1 << 100000LL << i << 9999LL << 0LL << 100000LL;
    QTest::newRow("frames of the future") << 0LL << 1 << -50000LL << i << 0LL << 0LL << -10000LL;
}

void tst_VideoTimeline::offset()
{
    QFETCH(long long, latency);
    QFETCH(int, minDepth);
    QFETCH(long long, age);
    QFETCH(long long, interval);
    QFETCH(long long, jitter);
    QFETCH(long long, correction);
    QFETCH(long long, expected);
    VideoTimeline timeline(source, 25, 1, true, nullptr);
    timeline.setMinDepth(minDepth);
    if (latency)
        timeline.adjustReadPosition(systemClock() - latency);
    timeline.updateReadOffset(base + age, correction, statusOf(base, 3, interval, jitter),
                              VideoTimeline::Replace);
    QCOMPARE(timeline.getReadOffset(), expected);
}

void tst_VideoTimeline::offsetModes_data()
{
    QTest::addColumn<VideoTimeline::OffsetUpdateMode>("mode");
    QTest::addColumn<long long>("computed");
    QTest::addColumn<long long>("expected");
    QTest::newRow("replace by smaller") << VideoTimeline::Replace << 900LL << 900LL;
    QTest::newRow("replace by larger") << VideoTimeline::Replace << 1100LL << 1100LL;
    QTest::newRow("decrease to smaller") << VideoTimeline::DecreaseOnly << 999LL << 999LL;
    QTest::newRow("decrease to equal") << VideoTimeline::DecreaseOnly << 1000LL << 1000LL;
    QTest::newRow("not to larger") << VideoTimeline::DecreaseOnly << 1001LL << 1000LL;
}

void tst_VideoTimeline::offsetModes()
{
    QFETCH(VideoTimeline::OffsetUpdateMode, mode);
    QFETCH(long long, computed);
    VideoTimeline timeline(source, 25, 1, true, nullptr);
    timeline.setMinDepth(0);
    const auto status = statusOf(base, 2, 40000);
    timeline.updateReadOffset(base + 1000, 0, status, VideoTimeline::Replace);
    timeline.updateReadOffset(base + computed, 0, status, mode);
    QTEST(timeline.getReadOffset(), "expected");
    QCOMPARE(int(VideoTimeline::Replace), 0);
    QCOMPARE(int(VideoTimeline::DecreaseOnly), 1);
}

void tst_VideoTimeline::warmUpLowersTwiceASecond_data()
{
    QTest::addColumn<int>("ticks");
    QTest::addColumn<QVector<int>>("loweredAt");
    QTest::newRow("25 a second") << 25 << QVector<int>{1, 13, 26, 39};
    QTest::newRow("1 a second: at each tick") << 1 << QVector<int>{1, 2, 3};
    QTest::newRow("4 a second: at the last one too") << 4 << QVector<int>{1, 3, 6, 9};
}

void tst_VideoTimeline::warmUpLowersTwiceASecond()
{
    QFETCH(int, ticks);
    VideoTimeline timeline(source, ticks * 1000000, 1000000, true, nullptr);
    timeline.setMinDepth(0);
    timeline.start();
    // Each tick finds the newest frame a microsecond younger: whenever the offset is computed, it shrinks.
    QVector<int> loweredAt;
    long long last = 0;
    for (int tick = 1; tick <= 100; ++tick) {
        source->status = statusOf(base - 100000 + tick, 3, 1600000 / ticks); // ratio 1.6: no beat
        timeline.nextTimestamp(base);
        if (timeline.getReadOffset() != last)
            loweredAt.append(tick);
        last = timeline.getReadOffset();
    }
    QTEST(loweredAt, "loweredAt");
}

void tst_VideoTimeline::warmUpNeverRaises()
{
    VideoTimeline timeline(source, 25, 1, true, nullptr);
    timeline.setMinDepth(0);
    timeline.start();
    for (int tick = 1; tick <= 60; ++tick) {
        source->status = statusOf(base - 100000 - tick, 3, 64000);
        timeline.nextTimestamp(base);
        QCOMPARE(timeline.getReadOffset(), 100001LL);
    }
}

void tst_VideoTimeline::unsetOffsetIsComputedAfterTheWarmUp()
{
    VideoTimeline timeline(source, 25, 1, true, nullptr);
    prepare(timeline, 70000, 25);
    timeline.adjustReadPosition(systemClock() - 200000); // clears the offset
    QCOMPARE(timeline.getReadOffset(), 0LL);
    source->status = statusOf(base - 30000, 3, 40000);
    QCOMPARE(timeline.nextTimestamp(base), base - (30000 + 4 * 40000));
}

void tst_VideoTimeline::stopKeepsTheOffset()
{
    VideoTimeline timeline(source, 25, 1, true, nullptr);
    prepare(timeline, 70000, 25);
    timeline.stop();
    QCOMPARE(timeline.getReadOffset(), 70000LL);
    timeline.start();
    source->status = statusOf(base, 3, 64000);
    QCOMPARE(timeline.nextTimestamp(base), base - 70000);
}

void tst_VideoTimeline::correction_data()
{
    QTest::addColumn<int>("ticks");
    QTest::addColumn<long long>("interval");
    QTest::addColumn<bool>("passes");
    QTest::addColumn<long long>("correction");
    QTest::newRow("50 ticks, ratio 2.0: half a tick earlier") << 50 << 40000LL << true << 10000LL;
    QTest::newRow("60 ticks, ratio 1.99998: half a tick later") << 60 << 33333LL << true << -8333LL;
    QTest::newRow("ratio 1.96: half a tick later") << 50 << 39200LL << true << -10000LL;
    QTest::newRow("ratio 1.95 fails") << 50 << 39000LL << false << 0LL;
    QTest::newRow("ratio 1.6 fails") << 50 << 32000LL << false << 0LL;
    QTest::newRow("ratio 0.98: re-anchored") << 50 << 19600LL << true << 0LL;
    QTest::newRow("ratio 1.02: re-anchored") << 50 << 20400LL << true << 0LL;
    QTest::newRow("ratio 1.0: re-anchored") << 50 << 20000LL << true << 0LL;
    QTest::newRow("ratio 3.0: half a tick earlier") << 50 << 60000LL << true << 10000LL;
    QTest::newRow("ratio 2.96: half a tick earlier") << 50 << 59200LL << true << 10000LL;
    QTest::newRow("ratio 2.04: half a tick earlier") << 50 << 40800LL << true << 10000LL;
    QTest::newRow("ratio 0.5: re-anchored") << 50 << 10000LL << true << 0LL;
    QTest::newRow("ratio 0.6 fails") << 50 << 12000LL << false << 0LL;
    QTest::newRow("ratio 1/3: re-anchored") << 25 << 13333LL << true << 0LL;
}

void tst_VideoTimeline::correction()
{
    QFETCH(int, ticks);
    QFETCH(long long, interval);
    QFETCH(bool, passes);
    QFETCH(long long, correction);
    VideoTimeline timeline(source, ticks * 1000000, 1000000, true, nullptr);
    // The read point lies in the middle between the second and the third newest frame.
    const long long offset = interval + interval / 2;
    prepare(timeline, offset, ticks);
    timeline.setMinDepth(2);
    source->status = statusOf(base, 6, interval);
    const long long expected = passes ? 2 * interval + correction : offset;
    QCOMPARE(timeline.nextTimestamp(base), base - expected);
    QCOMPARE(timeline.getReadOffset(), expected);
}

void tst_VideoTimeline::midpointThreshold_data()
{
    QTest::addColumn<long long>("interval");
    QTest::addColumn<int>("ticks");
    QTest::addColumn<long long>("difference"); // between the distances to the two frames; even
    QTest::addColumn<bool>("moves");
    const auto rows = [](long long interval, int ticks, long long threshold) {
        QTest::addRow("%lld, inside above", interval) << interval << ticks << threshold - 2 << true;
        QTest::addRow("%lld, at above", interval) << interval << ticks << threshold << false;
        QTest::addRow("%lld, inside below", interval) << interval << ticks << 2 - threshold << true;
        QTest::addRow("%lld, at below", interval) << interval << ticks << -threshold << false;
    };
    rows(19998, 50, 2000);
    rows(20000, 50, 2000);
    rows(25000, 40, 2500);
    rows(40000, 50, 4000);
    rows(40000, 25, 4000);
    // Odd: the differences are odd, too.
    QTest::newRow("19999, inside") << 19999LL << 50 << 1999LL << true;
    QTest::newRow("19999, outside") << 19999LL << 50 << 2001LL << false;
}

void tst_VideoTimeline::midpointThreshold()
{
    QFETCH(long long, interval);
    QFETCH(int, ticks);
    QFETCH(long long, difference);
    QFETCH(bool, moves);
    VideoTimeline timeline(source, ticks, 1, true, nullptr);
    const long long sincePrevious = (interval + difference) / 2;
    const long long offset = 2 * interval - sincePrevious;
    prepare(timeline, offset, ticks);
    timeline.setMinDepth(3);
    source->status = statusOf(base, 6, interval);
    timeline.nextTimestamp(base);
    QCOMPARE(timeline.getReadOffset() != offset, moves);
}

void tst_VideoTimeline::readPointOutsideTheHistoryIsLeftAlone_data()
{
    QTest::addColumn<long long>("offset");
    QTest::newRow("later than the newest") << -5LL;
    QTest::newRow("before the oldest") << 5 * 20000LL + 1;
    QTest::newRow("long before the oldest") << 1000000000LL;
}

void tst_VideoTimeline::readPointOutsideTheHistoryIsLeftAlone()
{
    QFETCH(long long, offset);
    VideoTimeline timeline(source, 50, 1, true, nullptr);
    prepare(timeline, offset < 800000000 ? offset : 5000, 50);
    if (offset >= 800000000)
        timeline.updateReadOffset(base + offset, 0, statusOf(base, 2, 0), VideoTimeline::Replace);
    timeline.setMinDepth(2);
    source->status = statusOf(base, 6, 20000);
    QCOMPARE(timeline.nextTimestamp(base), base - offset);
    QCOMPARE(timeline.getReadOffset(), offset);
}

void tst_VideoTimeline::readPointOnATimestampLiesBehindIt_data()
{
    QTest::addColumn<QVector<long long>>("timestamps");
    QTest::addColumn<bool>("moves");
    // Relative to the read point. Its interval is the one that begins there.
    QTest::newRow("even") << QVector<long long>{-20000, 0, 20000, 40000} << false;
    QTest::newRow("followed closely") << QVector<long long>{-20000, 0, 1000, 40000} << true;
    QTest::newRow("following closely") << QVector<long long>{-1000, 0, 20000, 40000} << false;
    QTest::newRow("twice, evenly") << QVector<long long>{-20000, 0, 0, 20000} << false;
}

void tst_VideoTimeline::readPointOnATimestampLiesBehindIt()
{
    QFETCH(QVector<long long>, timestamps);
    QFETCH(bool, moves);
    const long long offset = 50000;
    VideoTimeline timeline(source, 50, 1, true, nullptr);
    prepare(timeline, offset, 50);
    timeline.setMinDepth(5);
    source->status.frameInterval = 20000;
    source->status.timestamps.clear();
    for (long long timestamp : timestamps)
        source->status.timestamps.append(base - offset + timestamp);
    timeline.nextTimestamp(base);
    QCOMPARE(timeline.getReadOffset() != offset, moves);
}

void tst_VideoTimeline::beatTestRunsDuringTheWarmUpToo()
{
    VideoTimeline timeline(source, 50, 1, true, nullptr);
    timeline.start();
    timeline.setMinDepth(0);
    const long long middle = 20000 + 20000 / 2;
    timeline.updateReadOffset(base + middle, 0, statusOf(base, 2, 0), VideoTimeline::Replace);
    timeline.setMinDepth(2);
    source->status = statusOf(base, 6, 20000);
    QCOMPARE(timeline.nextTimestamp(base), base - 40000); // tick 1 of the warm-up, which is no multiple of 26
}

void tst_VideoTimeline::adjustReadPosition()
{
    VideoTimeline timeline(source, 25, 1, true, nullptr);
    prepare(timeline, 70000, 25);
    QVERIFY(
        QMetaObject::invokeMethod(&timeline, "adjustReadPosition", Q_ARG(qlonglong, systemClock() - 210000)));
    QCOMPARE(timeline.getReadOffset(), 0LL);
    timeline.setMinDepth(1);
    source->status = statusOf(base - 30000, 8, 40000);
    QCOMPARE(timeline.nextTimestamp(base), base - 30000 - 4 * 40000);
}

void tst_VideoTimeline::adjustReadPositionCountsOnce()
{
    VideoTimeline timeline(source, 25, 1, true, nullptr);
    const auto status = statusOf(base - 30000, 3, 40000);
    timeline.adjustReadPosition(systemClock() - 210000);
    timeline.updateReadOffset(base, 0, status, VideoTimeline::Replace);
    timeline.adjustReadPosition(systemClock() - 1010000);
    QCOMPARE(timeline.getReadOffset(), 30000LL + 4 * 40000); // neither cleared
    timeline.updateReadOffset(base, 0, status, VideoTimeline::Replace);
    QCOMPARE(timeline.getReadOffset(), 30000LL + 4 * 40000); // nor aimed elsewhere
    timeline.stop();
    timeline.adjustReadPosition(systemClock() - 410000);
    QCOMPARE(timeline.getReadOffset(), 0LL);
    timeline.updateReadOffset(base, 0, status, VideoTimeline::Replace);
    QCOMPARE(timeline.getReadOffset(), 30000LL + 9 * 40000);
}

void tst_VideoTimeline::adjustReadPositionOfZeroIsIgnored()
{
    VideoTimeline timeline(source, 25, 1, true, nullptr);
    prepare(timeline, 70000, 25);
    timeline.adjustReadPosition(0);
    QCOMPARE(timeline.getReadOffset(), 70000LL);
    timeline.adjustReadPosition(systemClock() - 210000); // still the first that counts
    QCOMPARE(timeline.getReadOffset(), 0LL);
}

void tst_VideoTimeline::aimIsNotLostToATickUnderWay()
{
    VideoTimeline timeline(source, 25, 1, true, nullptr);
    source->status = statusOf(base - 30000, 8, 40000);
    const int rounds = 20000;
    std::atomic<int> round{0};
    std::atomic<int> ticked{0};
    std::thread tickThread([&] {
        for (int i = 1; i <= rounds; ++i) {
            while (round.load() < i)
                std::this_thread::yield();
            timeline.nextTimestamp(base);
            ticked.store(i);
        }
    });
    int lost = 0;
    for (int i = 1; i <= rounds; ++i) {
        timeline.stop();
        timeline.adjustReadPosition(systemClock() - 210000); // not computed yet, as after a start
        timeline.stop();
        round.store(i);
        timeline.adjustReadPosition(systemClock() - 610000);
        while (ticked.load() < i)
            std::this_thread::yield();
        timeline.nextTimestamp(base);
        lost += timeline.getReadOffset() < 30000 + 14 * 40000 ? 1 : 0;
    }
    tickThread.join();
    QCOMPARE(lost, 0);
}

void tst_VideoTimeline::oddRatesDoNotTrap_data()
{
    QTest::addColumn<int>("numerator");
    QTest::addColumn<int>("denominator");
    const int least = std::numeric_limits<int>::min();
    const int most = std::numeric_limits<int>::max();
    QTest::newRow("-2/1: a warm-up period of 0") << -2 << 1;
    QTest::newRow("-3/1: a warm-up period of 0") << -3 << 1;
    QTest::newRow("least/-1") << least / 2 << -1;
    QTest::newRow("twice the numerator wraps") << most << 1;
    QTest::newRow("least/least") << least << least;
}

void tst_VideoTimeline::oddRatesDoNotTrap()
{
    QFETCH(int, numerator);
    QFETCH(int, denominator);
    VideoTimeline timeline(source, numerator, denominator, true, nullptr);
    QSignalSpy ticks(&timeline, &VideoTimeline::tick);
    source->status = statusOf(base, 4, 40000);
    for (int i = 1; i <= 5; ++i)
        timeline.externalTick(base + i * 1000);
    source->status.timestamps = {std::numeric_limits<long long>::min(),
                                 std::numeric_limits<long long>::max()};
    timeline.externalTick(base);
    QCOMPARE(ticks.count(), 6);
}

QTEST_GUILESS_MAIN(tst_VideoTimeline)
#include "tst_videotimeline.moc"
