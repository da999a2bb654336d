// What the threads of a writer share: policy, memory, index, readers, and who owns which slot.
#ifndef SHM_WRITER_STORE_H
#define SHM_WRITER_STORE_H

#include "audio_ring.h"
#include "layout.h"
#include "memory.h"
#include "reader_list.h"

#include <shm/shm_writer.h>

#include <array>
#include <string>
#include <vector>

namespace shm {

// The writer's own copy of everything that was decided at open; never read back from shared memory.
struct StorePolicy
{
    std::string name;
    long group = -1; // readers of this group are served as well
    uint32_t flags = 0;
    MemoryKind memoryKind = kMemfd;
    std::string memory = "memfd"; // the kind in words
    std::string heap;             // of kDmaHeap
    std::string dmabuf;           // "yes", else why frames have no DMA-buf; Store::dmabufText() says it
    uint64_t session = 0;
    int64_t startedUs = 0; // wall clock

    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t pixelFormat = SHM_PIXEL_FORMAT_NONE;
    FrameLayout frame{};
    uint64_t slotBytes = 0; // frame.bytes, rounded up to the pages it lies in
    shm_color_t color{};
    uint32_t rateNumerator = 0;
    uint32_t rateDenominator = 0;
    uint32_t historyFrames = 0;
    uint32_t spareFrames = 0;
    uint32_t lentFrames = 1;   // slots that may be filled at once
    uint32_t slotCount = 0;    // history, spare, and those lent beyond the first
    uint32_t slotCapacity = 0; // twice that: room for what replaces pinned slots

    AudioFormat audio;
    uint32_t audioStreams = 0;

    uint64_t indexBytes = 0;
    uint64_t audioBytes = 0;

    bool hasVideo() const { return slotCount != 0; }
    bool isExported() const { return memoryKind == kUdmabuf || memoryKind == kDmaHeap; }
    bool hasAudio() const { return audioStreams != 0; }
};

// The parameters of a program that may have been built with an older or a newer record, as this library knows
// them. Refuses what is not a record, and what asks for more than this library has.
int readParams(const shm_writer_params_t *given, shm_writer_params_t *known, shm_error_t *error);

// Checks `params` and derives the policy. Returns 0 or a negative errno with `error` filled.
int makePolicy(const shm_writer_params_t &params, StorePolicy *policy, shm_error_t *error);

// Who may touch a slot. Handed on with release and acquire:
//   Empty -> (service: fresh memory) -> Ready -> (publisher) -> Pool -> (publisher) -> Returned -> (service)
//   -> Empty
enum class SlotOwner : uint8_t {
    Empty,   // service thread: no memory
    Ready,   // service thread has prepared it, the publisher may take it
    Pool,    // publisher: in the history, free, or being filled
    Returned // publisher has given it up, the service thread frees its memory
};

struct Slot
{
    Atomic<SlotOwner> owner{SlotOwner::Empty};
    // A reader that was cut off while it lives may go on looking at this memory: never write it again.
    Atomic<bool> poisoned{false};
    SharedMemory memory;           // owner's
    uint32_t memoryGeneration = 0; // service thread writes it while Empty; 0 = never had memory
};

// Counters of the publisher that others read.
struct StoreCounters
{
    Atomic<uint64_t> disconnected{0};
    Atomic<uint64_t> replaced{0};
};

struct Store
{
    StorePolicy policy;
    SharedMemory indexMemory;
    SharedMemory audioMemory;
    IndexView index;
    ReaderList readers;
    std::vector<Slot> slots; // slotCapacity of them
    DmabufDevice *dmabufDevice = &systemDmabufDevice();
    StoreCounters counters;

    Atomic<uint32_t> lentSlots{0};    // that are being filled now
    Atomic<uint32_t> readySlots{0};   // rises with every slot that becomes Ready
    Atomic<uint32_t> surplusSlots{0}; // how many the publisher may give up
    int pokeFd = -1;                  // borrowed: wakes the service thread
    Atomic<bool> poked{false};
    Atomic<int> lateExportError{0}; // why memory in use is without a DMA-buf although others have one

    // Wakes the service thread; never waits.
    void poke();

    // Bytes of all shared memory with `slots` slots.
    uint64_t bytesWith(uint32_t slotsInUse) const;

    // "yes", else why frames, or those in some of the memory, have no DMA-buf. Any thread.
    std::string dmabufText() const;

    // Creates index, audio and the first slots. Returns 0 or a negative errno with `error` filled.
    int create(shm_error_t *error);
    // Gives `slot` memory. Service thread's, or before there is one.
    int createSlot(uint32_t slot);

private:
    void refuseExport(int code);
};

} // namespace shm

#endif
