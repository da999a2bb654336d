#include "frameimage.h"
#include "frameplanes.h"
#include "planarframe.h"
#include "yuvcolors.h"

#include <gtest/gtest.h>

#include <cmath>

namespace {

using zevqml::frameToImage;
using zevqml::YuvColors;
using Matrix = YuvColors::Matrix;
using Range = YuvColors::Range;

// The textbook way round: RGB to code values, with nothing taken from the code under test.
Yuv encoded(QColor color, YuvColors colors)
{
    const double kr = colors.matrix == Matrix::Bt601   ? 0.299
                      : colors.matrix == Matrix::Bt709 ? 0.2126
                                                       : 0.2627;
    const double kb = colors.matrix == Matrix::Bt601   ? 0.114
                      : colors.matrix == Matrix::Bt709 ? 0.0722
                                                       : 0.0593;
    const double y = kr * color.redF() + (1 - kr - kb) * color.greenF() + kb * color.blueF();
    const double u = (color.blueF() - y) / (2 * (1 - kb));
    const double v = (color.redF() - y) / (2 * (1 - kr));
    const bool full = colors.range == Range::Full;
    const auto code = [](double value) { return uchar(std::lround(std::min(255.0, std::max(0.0, value)))); };
    return {code(full ? y * 255 : 16 + y * 219), code(128 + u * (full ? 255 : 224)),
            code(128 + v * (full ? 255 : 224))};
}

int distance(QRgb a, QColor b)
{
    return std::max(
        {std::abs(qRed(a) - b.red()), std::abs(qGreen(a) - b.green()), std::abs(qBlue(a) - b.blue())});
}

struct Case
{
    Matrix matrix;
    Range range;
    QVideoFrame::PixelFormat format;
    QSize size;
    int padding;
};
class FrameToImage : public testing::TestWithParam<Case>
{};

TEST_P(FrameToImage, givesBackTheColorsThatWereEncoded)
{
    const Case c = GetParam();
    const QColor colors[] = {Qt::white,  Qt::black, Qt::red,     Qt::green,           Qt::blue,
                             Qt::yellow, Qt::cyan,  Qt::magenta, QColor(191, 64, 17), QColor(128, 128, 128)};
    for (const QColor &left : colors) {
        for (const QColor &right : colors) {
            const QVideoFrame frame = twoColorFrame(c.format, c.size, encoded(left, {c.matrix, c.range}),
                                                    encoded(right, {c.matrix, c.range}), c.padding);
            const QImage image = frameToImage(frame, {c.matrix, c.range});
            ASSERT_EQ(image.size(), c.size);
            const QSize last = c.size - QSize(1, 1);
            EXPECT_LE(distance(image.pixel(0, 0), left), 2);
            EXPECT_LE(distance(image.pixel(0, last.height()), left), 2);
            EXPECT_LE(distance(image.pixel(last.width(), 0), right), 2);
            EXPECT_LE(distance(image.pixel(last.width(), last.height()), right), 2);
        }
    }
}

constexpr auto planar = QVideoFrame::Format_YUV420P;
constexpr auto nv12 = QVideoFrame::Format_NV12;
INSTANTIATE_TEST_SUITE_P(Layouts, FrameToImage,
                         testing::Values(Case{Matrix::Bt601, Range::Full, planar, {16, 8}, 0},
                                         Case{Matrix::Bt709, Range::Full, planar, {16, 8}, 24},
                                         Case{Matrix::Bt2020, Range::Full, nv12, {16, 8}, 24},
                                         Case{Matrix::Bt601, Range::Limited, nv12, {16, 8}, 0},
                                         Case{Matrix::Bt709, Range::Limited, planar, {17, 9}, 7},
                                         Case{Matrix::Bt2020, Range::Limited, nv12, {17, 9}, 6}));

TEST(FrameToImage, rgbFramesAreTakenAsTheyAre)
{
    QImage picture(6, 4, QImage::Format_RGB32);
    picture.fill(QColor(10, 200, 30));
    EXPECT_EQ(frameToImage(QVideoFrame(picture), {}), picture);
}

TEST(FrameToImage, nothingToConvertIsANullImage)
{
    EXPECT_TRUE(frameToImage(QVideoFrame(), {}).isNull());
    EXPECT_TRUE(frameToImage(twoColorFrame(planar, {4, 4}, {}, {}, 0, true), {}).isNull());
    EXPECT_TRUE(frameToImage(QVideoFrame(64, QSize(4, 4), 8, QVideoFrame::Format_UYVY), {}).isNull());
    // A chroma plane that is too narrow for the size that the frame claims.
    EXPECT_TRUE(
        frameToImage(QVideoFrame(new PlanarBuffer(planar, {4, 4}, 0), QSize(16, 4), planar), {}).isNull());
}

TEST(FrameToImage, letsGoOfTheFrame)
{
    {
        const QVideoFrame frame = twoColorFrame(nv12, {4, 4}, {}, {});
        frameToImage(frame, {});
        EXPECT_FALSE(frame.isMapped());
        EXPECT_EQ(PlanarBuffer::alive(), 1);
    }
    EXPECT_EQ(PlanarBuffer::alive(), 0);
}

TEST(YuvColors, unknownIsResolvedBySizeAndTakenAsFull)
{
    EXPECT_EQ(zevqml::resolve({}, {720, 576}), (YuvColors{Matrix::Bt601, Range::Full}));
    EXPECT_EQ(zevqml::resolve({}, {1280, 720}), (YuvColors{Matrix::Bt709, Range::Full}));
    const YuvColors stated{Matrix::Bt2020, Range::Limited};
    EXPECT_EQ(zevqml::resolve(stated, {64, 64}), stated);
}

TEST(YuvColors, framesFromElsewhereStateNothing)
{
    EXPECT_EQ(zevqml::frameColors(twoColorFrame(planar, {4, 4}, {}, {})), YuvColors());
}

} // namespace
