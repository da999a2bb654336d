#pragma once

#include <zev-utils/clockadjustmentdetector.h>
#include <zevqt-mm/audioplaybackage.h>
#include <zevqt-mm/audioplaybackwatch.h>

#include <QAudioDeviceInfo>
#include <QElapsedTimer>
#include <QObject>
#include <QSharedPointer>
#include <QStringList>

class AudioPlayer;
class MediaSource;
class MediaSourceBase;

/*
 * Keeps a source's sound playing: starts the player when the source has audio and there is a device, and
 * again whenever it stopped, went into nothing or ran dry; tells why, once.
 *
 * Usage: construct, start(), stop() at the end. heard() comes for every report of the player.
 *
 * Threads: the thread of the application object. Start and stop of the sound may wait for the sound server.
 * Ownership: shares the source, which is the one that the pictures come from where both are in one store: the
 * player reads in this thread while the tick thread asks for frames, and the source keeps the two apart.
 * Takes the process's player for itself and destroys it with itself.
 * Units: microseconds.
 * Errors: none that end anything; problem() is one line for a person, and the attempts go on.
 */
class Sound : public QObject
{
    Q_OBJECT
    Q_PROPERTY(double volume READ volume WRITE setVolume NOTIFY changed)
    Q_PROPERTY(bool muted READ muted WRITE setMuted NOTIFY changed)
    Q_PROPERTY(QString text READ text NOTIFY changed)

public:
    /* Enough for the device's buffer of usually 250 ms. */
    static constexpr qint64 usualDelayUs = 400000;

    /* What problem() says that a person can do, in the terms of what he sits in front of. */
    struct Remedies
    {
        QString noDevices;    // there is no device at all
        QString noSuchDevice; // none of that name
        QString otherFormat;  // the device does not take what there is
    };

    struct Wishes
    {
        QString device = QStringLiteral("default"); // or a name, or "none"
        double volume = 1.0;
        bool isMuted = false;
        qint64 delayUs = usualDelayUs; // how far behind the newest audio it is read
        Remedies remedies;
    };

    struct Figures
    {
        bool isWanted = false; // not the device "none", and the source is one that can have sound
        bool isPlaying = false;
        QString device; // that was played on last; empty: none yet
        int rate = 0;   // its sample rate
        qint64 delayUs = -1;
        int silenceEpisodes = 0;
        qint64 silenceUs = 0;
        int jumps = 0;
        int starts = 0;
        QString problem; // the last one
    };

    Sound(const QSharedPointer<MediaSourceBase> &source, const Wishes &wishes, QObject *parent = nullptr);
    ~Sound() override;

    /* `fps`: reports a second. */
    void start(double fps);
    void stop();
    /* Also of what is playing. */
    void setReportRate(double fps);

    /*
     * Starts or stops, which handles events, or tells something, like its player: it must not be destroyed
     * by whoever is called then.
     */
    bool isBusy() const;

    double volume() const { return m_volume; }
    void setVolume(double volume);
    bool muted() const { return m_isMuted; }
    void setMuted(bool muted);
    /* One short line for the window. */
    QString text() const;

    /* Of the sound that is being heard. */
    const AudioPlaybackAge &heardAge() const { return m_age; }
    /*
     * Timestamp of what was heard when heard() was emitted last: by its age where that is known, else as the
     * player reports it, which is not exact then; 0: not known.
     */
    qint64 heardUs() const { return m_heardUs; }
    Figures figures() const;

    /* AudioPlayer's. */
    static QStringList deviceNames();
    /* Without a sound server, ALSA and Qt write pages about it; one line of ours is enough. */
    static void silenceLibraries();

signals:
    void started();
    /* `now`: wall clock. */
    void heard(qint64 now);
    void changed();
    void problem(const QString &text);

private:
    void check();
    qint64 whatIsHeard(qint64 now, qint64 reported) const;
    bool tryStart();
    bool selectDevice();
    void onStopped();
    void sayWhyStopped();
    void sayWhyNotStarted();
    void sayDeviceGone();
    void sayServerSilent();
    QString whyStartedAgain() const;
    bool isDeviceThere() const;
    bool followDevice();
    void complain(const QString &text);
    qint64 newestAudio() const;

    const QSharedPointer<MediaSourceBase> m_holder;
    MediaSource *const m_source; // null: not one that has sound
    const QString m_device;
    const Remedies m_remedies;
    AudioPlayer *m_player = nullptr;
    AudioPlaybackWatch m_watch;
    AudioPlaybackAge m_age;
    md::zev::utils::ClockAdjustmentDetector m_clock;
    QElapsedTimer m_monotonic;
    double m_fps = 25.0;
    double m_volume = 1.0;
    bool m_isMuted = false;
    bool m_isStopping = false; // by this class
    int m_telling = 0;         // so many of the functions that emit are at work
    bool m_isWanted = false;
    bool m_hasStarted = false;     // what playing there is, is ours
    QAudioDeviceInfo m_deviceInfo; // of what was played on last
    bool m_isDeviceGone = false;   // and told
    bool m_isStopUntold = false;   // it has stopped, and why is to be told
    qint64 m_stoppedAt = 0;        // ms, monotonic
    qint64 m_stopShiftMs = 0;      // of the clock, until then
    QString m_playedOn;
    QString m_said;
    int m_rate = 0;
    int m_starts = 0;
    qint64 m_delay = -1;
    qint64 m_heardUs = 0;
};
