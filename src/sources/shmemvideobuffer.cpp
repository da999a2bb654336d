#include "sources/shmemvideobuffer.h"

#include "video/storepixelformat.h"

#include <utility>

ShmemVideoBuffer::ShmemVideoBuffer(
    SHM_PIXEL_FORMAT format,
    std::unique_ptr<shm_video_frame_t, std::function<void(shm_video_frame_t *)>> &taken)
    : QAbstractPlanarVideoBuffer(NoHandle), mapMode_(NotMapped), frame(std::move(taken)), pixelFormat(format)
{
    taken.get_deleter() =
        nullptr; // a moved-from function may keep its target, and with it the store's handle
}

ShmemVideoBuffer::ShmemVideoBuffer()
    : QAbstractPlanarVideoBuffer(NoHandle), mapMode_(NotMapped), pixelFormat(SHM_PIXEL_FORMAT_NONE)
{}

ShmemVideoBuffer::~ShmemVideoBuffer() = default;

QAbstractVideoBuffer::MapMode ShmemVideoBuffer::mapMode() const
{
    return mapMode_;
}

int ShmemVideoBuffer::map(MapMode mode, int *numBytes, int bytesPerLine[4], uchar *data[4])
{
    if (mapMode_ != NotMapped || !frame || !frame->planes[0])
        return 0;
    // Of a planar frame with one plane QVideoFrame works out where the others would lie, and divides by the
    // rows that one of them has: in this one, by none.
    if (!frame->planes[1] && frame->height < 2 && format() == QVideoFrame::Format_YUV420P)
        return 0;
    mapMode_ = mode;

    int planes = 0;
    do {
        data[planes] = frame->planes[planes];
        bytesPerLine[planes] = frame->strides[planes];
        ++planes;
    } while (planes < 4 && frame->planes[planes]);

    if (numBytes) {
        const auto height = static_cast<quint32>(frame->height);
        const auto plane = [&](int index) { return height * static_cast<quint32>(frame->strides[index]); };
        *numBytes = static_cast<int>(plane(0) + plane(1) / 2 + plane(2) / 2);
    }
    return planes;
}

void ShmemVideoBuffer::unmap()
{
    mapMode_ = NotMapped;
}

QVideoFrame::PixelFormat ShmemVideoBuffer::format() const
{
    return storePixelFormatToQt(pixelFormat);
}
