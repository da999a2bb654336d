#include <zevshm-pattern/testpattern.h>

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

using namespace zevshm;

namespace {

constexpr int64_t wholeSecond = 1767225600000000;

// Planes with guard bytes around and between them.
class Planes
{
public:
    Planes(int width, int height, bool interleaved) : m_interleaved(interleaved)
    {
        set.width = width;
        set.height = height;
        set.interleavedChroma = interleaved;
        const int chromaWidth = (width + 1) / 2 * (interleaved ? 2 : 1);
        const int chromaHeight = (height + 1) / 2;
        add(0, width, height);
        add(1, chromaWidth, chromaHeight);
        if (!interleaved)
            add(2, chromaWidth, chromaHeight);
    }
    bool guardsIntact() const
    {
        for (int plane = 0; plane < (m_interleaved ? 2 : 3); ++plane) {
            const std::vector<uint8_t> &bytes = m_bytes[plane];
            for (size_t i = 0; i < bytes.size(); ++i) {
                const size_t row = i / static_cast<size_t>(set.strides[plane]);
                const size_t column = i % static_cast<size_t>(set.strides[plane]);
                const bool inside = row >= 1 && row <= static_cast<size_t>(m_rows[plane]) &&
                                    column < static_cast<size_t>(m_widths[plane]);
                if (!inside && bytes[i] != 0xa5)
                    return false;
            }
        }
        return true;
    }
    uint8_t y(int column, int row) const { return set.planes[0][row * set.strides[0] + column]; }
    uint8_t u(int column, int row) const
    {
        return m_interleaved ? set.planes[1][row / 2 * set.strides[1] + column / 2 * 2]
                             : set.planes[1][row / 2 * set.strides[1] + column / 2];
    }
    uint8_t v(int column, int row) const
    {
        return m_interleaved ? set.planes[1][row / 2 * set.strides[1] + column / 2 * 2 + 1]
                             : set.planes[2][row / 2 * set.strides[2] + column / 2];
    }
    PlaneSet set;

private:
    void add(int plane, int width, int rows)
    {
        set.strides[plane] = width + 13;
        m_widths[plane] = width;
        m_rows[plane] = rows;
        m_bytes[plane].assign(static_cast<size_t>(set.strides[plane]) * static_cast<size_t>(rows + 2), 0xa5);
        set.planes[plane] = m_bytes[plane].data() + set.strides[plane];
    }
    bool m_interleaved;
    std::vector<uint8_t> m_bytes[3];
    int m_widths[3] = {};
    int m_rows[3] = {};
};

} // namespace

TEST(TestPattern, staysInsideItsPlanesAtEverySize)
{
    const int sizes[][2] = {{2, 2},     {3, 3},     {16, 16},    {59, 79},  {61, 81},
                            {321, 241}, {640, 360}, {101, 1001}, {1001, 33}};
    for (const auto kind : {PatternKind::Moving, PatternKind::AvSync, PatternKind::Bars}) {
        for (const auto &size : sizes) {
            for (const bool interleaved : {false, true}) {
                Planes planes(size[0], size[1], interleaved);
                TestPattern pattern(kind, size[0], size[1], Matrix::Bt601);
                pattern.draw(planes.set, 999999, wholeSecond, 3600);
                pattern.draw(planes.set, 4000000000u, wholeSecond + 777777, -3600);
                EXPECT_TRUE(planes.guardsIntact())
                    << size[0] << "x" << size[1] << (interleaved ? " nv12" : "");
            }
        }
    }
}

TEST(TestPattern, barsHaveTheExactColorsOfTheMatrix)
{
    // Full-range values of the saturated colors by hand: red is Y 76, U 85, V 255 (BT.601), Y 54, U 99, V 255
    // (BT.709).
    for (const bool interleaved : {false, true}) {
        for (const Matrix matrix : {Matrix::Bt601, Matrix::Bt709}) {
            Planes planes(640, 480, interleaved);
            TestPattern(PatternKind::Bars, 640, 480, matrix).draw(planes.set, 0, 0, 0);
            const int redX = (TestPattern::barEdge(5, 640) + TestPattern::barEdge(6, 640)) / 2;
            EXPECT_EQ(planes.y(redX, 100), matrix == Matrix::Bt601 ? 76 : 54);
            EXPECT_EQ(planes.u(redX, 100), matrix == Matrix::Bt601 ? 85 : 99);
            EXPECT_EQ(planes.v(redX, 100), 255);
            EXPECT_EQ(planes.y(10, 470), 255);
            EXPECT_EQ(planes.u(10, 470), 128);
            EXPECT_EQ(planes.y(630, 470), 0);
            EXPECT_EQ(planes.v(630, 470), 128);
            // No bar bleeds into its neighbour.
            for (int bar = 0; bar < TestPattern::bars; ++bar) {
                const Yuv expected = toYuv(TestPattern::barColor(bar), matrix);
                for (const int x : {TestPattern::barEdge(bar, 640), TestPattern::barEdge(bar + 1, 640) - 1}) {
                    EXPECT_EQ(planes.y(x, 7), expected.y) << bar;
                    EXPECT_EQ(planes.u(x, 7), expected.u) << bar;
                    EXPECT_EQ(planes.v(x, 7), expected.v) << bar;
                }
            }
        }
    }
}

TEST(TestPattern, usesTheFullRange)
{
    Planes planes(1280, 720, false);
    TestPattern(PatternKind::Moving, 1280, 720, Matrix::Bt709).draw(planes.set, 0, wholeSecond, 0);
    std::vector<bool> seen(256, false);
    const int rampRow = 720 * 17 / 100;
    for (int x = 0; x < 1280; ++x)
        seen[planes.y(x, rampRow)] = true;
    EXPECT_EQ(planes.y(0, rampRow), 0);
    EXPECT_EQ(planes.y(1279, rampRow), 255);
    for (int level = 0; level < 256; ++level)
        EXPECT_TRUE(seen[static_cast<size_t>(level)]) << level;
}

TEST(TestPattern, interleavedChromaCarriesTheSamePicture)
{
    Planes planar(322, 242, false);
    Planes interleaved(322, 242, true);
    TestPattern pattern(PatternKind::Moving, 322, 242, Matrix::Bt601);
    pattern.draw(planar.set, 17, wholeSecond + 345678, 0);
    pattern.draw(interleaved.set, 17, wholeSecond + 345678, 0);
    for (int row = 0; row < 242; ++row) {
        for (int column = 0; column < 322; ++column) {
            ASSERT_EQ(planar.y(column, row), interleaved.y(column, row));
            ASSERT_EQ(planar.u(column, row), interleaved.u(column, row));
            ASSERT_EQ(planar.v(column, row), interleaved.v(column, row));
        }
    }
}

TEST(TestPattern, movesFromFrameToFrame)
{
    Planes first(640, 360, false);
    Planes second(640, 360, false);
    TestPattern pattern(PatternKind::Moving, 640, 360, Matrix::Bt601);
    pattern.draw(first.set, 5, wholeSecond, 0);
    pattern.draw(second.set, 5, wholeSecond + 40000, 0);
    int different = 0;
    for (int row = 80; row < 300; ++row)
        for (int column = 0; column < 640; ++column)
            different += first.y(column, row) != second.y(column, row);
    EXPECT_GT(different, 100);
}

TEST(TestPattern, flashesInTheFirstTenthOfEverySecond)
{
    EXPECT_TRUE(TestPattern::flashAt(wholeSecond));
    EXPECT_TRUE(TestPattern::flashAt(wholeSecond + 99999));
    EXPECT_FALSE(TestPattern::flashAt(wholeSecond + 100000));
    EXPECT_FALSE(TestPattern::flashAt(wholeSecond - 1));
    EXPECT_FALSE(TestPattern::flashAt(-1));

    Planes planes(640, 360, false);
    TestPattern pattern(PatternKind::AvSync, 640, 360, Matrix::Bt601);
    const auto stageMean = [&] {
        int64_t sum = 0;
        for (int row = 80; row < 290; ++row)
            for (int column = 0; column < 640; ++column)
                sum += planes.y(column, row);
        return static_cast<double>(sum) / (210 * 640);
    };
    pattern.draw(planes.set, 0, wholeSecond + 50000, 0);
    EXPECT_GT(stageMean(), 170);
    pattern.draw(planes.set, 0, wholeSecond + 150000, 0);
    EXPECT_LT(stageMean(), 90);
}

TEST(TestPattern, matrixRuleIsByHeight)
{
    EXPECT_EQ(matrixForHeight(480), Matrix::Bt601);
    EXPECT_EQ(matrixForHeight(576), Matrix::Bt601);
    EXPECT_EQ(matrixForHeight(577), Matrix::Bt709);
    EXPECT_EQ(matrixForHeight(1080), Matrix::Bt709);
}
