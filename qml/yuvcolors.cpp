#include "yuvcolors.h"

namespace zevqml {

namespace {

struct LumaWeights
{
    double red;
    double blue;
};

LumaWeights lumaWeights(YuvColors::Matrix matrix)
{
    switch (matrix) {
    case YuvColors::Matrix::Bt601:
        return {0.299, 0.114};
    case YuvColors::Matrix::Bt2020:
        return {0.2627, 0.0593};
    case YuvColors::Matrix::Unknown:
    case YuvColors::Matrix::Bt709:
        break;
    }
    return {0.2126, 0.0722};
}

} // namespace

YuvColors resolve(YuvColors colors, const QSize &videoSize)
{
    if (colors.range == YuvColors::Range::Unknown)
        colors.range = YuvColors::Range::Full;
    if (colors.matrix == YuvColors::Matrix::Unknown)
        colors.matrix = videoSize.height() > 576 ? YuvColors::Matrix::Bt709 : YuvColors::Matrix::Bt601;
    return colors;
}

QMatrix4x4 yuvToRgb(YuvColors colors)
{
    const LumaWeights k = lumaWeights(colors.matrix);
    const double kg = 1.0 - k.red - k.blue;
    const bool limited = colors.range == YuvColors::Range::Limited;

    // 8-bit code values: luma 16..235 and chroma 16..240 around 128 in limited range, else 0..255 around 128.
    const double lumaScale = limited ? 255.0 / 219.0 : 1.0;
    const double lumaZero = limited ? 16.0 / 255.0 : 0.0;
    const double chromaScale = limited ? 255.0 / 224.0 : 1.0;
    const double chromaZero = 128.0 / 255.0;

    const double rv = 2.0 * (1.0 - k.red) * chromaScale;
    const double bu = 2.0 * (1.0 - k.blue) * chromaScale;
    const double gu = -2.0 * k.blue * (1.0 - k.blue) / kg * chromaScale;
    const double gv = -2.0 * k.red * (1.0 - k.red) / kg * chromaScale;
    const auto row = [&](double u, double v) {
        const double offset = -lumaScale * lumaZero - (u + v) * chromaZero;
        return QVector4D(float(lumaScale), float(u), float(v), float(offset));
    };

    QMatrix4x4 result;
    result.setRow(0, row(0.0, rv));
    result.setRow(1, row(gu, gv));
    result.setRow(2, row(bu, 0.0));
    return result;
}

} // namespace zevqml
