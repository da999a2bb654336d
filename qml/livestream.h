#pragma once

#include "framestatistics.h"
#include "offsetstatistics.h"
#include "picturefollower.h"
#include "ratefollower.h"
#include "readpointwatch.h"
#include "sourcecheck.h"

#include <zevqt-mm/livestatistics.h>

#include <QElapsedTimer>
#include <QImage>
#include <QObject>
#include <QSharedPointer>
#include <QTimer>
#include <QUrl>
#include <QVideoFrame>

#include <atomic>
#include <memory>

class Camera;
class ImageRequests;
class MediaProvider;
class MediaSourceBase;
class Sound;
QT_BEGIN_NAMESPACE
class QAudioBuffer;
QT_END_NAMESPACE

/*
 * Runs one provider as an application wants it: ticks at the source's rate, the read point where the source
 * is, the picture with its sound, why there is none, and all that is to be counted.
 *
 * Usage: construct, connect, setRunning(true). Somebody shows provider(). Where soundSource() is played,
 * setSound(): the picture follows it.
 *
 * Threads: bound to its own, an application's; statistics() there too.
 * Ownership: owns the provider. Keeps no frame.
 * Errors: the constructor throws std::logic_error for URLs that MediaProvider does not take, and what the
 * capture library throws for a device that cannot be used. After that trouble() says why nothing comes.
 * Cost: per picture, one look at the source's status; once a second, while there is no picture or the sound
 * that the audio URL names does not go on, a look at the source from outside (whyNoPicture(), whyNoSound()).
 */
class LiveStream : public QObject
{
    Q_OBJECT

public:
    enum class State { Waiting, Live, Idle, NoSignal };

    struct Wishes
    {
        QUrl video;
        QUrl audio;
        double frameRate = 0.0;  // ticks a second; 0: the source's own, up to the screen's
        double screenRate = 0.0; // pictures a second that can be shown; 0: no limit
        bool images = false;     // instead of frames
        SourceRemedies remedies; // in trouble() and soundTrouble()
    };

    explicit LiveStream(const Wishes &wishes, QObject *parent = nullptr);
    ~LiveStream() override;

    MediaProvider *provider() const { return m_provider.get(); }
    /* Null: a store. */
    const Camera *camera() const { return m_camera.get(); }
    /* Where there is sound: of the audio URL, else of where the picture comes from. Never null. */
    QSharedPointer<MediaSourceBase> soundSource() const { return m_soundSource; }

    bool isRunning() const { return m_isRunning; }
    /* It asks for sound, too, with every tick. */
    bool isTicking() const { return m_isRunning && m_source; }
    /* While it does not run nothing is asked of the source; then it is as if nothing had come yet. */
    void setRunning(bool on);
    /* 0: the source's own. */
    void setFrameRate(double rate);
    double tickRate() const { return m_tickRate; }
    /* What images are wanted in; empty: the source's size. */
    void setImageSize(const QSize &size);

    /* Borrowed, what plays soundSource(); null: nobody does. */
    void setSound(const Sound *sound);
    /* How much later than the picture the sound is for want of history, microseconds. */
    qint64 historyShortfall() const { return m_follower.shortfall(); }

    State state() const { return m_state; }
    /* One line with the thing and the remedy while nothing comes; empty when it does, or when there is
     * nothing to say. */
    QString trouble() const { return m_trouble; }
    /* The same of the sound that the audio URL names; empty without that. */
    QString soundTrouble() const { return m_soundTrouble; }
    /* How the picture is drawn, from whoever draws it. */
    void setFramePath(const QString &path, const QString &reason);

    /* Pixels of the source's last picture; 0 x 0 without one. */
    QSize size() const { return m_size; }
    /* At this moment. Changes nothing and waits for nobody. */
    LiveStatistics statistics() const;
    /* Image requests left out because images were waiting. */
    quint64 withheldImages() const;
    quint64 audioBuffers() const { return m_audioBuffers; }

signals:
    void stateChanged();
    void troubleChanged();
    void soundTroubleChanged();
    void tickRateChanged();
    /* Twice a second while it runs, or somebody plays its sound. */
    void looked();
    /* One for every request, invalid ones too. */
    void audioReady(const QAudioBuffer &buffer);

private:
    void onVideo(const QVideoFrame &frame);
    void onImage(const QImage &image);
    void onPicture(long long timestamp);
    void onHeard(qint64 now);
    void onIdle();
    void onAudio(const QAudioBuffer &buffer);
    void onInterruption(State state);
    void setState(State state);
    void setTrouble(const QString &text);
    void setSoundTrouble(const QString &text);
    void setTickRate(double rate);
    void updateTickRate(long long sourceIntervalUs);
    void connectSound();
    void countAnswers();
    void look();
    void checkSource();
    void checkSound();
    void updateLooks();
    void checkReadPoint();
    qint64 monotonicUs() const { return m_monotonic.nsecsElapsed() / 1000; }

    const Wishes m_wishes;
    double m_wishedRate;
    QSharedPointer<MediaSourceBase> m_soundSource; // before the provider, so that its URL is refused first
    std::unique_ptr<MediaProvider> m_provider;
    const QSharedPointer<MediaSourceBase> m_source; // the picture's; null for sound alone
    std::unique_ptr<Camera> m_camera;
    std::unique_ptr<ImageRequests> m_imageRequests; // after the provider, so that it goes first
    const Sound *m_sound = nullptr;
    QTimer m_looks;
    QElapsedTimer m_monotonic;
    PictureFollower m_follower;
    qint64 m_followed = 0;  // when the timeline was told last, monotonic
    qint64 m_followDue = 0; // when to look again
    OffsetStatistics m_offsets;
    FrameStatistics m_statistics;
    RateFollower m_rate;
    ReadPointWatch m_readPoint;
    int m_checks = 0;
    int m_soundChecks = 0;
    qint64 m_newestSound = 0; // as it was at the last look; 0: none
    QString m_trouble;
    QString m_soundTrouble;
    State m_state = State::Waiting;
    bool m_isRunning = false;
    bool m_isPaused = false;  // it ran: what is still on its way is late
    double m_tickRate = 25.0; // the provider's own to start with
    long long m_rateChecked = 0;
    qint64 m_lastPicture = 0; // when it was handed out, monotonic
    qint64 m_jitterUs = 0;
    QSize m_imageSize;
    QSize m_size{0, 0};
    QString m_pixelFormat;
    QString m_ownPath; // without anybody who draws
    QString m_framePath;
    QString m_framePathReason;
    quint64 m_audioBuffers = 0;

    // Written by the tick thread.
    std::atomic<bool> m_seen{false};
    std::atomic<quint64> m_answered{0};
    std::atomic<quint64> m_emptyBefore{0};
    std::atomic<quint64> m_emptyAfter{0};
};
