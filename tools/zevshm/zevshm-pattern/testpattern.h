// The pictures of the test inputs.
#ifndef ZEVSHM_PATTERN_TESTPATTERN_H
#define ZEVSHM_PATTERN_TESTPATTERN_H

#include <zevshm-pattern/canvas.h>
#include <zevshm-pattern/glyphs.h>

#include <cstdint>

namespace zevshm {

enum class PatternKind {
    Moving, // color bars, a ramp over the full range, a moving ball, frame number, time and block code
    AvSync, // the same without movement; white during the first 100 ms of every wall-clock second
    Bars    // eight saturated bars and nothing else: white yellow cyan green magenta red blue black
};

// Draws test pictures into planes that belong to somebody else.
//
// Usage
//     TestPattern pattern(PatternKind::Moving, 1280, 720, Matrix::Bt709);
//     pattern.draw(planes, frameNumber, timestampUs, utcOffsetSeconds);
// Threads: reentrant; draw() may be called from one thread at a time.
// Ownership: borrows the planes during the call; they must have the size given to the constructor.
// Units: timestamps are wall-clock microseconds; samples are full range.
// Errors: none; in a picture too small for them digits and block code are left out.
// Cost: the fixed parts are rendered once and copied; a 1080p picture takes well under a millisecond.
class TestPattern
{
public:
    TestPattern(PatternKind kind, int width, int height, Matrix matrix);

    void draw(const PlaneSet &picture, uint32_t frameNumber, int64_t timestampUs, int utcOffsetSeconds);

    // The color of a bar, 0 to 7 from the left.
    static Rgb barColor(int bar);
    static constexpr int bars = 8;
    static int barEdge(int bar, int width) { return bar >= bars ? width : width * bar / bars & ~1; }

    // How long the flash and the beep of AvSync last, from the whole second on.
    static constexpr int64_t flashUs = 100000;
    static bool flashAt(int64_t timestampUs);

private:
    void renderFixed(bool interleavedChroma);
    void copyFixed(const PlaneSet &picture) const;
    void drawDigits(Canvas &canvas, uint32_t frameNumber, int64_t timestampUs, int utcOffsetSeconds,
                    bool flash) const;
    void drawBall(Canvas &canvas, int64_t timestampUs) const;
    void drawSecondHand(Canvas &canvas, int64_t timestampUs) const;
    void drawCode(Canvas &canvas, uint32_t frameNumber, int64_t timestampUs) const;
    Yuv yuv(Rgb rgb) const { return toYuv(rgb, m_matrix); }

    const PatternKind m_kind;
    const int m_width;
    const int m_height;
    const Matrix m_matrix;
    const Glyphs m_numberGlyphs;
    const Glyphs m_timeGlyphs;
    const Mask m_ball;

    bool m_fixedValid = false;
    std::vector<uint8_t> m_fixedLuma;
    std::vector<uint8_t> m_fixedChroma; // U then V, or UV
    PlaneSet m_fixed;                   // over the two
};

} // namespace zevshm

#endif
