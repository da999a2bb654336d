#include "turn.h"

#include <gtest/gtest.h>

#include <limits>
#include <vector>

using namespace zevshm;

namespace {

// A plane whose samples are told apart, turned; rows with a margin that must stay as it is.
std::vector<std::vector<int>> turned(int width, int height, int sampleBytes, Turn turn)
{
    const int stride = width * sampleBytes + 3;
    std::vector<uint8_t> source(static_cast<size_t>(stride * height), 0xee);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            for (int byte = 0; byte < sampleBytes; ++byte)
                source[static_cast<size_t>(y * stride + x * sampleBytes + byte)] =
                    static_cast<uint8_t>(10 * y + x + 100 * byte);
    const int toWidth = swapsSides(turn) ? height : width;
    const int toHeight = swapsSides(turn) ? width : height;
    const int toStride = toWidth * sampleBytes + 5;
    std::vector<uint8_t> target(static_cast<size_t>(toStride * toHeight), 0xdd);
    turnPlane(source.data(), stride, width, height, sampleBytes, turn, target.data(), toStride);
    std::vector<std::vector<int>> rows;
    for (int y = 0; y < toHeight; ++y) {
        rows.emplace_back();
        for (int x = 0; x < toWidth; ++x) {
            const size_t at = static_cast<size_t>(y * toStride + x * sampleBytes);
            rows.back().push_back(target[at]);
            if (sampleBytes == 2) {
                EXPECT_EQ(target[at + 1], target[at] + 100) << "a pair is kept together";
            }
        }
        for (int margin = toWidth * sampleBytes; margin < toStride; ++margin)
            EXPECT_EQ(target[static_cast<size_t>(y * toStride + margin)], 0xdd);
    }
    return rows;
}

using Rows = std::vector<std::vector<int>>;

} // namespace

TEST(Turn, everyQuarterPutsTheSamplesWhereTheyBelong)
{
    for (const int bytes : {1, 2}) {
        EXPECT_EQ(turned(3, 2, bytes, Turn::None), (Rows{{0, 1, 2}, {10, 11, 12}}));
        EXPECT_EQ(turned(3, 2, bytes, Turn::Right), (Rows{{10, 0}, {11, 1}, {12, 2}}));
        EXPECT_EQ(turned(3, 2, bytes, Turn::Half), (Rows{{12, 11, 10}, {2, 1, 0}}));
        EXPECT_EQ(turned(3, 2, bytes, Turn::Left), (Rows{{2, 12}, {1, 11}, {0, 10}}));
    }
}

TEST(Turn, fourTurnsAcrossTilesAreNone)
{
    const int width = 75;
    const int height = 41;
    std::vector<uint8_t> first;
    for (int i = 0; i < width * height; ++i)
        first.push_back(static_cast<uint8_t>(i * 7 + i / 256));
    std::vector<uint8_t> now = first;
    int w = width;
    int h = height;
    for (int i = 0; i < 4; ++i) {
        std::vector<uint8_t> next(now.size());
        turnPlane(now.data(), w, w, h, 1, Turn::Right, next.data(), h);
        now = next;
        std::swap(w, h);
        EXPECT_EQ(now == first, i == 3) << i;
    }
}

TEST(Turn, anglesAreCounterClockwiseAndOnlyQuartersCount)
{
    EXPECT_EQ(turnFor(0), Turn::None);
    EXPECT_EQ(turnFor(-90), Turn::Right);
    EXPECT_EQ(turnFor(270), Turn::Right);
    EXPECT_EQ(turnFor(90), Turn::Left);
    EXPECT_EQ(turnFor(180), Turn::Half);
    EXPECT_EQ(turnFor(-180), Turn::Half);
    EXPECT_EQ(turnFor(89.9), Turn::Left);
    EXPECT_EQ(turnFor(45), std::nullopt);
    EXPECT_EQ(turnFor(std::numeric_limits<double>::quiet_NaN()), std::nullopt);
}
