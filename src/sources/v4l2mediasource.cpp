#include <zevqt-mm/v4l2mediasource.h>

#include "video/dmavideobuffer.h"

#include <zevmm/v4l2/dmaeglcapture.h>
#include <zevqt-mm/eglimagecontext.h>

#include <stdexcept>
#include <string>

namespace {

const auto relaxed = std::memory_order_relaxed;

zevgl::EGLImageContext usableContext(const char *hook)
{
    const auto context = zevgl::EGLImageContext::currentContext();
    if (!context.display || !context.eglCreateImageKHR || !context.eglDestroyImageKHR || !context.eglGetError)
        throw std::runtime_error(std::string("V4L2MediaSource::") + hook +
                                 ": display or functions eglCreateImageKHR, eglDestroyImageKHR are empty");
    return context;
}

} // namespace

V4L2MediaSource::V4L2MediaSource(const QString &device, QObject *parent)
    : MediaSourceBase(parent),
      capture(std::make_unique<zevmm::v4l2::DmaEglCapture>(device.toUtf8().toStdString())),
      glResourcesReady(false)
{
    capture->setup();
}

V4L2MediaSource::~V4L2MediaSource() = default;

bool V4L2MediaSource::open()
{
    return glResourcesReady.load(relaxed);
}

QString V4L2MediaSource::name() const
{
    return QString::fromStdString(capture->device());
}

void V4L2MediaSource::setRealtimeSyncRange(int, int) {}

MediaSourceBase::VideoStatus V4L2MediaSource::getVideoStatus()
{
    return {};
}

QSize V4L2MediaSource::getVideoFrameSize()
{
    const auto format = capture->format();
    return QSize(static_cast<int>(format.width), static_cast<int>(format.height));
}

void V4L2MediaSource::setVideoFrameRate(unsigned int, unsigned int) {}

void V4L2MediaSource::setVideoFrameRate(double) {}

void V4L2MediaSource::setRequestedImageFormat(const QSize &, QImage::Format, bool, bool) {}

void V4L2MediaSource::doBeforeGLSynchronizing()
{
    if (glResourcesReady.load(relaxed))
        return;
    const auto context = usableContext("doBeforeGLSynchronizing");
    capture->createEGLImages(context.display, context.eglCreateImageKHR);
    capture->start();
    glResourcesReady.store(true, relaxed);
}

void V4L2MediaSource::releaseGLResources()
{
    capture->stop();
    glResourcesReady.store(false, relaxed);
    const auto context = usableContext("releaseGLResources");
    capture->destroyEGLImages(context.display, context.eglDestroyImageKHR);
}

const zevmm::v4l2::CaptureBase &V4L2MediaSource::getCapture() const
{
    return *capture;
}

void V4L2MediaSource::requestVideo(long long) {}

void V4L2MediaSource::requestImage(long long) {}

void V4L2MediaSource::requestAudio(long long) {}

void V4L2MediaSource::requestVideoAudio(long long)
{
    // On purpose no return here: a frame that comes between the two calls is not left lying.
    if (!capture->isFrameReady()) {
        Q_EMIT videoReady(QVideoFrame());
        Q_EMIT audioReady(QAudioBuffer());
    }
    capture->readFrame([this](void *image) {
        Q_EMIT videoReady(
            QVideoFrame(new DmaVideoBuffer(image), getVideoFrameSize(), QVideoFrame::Format_NV12));
        Q_EMIT audioReady(QAudioBuffer());
    });
}

void V4L2MediaSource::requestImageAudio(long long) {}
