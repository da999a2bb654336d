#ifndef ZEVQTMM_MEDIAPROVIDER_H
#define ZEVQTMM_MEDIAPROVIDER_H

#include <zevqt-mm/mediasourcebase.h>

#include <QtCore/QDeadlineTimer>
#include <QtCore/QMetaType>
#include <QtCore/QSharedPointer>
#include <QtCore/QUrl>

#include <chrono>

class VideoTimeline;

Q_DECLARE_METATYPE(std::chrono::seconds)

/*!
 * Live video and audio for an application, from one URL each.
 *
 * Usage: construct with the URLs ("shm:///cam0" for a store, "v4l:///dev/video0" for a capture device, an
 * empty URL for none; the same URL twice for a store's own audio), call enableVideoFrames() or
 * enableImageFrames(), connect the signals, setRunning(true). When the source stops to deliver, videoIdle()
 * is emitted, and after a delay the no-signal picture takes the place of the frames; when it returns, so do
 * they.
 *
 * Threads: bound to the thread it lives in. Sources work in the tick thread; their results arrive here
 * through queued connections. With external ticks (getTimeline()->externalTick()) the caller's thread does
 * the work.
 *
 * Ownership: owns its timeline, shares its sources. Frames and images handed out stay valid after the
 * provider has gone; frames keep memory of the store locked, so let go of them promptly.
 *
 * Units: rates in frames a second; timestamps of frames and audio in wall-clock microseconds.
 *
 * Capture devices: their frames carry EGL images, so only enableVideoFrames() delivers any, and only once a
 * renderer has called the source's GL hooks (V4L2MediaSource; LiveVideo does). A camera answers requests for
 * video and audio in one, which is what the ticks ask for without an audio URL. With one they ask for video
 * alone, and the camera stays silent: sound beside a camera comes from a MediaSource of its own.
 *
 * Errors: the constructor throws std::logic_error for a URL without a scheme or with an unknown one, and
 * passes on what a capture device's source throws (std::system_error with device and remedy). After that only
 * empty values: a store that is not there yet is looked for once a second.
 */
class ZEVQTMM_EXPORT MediaProvider : public QObject
{
    Q_OBJECT
    Q_PROPERTY(bool running READ running WRITE setRunning NOTIFY runningChanged)

public:
    /*! URL schemes by name; none stands for an empty URL. */
    enum Schemes { shm, v4l, none };

    /*! Does not run yet. With `useExternalTicks` there is no tick thread. */
    MediaProvider(const QUrl &video, const QUrl &audio, bool useExternalTicks = false,
                  QObject *parent = nullptr);
    ~MediaProvider() override;

    /*! It ticks. */
    bool running() const;
    /*! Starts or stops the ticks; either tells of an empty audio buffer first. */
    void setRunning(bool on);

    /*! Ticks a second, and the rate wished from the source. */
    void setFrameRate(double fps);
    /*! Size of the images delivered by imageReady(). Only for a provider with a video source. */
    void setRequestedFrameSize(const QSize &size);
    /*! QSize(-1, -1) while unknown. */
    QSize getVideoFrameSize() const;

    /*! Ticks ask for images: imageReady(). Removes every connection from the timeline's signals. */
    void enableImageFrames();
    /*! Ticks ask for frames: videoReady(). Removes every connection from the timeline's signals. */
    void enableVideoFrames();

    /*! The picture that stands in for a source that has been silent for `delay` (5 s at first). */
    void setNoSignalImage(const QString &path, std::chrono::seconds delay);
    /*! Loads that picture again, for images in the requested size. */
    void updateNoSignalImage();

    /*! What the source has answered, as this provider's signals tell it. */
    void emitImageFrame(const QImage &image);
    /*! The same of a frame. */
    void emitVideoFrame(const QVideoFrame &frame);

    /*! Null without one. For the GL hooks. */
    QSharedPointer<MediaSourceBase> getVideoSource() const;
    /*! Null without one; the video source itself when both URLs name the same store. For the player. */
    QSharedPointer<MediaSourceBase> getAudioSource() const;
    /*! Null without a video source; owned by the provider. For external ticks and adjustReadPosition(). */
    VideoTimeline *getTimeline() const;

Q_SIGNALS:
    /*! running() is another one. */
    void runningChanged(bool running);
    /*! The picture to show now; the no-signal picture, or a null image without one, when that is over. */
    void imageReady(QImage image);
    /*! The same; an invalid frame where there is no no-signal picture. */
    void videoReady(const QVideoFrame &frame);
    /*! Sound that goes with the picture, 100 ms of it; an empty buffer when there is none, and at each start
     * and stop. */
    void audioReady(QAudioBuffer buffer);
    /*! Declared for those who connect to it; setNoSignalImage() does not tell. */
    void noSignalImagePathChanged(QString path);
    /*! Likewise. */
    void noSignalDelayChanged(std::chrono::seconds delay);
    /*! A tick has found no frame, and it is not yet no signal. */
    void videoIdle();

private:
    void rearmIdleDeadline();
    void connectTicks(void (MediaSourceBase::*combined)(long long),
                      void (MediaSourceBase::*videoOnly)(long long));

    bool running_;
    QSharedPointer<MediaSourceBase> videoSource;
    QSharedPointer<MediaSourceBase> audioSource;
    VideoTimeline *timeline;
    QImage noSignalImage;
    QVideoFrame noSignalFrame;
    QString noSignalImagePath;
    QDeadlineTimer idleDeadline;
    std::chrono::seconds noSignalDelay;
    QSize requestedFrameSize;
    bool separateAudio;
};

#endif
