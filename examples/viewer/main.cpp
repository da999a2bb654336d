#include "cameralist.h"
#include "options.h"
#include "quitsignals.h"
#include "report.h"
#include "sound.h"
#include "viewer.h"
#include "viewerwindow.h"

#include <QElapsedTimer>
#include <QGuiApplication>
#include <QImageReader>
#include <QImageWriter>
#include <QJsonDocument>
#include <QLoggingCategory>
#include <QSaveFile>
#include <QScreen>
#include <QSurfaceFormat>
#include <QThread>
#include <QTimer>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace {

enum ExitCode { Ok = 0, OutputFailed = 1, WrongUse = 2, NoDisplay = 3, DeviceFailed = 4 };

int complain(ExitCode code, const QString &message)
{
    std::fprintf(stderr, "zevqt-viewer: %s\n", qUtf8Printable(message));
    return code;
}

/* Empty, or what is wrong with the files that the options name. */
QString checkFiles(const Options &options)
{
    if (!options.noSignal.isEmpty()) {
        QImageReader reader(options.noSignal);
        if (reader.read().isNull())
            return QStringLiteral(
                       "cannot read the picture '%1': %2; give --no-signal a picture that is there, as "
                       "PNG or JPEG, or leave it out")
                .arg(options.noSignal, reader.errorString());
    }
    for (const QString &path : {options.snapshot, options.report}) {
        QString reason = path.isEmpty() ? QString() : whyNotWritable(path);
        if (!reason.isEmpty())
            return reason;
    }
    return {};
}

/*
 * Without a display Qt ends the program with an abort and a page of advice; what a person needs is one line.
 * Only in place while the application object is made.
 */
void endWithoutDisplay(QtMsgType type, const QMessageLogContext &, const QString &)
{
    if (type != QtFatalMsg)
        return;
    std::fputs(
        "zevqt-viewer: there is no display to open a window on; run with --headless, or set DISPLAY or "
        "QT_QPA_PLATFORM\n",
        stderr);
    std::_Exit(NoDisplay);
}

// A camera is shown that way or not at all.
bool needsEgl(const Options &options)
{
    return options.framePath == Options::FramePath::Egl || options.video.scheme() == QLatin1String("v4l");
}

/*
 * Frames in DMA buffers are for the GPU alone: they cannot be mapped, nor converted to images. So they are
 * asked for only where a window draws frames.
 */
void chooseFramePath(const Options &options)
{
    const bool areDrawn = !options.headless && options.frames == Options::Frames::Video;
    if (areDrawn && options.framePath != Options::FramePath::Mapped)
        qputenv("ZEV_GL_DMABUF", "1");
    else
        qunsetenv("ZEV_GL_DMABUF");
    // On X11 EGL is not what Qt takes by itself.
    if (areDrawn && needsEgl(options) && !qEnvironmentVariableIsSet("QT_XCB_GL_INTEGRATION"))
        qputenv("QT_XCB_GL_INTEGRATION", "xcb_egl");
}

/*
 * Before the first window: external textures come with OpenGL ES only. Where Qt draws through EGL in any
 * case, asking for it costs nothing.
 */
void chooseOpenGl(const Options &options)
{
    if (options.frames != Options::Frames::Video ||
        (!needsEgl(options) &&
         (options.framePath != Options::FramePath::Auto || QGuiApplication::platformName() != "eglfs")))
        return;
    QSurfaceFormat format = QSurfaceFormat::defaultFormat();
    format.setRenderableType(QSurfaceFormat::OpenGLES);
    QSurfaceFormat::setDefaultFormat(format);
}

std::unique_ptr<QCoreApplication> createApplication(bool headless, int &argc, char **argv)
{
    if (headless)
        return std::make_unique<QCoreApplication>(argc, argv);
    const QtMessageHandler before = qInstallMessageHandler(endWithoutDisplay);
    auto application = std::make_unique<QGuiApplication>(argc, argv);
    qInstallMessageHandler(before);
    return application;
}

QtMessageHandler qtMessages = nullptr;

// What Qt's sound backend says of a server that is not there, once per attempt, and of a device that was
// taken away, Sound says once.
void leaveOutSoundServer(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    if (!text.startsWith(QLatin1String("PulseAudioService:")) &&
        !text.contains(QLatin1String("Stream error: Entity killed")))
        qtMessages(type, context, text);
}

/* `window`: null without one. */
int writeResults(const Viewer &viewer, const ViewerWindow *window, const Options &options, double seconds)
{
    int code = Ok;
    if (!options.report.isEmpty()) {
        QSaveFile file(options.report);
        file.setDirectWriteFallback(true); // a folder may be closed and the file in it open
        const QJsonDocument document(reportOf(viewer.figures(), options.video.toString(), seconds));
        if (!file.open(QIODevice::WriteOnly) || file.write(document.toJson()) < 0 || !file.commit())
            code = complain(OutputFailed, cannotWrite(options.report, file.errorString()));
    }
    if (!options.snapshot.isEmpty()) {
        QImage picture = viewer.snapshot();
        if (picture.isNull() && window)
            picture = window->pictureOnScreen();
        if (picture.isNull())
            code = complain(OutputFailed,
                            QStringLiteral("no picture came from %1, '%2' is not written; start its "
                                           "publisher, or wait longer (--seconds)")
                                .arg(options.video.toString(), options.snapshot));
        else if (QImageWriter writer(options.snapshot, "PNG"); !writer.write(picture))
            code = complain(OutputFailed, cannotWrite(options.snapshot, writer.errorString()));
    }
    return code;
}

int listAudioDevices(int argc, char **argv)
{
    const QCoreApplication application(argc, argv);
    qtMessages = qInstallMessageHandler(leaveOutSoundServer);
    Sound::silenceLibraries();
    const QStringList names = Sound::deviceNames();
    if (names.isEmpty())
        complain(Ok, QStringLiteral("no audio device was found: connect one, or start the sound server; one "
                                    "that does not answer has to be continued or restarted"));
    for (const QString &name : names)
        std::printf("%s\n", qUtf8Printable(name));
    return Ok;
}

int listCameras()
{
    const auto cameras = zevmm::v4l2::listCameras();
    if (cameras.empty())
        complain(Ok, QStringLiteral("no camera was found: connect one, or load its driver"));
    std::fputs(qUtf8Printable(cameraListText(cameras)), stdout);
    return Ok;
}

int run(QCoreApplication &application, const Options &options)
{
    const auto *gui = qobject_cast<QGuiApplication *>(&application);
    const double screenRate = gui && gui->primaryScreen() ? gui->primaryScreen()->refreshRate() : 0.0;

    std::unique_ptr<Viewer> viewer;
    try {
        // Screens that cannot tell say 0 or something close to it.
        viewer = std::make_unique<Viewer>(options, screenRate >= 10.0 ? screenRate : 0.0);
    } catch (const std::logic_error &error) {
        return complain(WrongUse, QStringLiteral("%1 (a store is named shm:///NAME, a capture device "
                                                 "v4l:///dev/videoN)")
                                      .arg(QString::fromUtf8(error.what())));
    } catch (const std::exception &error) { // a capture device says why it cannot be used
        return complain(DeviceFailed, QString::fromUtf8(error.what()));
    }
    const auto say = [](const QString &text) {
        std::fprintf(stderr, "zevqt-viewer: %s\n", qUtf8Printable(text));
    };
    QObject::connect(viewer->sound(), &Sound::problem, viewer.get(), say);
    QObject::connect(viewer.get(), &Viewer::problem, viewer.get(), say);
    std::unique_ptr<ViewerWindow> window;
    if (gui) {
        chooseOpenGl(options);
        window = std::make_unique<ViewerWindow>(viewer.get(), options);
        if (!window->error().isEmpty())
            return complain(
                WrongUse,
                QStringLiteral("cannot build the window: %1; install Qt Quick's modules (on Debian "
                               "qml-module-qtquick2 and qml-module-qtquick-window2), or run with --headless")
                    .arg(window->error()));
        QObject::connect(window.get(), &ViewerWindow::closed, &application, &QCoreApplication::quit);
    }

    const QuitSignals signals_;
    QObject::connect(&signals_, &QuitSignals::quitRequested, &application, &QCoreApplication::quit);
    if (options.seconds > 0.0)
        QTimer::singleShot(int(options.seconds * 1000.0), Qt::PreciseTimer, &application,
                           &QCoreApplication::quit);
    if (options.blockFor > 0.0)
        QTimer::singleShot(int(options.blockAfter * 1000.0), &application,
                           [&options] { QThread::msleep((unsigned long)(options.blockFor * 1000.0)); });

    QElapsedTimer clock;
    clock.start();
    viewer->start();
    application.exec();
    QCoreApplication::sendPostedEvents(); // what the render thread has told of the picture on screen counts
    viewer->stop();
    return writeResults(*viewer, window.get(), options, double(clock.elapsed()) / 1000.0);
}

} // namespace

int main(int argc, char **argv)
{
    QuitSignals::block();
    QStringList arguments;
    for (int i = 1; i < argc; ++i)
        arguments << QString::fromLocal8Bit(argv[i]);
    const ParsedOptions parsed = parseOptions(arguments);
    if (!parsed.error.isEmpty())
        return complain(WrongUse, parsed.error);
    if (parsed.help) {
        std::fputs(qUtf8Printable(helpText()), stdout);
        return Ok;
    }
    if (parsed.version) {
        std::puts("zevqt-viewer " VIEWER_VERSION);
        return Ok;
    }
    // Traces are for those who ask for them (QT_LOGGING_RULES); what the player warns of, Sound tells once.
    QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false\nzevqt.audio=false"));
    if (parsed.listCameras)
        return listCameras();
    if (parsed.listAudioDevices)
        return listAudioDevices(argc, argv);
    const QString problem = checkFiles(parsed.options);
    if (!problem.isEmpty())
        return complain(WrongUse, problem);

    chooseFramePath(parsed.options);
    int qtArgc = 1; // Qt has options of its own, which would be taken for URLs or hide mistakes
    const auto application = createApplication(parsed.options.headless, qtArgc, argv);
    qtMessages = qInstallMessageHandler(leaveOutSoundServer);
    QCoreApplication::setApplicationName(QStringLiteral("zevqt-viewer"));
    Sound::silenceLibraries();
    return run(*application, parsed.options);
}
