#include "audioplayer_testing.h"

#include <QtTest/QtTest>

/*! Who goes while the player plays: its source, its output, itself. */
class tst_AudioPlayerLifetime : public AudioPlayerTest
{
    Q_OBJECT

private Q_SLOTS:
    void sourceDestroyedWhilePlaying();
    void sourceDestroyedInAnotherThreadWaits();
    void sourceThatNoLongerPlaysMayGo();
    void restartFromItsOwnSignals();
    void teardownWhilePlaying();
    void restartDuringTeardown_data();
    void restartDuringTeardown();
    void restartOfASourceThatGoes();
    void restartWhileAnotherDeviceIsSelected();
    void deviceChosenWhenStoppedIsPlayedOn();
    void outputThatGoesIsNotAsked();
    void sourceThatGoesWithTheFormerOutputIsNotPlayed();
    void startFromTheFormerOutputsEventsIsRefused();
    void deviceChosenByTheFormerOutputsEventsIsKept();
    void startThatFailsAndIsFollowedByAnotherDevice();
    void aThousandStartsLeaveNothingBehind();
};

void tst_AudioPlayerLifetime::sourceDestroyedWhilePlaying()
{
    QSignalSpy stopped(player(), &AudioPlayer::playerStopped);
    player()->setDevice(QStringLiteral("default"));
    QVERIFY(player()->start(source.get(), 25));
    output()->pull(3840);
    takeLog();
    source.reset();
    QVERIFY(takeLog().contains(QStringLiteral("4 Active media source destroyed during playback")));
    QCOMPARE(stopped.count(), 1);
    QVERIFY(!player()->isActive());
    QVERIFY(output()->pull(3840).isEmpty());
}

void tst_AudioPlayerLifetime::sourceDestroyedInAnotherThreadWaits()
{
    QThread thread;
    thread.start();
    source->moveToThread(&thread);
    player()->setDevice(QStringLiteral("default"));
    QVERIFY(player()->start(source.get(), 25));
    output()->pull(3840);

    QSignalSpy stopped(player(), &AudioPlayer::playerStopped);
    QPointer<MediaSource> guard(source.get());
    source.release()->deleteLater();
    // The source cannot go while this thread does not serve its events: there is always something to read
    // from.
    for (int i = 0; i < 100; ++i) {
        QVERIFY(guard);
        QVERIFY(!output()->pull(3840).isEmpty());
        QThread::yieldCurrentThread();
    }
    QVERIFY(player()->isActive());
    QTRY_COMPARE(stopped.count(), 1);
    QVERIFY(!player()->isActive());
    QTRY_VERIFY(!guard);
    thread.quit();
    QVERIFY(thread.wait(10000));
}

void tst_AudioPlayerLifetime::sourceThatNoLongerPlaysMayGo()
{
    player()->setDevice(QStringLiteral("default"));
    QVERIFY(player()->start(source.get(), 25));
    player()->stop();
    MediaSource other(QStringLiteral("other"), 100);
    QVERIFY(other.open());
    QVERIFY(player()->start(&other, 25));
    takeLog();
    source.reset();
    QVERIFY(player()->isActive());
    QVERIFY(takeLog().isEmpty());
    player()->stop();
}

void tst_AudioPlayerLifetime::restartFromItsOwnSignals()
{
    player()->setDevice(QStringLiteral("speaker"));
    QVERIFY(player()->start(source.get(), 25));
    const QMetaObject::Connection connection = connect(player(), &AudioPlayer::audioPlayed, this, [this] {
        player()->setDevice(QStringLiteral("headphones"));
        QVERIFY(player()->start(source.get(), 25));
    });
    FakeAudioOutput *first = output();
    first->tick();
    QVERIFY(first->state() == QAudio::StoppedState); // still there: it has just emitted
    disconnect(connection);
    QCOMPARE(devices().createdOn.size(), 2);
    QVERIFY(player()->isActive());
    // What the former one still has to say is no longer of interest.
    QSignalSpy played(player(), &AudioPlayer::audioPlayed);
    QSignalSpy stopped(player(), &AudioPlayer::playerStopped);
    first->tick();
    first->enter(QAudio::IdleState, QAudio::NoError);
    first->enter(QAudio::StoppedState, QAudio::NoError);
    QCOMPARE(played.count(), 0);
    QCOMPARE(stopped.count(), 0);
    QVERIFY(!output()->pull(3840).isEmpty());
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QCOMPARE(devices().liveOutputs, 1);
}

void tst_AudioPlayerLifetime::teardownWhilePlaying()
{
    player()->setDevice(QStringLiteral("default"));
    QVERIFY(player()->start(source.get(), 25));
    QSignalSpy stopped(player(), &AudioPlayer::playerStopped);
    takeLog();
    AudioPlayer::teardown();
    QCOMPARE(stopped.count(), 1);
    QCOMPARE(takeLog().last(), QStringLiteral("0 Audio player destroyed"));
    QCOMPARE(devices().liveOutputs, 0);
    QCOMPARE(devices().destroyedActive, 0);
}

// Whoever starts anew whenever the player has stopped must not have it play on while it goes away.
void tst_AudioPlayerLifetime::restartDuringTeardown_data()
{
    QTest::addColumn<bool>("isDeviceSelected");
    QTest::newRow("started") << false;
    QTest::newRow("selected and started") << true;
}

void tst_AudioPlayerLifetime::restartDuringTeardown()
{
    QFETCH(bool, isDeviceSelected);
    player()->setDevice(QStringLiteral("default"));
    QVERIFY(player()->start(source.get(), 25));
    AudioPlayer *leaving = player();
    bool isStarted = true;
    connect(leaving, &AudioPlayer::playerStopped, this, [this, leaving, isDeviceSelected, &isStarted] {
        if (isDeviceSelected)
            QVERIFY(leaving->setDevice(QStringLiteral("default")));
        isStarted = leaving->start(source.get(), 25);
    });
    AudioPlayer::teardown();
    QVERIFY(!isStarted);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QCOMPARE(devices().liveOutputs, 0);
    QCOMPARE(devices().destroyedActive, 0);
}

// What is there of it yet would be read from when it is gone.
void tst_AudioPlayerLifetime::restartOfASourceThatGoes()
{
    QVERIFY(player()->setDevice(QStringLiteral("default")));
    QVERIFY(player()->start(source.get(), 25));
    MediaSource *going = source.get();
    int asked = 0;
    connect(player(), &AudioPlayer::playerStopped, this, [&asked, going] {
        ++asked;
        QVERIFY(!player()->start(going, 25));
        QCOMPARE(player()->failure(), AudioPlayer::NotAsked);
    });
    source.reset();
    player()->disconnect(this);
    QCOMPARE(asked, 1);
    QVERIFY(!player()->isActive());
    QVERIFY(!output()->hasOpenDevice());
    MediaSource other(QStringLiteral("other"), 100);
    QVERIFY(other.open());
    QVERIFY(player()->start(&other, 25));
    player()->stop();
}

// The stop is told while the former device is still selected.
void tst_AudioPlayerLifetime::restartWhileAnotherDeviceIsSelected()
{
    QVERIFY(player()->setDevice(QStringLiteral("speaker")));
    QVERIFY(player()->start(source.get(), 25));
    QSignalSpy stopped(player(), &AudioPlayer::playerStopped);
    connect(player(), &AudioPlayer::playerStopped, this, [this] { player()->start(source.get(), 25); });
    QVERIFY(player()->setDevice(QStringLiteral("headphones")));
    player()->disconnect(this);
    QCOMPARE(devices().destroyedActive, 0);
    QCOMPARE(stopped.count(), 2);
    QVERIFY(player()->isActive());
    QCOMPARE(devices().createdOn.last(), QStringLiteral("headphones"));
    QVERIFY(!output()->pull(3840).isEmpty());
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QCOMPARE(devices().liveOutputs, 1);
    player()->stop();
    source.reset();
    QCOMPARE(stopped.count(), 3); // nobody waits for its end any more
}

void tst_AudioPlayerLifetime::deviceChosenWhenStoppedIsPlayedOn()
{
    QVERIFY(player()->setDevice(QStringLiteral("speaker")));
    QVERIFY(player()->start(source.get(), 25));
    connect(player(), &AudioPlayer::playerStopped, this,
            [] { QVERIFY(player()->setDevice(QStringLiteral("headphones"))); });
    QVERIFY(player()->start(source.get(), 25));
    player()->disconnect(this);
    QVERIFY(player()->isActive());
    QCOMPARE(devices().createdOn.last(), QStringLiteral("headphones"));
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QCOMPARE(devices().liveOutputs, 1);
}

// A backend handles events while it closes, and some of them may come to the player.
void tst_AudioPlayerLifetime::outputThatGoesIsNotAsked()
{
    AudioPlayer *playing = player();
    int gone = 0;
    devices().whenDestroyed = [playing, &gone] {
        ++gone;
        QVERIFY(!playing->isActive());
        QCOMPARE(playing->sampleRate(), 0);
        playing->setVolume(0.5);
        playing->setMuted(gone % 2 != 0);
        playing->setReportRate(50);
        playing->stop();
    };
    QVERIFY(player()->setDevice(QStringLiteral("speaker")));
    QVERIFY(player()->start(source.get(), 25));
    QVERIFY(player()->setDevice(QStringLiteral("headphones")));
    QCOMPARE(gone, 1);
    QVERIFY(player()->start(source.get(), 25));
    AudioPlayer::teardown();
    QCOMPARE(gone, 2);
    QCOMPARE(devices().askedWhileDestroyed, 0);
    devices().whenDestroyed = {};
}

// The former output, with another format, handles events while it closes.
void tst_AudioPlayerLifetime::sourceThatGoesWithTheFormerOutputIsNotPlayed()
{
    QVERIFY(player()->setDevice(QStringLiteral("speaker")));
    QVERIFY(player()->start(source.get(), 25));
    player()->setFixedSampleRate(44100);
    devices().whenDestroyed = [this] { source.reset(); };
    QVERIFY(!player()->start(source.get(), 25));
    devices().whenDestroyed = {};
    QVERIFY(!source);
    QCOMPARE(player()->failure(), AudioPlayer::NotAsked);
    QVERIFY(!player()->isActive());
    QCOMPARE(player()->getReadPosition(), qint64(0));
    player()->stop();
    MediaSource other(QStringLiteral("other"), 100);
    QVERIFY(other.open());
    QVERIFY(player()->start(&other, 25));
    QVERIFY(!output()->pull(3840).isEmpty());
    player()->stop();
}

void tst_AudioPlayerLifetime::startFromTheFormerOutputsEventsIsRefused()
{
    QVERIFY(player()->setDevice(QStringLiteral("speaker")));
    QVERIFY(player()->start(source.get(), 25));
    player()->setFixedSampleRate(44100);
    int asked = 0;
    const auto startAgain = [this, &asked] {
        ++asked;
        QVERIFY(player()->isEmitting());
        QVERIFY(!player()->start(source.get(), 25));
    };
    connect(player(), &AudioPlayer::playerStopped, this, startAgain);
    devices().whenDestroyed = startAgain;
    QVERIFY(player()->start(source.get(), 25));
    QCOMPARE(asked, 2);
    QVERIFY(!player()->isEmitting());
    player()->disconnect(this);
    devices().whenDestroyed = {};
    QCOMPARE(player()->failure(), AudioPlayer::NoFailure);
    QCOMPARE(devices().createdOn.size(), 2);
    QCOMPARE(devices().liveOutputs, 1);
    QVERIFY(!output()->pull(3840).isEmpty());
}

void tst_AudioPlayerLifetime::deviceChosenByTheFormerOutputsEventsIsKept()
{
    QVERIFY(player()->setDevice(QStringLiteral("speaker")));
    QVERIFY(player()->start(source.get(), 25));
    player()->setFixedSampleRate(44100);
    devices().whenDestroyed = [] { QVERIFY(player()->setDevice(QStringLiteral("headphones"))); };
    QVERIFY(!player()->start(source.get(), 25)); // it was to be heard on the other one
    devices().whenDestroyed = {};
    QVERIFY(!player()->isActive());
    QVERIFY(player()->start(source.get(), 25));
    QCOMPARE(devices().createdOn.last(), QStringLiteral("headphones"));
    QCOMPARE(devices().liveOutputs, 1);
}

void tst_AudioPlayerLifetime::startThatFailsAndIsFollowedByAnotherDevice()
{
    QVERIFY(player()->setDevice(QStringLiteral("speaker")));
    devices().startError = QAudio::OpenError;
    connect(player(), &AudioPlayer::playerStopped, this,
            [] { QVERIFY(player()->setDevice(QStringLiteral("headphones"))); });
    QVERIFY(!player()->start(source.get(), 25));
    player()->disconnect(this);
    devices().startError = QAudio::NoError;
    QVERIFY(player()->start(source.get(), 25));
    QCOMPARE(devices().createdOn.last(), QStringLiteral("headphones"));
}

void tst_AudioPlayerLifetime::aThousandStartsLeaveNothingBehind()
{
    const auto entries = [](const char *folder) {
        return QDir(QLatin1String(folder))
            .entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::System)
            .size();
    };
    const int descriptors = entries("/proc/self/fd");
    const int threads = entries("/proc/self/task");
    const int handles = store().openHandles;
    for (int i = 0; i < 1000; ++i) {
        store().sampleRate = i % 3 ? 48000 : 44100; // another output now and then
        QVERIFY(source->open());
        QVERIFY(player()->setDevice(i % 2 ? QStringLiteral("speaker") : QStringLiteral("headphones")));
        QVERIFY(player()->start(source.get(), 25));
        QCOMPARE(output()->pull(3840).size(), 3840);
        output()->tick();
        if (i % 5)
            player()->stop();
        QCOMPARE(devices().liveOutputs, 1);
    }
    AudioPlayer::teardown();
    QCOMPARE(devices().liveOutputs, 0);
    QCOMPARE(store().openHandles, handles);
    QCOMPARE(entries("/proc/self/fd"), descriptors);
    QCOMPARE(entries("/proc/self/task"), threads);
}

QTEST_GUILESS_MAIN(tst_AudioPlayerLifetime)
#include "tst_audioplayerlifetime.moc"
