#ifndef ZEVQTMM_V4L2MEDIASOURCE_H
#define ZEVQTMM_V4L2MEDIASOURCE_H

#include <zevqt-mm/mediasourcebase.h>

#include <atomic>
#include <memory>

namespace zevmm {
namespace v4l2 {
class CaptureBase;
class DmaEglCapture;
} // namespace v4l2
} // namespace zevmm

/*!
 * The source for a video4linux2 capture device: its newest frame as an EGL image, without a copy.
 *
 * Usage: construct with the device's path. Whoever draws calls doBeforeGLSynchronizing() on the render thread
 * before it synchronizes (the first call makes the images and starts the camera, later ones return at once)
 * and releaseGLResources() before the context goes; then it may start again. Frames come for
 * requestVideoAudio() only, and their timestamp is not looked at. A request that finds no frame is answered
 * with an invalid one and, should a frame arrive at that moment, with that one as well. A camera that is
 * pulled out or stalls is waited for.
 *
 * There is no audio (an empty buffer comes with every answer), there are no images, no history and no
 * settings: the other requests and the setters do nothing, getVideoStatus() is empty. Sound beside a camera
 * comes from a MediaSource of its own.
 *
 * Threads: the GL hooks on the render thread with its context current; requests in any one thread, which
 * emits; the rest anywhere.
 *
 * Ownership: owns the capture, and that the images. A frame only borrows its image: the camera writes into it
 * again when two newer ones have been delivered, and releaseGLResources() destroys it, so frames are to be
 * drawn when they come and dropped at releaseGLResources(). The destructor does not call that: it needs the
 * context.
 *
 * Units: pixels. Frames carry no timestamp, are NV12, and cannot be mapped.
 *
 * Errors: the constructor passes on what the capture library throws, std::system_error with the device and a
 * remedy in its text. The GL hooks throw std::runtime_error when there is no usable EGL display, and pass on
 * what the capture library throws.
 *
 * Cost: the constructor opens the device and may wait for its driver; a request never does.
 */
class ZEVQTMM_EXPORT V4L2MediaSource : public MediaSourceBase
{
    Q_OBJECT

public:
    /*! Opens the device at this path and sets it up; nothing streams yet. */
    explicit V4L2MediaSource(const QString &device, QObject *parent = nullptr);
    ~V4L2MediaSource() override;

    /*! Opens nothing: true between the first doBeforeGLSynchronizing() and releaseGLResources(). */
    bool open() override;
    /*! The device's path. */
    QString name() const override;
    void setRealtimeSyncRange(int min, int max) override;
    VideoStatus getVideoStatus() override;
    QSize getVideoFrameSize() override;
    void setVideoFrameRate(unsigned int numerator, unsigned int denominator) override;
    void setVideoFrameRate(double fps) override;
    void setRequestedImageFormat(const QSize &size, QImage::Format format, bool keepAspectRatio,
                                 bool pointSampling) override;

    void doBeforeGLSynchronizing() override;
    void releaseGLResources() override;

    /*! For the format, the counters and the troubles of the camera; lives as long as the source. */
    const zevmm::v4l2::CaptureBase &getCapture() const;

public Q_SLOTS:
    void requestVideo(long long ts = 0) override;
    void requestImage(long long ts = 0) override;
    void requestAudio(long long ts = 0) override;
    void requestVideoAudio(long long ts = 0) override;
    void requestImageAudio(long long ts = 0) override;

private:
    std::unique_ptr<zevmm::v4l2::DmaEglCapture> capture;
    std::atomic<bool> glResourcesReady; // the render thread's to write
};

#endif
