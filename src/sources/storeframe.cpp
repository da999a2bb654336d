#include <zevqt-mm/storeframe.h>

#include "sources/shmemvideobuffer.h"
#include "video/storeframerecord.h"

#include <zevqt-mm/shmemdmavideobuffer.h>

#include <QtCore/QVariant>
#include <QtMultimedia/QVideoFrame>

StoreFrame StoreFrame::of(const QVideoFrame &frame)
{
    // Only the shared-memory reader sets both entries, and the handle type tells which class it put there.
    const QVariant buffer = frame.metaData(QStringLiteral("buffer"));
    if (!frame.isValid() || buffer.userType() != QMetaType::VoidStar || buffer.value<void *>() == nullptr ||
        frame.metaData(QStringLiteral("shmname")).userType() != QMetaType::QByteArray)
        return {};
    void *address = buffer.value<void *>();
    switch (frame.handleType()) {
    case QAbstractVideoBuffer::NoHandle: {
        const auto *cpuBuffer = static_cast<ShmemVideoBuffer *>(address);
        if (!cpuBuffer->lockedFrame())
            return {};
        StoreFrame result = storeFrameFromRecord(*cpuBuffer->lockedFrame());
        result.noDmabufReason = cpuBuffer->noDmabufReason();
        return result;
    }
    case QAbstractVideoBuffer::EGLImageHandle:
        return static_cast<ShmemDmaVideoBuffer *>(address)->storeFrame();
    default:
        return {};
    }
}
