#pragma once

#include "camera.h"
#include "framestatistics.h"
#include "levelmeter.h"
#include "offsetstatistics.h"
#include "options.h"
#include "picturefollower.h"
#include "ratefollower.h"
#include "readpointwatch.h"
#include "sound.h"

#include <QElapsedTimer>
#include <QImage>
#include <QObject>
#include <QVariantList>
#include <QVideoFrame>

#include <atomic>
#include <memory>
#include <optional>

class ImageRequests;
class MediaProvider;
QT_BEGIN_NAMESPACE
class QAudioBuffer;
QT_END_NAMESPACE

/* Everything that the report and the overlay tell. */
struct ViewerFigures
{
    FrameStatistics::Figures frames;
    quint64 invalid = 0;            // requests answered without a picture, since the first one
    quint64 invalidBeforeFirst = 0; // the same, before it
    quint64 withheld = 0;           // image requests left out because images were waiting
    quint64 audioBuffers = 0;
    double tickRate = 0.0;
    QSize size;
    QString pixelFormat; // of the last picture; "none" without one
    QString framePath;
    QString framePathReason;
    Sound::Figures sound;
    quint64 offsets = 0; // pictures that the next two are about
    double offsetP50Ms = 0.0;
    double offsetP95Ms = 0.0;
    qint64 historyShortUs = 0;
    std::optional<zevmm::v4l2::CaptureStatistics> camera; // of a camera
    QString cameraTrouble;
};

/*
 * What the viewer does with and without a window: runs a provider, counts what it hands out, keeps the ticks
 * at the source's rate and remembers the last picture.
 *
 * Usage: construct, show provider() with a LiveVideo (or not), start(), stop() at the end; then figures() and
 * snapshot().
 *
 * Threads: the GUI thread (or the main thread of a program without one).
 * Ownership: owns the provider. Keeps the last frame of the source, and with it one lock.
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

    MediaProvider *provider() const { return m_provider.get(); }
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
    enum class State { Waiting, Live, Idle, NoSignal };

    void onVideo(const QVideoFrame &frame);
    void onImage(const QImage &image);
    void onPicture(long long timestamp);
    void onIdle();
    void onAudio(const QAudioBuffer &buffer);
    void onHeard(qint64 now);
    void onInterruption(State state);
    void setTickRate(double rate);
    void updateTickRate(long long sourceIntervalUs);
    QSharedPointer<MediaSourceBase> soundSource();
    void refreshStatistics();
    void checkSource();
    void checkReadPoint();
    QString stateText() const;
    QStringList soundText(const ViewerFigures &figures) const;
    qint64 monotonicUs() const { return m_monotonic.nsecsElapsed() / 1000; }

    const Options m_options;
    const double m_screenRate;
    QSharedPointer<MediaSourceBase> m_besideCamera; // where its sound comes from, asked in the tick thread
    std::unique_ptr<MediaProvider> m_provider;
    std::unique_ptr<Camera> m_camera;               // null: a store
    std::unique_ptr<ImageRequests> m_imageRequests; // after the provider, so that it goes first
    std::unique_ptr<Sound> m_sound;                 // likewise
    QElapsedTimer m_monotonic;
    LevelMeter m_meter;
    PictureFollower m_follower;
    qint64 m_followed = 0;  // when the timeline was told last, monotonic
    qint64 m_followDue = 0; // when to look again
    OffsetStatistics m_offsets;
    FrameStatistics m_statistics;
    RateFollower m_rate;
    ReadPointWatch m_readPoint;
    int m_checks = 0;
    QString m_missing; // what is waited for
    State m_state = State::Waiting;
    double m_tickRate = 25.0; // the provider's own to start with
    long long m_rateChecked = 0;
    qint64 m_lastPicture = 0; // when it was handed out, monotonic
    QSize m_imageSize;
    QVideoFrame m_lastFrame;
    QImage m_lastImage;
    QString m_framePath;
    QString m_framePathReason;
    quint64 m_audioBuffers = 0;

    // Written by the tick thread.
    std::atomic<bool> m_seen{false};
    std::atomic<quint64> m_answered{0};
    std::atomic<quint64> m_emptyBefore{0};
    std::atomic<quint64> m_emptyAfter{0};
};
