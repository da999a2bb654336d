#include "testpattern.h"

#include <algorithm>
#include <cmath>

namespace {

struct Code
{
    uint8_t y, u, v;
};

Code encoded(double r, double g, double b, shm_color_t color)
{
    const bool is601 = color.matrix == SHM_MATRIX_BT601;
    const bool is2020 = color.matrix == SHM_MATRIX_BT2020;
    const double kr = is601 ? 0.299 : is2020 ? 0.2627 : 0.2126;
    const double kb = is601 ? 0.114 : is2020 ? 0.0593 : 0.0722;
    const double y = kr * r + (1.0 - kr - kb) * g + kb * b;
    const double u = (b - y) / (2.0 * (1.0 - kb));
    const double v = (r - y) / (2.0 * (1.0 - kr));
    const bool limited = color.range == SHM_RANGE_LIMITED;
    const auto code = [](double value) { return uint8_t(std::lround(std::clamp(value, 0.0, 255.0))); };
    return {code(limited ? 16.0 + 219.0 * y : 255.0 * y), code(128.0 + (limited ? 224.0 : 255.0) * u),
            code(128.0 + (limited ? 224.0 : 255.0) * v)};
}

} // namespace

void TestPattern::draw(uint8_t *const planes[4], const int32_t strides[4], unsigned number) const
{
    drawFrom(0, planes, strides, number);
}

void TestPattern::drawNumber(uint8_t *const planes[4], const int32_t strides[4], unsigned number) const
{
    drawFrom(numberTop(), planes, strides, number);
}

void TestPattern::drawFrom(int top, uint8_t *const planes[4], const int32_t strides[4], unsigned number) const
{
    static const double bars[8][3] = {{1, 1, 1}, {1, 1, 0}, {0, 1, 1}, {0, 1, 0},
                                      {1, 0, 1}, {1, 0, 0}, {0, 0, 1}, {0, 0, 0}};
    Code codes[8];
    for (int i = 0; i < 8; ++i)
        codes[i] = encoded(bars[i][0], bars[i][1], bars[i][2], color);
    const Code white = codes[0];
    const Code black = codes[7];
    const auto at = [&](int x, int y) {
        if (y < numberTop())
            return codes[std::min(7, x * 8 / width)];
        return (number >> (15 - std::min(15, x * 16 / width))) & 1 ? white : black;
    };
    for (int y = top; y < height; ++y)
        for (int x = 0; x < width; ++x)
            planes[0][y * strides[0] + x] = at(x, y).y;
    const bool pairs = pixelFormat == SHM_PIXEL_FORMAT_NV12;
    for (int y = top / 2; y < (height + 1) / 2; ++y) {
        for (int x = 0; x < (width + 1) / 2; ++x) {
            const Code code = at(2 * x, 2 * y);
            (pairs ? planes[1][y * strides[1] + 2 * x] : planes[1][y * strides[1] + x]) = code.u;
            (pairs ? planes[1][y * strides[1] + 2 * x + 1] : planes[2][y * strides[2] + x]) = code.v;
        }
    }
}
