#include <zevshm-pattern/blockcode.h>

#include <algorithm>

namespace zevshm {

namespace {

constexpr int payloadBytes = 12;
using Bytes = std::array<uint8_t, payloadBytes + 2>;

uint16_t crc16(const uint8_t *data, int size)
{
    // Starting from all ones makes a black picture (all zeros) an invalid code.
    uint16_t crc = 0xffff;
    for (int i = 0; i < size; ++i) {
        crc = static_cast<uint16_t>(crc ^ (data[i] << 8));
        for (int bit = 0; bit < 8; ++bit)
            crc = static_cast<uint16_t>((crc & 0x8000) ? (crc << 1) ^ 0x1021 : crc << 1);
    }
    return crc;
}

// Mean of the middle half of a cell: the edges are where scaling mixes neighbours.
int cellMean(const uint8_t *samples, ptrdiff_t strideBytes, int pixelStepBytes, int x0, int x1, int y0,
             int y1)
{
    const int insetX = (x1 - x0) / 4;
    const int insetY = (y1 - y0) / 4;
    int sum = 0;
    int count = 0;
    for (int y = y0 + insetY; y < y1 - insetY; ++y) {
        const uint8_t *row = samples + y * strideBytes;
        for (int x = x0 + insetX; x < x1 - insetX; ++x) {
            sum += row[static_cast<ptrdiff_t>(x) * pixelStepBytes];
            ++count;
        }
    }
    return count > 0 ? sum / count : 0;
}

} // namespace

blockcode::Cells encodeBlockCode(const BlockCode &code)
{
    Bytes bytes{};
    for (int i = 0; i < 4; ++i)
        bytes[static_cast<size_t>(i)] = static_cast<uint8_t>(code.frameNumber >> (24 - 8 * i));
    const uint64_t timestamp = static_cast<uint64_t>(code.timestampUs);
    for (int i = 0; i < 8; ++i)
        bytes[size_t{4} + static_cast<size_t>(i)] = static_cast<uint8_t>(timestamp >> (56 - 8 * i));
    const uint16_t crc = crc16(bytes.data(), payloadBytes);
    bytes[12] = static_cast<uint8_t>(crc >> 8);
    bytes[13] = static_cast<uint8_t>(crc);

    blockcode::Cells cells{};
    for (size_t i = 0; i < cells.size(); ++i)
        cells[i] = (bytes[i / 8] >> (7 - i % 8)) & 1;
    return cells;
}

std::optional<BlockCode> decodeBlockCells(const blockcode::Cells &cells)
{
    Bytes bytes{};
    for (size_t i = 0; i < cells.size(); ++i) {
        if (cells[i])
            bytes[i / 8] = static_cast<uint8_t>(bytes[i / 8] | (1u << (7 - i % 8)));
    }
    const uint16_t crc = crc16(bytes.data(), payloadBytes);
    if (bytes[12] != (crc >> 8) || bytes[13] != (crc & 0xff))
        return std::nullopt;

    BlockCode code;
    for (size_t i = 0; i < 4; ++i)
        code.frameNumber = code.frameNumber << 8 | bytes[i];
    uint64_t timestamp = 0;
    for (size_t i = 4; i < 12; ++i)
        timestamp = timestamp << 8 | bytes[i];
    code.timestampUs = static_cast<int64_t>(timestamp);
    return code;
}

std::optional<BlockCode> decodeBlockCode(const uint8_t *samples, ptrdiff_t strideBytes, int width, int height,
                                         int pixelStepBytes)
{
    using namespace blockcode;
    if (!samples || width < minimumWidth || height < minimumHeight)
        return std::nullopt;

    std::array<int, bits> means{};
    for (int row = 0; row < rows; ++row) {
        const int y0 = edge(firstRow + row, height, gridRows);
        const int y1 = edge(firstRow + row + 1, height, gridRows);
        for (int column = 0; column < columns; ++column) {
            const int x0 = edge(firstColumn + column, width, gridColumns);
            const int x1 = edge(firstColumn + column + 1, width, gridColumns);
            means[static_cast<size_t>(row) * static_cast<size_t>(columns) + static_cast<size_t>(column)] =
                cellMean(samples, strideBytes, pixelStepBytes, x0, x1, y0, y1);
        }
    }
    const auto [darkest, brightest] = std::minmax_element(means.begin(), means.end());
    if (*brightest - *darkest < minimumContrast)
        return std::nullopt;

    const int threshold = (*darkest + *brightest) / 2;
    Cells cells{};
    for (size_t i = 0; i < cells.size(); ++i)
        cells[i] = means[i] > threshold;
    return decodeBlockCells(cells);
}

} // namespace zevshm
