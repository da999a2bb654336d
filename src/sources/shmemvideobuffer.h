#ifndef ZEVQTMM_SHMEMVIDEOBUFFER_H
#define ZEVQTMM_SHMEMVIDEOBUFFER_H

#include <QtCore/QString>
#include <QtMultimedia/QAbstractVideoBuffer>
#include <QtMultimedia/QVideoFrame>

#include <shm/shm_reader.h>

#include <functional>
#include <memory>

/*!
 * A locked store frame whose planes are mapped where they lie.
 *
 * Threads: whichever thread maps it; may be destroyed in any thread.
 *
 * Ownership: takes the locked frame; it stays locked until the buffer is destroyed, mapped or not.
 *
 * Errors: map() returns 0 planes when the buffer is mapped already or holds no frame, or one of a single row
 * and plane that should have three, which Qt cannot map. Writing is not refused: it lands in the store, if
 * the store's memory lets it.
 *
 * Cost: mapping hands out addresses; nothing is copied.
 */
class ShmemVideoBuffer : public QAbstractPlanarVideoBuffer
{
public:
    ShmemVideoBuffer(SHM_PIXEL_FORMAT format,
                     std::unique_ptr<shm_video_frame_t, std::function<void(shm_video_frame_t *)>> &frame);
    ~ShmemVideoBuffer() override;

    MapMode mapMode() const override;
    using QAbstractPlanarVideoBuffer::map;
    /*! `numBytes` is what a 4:2:0 frame of these strides takes, for every format. */
    int map(MapMode mode, int *numBytes, int bytesPerLine[4], uchar *data[4]) override;
    void unmap() override;

    QVideoFrame::PixelFormat format() const;
    /*! Null when the buffer holds none. */
    const shm_video_frame_t *lockedFrame() const { return frame.get(); }

    /*! Why the frame is not on the DMA-buf path although that was asked for. */
    void setNoDmabufReason(const QString &reason) { noDmabufReason_ = reason; }
    QString noDmabufReason() const { return noDmabufReason_; }

protected:
    /*!
     * For a buffer that is used again: shows another frame, or none, as if new. The frame shown before is not
     * given back, nor is this one: whose it is sees to that.
     */
    void setFrame(SHM_PIXEL_FORMAT format, shm_video_frame_t *other)
    {
        static_cast<void>(frame.release());
        frame.reset(other);
        mapMode_ = NotMapped;
        pixelFormat = format;
        if (!noDmabufReason_.isEmpty())
            noDmabufReason_.clear();
    }
    ShmemVideoBuffer();

private:
    Q_DISABLE_COPY(ShmemVideoBuffer)

    MapMode mapMode_;
    std::unique_ptr<shm_video_frame_t, std::function<void(shm_video_frame_t *)>> frame;
    SHM_PIXEL_FORMAT pixelFormat;
    QString noDmabufReason_;
};

#endif
