// The machine-readable part of a test picture: which frame it is, and when it was labelled.
//
// 112 bits in a grid of 28 columns and 4 rows of black (0) and white (1) cells, row by row, most significant
// bit first:
//
//     bits   0..31   frame number
//     bits  32..95   timestamp, microseconds since the Unix epoch, two's complement
//     bits  96..111  CRC-16 (polynomial 0x1021, start 0xffff) over the twelve bytes before it
//
// Geometry, in fractions of the picture so that it survives scaling to any size and shape: columns are 1/30
// of the width, rows 1/40 of the height; the grid starts at column 1 and at row 35 and has a black cell's
// width of margin around it. At 320 x 240 a cell is 10 x 6 pixels.
//
// The decoder averages the middle of every cell and puts its threshold halfway between the darkest and the
// brightest cell, so that range conversion, another matrix, blur and compression do not matter; the checksum
// refuses the rest.
#ifndef ZEVSHM_PATTERN_BLOCKCODE_H
#define ZEVSHM_PATTERN_BLOCKCODE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace zevshm {

struct BlockCode
{
    uint32_t frameNumber = 0;
    int64_t timestampUs = 0; // wall clock
};

namespace blockcode {

constexpr int columns = 28;
constexpr int rows = 4;
constexpr int bits = columns * rows;
constexpr int gridColumns = 30;  // the picture's width in cells
constexpr int gridRows = 40;     // the picture's height in cells
constexpr int firstColumn = 1;   // of the code in the grid
constexpr int firstRow = 35;     // of the code in the grid
constexpr int minimumWidth = 60; // below, a cell is too narrow to survive anything
constexpr int minimumHeight = 80;
constexpr int minimumContrast = 48; // of 255, between the darkest and the brightest cell

// Edges of a cell in a picture `extent` pixels wide (high): cell i covers [edge(i), edge(i + 1)).
constexpr int edge(int cell, int extent, int cells)
{
    return static_cast<int>(static_cast<int64_t>(cell) * extent / cells);
}

using Cells = std::array<bool, bits>; // row by row; true is white

} // namespace blockcode

// Usage
//     blockcode::Cells cells = encodeBlockCode({frameNumber, timestampUs});
//     std::optional<BlockCode> code = decodeBlockCode(frame.planes[0], frame.strides[0], width, height);
// Threads: reentrant.
// Errors: no code, a damaged one or a picture below the minimum size: an empty optional.
// Cost: the decoder reads about a fortieth of the picture and does not allocate.
blockcode::Cells encodeBlockCode(const BlockCode &code);

// The checksum is the caller's to trust: nothing is returned when it does not fit.
std::optional<BlockCode> decodeBlockCells(const blockcode::Cells &cells);

// Reads the code out of a picture: `samples` is the luma plane, or one channel of a packed picture whose
// pixels are `pixelStepBytes` apart (4 for 32-bit RGB). For a part of a picture pass the address of its first
// pixel.
std::optional<BlockCode> decodeBlockCode(const uint8_t *samples, ptrdiff_t strideBytes, int width, int height,
                                         int pixelStepBytes = 1);

} // namespace zevshm

#endif
