// What the viewer's sound says and does about devices, over devices of the test's own.

#include "fake_audiosystem.h"
#include "sound.h"
#include "tonepublisher.h"
#include "wallclock.h"

#include <zevqt-mm/audioplayer.h>
#include <zevqt-mm/mediasource.h>

#include <QtTest/QtTest>

class tst_ViewerSoundDevices : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void formatThatIsRefusedIsNamed();
    void deviceThatCannotBeOpenedIsNamed();
    void deviceThatIsGoneIsToldOnce();
    void reportRateReachesWhatIsPlaying();
    void soundServerIsAskedForItsOwnRate_data();
    void soundServerIsAskedForItsOwnRate();
    void aMomentWithoutSoundIsNoStop();
    void reportOfTheFutureIsNotWhatIsHeard();
    void whatIsHeardIsKnownByItsAge();
    void soundThatHasJustBegunIsGatheredFirst();

private:
    static FakeAudioSystem &devices() { return FakeAudioSystem::instance(); }
    void begin(int rate = 48000);
    void publish(int rate);
    void play();

    const int patienceMs = 30000;
    QTemporaryDir stores{QStringLiteral("/tmp/zev-XXXXXX")};
    std::unique_ptr<TonePublisher> publisher;
    QSharedPointer<MediaSource> published;
    std::unique_ptr<Sound> sound;
    QStringList problems;
    int starts = 0;
    qint64 publishedFrom = 0;
    qint64 gathered = 0; // by the source at the last start
};

void tst_ViewerSoundDevices::initTestCase()
{
    QCoreApplication::setLibraryPaths({}); // only the devices that are linked in
    QLoggingCategory::setFilterRules(QStringLiteral("zevqt.audio=false"));
    qputenv("ZEV_SHM_DIR", stores.path().toUtf8());
}

void tst_ViewerSoundDevices::init()
{
    devices().reset();
    problems.clear();
    starts = 0;
}

void tst_ViewerSoundDevices::cleanup()
{
    sound.reset();
    published.reset();
    publisher.reset();
}

void tst_ViewerSoundDevices::begin(int rate)
{
    publish(rate);
    play();
}

void tst_ViewerSoundDevices::publish(int rate)
{
    publishedFrom = wallClockUs();
    publisher = std::make_unique<TonePublisher>(
        "tone", rate, std::vector<TonePublisher::Tone>{{441.0, 8000}, {441.0, 8000}});
    QVERIFY(publisher->isPublished());
}

void tst_ViewerSoundDevices::play()
{
    Sound::Wishes wishes;
    wishes.device = QStringLiteral("speaker");
    published.reset(new MediaSource(QStringLiteral("tone"), 100));
    sound = std::make_unique<Sound>(published, wishes);
    connect(sound.get(), &Sound::problem, this, [this](const QString &text) { problems << text; });
    connect(sound.get(), &Sound::started, this, [this] {
        ++starts;
        gathered = published->getAudioLastTimestamp() - publishedFrom;
    });
    sound->start(25);
}

void tst_ViewerSoundDevices::formatThatIsRefusedIsNamed()
{
    devices().preferred.setSampleSize(24); // what the resampler cannot make
    devices().rates = {};
    begin(96000);
    QTRY_VERIFY_WITH_TIMEOUT(!problems.isEmpty(), patienceMs);
    QVERIFY2(problems.first().contains(QStringLiteral("the audio device speaker takes ")) &&
                 problems.first().contains(QStringLiteral("24 bits")) &&
                 problems.first().contains(QStringLiteral("cannot be converted")),
             qPrintable(problems.first()));
    QCOMPARE(problems.size(), 1);
    QCOMPARE(starts, 0);
}

void tst_ViewerSoundDevices::deviceThatCannotBeOpenedIsNamed()
{
    devices().preferred.setSampleRate(48000);
    devices().startError = QAudio::OpenError;
    begin();
    QTRY_VERIFY_WITH_TIMEOUT(!problems.isEmpty(), patienceMs);
    QVERIFY2(problems.first().contains(QStringLiteral(
                 "the audio device speaker cannot be opened for 48000 Hz, 2 channels, 16 bits signed")),
             qPrintable(problems.first()));
    devices().startError = QAudio::NoError;
    QTRY_COMPARE_WITH_TIMEOUT(starts, 1, patienceMs); // the attempts go on
    QCOMPARE(problems.size(), 1);
}

void tst_ViewerSoundDevices::deviceThatIsGoneIsToldOnce()
{
    begin();
    QTRY_COMPARE_WITH_TIMEOUT(starts, 1, patienceMs);
    devices().devices = QStringList{QStringLiteral("headphones")};
    devices().output->enter(QAudio::StoppedState, QAudio::FatalError);
    QTRY_VERIFY_WITH_TIMEOUT(!problems.isEmpty(), patienceMs);
    QVERIFY2(problems.first().contains(QStringLiteral("the audio device speaker is gone")),
             qPrintable(problems.first()));
    QTest::qWait(2000); // attempts are made
    QCOMPARE(problems.size(), 1);
    devices().devices = QStringList{QStringLiteral("speaker")};
    QTRY_COMPARE_WITH_TIMEOUT(starts, 2, patienceMs);
    QCOMPARE(problems.size(), 1);
    QCOMPARE(devices().createdOn.last(), QStringLiteral("speaker"));
}

void tst_ViewerSoundDevices::reportRateReachesWhatIsPlaying()
{
    begin();
    QTRY_COMPARE_WITH_TIMEOUT(starts, 1, patienceMs);
    QCOMPARE(devices().output->notifyInterval(), 40);
    sound->setReportRate(60);
    QCOMPARE(devices().output->notifyInterval(), 16);
    devices().output->enter(QAudio::StoppedState, QAudio::FatalError);
    QTRY_COMPARE_WITH_TIMEOUT(starts, 2, patienceMs);
    QCOMPARE(devices().output->notifyInterval(), 16);
}

void tst_ViewerSoundDevices::soundServerIsAskedForItsOwnRate_data()
{
    QTest::addColumn<int>("source");
    QTest::addColumn<int>("sink");
    QTest::newRow("higher") << 44100 << 48000;
    QTest::newRow("lower") << 48000 << 44100;
    QTest::newRow("the same") << 48000 << 48000;
}

// What the server would convert, the player does: it tells what it keeps.
void tst_ViewerSoundDevices::soundServerIsAskedForItsOwnRate()
{
    QFETCH(int, source);
    QFETCH(int, sink);
    devices().rates = {44100, 48000};
    devices().preferred.setSampleRate(sink);
    begin(source);
    QTRY_COMPARE_WITH_TIMEOUT(starts, 1, patienceMs);
    QCOMPARE(devices().output->format().sampleRate(), sink);
    QCOMPARE(sound->figures().rate, sink);
    // The same output goes on after a stop.
    devices().output->enter(QAudio::StoppedState, QAudio::FatalError);
    QTRY_COMPARE_WITH_TIMEOUT(starts, 2, patienceMs);
    QCOMPARE(devices().output->format().sampleRate(), sink);
    QCOMPARE(devices().createdOn.size(), 1);
    // The sink is another one now.
    devices().preferred.setSampleRate(source);
    devices().output->enter(QAudio::StoppedState, QAudio::FatalError);
    QTRY_COMPARE_WITH_TIMEOUT(starts, 3, patienceMs);
    QCOMPARE(devices().output->format().sampleRate(), source);
}

// Qt's backend is idle after its buffer ran empty, until the next period is asked for.
void tst_ViewerSoundDevices::aMomentWithoutSoundIsNoStop()
{
    begin();
    QTRY_COMPARE_WITH_TIMEOUT(starts, 1, patienceMs);
    QTimer reads; // else it would be started again for taking no more sound
    connect(&reads, &QTimer::timeout, this, [] { devices().output->pull(3840); });
    reads.start(20);
    QTest::qWait(1500); // from then on it could be started again
    devices().output->enter(QAudio::IdleState, QAudio::UnderrunError);
    QVERIFY(sound->figures().isPlaying);
    QTest::qWait(300);
    devices().output->enter(QAudio::ActiveState, QAudio::NoError);
    QTest::qWait(300);
    QCOMPARE(starts, 1);
    QVERIFY2(problems.isEmpty(), qPrintable(problems.value(0)));
}

// Silence before the first sample counts in it as sound.
void tst_ViewerSoundDevices::reportOfTheFutureIsNotWhatIsHeard()
{
    begin();
    QTRY_COMPARE_WITH_TIMEOUT(starts, 1, patienceMs);
    QCOMPARE(sound->heardUs(), qint64(0));
    FakeAudioOutput *output = devices().output;
    AudioPlayer *player = AudioPlayer::getInstance();
    const auto hasSound = [&] {
        return !output->pull(output->buffer).isEmpty() && player->getPlayedTime() > 0;
    };
    QTRY_VERIFY_WITH_TIMEOUT(hasSound(), patienceMs); // the store has just begun
    const qint64 next = player->getDevicePosition();
    QVERIFY(next > 0);
    output->processed = 2000000;
    output->tick();
    QVERIFY(player->getPlayedTime() > next + 1000000); // what it tells
    QCOMPARE(sound->heardUs(), next);
    QVERIFY(sound->heardUs() <= wallClockUs() - 200000); // the buffer is before it
    output->processed = 0;                               // one that is possible is taken
    output->tick();
    QVERIFY(sound->heardUs() > 0 && sound->heardUs() < next);
}

void tst_ViewerSoundDevices::whatIsHeardIsKnownByItsAge()
{
    begin();
    QTRY_COMPARE_WITH_TIMEOUT(starts, 1, patienceMs);
    FakeAudioOutput *output = devices().output;
    QVERIFY(!output->pull(output->buffer).isEmpty());
    QTimer reads;
    reads.setTimerType(Qt::PreciseTimer);
    connect(&reads, &QTimer::timeout, this, [output] { output->pull(output->period); });
    reads.start(20);
    QTRY_VERIFY_WITH_TIMEOUT(sound->heardAge().isKnown(wallClockUs()), patienceMs);
    output->processed = 100000000; // a report that has nothing to do with it
    const qint64 before = wallClockUs();
    output->tick();
    const qint64 heard = sound->heardUs();
    QVERIFY(heard >= before - sound->heardAge().age());
    QVERIFY(heard <= wallClockUs() - sound->heardAge().age());
    output->enter(QAudio::StoppedState, QAudio::FatalError);
    QCOMPARE(sound->heardUs(), qint64(0));
}

// The device's buffer would be filled with silence, by which all that follows is late.
void tst_ViewerSoundDevices::soundThatHasJustBegunIsGatheredFirst()
{
    play();
    QTest::qWait(300); // it looks, and there is nothing
    publish(48000);
    QVERIFY(published->open()); // which it would do within a second
    QTRY_COMPARE_WITH_TIMEOUT(starts, 1, patienceMs);
    QVERIFY2(gathered >= Sound::usualDelayUs, qPrintable(QString::number(gathered)));
    QTimer reads;
    connect(&reads, &QTimer::timeout, this, [] { devices().output->pull(3840); });
    reads.start(20);
    QTest::qWait(1500);
    publisher.reset();
    QTest::qWait(3000);
    QCOMPARE(starts, 1);
    publish(48000);
    QVERIFY(published->open()); // which it would do within a second
    QTRY_COMPARE_WITH_TIMEOUT(starts, 2, patienceMs);
    QVERIFY2(gathered >= Sound::usualDelayUs, qPrintable(QString::number(gathered)));
    QVERIFY2(problems.value(0).contains(QStringLiteral("was away and is back")),
             qPrintable(problems.value(0)));
    QTest::qWait(2500);
    QCOMPARE(starts, 2);
}

QTEST_GUILESS_MAIN(tst_ViewerSoundDevices)
#include "tst_viewersounddevices.moc"
