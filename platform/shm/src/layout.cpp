#include "layout.h"

#include <algorithm>

namespace shm {
namespace {

uint64_t roundUp(uint64_t value, uint64_t unit)
{
    return (value + unit - 1) / unit * unit;
}

} // namespace

FrameLayout frameGeometry(uint32_t width, uint32_t height, uint32_t pixelFormat)
{
    FrameLayout layout{};
    if (width == 0 || height == 0 || width > SHM_DIMENSION_MAX || height > SHM_DIMENSION_MAX)
        return layout;
    const uint32_t chromaWidth = (width + 1) / 2;
    const uint32_t chromaHeight = (height + 1) / 2;
    switch (pixelFormat) {
    case SHM_PIXEL_FORMAT_YUV420P:
    case SHM_PIXEL_FORMAT_YVU420P:
        layout.planeCount = 3;
        layout.planes[0] = {width, height, 0, 0};
        layout.planes[1] = {chromaWidth, chromaHeight, 0, 0};
        layout.planes[2] = layout.planes[1];
        break;
    case SHM_PIXEL_FORMAT_NV12:
        layout.planeCount = 2;
        layout.planes[0] = {width, height, 0, 0};
        layout.planes[1] = {2 * chromaWidth, chromaHeight, 0, 0};
        break;
    default:
        break;
    }
    return layout;
}

FrameLayout frameLayout(uint32_t width, uint32_t height, uint32_t pixelFormat)
{
    FrameLayout layout = frameGeometry(width, height, pixelFormat);
    if (layout.planeCount == 0)
        return layout;
    const bool planar = layout.planeCount == 3;
    for (uint32_t p = 0; p < layout.planeCount; ++p) {
        const uint64_t unit = planar && p == 0 ? 512 : 256;
        layout.planes[p].stride = static_cast<uint32_t>(roundUp(layout.planes[p].rowBytes, unit));
    }
    // In memory V comes before U in the second planar format; the record's order stays Y, U, V.
    const uint32_t memoryOrder[3] = {0, pixelFormat == SHM_PIXEL_FORMAT_YVU420P ? 2u : 1u,
                                     pixelFormat == SHM_PIXEL_FORMAT_YVU420P ? 1u : 2u};
    uint64_t offset = 0;
    for (uint32_t i = 0; i < layout.planeCount; ++i) {
        PlaneLayout &plane = layout.planes[memoryOrder[i]];
        plane.offset = offset;
        offset += roundUp(uint64_t{plane.stride} * plane.rows, kPage);
    }
    layout.bytes = offset;
    return layout;
}

uint32_t defaultHistory(uint64_t slotBytes, uint32_t rateNumerator, uint32_t rateDenominator)
{
    uint64_t frames = 45;
    if (rateNumerator != 0 && rateDenominator != 0) {
        const uint64_t unit = uint64_t{rateDenominator} * 4;
        frames = (uint64_t{rateNumerator} * 3 + unit - 1) / unit;
    }
    const uint64_t fit = slotBytes == 0 ? frames : (uint64_t{256} << 20) / slotBytes;
    frames = std::min(frames, fit);
    return static_cast<uint32_t>(std::clamp<uint64_t>(frames, 8, SHM_FRAMES_MAX));
}

uint32_t historyRing(uint32_t historyFrames)
{
    uint32_t ring = 16;
    while (ring < 2 * historyFrames)
        ring *= 2;
    return ring;
}

IndexLayout indexLayout(uint32_t slotCapacity, uint32_t ring)
{
    IndexLayout layout{};
    layout.generations = kIndexSlots;
    layout.metas = layout.generations + uint64_t{slotCapacity} * sizeof(SlotGeneration);
    layout.history = layout.metas + uint64_t{slotCapacity} * sizeof(SlotMeta);
    layout.bytes = roundUp(layout.history + uint64_t{ring} * sizeof(HistoryEntry), kPage);
    return layout;
}

uint32_t audioCapacity(uint32_t historyFrames)
{
    return historyFrames + std::max<uint32_t>(historyFrames / 8, 1024);
}

AudioLayout audioLayout(uint32_t capacity, uint32_t channels, uint32_t streams)
{
    AudioLayout layout{};
    layout.capacity = capacity;
    layout.streamBytes = sizeof(AudioHead) + roundUp(uint64_t{capacity} * channels * sizeof(int16_t), kPage);
    layout.bytes = layout.streamBytes * streams;
    return layout;
}

IndexView indexView(uint8_t *memory, uint32_t slotCapacity, uint32_t ring, uint32_t historyFrames)
{
    const IndexLayout layout = indexLayout(slotCapacity, ring);
    IndexView view;
    view.head = reinterpret_cast<IndexHead *>(memory);
    view.generations = reinterpret_cast<SlotGeneration *>(memory + layout.generations);
    view.metas = reinterpret_cast<SlotMeta *>(memory + layout.metas);
    view.history = reinterpret_cast<HistoryEntry *>(memory + layout.history);
    view.ring = ring;
    view.historyFrames = historyFrames;
    return view;
}

} // namespace shm
