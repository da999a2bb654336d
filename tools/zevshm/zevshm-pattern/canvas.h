// Drawing into 4:2:0 planes: what the test patterns are made of.
#ifndef ZEVSHM_PATTERN_CANVAS_H
#define ZEVSHM_PATTERN_CANVAS_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zevshm {

enum class Matrix { Bt601, Bt709 };

// Standard definition is BT.601 and high definition BT.709: the usual rule where a stream does not say. The
// border is the height: up to 576 lines (PAL) is standard definition.
Matrix matrixForHeight(int height);

struct Rgb
{
    uint8_t r, g, b;
};

struct Yuv
{
    uint8_t y, u, v;
};

// Full range: black is 0, white 255, gray has u = v = 128.
Yuv toYuv(Rgb rgb, Matrix matrix);

// Borrowed planes of a picture. Planes are Y, U, V, or Y and interleaved UV.
struct PlaneSet
{
    uint8_t *planes[3] = {};
    int strides[3] = {};
    int width = 0;
    int height = 0;
    bool interleavedChroma = false;
};

// Coverage of the pixels of a shape, 0 to 255, row by row.
struct Mask
{
    int width = 0;
    int height = 0;
    std::vector<uint8_t> alpha;
};

// Threads: reentrant; one thread at a time per picture.
// Ownership: borrows the planes while it lives.
// Errors: whatever lies outside the picture is clipped.
// Units: pixels from the top left. Colors of flat areas are exact where their edges are even; a chroma sample
// on an odd edge belongs to the area drawn last.
class Canvas
{
public:
    explicit Canvas(const PlaneSet &picture) : m_picture(picture) {}

    int width() const { return m_picture.width; }
    int height() const { return m_picture.height; }

    void fillRect(int x, int y, int width, int height, Yuv color);

    // Gray, rising from black at the left edge to white at the right one.
    void fillRamp(int x, int y, int width, int height);

    // Draws `color` where `mask` covers the picture.
    void blend(int x, int y, const Mask &mask, Yuv color);

private:
    void setChroma(int column, int row, uint8_t u, uint8_t v, int alpha);

    PlaneSet m_picture;
};

// A filled circle with smooth edges.
Mask makeDisc(int diameter);

} // namespace zevshm

#endif
