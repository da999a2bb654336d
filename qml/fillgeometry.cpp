#include "fillgeometry.h"

namespace zevqml {

FillGeometry fillGeometry(FillMode mode, const QSizeF &item, const QSizeF &video)
{
    if (item.isEmpty() || video.isEmpty())
        return {};
    FillGeometry result{QRectF(QPointF(), item), QRectF(0, 0, 1, 1)};
    switch (mode) {
    case FillMode::Stretch:
        break;
    case FillMode::PreserveAspectFit: {
        const QSizeF fitted = video.scaled(item, Qt::KeepAspectRatio);
        result.target = QRectF(
            QPointF((item.width() - fitted.width()) / 2.0, (item.height() - fitted.height()) / 2.0), fitted);
        break;
    }
    case FillMode::PreserveAspectCrop: {
        // The item's shape laid over the picture: the part that is seen.
        const QSizeF seen = item.scaled(video, Qt::KeepAspectRatio);
        const qreal width = seen.width() / video.width();
        const qreal height = seen.height() / video.height();
        result.source = QRectF((1.0 - width) / 2.0, (1.0 - height) / 2.0, width, height);
        break;
    }
    }
    return result;
}

} // namespace zevqml
