#pragma once

#include "audiodevices.h"
#include "livesource.h" // complete, for the property

#include <QObject>
#include <QPointer>
#include <QTimer>

#include <memory>

class LiveStream;
class Sound;
QT_BEGIN_NAMESPACE
class QJSEngine;
class QQmlEngine;
QT_END_NAMESPACE

/*
 * What is heard, for QML: the one player of a process, which plays the sound of one source.
 *
 *     Component.onCompleted: LiveAudio.source = camera
 *
 * The sound starts when the source has some and there is a device, and again by itself whenever it stopped or
 * ran dry; the source's picture follows it. It plays also while the picture is hidden, as long as the source
 * runs.
 *
 * `state`:
 *   Silent    there is no source, it does not run, or it cannot have sound
 *   Waiting   for the source's sound, or for a device: errorString says which is missing
 *   Playing   the device takes sound
 *
 * All of it, and the source, may be changed from handlers of its own signals too; what is playing follows a
 * moment later then. It must not be destroyed from them, but deleteLater() may be called; the source may be.
 *
 * Threads: the GUI thread. Start and stop may wait for the sound server. Units: delay in milliseconds, volume
 * linear from 0 to 1, playedTime in milliseconds since the epoch, on the clock of the source's timestamps.
 * Ownership: borrows the source; takes AudioPlayer::getInstance() for itself while there is one.
 * Errors: none that end anything; errorString is one line for a person, and the attempts go on.
 */
class LiveAudio : public QObject
{
    Q_OBJECT
    Q_PROPERTY(LiveSource *source READ source WRITE setSource NOTIFY sourceChanged)
    Q_PROPERTY(QAbstractItemModel *devices READ devices CONSTANT)
    Q_PROPERTY(QString device READ device WRITE setDevice NOTIFY deviceChanged)
    Q_PROPERTY(double volume READ volume WRITE setVolume NOTIFY volumeChanged)
    Q_PROPERTY(bool muted READ muted WRITE setMuted NOTIFY mutedChanged)
    Q_PROPERTY(int delay READ delay WRITE setDelay NOTIFY delayChanged)
    Q_PROPERTY(State state READ state NOTIFY stateChanged)
    Q_PROPERTY(QString errorString READ errorString NOTIFY stateChanged)
    Q_PROPERTY(double playedTime READ playedTime NOTIFY playedTimeChanged)

public:
    enum State { Silent, Waiting, Playing };
    Q_ENUM(State)

    explicit LiveAudio(QObject *parent = nullptr);
    ~LiveAudio() override;

    /* The process's; made by the first caller, gone with the application object. For the QML engine. */
    static QObject *instance(QQmlEngine *engine, QJSEngine *scriptEngine);

    LiveSource *source() const { return m_source.data(); }
    void setSource(LiveSource *source);
    QAbstractItemModel *devices() { return &m_devices; }
    /* "default", or a name of `devices`. One that is not there is waited for. */
    QString device() const { return m_device; }
    void setDevice(const QString &name);
    double volume() const { return m_volume; }
    void setVolume(double volume);
    bool muted() const { return m_isMuted; }
    void setMuted(bool muted);
    /* How far behind the newest sound it is read; a device's buffer of usually 250 ms has to fit. */
    int delay() const { return m_delayMs; }
    void setDelay(int milliseconds);
    State state() const;
    QString errorString() const;
    /* Timestamp of what is being heard, told once a picture's time; 0: not playing, or not known. */
    double playedTime() const;

    /* Devices come and go; the list is asked for anew. */
    Q_INVOKABLE void refreshDevices() { m_devices.refresh(); }

Q_SIGNALS:
    void sourceChanged();
    void deviceChanged();
    void volumeChanged();
    void mutedChanged();
    void delayChanged();
    void stateChanged();
    void playedTimeChanged();

private:
    void rebuild();
    void followState();
    void dropSound();

    QPointer<LiveSource> m_source;
    QTimer m_later; // for a rebuild() that came at the wrong moment
    bool m_isRebuilding = false;
    AudioDevices m_devices;
    QString m_device = QStringLiteral("default");
    double m_volume = 1.0;
    bool m_isMuted = false;
    int m_delayMs;
    qint64 m_playedUs = 0;          // what was heard at the last report
    QPointer<LiveStream> m_stream;  // of the source, while it plays
    std::unique_ptr<Sound> m_sound; // null: nothing to play
};
