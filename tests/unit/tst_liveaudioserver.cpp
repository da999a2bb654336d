// The player for QML while the sound server comes and goes. Qt's backend is made once in a process: the first
// test has it made without a server.

#include "audiodevices.h"
#include "liveaudio.h"
#include "livesource.h"
#include "pulseserver.h"
#include "scenegraph_testing.h"
#include "storepublisher.h"

#include <zevqt-mm/audioplayer.h>

#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <QPointer>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <memory>

namespace {

std::unique_ptr<PulseServer> server; // null: there is none; else it is not running when a test begins

class LiveAudioServerTest : public testing::Test
{
protected:
    LiveAudioServerTest() { source.setVideo(QUrl(QStringLiteral("shm:///tone"))); }
    ~LiveAudioServerTest() override
    {
        if (server)
            server->kill();
    }

    void SetUp() override
    {
        if (!server)
            GTEST_SKIP() << "no sound server: is pulseaudio installed?";
    }

    testing::AssertionResult isSoon(LiveAudio::State state)
    {
        const auto isIt = [&] { return audio.state() == state; };
        if (waitUntil(isIt) || waitUntil(isIt)) // attempts are up to half a minute apart
            return testing::AssertionSuccess();
        return testing::AssertionFailure()
               << "state " << audio.state() << ", " << audio.errorString().toStdString();
    }

    const StorePublisher publisher{"tone", Qt::red};
    LiveSource source;
    LiveAudio audio;
};

// As a window with a list of them does before anything else.
TEST_F(LiveAudioServerTest, aServerThatComesAfterTheListIsPlayedOn)
{
    QAbstractItemModel *devices = audio.devices();
    const auto isListed = [devices](const char *name) {
        return !devices->match(devices->index(0, 0), AudioDevices::NameRole, name, 1, Qt::MatchExactly)
                    .empty();
    };
    ASSERT_GE(devices->rowCount(), 1);
    EXPECT_FALSE(isListed("a"));
    audio.setSource(&source);
    ASSERT_TRUE(isSoon(LiveAudio::Waiting));
    ASSERT_TRUE(server->start());
    ASSERT_TRUE(isSoon(LiveAudio::Playing));
    audio.refreshDevices();
    EXPECT_TRUE(isListed("a") && isListed("b") && isListed("c"));
}

// The player is telling that it has stopped when it is replaced.
TEST_F(LiveAudioServerTest, anotherDeviceMayBeNamedWhenTheServerIsLost)
{
    ASSERT_TRUE(server->start());
    audio.setSource(&source);
    ASSERT_TRUE(isSoon(LiveAudio::Playing));
    const QPointer<AudioPlayer> player = AudioPlayer::getInstance();
    bool isTold = false;
    QObject::connect(&audio, &LiveAudio::stateChanged, &source, [&] {
        if (isTold || audio.state() == LiveAudio::Playing)
            return;
        isTold = true;
        audio.setDevice(QStringLiteral("a"));
        EXPECT_TRUE(player);
    });
    server->kill();
    ASSERT_TRUE(waitUntil([&] { return isTold; }));
    EXPECT_TRUE(waitUntil([&] { return !player; }));
    ASSERT_TRUE(server->start());
    EXPECT_TRUE(isSoon(LiveAudio::Playing));
    EXPECT_EQ(AudioPlayer::getInstance()->selectedDevice().deviceName(), "a");
}

// It takes connections and answers nobody. The GUI thread is not kept for longer than the question takes.
TEST_F(LiveAudioServerTest, aServerThatDoesNotAnswerIsSaidAndWaitedFor)
{
    ASSERT_TRUE(server->start());
    audio.setSource(&source);
    ASSERT_TRUE(isSoon(LiveAudio::Playing));
    QElapsedTimer sinceLast;
    qint64 longestMs = 0;
    QTimer beat;
    QObject::connect(&beat, &QTimer::timeout, &source, [&] {
        if (sinceLast.isValid())
            longestMs = std::max(longestMs, sinceLast.elapsed());
        sinceLast.start();
    });
    beat.start(10);
    server->freeze();
    const bool isSaid = waitUntil([&] { return audio.errorString().contains("does not answer"); });
    bool isLater = false; // some attempts are made
    QTimer::singleShot(4000, &source, [&] { isLater = true; });
    EXPECT_TRUE(waitUntil([&] { return isLater; }));
    const LiveAudio::State state = audio.state();
    beat.stop();
    server->thaw();
    EXPECT_TRUE(isSaid) << audio.errorString().toStdString();
    EXPECT_EQ(state, LiveAudio::Waiting);
    EXPECT_TRUE(isSoon(LiveAudio::Playing));
    EXPECT_TRUE(audio.errorString().isEmpty()) << audio.errorString().toStdString();
    std::printf("the GUI thread stood still for at most %lld ms\n", longestMs);
    EXPECT_LT(longestMs, 3000);
}

} // namespace

int main(int argc, char **argv)
{
    const QTemporaryDir stores;
    qputenv("ZEV_SHM_DIR", stores.path().toLocal8Bit());
    server = std::make_unique<PulseServer>();
    if (server->start()) // the environment points to it from now on
        server->kill();
    else
        server.reset();
    const int result = runOnDisplay(argc, argv);
    server.reset();
    return result;
}
