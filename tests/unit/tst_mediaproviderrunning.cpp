#include "fake_shm.h"

#include <zevqt-mm/mediaprovider.h>
#include <zevqt-mm/videotimeline.h>

#include <QtTest/QtTest>

// What a provider does when it is switched on and off, with a tick thread of its own.
class tst_MediaProviderRunning : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void theEmptyBufferComesWhileNothingTicks();
};

// Before the first tick and after the last: what a listener does with the empty buffer is not undone by
// sound that a tick delivers at the same time.
void tst_MediaProviderRunning::theEmptyBufferComesWhileNothingTicks()
{
    FakeShm::instance().reset();
    const auto count = [this](MediaProvider &provider, QAtomicInt &ticks) {
        provider.setFrameRate(500);
        connect(
            provider.getTimeline(), &VideoTimeline::tick, this, [&ticks](long long) { ticks.ref(); },
            Qt::DirectConnection);
    };
    QAtomicInt ticks;
    QAtomicInt otherTicks;
    MediaProvider provider(QUrl(QStringLiteral("shm:///cam0")), QUrl(), false);
    MediaProvider other(QUrl(QStringLiteral("shm:///cam1")), QUrl(), false);
    count(provider, ticks);
    count(other, otherTicks);
    other.setRunning(true);

    int empty = 0;
    connect(&provider, &MediaProvider::audioReady, this, [&](const QAudioBuffer &buffer) {
        empty += buffer.isValid() ? 0 : 1;
        const int then = ticks.loadAcquire();
        const int otherThen = otherTicks.loadAcquire();
        // Fifty ticks of another provider are time enough for one of this.
        while (otherTicks.loadAcquire() < otherThen + 50)
            QThread::yieldCurrentThread();
        QCOMPARE(ticks.loadAcquire(), then);
    });
    provider.setRunning(true);
    QCOMPARE(empty, 1);
    QTRY_VERIFY_WITH_TIMEOUT(ticks.loadAcquire() > 10, 30000);
    provider.setRunning(false);
    QCOMPARE(empty, 2);
}

QTEST_GUILESS_MAIN(tst_MediaProviderRunning)
#include "tst_mediaproviderrunning.moc"
