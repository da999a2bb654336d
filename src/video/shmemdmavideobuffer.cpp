#include <zevqt-mm/shmemdmavideobuffer.h>

#include "video/storeframerecord.h"
#include "video/storepixelformat.h"

#include <zevqt-mm/eglimagecontext.h>

#include <QtCore/QDebug>
#include <QtCore/QVariant>

#include <utility>

ShmemDmaVideoBuffer::ShmemDmaVideoBuffer(
    SHM_PIXEL_FORMAT storeFormat, int fd,
    std::unique_ptr<shm_video_frame_t, std::function<void(shm_video_frame_t *)>> &taken)
    : QAbstractVideoBuffer(EGLImageHandle), frame(std::move(taken)), eglImage(nullptr), dmabufFd(fd),
      pixelFormat(storeFormat)
{
    taken.get_deleter() =
        nullptr; // a moved-from function may keep its target, and with it the store's handle
}

ShmemDmaVideoBuffer::~ShmemDmaVideoBuffer()
{
    // The image before the frame: once unlocked, the store may write into the memory that the GPU still
    // reads.
    destroyHandle();
    frame.reset();
}

QAbstractVideoBuffer::MapMode ShmemDmaVideoBuffer::mapMode() const
{
    return NotMapped;
}

uchar *ShmemDmaVideoBuffer::map(MapMode, int *, int *)
{
    return nullptr;
}

void ShmemDmaVideoBuffer::unmap() {}

QVariant ShmemDmaVideoBuffer::handle() const
{
    return QVariant::fromValue(eglImage);
}

QVideoFrame::PixelFormat ShmemDmaVideoBuffer::format() const
{
    return storePixelFormatToQt(pixelFormat);
}

bool ShmemDmaVideoBuffer::createHandle()
{
    if (eglImage)
        return true;
    auto context = zevgl::EGLImageContext::currentContext();
    if (!context.display || !context.eglCreateImageKHR || !context.eglDestroyImageKHR || !context.eglGetError)
        return false;
    eglImage = context.createImage(frame, dmabufFd, format());
    if (eglImage)
        return true;
    qCritical() << "eglCreateImageKHR failed:" << zevgl::eglErrorString(context.eglGetError());
    return false;
}

void ShmemDmaVideoBuffer::destroyHandle()
{
    if (!eglImage)
        return;
    auto context = zevgl::EGLImageContext::currentContext();
    if (context.destroyImage(eglImage))
        eglImage = nullptr;
    else
        qCritical() << "eglDestroyImageKHR failed:" << zevgl::eglErrorString(context.eglGetError());
}

StoreFrame ShmemDmaVideoBuffer::storeFrame() const
{
    StoreFrame result;
    if (frame) {
        result = storeFrameFromRecord(*frame);
        result.dmaBuffer = const_cast<ShmemDmaVideoBuffer *>(this);
    }
    return result;
}

int ShmemDmaVideoBuffer::dmabufDescriptor() const
{
    return dmabufFd;
}

qint64 ShmemDmaVideoBuffer::planeOffset(int plane) const
{
    return frame && plane >= 0 && plane < 4 ? frame->plane_offsets[plane] : 0;
}
