#include "turn.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace zevshm {

namespace {

// Rows of the source become columns of the target: in tiles, each line of the cache is used whole.
constexpr int tile = 32;

template <typename Sample>
void turnSamples(const uint8_t *source, int sourceStride, int width, int height, Turn turn, uint8_t *target,
                 int targetStride)
{
    const auto row = [](auto *plane, int stride, int y) { return plane + std::ptrdiff_t{stride} * y; };
    for (int top = 0; top < height; top += tile) {
        for (int left = 0; left < width; left += tile) {
            for (int y = top; y < std::min(top + tile, height); ++y) {
                const auto *from = reinterpret_cast<const Sample *>(row(source, sourceStride, y));
                for (int x = left; x < std::min(left + tile, width); ++x) {
                    const int toX = turn == Turn::Right  ? height - 1 - y
                                    : turn == Turn::Left ? y
                                                         : width - 1 - x;
                    const int toY = turn == Turn::Right  ? x
                                    : turn == Turn::Left ? width - 1 - x
                                                         : height - 1 - y;
                    reinterpret_cast<Sample *>(row(target, targetStride, toY))[toX] = from[x];
                }
            }
        }
    }
}

struct Pair
{
    uint8_t u, v;
};

} // namespace

std::optional<Turn> turnFor(double degreesCounterClockwise)
{
    if (!std::isfinite(degreesCounterClockwise))
        return std::nullopt;
    const double quarters = degreesCounterClockwise / 90;
    const double whole = std::round(quarters);
    if (std::abs(quarters - whole) > 0.01)
        return std::nullopt;
    constexpr Turn turns[] = {Turn::None, Turn::Left, Turn::Half, Turn::Right};
    return turns[(static_cast<int>(whole) % 4 + 4) % 4];
}

void turnPlane(const uint8_t *source, int sourceStride, int width, int height, int sampleBytes, Turn turn,
               uint8_t *target, int targetStride)
{
    if (turn == Turn::None) {
        for (int y = 0; y < height; ++y)
            std::copy_n(source + std::ptrdiff_t{sourceStride} * y,
                        std::size_t(width) * std::size_t(sampleBytes),
                        target + std::ptrdiff_t{targetStride} * y);
    } else if (sampleBytes == 2) {
        turnSamples<Pair>(source, sourceStride, width, height, turn, target, targetStride);
    } else {
        turnSamples<uint8_t>(source, sourceStride, width, height, turn, target, targetStride);
    }
}

} // namespace zevshm
