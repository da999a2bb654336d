// Turning pictures that were taken with the camera held sideways.
#ifndef ZEVSHM_TURN_H
#define ZEVSHM_TURN_H

#include <cstdint>
#include <optional>

namespace zevshm {

// What has to be done to a stored picture so that it stands upright, clockwise.
enum class Turn { None, Right, Half, Left };

// The turn for an angle in degrees, counter-clockwise as FFmpeg's av_display_rotation_get() tells it; nothing
// for angles between the quarters.
std::optional<Turn> turnFor(double degreesCounterClockwise);

constexpr bool swapsSides(Turn turn)
{
    return turn == Turn::Right || turn == Turn::Left;
}

// Copies a plane of `width` x `height` samples, turned: the target has `height` x `width` of them when the
// turn swaps the sides. Strides are in bytes; `sampleBytes` is 1, or 2 for the pairs of NV12's chroma.
// Threads: reentrant. Cost: one pass in tiles that fit the cache; no allocation.
void turnPlane(const uint8_t *source, int sourceStride, int width, int height, int sampleBytes, Turn turn,
               uint8_t *target, int targetStride);

} // namespace zevshm

#endif
