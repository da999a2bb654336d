#include "frameimage.h"

#include "frameplanes.h"

#include <algorithm>
#include <cmath>

namespace zevqml {

namespace {

/* yuvToRgb() for 8-bit samples with 16 fraction bits. */
class FixedMatrix
{
public:
    explicit FixedMatrix(YuvColors colors)
    {
        const QMatrix4x4 m = yuvToRgb(colors);
        for (int row = 0; row < 3; ++row) {
            for (int column = 0; column < 3; ++column)
                m_factor[row][column] = int(std::lround(double(m(row, column)) * 65536.0));
            // Half a step is added once, so that the shift below rounds.
            m_offset[row] = int(std::lround(double(m(row, 3)) * 255.0 * 65536.0)) + 32768;
        }
    }

    struct Chroma
    {
        int red, green, blue;
    };
    Chroma chroma(int u, int v) const
    {
        return {m_offset[0] + m_factor[0][1] * u + m_factor[0][2] * v,
                m_offset[1] + m_factor[1][1] * u + m_factor[1][2] * v,
                m_offset[2] + m_factor[2][1] * u + m_factor[2][2] * v};
    }
    QRgb rgb(int y, const Chroma &c) const
    {
        const int luma = m_factor[0][0] * y; // the same in all three rows
        return 0xff000000u | clamped(luma + c.red) << 16 | clamped(luma + c.green) << 8 |
               clamped(luma + c.blue);
    }

private:
    static quint32 clamped(int value) { return quint32(std::clamp(value >> 16, 0, 255)); }

    int m_factor[3][3];
    int m_offset[3];
};

QImage planarToImage(const QVideoFrame &frame, YuvColors colors)
{
    const FramePlanes planes(frame);
    if (planes.isNull())
        return {};
    const int width = frame.width();
    QImage image(frame.size(), QImage::Format_RGB32);
    if (image.isNull())
        return {};

    const FixedMatrix matrix(resolve(colors, frame.size()));
    const int step = planes.interleaved() ? 2 : 1;
    for (int row = 0; row < frame.height(); ++row) {
        const uchar *y = planes.row(0, row);
        const uchar *u = planes.row(1, row / 2);
        const uchar *v = planes.interleaved() ? u + 1 : planes.row(2, row / 2);
        auto *out = reinterpret_cast<QRgb *>(image.scanLine(row));
        for (int x = 0; x + 1 < width; x += 2, u += step, v += step) {
            const FixedMatrix::Chroma chroma = matrix.chroma(*u, *v);
            out[x] = matrix.rgb(y[x], chroma);
            out[x + 1] = matrix.rgb(y[x + 1], chroma);
        }
        if (width % 2 != 0)
            out[width - 1] = matrix.rgb(y[width - 1], matrix.chroma(*u, *v));
    }
    return image;
}

} // namespace

QImage frameToImage(const QVideoFrame &frame, YuvColors colors)
{
    if (!frame.isValid())
        return {};
    if (isPlanarYuv(frame.pixelFormat()))
        return planarToImage(frame, colors);

    const QImage::Format format = QVideoFrame::imageFormatFromPixelFormat(frame.pixelFormat());
    QVideoFrame mapped(frame);
    if (format == QImage::Format_Invalid || !mapped.map(QAbstractVideoBuffer::ReadOnly))
        return {};
    QImage image =
        QImage(mapped.bits(), mapped.width(), mapped.height(), mapped.bytesPerLine(), format).copy();
    mapped.unmap();
    return image;
}

} // namespace zevqml
