#pragma once

#include "framestatistics.h"
#include "options.h"
#include "ratefollower.h"

#include <QImage>
#include <QObject>
#include <QVideoFrame>

#include <atomic>
#include <memory>

class ImageRequests;
class MediaProvider;

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
 * Errors: the constructor throws std::logic_error for URLs that MediaProvider does not take.
 */
class Viewer : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QObject *provider READ providerObject CONSTANT)
    Q_PROPERTY(QString statisticsText READ statisticsText NOTIFY statisticsChanged)

public:
    /* `screenRate`: pictures a second that can be shown, 0 for no limit. */
    Viewer(const Options &options, double screenRate, QObject *parent = nullptr);
    ~Viewer() override;

    MediaProvider *provider() const { return m_provider.get(); }
    QObject *providerObject() const;

    void start();
    void stop();

    /* Size in pixels that images are wanted in; frames are not concerned. Without a call: the source's. */
    void setImageSize(const QSize &size);
    /* How the window draws, for the figures. */
    void setFramePath(const QString &path, const QString &reason);

    ViewerFigures figures() const;
    QString statisticsText() const;

    /* The last picture of the source (never the no-signal picture), in its own size. Null without one. */
    QImage snapshot() const;

signals:
    void statisticsChanged();

private:
    enum class State { Waiting, Live, Idle, NoSignal };

    void onVideo(const QVideoFrame &frame);
    void onImage(const QImage &image);
    void onPicture(long long timestamp);
    void onInterruption(State state);
    void setTickRate(double rate);
    void refreshStatistics();
    QString stateText() const;

    const Options m_options;
    std::unique_ptr<MediaProvider> m_provider;
    std::unique_ptr<ImageRequests> m_imageRequests; // after the provider, so that it goes first
    FrameStatistics m_statistics;
    RateFollower m_rate;
    State m_state = State::Waiting;
    double m_tickRate = 25.0; // the provider's own to start with
    long long m_rateChecked = 0;
    QSize m_imageSize;
    QVideoFrame m_lastFrame;
    QImage m_lastImage;
    QString m_framePath;
    QString m_framePathReason;
    quint64 m_audioBuffers = 0;

    // Written by the tick thread.
    std::atomic<bool> m_seen{false};
    std::atomic<quint64> m_emptyBefore{0};
    std::atomic<quint64> m_emptyAfter{0};
};
