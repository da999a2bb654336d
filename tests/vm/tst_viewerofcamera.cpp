// zevqt-viewer itself on the kernel's virtual camera, in a window that is a pbuffer.
#include "colorbars.h"
#include "virtualcamera.h"
#include "xvfbserver.h"

#include <zevmm/v4l2/dmaeglcapture.h>

#include <linux/videodev2.h>

#include <QtCore/QDir>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>

#include <fcntl.h>
#include <unistd.h>

namespace {

const int tolerance = 3;
// Emulated, a program with a window takes half a minute to start, and minutes where other work goes on.
const int limitMs = 120000;
const QSize size(160, 90); // of the window; the camera's is twice that

} // namespace

class tst_ViewerOfCamera : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void showsIt();
    void outlivesDisconnection();
    void aBusyOneEndsIt();
    void listsThem();

private:
    QStringList arguments() const
    {
        return {QStringLiteral("v4l://") + QString::fromLatin1(camera.device()),
                QStringLiteral("--size"),
                QStringLiteral("160x90"),
                QStringLiteral("--audio-device"),
                QStringLiteral("none"),
                QStringLiteral("--report"),
                reportFile()};
    }
    QString screenshot() const { return folder.filePath(QStringLiteral("window.ppm")); }
    QString reportFile() const { return folder.filePath(QStringLiteral("report.json")); }
    void start(BoundProcess *viewer, const QStringList &line);
    bool waitForBars(BoundProcess *viewer);
    // Ends it.
    QJsonObject reportOf(BoundProcess *viewer);
    void keep(const QString &name) const;

    QTemporaryDir folder;
    VirtualCamera camera;
    QString problem;
};

void tst_ViewerOfCamera::init()
{
    const QList<VirtualCamera> all = VirtualCamera::all(false);
    if (all.isEmpty())
        QSKIP("there is no virtual camera");
    camera = all.first();
    QVERIFY2(camera.showBars("sRGB", "Default", "Default") && camera.setFormat(2 * size, V4L2_PIX_FMT_YUYV) &&
                 camera.setRate(10),
             camera.error().constData());
}

void tst_ViewerOfCamera::start(BoundProcess *viewer, const QStringList &line)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("LD_PRELOAD"), QStringLiteral(PBUFFERWINDOW));
    environment.insert(QStringLiteral("RIG_SCREENSHOT"), screenshot());
    environment.insert(QStringLiteral("QT_QPA_EGLFS_WIDTH"), QString::number(size.width()));
    environment.insert(QStringLiteral("QT_QPA_EGLFS_HEIGHT"), QString::number(size.height()));
    viewer->setProcessEnvironment(environment);
    viewer->start(QStringLiteral(VIEWER), line);
}

bool tst_ViewerOfCamera::waitForBars(BoundProcess *viewer)
{
    QFile::remove(screenshot()); // of what was shown before
    const QDeadlineTimer deadline(limitMs);
    do {
        problem = whereBarsDiffer(QImage(screenshot()), size, tolerance);
    } while (!problem.isEmpty() && !viewer->waitForFinished(100) && !deadline.hasExpired());
    if (!problem.isEmpty())
        problem +=
            QStringLiteral("; it says: ") + QString::fromUtf8(viewer->readAllStandardError()).right(800);
    return problem.isEmpty();
}

QJsonObject tst_ViewerOfCamera::reportOf(BoundProcess *viewer)
{
    viewer->terminate();
    QFile file(reportFile());
    if (!viewer->waitForFinished(limitMs) || viewer->exitCode() != 0 || !file.open(QIODevice::ReadOnly))
        return {};
    return QJsonDocument::fromJson(file.readAll()).object();
}

void tst_ViewerOfCamera::keep(const QString &name) const
{
    const QString artifacts = qEnvironmentVariable("RIG_ARTIFACTS", QStringLiteral(ARTIFACTS_DIR));
    if (QDir().mkpath(artifacts))
        QImage(screenshot()).save(artifacts + QLatin1Char('/') + name + QStringLiteral(".png"));
}

void tst_ViewerOfCamera::showsIt()
{
    BoundProcess viewer;
    start(&viewer, arguments());
    QVERIFY2(waitForBars(&viewer), qPrintable(problem));
    // Which path a picture took is known when the next one is drawn.
    QVERIFY2(waitForBars(&viewer), qPrintable(problem));
    keep(QStringLiteral("viewer-camera"));
    const QJsonObject report = reportOf(&viewer);
    QCOMPARE(report[QLatin1String("frame_path")].toString(), QStringLiteral("eglimage"));
    QCOMPARE(report[QLatin1String("frame_path_reason")].toString(), QString());
    QCOMPARE(report[QLatin1String("pixel_format")].toString(), QStringLiteral("nv12"));
    QVERIFY(report[QLatin1String("frames")].toInt() >= 1);
    QVERIFY(report[QLatin1String("camera")].toObject()[QLatin1String("delivered")].toInt() >= 1);
    // Two ticks for a frame.
    const double interval = report[QLatin1String("source_interval_us")].toDouble();
    QVERIFY(interval > 0);
    QCOMPARE(report[QLatin1String("tick_fps")].toDouble(), 2e6 / interval);
}

void tst_ViewerOfCamera::outlivesDisconnection()
{
    BoundProcess viewer;
    start(&viewer, arguments());
    QVERIFY2(waitForBars(&viewer), qPrintable(problem));

    // The driver lets the device return when nobody has it open any more.
    const int held = ::open(camera.device().constData(), O_RDWR | O_CLOEXEC);
    QVERIFY(held >= 0);
    QVERIFY2(camera.set("Disconnect", 1), camera.error().constData());
    QString said;
    const QDeadlineTimer deadline(limitMs);
    while (!said.contains(QLatin1String("(waiting)")) && !deadline.hasExpired() &&
           viewer.state() == QProcess::Running) {
        viewer.waitForReadyRead(100);
        said += QString::fromUtf8(viewer.readAllStandardError());
    }
    QVERIFY2(said.contains(QLatin1String("zevqt-viewer: ") + QString::fromLatin1(camera.device()) +
                           QLatin1String(": the device has gone")),
             qPrintable(said));
    // With the last picture still there, the window says so; then comes the no-signal picture.
    const auto isNotice = [this] {
        return !whereBarsDiffer(QImage(screenshot()), size, tolerance).isEmpty();
    };
    QVERIFY(QTest::qWaitFor(isNotice, limitMs));
    keep(QStringLiteral("viewer-camera-gone"));
    ::close(held);
    QVERIFY2(waitForBars(&viewer), qPrintable(problem));

    const QJsonObject counted = reportOf(&viewer)[QLatin1String("camera")].toObject();
    QVERIFY(counted[QLatin1String("returns")].toInt() >= 1);
    QCOMPARE(counted[QLatin1String("trouble")].toString(), QString());
}

void tst_ViewerOfCamera::aBusyOneEndsIt()
{
    zevmm::v4l2::DmaEglCapture capture(camera.device().toStdString());
    capture.setup();
    BoundProcess viewer;
    start(&viewer, arguments());
    QVERIFY(viewer.waitForFinished(limitMs));
    const QString said = QString::fromUtf8(viewer.readAllStandardError());
    QCOMPARE(viewer.exitCode(), 4);
    QVERIFY2(
        said.contains(QLatin1String("Device or resource busy; end the program that uses it: `fuser -v ") +
                      QString::fromLatin1(camera.device())),
        qPrintable(said));
    QCOMPARE(said.count(QLatin1String("zevqt-viewer: ")), 1);
}

void tst_ViewerOfCamera::listsThem()
{
    BoundProcess viewer;
    start(&viewer, {QStringLiteral("--list-cameras")});
    QVERIFY(viewer.waitForFinished(limitMs));
    QCOMPARE(viewer.exitCode(), 0);
    const QString text = QString::fromUtf8(viewer.readAllStandardOutput());
    for (const bool isMultiplanar : {false, true}) {
        const QString device = QString::fromLatin1(VirtualCamera::all(isMultiplanar).first().device());
        QVERIFY2(text.contains(device + QLatin1String("  vivid (vivid, ")), qPrintable(text));
        QVERIFY2(text.contains(QLatin1String("zevqt-viewer v4l://") + device), qPrintable(text));
    }
    QVERIFY2(text.contains(QLatin1String("  NV12  ")), qPrintable(text));
    QVERIFY2(text.contains(QRegularExpression(QStringLiteral("    320x180  .*\\b30\\b.* frames/s"))),
             qPrintable(text));
}

QTEST_GUILESS_MAIN(tst_ViewerOfCamera)
#include "tst_viewerofcamera.moc"
