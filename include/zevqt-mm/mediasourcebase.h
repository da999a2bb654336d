#ifndef ZEVQTMM_MEDIASOURCEBASE_H
#define ZEVQTMM_MEDIASOURCEBASE_H

#include <zevqt-mm/zevqtmmglobal.h>

#include <QtCore/QObject>
#include <QtCore/QSize>
#include <QtCore/QString>
#include <QtCore/QVector>
#include <QtGui/QImage>
#include <QtMultimedia/QAudioBuffer>
#include <QtMultimedia/QVideoFrame>

/*!
 * A live source of video frames, images and audio, whatever its kind.
 *
 * Usage: a request goes in through one of the request slots, the result comes out through the signals, so the
 * two can cross threads through queued connections. A source that has nothing to give still answers, with an
 * invalid frame, a null image or an empty buffer; receivers check isValid() and isNull(). Which requests a
 * source serves is its own rule.
 *
 * Threads: a request slot does its work, and emits, in the thread that runs it. The request slots and the
 * status operations may run in another thread than the one that configures the source. The GL hooks belong to
 * the thread of the renderer's context.
 *
 * Ownership: held by QSharedPointer<MediaSourceBase>; the timeline and the provider share it.
 *
 * Units: every timestamp is wall-clock microseconds since the Unix epoch; 0 asks for the newest.
 *
 * Errors: nothing throws, except the GL hooks of sources that need a usable EGL display.
 */
class ZEVQTMM_EXPORT MediaSourceBase : public QObject
{
    Q_OBJECT

public:
    /*! What a source tells about its video. A source that cannot tell returns a default-constructed record.
     */
    struct VideoStatus
    {
        QVector<long long> timestamps; //!< of the frames held, ascending: the last one is the newest
        long long frameInterval = 0;   //!< nominal, microseconds; 1000 and less is not usable
        long long jitter = 0; //!< how far the actual intervals stray from frameInterval, microseconds
    };

    /*! Opens nothing. */
    explicit MediaSourceBase(QObject *parent = nullptr);
    ~MediaSourceBase() override;

    /*! Connects to the source; true when it is usable. */
    virtual bool open() = 0;
    /*! What it was made for: a store, a device. */
    virtual QString name() const = 0;
    /*!
     * Only frames whose timestamp minus the current wall-clock time lies within [min, max] milliseconds are
     * delivered; (0, 0) delivers all.
     */
    virtual void setRealtimeSyncRange(int min, int max) = 0;
    /*! At this moment. */
    virtual VideoStatus getVideoStatus() = 0;
    /*! QSize(-1, -1) while unknown. */
    virtual QSize getVideoFrameSize() = 0;
    /*! Wished rate: numerator / denominator frames a second. */
    virtual void setVideoFrameRate(unsigned int numerator, unsigned int denominator) = 0;
    /*! The same in frames a second. */
    virtual void setVideoFrameRate(double fps) = 0;
    /*! What imageReady() is to deliver; the flags are those of VideoFrameConverter. */
    virtual void setRequestedImageFormat(const QSize &size, QImage::Format format, bool keepAspectRatio,
                                         bool pointSampling) = 0;

    /*! For the renderer, with its context current, before it takes over frames. May throw std::runtime_error.
     */
    virtual void doBeforeGLSynchronizing();
    /*! For the renderer, with its context current, after it has taken over frames. */
    virtual void doAfterGLSynchronizing();
    /*! For the renderer, before its context goes away. May throw std::runtime_error. */
    virtual void releaseGLResources();

Q_SIGNALS:
    /*! The answer to a request for video; invalid when there is none. */
    void videoReady(QVideoFrame frame);
    /*! The answer to a request for an image; null when there is none. */
    void imageReady(QImage image);
    /*! The answer to a request for audio; empty when there is none. */
    void audioReady(QAudioBuffer buffer);

public Q_SLOTS:
    /*! Asks for the frame nearest to `ts`. */
    virtual void requestVideo(long long ts = 0) = 0;
    /*! Asks for the image of that frame. */
    virtual void requestImage(long long ts = 0) = 0;
    /*! Asks for a block of audio from `ts` on. */
    virtual void requestAudio(long long ts = 0) = 0;
    /*! Asks for a frame and the audio from its timestamp on. */
    virtual void requestVideoAudio(long long ts = 0) = 0;
    /*! Asks for an image and the audio from its frame's timestamp on. */
    virtual void requestImageAudio(long long ts = 0) = 0;
};

#endif
