#pragma once

#include "levelmeter.h"
#include "livestream.h"
#include "options.h"
#include "sound.h"

#include <zevmm/v4l2/capturebase.h>

#include <QElapsedTimer>
#include <QImage>
#include <QObject>
#include <QVariantList>
#include <QVideoFrame>

#include <memory>
#include <optional>

QT_BEGIN_NAMESPACE
class QAudioBuffer;
QT_END_NAMESPACE

/* Everything that the report and the overlay tell. */
struct ViewerFigures
{
    LiveStatistics live;
    quint64 withheld = 0; // image requests left out because images were waiting
    quint64 audioBuffers = 0;
    Sound::Figures sound;
    qint64 historyShortUs = 0;
    std::optional<zevmm::v4l2::CaptureStatistics> camera; // of a camera
    QString cameraTrouble;
};

/*
 * What the viewer does with and without a window: runs a stream, plays its sound, meters it, remembers the
 * last picture and puts what is to be told into words.
 *
 * Usage: construct, show provider() with a LiveVideo (or not), start(), stop() at the end; then figures() and
 * snapshot().
 *
 * Threads: the GUI thread (or the main thread of a program without one).
 * Ownership: owns the stream. Keeps the last frame of the source, and with it one lock.
 * Errors: the constructor throws std::logic_error for URLs that MediaProvider does not take, and what the
 * capture library throws for a device that cannot be used.
 */
class Viewer : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QObject *provider READ providerObject CONSTANT)
    Q_PROPERTY(QObject *sound READ soundObject CONSTANT)
    Q_PROPERTY(QVariantList levels READ levels NOTIFY levelsChanged)
    Q_PROPERTY(QString statisticsText READ statisticsText NOTIFY statisticsChanged)
    Q_PROPERTY(QString cameraTrouble READ cameraTrouble NOTIFY statisticsChanged)

public:
    /* `screenRate`: pictures a second that can be shown, 0 for no limit. */
    Viewer(const Options &options, double screenRate, QObject *parent = nullptr);
    ~Viewer() override;

    MediaProvider *provider() const { return m_stream->provider(); }
    QObject *providerObject() const;
    Sound *sound() const { return m_sound.get(); }
    QObject *soundObject() const { return m_sound.get(); }
    /* Of each channel rms, peak and hold, in dB, in this order. */
    QVariantList levels() const;

    void start();
    void stop();

    /* Size in pixels that images are wanted in; frames are not concerned. Without a call: the source's. */
    void setImageSize(const QSize &size);
    /* How the window draws, for the figures. */
    void setFramePath(const QString &path, const QString &reason);

    ViewerFigures figures() const;
    QString statisticsText() const;
    /* Why a camera delivers nothing; empty when it does, and for stores. */
    QString cameraTrouble() const;

    /* The last picture of the source (never the no-signal picture), in its own size. Null without one. */
    QImage snapshot() const;

signals:
    /* One line for a person: what is waited for, and the remedy. When it changes. */
    void problem(const QString &text);
    void statisticsChanged();
    void levelsChanged();

private:
    void onVideo(const QVideoFrame &frame);
    void onImage(const QImage &image);
    void onAudio(const QAudioBuffer &buffer);
    void refresh();
    void sayTrouble();
    QString stateText() const;
    QStringList soundText(const ViewerFigures &figures) const;
    qint64 monotonicUs() const { return m_monotonic.nsecsElapsed() / 1000; }

    const Options m_options;
    std::unique_ptr<LiveStream> m_stream;
    std::unique_ptr<Sound> m_sound; // after the stream, so that it goes first
    QElapsedTimer m_monotonic;
    LevelMeter m_meter;
    QString m_saidTrouble;
    QVideoFrame m_lastFrame;
    QImage m_lastImage;
};
