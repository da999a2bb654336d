#include "audioplayer_testing.h"

#include <QtTest/QtTest>

/*!
 * What the player does at every report of its output: it looks whether the wall clock was set, and works out
 * which timestamp is being heard.
 */
class tst_AudioPlayerClock : public AudioPlayerTest
{
    Q_OBJECT

private Q_SLOTS:
    void clockShift_data();
    void clockShift();
    void playedTimeBeforeTheFirstSample();
    void playedTimeStartsUncorrectedAndIsSmoothed();
    void playedTimeIsASlowAverage();
    void timePassingIsAdded();
    void correctionIsCutTowardsZero();
    void playedTimeSurvivesLongPlaying();
};

void tst_AudioPlayerClock::clockShift_data()
{
    QTest::addColumn<qint64>("shift");
    QTest::addColumn<bool>("isStopped");
    QTest::newRow("none") << qint64(0) << false;
    QTest::newRow("1000 ms") << qint64(1000) << false;
    QTest::newRow("1001 ms") << qint64(1001) << true;
    QTest::newRow("-1000 ms") << qint64(-1000) << false;
    QTest::newRow("-1001 ms") << qint64(-1001) << true;
    QTest::newRow("a day") << qint64(86400000) << true;
}

void tst_AudioPlayerClock::clockShift()
{
    QFETCH(qint64, shift);
    QFETCH(bool, isStopped);
    QSignalSpy stopped(player(), &AudioPlayer::playerStopped);
    QSignalSpy played(player(), &AudioPlayer::audioPlayed);
    player()->setDevice(QStringLiteral("default"));
    QVERIFY(player()->start(source.get(), 25));
    output()->pull(3840);
    fakeclock::shiftMs = shift;
    takeLog();
    output()->tick();
    QCOMPARE(stopped.count(), isStopped ? 1 : 0);
    QCOMPARE(played.count(), isStopped ? 0 : 1);
    QCOMPARE(player()->isActive(), !isStopped);
    const QString warning = QStringLiteral("1 Audio. Clock shift detected (%1 ms)").arg(shift);
    QCOMPARE(takeLog().count(warning), isStopped ? 1 : 0);

    fakeclock::shiftMs = 0;
    QVERIFY(player()->start(source.get(), 25));
    QCOMPARE(fakeclock::starts, 2);
}

void tst_AudioPlayerClock::playedTimeBeforeTheFirstSample()
{
    QSignalSpy played(player(), &AudioPlayer::audioPlayed);
    player()->setDevice(QStringLiteral("default"));
    QVERIFY(player()->start(source.get(), 25));
    output()->processed = 5000000;
    QCOMPARE(player()->getPlayedTime(), qint64(0));
    output()->tick();
    QCOMPARE(played.first().first().toLongLong(), 0LL);
}

void tst_AudioPlayerClock::playedTimeStartsUncorrectedAndIsSmoothed()
{
    player()->setDevice(QStringLiteral("default"));
    QVERIFY(player()->start(source.get(), 25));
    output()->pull(3840);
    output()->processed = 600000;
    // Heard: the first sample plus what was processed, less a buffer of 250 ms and a period of 20 ms.
    const qint64 first = now - 200000 + 600000 - 250000 - 20000;
    QCOMPARE(player()->getPlayedTime(), first);

    // The device reports ten seconds more at once while next to no time passed: a thousandth of that is taken
    // off.
    output()->processed += 10000000;
    const qint64 second = player()->getPlayedTime();
    QVERIFY2(second <= first + 10000000 - 9000 && second >= first + 10000000 - 10000,
             qPrintable(QString::number(second - first)));
    const qint64 third = player()->getPlayedTime();
    QVERIFY(third < second - 9000 && third > second - 10000);

    player()->stop();
    QVERIFY(player()->start(source.get(), 25));
    output()->pull(3840);
    QCOMPARE(player()->getPlayedTime(), now - 200000 + 10600000 - 250000 - 20000);
}

// The device reports a thousand seconds at once, next to which it does not matter how long this takes: a
// thousandth of what is still missing, at every call.
void tst_AudioPlayerClock::playedTimeIsASlowAverage()
{
    player()->setDevice(QStringLiteral("default"));
    QVERIFY(player()->start(source.get(), 25));
    output()->pull(3840);
    const qint64 first = player()->getPlayedTime();
    const qint64 ahead = 1000000000;
    output()->processed += ahead;
    double left = 1;
    for (int i = 0; i < 1000; ++i) {
        left *= 0.999;
        const double taken = static_cast<double>(first + ahead - player()->getPlayedTime());
        const double expected = static_cast<double>(ahead) * (1 - left);
        QVERIFY2(taken <= expected + 1 && taken > expected * 0.97, qPrintable(QString::number(taken)));
    }
}

// While the device reports nothing new, a thousandth of the time that passes is added.
void tst_AudioPlayerClock::timePassingIsAdded()
{
    player()->setDevice(QStringLiteral("default"));
    QVERIFY(player()->start(source.get(), 25));
    output()->pull(3840);
    QElapsedTimer sinceBefore;
    sinceBefore.start();
    const qint64 first = player()->getPlayedTime();
    QElapsedTimer sinceAfter;
    sinceAfter.start();
    while (sinceAfter.elapsed() < 20) {
    }
    const qint64 added = player()->getPlayedTime() - first;
    QVERIFY2(added >= 19 && added <= sinceBefore.elapsed(), qPrintable(QString::number(added)));
}

// Half a microsecond to take off is none.
void tst_AudioPlayerClock::correctionIsCutTowardsZero()
{
    player()->setDevice(QStringLiteral("default"));
    for (const qint64 ahead : {10000500, -10000500}) {
        qint64 first = 0;
        qint64 second = 0;
        QElapsedTimer passed;
        do { // until both calls are in one millisecond
            QVERIFY(player()->start(source.get(), 25));
            output()->pull(3840);
            passed.start();
            first = player()->getPlayedTime();
            output()->processed += ahead;
            second = player()->getPlayedTime();
        } while (passed.elapsed() > 0);
        QCOMPARE(second - first, ahead - (ahead < 0 ? -10000 : 10000));
    }
}

// The difference is worked out in 32 bits that wrap: what matters is that it is right again while it is
// small.
void tst_AudioPlayerClock::playedTimeSurvivesLongPlaying()
{
    player()->setDevice(QStringLiteral("default"));
    QVERIFY(player()->start(source.get(), 25));
    output()->pull(3840);
    output()->processed = 600000;
    const qint64 first = player()->getPlayedTime();
    const qint64 wrap = 4294967296; // 71.6 minutes
    output()->processed += wrap;
    const qint64 later = player()->getPlayedTime();
    QVERIFY2(qAbs(later - first - wrap) < 10000, qPrintable(QString::number(later - first - wrap)));
}

QTEST_GUILESS_MAIN(tst_AudioPlayerClock)
#include "tst_audioplayerclock.moc"
