#pragma once

#include <zevqt-mm/livestatistics.h>

#include <QDeadlineTimer>
#include <QObject>
#include <QQmlParserStatus>
#include <QSet>
#include <QSharedPointer>
#include <QSize>
#include <QTimer>
#include <QUrl>
#include <QWeakPointer>

#include <memory>

class LiveStream;
class MediaProvider;
class MediaSourceBase;

/*
 * Live video and audio by URL, for QML: a MediaProvider that can be told another URL at any time, that says
 * what is wrong instead of throwing, and that works only while it is seen.
 *
 *     LiveSource { id: camera; video: "shm:///demo" }
 *     LiveVideo { anchors.fill: parent; source: camera }
 *
 * Nothing is asked of a source, no frame locked and no tick made, while it is not running or no LiveVideo
 * shows it: items that are not visible, that are in no window, or in a window that is hidden or minimized, do
 * not count. A camera is closed then, and opened when it is shown again; one that is still about to be
 * closed, with a window's next synchronization, is waited for. A store's connection stays, its statistics
 * too. A source of sound alone has nothing to be seen and runs when it is told to.
 *
 * `state`:
 *   NoSource   there is no URL, or one that cannot be used: errorString says why
 *   Waiting    no picture has come since it began to run and to be shown; sound alone stays at this
 *   Live       the newest picture is the source's
 *   Idle       the source has nothing new; its last picture stays
 *   NoSignal   the source has had nothing new for noSignalDelay
 *
 * Threads: the GUI thread. Units: noSignalDelay in seconds, frameRate in pictures a second (0: as many as the
 * source makes, up to the screen's rate). Changes of URLs, `running` and who shows it take effect together
 * when the event loop is reached.
 * Ownership: owns its provider(), which is another one after every change of a URL; providerChanged() tells.
 * Errors: none are thrown. errorString is one line that names the thing and the remedy, empty while all is
 * well; a source that is not there yet is looked for again by itself.
 */
class LiveSource : public QObject, public QQmlParserStatus
{
    Q_OBJECT
    Q_INTERFACES(QQmlParserStatus)
    Q_PROPERTY(QUrl video READ video WRITE setVideo NOTIFY videoChanged)
    Q_PROPERTY(QUrl audio READ audio WRITE setAudio NOTIFY audioChanged)
    Q_PROPERTY(bool running READ running WRITE setRunning NOTIFY runningChanged)
    Q_PROPERTY(double frameRate READ frameRate WRITE setFrameRate NOTIFY frameRateChanged)
    Q_PROPERTY(QUrl noSignalImage READ noSignalImage WRITE setNoSignalImage NOTIFY noSignalImageChanged)
    Q_PROPERTY(int noSignalDelay READ noSignalDelay WRITE setNoSignalDelay NOTIFY noSignalDelayChanged)
    Q_PROPERTY(State state READ state NOTIFY stateChanged)
    Q_PROPERTY(QString errorString READ errorString NOTIFY errorStringChanged)
    Q_PROPERTY(QSize videoSize READ videoSize NOTIFY videoSizeChanged)
    Q_PROPERTY(LiveStatistics statistics READ statistics NOTIFY statisticsChanged)

public:
    enum State { NoSource, Waiting, Live, Idle, NoSignal };
    Q_ENUM(State)

    explicit LiveSource(QObject *parent = nullptr);
    ~LiveSource() override;

    QUrl video() const { return m_video; }
    void setVideo(const QUrl &url);
    QUrl audio() const { return m_audio; }
    void setAudio(const QUrl &url);
    bool running() const { return m_isRunning; }
    void setRunning(bool on);
    double frameRate() const { return m_frameRate; }
    void setFrameRate(double rate);
    QUrl noSignalImage() const { return m_noSignalImage; }
    void setNoSignalImage(const QUrl &url);
    int noSignalDelay() const { return m_noSignalDelay; }
    void setNoSignalDelay(int seconds);

    State state() const { return m_state; }
    QString errorString() const { return m_errorString; }
    /* Pixels of the source's last picture; 0 x 0 without one. */
    QSize videoSize() const { return m_videoSize; }
    /* At this moment; the signal comes twice a second while it works, or LiveAudio plays its sound. */
    LiveStatistics statistics() const;

    /* Null while there is none. */
    MediaProvider *provider() const;
    LiveStream *stream() const { return m_stream.get(); }
    /* For those who show it: `item` does, or does not any more. */
    void setShown(const QObject *item, bool isShown);
    void setFramePath(const QString &path, const QString &reason);

    void classBegin() override { m_isComplete = false; }
    void componentComplete() override;

Q_SIGNALS:
    void videoChanged();
    void audioChanged();
    void runningChanged();
    void frameRateChanged();
    void noSignalImageChanged();
    void noSignalDelayChanged();
    void stateChanged();
    void errorStringChanged();
    void videoSizeChanged();
    void statisticsChanged();
    void providerChanged();
    /* Nothing is asked of the source any more; who shows it lets go of what he has. */
    void stopped();

private:
    bool isWanted() const { return m_isRunning && (m_video.isEmpty() || !m_shownBy.isEmpty()); }
    void scheduleUpdate();
    void update();
    void dropStream();
    void makeStream();
    bool isCameraLeaving() const;
    void startWaiting();
    void applyNoSignal();
    void follow();
    void setState(State state);
    void setErrorString(const QString &text);

    QUrl m_video;
    QUrl m_audio;
    bool m_isRunning = true;
    double m_frameRate = 0.0;
    QUrl m_noSignalImage;
    int m_noSignalDelay = 5;
    State m_state = NoSource;
    QString m_errorString;
    QSize m_videoSize{0, 0};

    bool m_isComplete = true; // only the QML engine says otherwise
    bool m_isUpdatePending = false;
    bool m_isStreamOld = false; // a URL is another one since it was made
    QString m_refusal;          // why there is no stream
    bool m_isRefusalFinal = false;
    QTimer m_retry;
    // The camera of the last stream while somebody has it still, and how long that is waited for.
    QWeakPointer<MediaSourceBase> m_leaving;
    QDeadlineTimer m_leavingLimit;
    QSet<const QObject *> m_shownBy;
    std::unique_ptr<LiveStream> m_stream;
};
