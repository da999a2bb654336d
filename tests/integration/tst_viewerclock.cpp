// The viewer, and the publisher beside it, on a machine whose wall clock is set while the sound plays: a
// library that is preloaded into both shifts what they take for it.

#include "pulseserver.h"
#include "toolpublisher.h"
#include "viewerrig.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QFile>

#include <algorithm>
#include <memory>

#include <sys/mman.h>

namespace {

PulseServer *server = nullptr;

// The clock of what is started while this object lives.
class ShiftedClock
{
public:
    explicit ShiftedClock(const QString &path) : m_file(path), m_asan(qgetenv("ASAN_OPTIONS"))
    {
        const qint64 none = 0;
        if (!m_file.open(QIODevice::ReadWrite) || m_file.write((const char *)&none, sizeof none) < 0)
            return;
        m_file.flush();
        m_shiftUs = reinterpret_cast<qint64 *>(m_file.map(0, sizeof none));
        qputenv("ZEV_TEST_CLOCK", path.toUtf8());
        qputenv("LD_PRELOAD", CLOCK_SHIFT);
        qputenv("ASAN_OPTIONS", m_asan + ":verify_asan_link_order=0");
    }
    ~ShiftedClock()
    {
        qunsetenv("LD_PRELOAD");
        qunsetenv("ZEV_TEST_CLOCK");
        qputenv("ASAN_OPTIONS", m_asan);
    }
    bool isThere() const { return m_shiftUs != nullptr; }
    void setTo(qint64 us) { __atomic_store_n(m_shiftUs, us, __ATOMIC_RELAXED); }

private:
    QFile m_file;
    const QByteArray m_asan;
    qint64 *m_shiftUs = nullptr;
};

class ViewerClock : public testing::Test
{
protected:
    void SetUp() override
    {
        if (!server)
            GTEST_SKIP() << "no sound server: is pulseaudio installed?";
    }
    QString file(const QString &name) const { return directory.filePath(name); }

    const QTemporaryDir directory{QStringLiteral("/tmp/zev-XXXXXX")};
};

// What has been recorded since the last call is loud.
bool goesOnLoud(SinkRecorder &recorder, int &heard)
{
    const QByteArray &data = recorder.data();
    const auto *samples = reinterpret_cast<const qint16 *>(data.constData());
    const auto *from = samples + heard;
    const auto *to = samples + data.size() / 2;
    heard = data.size() / 2;
    return std::any_of(from, to, [](qint16 sample) { return sample > 1000; });
}

// For as long as it takes, and then as many samples without a second of silence.
bool playsOn(SinkRecorder &recorder)
{
    int heard = recorder.data().size() / 2;
    int inARow = 0;
    int seen = heard;
    return waitUntil([&] {
        if (recorder.data().size() / 2 - seen < 48000 / 2)
            return false;
        seen = recorder.data().size() / 2;
        inARow = goesOnLoud(recorder, heard) ? inARow + 1 : 0;
        return inARow >= 8;
    });
}

// By a second and a half: more than the second from which on the player stops. The store's timestamps jump
// with the clock: there is a gap of a second and a half in them when it is set forward, and when it is set
// back, new frames come with timestamps that there were before.
TEST_F(ViewerClock, soundStopsWhenTheClockIsSetAndStartsAgain)
{
    SinkRecorder recorder;
    ASSERT_TRUE(recorder.start("a", 48000, 1));
    ShiftedClock clock(file("clock"));
    ASSERT_TRUE(clock.isThere());
    const ToolPublisher tool(directory.path(), "av", {"test:", "--size", "320x180"});
    ASSERT_TRUE(waitUntil([&] { return tool.hasFrame(); }));
    ViewerRun run({directory.path(), {}, false},
                  {"shm:///av", "--headless", "--audio-device", "a", "--report", file("r.json")});
    ASSERT_TRUE(playsOn(recorder));
    EXPECT_FALSE(run.errors().contains("the clock was set")) << run.errors().toStdString();

    clock.setTo(1500000);
    EXPECT_TRUE(
        waitUntil([&] { return run.errors().contains("the sound stopped: the clock was set by 1.5 s"); }));
    EXPECT_TRUE(playsOn(recorder)) << run.errors().toStdString();
    clock.setTo(0);
    EXPECT_TRUE(
        waitUntil([&] { return run.errors().contains("the sound stopped: the clock was set by -1.5 s"); }));
    EXPECT_TRUE(playsOn(recorder)) << run.errors().toStdString();
    run.terminate();
    EXPECT_EQ(run.wait(), 0);

    const QJsonObject r = readJson(file("r.json"));
    EXPECT_EQ(r["audio"].toObject()["device"].toString(), "a");
    EXPECT_GE(r["audio"].toObject()["restarts"].toInt(), 2);
    EXPECT_EQ(r["audio"].toObject()["problem"].toString(), "");
    // The picture does not wait for the sound. It misses the moment in which the clock is set, when no frame
    // is as old as the viewer takes it for.
    EXPECT_EQ(r["no_signal_frames"].toInt(-1), 0);
    EXPECT_GT(r["distinct"].toInt(), int(12.5 * r["seconds"].toDouble()));
    EXPECT_LT(r["invalid"].toInt(-1), 100);
    EXPECT_GT(r["latency_ms"].toObject()["p50"].toDouble(), 0.0);
    EXPECT_LT(r["latency_ms"].toObject()["p50"].toDouble(), 1000.0);
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
