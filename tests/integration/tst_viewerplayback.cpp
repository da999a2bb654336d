// The viewer with sound, on a sound server of the test's own: what it reports, and what it does without.

#include "pulseserver.h"
#include "viewerrig.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QFileInfo>

namespace {

PulseServer *server = nullptr;

// zevshm publishing from construction on; gone with this object.
class Tool
{
public:
    Tool(const QString &directory, const QString &name, const QStringList &more) : m_name(name)
    {
        m_environment.insert("ZEV_SHM_DIR", directory);
        m_process.setProcessEnvironment(m_environment);
        m_process.start(ZEVSHM, QStringList{"publish", name} + more);
        m_process.waitForStarted(30000);
        // The socket has the store's name.
        EXPECT_TRUE(waitUntil([&] { return QFileInfo::exists(directory + '/' + name); }));
    }
    ~Tool()
    {
        m_process.kill();
        m_process.waitForFinished(10000);
    }
    // A viewer that is there before the first frame begins with the no-signal picture.
    bool hasFrame() const
    {
        QProcess snapshot;
        snapshot.setProcessEnvironment(m_environment);
        snapshot.start(ZEVSHM, {"snapshot", m_name, m_environment.value("ZEV_SHM_DIR") + "/frame.png"});
        return snapshot.waitForFinished(30000) && snapshot.exitCode() == 0;
    }

private:
    QString m_name;
    QProcessEnvironment m_environment = QProcessEnvironment::systemEnvironment();
    BoundProcess m_process;
};

class ViewerPlayback : public testing::Test
{
protected:
    void SetUp() override
    {
        if (!server)
            GTEST_SKIP() << "no sound server: is pulseaudio installed?";
    }
    QString file(const QString &name) const { return directory.filePath(name); }
    ViewerRun::Where headless() const { return {directory.path(), {}, false}; }
    QJsonObject report(const QStringList &more, QString *errors = nullptr)
    {
        ViewerRun run(headless(),
                      QStringList{"shm:///av", "--headless", "--seconds", "6", "--report", file("r.json")} +
                          more);
        EXPECT_EQ(run.wait(), 0) << run.errors().toStdString();
        if (errors)
            *errors = run.errors();
        return readJson(file("r.json"));
    }

    // A null sink to which nobody listens renders two seconds at a time: it takes the first sound at once and
    // more only 1.7 s later. A recorder keeps it as prompt as a sound card.
    void keepAwake(const QString &sink) { ASSERT_TRUE(listener.start(sink, 48000, 2)); }

    SinkRecorder listener;
    const QTemporaryDir directory{QStringLiteral("/tmp/zev-XXXXXX")};
    const QStringList avsync{"test:avsync", "--size", "320x180"};
};

TEST_F(ViewerPlayback, theReportTellsOfTheSound)
{
    keepAwake("a");
    const Tool tool(directory.path(), "av", avsync);
    // A busy machine may not get sound going steadily within the run.
    QJsonObject r;
    QJsonObject audio;
    for (int i = 0; i < 3 && !audio["av_offset_ms"].toObject()["p50"].isDouble(); ++i) {
        r = report({"--audio-device", "a", "--volume", "0.5"});
        audio = r["audio"].toObject();
    }
    EXPECT_EQ(audio["device"].toString(), "a");
    EXPECT_EQ(audio["rate"].toInt(), 48000);
    EXPECT_GT(audio["delay_ms"].toDouble(), 100.0);
    EXPECT_LT(audio["delay_ms"].toDouble(), 1500.0);
    EXPECT_GE(audio["underrun_episodes"].toInt(-1), 0);
    EXPECT_GE(audio["silence_ms"].toDouble(-1), 0.0);
    EXPECT_GE(audio["restarts"].toInt(-1), 0);
    EXPECT_TRUE(audio["av_offset_ms"].toObject()["p50"].isDouble());
    EXPECT_TRUE(audio["av_offset_ms"].toObject()["p95"].isDouble());
    EXPECT_EQ(audio["history_short_ms"].toDouble(-1), 0.0);
    EXPECT_GT(r["frames"].toInt(), 50);
    EXPECT_GT(r["latency_ms"].toObject()["p95"].toDouble(), 200.0); // the picture waits for the sound
}

TEST_F(ViewerPlayback, withoutADeviceThePictureDoesNotWait)
{
    const Tool tool(directory.path(), "av", avsync);
    QString errors;
    const QJsonObject r = report({"--audio-device", "none"}, &errors);
    EXPECT_TRUE(errors.isEmpty()) << errors.toStdString();
    EXPECT_TRUE(r["audio"].isNull());
    EXPECT_GT(r["audio_buffers"].toInt(), 50); // meters go on
    EXPECT_LT(r["latency_ms"].toObject()["p50"].toDouble(), 200.0);
}

TEST_F(ViewerPlayback, anUnknownDeviceIsToldInOneLine)
{
    const Tool tool(directory.path(), "av", avsync);
    QString errors;
    const QJsonObject r = report({"--audio-device", "nosuchdevice"}, &errors);
    EXPECT_TRUE(errors.contains("'nosuchdevice'")) << errors.toStdString();
    EXPECT_TRUE(errors.contains("--list-audio-devices")) << errors.toStdString();
    EXPECT_EQ(errors.count('\n'), 1) << errors.toStdString();
    EXPECT_TRUE(r["audio"].toObject()["device"].isNull());
    EXPECT_GT(r["frames"].toInt(), 50);
}

TEST_F(ViewerPlayback, withoutASoundServerThePictureGoesOn)
{
    const Tool tool(directory.path(), "av", avsync);
    const QByteArray before = qgetenv("PULSE_SERVER");
    qputenv("PULSE_SERVER", "unix:" + directory.path().toUtf8() + "/none");
    QString errors;
    const QJsonObject r = report({}, &errors);
    qputenv("PULSE_SERVER", before);
    EXPECT_GT(r["frames"].toInt(), 50);
    if (!r["audio"].toObject()["device"].isNull())
        GTEST_SKIP() << "this machine has an audio device of its own";
    EXPECT_TRUE(errors.startsWith("zevqt-viewer: there is no sound")) << errors.toStdString();
    EXPECT_EQ(errors.count('\n'), 1) << errors.toStdString();
}

TEST_F(ViewerPlayback, soundFromAnotherStoreAndOneChannelOfIt)
{
    const Tool video(directory.path(), "av", {"test:", "--no-audio", "--size", "320x180"});
    const Tool audio(directory.path(), "mic", {"test:", "--no-video", "--audio-rate", "44100"});
    const QJsonObject r = report({"--audio", "shm:///mic;1", "--audio-device", "c"});
    EXPECT_EQ(r["audio"].toObject()["device"].toString(), "c");
    EXPECT_EQ(r["audio"].toObject()["rate"].toInt(), 44100);
    EXPECT_GT(r["audio_buffers"].toInt(), 50);
    EXPECT_GT(r["frames"].toInt(), 50);
}

TEST_F(ViewerPlayback, aShortHistoryIsTold)
{
    keepAwake("a");
    QStringList few = avsync;
    few << "--history"
        << "4";
    const Tool tool(directory.path(), "av", few);
    ASSERT_TRUE(waitUntil([&] { return tool.hasFrame(); }));
    QJsonObject r;
    for (int i = 0; i < 3 && r["audio"].toObject()["history_short_ms"].toDouble() == 0.0; ++i)
        r = report({"--audio-device", "a"});
    EXPECT_GT(r["audio"].toObject()["history_short_ms"].toDouble(), 100.0);
    EXPECT_GT(r["frames"].toInt(), 50);
    EXPECT_EQ(r["no_signal_frames"].toInt(-1), 0);
}

} // namespace

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    QCoreApplication application(argc, argv);
    PulseServer own;
    if (own.start())
        server = &own;
    return RUN_ALL_TESTS();
}
