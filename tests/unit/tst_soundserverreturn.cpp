#include "audioplayer_testing.h"

#include "audio/newobjects.h"
#include "audio/soundserver.h"

#include <QtCore/QTimer>
#include <QtTest/QtTest>

#include <functional>

namespace {

// What the sound server would answer.
struct Server
{
    bool isThere = false;
    bool hasSink = false;
    bool isSilent = false;
    std::function<void()> whenAsked; // for a device
};
Server server;

const int patienceMs = 30000;
const int longStallMs = 3700; // by then a loss of that time has to have been looked after

// A hook of somebody else, for the objects that are made.
const int addedObject = 3;
quintptr below = 0;
int addedObjects = 0;

void onAddedObject(QObject *object)
{
    ++addedObjects;
    reinterpret_cast<void (*)(QObject *)>(below)(object);
}

} // namespace

extern "C" {
extern Q_CORE_EXPORT quintptr qtHookData[];
bool __wrap__ZN11soundserver8isSilentEv()
{
    return server.isSilent;
}
bool __wrap__ZN11soundserver11isAnsweringEv()
{
    return server.isThere;
}
bool __wrap__ZN11soundserver7hasSinkEv()
{
    return server.isThere && server.hasSink;
}
soundserver::State __wrap__ZN11soundserver7stateOfERK16QAudioDeviceInfo(const QAudioDeviceInfo &)
{
    if (server.whenAsked)
        server.whenAsked();
    return server.isSilent  ? soundserver::State::Silent
           : server.isThere ? soundserver::State::There
                            : soundserver::State::NoServer;
}
}

/*!
 * The sound backend of Qt 5.15 as far as it matters: connects when it is made, looks once three seconds after
 * it has lost its server, and is connected twice when it is told to connect while it is.
 */
class QPulseAudioEngine : public QObject
{
    Q_OBJECT

public:
    QPulseAudioEngine()
    {
        FakeAudioSystem::instance().devices = QStringList{QString()}; // that is what it lists
        prepare();
    }
    void lose()
    {
        QMetaObject::invokeMethod(this, "onContextFailed", Qt::QueuedConnection);
        leave();
    }

    bool isConnected = false;
    int attempts = 0;
    int connectedTwice = 0;
    int failing = 0; // so many attempts, whatever the server answers

public Q_SLOTS:
    void prepare()
    {
        ++attempts;
        connectedTwice += isConnected ? 1 : 0;
        if (failing > 0) {
            --failing;
            onContextFailed(); // as it does when there is no memory
            return;
        }
        if (!server.isThere)
            return;
        isConnected = true;
        FakeAudioSystem::instance().startError = QAudio::NoError;
        if (server.hasSink)
            FakeAudioSystem::instance().devices = QStringList{QStringLiteral("speaker")};
    }
    void onContextFailed()
    {
        leave();
        QTimer::singleShot(3000, this, SLOT(prepare()));
    }

private:
    void leave()
    {
        isConnected = false;
        FakeAudioSystem::instance().startError = QAudio::FatalError;
    }
};

/*!
 * The backend is made once in a process, as Qt's is: the functions follow each other.
 */
class tst_SoundServerReturn : public AudioPlayerTest
{
    Q_OBJECT

private Q_SLOTS:
    void silentServerIsNotLookedAt();
    void serverThatComesAfterTheBackend();
    void listThatIsLateIsWaitedFor();
    void silentServerIsNotPlayedOn();
    void serverThatTakesNoConnectionsIsNotPlayedOn();
    void sourceThatGoesMeanwhileIsNotPlayed();
    void backendWithDevicesIsLeftAlone();
    void serverThatReturnsInTime();
    void serverThatReturnsLate();
    void eventLoopThatStandsStill();
    void attemptThatFails();
    void lossThatIsNotYetKnown();
    void hookBelowAnotherIsNotInstalledTwice();

private:
    bool plays() { return player()->start(source.get(), 25); }
    void begin();

    std::unique_ptr<QPulseAudioEngine> engine;
};

// A server that is there, and a backend that plays.
void tst_SoundServerReturn::begin()
{
    server = {true, true, false, {}};
    QVERIFY(engine);
    if (!engine->isConnected)
        engine->prepare();
    devices().devices = QStringList{QStringLiteral("speaker")};
    engine->attempts = 0;
    engine->connectedTwice = 0;
    QVERIFY(player()->setDevice(QStringLiteral("speaker")));
    QVERIFY(plays());
    player()->stop();
}

// Whoever lists the devices makes the backend, which waits without end.
void tst_SoundServerReturn::silentServerIsNotLookedAt()
{
    server.isSilent = true;
    int looks = 0;
    devices().whenListed = [&looks] { ++looks; };
    for (const char *name : {"speaker", "default"}) {
        takeLog();
        QVERIFY(!player()->setDevice(QLatin1String(name)));
        QCOMPARE(player()->failure(), AudioPlayer::ServerSilent);
        const QStringList log = takeLog();
        QCOMPARE(log.size(), 1);
        QVERIFY2(log.first().contains(QStringLiteral("The sound server (PulseAudio) does not answer")),
                 qPrintable(log.first()));
    }
    takeLog();
    QVERIFY(AudioPlayer::deviceNames().isEmpty());
    QCOMPARE(takeLog().filter(QStringLiteral("The sound server (PulseAudio) does not answer")).size(), 1);
    QCOMPARE(looks, 0);
    QVERIFY(!player()->enabled());
    server.isSilent = false;
    QVERIFY(!player()->start(source.get(), 25));
    QCOMPARE(player()->failure(), AudioPlayer::NotAsked);
}

// Otherwise it would never be heard.
void tst_SoundServerReturn::serverThatComesAfterTheBackend()
{
    devices().whenListed = [this] {
        if (!engine)
            engine = std::make_unique<QPulseAudioEngine>();
    };
    QVERIFY(!player()->setDevice(QStringLiteral("speaker")));
    QVERIFY(engine);
    QCOMPARE(engine->attempts, 1);
    QVERIFY(player()->setDevice(QStringLiteral("default")));
    QVERIFY(player()->selectedDevice().deviceName().isEmpty());

    server.isThere = true; // without devices there is nothing to connect for
    QVERIFY(!player()->setDevice(QStringLiteral("speaker")));
    QTest::qWait(3600);
    QCOMPARE(engine->attempts, 1);

    server.hasSink = true;
    for (int i = 0; i < 3; ++i) // whoever asks again does not make it connect again
        player()->setDevice(i == 0 ? QStringLiteral("default") : QStringLiteral("speaker"));
    QTRY_VERIFY_WITH_TIMEOUT(player()->setDevice(QStringLiteral("speaker")), patienceMs);
    QVERIFY(plays());
    QCOMPARE(engine->attempts, 2);
    QCOMPARE(engine->connectedTwice, 0);
}

// A sink is known to others before the backend lists it.
void tst_SoundServerReturn::listThatIsLateIsWaitedFor()
{
    begin();
    QTest::qWait(3600); // it is not looked for while it may be on its way
    devices().devices = QStringList{QString()};
    QVERIFY(!player()->setDevice(QStringLiteral("speaker")));
    QTest::qWait(200);
    devices().devices = QStringList{QStringLiteral("speaker")};
    QVERIFY(player()->setDevice(QStringLiteral("speaker")));
    QTest::qWait(2000);
    QVERIFY(engine->isConnected);
    QVERIFY(plays());
    QTest::qWait(3000); // for an attempt, if it was made to let go
    QCOMPARE(engine->attempts, 0);
}

void tst_SoundServerReturn::silentServerIsNotPlayedOn()
{
    begin();
    player()->stop();
    const int created = devices().createdOn.size();
    server.isSilent = true;
    takeLog();
    QVERIFY(!plays());
    QCOMPARE(player()->failure(), AudioPlayer::ServerSilent);
    QCOMPARE(takeLog().filter(QStringLiteral("does not answer")).size(), 1);
    QVERIFY(!player()->isActive());
    QCOMPARE(devices().createdOn.size(), created);
    server.isSilent = false;
    QVERIFY(plays());
}

// One that is silent for long has a full queue of clients.
void tst_SoundServerReturn::serverThatTakesNoConnectionsIsNotPlayedOn()
{
    begin();
    server.isThere = false;
    QVERIFY(!plays());
    QCOMPARE(player()->failure(), AudioPlayer::ServerSilent);
    server.isThere = true;
    QVERIFY(plays());
}

void tst_SoundServerReturn::sourceThatGoesMeanwhileIsNotPlayed()
{
    begin();
    takeLog();
    server.whenAsked = [this] { source.reset(); };
    QVERIFY(!plays());
    server.whenAsked = {};
    QCOMPARE(player()->failure(), AudioPlayer::NotAsked);
    QVERIFY(!player()->isActive());
    QVERIFY(takeLog().filter(QStringLiteral("does not have audio")).isEmpty()); // nobody asked it
}

void tst_SoundServerReturn::backendWithDevicesIsLeftAlone()
{
    begin();
    QTest::qWait(3600);
    QVERIFY(!player()->setDevice(QStringLiteral("trumpet")));
    QVERIFY(engine->isConnected);
    QVERIFY(plays());
    QCOMPARE(engine->attempts, 0);
}

void tst_SoundServerReturn::serverThatReturnsInTime()
{
    begin();
    engine->lose();
    QVERIFY(!plays());
    QTRY_VERIFY_WITH_TIMEOUT(plays(), patienceMs);
    QCOMPARE(engine->attempts, 1);
    QCOMPARE(engine->connectedTwice, 0);
}

void tst_SoundServerReturn::serverThatReturnsLate()
{
    begin();
    server.isThere = false;
    engine->lose();
    QVERIFY(!plays());
    QTRY_COMPARE_WITH_TIMEOUT(engine->attempts, 1, patienceMs); // its own
    QVERIFY(!plays());
    QTest::qWait(1000);
    QVERIFY(!plays());
    QCOMPARE(engine->attempts, 1); // to no server it is not told
    server.isThere = true;
    QVERIFY(plays());
    QCOMPARE(engine->attempts, 2);
    QCOMPARE(engine->connectedTwice, 0);
}

// The time is over, and the backend's own attempt is still to come.
void tst_SoundServerReturn::eventLoopThatStandsStill()
{
    begin();
    engine->lose();
    QCoreApplication::sendPostedEvents();
    QThread::msleep(longStallMs); // that is what it does
    QVERIFY(!plays());
    QCOMPARE(engine->attempts, 0);
    QTRY_VERIFY_WITH_TIMEOUT(plays(), patienceMs);
    QTest::qWait(1000); // for whatever else was to come
    QCOMPARE(engine->attempts, 1);
    QCOMPARE(engine->connectedTwice, 0);
}

// It looks again by itself then, three seconds later; and the event loop stands still once more.
void tst_SoundServerReturn::attemptThatFails()
{
    begin();
    server.isThere = false;
    engine->lose();
    QTRY_COMPARE_WITH_TIMEOUT(engine->attempts, 1, patienceMs);
    QTest::qWait(1000);
    server.isThere = true;
    engine->failing = 1;
    QVERIFY(!plays()); // told, and failed
    QCOMPARE(engine->attempts, 2);
    QVERIFY(!plays());
    QCOMPARE(engine->attempts, 2);
    QThread::msleep(longStallMs);
    QVERIFY(!plays());
    QCOMPARE(engine->attempts, 2);
    QTRY_VERIFY_WITH_TIMEOUT(plays(), patienceMs);
    QTest::qWait(1000);
    QCOMPARE(engine->attempts, 3);
    QCOMPARE(engine->connectedTwice, 0);
}

// It is connected again, nothing was started since, and the next loss is still in the queue.
void tst_SoundServerReturn::lossThatIsNotYetKnown()
{
    begin();
    engine->lose();
    QTRY_VERIFY_WITH_TIMEOUT(engine->isConnected, patienceMs);
    QTest::qWait(1000);
    engine->lose();
    QVERIFY(!plays());
    QCOMPARE(engine->attempts, 1);
    QTRY_VERIFY_WITH_TIMEOUT(plays(), patienceMs);
    QTest::qWait(1000);
    QCOMPARE(engine->attempts, 2);
    QCOMPARE(engine->connectedTwice, 0);
}

// The other one calls ours, which would call it.
void tst_SoundServerReturn::hookBelowAnotherIsNotInstalledTwice()
{
    const quintptr before = qtHookData[addedObject];
    {
        const NewObjects objects;
        below = qtHookData[addedObject];
        QVERIFY(below != before);
        qtHookData[addedObject] = reinterpret_cast<quintptr>(&onAddedObject);
    }
    {
        const NewObjects objects;
        const QObject made;
        QCOMPARE(objects.find("QObject"), &made);
        QCOMPARE(addedObjects, 1);
    }
    qtHookData[addedObject] = below; // the other one goes
    {
        const NewObjects objects;
        const QObject made;
        QCOMPARE(objects.find("QObject"), &made);
    }
    QCOMPARE(qtHookData[addedObject], before);
}

QTEST_GUILESS_MAIN(tst_SoundServerReturn)
#include "tst_soundserverreturn.moc"
