#include "handshake_check.h"

#include "layout.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace shm {
namespace {

int refuse(const char **why, const char *reason)
{
    *why = reason;
    return -EPROTO;
}

// The text goes to terminals and logs.
void cleanText(char *text, size_t size)
{
    text[size - 1] = '\0';
    for (char *c = text; *c != '\0'; ++c) {
        if (*c < 0x20 || *c > 0x7e)
            *c = '?';
    }
}

bool planesDisjoint(const WelcomeMessage &message, const FrameLayout &geometry)
{
    for (uint32_t a = 0; a < geometry.planeCount; ++a) {
        const uint64_t endA = message.offsets[a] + uint64_t{message.strides[a]} * geometry.planes[a].rows;
        for (uint32_t b = a + 1; b < geometry.planeCount; ++b) {
            const uint64_t endB = message.offsets[b] + uint64_t{message.strides[b]} * geometry.planes[b].rows;
            if (message.offsets[a] < endB && message.offsets[b] < endA)
                return false;
        }
    }
    return true;
}

int checkVideo(const WelcomeMessage &message, const char **why)
{
    if (message.pixelFormat == SHM_PIXEL_FORMAT_NONE) {
        if (message.width != 0 || message.height != 0 || message.planeCount != 0 || message.slotBytes != 0 ||
            message.slotCapacity != 0 || message.historyFrames != 0 || message.historyRing != 0) {
            return refuse(why, "frames are described although there is no video");
        }
        return 0;
    }
    if (message.pixelFormat > SHM_PIXEL_FORMAT_NV12)
        return refuse(why, "the pixel format is unknown");
    const FrameLayout geometry = frameGeometry(message.width, message.height, message.pixelFormat);
    if (geometry.planeCount == 0)
        return refuse(why, "the frame size is out of range");
    if (message.planeCount != geometry.planeCount)
        return refuse(why, "the number of planes does not fit the pixel format");
    const uint64_t page = message.memoryKind == kHugePages ? uint64_t{64} << 10 : kPage;
    if (message.slotBytes == 0 || message.slotBytes > kSlotBytesMax || message.slotBytes % page != 0)
        return refuse(why, "the slot size is out of range");
    for (uint32_t p = 0; p < 4; ++p) {
        if (p >= geometry.planeCount) {
            if (message.strides[p] != 0 || message.offsets[p] != 0)
                return refuse(why, "a plane is described that is not there");
            continue;
        }
        // A stride fits an int32 in the frame record.
        if (message.strides[p] < geometry.planes[p].rowBytes || message.strides[p] > (1u << 20))
            return refuse(why, "a stride is out of range");
        const uint64_t bytes = uint64_t{message.strides[p]} * geometry.planes[p].rows;
        if (message.offsets[p] > message.slotBytes || bytes > message.slotBytes - message.offsets[p])
            return refuse(why, "a plane reaches beyond its slot");
    }
    if (!planesDisjoint(message, geometry))
        return refuse(why, "planes overlap");
    if (message.historyFrames == 0 || message.historyFrames > SHM_FRAMES_MAX)
        return refuse(why, "the history is out of range");
    if (message.historyRing != historyRing(message.historyFrames))
        return refuse(why, "the history's ring does not fit the history");
    if (message.slotCapacity <= message.historyFrames || message.slotCapacity > kSlotCapacityMax)
        return refuse(why, "the number of slots is out of range");
    return 0;
}

int checkAudio(const WelcomeMessage &message, size_t fdCount, const char **why)
{
    if (message.audioStreams == 0) {
        if (message.sampleRate != 0 || message.channels != 0 || message.audioCapacity != 0 ||
            message.audioHistory != 0 || message.audioBytes != 0) {
            return refuse(why, "samples are described although there is no audio");
        }
    } else {
        if (message.audioStreams > SHM_STREAMS_MAX)
            return refuse(why, "the number of audio streams is out of range");
        if (message.channels == 0 || message.channels > SHM_CHANNELS_MAX)
            return refuse(why, "the number of channels is out of range");
        if (message.sampleRate == 0 || message.sampleRate > kSampleRateMax)
            return refuse(why, "the sample rate is out of range");
        if (message.audioHistory == 0 || message.audioCapacity <= message.audioHistory ||
            message.audioCapacity > (1u << 30)) {
            return refuse(why, "the audio history is out of range");
        }
        const AudioLayout layout = audioLayout(message.audioCapacity, message.channels, message.audioStreams);
        if (message.audioBytes != layout.bytes || message.audioBytes > kAudioBytesMax)
            return refuse(why, "the audio memory is not of the size that its format takes");
    }
    if (fdCount != (message.audioStreams == 0 ? 2u : 3u))
        return refuse(why, "the welcome came with the wrong number of descriptors");
    return 0;
}

} // namespace

int checkWelcome(const void *bytes, size_t length, size_t fdCount, WelcomeMessage *checked, const char **why)
{
    MessageHeader header;
    if (length < sizeof header)
        return refuse(why, "the welcome is too short");
    std::memcpy(&header, bytes, sizeof header);
    if (header.magic != kProtocolMagic || header.type != kWelcome)
        return refuse(why, "the first message is no welcome");
    if (header.version != kProtocolVersion) {
        *why = "it speaks another version of the protocol: update the older of the two programs";
        return -EPROTONOSUPPORT;
    }
    if (length != sizeof(WelcomeMessage) || header.length != length)
        return refuse(why, "the welcome has the wrong size");
    WelcomeMessage message;
    std::memcpy(&message, bytes, sizeof message);

    if (message.session == 0)
        return refuse(why, "the session is missing");
    if (message.memoryKind < kMemfd || message.memoryKind > kDmaHeap)
        return refuse(why, "the kind of memory is unknown");
    if ((message.flags & ~(kSealedFrames | kReadOnlyFrames)) != 0)
        return refuse(why, "a flag is unknown");
    if ((message.rateNumerator == 0) != (message.rateDenominator == 0))
        return refuse(why, "the rate is half a rate");
    if (message.pixelFormat == SHM_PIXEL_FORMAT_NONE && message.audioStreams == 0)
        return refuse(why, "the store carries nothing");
    int result = checkVideo(message, why);
    if (result == 0)
        result = checkAudio(message, fdCount, why);
    if (result != 0)
        return result;
    const IndexLayout index = indexLayout(message.slotCapacity, message.historyRing);
    if (message.indexBytes != index.bytes)
        return refuse(why, "the index is not of the size that its contents take");
    cleanText(message.dmabuf, sizeof message.dmabuf);
    cleanText(message.memory, sizeof message.memory);
    *checked = message;
    return 0;
}

int checkSlots(const void *bytes, size_t length, size_t fdCount, uint32_t slotCapacity, SlotsMessage *checked,
               const char **why)
{
    if (length != sizeof(SlotsMessage))
        return refuse(why, "the list of slots has the wrong size");
    SlotsMessage message;
    std::memcpy(&message, bytes, sizeof message);
    if (message.header.magic != kProtocolMagic || message.header.version != kProtocolVersion ||
        message.header.type != kSlots || message.header.length != length) {
        return refuse(why, "the list of slots has a wrong header");
    }
    if (message.count == 0 || message.count > kSlotsPerMessage)
        return refuse(why, "the list of slots has a wrong count");
    size_t withMemory = 0;
    for (uint32_t i = 0; i < message.count; ++i) {
        if (message.entries[i].slot >= slotCapacity)
            return refuse(why, "a slot is out of range");
        for (uint32_t k = 0; k < i; ++k) {
            if (message.entries[k].slot == message.entries[i].slot)
                return refuse(why, "a slot is listed twice");
        }
        withMemory += message.entries[i].memoryGeneration != 0 ? 1 : 0;
    }
    if (withMemory != fdCount)
        return refuse(why, "the list of slots came with the wrong number of descriptors");
    *checked = message;
    return 0;
}

int checkDmabufs(const void *bytes, size_t length, size_t fdCount, uint32_t slotCapacity,
                 DmabufsMessage *checked, const char **why)
{
    if (length != sizeof(DmabufsMessage))
        return refuse(why, "the list of DMA-bufs has the wrong size");
    DmabufsMessage message;
    std::memcpy(&message, bytes, sizeof message);
    if (message.header.magic != kProtocolMagic || message.header.version != kProtocolVersion ||
        message.header.type != kDmabufs || message.header.length != length) {
        return refuse(why, "the list of DMA-bufs has a wrong header");
    }
    if (message.count > kSlotsPerMessage || message.complete > 1 ||
        (message.count == 0 && message.complete == 0))
        return refuse(why, "the list of DMA-bufs has a wrong count");
    for (uint32_t i = 0; i < message.count; ++i) {
        if (message.entries[i].slot >= slotCapacity || message.entries[i].memoryGeneration == 0)
            return refuse(why, "a slot with a DMA-buf is out of range");
        for (uint32_t k = 0; k < i; ++k) {
            if (message.entries[k].slot == message.entries[i].slot)
                return refuse(why, "a slot with a DMA-buf is listed twice");
        }
    }
    if (message.count != fdCount)
        return refuse(why, "the list of DMA-bufs came with the wrong number of descriptors");
    *checked = message;
    return 0;
}

void checkRefused(const void *bytes, size_t length, RefusedMessage *checked)
{
    *checked = RefusedMessage{};
    std::memcpy(checked, bytes, std::min(length, sizeof *checked));
    cleanText(checked->text, sizeof checked->text);
    if (checked->code <= 0 || checked->code > 4095)
        checked->code = EPROTO;
}

} // namespace shm
