#include "testpicture.h"

#include <cmath>
#include <cstring>

namespace {

const size_t pageSize = 4096;

struct Weights
{
    double red, blue;
};

Weights weightsOf(shm_matrix matrix)
{
    switch (matrix) {
    case SHM_MATRIX_BT601:
        return {0.299, 0.114};
    case SHM_MATRIX_BT2020:
        return {0.2627, 0.0593};
    default:
        return {0.2126, 0.0722};
    }
}

struct Scale
{
    double black, luma, chroma; // samples: offset of luma, extent of luma, extent of chroma
};

Scale scaleOf(shm_range range)
{
    return range == SHM_RANGE_LIMITED ? Scale{16, 219, 224} : Scale{0, 255, 255};
}

int toByte(double value)
{
    return static_cast<int>(std::lround(std::fmin(255.0, std::fmax(0.0, value))));
}

const QRgb patchColors[TestPicture::rows][TestPicture::columns] = {
    {0xffffff, 0xffff00, 0x00ffff, 0x00ff00, 0xff00ff, 0xff0000, 0x0000ff, 0x000000},
    {0xc0c0c0, 0x808080, 0x202020, 0xb06040, 0x40b060, 0x6040b0, 0xf0c080, 0x103050},
};

TestPicture::Sample sampleOf(QRgb color, shm_matrix matrix, shm_range range)
{
    const Weights weights = weightsOf(matrix);
    const Scale scale = scaleOf(range);
    const double red = qRed(color) / 255.0, green = qGreen(color) / 255.0, blue = qBlue(color) / 255.0;
    const double luma = weights.red * red + (1 - weights.red - weights.blue) * green + weights.blue * blue;
    return {toByte(scale.black + scale.luma * luma),
            toByte(128 + scale.chroma * (blue - luma) / (2 * (1 - weights.blue))),
            toByte(128 + scale.chroma * (red - luma) / (2 * (1 - weights.red)))};
}

} // namespace

TestPicture::TestPicture(shm_matrix matrixOfSamples, shm_range rangeOfSamples)
    : matrix(matrixOfSamples), range(rangeOfSamples)
{
    for (int row = 0; row < rows; ++row) {
        for (int column = 0; column < columns; ++column)
            samples[row][column] = sampleOf(patchColors[row][column], matrix, range);
    }
}

// From the rounded samples, not from the color they were made of: rounding is no fault of who shows them.
QColor TestPicture::color(int column, int row) const
{
    const Weights weights = weightsOf(matrix);
    const Scale scale = scaleOf(range);
    const Sample sample = samples[row][column];
    const double luma = (sample.y - scale.black) / scale.luma;
    const double red = luma + 2 * (1 - weights.red) * (sample.v - 128) / scale.chroma;
    const double blue = luma + 2 * (1 - weights.blue) * (sample.u - 128) / scale.chroma;
    const double green = (luma - weights.red * red - weights.blue * blue) / (1 - weights.red - weights.blue);
    return QColor(toByte(255 * red), toByte(255 * green), toByte(255 * blue));
}

size_t TestPicture::layOut(int pixelFormat, shm_video_frame_t *record)
{
    const auto roundUp = [](size_t value, size_t unit) { return (value + unit - 1) / unit * unit; };
    record->width = width;
    record->height = height;
    const bool isPlanar = pixelFormat != SHM_PIXEL_FORMAT_NV12;
    const int planes = isPlanar ? 3 : 2;
    size_t end = 0;
    for (int i = 0; i < planes; ++i) {
        // Planar 4:2:0 with V first lies the other way round in memory; the record lists Y, U, V.
        const int plane = pixelFormat == SHM_PIXEL_FORMAT_YVU420P && i > 0 ? 3 - i : i;
        record->strides[plane] = isPlanar && i == 0 ? 512 : 256;
        record->plane_offsets[plane] = static_cast<int64_t>(end);
        end +=
            roundUp(static_cast<size_t>(record->strides[plane]) * (i == 0 ? height : height / 2), pageSize);
    }
    return end;
}

void TestPicture::write(int pixelFormat, const shm_video_frame_t &record, unsigned char *memory) const
{
    const auto lineOf = [&](int plane, int y) {
        return memory + record.plane_offsets[plane] + y * record.strides[plane];
    };
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x)
            lineOf(0, y)[x] = static_cast<unsigned char>(sample(x / patchWidth, y / patchHeight).y);
    }
    for (int y = 0; y < height / 2; ++y) {
        for (int x = 0; x < width / 2; ++x) {
            const Sample value = sample(2 * x / patchWidth, 2 * y / patchHeight);
            const auto u = static_cast<unsigned char>(value.u), v = static_cast<unsigned char>(value.v);
            if (pixelFormat == SHM_PIXEL_FORMAT_NV12) {
                lineOf(1, y)[2 * x] = u;
                lineOf(1, y)[2 * x + 1] = v;
            } else {
                lineOf(1, y)[x] = u;
                lineOf(2, y)[x] = v;
            }
        }
    }
}

int TestPicture::worstDifference(const QImage &image, QString *where) const
{
    if (image.size() != QSize(width, height)) {
        *where = QStringLiteral("picture is %1 x %2").arg(image.width()).arg(image.height());
        return 255;
    }
    const int margin = 4; // chroma of the neighbor reaches a few pixels in
    int worst = -1;
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const int inX = x % patchWidth, inY = y % patchHeight;
            if (inX < margin || inX >= patchWidth - margin || inY < margin || inY >= patchHeight - margin)
                continue;
            const QColor expected = color(x / patchWidth, y / patchHeight);
            const QRgb shown = image.pixel(x, y);
            const int difference =
                qMax(qMax(qAbs(expected.red() - qRed(shown)), qAbs(expected.green() - qGreen(shown))),
                     qAbs(expected.blue() - qBlue(shown)));
            if (difference > worst) {
                worst = difference;
                *where = QStringLiteral("at %1,%2: %3 instead of %4")
                             .arg(x)
                             .arg(y)
                             .arg(QColor(shown).name(), expected.name());
            }
        }
    }
    return worst;
}
