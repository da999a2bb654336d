#ifndef ZEVQTMM_DMAVIDEOBUFFER_H
#define ZEVQTMM_DMAVIDEOBUFFER_H

#include <QtMultimedia/QAbstractVideoBuffer>

/*!
 * An EGL image that somebody else owns, as a frame's buffer.
 *
 * Ownership: borrows the image; its owner keeps it until the last frame that carries it has gone.
 *
 * Threads: reentrant. Errors: cannot be mapped.
 */
class DmaVideoBuffer : public QAbstractVideoBuffer
{
public:
    explicit DmaVideoBuffer(void *eglImage);

    MapMode mapMode() const override;
    uchar *map(MapMode mode, int *numBytes, int *bytesPerLine) override;
    void unmap() override;
    QVariant handle() const override;

private:
    Q_DISABLE_COPY(DmaVideoBuffer)

    void *eglImage;
};

#endif
