#include <zevshm-pattern/canvas.h>

#include <algorithm>
#include <cmath>
#include <cstring>

namespace zevshm {

namespace {

uint8_t toByte(double value)
{
    return static_cast<uint8_t>(std::clamp(std::lround(value), 0l, 255l));
}

uint8_t mix(uint8_t under, uint8_t over, int alpha)
{
    return static_cast<uint8_t>((under * (255 - alpha) + over * alpha + 127) / 255);
}

} // namespace

Matrix matrixForHeight(int height)
{
    return height > 576 ? Matrix::Bt709 : Matrix::Bt601;
}

Yuv toYuv(Rgb rgb, Matrix matrix)
{
    const double kr = matrix == Matrix::Bt601 ? 0.299 : 0.2126;
    const double kb = matrix == Matrix::Bt601 ? 0.114 : 0.0722;
    const double y = kr * rgb.r + (1 - kr - kb) * rgb.g + kb * rgb.b;
    return {toByte(y), toByte(128 + (rgb.b - y) / (2 * (1 - kb))),
            toByte(128 + (rgb.r - y) / (2 * (1 - kr)))};
}

void Canvas::setChroma(int column, int row, uint8_t u, uint8_t v, int alpha)
{
    if (m_picture.interleavedChroma) {
        uint8_t *pair =
            m_picture.planes[1] + static_cast<ptrdiff_t>(row) * m_picture.strides[1] + ptrdiff_t{2} * column;
        pair[0] = mix(pair[0], u, alpha);
        pair[1] = mix(pair[1], v, alpha);
        return;
    }
    uint8_t *pu = m_picture.planes[1] + static_cast<ptrdiff_t>(row) * m_picture.strides[1] + column;
    uint8_t *pv = m_picture.planes[2] + static_cast<ptrdiff_t>(row) * m_picture.strides[2] + column;
    *pu = mix(*pu, u, alpha);
    *pv = mix(*pv, v, alpha);
}

void Canvas::fillRect(int x, int y, int width, int height, Yuv color)
{
    const int x0 = std::max(x, 0);
    const int y0 = std::max(y, 0);
    const int x1 = std::min(x + width, m_picture.width);
    const int y1 = std::min(y + height, m_picture.height);
    if (x0 >= x1 || y0 >= y1)
        return;
    for (int row = y0; row < y1; ++row)
        std::memset(m_picture.planes[0] + static_cast<ptrdiff_t>(row) * m_picture.strides[0] + x0, color.y,
                    static_cast<size_t>(x1 - x0));
    const int columns = (x1 + 1) / 2 - x0 / 2;
    for (int row = y0 / 2; row < (y1 + 1) / 2; ++row) {
        if (m_picture.interleavedChroma) {
            uint8_t *pair = m_picture.planes[1] + static_cast<ptrdiff_t>(row) * m_picture.strides[1] +
                            x0 / 2 * ptrdiff_t{2};
            for (int i = 0; i < columns; ++i) {
                pair[0] = color.u;
                pair[1] = color.v;
                pair += 2;
            }
        } else {
            std::memset(m_picture.planes[1] + static_cast<ptrdiff_t>(row) * m_picture.strides[1] + x0 / 2,
                        color.u, static_cast<size_t>(columns));
            std::memset(m_picture.planes[2] + static_cast<ptrdiff_t>(row) * m_picture.strides[2] + x0 / 2,
                        color.v, static_cast<size_t>(columns));
        }
    }
}

void Canvas::fillRamp(int x, int y, int width, int height)
{
    for (int i = 0; i < width; ++i) {
        const int level = width > 1 ? (i * 255 + (width - 1) / 2) / (width - 1) : 255;
        fillRect(x + i, y, 1, height, {static_cast<uint8_t>(level), 128, 128});
    }
}

void Canvas::blend(int x, int y, const Mask &mask, Yuv color)
{
    const int x0 = std::max(x, 0);
    const int y0 = std::max(y, 0);
    const int x1 = std::min(x + mask.width, m_picture.width);
    const int y1 = std::min(y + mask.height, m_picture.height);
    if (x0 >= x1 || y0 >= y1)
        return;
    const auto coverage = [&](int column, int row) -> int {
        const int i = column - x;
        const int j = row - y;
        if (i < 0 || j < 0 || i >= mask.width || j >= mask.height)
            return 0;
        return mask.alpha[static_cast<size_t>(j) * static_cast<size_t>(mask.width) + static_cast<size_t>(i)];
    };
    for (int row = y0; row < y1; ++row) {
        uint8_t *line = m_picture.planes[0] + static_cast<ptrdiff_t>(row) * m_picture.strides[0];
        for (int column = x0; column < x1; ++column) {
            if (const int alpha = coverage(column, row))
                line[column] = mix(line[column], color.y, alpha);
        }
    }
    for (int row = y0 / 2; row < (y1 + 1) / 2; ++row) {
        for (int column = x0 / 2; column < (x1 + 1) / 2; ++column) {
            const int alpha =
                (coverage(2 * column, 2 * row) + coverage(2 * column + 1, 2 * row) +
                 coverage(2 * column, 2 * row + 1) + coverage(2 * column + 1, 2 * row + 1) + 2) /
                4;
            if (alpha)
                setChroma(column, row, color.u, color.v, alpha);
        }
    }
}

Mask makeDisc(int diameter)
{
    Mask mask;
    mask.width = mask.height = std::max(diameter, 1);
    mask.alpha.resize(static_cast<size_t>(mask.width) * static_cast<size_t>(mask.height));
    const double radius = mask.width / 2.0;
    for (int j = 0; j < mask.height; ++j) {
        for (int i = 0; i < mask.width; ++i) {
            const double distance = std::hypot(i + 0.5 - radius, j + 0.5 - radius);
            mask.alpha[static_cast<size_t>(j) * static_cast<size_t>(mask.width) + static_cast<size_t>(i)] =
                toByte(255 * std::clamp(radius - distance + 0.5, 0.0, 1.0));
        }
    }
    return mask;
}

} // namespace zevshm
