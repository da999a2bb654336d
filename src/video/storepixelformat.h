#ifndef ZEVQTMM_STOREPIXELFORMAT_H
#define ZEVQTMM_STOREPIXELFORMAT_H

#include <QtMultimedia/QVideoFrame>

#include <shm/shm_types.h>

/*!
 * Qt's name for a store's pixel format. The two planar orders are one to Qt: a frame record lists its planes
 * as Y, U, V whatever their order in memory.
 */
inline QVideoFrame::PixelFormat storePixelFormatToQt(SHM_PIXEL_FORMAT pixelFormat)
{
    switch (pixelFormat) {
    case SHM_PIXEL_FORMAT_YUV420P:
    case SHM_PIXEL_FORMAT_YVU420P:
        return QVideoFrame::Format_YUV420P;
    case SHM_PIXEL_FORMAT_NV12:
        return QVideoFrame::Format_NV12;
    default:
        return QVideoFrame::Format_Invalid;
    }
}

#endif
