// zevqt-viewer --frame-path, in processes of its own: which path its window's frames take, what it says of
// it, and that they are to be seen in any case.
#include "xvfbserver.h"

#include <QtCore/QFile>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QTemporaryDir>
#include <QtGui/QColor>
#include <QtTest/QtTest>

namespace {

const int tolerance = 3;
const int toleranceOfImages = 10; // quick rather than exact, and of BT.601 whatever the stream is
const int limitMs = 120000;
const QSize windowSize(80, 45); // emulated, every pixel counts

// What makes with-gl's surroundings: without it a program has the machine's own driver.
const char *const ofTheRig[] = {
    "LD_LIBRARY_PATH", "LIBGL_DRIVERS_PATH", "GBM_BACKENDS_PATH",     "__EGL_VENDOR_LIBRARY_FILENAMES",
    "VK_DRIVER_FILES", "VK_ICD_FILENAMES",   "LIBGL_ALWAYS_SOFTWARE", "GALLIUM_DRIVER",
    "EGL_PLATFORM",    "QT_QPA_PLATFORM"};

QString whereBarsDiffer(const QImage &picture, const QSize &size, int allowed)
{
    static const QRgb bars[] = {0xffffff, 0xffff00, 0x00ffff, 0x00ff00,
                                0xff00ff, 0xff0000, 0x0000ff, 0x000000};
    if (picture.size() != size)
        return QStringLiteral("there is no picture");
    for (int i = 0; i < 8; ++i) {
        const QRgb expected = bars[i];
        const QRgb shown = picture.pixel(size.width() * (2 * i + 1) / 16, size.height() / 3);
        if (qAbs(qRed(shown) - qRed(expected)) > allowed ||
            qAbs(qGreen(shown) - qGreen(expected)) > allowed ||
            qAbs(qBlue(shown) - qBlue(expected)) > allowed)
            return QStringLiteral("bar %1 is %2 instead of %3")
                .arg(i)
                .arg(QColor(shown).name(), QColor(expected).name());
    }
    return {};
}

// DMA-bufs that a process has open: the kernel's, or the stand-in's, which are open with O_NOATIME
// (01000000).
int dmabufsOf(qint64 process)
{
    const QString folder = QStringLiteral("/proc/%1/").arg(process);
    int count = 0;
    for (const QString &entry : QDir(folder + QStringLiteral("fd"))
                                    .entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System)) {
        const QString target = QFile::symLinkTarget(folder + QStringLiteral("fd/") + entry);
        QFile info(folder + QStringLiteral("fdinfo/") + entry);
        const QRegularExpression isMarked(QStringLiteral("flags:\\s+0[0-7]*[1357][0-7]{6}\\s"));
        const bool isStandIn = target.contains(QLatin1String("/memfd:shm-frame")) &&
                               info.open(QIODevice::ReadOnly) &&
                               isMarked.match(QString::fromLatin1(info.readAll())).hasMatch();
        count += target.contains(QLatin1String("/dmabuf")) || isStandIn ? 1 : 0;
    }
    return count;
}

} // namespace

class tst_ViewerFramePath : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void imported_data();
    void imported();
    void uploaded_data();
    void uploaded();
    void aSourceThatIsNotThereIsNoReason();
    void onAKernelWithoutUdmabuf();
    void dmabufsAreAskedForWhereFramesAreDrawn_data();
    void dmabufsAreAskedForWhereFramesAreDrawn();
    void headlessReadsPixels_data();
    void headlessReadsPixels();
    void underX_data();
    void underX();
    void cleanup();

private:
    struct Store
    {
        QString memory, format, matrix;
    };
    bool publish(const Store &store, const QProcessEnvironment &environment);
    // Runs the viewer until its window shows the bars, then ends it; false, with a reason, when it never
    // does.
    bool view(const QString &framePath, QProcessEnvironment environment,
              const std::function<QImage()> &screenshot);
    bool viewOnRig(const QString &framePath, const QString &artifact,
                   QProcessEnvironment environment = QProcessEnvironment::systemEnvironment());
    QString rigScreenshot() const { return folder->filePath(QStringLiteral("window.ppm")); }
    QString reported(const char *member) const { return report[QLatin1String(member)].toString(); }

    std::unique_ptr<QTemporaryDir> folder;
    std::unique_ptr<BoundProcess> publisher;
    QJsonObject report;
    QString messages;      // of the viewer
    QStringList arguments; // of the viewer, besides
    int allowed = tolerance;
    int dmabufs = 0; // that the viewer had open at the end
    QString problem;
};

void tst_ViewerFramePath::init()
{
    publisher = std::make_unique<BoundProcess>();
    folder = std::make_unique<QTemporaryDir>(QStringLiteral("/tmp/zevpathXXXXXX"));
    qputenv("ZEV_SHM_DIR", QFile::encodeName(folder->path()));
    report = {};
    messages.clear();
    arguments.clear();
    allowed = tolerance;
    dmabufs = 0;
    problem.clear();
}

void tst_ViewerFramePath::cleanup()
{
    publisher->kill();
    publisher->waitForFinished(60000);
}

bool tst_ViewerFramePath::publish(const Store &store, const QProcessEnvironment &environment)
{
    publisher->setProcessEnvironment(environment);
    publisher->start(QStringLiteral(PUBLISHER),
                     {QStringLiteral("cam0"), QStringLiteral("320x180"), store.format, QStringLiteral("5"),
                      store.matrix, QStringLiteral("full"), store.memory});
    return publisher->waitForReadyRead(60000) && publisher->readAllStandardOutput().startsWith("ready");
}

bool tst_ViewerFramePath::view(const QString &framePath, QProcessEnvironment environment,
                               const std::function<QImage()> &screenshot)
{
    const QString reportFile = folder->filePath(QStringLiteral("report.json"));
    BoundProcess viewer;
    viewer.setProcessEnvironment(environment);
    viewer.start(QStringLiteral(VIEWER),
                 QStringList{QStringLiteral("shm:///cam0"), QStringLiteral("--frame-path"), framePath,
                             QStringLiteral("--size"), QStringLiteral("80x45"),
                             QStringLiteral("--audio-device"), QStringLiteral("none"),
                             QStringLiteral("--report"), reportFile} +
                     arguments);
    const QDeadlineTimer deadline(limitMs);
    // Twice: which path a picture took is known when the next one is drawn.
    for (int pictures = 0; pictures < 2; ++pictures) {
        QFile::remove(rigScreenshot());
        do {
            problem = whereBarsDiffer(screenshot(), windowSize, allowed);
        } while (!problem.isEmpty() && !viewer.waitForFinished(50) && !deadline.hasExpired());
        if (!problem.isEmpty())
            break;
    }
    dmabufs = dmabufsOf(viewer.processId());
    viewer.terminate();
    viewer.waitForFinished(60000);
    messages = QString::fromUtf8(viewer.readAllStandardError());
    if (viewer.exitStatus() != QProcess::NormalExit || viewer.exitCode() != 0)
        problem = QStringLiteral("the viewer did not end well (%1)").arg(viewer.exitCode());
    QFile file(reportFile);
    if (file.open(QIODevice::ReadOnly))
        report = QJsonDocument::fromJson(file.readAll()).object();
    if (!problem.isEmpty())
        problem += QStringLiteral("; it says: ") + messages.right(500);
    return problem.isEmpty();
}

bool tst_ViewerFramePath::viewOnRig(const QString &framePath, const QString &artifact,
                                    QProcessEnvironment environment)
{
    const QString shot = rigScreenshot();
    QString preloaded = environment.value(QStringLiteral("LD_PRELOAD"));
    if (!preloaded.isEmpty())
        preloaded += QLatin1Char(':');
    environment.insert(QStringLiteral("LD_PRELOAD"), preloaded + QStringLiteral(PBUFFERWINDOW));
    environment.insert(QStringLiteral("RIG_SCREENSHOT"), shot);
    environment.insert(QStringLiteral("QT_QPA_EGLFS_WIDTH"), QString::number(windowSize.width()));
    environment.insert(QStringLiteral("QT_QPA_EGLFS_HEIGHT"), QString::number(windowSize.height()));
    const bool isShown = view(framePath, environment, [&] { return QImage(shot); });
    if (QDir().mkpath(QStringLiteral(ARTIFACTS_DIR))) // thrown away in the virtual machine
        QImage(shot).save(QStringLiteral(ARTIFACTS_DIR "/viewer-path-%1.png").arg(artifact));
    return isShown;
}

void tst_ViewerFramePath::imported_data()
{
    QTest::addColumn<QString>("memory");
    QTest::addColumn<QString>("format");
    QTest::addColumn<QString>("matrix");
    QTest::addColumn<QString>("framePath");
    QTest::newRow("udmabuf") << "udmabuf"
                             << "yuv420p"
                             << "bt601"
                             << "egl";
    QTest::newRow("dma-heap") << "dma-heap:system"
                              << "nv12"
                              << "bt709"
                              << "auto";
}

void tst_ViewerFramePath::imported()
{
    QFETCH(QString, memory);
    QFETCH(QString, format);
    QFETCH(QString, matrix);
    QFETCH(QString, framePath);
    QVERIFY(publish({memory, format, matrix}, QProcessEnvironment::systemEnvironment()));
    QVERIFY2(viewOnRig(framePath, QStringLiteral("imported-") + framePath), qPrintable(problem));
    QCOMPARE(reported("frame_path"), QStringLiteral("eglimage"));
    QCOMPARE(reported("frame_path_reason"), QString());
    // Emulated, DMA-bufs may come too late for the first frames, and that is told; EGL refuses none.
    QVERIFY2(!messages.contains(QLatin1String("eglCreateImageKHR failed")), qPrintable(messages));
}

void tst_ViewerFramePath::uploaded_data()
{
    QTest::addColumn<QString>("memory");
    QTest::addColumn<QString>("framePath");
    QTest::addColumn<QString>("reason");
    QTest::newRow("asked for") << "udmabuf"
                               << "mapped"
                               << "";
    QTest::newRow("plain memory") << "memfd"
                                  << "egl"
                                  << "no: frames are in plain memory; publish with the memory kind udmabuf";
}

void tst_ViewerFramePath::uploaded()
{
    QFETCH(QString, memory);
    QFETCH(QString, framePath);
    QFETCH(QString, reason);
    QVERIFY(publish({memory, QStringLiteral("nv12"), QStringLiteral("bt601")},
                    QProcessEnvironment::systemEnvironment()));
    QVERIFY2(viewOnRig(framePath, QStringLiteral("uploaded-") + memory), qPrintable(problem));
    QCOMPARE(reported("frame_path"), QStringLiteral("mapped"));
    QCOMPARE(reported("frame_path_reason"), reason);
    // Who asks for images is told in so many words.
    QCOMPARE(messages.contains(QLatin1String("frames are not imported into the GPU: ") + reason),
             framePath == QLatin1String("egl"));
}

// The picture that stands in for it is not imported, and nobody is told that his frames are not.
void tst_ViewerFramePath::aSourceThatIsNotThereIsNoReason()
{
    QImage yellow(8, 8, QImage::Format_RGB32);
    yellow.fill(Qt::yellow);
    const QString picture = folder->filePath(QStringLiteral("none.png"));
    QVERIFY(yellow.save(picture));
    arguments =
        QStringList{QStringLiteral("--no-signal"), picture, QStringLiteral("--seconds"), QStringLiteral("8")};
    viewOnRig(QStringLiteral("egl"), QStringLiteral("no-signal"));
    const QImage shot(rigScreenshot());
    const bool isSeen = !shot.isNull() && QColor(shot.pixel(40, 22)) == QColor(Qt::yellow);
    QVERIFY2(isSeen, qPrintable(problem));
    QVERIFY2(!messages.contains(QLatin1String("frames are not imported")), qPrintable(messages));
}

// The machine's own, without the stand-in.
void tst_ViewerFramePath::onAKernelWithoutUdmabuf()
{
    if (QFile::exists(QStringLiteral("/dev/udmabuf")))
        QSKIP("this kernel has /dev/udmabuf");
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.remove(QStringLiteral("LD_PRELOAD"));
    QVERIFY(publish({QStringLiteral("udmabuf"), QStringLiteral("yuv420p"), QStringLiteral("bt709")},
                    environment));
    QVERIFY2(viewOnRig(QStringLiteral("egl"), QStringLiteral("no-udmabuf"), environment),
             qPrintable(problem));
    QCOMPARE(reported("frame_path"), QStringLiteral("mapped"));
    QCOMPARE(reported("frame_path_reason"),
             QStringLiteral(
                 "no: this kernel has no /dev/udmabuf; load the module udmabuf or enable CONFIG_UDMABUF"));
}

void tst_ViewerFramePath::dmabufsAreAskedForWhereFramesAreDrawn_data()
{
    QTest::addColumn<QString>("framePath");
    QTest::addColumn<QStringList>("more");
    QTest::addColumn<QByteArray>("variable"); // ZEV_GL_DMABUF of the one who starts it; null: none
    QTest::addColumn<QString>("expected");
    QTest::newRow("frames") << "auto" << QStringList() << QByteArray() << "eglimage";
    QTest::newRow("frames by the planes") << "mapped" << QStringList() << QByteArray("1") << "mapped";
    QTest::newRow("images") << "auto" << QStringList({"--frames", "image"}) << QByteArray("1") << "image";
}

// Whatever the environment says: with DMA-bufs there would be no images, and without them no imported frames.
void tst_ViewerFramePath::dmabufsAreAskedForWhereFramesAreDrawn()
{
    QFETCH(QString, framePath);
    QFETCH(QStringList, more);
    QFETCH(QByteArray, variable);
    QFETCH(QString, expected);
    QVERIFY(publish({QStringLiteral("udmabuf"), QStringLiteral("yuv420p"), QStringLiteral("bt601")},
                    QProcessEnvironment::systemEnvironment()));
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.remove(QStringLiteral("ZEV_GL_DMABUF"));
    if (!variable.isNull())
        environment.insert(QStringLiteral("ZEV_GL_DMABUF"), QString::fromLatin1(variable));
    arguments = more;
    allowed = expected == QLatin1String("image") ? toleranceOfImages : tolerance;
    QVERIFY2(viewOnRig(framePath, QStringLiteral("asked-") + expected, environment), qPrintable(problem));
    QCOMPARE(reported("frame_path"), expected);
    QVERIFY2((dmabufs > 0) == (expected == QLatin1String("eglimage")), qPrintable(QString::number(dmabufs)));
}

void tst_ViewerFramePath::headlessReadsPixels_data()
{
    QTest::addColumn<QString>("frames");
    QTest::newRow("frames") << "video";
    QTest::newRow("images") << "image";
}

void tst_ViewerFramePath::headlessReadsPixels()
{
    QFETCH(QString, frames);
    QVERIFY(publish({QStringLiteral("udmabuf"), QStringLiteral("yuv420p"), QStringLiteral("bt601")},
                    QProcessEnvironment::systemEnvironment()));
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("ZEV_GL_DMABUF"), QStringLiteral("1"));
    const QString snapshot = folder->filePath(QStringLiteral("snapshot.png"));
    const QString reportFile = folder->filePath(QStringLiteral("report.json"));
    BoundProcess viewer;
    viewer.setProcessEnvironment(environment);
    viewer.start(QStringLiteral(VIEWER),
                 {QStringLiteral("shm:///cam0"), QStringLiteral("--headless"), QStringLiteral("--frames"),
                  frames, QStringLiteral("--audio-device"), QStringLiteral("none"),
                  QStringLiteral("--seconds"), QStringLiteral("2"), QStringLiteral("--snapshot"), snapshot,
                  QStringLiteral("--report"), reportFile});
    const QDeadlineTimer deadline(limitMs);
    while (!viewer.waitForFinished(20) && !deadline.hasExpired())
        dmabufs = qMax(dmabufs, dmabufsOf(viewer.processId()));
    messages = QString::fromUtf8(viewer.readAllStandardError());
    QVERIFY2(viewer.exitStatus() == QProcess::NormalExit && viewer.exitCode() == 0, qPrintable(messages));
    QCOMPARE(dmabufs, 0);
    QFile file(reportFile);
    QVERIFY(file.open(QIODevice::ReadOnly));
    report = QJsonDocument::fromJson(file.readAll()).object();
    QVERIFY(report[QLatin1String("frames")].toInt() > 0);
    const QImage picture(snapshot);
    problem = whereBarsDiffer(picture, picture.size(), toleranceOfImages);
    QVERIFY(picture.width() >= 320);
    QVERIFY2(problem.isEmpty(), qPrintable(problem));
}

void tst_ViewerFramePath::underX_data()
{
    QTest::addColumn<QString>("framePath");
    QTest::addColumn<QString>("integration");
    QTest::addColumn<QString>("reason");
    QTest::addColumn<QString>("message"); // how often: once
    QTest::newRow("GLX as it comes") << "auto"
                                     << ""
                                     << "the window draws with desktop OpenGL, which has no external textures"
                                     << "";
    QTest::newRow("a driver that cannot import") << "egl"
                                                 << ""
                                                 << "EGL could not import the frame's memory, see the log"
                                                 << "eglCreateImageKHR failed:";
    QTest::newRow("OpenGL ES of GLX")
        << "egl"
        << "xcb_glx"
        << "the window's OpenGL does not come from EGL, or Qt does not say from which display"
        << "frames are not imported into the GPU";
}

// DMA-bufs are there, the machine's own driver takes none of them; nothing that is thrown reaches the event
// loop.
void tst_ViewerFramePath::underX()
{
    QFETCH(QString, framePath);
    QFETCH(QString, integration);
    QFETCH(QString, reason);
    QFETCH(QString, message);
    const XvfbServer server(QStringLiteral("320x200x24"));
    QVERIFY2(!server.display().isEmpty(), "Xvfb did not start; install the package xvfb");
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const char *variable : ofTheRig)
        environment.remove(QLatin1String(variable));
    environment.insert(QStringLiteral("DISPLAY"), QString::fromLatin1(server.display()));
    if (!integration.isEmpty())
        environment.insert(QStringLiteral("QT_XCB_GL_INTEGRATION"), integration);
    QVERIFY(publish({QStringLiteral("udmabuf"), QStringLiteral("nv12"), QStringLiteral("bt709")},
                    QProcessEnvironment::systemEnvironment()));
    QVERIFY2(
        view(framePath, environment, [&] { return server.screenshot().copy(QRect(QPoint(), windowSize)); }),
        qPrintable(problem));
    QCOMPARE(reported("frame_path"), QStringLiteral("mapped"));
    QCOMPARE(reported("frame_path_reason"), reason);
    if (!message.isEmpty())
        QVERIFY2(messages.count(message) == 1, qPrintable(messages));
}

QTEST_GUILESS_MAIN(tst_ViewerFramePath)
#include "tst_viewerframepath.moc"
