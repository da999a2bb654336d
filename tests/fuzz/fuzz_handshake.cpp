// What a writer says in the handshake, as the reader examines it before it maps anything.
//
// The first three bytes say which message it is taken for, how many descriptors came and how many slots there
// are; the rest is the message. Whatever passes must keep what the mapping and the locking code rely on; that
// is computed here anew, in wider arithmetic.
#include "handshake_check.h"
#include "layout.h"

#include <cstdlib>
#include <cstring>

using namespace shm;

namespace {

void require(bool condition)
{
    if (!condition)
        std::abort();
}

void requirePlanesInside(const WelcomeMessage &message)
{
    using Wide = unsigned __int128;
    const FrameLayout geometry = frameGeometry(message.width, message.height, message.pixelFormat);
    require(message.planeCount == geometry.planeCount && geometry.planeCount <= 4);
    for (uint32_t a = 0; a < geometry.planeCount; ++a) {
        const Wide begin = message.offsets[a];
        const Wide end = begin + Wide{message.strides[a]} * geometry.planes[a].rows;
        require(message.strides[a] >= geometry.planes[a].rowBytes && end <= message.slotBytes);
        for (uint32_t b = a + 1; b < geometry.planeCount; ++b) {
            const Wide otherBegin = message.offsets[b];
            const Wide otherEnd = otherBegin + Wide{message.strides[b]} * geometry.planes[b].rows;
            require(end <= otherBegin || otherEnd <= begin);
        }
    }
}

void requireUsable(const WelcomeMessage &message, size_t descriptors)
{
    require(descriptors == (message.audioStreams != 0 ? 3u : 2u));
    require(message.slotCapacity <= kSlotCapacityMax && message.slotBytes <= kSlotBytesMax);
    require(message.indexBytes >= kIndexSlots && message.indexBytes % kPage == 0);
    const uint64_t entries = uint64_t{message.slotCapacity} * (sizeof(SlotGeneration) + sizeof(SlotMeta)) +
                             uint64_t{message.historyRing} * sizeof(HistoryEntry);
    require(kIndexSlots + entries <= message.indexBytes);
    if (message.pixelFormat != SHM_PIXEL_FORMAT_NONE) {
        // A ring index is computed with a mask.
        require((message.historyRing & (message.historyRing - 1)) == 0 &&
                message.historyRing > message.historyFrames);
        requirePlanesInside(message);
    }
    if (message.audioStreams != 0) {
        require(message.channels >= 1 && message.channels <= SHM_CHANNELS_MAX && message.sampleRate >= 1);
        require(message.audioCapacity > message.audioHistory);
        const uint64_t stream = message.audioBytes / message.audioStreams;
        require(sizeof(AudioHead) + uint64_t{message.audioCapacity} * message.channels * 2 <= stream);
    }
    require(std::memchr(message.dmabuf, 0, sizeof message.dmabuf) != nullptr &&
            std::memchr(message.memory, 0, sizeof message.memory) != nullptr);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 3)
        return 0;
    const size_t descriptors = data[1] % 40;
    const uint32_t capacity = data[2] * 2;
    const uint8_t *message = data + 3;
    const size_t length = size - 3;
    const char *why = nullptr;
    switch (data[0] % 4) {
    case 0: {
        WelcomeMessage checked;
        if (checkWelcome(message, length, descriptors, &checked, &why) == 0)
            requireUsable(checked, descriptors);
        else
            require(why != nullptr);
        break;
    }
    case 1: {
        SlotsMessage checked;
        if (checkSlots(message, length, descriptors, capacity, &checked, &why) == 0) {
            size_t memories = 0;
            for (uint32_t i = 0; i < checked.count; ++i) {
                require(checked.entries[i].slot < capacity);
                memories += checked.entries[i].memoryGeneration != 0 ? 1 : 0;
            }
            require(memories == descriptors);
        }
        break;
    }
    case 2: {
        DmabufsMessage checked;
        if (checkDmabufs(message, length, descriptors, capacity, &checked, &why) == 0) {
            require(checked.count == descriptors);
            for (uint32_t i = 0; i < checked.count; ++i)
                require(checked.entries[i].slot < capacity);
        }
        break;
    }
    default: {
        RefusedMessage checked;
        checkRefused(message, length, &checked);
        require(checked.code > 0 && std::memchr(checked.text, 0, sizeof checked.text) != nullptr);
        break;
    }
    }
    return 0;
}
