#pragma once

#include <QMatrix4x4>
#include <QSize>

namespace zevqml {

/*
 * How the samples of one frame become colors.
 *
 * `Unknown` is what a source that states nothing says; resolve() turns it into the usual assumption, so that
 * everything that draws or converts assumes the same.
 */
struct YuvColors
{
    enum class Matrix { Unknown, Bt601, Bt709, Bt2020 };
    enum class Range { Unknown, Full, Limited };

    Matrix matrix = Matrix::Unknown;
    Range range = Range::Unknown;

    bool operator==(const YuvColors &other) const { return matrix == other.matrix && range == other.range; }
    bool operator!=(const YuvColors &other) const { return !(*this == other); }
};

/*
 * The same with nothing left unknown: an unknown range is full, which is what stores carry unless their
 * publisher was told otherwise; an unknown matrix is BT.709 above 576 lines and BT.601 up to there.
 */
YuvColors resolve(YuvColors colors, const QSize &videoSize);

/*
 * The matrix that takes (Y, U, V, 1), each 0 to 1 as an 8-bit texture delivers it, to (R, G, B, 1). Nothing
 * is clamped. Unknown values are taken as in resolve() for a picture of more than 576 lines.
 */
QMatrix4x4 yuvToRgb(YuvColors colors);

} // namespace zevqml
