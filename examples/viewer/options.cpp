#include "options.h"

#include <QCommandLineParser>
#include <QFileInfo>

#include <shm/shm_types.h>

namespace {

// Longer runs are ended by hand; and a day in milliseconds fits a timer.
constexpr double secondsMax = 86400.0;

struct Problem
{
    QString text;
};

double number(const QCommandLineParser &parser, const QString &name, double minimum, double maximum)
{
    bool ok = false;
    const double value = parser.value(name).toDouble(&ok);
    if (!ok || !(value >= minimum && value <= maximum))
        throw Problem{QStringLiteral("--%1 %2: a number from %3 to %4 is needed")
                          .arg(name, parser.value(name))
                          .arg(minimum)
                          .arg(maximum)};
    return value;
}

template <typename Value>
Value choice(const QCommandLineParser &parser, const QString &name,
             std::initializer_list<std::pair<const char *, Value>> values)
{
    QStringList names;
    for (const auto &[text, value] : values) {
        if (parser.value(name) == QLatin1String(text))
            return value;
        names << QLatin1String(text);
    }
    throw Problem{QStringLiteral("--%1 %2: one of %3 is needed")
                      .arg(name, parser.value(name), names.join(QStringLiteral(", ")))};
}

// A name that no store can have would be waited for without end.
void checkStoreName(const QUrl &url, const QString &text)
{
    if (!url.host().isEmpty())
        throw Problem{
            QStringLiteral("'%1' names the host '%2', and stores are of this machine; write shm:///%2")
                .arg(text, url.host())};
    const QString name = url.path(QUrl::FullyDecoded).mid(1).section(QLatin1Char(';'), 0, 0);
    shm_error_t error = {};
    if (shm_check_name(name.toUtf8().constData(), &error) != 0)
        throw Problem{QStringLiteral("'%1': %2").arg(text, QString::fromUtf8(error.message))};
}

QUrl sourceUrl(const QString &text)
{
    QUrl url(text, QUrl::StrictMode);
    if (!url.isValid() || text.isEmpty())
        throw Problem{QStringLiteral("'%1' is not a URL; a store is named shm:///NAME, a capture device "
                                     "v4l:///dev/videoN")
                          .arg(text)};
    if (!url.scheme().isEmpty() && (url.path().isEmpty() || url.path() == QLatin1String("/")))
        throw Problem{QStringLiteral("'%1' names no source; a store is named shm:///NAME, a capture device "
                                     "v4l:///dev/videoN")
                          .arg(text)};
    if (url.scheme() == QLatin1String("shm"))
        checkStoreName(url, text);
    return url;
}

// What only a renderer can do, and a store can do for all.
void checkCamera(const Options &options)
{
    const auto refuse = [&options](const char *option, const char *why) {
        throw Problem{QStringLiteral("%1 does not go with %2: %3; publish the camera (zevshm publish NAME "
                                     "v4l2:%4) and view the store")
                          .arg(QLatin1String(option), options.video.toString(), QLatin1String(why),
                               options.video.path(QUrl::FullyDecoded))};
    };
    if (options.headless)
        refuse("--headless", "a camera's frames can only be drawn");
    if (options.frames == Options::Frames::Image)
        refuse("--frames image", "a camera's frames stay in the GPU");
    if (options.framePath == Options::FramePath::Mapped)
        refuse("--frame-path mapped", "a camera's frames stay in the GPU");
    if (!options.audio.isEmpty() && options.audio.scheme() != QLatin1String("shm"))
        throw Problem{QStringLiteral("--audio %1: sound beside a camera comes from a store, shm:///NAME")
                          .arg(options.audio.toString())};
}

QSize windowSize(const QString &text)
{
    const QStringList parts = text.split(QLatin1Char('x'));
    const QSize size = parts.size() == 2 ? QSize(parts[0].toInt(), parts[1].toInt()) : QSize();
    if (size.width() < 16 || size.height() < 16 || size.width() > 16384 || size.height() > 16384)
        throw Problem{
            QStringLiteral("--size %1: a width and a height of 16 to 16384 are needed, as in 960x540")
                .arg(text)};
    return size;
}

void addOptions(QCommandLineParser &parser)
{
    const auto valued = [&parser](const char *name) {
        parser.addOption(QCommandLineOption(QLatin1String(name), QString(), QStringLiteral("value")));
    };
    const auto plain = [&parser](const QStringList &names) { parser.addOption(QCommandLineOption(names)); };
    for (const char *name : {"audio", "audio-device", "volume", "frames", "fps", "no-signal", "seconds",
                             "snapshot", "report", "fill", "size", "block", "frame-path"})
        valued(name);
    plain({QStringLiteral("h"), QStringLiteral("help")});
    plain({QStringLiteral("version")});
    plain({QStringLiteral("headless")});
    plain({QStringLiteral("mute")});
    plain({QStringLiteral("list-audio-devices")});
    plain({QStringLiteral("list-cameras")});
    plain({QStringLiteral("stats")});
    plain({QStringLiteral("fullscreen")});
    parser.addPositionalArgument(QStringLiteral("URL"), QString());
}

void fill(Options &options, const QCommandLineParser &parser)
{
    const auto given = [&parser](const char *name) { return parser.isSet(QLatin1String(name)); };

    const QStringList urls = parser.positionalArguments();
    if (urls.isEmpty())
        throw Problem{QStringLiteral("a URL is missing; a store is named shm:///NAME")};
    if (urls.size() > 1)
        throw Problem{QStringLiteral("'%1' is one URL too many; one viewer shows one source").arg(urls[1])};
    options.video = sourceUrl(urls.first());
    if (given("audio"))
        options.audio = sourceUrl(parser.value(QStringLiteral("audio")));
    if (given("audio-device"))
        options.audioDevice = parser.value(QStringLiteral("audio-device"));
    if (options.audioDevice.isEmpty())
        throw Problem{QStringLiteral("--audio-device: a name is needed, or default, or none; "
                                     "--list-audio-devices prints the names")};
    if (given("volume"))
        options.volume = number(parser, QStringLiteral("volume"), 0.0, 1.0);
    options.mute = given("mute");
    if (given("frames"))
        options.frames =
            choice<Options::Frames>(parser, QStringLiteral("frames"),
                                    {{"video", Options::Frames::Video}, {"image", Options::Frames::Image}});
    if (given("frame-path"))
        options.framePath = choice<Options::FramePath>(parser, QStringLiteral("frame-path"),
                                                       {{"auto", Options::FramePath::Auto},
                                                        {"mapped", Options::FramePath::Mapped},
                                                        {"egl", Options::FramePath::Egl}});
    if (options.framePath == Options::FramePath::Egl && options.frames == Options::Frames::Image)
        throw Problem{
            QStringLiteral("--frame-path egl does not go with --frames image; images are made by the CPU")};
    if (given("fps") && parser.value(QStringLiteral("fps")) != QLatin1String("auto"))
        options.fps = number(parser, QStringLiteral("fps"), 0.1, 1000.0);
    if (given("no-signal"))
        options.noSignal = parser.value(QStringLiteral("no-signal"));
    if (given("seconds"))
        options.seconds = number(parser, QStringLiteral("seconds"), 0.001, secondsMax);
    options.snapshot = parser.value(QStringLiteral("snapshot"));
    const QFileInfo picture(options.snapshot);
    if (!picture.suffix().isEmpty() &&
        picture.suffix().compare(QLatin1String("png"), Qt::CaseInsensitive) != 0)
        throw Problem{QStringLiteral("--snapshot %1: pictures are PNG files only; name it %2.png")
                          .arg(options.snapshot, picture.completeBaseName())};
    options.report = parser.value(QStringLiteral("report"));
    if (given("fill"))
        options.fill = choice<Options::Fill>(parser, QStringLiteral("fill"),
                                             {{"stretch", Options::Fill::Stretch},
                                              {"fit", Options::Fill::Fit},
                                              {"crop", Options::Fill::Crop}});
    if (given("size"))
        options.windowSize = windowSize(parser.value(QStringLiteral("size")));
    options.headless = given("headless");
    if (options.headless && options.framePath == Options::FramePath::Egl)
        throw Problem{
            QStringLiteral("--frame-path egl does not go with --headless; only a window draws frames")};
    if (options.video.scheme() == QLatin1String("v4l"))
        checkCamera(options);
    options.statistics = given("stats");
    options.fullscreen = given("fullscreen");
    if (given("block")) {
        const QStringList parts = parser.value(QStringLiteral("block")).split(QLatin1Char(','));
        options.blockAfter = parts.value(0).toDouble();
        options.blockFor = parts.value(1).toDouble();
        if (!(options.blockFor > 0.0 && options.blockFor <= secondsMax && options.blockAfter >= 0.0))
            throw Problem{QStringLiteral("--block: two numbers of seconds are needed, AFTER,FOR")};
    }
}

} // namespace

ParsedOptions parseOptions(const QStringList &arguments)
{
    ParsedOptions result;
    QCommandLineParser parser;
    addOptions(parser);
    if (!parser.parse(QStringList{QStringLiteral("zevqt-viewer")} + arguments)) {
        QString text = parser.errorText();
        if (text.endsWith(QLatin1Char('.')))
            text.chop(1);
        result.error = text;
    } else if (parser.isSet(QStringLiteral("help"))) {
        result.help = true;
    } else if (parser.isSet(QStringLiteral("version"))) {
        result.version = true;
    } else if (parser.isSet(QStringLiteral("list-audio-devices"))) {
        result.listAudioDevices = true;
    } else if (parser.isSet(QStringLiteral("list-cameras"))) {
        result.listCameras = true;
    } else {
        try {
            fill(result.options, parser);
        } catch (const Problem &problem) {
            result.error = problem.text;
        }
    }
    if (!result.error.isEmpty())
        result.error += QStringLiteral(" (zevqt-viewer --help explains)");
    return result;
}

QString helpText()
{
    return QStringLiteral(R"(Usage: zevqt-viewer URL [options]

Shows live video from a frame store (shm:///NAME) or a capture device (v4l:///dev/videoN). A store that is
not there yet is waited for, with a line that says what is missing; a source that goes away is replaced by a
no-signal picture after five seconds and shown again when it returns, also with another size or rate.

Options:
  --audio URL            another store for the sound (shm:///NAME;N: its channel N only)
  --audio-device NAME|default|none   what plays the sound (default: default); without a device, or a sound
                         server, the picture goes on
  --volume N             0 to 1 (default: 1)
  --mute                 start without sound; meters and the picture's delay stay
  --list-audio-devices   print the names of the audio devices, and end
  --list-cameras         print the capture devices with their formats, sizes and rates, and end
  --frames video|image   frames drawn from the store's memory (default), or converted images
  --frame-path auto|mapped|egl   import frames into the GPU where source and driver can (default), upload
                         them always, or import them and say so when that cannot be
  --fps auto|N           ticks a second; auto: the source's own rate, up to the screen's (default)
  --no-signal FILE       picture for a source that is silent, instead of the built-in one
  --fill fit|stretch|crop   how the picture fills the window (default: fit)
  --size WxH             size of the window (default: 960x540)
  --fullscreen           fill the screen from the start
  --stats                show statistics from the start
  --headless             no window: receive and count only
  --seconds N            end after N seconds
  --snapshot FILE.png    write the last picture of the source at the end; of frames in the GPU, the window as
                         it shows them
  --report FILE.json     write statistics at the end
  -h, --help             this text
  --version              print the version

Keys: M mute, Up and Down volume, S statistics, A next fill mode, F full screen, Esc or Q quit.

With sound, the picture waits for it: it is shown 0.4 s and the device's buffer behind live. A store whose
history is shorter than that shows its oldest frames, and its sound comes later than the picture; the statistics
tell by how much. Sound that stops (device gone, clock set) is started again.

A camera has to be there from the start; unplugged later, it is waited for. Its frames stay in the GPU: the
window needs OpenGL ES on EGL, and --headless, --frames image and --frame-path mapped are refused. There are
two ticks for each of its frames, up to the screen's rate. It has no sound of its own: --audio names a store,
whose sound is not held together with the picture.

The report: frames (pictures of the source handed out), distinct and repeated (new, or with the timestamp of the
one before), skipped (source frames that passed between two pictures in a row, less those that ticks slower than
the source explain), invalid (requests answered without a picture since the first one; before it:
invalid_before_first), idle_events (how often pictures stopped coming and the last one was kept; one for each
time), no_signal_frames, fps (pictures a second, interruptions left out), source_interval_us, latency_ms (clock
minus the frame's timestamp when it is handed out), size, pixel_format, frame_path (mapped: planes uploaded as
they are; converted: RGB made by the CPU; image: converted by the library; none), audio: device and rate (Hz)
last played on, delay_ms (newest sound of the store minus the one heard, at the end), underrun_episodes (how
often the device had to be given silence) and silence_ms (how much of it), jumps (how often reading had fallen
behind and jumped to live, or began anew with another format), restarts (starts after the first), av_offset_ms
(at every picture handed out, its timestamp minus that of the sound reported as heard at this moment: positive
means that the picture is ahead; p50 is the median, p95 the size that 95 % of the pictures stay below; null
before there is any), history_short_ms (by how much the store's history is too short for the picture to wait for
the sound), problem (why there is no sound); camera (null without): captured, delivered, skipped (replaced by a
newer one before a tick came), damaged, restarts, returns (after the device had gone), trouble (why no frames
come).

Exit status: 0 ended as asked, 1 a report or snapshot could not be written, 2 wrong use, 3 no display,
4 a capture device cannot be used.

Examples:
  zevqt-viewer shm:///cam0
  zevqt-viewer shm:///cam0 --frames image --fps 10 --stats
  zevqt-viewer shm:///cam0 --headless --seconds 10 --report report.json --snapshot picture.png
  zevqt-viewer v4l:///dev/video0 --audio shm:///mic
)");
}
