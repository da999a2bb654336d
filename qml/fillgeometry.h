#pragma once

#include <QRectF>
#include <QSizeF>

namespace zevqml {

enum class FillMode { Stretch, PreserveAspectFit, PreserveAspectCrop };

/* Where a picture goes, and which part of it. */
struct FillGeometry
{
    QRectF target; /* in the item's coordinates */
    QRectF source; /* of the picture; its whole width and height are 1 */
};

/* Empty rectangles when the item or the picture has no area. */
FillGeometry fillGeometry(FillMode mode, const QSizeF &item, const QSizeF &video);

} // namespace zevqml
