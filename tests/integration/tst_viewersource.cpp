// Sources that are missing, refused, silent, or elsewhere in time: what the viewer says, and that it goes on.

#include "viewerrig.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>

#include <unistd.h>

namespace {

constexpr TestPattern plain{320, 180, SHM_PIXEL_FORMAT_YUV420P, {SHM_MATRIX_BT709, SHM_RANGE_FULL, 0, 0}};

class ViewerSource : public testing::Test
{
protected:
    QString file(const QString &name) const { return directory.filePath(name); }
    // Until something ends it.
    std::unique_ptr<ViewerRun> view(const QString &storeDirectory, const QStringList &more = {}) const
    {
        return std::make_unique<ViewerRun>(
            ViewerRun::Where{storeDirectory, {}, false},
            QStringList{"shm:///cam0", "--headless", "--report", file("r.json")} + more);
    }
    // Ends it.
    QJsonObject reportOf(ViewerRun &run) const
    {
        run.terminate();
        EXPECT_EQ(run.wait(), 0) << run.errors().toStdString();
        return readJson(file("r.json"));
    }
    static bool says(ViewerRun &run, const QString &text)
    {
        return waitUntil([&] { return run.errors().contains(text); });
    }
    // What the tool publishes, until the object goes.
    std::unique_ptr<BoundProcess> publish(const QStringList &arguments) const
    {
        auto tool = std::make_unique<BoundProcess>();
        auto environment = QProcessEnvironment::systemEnvironment();
        environment.insert("ZEV_SHM_DIR", directory.path());
        tool->setProcessEnvironment(environment);
        tool->start(ZEVSHM, QStringList{"publish", "cam0"} + arguments);
        return tool;
    }
    static bool hasPassed(const QElapsedTimer &clock, qint64 ms)
    {
        return waitUntil([&] { return clock.hasExpired(ms); });
    }

    const QTemporaryDir directory;
};

} // namespace

TEST_F(ViewerSource, aDirectoryThatIsNotThereIsNamedAndWaitedFor)
{
    const QString stores = file("later");
    const auto run = view(stores);
    EXPECT_TRUE(
        says(*run, "zevqt-viewer: directory " + stores + " does not exist: create it or correct ZEV_SHM_DIR"))
        << run->errors().toStdString();
    ASSERT_TRUE(QDir().mkdir(stores));
    EXPECT_TRUE(says(*run, "no store \"cam0\" in " + stores + ": start its writer"))
        << run->errors().toStdString();
    const Publisher publisher(stores, plain, 25.0);
    ASSERT_TRUE(publisher.isReady());
    QElapsedTimer clock;
    clock.start();
    EXPECT_TRUE(hasPassed(clock, 3000));
    EXPECT_GT(reportOf(*run)["frames"].toInt(), 0);
    EXPECT_EQ(run->errors().count(QLatin1Char('\n')), 2) << run->errors().toStdString();
}

TEST_F(ViewerSource, whatIsMissingIsSaidOnce)
{
    const auto run = view(directory.path(), {"--audio-device", "none"});
    EXPECT_TRUE(says(*run, "no store \"cam0\" in " + directory.path()));
    QElapsedTimer clock;
    clock.start();
    EXPECT_TRUE(hasPassed(clock, 3000));
    reportOf(*run);
    EXPECT_EQ(run->errors().count(QLatin1Char('\n')), 1) << run->errors().toStdString();
}

TEST_F(ViewerSource, whatIsNoDirectoryIsNamed)
{
    const QString stores = file("a-file");
    ASSERT_TRUE(QFile(stores).open(QIODevice::WriteOnly));
    const auto run = view(stores);
    EXPECT_TRUE(says(*run, stores + " is not a directory: correct ZEV_SHM_DIR"))
        << run->errors().toStdString();
    EXPECT_TRUE(run->isRunning());
}

TEST_F(ViewerSource, aDirectoryThatIsForbiddenIsNamed)
{
    if (getuid() != 0)
        GTEST_SKIP() << "only root can become somebody who is refused";
    const QString stores = file("closed");
    ASSERT_TRUE(QDir().mkdir(stores));
    ASSERT_TRUE(QFile::setPermissions(stores, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
    ASSERT_TRUE(QFile::setPermissions(directory.path(), QFile::Permissions(0x7755)));
    ViewerRun run({stores, {}, false, true}, {"shm:///cam0", "--headless"});
    EXPECT_TRUE(says(run, "directory " + stores + " cannot be searched: Permission denied"))
        << run.errors().toStdString();
    EXPECT_TRUE(run.isRunning());
}

TEST_F(ViewerSource, filesThatMayNotBeWrittenAreRefusedAtTheStart)
{
    if (getuid() != 0)
        GTEST_SKIP() << "only root can become somebody who is refused";
    ASSERT_TRUE(QFile::setPermissions(directory.path(), QFile::Permissions(0x7755)));
    for (const char *option : {"--report", "--snapshot"}) {
        ViewerRun run({directory.path(), {}, false, true},
                      {"shm:///cam0", "--headless", option, file("x.png")});
        EXPECT_EQ(run.wait(), 2);
        EXPECT_TRUE(run.errors().contains("cannot write '" + file("x.png") + "': Permission denied"))
            << run.errors().toStdString();
    }
    // The file may be written, only not its folder.
    ASSERT_TRUE(QFile(file("r.json")).open(QIODevice::WriteOnly));
    ASSERT_TRUE(QFile::setPermissions(file("r.json"), QFile::Permissions(0x6666)));
    ViewerRun run({directory.path(), {}, false, true},
                  {"shm:///cam0", "--headless", "--seconds", "0.2", "--report", file("r.json")});
    EXPECT_EQ(run.wait(), 0) << run.errors().toStdString();
    EXPECT_FALSE(readJson(file("r.json")).isEmpty());
}

TEST_F(ViewerSource, aDeadWriterIsTold)
{
    auto publisher = std::make_unique<Publisher>(directory.path(), plain, 25.0);
    ASSERT_TRUE(publisher->isReady());
    const auto run = view(directory.path());
    QElapsedTimer clock;
    clock.start();
    EXPECT_TRUE(hasPassed(clock, 2000));
    publisher->killNow();
    EXPECT_TRUE(says(*run, "cam0\"")) << run->errors().toStdString(); // after the idle time
    EXPECT_TRUE(run->errors().contains("(waiting)"));
    const QJsonObject r = reportOf(*run);
    EXPECT_EQ(r["idle_events"].toInt(), 1);
    EXPECT_GT(r["no_signal_frames"].toInt(), 0);
}

TEST_F(ViewerSource, aStoreOfSoundAloneIsTold)
{
    const auto tool = publish({"test:", "--no-video"});
    const auto run = view(directory.path());
    EXPECT_TRUE(says(*run, "store \"cam0\" carries sound only")) << run->errors().toStdString();
    tool->kill();
    tool->waitForFinished();
}

TEST_F(ViewerSource, aDeviceThatCannotBeUsedEndsItInOneLine)
{
    const XvfbServer server;
    ASSERT_FALSE(server.display().isEmpty()) << "Xvfb did not start";
    const QString path = file("a-file");
    ASSERT_TRUE(QFile(path).open(QIODevice::WriteOnly));
    for (const QString &device : {file("nothing"), path}) {
        ViewerRun run({directory.path(), server.display(), true}, {"v4l://" + device});
        EXPECT_EQ(run.wait(), 4) << device.toStdString();
        EXPECT_TRUE(run.errors().startsWith("zevqt-viewer: " + device)) << run.errors().toStdString();
        EXPECT_EQ(run.errors().count(QLatin1Char('\n')), 1) << run.errors().toStdString();
    }
}

TEST_F(ViewerSource, idleIsOneEventForImagesToo)
{
    auto publisher = std::make_unique<Publisher>(directory.path(), plain, 25.0);
    ASSERT_TRUE(publisher->isReady());
    const auto run = view(directory.path(), {"--frames", "image"});
    QElapsedTimer clock;
    clock.start();
    EXPECT_TRUE(hasPassed(clock, 2000));
    publisher->killNow();
    clock.start();
    EXPECT_TRUE(hasPassed(clock, 3000));
    const QJsonObject r = reportOf(*run);
    EXPECT_GT(r["frames"].toInt(), 0);
    EXPECT_EQ(r["idle_events"].toInt(), 1);
    EXPECT_GT(r["invalid"].toInt(), 10);
    EXPECT_EQ(r["no_signal_frames"].toInt(), 0);
}

class ViewerClockStep : public ViewerSource, public testing::WithParamInterface<const char *>
{};

TEST_P(ViewerClockStep, timestampsThatJumpAreFoundAgain)
{
    const auto tool = publish({"test:", "--size", "320x180", "--no-audio", "--clock-step", GetParam()});
    const auto run = view(directory.path());
    QElapsedTimer clock;
    clock.start();
    EXPECT_TRUE(hasPassed(clock, 12000));
    const QJsonObject r = reportOf(*run);
    // Three seconds before, and the rest less the interruption; the no-signal picture needs five seconds.
    EXPECT_GT(r["distinct"].toInt(), 150);
    EXPECT_LT(r["invalid"].toInt(), 100);
    tool->kill();
    tool->waitForFinished();
}

INSTANTIATE_TEST_SUITE_P(Steps, ViewerClockStep, testing::Values("3,3000", "3,-3000", "3,3600000"));

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    QCoreApplication application(argc, argv);
    return RUN_ALL_TESTS();
}
