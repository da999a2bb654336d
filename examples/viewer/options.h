#pragma once

#include <QSize>
#include <QString>
#include <QStringList>
#include <QUrl>

/* What the command line asks for. */
struct Options
{
    enum class Frames { Video, Image };
    enum class Fill { Stretch, Fit, Crop };
    enum class FramePath { Auto, Mapped, Egl };

    QUrl video;
    QUrl audio;
    Frames frames = Frames::Video;
    FramePath framePath = FramePath::Auto;
    double fps = 0.0; // 0: the source's own
    QString noSignal; // file; empty: the built-in picture
    bool headless = false;
    double seconds = 0.0; // 0: without end
    QString snapshot;
    QString report;
    Fill fill = Fill::Fit;
    QSize windowSize{960, 540};
    bool statistics = false;
    bool fullscreen = false;
    QString audioDevice = QStringLiteral("default"); // or a name, or "none"
    double volume = 1.0;
    bool mute = false;

    // For tests: the event loop stands still from `blockAfter` on for `blockFor` seconds.
    double blockAfter = 0.0;
    double blockFor = 0.0;
};

struct ParsedOptions
{
    Options options;
    bool help = false;
    bool version = false;
    bool listAudioDevices = false;
    bool listCameras = false;
    QString error; // empty: all is well; else one line that names the thing and the remedy
};

/* `arguments`: without the program's name. Touches no file. */
ParsedOptions parseOptions(const QStringList &arguments);

QString helpText();
