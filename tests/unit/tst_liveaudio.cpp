// The one player behind a QML singleton, over a sound server of the test's own.

#include "audiodevices.h"
#include "liveaudio.h"
#include "livesource.h"
#include "livevideo.h"
#include "pulseserver.h"
#include "qmltypes.h"
#include "scenegraph_testing.h"
#include "sound.h"
#include "storepublisher.h"

#include <zevqt-mm/audioplayer.h>

#include <gtest/gtest.h>

#include <QDateTime>
#include <QPointer>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QQuickWindow>
#include <QTemporaryDir>

#include <cmath>
#include <functional>
#include <memory>
#include <vector>

namespace {

std::unique_ptr<PulseServer> server; // null: there is none

class LiveAudioTest : public testing::Test
{
protected:
    LiveAudioTest() { source.setVideo(QUrl(QStringLiteral("shm:///tone"))); }

    testing::AssertionResult isSoon(LiveAudio::State state)
    {
        if (waitUntil([&] { return audio.state() == state; }))
            return testing::AssertionSuccess();
        return testing::AssertionFailure()
               << "state " << audio.state() << ", " << audio.errorString().toStdString();
    }

    LiveSource source;
    LiveAudio audio;
};

TEST_F(LiveAudioTest, isSilentWithoutASource)
{
    EXPECT_EQ(audio.state(), LiveAudio::Silent);
    EXPECT_TRUE(audio.errorString().isEmpty());
    EXPECT_EQ(audio.playedTime(), 0.0);
    EXPECT_EQ(audio.volume(), 1.0);
    EXPECT_EQ(audio.delay(), 400);
}

TEST_F(LiveAudioTest, limitsWhatItIsTold)
{
    audio.setVolume(7.0);
    EXPECT_EQ(audio.volume(), 1.0);
    audio.setVolume(qQNaN());
    EXPECT_EQ(audio.volume(), 0.0);
    audio.setDelay(-5);
    EXPECT_EQ(audio.delay(), 0);
    audio.setDevice(QString());
    EXPECT_EQ(audio.device(), "default");
}

TEST_F(LiveAudioTest, waitsForTheSourcesSound)
{
    audio.setSource(&source);
    EXPECT_TRUE(isSoon(LiveAudio::Waiting));
    audio.setSource(nullptr);
    EXPECT_EQ(audio.state(), LiveAudio::Silent);
}

TEST_F(LiveAudioTest, aDeviceThatIsNotThereIsSaidAndWaitedFor)
{
    const StorePublisher publisher("tone", Qt::red);
    audio.setDevice(QStringLiteral("nosuchdevice"));
    audio.setSource(&source);
    EXPECT_TRUE(waitUntil([&] { return !audio.errorString().isEmpty(); }));
    EXPECT_FALSE(audio.errorString().contains("--")) << audio.errorString().toStdString();
    EXPECT_TRUE(audio.errorString().contains(server ? "LiveAudio.devices" : "sound server"))
        << audio.errorString().toStdString();
    EXPECT_EQ(audio.state(), LiveAudio::Waiting);
}

TEST_F(LiveAudioTest, playsAndTellsTheTime)
{
    if (!server)
        GTEST_SKIP() << "no sound server: is pulseaudio installed?";
    const StorePublisher publisher("tone", Qt::red);
    audio.setSource(&source);
    ASSERT_TRUE(isSoon(LiveAudio::Playing));
    ASSERT_TRUE(waitUntil([&] { return audio.playedTime() > 0.0; }));
    const double age = double(QDateTime::currentMSecsSinceEpoch()) - audio.playedTime();
    EXPECT_GT(age, 100.0);
    EXPECT_LT(age, 5000.0);
    audio.setMuted(true);
    audio.setVolume(0.25);
    EXPECT_EQ(audio.state(), LiveAudio::Playing);

    source.setRunning(false);
    EXPECT_TRUE(isSoon(LiveAudio::Silent));
    EXPECT_EQ(audio.playedTime(), 0.0);
    source.setRunning(true);
    EXPECT_TRUE(isSoon(LiveAudio::Playing));
    EXPECT_TRUE(audio.muted());
    source.setVideo(QUrl(QStringLiteral("shm:///nosuchstore")));
    EXPECT_TRUE(isSoon(LiveAudio::Waiting));
}

TEST_F(LiveAudioTest, noTimeIsPlayedFromAStopUntilItIsHeardAnew)
{
    if (!server)
        GTEST_SKIP() << "no sound server: is pulseaudio installed?";
    const StorePublisher publisher("tone", Qt::red);
    audio.setSource(&source);
    ASSERT_TRUE(waitUntil([&] { return audio.playedTime() > 0.0; }));
    std::vector<double> told;
    const auto connection = QObject::connect(&audio, &LiveAudio::playedTimeChanged, &source,
                                             [&] { told.push_back(audio.playedTime()); });
    AudioPlayer::getInstance()->stop();
    EXPECT_EQ(audio.state(), LiveAudio::Waiting);
    EXPECT_EQ(told, std::vector<double>{0.0});
    QObject::disconnect(connection);
    double atStart = -1.0;
    QObject::connect(&audio, &LiveAudio::stateChanged, &source, [&] {
        if (atStart < 0.0 && audio.state() == LiveAudio::Playing)
            atStart = audio.playedTime();
    });
    ASSERT_TRUE(isSoon(LiveAudio::Playing));
    EXPECT_EQ(atStart, 0.0);
    EXPECT_TRUE(waitUntil([&] { return audio.playedTime() > 0.0; }));
}

// Each of these replaces the player, which is telling something meanwhile.
TEST_F(LiveAudioTest, mayBeChangedFromItsHandlers)
{
    if (!server)
        GTEST_SKIP() << "no sound server: is pulseaudio installed?";
    const StorePublisher publisher("tone", Qt::red);
    const std::function<void()> changes[] = {
        [&] { audio.setSource(nullptr); },
        [&] { source.setRunning(false); },
        [&] { audio.setDelay(audio.delay() + 50); },
        [&] { audio.setDevice(QStringLiteral("a")); },
    };
    using Signal = void (LiveAudio::*)();
    for (const Signal signal : {&LiveAudio::playedTimeChanged, &LiveAudio::stateChanged}) {
        for (const auto &change : changes) {
            audio.setDevice(QStringLiteral("default"));
            audio.setSource(&source);
            source.setRunning(true);
            QPointer<AudioPlayer> player;
            bool isDone = false;
            const auto connection = QObject::connect(&audio, signal, &source, [&] {
                if (isDone || audio.state() != LiveAudio::Playing)
                    return;
                isDone = true;
                player = AudioPlayer::getInstance();
                change();
                EXPECT_TRUE(player) << "it was destroyed while it told the time, or that it plays";
            });
            ASSERT_TRUE(waitUntil([&] { return isDone; }));
            EXPECT_TRUE(waitUntil([&] { return !player; }));
            QObject::disconnect(connection);
            EXPECT_TRUE(isSoon(audio.source() && source.running() ? LiveAudio::Playing : LiveAudio::Silent));
            audio.setSource(nullptr); // a state of its own for what follows
        }
    }
}

// Nobody but its owner knows when nothing of it is at work any more.
TEST_F(LiveAudioTest, mayBeToldToGoLaterFromItsHandlers)
{
    if (!server)
        GTEST_SKIP() << "no sound server: is pulseaudio installed?";
    const StorePublisher publisher("tone", Qt::red);
    using Signal = void (LiveAudio::*)();
    for (const Signal signal : {&LiveAudio::playedTimeChanged, &LiveAudio::stateChanged}) {
        QPointer<LiveAudio> own = new LiveAudio;
        QPointer<AudioPlayer> player;
        QObject::connect(own, signal, &source, [&] {
            if (player || own->state() != LiveAudio::Playing)
                return;
            player = AudioPlayer::getInstance();
            own->deleteLater();
        });
        own->setSource(&source);
        EXPECT_TRUE(waitUntil([&] { return !own; }));
        EXPECT_FALSE(player);
        delete own;
    }
}

// What is told last is told about a source that is gone.
TEST_F(LiveAudioTest, itsSourceMayGoInItsHandlers)
{
    if (!server)
        GTEST_SKIP() << "no sound server: is pulseaudio installed?";
    const StorePublisher publisher("tone", Qt::red);
    using Signal = void (LiveAudio::*)();
    for (const Signal signal : {&LiveAudio::playedTimeChanged, &LiveAudio::stateChanged}) {
        auto own = std::make_unique<LiveSource>();
        own->setVideo(QUrl(QStringLiteral("shm:///tone")));
        const auto connection = QObject::connect(&audio, signal, &source, [&] {
            if (own && audio.state() == LiveAudio::Playing)
                own.reset();
        });
        audio.setSource(own.get());
        EXPECT_TRUE(waitUntil([&] { return !own; }));
        EXPECT_EQ(audio.source(), nullptr);
        EXPECT_TRUE(isSoon(LiveAudio::Silent));
        QObject::disconnect(connection);
    }
}

TEST(LiveAudioQml, isNotDestroyedByQml)
{
    LiveAudio *one = nullptr;
    {
        QQmlEngine engine;
        QQmlComponent component(&engine);
        component.setData("import QtQml 2.15\n"
                          "import ZevQt.Multimedia 1.0\n"
                          "QtObject {\n"
                          "    property QtObject audio: LiveAudio\n"
                          "    property string refusal\n"
                          "    Component.onCompleted: {\n"
                          "        try { LiveAudio.destroy() } catch (error) { refusal = String(error) }\n"
                          "    }\n"
                          "}\n",
                          QUrl("qrc:/inline.qml"));
        const std::unique_ptr<QObject> made(component.create());
        ASSERT_TRUE(made) << component.errorString().toStdString();
        EXPECT_TRUE(made->property("refusal").toString().contains("indestructible"))
            << made->property("refusal").toString().toStdString();
        one = qobject_cast<LiveAudio *>(made->property("audio").value<QObject *>());
    }
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    EXPECT_EQ(LiveAudio::instance(nullptr, nullptr), one);
}

TEST_F(LiveAudioTest, thePictureFollows)
{
    if (!server)
        GTEST_SKIP() << "no sound server: is pulseaudio installed?";
    const StorePublisher publisher("tone", Qt::red);
    const auto window = makeWindow();
    LiveVideo item;
    item.setParentItem(window->contentItem());
    item.setSize(window->size());
    item.setSource(&source);
    audio.setSource(&source);
    // Not before the device has taken sound evenly for a while, which takes long on a machine that is busy.
    const auto isKnown = [&] { return source.statistics().avOffsets > 0; };
    EXPECT_TRUE(waitUntil(isKnown) || waitUntil(isKnown));
    EXPECT_FALSE(std::isnan(source.statistics().avOffsetMs));
}

TEST_F(LiveAudioTest, listsTheDevices)
{
    auto *devices = qobject_cast<AudioDevices *>(audio.devices());
    ASSERT_TRUE(devices);
    ASSERT_GE(devices->rowCount(), 1);
    EXPECT_EQ(devices->data(devices->index(0), AudioDevices::NameRole).toString(), "default");
    EXPECT_EQ(devices->rowCount(), 1 + Sound::deviceNames().size());
    EXPECT_TRUE(!server || devices->rowCount() > 3);
}

TEST(LiveAudioQml, isOneForAllEngines)
{
    QObject *found[2] = {};
    for (QObject *&one : found) {
        QQmlEngine engine;
        QQmlComponent component(&engine);
        component.setData("import QtQml 2.15\n"
                          "import ZevQt.Multimedia 1.0\n"
                          "QtObject {\n"
                          "    property QtObject audio: LiveAudio\n"
                          "    property LiveSource source: LiveSource {}\n"
                          "    property Binding binding: Binding {\n"
                          "        target: LiveAudio; property: 'source'; value: source\n"
                          "    }\n"
                          "    property bool silent: LiveAudio.state === LiveAudio.Silent\n"
                          "}\n",
                          QUrl("qrc:/inline.qml"));
        const std::unique_ptr<QObject> made(component.create());
        ASSERT_TRUE(made) << component.errorString().toStdString();
        one = made->property("audio").value<QObject *>();
        EXPECT_TRUE(made->property("silent").toBool());
    }
    EXPECT_TRUE(found[0]);
    EXPECT_EQ(found[0], found[1]);
    EXPECT_EQ(qobject_cast<LiveAudio *>(found[0])->source(), nullptr); // that was the engine's
}

} // namespace

int main(int argc, char **argv)
{
    const QTemporaryDir stores;
    qputenv("ZEV_SHM_DIR", stores.path().toLocal8Bit());
    server = std::make_unique<PulseServer>();
    if (!server->start())
        server.reset();
    zevqml::registerStaticQmlTypes();
    const int result = runOnDisplay(argc, argv);
    server.reset();
    return result;
}
