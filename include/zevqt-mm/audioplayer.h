#ifndef ZEVQTMM_AUDIOPLAYER_H
#define ZEVQTMM_AUDIOPLAYER_H

#include <zevqt-mm/audioreader.h>
#include <zevqt-mm/mediasource.h>

#include <zev-utils/clockadjustmentdetector.h>

#include <QtCore/QElapsedTimer>
#include <QtCore/QObject>
#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtMultimedia/QAudio>
#include <QtMultimedia/QAudioDeviceInfo>

class QAudioOutput;

/*!
 * Plays a source's audio on a device; there is one player in a process.
 *
 * Usage: select a device ("default", or a name that the system lists), start() with a source and the video's
 * frame rate. While it plays, audioPlayed() reports once per frame interval which source timestamp is being
 * heard, for the video to follow. The player stops by itself, and says so with playerStopped(), when the wall
 * clock is set by more than a second, when the source is destroyed, and when the device fails; whoever wants
 * to go on then calls start() again. teardown() before the application object goes away.
 *
 *     AudioPlayer *player = AudioPlayer::getInstance();
 *     player->setDevice("default");
 *     player->start(source, 25.0);
 *
 * Threads: bound to the thread of the first getInstance(), which needs an event loop. The source may live in
 * another thread; one that dies there waits until the player has let go, so that thread must not be waited
 * for in the player's thread meanwhile.
 *
 * Ownership: getInstance() creates, teardown() deletes, neither from a slot that the player's signals call.
 * The source is borrowed from start() until it stops.
 *
 * Units: timestamps and delays in wall-clock microseconds; rates in Hz; volume linear, 0 to 1.
 *
 * Errors: false from setDevice() and start(), with a message in the category "zevqt.audio", also for a device
 * that the sound server has no longer, and while that server does not answer; start() without a device or
 * source says nothing. failure() tells which of these it was. A sound server that was not there when Qt first
 * looked for devices is found by setDevice() and deviceNames(), which have to be asked again then, some
 * seconds later; so ask one of them before anything else in the process looks.
 *
 * Cost: start() opens the device, for which it may wait for a sound server that is slow; a server that does
 * not answer at all takes start(), setDevice() or deviceNames() a second, once until it does. deviceNames()
 * asks all systems for all their devices, which takes about a tenth of a second; the rest does not wait.
 */
class ZEVQTMM_EXPORT AudioPlayer : public QObject
{
    Q_OBJECT
    Q_PROPERTY(double volume READ volume WRITE setVolume NOTIFY volumeChanged)
    Q_PROPERTY(bool muted READ muted WRITE setMuted NOTIFY mutedChanged)
    Q_PROPERTY(qint64 delay READ delay WRITE setDelay)
    Q_PROPERTY(qint64 maxDelay READ maxDelay WRITE setMaxDelay)
    Q_PROPERTY(int fixedSampleRate READ fixedSampleRate WRITE setFixedSampleRate)

public:
    /*! Why the last start() failed, or setDevice() when it is ServerSilent. */
    enum Failure {
        NoFailure,     // it did not
        NotAsked,      // no device is selected, there was no source, or they changed while it began
        DeviceGone,    // the sound server has it no longer
        SourceSilent,  // audio was required and the source has none
        FormatRefused, // what the source has cannot be converted to what the device takes
        DeviceFailed,  // it could not be opened
        ServerSilent,  // the sound server takes connections and does not answer
    };

    /*! The one player, made by the first call. */
    static AudioPlayer *getInstance();
    /*! Deletes it, and stops it before; nothing without one. Not while isEmitting(): also what a timer calls
     * may come out of the events that a backend handles as start() opens it. */
    static void teardown();

    /*!
     * The names that setDevice() takes, each once, without "default". Needs no player and makes none. In the
     * application object's thread; a server that came later is found from there only.
     */
    static QStringList deviceNames();

    /*! True once a device is selected. */
    bool enabled() const;
    /*! Null while none is selected. */
    const QAudioDeviceInfo &selectedDevice() const { return device; }
    /*! True while the device takes audio. */
    bool isActive() const;
    /*! True while its signals are being told, and while it starts: it must not be destroyed then. */
    bool isEmitting() const { return isOutputEmitting || isStarting; }
    /*! True while nothing plays; not in the moment after the buffer ran empty, when it is not active. */
    bool isStopped() const;
    /*! Linear, 0 to 1. */
    double volume() const;
    /*! Plays on, and is not heard. */
    bool muted() const;
    /*! How far behind the source's newest audio reading starts. */
    qint64 delay() const;
    /*! How far behind reading may fall before it jumps forward to `delay` again. */
    qint64 maxDelay() const;
    /*! The rate that the device is asked for; -1: the source's. */
    int fixedSampleRate() const;
    /*! Of the device; 0 when not active. */
    int sampleRate() const;
    /*! Of the last start(). */
    Failure failure() const { return failure_; }
    /*! What the device was asked for in the last start(). */
    QAudioFormat playedFormat() const { return playedFormat_; }
    /*! What `fps` of start() is, for what is playing too. */
    void setReportRate(double fps);
    /*! Source timestamp being heard; 0 when not active or nothing was read yet. Call it at a steady rate. */
    qint64 getPlayedTime();
    /*!
     * Source timestamp of the next sample to read; 0 when there is none.
     */
    qint64 getReadPosition() const;
    /*!
     * Source timestamp of the next sample that the device takes out of the output's buffer; 0 when there is
     * none. It is heard after what the device has taken before. Unlike the played time it knows of silence
     * and of jumps, once what was read before them has left the buffer.
     *
     * A sound server asks for sound a period at a time. One that plays at another rate than the output's has
     * taken up to a period more than that, mostly nearly all of it, and does not tell: three quarters are
     * added for it.
     */
    qint64 getDevicePosition() const;
    /*!
     * What the last read left in the source, which may come late without a gap; microseconds, 0 when it was
     * short, -1 when that is not known.
     */
    qint64 getReserve() const;
    /*! Where sound was missing, in all that was played so far. */
    const AudioReader::Gaps &getGaps() const { return reader.getGaps(); }

    /*!
     * From now on also writes what the device gets to a file, raw, in the device's format. A file that cannot
     * be opened ends that; an empty path does nothing. Each time it stops, the file also has what was read
     * ahead for the device, up to 16384 bytes, and goes on with what is read first after the next start.
     */
    void setWaveformFile(const QString &path);

Q_SIGNALS:
    /*! Once a frame interval while it plays: the source timestamp being heard; 0: not known. */
    void audioPlayed(qint64 timestamp);
    /*! It has stopped, whoever wanted that. */
    void playerStopped();
    /*! muted() is another one. */
    void mutedChanged();
    /*! Only for moves of more than 0.05. */
    void volumeChanged();

public Q_SLOTS:
    /*! Stops. An empty name keeps the device; false for a name that no device has, and for any while the
     * sound server does not answer at the first look; the device is kept. */
    bool setDevice(QString name);
    /*!
     * Plays `source` from now on. With `fps`, audioPlayed() comes at that rate. A source without audio plays
     * as silence until it has some, unless `requireAudio` is set. False, and nothing is done, when it is
     * called while another start() is being made: from a slot of playerStopped(), or out of the events that a
     * backend handles as it closes; and for the source whose end stops the player.
     */
    bool start(MediaSource *source, double fps = 0, bool requireAudio = false);
    /*! The device stays selected. */
    void stop();
    /*! Of what plays, too. Linear, 0 to 1. */
    void setVolume(double volume);
    /*! Of what plays, too. */
    void setMuted(bool mute);
    /*! As delay(), in microseconds; from the next time on that the position is found anew. */
    void setDelay(qint64 delay);
    /*! As maxDelay(), in microseconds; from the next read on. */
    void setMaxDelay(qint64 maxDelay);
    /*! As fixedSampleRate(); from the next start() on. */
    void setFixedSampleRate(int fixedSampleRate);

private Q_SLOTS:
    void onFrameTimer();
    void playerStateChanged(QAudio::State state);
    void activeSourceDestroyed();

private:
    AudioPlayer();
    ~AudioPlayer() override;

    bool isDeviceReady(const QString &name);
    bool negotiateFormat(MediaSource *source, bool requireAudio, QAudioFormat *format) const;
    bool begin(MediaSource *source, double fps, bool requireAudio, QAudio::Error *error);
    void prepareOutput(const QAudioFormat &format);
    void discardOutput();
    void selectDevice(const QAudioDeviceInfo &selected);

    static AudioPlayer *instance;

    QAudioOutput *output;
    QAudioDeviceInfo device;
    AudioReader reader;
    double volume_;
    bool muted_;
    md::zev::utils::ClockAdjustmentDetector clockDetector;
    qint64 timeBase; // played time at which smoothing began; 0: not begun
    QElapsedTimer smoothTimer;
    double correction;
    int fixedSampleRate_;
    bool isOutputEmitting;
    bool isStarting;
    const QObject *leaving; // the source that is being destroyed
    bool isRateConverted;   // by the device's system
    Failure failure_;
    QAudioFormat playedFormat_;
};

#endif
