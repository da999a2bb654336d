#include <zevshm-pattern/blockcode.h>
#include <zevshm-pattern/testpattern.h>

#include <gtest/gtest.h>

#include <random>
#include <vector>

using namespace zevshm;

namespace {

// A picture in memory with the moving pattern on it.
struct Picture
{
    Picture(int pictureWidth, int pictureHeight, uint32_t number, int64_t timestampUs)
        : width(pictureWidth), height(pictureHeight),
          luma(static_cast<size_t>(pictureWidth) * static_cast<size_t>(pictureHeight)),
          chroma(2 * static_cast<size_t>((pictureWidth + 1) / 2) *
                 static_cast<size_t>((pictureHeight + 1) / 2))
    {
        PlaneSet planes;
        planes.width = width;
        planes.height = height;
        planes.planes[0] = luma.data();
        planes.strides[0] = width;
        planes.planes[1] = chroma.data();
        planes.strides[1] = (width + 1) / 2;
        planes.planes[2] = chroma.data() + chroma.size() / 2;
        planes.strides[2] = (width + 1) / 2;
        TestPattern pattern(PatternKind::Moving, width, height, Matrix::Bt601);
        pattern.draw(planes, number, timestampUs, 0);
    }
    int width, height;
    std::vector<uint8_t> luma, chroma;
};

// Nearest-neighbour to another size.
std::vector<uint8_t> scaled(const Picture &picture, int width, int height)
{
    std::vector<uint8_t> out(static_cast<size_t>(width) * static_cast<size_t>(height));
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            out[static_cast<size_t>(y * width + x)] =
                picture.luma[static_cast<size_t>((2 * y + 1) * picture.height / (2 * height) * picture.width +
                                                 (2 * x + 1) * picture.width / (2 * width))];
    return out;
}

constexpr int64_t someTime = 1767225600123456;

} // namespace

TEST(BlockCode, codesEveryBitOfNumberAndTimestamp)
{
    const BlockCode codes[] = {{0, 0},
                               {1, someTime},
                               {0xffffffffu, INT64_MAX},
                               {0x80000001u, INT64_MIN},
                               {123456, -1},
                               {0x55aa55aau, 0x0123456789abcdef}};
    for (const BlockCode &code : codes) {
        const auto decoded = decodeBlockCells(encodeBlockCode(code));
        ASSERT_TRUE(decoded);
        EXPECT_EQ(decoded->frameNumber, code.frameNumber);
        EXPECT_EQ(decoded->timestampUs, code.timestampUs);
    }
}

TEST(BlockCode, refusesEverySingleAndEveryDoubleFlippedCell)
{
    const blockcode::Cells good = encodeBlockCode({4711, someTime});
    for (size_t i = 0; i < good.size(); ++i) {
        blockcode::Cells one = good;
        one[i] = !one[i];
        ASSERT_FALSE(decodeBlockCells(one)) << i;
        for (size_t j = i + 1; j < good.size(); ++j) {
            blockcode::Cells two = one;
            two[j] = !two[j];
            ASSERT_FALSE(decodeBlockCells(two)) << i << " " << j;
        }
    }
}

TEST(BlockCode, refusesUniformPictures)
{
    blockcode::Cells cells{};
    EXPECT_FALSE(decodeBlockCells(cells));
    cells.fill(true);
    EXPECT_FALSE(decodeBlockCells(cells));
    const std::vector<uint8_t> gray(640 * 480, 128);
    EXPECT_FALSE(decodeBlockCode(gray.data(), 640, 640, 480));
}

TEST(BlockCode, isReadFromPicturesOfEverySize)
{
    const int sizes[][2] = {{320, 240}, {322, 242}, {1280, 720}, {1920, 1080}, {768, 432},
                            {721, 575}, {60, 80},   {176, 144},  {1080, 1920}};
    for (const auto &size : sizes) {
        const Picture picture(size[0], size[1], 987654, someTime);
        const auto code = decodeBlockCode(picture.luma.data(), picture.width, picture.width, picture.height);
        ASSERT_TRUE(code) << size[0] << "x" << size[1];
        EXPECT_EQ(code->frameNumber, 987654u);
        EXPECT_EQ(code->timestampUs, someTime);
    }
}

TEST(BlockCode, survivesScalingAndLimitedRangeAndNoise)
{
    const Picture picture(1280, 720, 31337, someTime);
    std::mt19937 random(5);
    for (const auto &size : {std::pair{320, 240}, {640, 360}, {1920, 1080}, {333, 251}}) {
        std::vector<uint8_t> small = scaled(picture, size.first, size.second);
        for (uint8_t &sample : small) {
            const int limited = 16 + sample * 219 / 255;
            sample = static_cast<uint8_t>(
                std::min(255, std::max(0, limited + static_cast<int>(random() % 31) - 15)));
        }
        const auto code = decodeBlockCode(small.data(), size.first, size.first, size.second);
        ASSERT_TRUE(code) << size.first;
        EXPECT_EQ(code->frameNumber, 31337u);
    }
}

TEST(BlockCode, isReadFromOneChannelOfPackedPixels)
{
    const Picture picture(640, 360, 77, someTime);
    std::vector<uint8_t> packed(640 * 360 * 4, 0);
    for (size_t i = 0; i < picture.luma.size(); ++i)
        packed[4 * i + 1] = picture.luma[i];
    const auto code = decodeBlockCode(packed.data() + 1, 640 * 4, 640, 360, 4);
    ASSERT_TRUE(code);
    EXPECT_EQ(code->frameNumber, 77u);
    EXPECT_FALSE(decodeBlockCode(packed.data(), 640 * 4, 640, 360, 4));
}

TEST(BlockCode, refusesPicturesTooSmallForIt)
{
    const std::vector<uint8_t> pixels(64 * 80, 0);
    EXPECT_FALSE(decodeBlockCode(pixels.data(), 59, 59, 80));
    EXPECT_FALSE(decodeBlockCode(pixels.data(), 60, 60, 79));
    EXPECT_FALSE(decodeBlockCode(nullptr, 60, 60, 80));
}

TEST(BlockCode, reportsATornPictureAsDamaged)
{
    const Picture first(320, 240, 1, someTime);
    const Picture second(320, 240, 2, someTime + 40000);
    std::vector<uint8_t> torn = first.luma;
    std::copy(second.luma.begin() + 320 * 222, second.luma.end(), torn.begin() + 320 * 222);
    EXPECT_FALSE(decodeBlockCode(torn.data(), 320, 320, 240));
}
