#include "audioplayer_testing.h"

#include <QtCore/QTimer>
#include <QtTest/QtTest>

#include <functional>

namespace {

// What the sound server would answer.
struct Server
{
    bool isThere = false;
    bool hasSink = false;
};
Server server;

const int patienceMs = 30000;
const int longStallMs = 3700; // by then a loss of that time has to have been looked after

} // namespace

extern "C" {
bool __wrap__ZN11soundserver11isAnsweringEv()
{
    return server.isThere;
}
bool __wrap__ZN11soundserver7hasSinkEv()
{
    return server.isThere && server.hasSink;
}
bool __wrap__ZN11soundserver5lacksERK16QAudioDeviceInfo(const QAudioDeviceInfo &)
{
    return false;
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
    void serverThatComesAfterTheBackend();
    void backendWithDevicesIsLeftAlone();
    void serverThatReturnsInTime();
    void serverThatReturnsLate();
    void eventLoopThatStandsStill();
    void attemptThatFails();
    void lossThatIsNotYetKnown();

private:
    bool plays() { return player()->start(source.get(), 25); }
    void begin();

    std::unique_ptr<QPulseAudioEngine> engine;
};

// A server that is there, and a backend that plays.
void tst_SoundServerReturn::begin()
{
    server = {true, true};
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

QTEST_GUILESS_MAIN(tst_SoundServerReturn)
#include "tst_soundserverreturn.moc"
