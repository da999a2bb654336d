// Capture devices that cannot be shown: one line, with device and remedy, and a status of its own. What no
// camera is needed for; the rest is the virtual machine's.

#include "viewerrig.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QFile>
#include <QProcess>

#include <unistd.h>

namespace {

class ViewerDevices : public testing::Test
{
protected:
    void SetUp() override { ASSERT_FALSE(server.display().isEmpty()) << "Xvfb did not start"; }

    // The one line that it ends with.
    QString refusal(const QString &device, bool asNobody = false)
    {
        ViewerRun run({directory.path(), server.display(), true, asNobody},
                      {QStringLiteral("v4l://") + device, "--seconds", "30"});
        EXPECT_EQ(run.wait(), 4) << run.errors().toStdString();
        EXPECT_EQ(run.errors().count(QLatin1Char('\n')), 1) << run.errors().toStdString();
        return run.errors().trimmed();
    }

    const QTemporaryDir directory;
    const XvfbServer server;
};

TEST_F(ViewerDevices, aMissingOneIsNamed)
{
    EXPECT_EQ(
        refusal("/dev/nosuchvideo"),
        "zevqt-viewer: /dev/nosuchvideo: open failed: No such file or directory; connect the camera, or "
        "name one that `v4l2-ctl --list-devices` lists");
}

TEST_F(ViewerDevices, whatIsNoCaptureDeviceIsNamed)
{
    EXPECT_TRUE(refusal("/dev/null")
                    .startsWith("zevqt-viewer: /dev/null: this is not a video4linux2 device (VIDIOC_QUERYCAP "
                                "is unknown there); name"));
    QFile file(directory.filePath("camera"));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    EXPECT_TRUE(refusal(file.fileName()).contains("this is not a video4linux2 device"));
}

TEST_F(ViewerDevices, aFolderIsNamed)
{
    EXPECT_TRUE(refusal(directory.path()).contains(directory.path() + ": open failed: Is a directory"));
}

TEST_F(ViewerDevices, aForbiddenOneIsNamed)
{
    if (getuid() != 0)
        GTEST_SKIP() << "only root can become somebody who is refused";
    QFile file(directory.filePath("camera"));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    ASSERT_TRUE(file.setPermissions(QFile::ReadOwner | QFile::WriteOwner));
    ASSERT_TRUE(QFile::setPermissions(directory.path(), QFile::Permissions(0x7755)));
    EXPECT_TRUE(refusal(file.fileName(), true)
                    .contains(file.fileName() + ": open failed: Permission denied; join the group"));
}

TEST_F(ViewerDevices, camerasAreListed)
{
    QProcess viewer;
    viewer.start(QStringLiteral(VIEWER), {"--list-cameras"});
    ASSERT_TRUE(viewer.waitForFinished(60000));
    EXPECT_EQ(viewer.exitCode(), 0);
    const QString text = QString::fromUtf8(viewer.readAllStandardOutput());
    const QString error = QString::fromUtf8(viewer.readAllStandardError());
    if (text.isEmpty())
        EXPECT_EQ(error, "zevqt-viewer: no camera was found: connect one, or load its driver\n");
    else
        EXPECT_TRUE(text.startsWith("/dev/video")) << text.toStdString();
}

} // namespace

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    QCoreApplication application(argc, argv);
    return RUN_ALL_TESTS();
}
