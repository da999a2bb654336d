#include <zevshm-pattern/testpattern.h>

#include <zevshm-pattern/blockcode.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace zevshm {

namespace {

constexpr int64_t secondUs = 1000000;
constexpr Rgb black{0, 0, 0};
constexpr Rgb white{255, 255, 255};
constexpr Rgb ground{18, 26, 38};
constexpr Rgb lines{34, 48, 68};
constexpr Rgb ballColor{255, 140, 26};
constexpr Rgb timeColor{120, 205, 255};

// Where things are, in fractions of the height. All edges are even, so that flat colors stay exact in 4:2:0.
int even(double value)
{
    return static_cast<int>(value) / 2 * 2;
}
struct Layout
{
    explicit Layout(int height)
        : barsBottom(even(height * 0.14)), rampBottom(even(height * 0.20)), stageBottom(even(height * 0.84))
    {}
    int barsBottom, rampBottom, stageBottom;
};

// A glyph height at which `characters` digits still fit into the width; beyond 8K they need not grow any
// more.
int fittingHeight(int wanted, int width, double characters)
{
    return std::max(4, std::min({wanted, static_cast<int>(width / (characters * 0.78)), 960}));
}

int64_t intoSecond(int64_t timestampUs)
{
    const int64_t rest = timestampUs % secondUs;
    return rest < 0 ? rest + secondUs : rest;
}

// Back and forth between 0 and `span` with `periodUs` for the whole way.
int bounce(int64_t timestampUs, int64_t periodUs, int span)
{
    if (span <= 0)
        return 0;
    const int64_t rest = timestampUs % periodUs;
    const double phase =
        static_cast<double>(rest < 0 ? rest + periodUs : rest) / static_cast<double>(periodUs);
    return static_cast<int>(std::lround(span * (phase < 0.5 ? 2 * phase : 2 - 2 * phase)));
}

} // namespace

TestPattern::TestPattern(PatternKind kind, int width, int height, Matrix matrix)
    : m_kind(kind), m_width(width), m_height(height), m_matrix(matrix),
      m_numberGlyphs(fittingHeight(height * 22 / 100, width, 7)),
      m_timeGlyphs(fittingHeight(height * 11 / 100, width, 10)), m_ball(makeDisc(std::max(4, height / 8)))
{}

Rgb TestPattern::barColor(int bar)
{
    static constexpr Rgb colors[bars] = {{255, 255, 255}, {255, 255, 0}, {0, 255, 255}, {0, 255, 0},
                                         {255, 0, 255},   {255, 0, 0},   {0, 0, 255},   {0, 0, 0}};
    return colors[std::clamp(bar, 0, bars - 1)];
}

bool TestPattern::flashAt(int64_t timestampUs)
{
    return intoSecond(timestampUs) < flashUs;
}

void TestPattern::renderFixed(bool interleavedChroma)
{
    const size_t luma = static_cast<size_t>(m_width) * static_cast<size_t>(m_height);
    const int chromaWidth = (m_width + 1) / 2;
    const int chromaHeight = (m_height + 1) / 2;
    const size_t chroma = static_cast<size_t>(chromaWidth) * static_cast<size_t>(chromaHeight);
    m_fixedLuma.assign(luma, 0);
    m_fixedChroma.assign(2 * chroma, 128);
    m_fixed.width = m_width;
    m_fixed.height = m_height;
    m_fixed.interleavedChroma = interleavedChroma;
    m_fixed.planes[0] = m_fixedLuma.data();
    m_fixed.strides[0] = m_width;
    m_fixed.planes[1] = m_fixedChroma.data();
    m_fixed.strides[1] = interleavedChroma ? 2 * chromaWidth : chromaWidth;
    m_fixed.planes[2] = interleavedChroma ? nullptr : m_fixedChroma.data() + chroma;
    m_fixed.strides[2] = interleavedChroma ? 0 : chromaWidth;
    m_fixedValid = true;

    Canvas canvas(m_fixed);
    const Layout layout(m_height);
    const int barsBottom = m_kind == PatternKind::Bars ? m_height : layout.barsBottom;
    for (int bar = 0; bar < bars; ++bar) {
        const int x = barEdge(bar, m_width);
        canvas.fillRect(x, 0, barEdge(bar + 1, m_width) - x, barsBottom, yuv(barColor(bar)));
    }
    if (m_kind == PatternKind::Bars)
        return;

    canvas.fillRamp(0, layout.barsBottom, m_width, layout.rampBottom - layout.barsBottom);
    canvas.fillRect(0, layout.rampBottom, m_width, layout.stageBottom - layout.rampBottom, yuv(ground));
    const int cell = std::max(8, even(m_height / 10.0));
    const int line = std::max(2, even(m_height / 360.0));
    for (int x = even((m_width % cell) / 2.0); x < m_width; x += cell)
        canvas.fillRect(x, layout.rampBottom, line, layout.stageBottom - layout.rampBottom, yuv(lines));
    for (int y = layout.rampBottom + cell / 4 * 2; y < layout.stageBottom; y += cell)
        canvas.fillRect(0, y, m_width, line, yuv(lines));
    canvas.fillRect(0, layout.stageBottom, m_width, m_height - layout.stageBottom, yuv(black));
}

void TestPattern::copyFixed(const PlaneSet &picture) const
{
    const int chromaBytes = (m_width + 1) / 2 * (m_fixed.interleavedChroma ? 2 : 1);
    for (int plane = 0; plane < (m_fixed.interleavedChroma ? 2 : 3); ++plane) {
        const int rows = plane == 0 ? m_height : (m_height + 1) / 2;
        const size_t bytes = static_cast<size_t>(plane == 0 ? m_width : chromaBytes);
        for (int row = 0; row < rows; ++row)
            std::memcpy(picture.planes[plane] + static_cast<ptrdiff_t>(row) * picture.strides[plane],
                        m_fixed.planes[plane] + static_cast<ptrdiff_t>(row) * m_fixed.strides[plane], bytes);
    }
}

void TestPattern::drawDigits(Canvas &canvas, uint32_t frameNumber, int64_t timestampUs, int utcOffsetSeconds,
                             bool flash) const
{
    const Layout layout(m_height);
    const int room = layout.stageBottom - layout.rampBottom;
    const int gap = m_height / 24;
    const int block = m_numberGlyphs.height() + gap + m_timeGlyphs.height();
    if (m_width < blockcode::minimumWidth || block > room)
        return;
    const int top = layout.rampBottom + (room - block) / 2;

    char number[16];
    std::snprintf(number, sizeof number, "%06u", frameNumber);
    m_numberGlyphs.draw(canvas, (m_width - m_numberGlyphs.textWidth(number)) / 2, top, number,
                        yuv(flash ? black : white));

    const int64_t seconds = (timestampUs - intoSecond(timestampUs)) / secondUs + utcOffsetSeconds;
    const int ofDay = static_cast<int>((seconds % 86400 + 86400) % 86400);
    char time[32];
    std::snprintf(time, sizeof time, "%02d:%02d:%02d.%03d", ofDay / 3600, ofDay / 60 % 60, ofDay % 60,
                  static_cast<int>(intoSecond(timestampUs) / 1000));
    m_timeGlyphs.draw(canvas, (m_width - m_timeGlyphs.textWidth(time)) / 2,
                      top + m_numberGlyphs.height() + gap, time, yuv(flash ? black : timeColor));
}

void TestPattern::drawBall(Canvas &canvas, int64_t timestampUs) const
{
    const Layout layout(m_height);
    const int x = bounce(timestampUs, 4 * secondUs, m_width - m_ball.width);
    const int y = bounce(timestampUs, 3 * secondUs, layout.stageBottom - layout.rampBottom - m_ball.height);
    canvas.blend(x, layout.rampBottom + y, m_ball, yuv(ballColor));
}

// A bar that fills up once a second: a frame that comes twice or not at all is seen as a jerk.
void TestPattern::drawSecondHand(Canvas &canvas, int64_t timestampUs) const
{
    const Layout layout(m_height);
    const int thickness = std::max(2, even(m_height / 60.0));
    const int length = static_cast<int>(intoSecond(timestampUs) * m_width / secondUs) / 2 * 2;
    canvas.fillRect(0, layout.stageBottom - thickness, length, thickness, yuv(timeColor));
}

void TestPattern::drawCode(Canvas &canvas, uint32_t frameNumber, int64_t timestampUs) const
{
    using namespace blockcode;
    if (m_width < minimumWidth || m_height < minimumHeight)
        return;
    const Cells cells = encodeBlockCode({frameNumber, timestampUs});
    for (int row = 0; row < rows; ++row) {
        const int y0 = edge(firstRow + row, m_height, gridRows);
        const int y1 = edge(firstRow + row + 1, m_height, gridRows);
        for (int column = 0; column < columns; ++column) {
            if (!cells[static_cast<size_t>(row) * static_cast<size_t>(columns) + static_cast<size_t>(column)])
                continue;
            const int x0 = edge(firstColumn + column, m_width, gridColumns);
            const int x1 = edge(firstColumn + column + 1, m_width, gridColumns);
            canvas.fillRect(x0, y0, x1 - x0, y1 - y0, {255, 128, 128});
        }
    }
}

void TestPattern::draw(const PlaneSet &picture, uint32_t frameNumber, int64_t timestampUs,
                       int utcOffsetSeconds)
{
    if (!m_fixedValid || m_fixed.interleavedChroma != picture.interleavedChroma)
        renderFixed(picture.interleavedChroma);
    copyFixed(picture);
    if (m_kind == PatternKind::Bars)
        return;

    Canvas canvas(picture);
    const bool flash = m_kind == PatternKind::AvSync && flashAt(timestampUs);
    if (flash) {
        const Layout layout(m_height);
        canvas.fillRect(0, layout.rampBottom, m_width, layout.stageBottom - layout.rampBottom, yuv(white));
    }
    if (m_kind == PatternKind::Moving)
        drawBall(canvas, timestampUs);
    drawSecondHand(canvas, timestampUs);
    drawDigits(canvas, frameNumber, timestampUs, utcOffsetSeconds, flash);
    drawCode(canvas, frameNumber, timestampUs);
}

} // namespace zevshm
