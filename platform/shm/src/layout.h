// Where things lie: planes in a slot, parts of the index, streams in the audio memory. Pure functions; the
// writer builds with them and the reader checks what it was told against them.
#ifndef SHM_LAYOUT_H
#define SHM_LAYOUT_H

#include "protocol.h"

namespace shm {

struct PlaneLayout
{
    uint32_t rowBytes; // bytes of a row that carry samples
    uint32_t rows;
    uint32_t stride; // bytes
    uint64_t offset; // bytes from the start of the slot
};

struct FrameLayout
{
    uint32_t planeCount; // 0: no such format
    PlaneLayout planes[4];
    uint64_t bytes; // multiple of kPage
};

// rowBytes and rows only, in the record's order (Y, U, V or Y, UV).
FrameLayout frameGeometry(uint32_t width, uint32_t height, uint32_t pixelFormat);

// The layout that this writer uses: planes start on pages; strides are multiples of 256 (NV12), 512 for luma
// and 256 for chroma (planar), so that GPUs import them and a planar chroma stride is half the luma stride.
FrameLayout frameLayout(uint32_t width, uint32_t height, uint32_t pixelFormat);

// Frames of 0.75 s (of 60 frames a second while the rate is not known), at most 256 MiB of them, at least 8.
uint32_t defaultHistory(uint64_t slotBytes, uint32_t rateNumerator, uint32_t rateDenominator);

// Entries of the history's ring: twice the history, so that a reader that was interrupted for less than a
// whole history still finds its entries unchanged. A power of two.
uint32_t historyRing(uint32_t historyFrames);

struct IndexLayout
{
    uint64_t generations;
    uint64_t metas;
    uint64_t history;
    uint64_t bytes; // multiple of kPage
};
IndexLayout indexLayout(uint32_t slotCapacity, uint32_t ring);

struct AudioLayout
{
    uint32_t capacity;    // audio frames in the ring
    uint64_t streamBytes; // multiple of kPage
    uint64_t bytes;
};
AudioLayout audioLayout(uint32_t capacity, uint32_t channels, uint32_t streams);
// An eighth more than the audio frames that readers may count on: that much may be changing while they read.
uint32_t audioCapacity(uint32_t historyFrames);

// The index of a store, in either side's mapping of it.
struct IndexView
{
    IndexHead *head = nullptr;
    SlotGeneration *generations = nullptr;
    SlotMeta *metas = nullptr;
    HistoryEntry *history = nullptr;
    uint32_t ring = 0;
    uint32_t historyFrames = 0;
};
IndexView indexView(uint8_t *memory, uint32_t slotCapacity, uint32_t ring, uint32_t historyFrames);

} // namespace shm

#endif
