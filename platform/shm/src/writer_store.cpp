#include "writer_store.h"

#include "error.h"
#include "memory_check.h"

#include <grp.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace shm {
namespace {

constexpr uint32_t kFirstParamsSize = offsetof(shm_writer_params_t, memory) + sizeof(const char *); // bytes
constexpr uint32_t kParamsSizeMax = 4096; // bytes; beyond any record that is to come

// Which memory the frames lie in, and what can be said about its export before there is any.
int memoryPolicy(const shm_writer_params_t &params, StorePolicy *policy, shm_error_t *error)
{
    const std::string heapPrefix = "dma-heap:";
    const bool isHuge = (params.flags & SHM_WRITER_HUGE_PAGES) != 0;
    policy->memory = params.memory != nullptr ? params.memory : isHuge ? "huge" : "memfd";
    if (policy->memory == "memfd") {
        policy->dmabuf = "no: frames are in plain memory; publish with the memory kind udmabuf";
    } else if (policy->memory == "huge") {
        policy->memoryKind = kHugePages;
        policy->dmabuf = "no: frames are in huge pages; publish with the memory kind udmabuf";
    } else if (policy->memory == "udmabuf") {
        policy->memoryKind = kUdmabuf;
        policy->dmabuf = "yes";
    } else if (policy->memory.compare(0, heapPrefix.size(), heapPrefix) == 0 &&
               isHeapName(policy->memory.substr(heapPrefix.size()))) {
        policy->memoryKind = kDmaHeap;
        policy->heap = policy->memory.substr(heapPrefix.size());
        policy->dmabuf = "yes";
    } else if (policy->memory.compare(0, heapPrefix.size(), heapPrefix) == 0 &&
               policy->memory.size() > heapPrefix.size() + kHeapNameMax) {
        return fail(
            error, EINVAL,
            "DMA heap name \"%.64s\" is too long: %zu characters at most; have the device tree name it "
            "shorter, or choose another heap",
            params.memory + heapPrefix.size(), kHeapNameMax);
    } else {
        return fail(error, EINVAL,
                    "memory kind \"%s\" is unknown: memfd, udmabuf, dma-heap:NAME and huge exist",
                    params.memory);
    }
    if (isHuge && policy->memoryKind != kHugePages)
        return fail(error, EINVAL, "frames cannot lie in huge pages and in %s: choose one", params.memory);
    if (policy->memoryKind == kDmaHeap && (params.flags & SHM_WRITER_SEALED) != 0)
        return fail(error, EINVAL, "memory of a DMA heap cannot be sealed: choose the memory kind memfd");
    return 0;
}

int videoPolicy(const shm_writer_params_t &params, StorePolicy *policy, shm_error_t *error)
{
    if (params.width == 0 && params.height == 0)
        return 0;
    if (params.width < 1 || params.height < 1 || params.width > SHM_DIMENSION_MAX ||
        params.height > SHM_DIMENSION_MAX) {
        return fail(error, EINVAL,
                    "frame size %d x %d is out of range: 1 to %d pixels each, or 0 x 0 for no video",
                    params.width, params.height, SHM_DIMENSION_MAX);
    }
    policy->width = static_cast<uint32_t>(params.width);
    policy->height = static_cast<uint32_t>(params.height);
    policy->pixelFormat = static_cast<uint32_t>(params.pixel_format);
    policy->frame = frameLayout(policy->width, policy->height, policy->pixelFormat);
    if (policy->frame.planeCount == 0) {
        return fail(error, EINVAL, "pixel format %d is unknown: 1 (yuv420p), 2 (yvu420p) and 3 (nv12) exist",
                    params.pixel_format);
    }
    if ((params.rate_numerator == 0) != (params.rate_denominator == 0)) {
        return fail(error, EINVAL,
                    "frame rate %u/%u is no rate: give both numbers, or 0/0 when it is not known",
                    params.rate_numerator, params.rate_denominator);
    }
    policy->rateNumerator = params.rate_numerator;
    policy->rateDenominator = params.rate_denominator;
    policy->color = params.color;

    uint64_t page = kPage;
    const int result = memoryPolicy(params, policy, error);
    if (result != 0)
        return result;
    if (policy->memoryKind == kHugePages) {
        page = hugePageBytes();
        if (page == 0)
            return fail(error, ENOMEM, "this system has no huge pages: publish without them");
    }
    policy->slotBytes = (policy->frame.bytes + page - 1) / page * page;
    policy->historyFrames =
        params.history_frames != 0
            ? params.history_frames
            : defaultHistory(policy->slotBytes, params.rate_numerator, params.rate_denominator);
    policy->spareFrames = params.spare_frames != 0 ? params.spare_frames : 8;
    if (policy->historyFrames > SHM_FRAMES_MAX) {
        return fail(error, EINVAL, "history of %u frames is too long: %d at most", policy->historyFrames,
                    SHM_FRAMES_MAX);
    }
    policy->lentFrames = params.lent_frames != 0 ? params.lent_frames : 1;
    if (policy->lentFrames > SHM_LENT_MAX) {
        return fail(error, EINVAL, "%u lent frames are too many: %d at most", policy->lentFrames,
                    SHM_LENT_MAX);
    }
    const uint32_t spareMost = kSlotsMax - policy->historyFrames - (policy->lentFrames - 1);
    if (policy->spareFrames < 2 || policy->spareFrames > spareMost) {
        return fail(error, EINVAL, "%u spare frames do not fit: 2 to %u beside this history",
                    policy->spareFrames, spareMost);
    }
    policy->slotCount = policy->historyFrames + policy->spareFrames + policy->lentFrames - 1;
    policy->slotCapacity = 2 * policy->slotCount;
    return 0;
}

int audioPolicy(const shm_writer_params_t &params, StorePolicy *policy, shm_error_t *error)
{
    if (params.sample_rate == 0)
        return 0;
    if (params.sample_rate < 1 || params.sample_rate > static_cast<int32_t>(kSampleRateMax)) {
        return fail(error, EINVAL, "sample rate %d is out of range: 1 to %u, or 0 for no audio",
                    params.sample_rate, kSampleRateMax);
    }
    if (params.channels < 1 || params.channels > SHM_CHANNELS_MAX)
        return fail(error, EINVAL, "%d audio channels are out of range: 1 to %d", params.channels,
                    SHM_CHANNELS_MAX);
    const int32_t streams = params.audio_streams == 0 ? 1 : params.audio_streams;
    if (streams < 1 || streams > SHM_STREAMS_MAX)
        return fail(error, EINVAL, "%d audio streams are out of range: 1 to %d", streams, SHM_STREAMS_MAX);
    if (params.audio_history_ms < 0 || params.audio_history_ms > 60000) {
        return fail(error, EINVAL, "audio history of %d ms is out of range: up to 60000, or 0 for 2000",
                    params.audio_history_ms);
    }
    const int64_t historyMs = std::max(params.audio_history_ms, 2000);
    policy->audio.sampleRate = static_cast<uint32_t>(params.sample_rate);
    policy->audio.channels = static_cast<uint32_t>(params.channels);
    policy->audio.history = static_cast<uint32_t>((historyMs * params.sample_rate + 999) / 1000);
    policy->audio.capacity = audioCapacity(policy->audio.history);
    policy->audioStreams = static_cast<uint32_t>(streams);
    policy->audioBytes =
        audioLayout(policy->audio.capacity, policy->audio.channels, policy->audioStreams).bytes;
    return 0;
}

// Differs after every restart, so that nobody takes a frame of one life for one of the next.
uint64_t makeSession()
{
    uint64_t session = 0;
    if (getrandom(&session, sizeof session, 0) != static_cast<ssize_t>(sizeof session))
        session = static_cast<uint64_t>(monotonicUs()) << 16 ^ static_cast<uint64_t>(getpid());
    return session != 0 ? session : 1;
}

} // namespace

int readParams(const shm_writer_params_t *given, shm_writer_params_t *known, shm_error_t *error)
{
    const uint32_t size = given->size;
    if (size < kFirstParamsSize || size > kParamsSizeMax) {
        return fail(error, EINVAL,
                    "parameter record of %u bytes: it has not been through shm_writer_params_init", size);
    }
    *known = shm_writer_params_t{};
    std::memcpy(known, given, std::min<size_t>(size, sizeof *known));
    const auto *bytes = reinterpret_cast<const uint8_t *>(given);
    for (size_t i = sizeof *known; i < size; ++i) {
        if (bytes[i] != 0) {
            return fail(
                error, EINVAL,
                "the parameters ask for something that this libshm does not have yet: use a newer one");
        }
    }
    return 0;
}

int makePolicy(const shm_writer_params_t &params, StorePolicy *policy, shm_error_t *error)
{
    // NOLINTNEXTLINE(clang-analyzer-core.CallAndMessage): it cannot follow readParams() filling the record
    int result = shm_check_name(params.name, error);
    if (result != 0)
        return result;
    constexpr uint32_t known = SHM_WRITER_SEALED | SHM_WRITER_DMABUF_OTHERS | SHM_WRITER_HUGE_PAGES;
    if ((params.flags & ~known) != 0)
        return fail(error, EINVAL, "writer flags 0x%x are unknown: shm_writer.h has those that exist",
                    params.flags & ~known);
    policy->name = params.name;
    policy->flags = params.flags;
    if (params.group != nullptr) {
        // Thread-safe and without a limit on the group's size: the buffer grows until it fits.
        std::vector<char> buffer(4096);
        group entry{};
        group *found = nullptr;
        while (getgrnam_r(params.group, &entry, buffer.data(), buffer.size(), &found) == ERANGE)
            buffer.resize(buffer.size() * 2);
        if (found == nullptr)
            return fail(error, EINVAL, "group \"%s\" does not exist: create it or share with another",
                        params.group);
        policy->group = static_cast<long>(found->gr_gid);
    }
    result = videoPolicy(params, policy, error);
    if (result == 0)
        result = audioPolicy(params, policy, error);
    if (result != 0)
        return result;
    if (!policy->hasVideo() && !policy->hasAudio()) {
        return fail(error, EINVAL, "store \"%s\" would carry nothing: give a frame size or a sample rate",
                    params.name);
    }
    policy->indexBytes =
        indexLayout(policy->slotCapacity, policy->hasVideo() ? historyRing(policy->historyFrames) : 0).bytes;
    policy->session = makeSession();
    policy->startedUs = clockUs(CLOCK_REALTIME);
    return 0;
}

void Store::poke()
{
    if (pokeFd < 0 || poked.exchange(true, std::memory_order_acq_rel))
        return;
    const uint64_t one = 1;
    // Nothing to do about a failure: the service thread looks every 100 ms anyway.
    [[maybe_unused]] const ssize_t written = write(pokeFd, &one, sizeof one);
}

uint64_t Store::bytesWith(uint32_t slotsInUse) const
{
    return policy.indexBytes + policy.audioBytes + slotsInUse * policy.slotBytes;
}

std::string Store::dmabufText() const
{
    const int late = lateExportError.load(std::memory_order_relaxed);
    return late == 0 ? policy.dmabuf : lateExportFailure(late, policy.slotBytes);
}

// Before any reader is told, all or nothing: frames would take one way to the screen now and another then.
// Memory that is added later serves without a DMA-buf rather than not at all.
void Store::refuseExport(int code)
{
    if (readySlots.load(std::memory_order_relaxed) != 0) {
        lateExportError.store(code, std::memory_order_relaxed);
        return;
    }
    policy.memoryKind = kMemfd;
    policy.memory = "memfd";
    policy.dmabuf = exportFailure(code, policy.slotBytes);
    for (Slot &slot : slots)
        slot.memory.dmabuf.reset();
}

int Store::createSlot(uint32_t slot)
{
    const bool isSealed = (policy.flags & SHM_WRITER_SEALED) != 0;
    const unsigned seals = isSealed ? sealsForReadOnly() : sealsForShared();
    SharedMemory memory;
    int result = 0;
    int exported = 0;
    if (policy.memoryKind == kDmaHeap)
        result = createHeapMemory(&memory, policy.heap.c_str(), policy.slotBytes, *dmabufDevice);
    else if (policy.memoryKind == kUdmabuf)
        result =
            createExportedMemory(&memory, "shm-frame", policy.slotBytes, seals, *dmabufDevice, &exported);
    else
        result = createSharedMemory(&memory, "shm-frame", policy.slotBytes, policy.memoryKind, seals);
    if (result != 0)
        return result;
    if (exported != 0)
        refuseExport(exported);
    slots[slot].memory = std::move(memory);
    slots[slot].poisoned.store(false, std::memory_order_relaxed);
    ++slots[slot].memoryGeneration;
    index.metas[slot].memoryGeneration.store(slots[slot].memoryGeneration, std::memory_order_release);
    return 0;
}

int Store::create(shm_error_t *error)
{
    // Before anything is allocated: running out of memory in the middle takes others along.
    MemoryNeed need;
    need.bytes = bytesWith(policy.memoryKind == kHugePages ? 0 : policy.slotCount);
    need.hugeBytes = policy.memoryKind == kHugePages ? policy.slotCount * policy.slotBytes : 0;
    need.largestObject = std::max({policy.slotBytes, policy.audioBytes, policy.indexBytes});
    need.descriptors = policy.slotCount * (policy.isExported() ? 2u : 1u) + 16;
    int result = checkMemory(need, readMemoryFacts("/"), policy.name.c_str(), error);
    if (result != 0)
        return result;

    const auto failed = [&](const char *what, int code) {
        return fail(error, -code,
                    "store \"%s\": no memory for %s (%llu bytes in all): %s; keep fewer or smaller frames",
                    policy.name.c_str(), what, static_cast<unsigned long long>(bytesWith(policy.slotCount)),
                    std::strerror(-code));
    };
    result = createSharedMemory(&indexMemory, "shm-index", policy.indexBytes, kMemfd, sealsForReadOnly());
    if (result != 0)
        return failed("the index", result);
    const uint32_t ring = policy.hasVideo() ? historyRing(policy.historyFrames) : 0;
    index = indexView(indexMemory.mapping.data(), policy.slotCapacity, ring, policy.historyFrames);
    index.head->session.value.store(policy.session, std::memory_order_relaxed);
    index.head->first.value.store(1, std::memory_order_relaxed);
    index.head->heartbeat.value.store(monotonicUs(), std::memory_order_relaxed);
    index.head->slots.store(policy.slotCount, std::memory_order_relaxed);
    index.head->totalBytes.store(bytesWith(policy.slotCount), std::memory_order_relaxed);
    index.head->state.value.store(kStoreOpen, std::memory_order_release);
    if (policy.hasAudio()) {
        result = createSharedMemory(&audioMemory, "shm-audio", policy.audioBytes, kMemfd, sealsForReadOnly());
        if (result != 0)
            return failed("the audio", result);
    }
    slots = std::vector<Slot>(policy.slotCapacity);
    for (uint32_t s = 0; s < policy.slotCount; ++s) {
        result = createSlot(s);
        if (result != 0 && policy.memoryKind == kDmaHeap) {
            return fail(error, -result, "store \"%s\": %s", policy.name.c_str(),
                        heapFailure(result, policy.heap).c_str());
        }
        if (result != 0)
            return failed("the frames", result);
        slots[s].owner.store(SlotOwner::Ready, std::memory_order_release);
    }
    readySlots.store(policy.slotCount, std::memory_order_release);
    return 0;
}

} // namespace shm
