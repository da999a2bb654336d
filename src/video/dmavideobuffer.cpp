#include "video/dmavideobuffer.h"

#include <QtCore/QVariant>

DmaVideoBuffer::DmaVideoBuffer(void *image) : QAbstractVideoBuffer(EGLImageHandle), eglImage(image) {}

QAbstractVideoBuffer::MapMode DmaVideoBuffer::mapMode() const
{
    return NotMapped;
}

uchar *DmaVideoBuffer::map(MapMode, int *, int *)
{
    return nullptr;
}

void DmaVideoBuffer::unmap() {}

QVariant DmaVideoBuffer::handle() const
{
    return QVariant::fromValue(eglImage);
}
