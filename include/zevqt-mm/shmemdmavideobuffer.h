#ifndef ZEVQTMM_SHMEMDMAVIDEOBUFFER_H
#define ZEVQTMM_SHMEMDMAVIDEOBUFFER_H

#include <zevqt-mm/storeframe.h>
#include <zevqt-mm/zevqtmmglobal.h>

#include <QtMultimedia/QAbstractVideoBuffer>
#include <QtMultimedia/QVideoFrame>

#include <shm/shm_types.h>

#include <functional>
#include <memory>

/*! A locked frame: libshm's, of shm/shm_reader.h. */
typedef struct shm_video_frame shm_video_frame_t;

/*!
 * A locked store frame whose memory is also a DMA-buf: the renderer makes an EGL image of it, without a copy.
 *
 * Usage: StoreFrame::of(frame).dmaBuffer gives the buffer of a frame; on the render thread call
 * createHandle(), then texture from QVideoFrame::handle(). When createHandle() fails, show StoreFrame's
 * planes instead.
 *
 * Threads: createHandle() and destroyHandle() need the renderer's context current. A buffer that has its
 * image must lose its last QVideoFrame on the thread where that context is current; one without may go
 * anywhere.
 *
 * Ownership: takes the locked frame; borrows the descriptor, which belongs to the store's handle. Destruction
 * destroys the image first and unlocks the frame after it, so that the GPU never sees memory given back.
 *
 * Errors: createHandle() returns false, silently without a usable context, with a critical message when EGL
 * refuses. Cannot be mapped.
 *
 * Cost: the first createHandle() imports the memory, later ones are free.
 */
class ZEVQTMM_EXPORT ShmemDmaVideoBuffer : public QAbstractVideoBuffer
{
public:
    /*! Takes `frame`, which is locked, and borrows the descriptor. */
    ShmemDmaVideoBuffer(SHM_PIXEL_FORMAT pixelFormat, int dmabufFd,
                        std::unique_ptr<shm_video_frame_t, std::function<void(shm_video_frame_t *)>> &frame);
    ~ShmemDmaVideoBuffer() override;

    /*! NotMapped. */
    MapMode mapMode() const override;
    /*! Null. */
    uchar *map(MapMode mode, int *numBytes, int *bytesPerLine) override;
    /*! Nothing. */
    void unmap() override;
    /*! The EGL image, null before createHandle(). */
    QVariant handle() const override;

    /*! Of the frame, as QVideoFrame has it. */
    QVideoFrame::PixelFormat format() const;
    /*! Makes the image, once. */
    bool createHandle();
    /*! Destroys it, if there is one. */
    void destroyHandle();

    /*! Planes, color and memory identity of the locked frame; dmaBuffer is this. */
    StoreFrame storeFrame() const;
    /*! Borrowed; for a renderer that imports the memory itself and caches its image. */
    int dmabufDescriptor() const;
    /*! Byte offset of a plane in the DMA-buf; 0 for planes that are not there. */
    qint64 planeOffset(int plane) const;

private:
    Q_DISABLE_COPY(ShmemDmaVideoBuffer)

    std::unique_ptr<shm_video_frame_t, std::function<void(shm_video_frame_t *)>> frame;
    void *eglImage;
    int dmabufFd;
    SHM_PIXEL_FORMAT pixelFormat;
};

#endif
