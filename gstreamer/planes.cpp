#include "planes.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>

namespace zevgst {

namespace {

using Table = std::array<uint8_t, 256>;

Table expansion(int black, int zero, double span, double fullSpan)
{
    Table table = {};
    for (int i = 0; i < 256; ++i) {
        const double value = zero + (i - black) * fullSpan / span;
        table[static_cast<size_t>(i)] = static_cast<uint8_t>(std::clamp(std::lround(value), 0l, 255l));
    }
    return table;
}

const Table &lumaTable()
{
    static const Table table = expansion(16, 0, 219, 255);
    return table;
}

const Table &chromaTable()
{
    static const Table table = expansion(128, 128, 224, 255);
    return table;
}

} // namespace

void copyPlanes(const GstVideoFrame &frame, const shm_writer_frame_t &slot, bool expand)
{
    const bool swapped = GST_VIDEO_FRAME_FORMAT(&frame) == GST_VIDEO_FORMAT_YV12;
    const guint planes = GST_VIDEO_FRAME_N_PLANES(&frame);
    for (guint i = 0; i < planes; ++i) {
        const guint target = swapped && i > 0 ? 3 - i : i;
        const int rows = i == 0 ? slot.height : (slot.height + 1) / 2;
        // Two planes: the second has a byte for U and one for V.
        const auto bytes = static_cast<size_t>(i == 0        ? slot.width
                                               : planes == 2 ? (slot.width + 1) / 2 * 2
                                                             : (slot.width + 1) / 2);
        const Table &table = i == 0 ? lumaTable() : chromaTable();
        const auto *from = static_cast<const uint8_t *>(GST_VIDEO_FRAME_PLANE_DATA(&frame, i));
        uint8_t *to = slot.planes[target];
        for (int y = 0; y < rows; ++y) {
            if (expand)
                std::transform(from, from + bytes, to, [&table](uint8_t value) { return table[value]; });
            else
                std::memcpy(to, from, bytes);
            from += GST_VIDEO_FRAME_PLANE_STRIDE(&frame, i);
            to += slot.strides[target];
        }
    }
}

} // namespace zevgst
