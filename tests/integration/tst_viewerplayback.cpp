// The viewer with sound, on a sound server of the test's own: what it reports, and what it does without.

#include "pulseserver.h"
#include "tonepublisher.h"
#include "toolpublisher.h"
#include "viewerrig.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QProcess>
#include <QThread>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

namespace {

PulseServer *server = nullptr;

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
    QJsonObject report(const QStringList &more, QString *errors = nullptr, const char *seconds = "6")
    {
        ViewerRun run(
            headless(),
            QStringList{"shm:///av", "--headless", "--seconds", seconds, "--report", file("r.json")} + more);
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
    const ToolPublisher tool(directory.path(), "av", avsync);
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

// A null sink that nobody records begins late, which is no reason to start anew: that would make it begin
// late once more.
TEST_F(ViewerPlayback, aSinkThatBeginsLateIsNotStartedAgain)
{
    const ToolPublisher tool(directory.path(), "av", avsync);
    ASSERT_TRUE(waitUntil([&] { return tool.hasFrame(); }));
    QThread::msleep(3000); // the sink has rendered ahead
    QString errors;
    const QJsonObject audio = report({"--audio-device", "b"}, &errors, "10")["audio"].toObject();
    EXPECT_EQ(audio["restarts"].toInt(-1), 0);
    EXPECT_TRUE(audio["av_offset_ms"].toObject()["p95"].isDouble());
    EXPECT_TRUE(errors.isEmpty()) << errors.toStdString();
}

// The sink plays something within three seconds.
bool isHeard(const QString &sink)
{
    SinkRecorder recorder;
    if (!recorder.start(sink, 48000, 2))
        return false;
    QElapsedTimer listening;
    listening.start();
    while (!listening.hasExpired(3000)) {
        QThread::msleep(100);
        QCoreApplication::processEvents();
        const QByteArray &data = recorder.data();
        const auto *samples = reinterpret_cast<const qint16 *>(data.constData());
        if (std::any_of(samples, samples + data.size() / 2, [](qint16 sample) { return sample > 1000; }))
            return true;
    }
    return false;
}

// The server goes on with another sink meanwhile, without a word.
TEST_F(ViewerPlayback, soundReturnsWithItsSink)
{
    const ToolPublisher tool(directory.path(), "av", {"test:", "--size", "320x180"});
    ASSERT_TRUE(waitUntil([&] { return tool.hasFrame(); }));
    ViewerRun run(headless(), {"shm:///av", "--headless", "--audio-device", "b", "--report", file("r.json")});
    ASSERT_TRUE(waitUntil([] { return isHeard("b"); }));
    ASSERT_TRUE(server->removeSink("b"));
    QThread::msleep(3000); // long enough to be noticed
    EXPECT_TRUE(run.isRunning());
    ASSERT_TRUE(server->addSink("b", 44100, 2));
    EXPECT_TRUE(waitUntil([] { return isHeard("b"); }));
    run.terminate();
    EXPECT_EQ(run.wait(), 0);
    EXPECT_TRUE(run.errors().contains("the audio device b is gone")) << run.errors().toStdString();
    EXPECT_EQ(run.errors().count('\n'), 1) << run.errors().toStdString();
    const QJsonObject r = readJson(file("r.json"));
    EXPECT_EQ(r["audio"].toObject()["device"].toString(), "b");
    EXPECT_GE(r["audio"].toObject()["restarts"].toInt(), 1);
    EXPECT_EQ(r["no_signal_frames"].toInt(-1), 0); // the picture went on
}

TEST_F(ViewerPlayback, soundReturnsWithTheOnlySink)
{
    const ToolPublisher tool(directory.path(), "av", {"test:", "--size", "320x180"});
    ASSERT_TRUE(waitUntil([&] { return tool.hasFrame(); }));
    ViewerRun run(headless(), {"shm:///av", "--headless", "--audio-device", "b", "--report", file("r.json")});
    ASSERT_TRUE(waitUntil([] { return isHeard("b"); }));
    for (const char *sink : {"a", "c", "b"})
        ASSERT_TRUE(server->removeSink(sink));
    QThread::msleep(3000); // an attempt or two fails
    EXPECT_TRUE(run.isRunning());
    ASSERT_TRUE(server->addSink("b", 44100, 2));
    EXPECT_TRUE(waitUntil([] { return isHeard("b"); }));
    run.terminate();
    EXPECT_EQ(run.wait(), 0);
    EXPECT_TRUE(run.errors().contains("the audio device b is gone")) << run.errors().toStdString();
    EXPECT_EQ(run.errors().count('\n'), 1) << run.errors().toStdString();
    EXPECT_EQ(readJson(file("r.json"))["no_signal_frames"].toInt(-1), 0);
    EXPECT_TRUE(server->addSink("a", 48000, 2));
    EXPECT_TRUE(server->addSink("c", 44100, 1));
}

// Qt's backend looks for its server once, three seconds after it was lost.
class ViewerServerOutage : public ViewerPlayback, public testing::WithParamInterface<int>
{};

TEST_P(ViewerServerOutage, soundReturnsWithTheServer)
{
    const ToolPublisher tool(directory.path(), "av", {"test:", "--size", "320x180"});
    ASSERT_TRUE(waitUntil([&] { return tool.hasFrame(); }));
    ViewerRun run(headless(), {"shm:///av", "--headless", "--audio-device", "b", "--report", file("r.json")});
    ASSERT_TRUE(waitUntil([] { return isHeard("b"); }));
    server->kill();
    QThread::msleep(GetParam()); // an attempt or two fails
    EXPECT_TRUE(run.isRunning());
    ASSERT_TRUE(server->start());
    EXPECT_TRUE(waitUntil([] { return isHeard("b"); }));
    run.terminate();
    EXPECT_EQ(run.wait(), 0);
    EXPECT_TRUE(run.errors().contains("the sound stopped: the audio device b")) << run.errors().toStdString();
    const QJsonObject r = readJson(file("r.json"));
    EXPECT_GE(r["audio"].toObject()["restarts"].toInt(), 1);
    EXPECT_EQ(r["no_signal_frames"].toInt(-1), 0);
}

INSTANTIATE_TEST_SUITE_P(Ms, ViewerServerOutage, testing::Values(1000, 8000), [](const auto &outage) {
    return QString::number(outage.param).toStdString() + "ms";
});

// It takes connections and answers nobody, for good or until it goes on.
class ViewerServerSilent : public ViewerPlayback, public testing::WithParamInterface<bool>
{
protected:
    void TearDown() override
    {
        if (server)
            server->thaw(); // the tests that follow need it
    }
};

TEST_P(ViewerServerSilent, soundReturnsWithAServerThatWasSilent)
{
    const bool isKilled = GetParam();
    const ToolPublisher tool(directory.path(), "av", {"test:", "--size", "320x180"});
    ASSERT_TRUE(waitUntil([&] { return tool.hasFrame(); }));
    ViewerRun run(headless(), {"shm:///av", "--headless", "--audio-device", "b", "--report", file("r.json")});
    ASSERT_TRUE(waitUntil([] { return isHeard("b"); }));
    server->freeze();
    EXPECT_TRUE(waitUntil([&] { return run.errors().contains("does not answer"); }))
        << run.errors().toStdString();
    QThread::msleep(4000); // an attempt or two more
    EXPECT_TRUE(run.isRunning());
    if (isKilled) {
        server->kill();
        QThread::msleep(1000);
        ASSERT_TRUE(server->start());
    } else {
        server->thaw();
    }
    EXPECT_TRUE(waitUntil([] { return isHeard("b"); }));
    run.terminate();
    EXPECT_EQ(run.wait(), 0);
    EXPECT_EQ(run.errors().count("does not answer"), 1) << run.errors().toStdString();
    const QJsonObject r = readJson(file("r.json"));
    EXPECT_GE(r["audio"].toObject()["restarts"].toInt(), 1);
    EXPECT_EQ(r["no_signal_frames"].toInt(-1), 0);
    std::printf("%d pictures in %g s, at most %g ms old\n", r["frames"].toInt(), r["seconds"].toDouble(),
                r["latency_ms"].toObject()["max"].toDouble());
    EXPECT_GT(r["frames"].toInt(), 0.8 * r["source_fps"].toDouble() * r["seconds"].toDouble());
}

INSTANTIATE_TEST_SUITE_P(Server, ViewerServerSilent, testing::Bool(), [](const auto &silent) {
    return std::string(silent.param ? "killed" : "continued");
});

TEST_F(ViewerPlayback, aSilentServerDoesNotKeepTheViewer)
{
    const ToolPublisher tool(directory.path(), "av", {"test:", "--size", "320x180"});
    ASSERT_TRUE(waitUntil([&] { return tool.hasFrame(); }));
    for (const bool hasPlayed : {true, false}) {
        ViewerRun run(headless(), {"shm:///av", "--headless", "--audio-device", "b"});
        if (hasPlayed) {
            EXPECT_TRUE(waitUntil([] { return isHeard("b"); }));
        }
        server->freeze();
        EXPECT_TRUE(waitUntil([&] { return run.errors().contains("does not answer"); }));
        run.terminate();
        const bool isGone = waitUntil([&] { return !run.isRunning(); });
        server->thaw();
        EXPECT_TRUE(isGone);
        EXPECT_EQ(run.wait(), 0);
        if (!hasPlayed)
            break;
        ASSERT_TRUE(waitUntil([] { return !server->control({"info"}).isEmpty(); }));
    }
}

TEST_F(ViewerPlayback, soundBeginsWithAServerThatWasSilentFromTheStart)
{
    const ToolPublisher tool(directory.path(), "av", {"test:", "--size", "320x180"});
    ASSERT_TRUE(waitUntil([&] { return tool.hasFrame(); }));
    server->freeze();
    ViewerRun run(headless(), {"shm:///av", "--headless", "--audio-device", "b", "--report", file("r.json")});
    const bool isTold = waitUntil([&] { return run.errors().contains("does not answer"); });
    QThread::msleep(4000); // an attempt or two more
    server->thaw();
    EXPECT_TRUE(isTold) << run.errors().toStdString();
    EXPECT_TRUE(waitUntil([] { return isHeard("b"); }));
    run.terminate();
    EXPECT_EQ(run.wait(), 0);
    EXPECT_EQ(run.errors().count('\n'), 1) << run.errors().toStdString();
    EXPECT_EQ(readJson(file("r.json"))["no_signal_frames"].toInt(-1), 0);
}

int entriesOf(const ViewerRun &run, const char *folder)
{
    return QDir(QStringLiteral("/proc/%1/%2").arg(run.processId()).arg(folder))
        .entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::System)
        .size();
}

// Qt's own attempt, made in vain, costs a thread and its three descriptors each time; nothing else may stay.
TEST_F(ViewerPlayback, soundReturnsWithTheServerEachTime)
{
    const ToolPublisher tool(directory.path(), "av", {"test:", "--size", "320x180"});
    ASSERT_TRUE(waitUntil([&] { return tool.hasFrame(); }));
    ViewerRun run(headless(), {"shm:///av", "--headless", "--audio-device", "b", "--report", file("r.json")});
    ASSERT_TRUE(waitUntil([] { return isHeard("b"); }));
    int threads = 0;
    int descriptors = 0;
    const int outages = 3;
    for (int outage = 0; outage < outages; ++outage) {
        server->kill();
        QThread::msleep(4500); // longer than Qt's backend tries
        ASSERT_TRUE(server->start());
        ASSERT_TRUE(waitUntil([] { return isHeard("b"); })) << outage;
        if (outage == 0) {
            threads = entriesOf(run, "task");
            descriptors = entriesOf(run, "fd");
        }
    }
    std::printf("%d threads and %d descriptors more after %d outages\n", entriesOf(run, "task") - threads,
                entriesOf(run, "fd") - descriptors, outages - 1);
    EXPECT_LE(entriesOf(run, "task") - threads, outages - 1);
    EXPECT_LE(entriesOf(run, "fd") - descriptors, 3 * (outages - 1));
    run.terminate();
    EXPECT_EQ(run.wait(), 0);
}

// Qt's backend looks for a server when it is made, and then never again.
class ViewerBeforeServer : public ViewerPlayback, public testing::WithParamInterface<const char *>
{};

TEST_P(ViewerBeforeServer, soundReturnsWithAServerThatWasNotThere)
{
    const ToolPublisher tool(directory.path(), "av", {"test:", "--size", "320x180"});
    ASSERT_TRUE(waitUntil([&] { return tool.hasFrame(); }));
    server->kill();
    qputenv("ALSA_CONFIG_PATH", "/dev/null"); // whatever else this machine has
    ViewerRun run(headless(),
                  {"shm:///av", "--headless", "--audio-device", GetParam(), "--report", file("r.json")});
    qunsetenv("ALSA_CONFIG_PATH");
    EXPECT_TRUE(waitUntil([&] { return run.errors().contains("there is no sound"); }));
    ASSERT_TRUE(server->start());
    ASSERT_TRUE(server->setDefaultSink("b"));
    EXPECT_TRUE(waitUntil([] { return isHeard("b"); }));
    run.terminate();
    EXPECT_EQ(run.wait(), 0);
    EXPECT_EQ(run.errors().count('\n'), 1) << run.errors().toStdString();
    const QJsonObject r = readJson(file("r.json"));
    EXPECT_EQ(r["audio"].toObject()["device"].toString(), "b");
    EXPECT_EQ(r["no_signal_frames"].toInt(-1), 0);
}

INSTANTIATE_TEST_SUITE_P(Devices, ViewerBeforeServer, testing::Values("b", "default"),
                         [](const auto &device) { return std::string(device.param); });

TEST_F(ViewerPlayback, theDefaultDeviceIsTheServers)
{
    const ToolPublisher tool(directory.path(), "av", {"test:", "--size", "320x180"});
    ASSERT_TRUE(waitUntil([&] { return tool.hasFrame(); }));
    for (const char *sink : {"b", "a"}) {
        ASSERT_TRUE(server->setDefaultSink(sink));
        ViewerRun run(headless(),
                      {"shm:///av", "--headless", "--audio-device", "default", "--report", file("r.json")});
        EXPECT_TRUE(waitUntil([&] { return isHeard(sink); }));
        run.terminate();
        EXPECT_EQ(run.wait(), 0);
        EXPECT_EQ(readJson(file("r.json"))["audio"].toObject()["device"].toString(), sink);
        EXPECT_TRUE(run.errors().isEmpty()) << run.errors().toStdString();
    }
}

// The loudest sample that a sink plays while the viewer does; -1 when it did not play.
int loudestWith(const QString &directory, const QStringList &options)
{
    const QString report = directory + "/loud.json";
    for (int i = 0; i < 3; ++i) { // a busy machine may not get sound going steadily within the run
        SinkRecorder recorder;
        EXPECT_TRUE(recorder.start("a", 48000, 2));
        ViewerRun run({directory, {}, false}, QStringList{"shm:///tone", "--headless", "--audio-device", "a",
                                                          "--seconds", "5", "--report", report} +
                                                  options);
        EXPECT_TRUE(waitUntil([&] {
            recorder.data();
            return !run.isRunning();
        }));
        EXPECT_EQ(run.wait(), 0) << run.errors().toStdString();
        const QByteArray data = recorder.data();
        // What is being heard was known, so that it was played, and for a while.
        if (!readJson(report)["audio"].toObject()["delay_ms"].isDouble() || data.size() < 4 * 48000 * 3)
            continue;
        const auto *samples = reinterpret_cast<const qint16 *>(data.constData());
        int loudest = 0;
        for (int sample = 0; sample < data.size() / 2; ++sample)
            loudest = std::max(loudest, std::abs(int(samples[sample])));
        return loudest;
    }
    return -1;
}

TEST_F(ViewerPlayback, volumeIsHeard)
{
    qputenv("ZEV_SHM_DIR", directory.path().toUtf8());
    const TonePublisher tone("tone", 48000, {{441.0, 8000}, {700.0, 8000}});
    qunsetenv("ZEV_SHM_DIR");
    ASSERT_TRUE(tone.isPublished());
    EXPECT_NEAR(loudestWith(directory.path(), {}), 8000, 2);
    EXPECT_NEAR(loudestWith(directory.path(), {"--volume", "0.5"}), 4000, 40); // a hundredth, or 0.09 dB
    EXPECT_NEAR(loudestWith(directory.path(), {"--volume", "0.1"}), 800, 8);
    EXPECT_EQ(loudestWith(directory.path(), {"--mute"}), 0);
    EXPECT_EQ(loudestWith(directory.path(), {"--volume", "0"}), 0);
}

// Qt's backend goes on listing what the server had before.
TEST_F(ViewerPlayback, soundReturnsWithASinkThatCameLaterThanItsServer)
{
    const ToolPublisher tool(directory.path(), "av", {"test:", "--size", "320x180"});
    ASSERT_TRUE(waitUntil([&] { return tool.hasFrame(); }));
    ViewerRun run(headless(), {"shm:///av", "--headless", "--audio-device", "b", "--report", file("r.json")});
    ASSERT_TRUE(waitUntil([] { return isHeard("b"); }));
    server->kill();
    ASSERT_TRUE(server->start(PulseServer::Sinks::WithoutB));
    QThread::msleep(6000); // Qt is connected again, and the sound was tried
    EXPECT_TRUE(run.isRunning());
    ASSERT_TRUE(server->addSink("b", 44100, 2));
    EXPECT_TRUE(waitUntil([] { return isHeard("b"); }));
    run.terminate();
    EXPECT_EQ(run.wait(), 0);
    const QJsonObject r = readJson(file("r.json"));
    EXPECT_EQ(r["no_signal_frames"].toInt(-1), 0);
    EXPECT_GE(r["audio"].toObject()["restarts"].toInt(), 1);
}

TEST_F(ViewerPlayback, soundReturnsWithItsSource)
{
    keepAwake("a");
    const QStringList test{"test:", "--size", "320x180"};
    auto tool = std::make_unique<ToolPublisher>(directory.path(), "av", test);
    ASSERT_TRUE(waitUntil([&] { return tool->hasFrame(); }));
    ViewerRun run(headless(), {"shm:///av", "--headless", "--audio-device", "a", "--report", file("r.json")});
    ASSERT_TRUE(waitUntil([] { return isHeard("a"); }));
    tool.reset();
    QThread::msleep(5000); // longer than a device may take nothing
    tool = std::make_unique<ToolPublisher>(directory.path(), "av", test);
    EXPECT_TRUE(waitUntil([&] { return run.errors().contains("the source of the sound was away"); }));
    EXPECT_TRUE(waitUntil([] { return isHeard("a"); }));
    run.terminate();
    EXPECT_EQ(run.wait(), 0);
    EXPECT_FALSE(run.errors().contains("takes no more sound")) << run.errors().toStdString();
    EXPECT_GE(readJson(file("r.json"))["audio"].toObject()["restarts"].toInt(), 1);
}

// By one per cent: the reserve of 150 ms is gone after a quarter of a minute.
TEST_F(ViewerPlayback, slowSoundThatRanDryIsStartedAgain)
{
    keepAwake("a");
    const ToolPublisher tool(directory.path(), "av", {"test:", "--no-audio", "--size", "320x180"});
    qputenv("ZEV_SHM_DIR", directory.path().toUtf8());
    const TonePublisher sound("slow", 48000, {{441.0, 8000}, {441.0, 8000}}, 0, -10000);
    qunsetenv("ZEV_SHM_DIR");
    ASSERT_TRUE(sound.isPublished());
    ASSERT_TRUE(waitUntil([&] { return tool.hasFrame(); }));
    ViewerRun run(headless(), {"shm:///av", "--audio", "shm:///slow", "--headless", "--audio-device", "a",
                               "--report", file("r.json")});
    ASSERT_TRUE(waitUntil([] { return isHeard("a"); }));
    EXPECT_TRUE(waitUntil([&] { return run.errors().contains("has run dry"); }))
        << run.errors().toStdString();
    EXPECT_TRUE(waitUntil([] { return isHeard("a"); }));
    run.terminate();
    EXPECT_EQ(run.wait(), 0);
    EXPECT_GE(readJson(file("r.json"))["audio"].toObject()["restarts"].toInt(), 1)
        << run.errors().toStdString();
}

TEST_F(ViewerPlayback, aStoreWithoutSoundIsNoFault)
{
    const ToolPublisher tool(directory.path(), "av", {"test:", "--no-audio", "--size", "320x180"});
    ASSERT_TRUE(waitUntil([&] { return tool.hasFrame(); }));
    QString errors;
    const QJsonObject r = report({"--audio-device", "a"}, &errors);
    EXPECT_TRUE(errors.isEmpty()) << errors.toStdString();
    EXPECT_TRUE(r["audio"].isObject());
    EXPECT_TRUE(r["audio"].toObject()["device"].isNull());
    EXPECT_EQ(r["audio_buffers"].toInt(-1), 0);
    EXPECT_GT(r["frames"].toInt(), 50);
    EXPECT_EQ(r["invalid"].toInt(-1), 0);
}

// A bar lights up with the beep of every second and falls until the next one.
TEST_F(ViewerPlayback, metersMoveInTheWindow)
{
    const QSize size(640, 360);
    const XvfbServer display(QStringLiteral("800x480x24"));
    ASSERT_FALSE(display.display().isEmpty()) << "Xvfb did not start";
    const ToolPublisher tool(directory.path(), "av", {"test:avsync", "--size", "640x360"});
    ASSERT_TRUE(waitUntil([&] { return tool.hasFrame(); }));
    ViewerRun run({directory.path(), display.display(), true},
                  {"shm:///av", "--size", "640x360", "--audio-device", "a", "--report", file("r.json")});
    // Where the first bar says -24 dB: the panel is 81 x 188, 12 from the corner; the bar begins 10 from its
    // left, 12 from its top, and has 140 for 60 dB. The beep's level is -15 dB.
    const QPoint place(size.width() - 12 - 81 + 10 + 7, size.height() - 12 - 188 + 12 + 140 * 24 / 60);
    const auto becomes = [&](QRgb color, const QString &name) {
        return waitUntil([&] {
            const QImage screen = display.screenshot().copy(QRect(QPoint(), size));
            const QRgb is = screen.pixel(place);
            return std::abs(qRed(is) - qRed(color)) < 12 && std::abs(qGreen(is) - qGreen(color)) < 12 &&
                   std::abs(qBlue(is) - qBlue(color)) < 12 && screen.save(artifact(name));
        });
    };
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(becomes(qRgb(0x2f, 0xbf, 0x71), "viewer-meters-beep.png"));
        EXPECT_TRUE(becomes(qRgb(0x28, 0x32, 0x3a), "viewer-meters-silence.png"));
    }
    EXPECT_TRUE(waitUntil([] { return isHeard("a"); }));
    run.terminate();
    EXPECT_EQ(run.wait(), 0) << run.errors().toStdString();
    EXPECT_EQ(readJson(file("r.json"))["audio"].toObject()["device"].toString(), "a");
}

TEST_F(ViewerPlayback, withoutADeviceThePictureDoesNotWait)
{
    const ToolPublisher tool(directory.path(), "av", avsync);
    QString errors;
    const QJsonObject r = report({"--audio-device", "none"}, &errors);
    EXPECT_TRUE(errors.isEmpty()) << errors.toStdString();
    EXPECT_TRUE(r["audio"].isNull());
    EXPECT_GT(r["audio_buffers"].toInt(), 50); // meters go on
    EXPECT_LT(r["latency_ms"].toObject()["p50"].toDouble(), 200.0);
}

TEST_F(ViewerPlayback, anUnknownDeviceIsToldInOneLine)
{
    const ToolPublisher tool(directory.path(), "av", avsync);
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
    const ToolPublisher tool(directory.path(), "av", avsync);
    const QByteArray before = qgetenv("PULSE_SERVER");
    qputenv("PULSE_SERVER", "unix:" + directory.path().toUtf8() + "/none");
    QString errors;
    const QJsonObject r = report({}, &errors);
    qputenv("PULSE_SERVER", before);
    EXPECT_GT(r["frames"].toInt(), 50);
    EXPECT_EQ(r["invalid"].toInt(-1), 0);
    if (!r["audio"].toObject()["device"].isNull())
        GTEST_SKIP() << "this machine has an audio device of its own";
    EXPECT_TRUE(errors.startsWith("zevqt-viewer: there is no sound")) << errors.toStdString();
    EXPECT_EQ(errors.count('\n'), 1) << errors.toStdString();
}

// What --list-audio-devices prints: a name a line.
QStringList listedDevices(QString *errors)
{
    QProcess viewer;
    // The leak check takes something else for the thread-local memory of a library that was loaded for the
    // list, and crashes reading it.
    auto environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("ASAN_OPTIONS"),
                       environment.value(QStringLiteral("ASAN_OPTIONS")) + QStringLiteral(":detect_leaks=0"));
    viewer.setProcessEnvironment(environment);
    viewer.start(QStringLiteral(VIEWER), {QStringLiteral("--list-audio-devices")});
    EXPECT_TRUE(viewer.waitForFinished(60000));
    EXPECT_EQ(viewer.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(viewer.exitCode(), 0);
    *errors = QString::fromUtf8(viewer.readAllStandardError());
    return QString::fromUtf8(viewer.readAllStandardOutput()).split('\n', Qt::SkipEmptyParts);
}

TEST_F(ViewerPlayback, theDevicesAreListed)
{
    QString errors;
    const QStringList names = listedDevices(&errors);
    for (const char *sink : {"a", "b", "c"})
        EXPECT_EQ(names.count(sink), 1) << sink << " in " << names.join(',').toStdString();
    EXPECT_TRUE(errors.isEmpty()) << errors.toStdString();
}

TEST_F(ViewerPlayback, thatThereAreNoDevicesIsToldInOneLine)
{
    const QByteArray before = qgetenv("PULSE_SERVER");
    qputenv("PULSE_SERVER", "unix:" + directory.path().toUtf8() + "/none");
    qputenv("ALSA_CONFIG_PATH", "/dev/null"); // whatever else this machine has
    QString errors;
    const QStringList names = listedDevices(&errors);
    qunsetenv("ALSA_CONFIG_PATH");
    qputenv("PULSE_SERVER", before);
    EXPECT_TRUE(names.isEmpty()) << names.join(',').toStdString();
    EXPECT_EQ(errors, "zevqt-viewer: no audio device was found: connect one, or start the sound server; one "
                      "that does not answer has to be continued or restarted\n");
}

TEST_F(ViewerPlayback, aSilentServerDoesNotKeepTheListOfDevices)
{
    server->freeze();
    QString errors;
    const QStringList names = listedDevices(&errors);
    server->thaw();
    EXPECT_TRUE(names.isEmpty()) << names.join(',').toStdString();
    EXPECT_TRUE(errors.contains("one that does not answer")) << errors.toStdString();
    EXPECT_EQ(errors.count('\n'), 1) << errors.toStdString();
}

TEST_F(ViewerPlayback, soundFromAnotherStoreAndOneChannelOfIt)
{
    const ToolPublisher video(directory.path(), "av", {"test:", "--no-audio", "--size", "320x180"});
    const ToolPublisher audio(directory.path(), "mic", {"test:", "--no-video", "--audio-rate", "44100"});
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
    const ToolPublisher tool(directory.path(), "av", few);
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
