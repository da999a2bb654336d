// What crosses processes: the layouts in shared memory and the messages on the socket.
//
// Rules for everything in this file: fixed widths, no pointers, no bool, no padding that carries data, one
// hot variable a cache line. Whatever a process reads from here may have been written by a hostile peer: it
// is loaded once into a local, checked, and then used. A change of any layout raises kProtocolVersion.
//
// Index (one per store; the writer's mapping is the only one that can write):
//
//      0 | session                    what this memory belongs to
//     64 | heartbeat                  monotonic microseconds, every 100 ms and with every frame
//    128 | state                      1 open, 2 closed by its writer
//    192 | newest                     generation of the newest frame, 0 = none
//    256 | first                      generation of the oldest frame since the history (re)started
//    320 | wake                       futex word: low half of newest
//    384 | interval, jitter           microseconds
//    448 | published, dropped, refused
//    512 | readers, locks, slots, bytes, wish      written by the service thread; capture
//   1024 | gen[slotCapacity]          64 bytes each
//      + | meta[slotCapacity]         64 bytes each
//      + | history[historyRing]       32 bytes each, historyRing a power of two
//
// Control page (one per reader; both sides write, one variable each):
//
//      0 | revoked                    the writer ended this connection: lock nothing more
//     64 | wish                       numerator << 32 | denominator
//    128 | waiting                    threads in shm_reader_wait_video
//   1024 | locks[64]                  8 bytes each: generation << 9 | slot, 0 = free; lock_words.h
//
// Audio (one per store, streams one after the other, each a head of one page and its samples):
//
//      0 | intent                     64 | end           128 | first
//    192 | anchorCount               256 | published
//   1024 | anchors[64]                32 bytes each
//   4096 | samples                    interleaved, frame n at (n mod capacity)
//
// Why the four accesses of lock and publish are sequentially consistent
//
// `w` is a word of the reader that is free, (g, s) what lock_words.h packs.
//
//   reader                                     writer
//   R1  w = (g, s)               (seq_cst)     W1  gen[s] = 0                  (seq_cst)
//   R2  gen[s] == g ?            (seq_cst)     W2  every word of all readers   (seq_cst)
//   R3  read the pixels                        W3  none names s: write the pixels
//   R4  w: (g, s) -> 0           (release)     W4  gen[s] = g'                 (release)
//
// All seq_cst operations have one order that everybody agrees on. Were R2 to see g (before W1) and W2 to read
// w before R1, that order would be R2 < W1 < W2 < R1 < R2, a circle. So either the reader sees that the slot
// is gone, or the writer sees the lock. With W1 a mere release store, W2 may be answered before W1 has left
// the store buffer:
//
//   1. W1 waits in the writer's store buffer         2. W2 reads w = 0
//   3. R1 w = (g, s), R2 reads the old g: locked     4. W1 leaves the buffer; W3 writes what the reader reads
//
// With R1 a mere release store it is the reader's buffer: R2 reads g while R1 waits, W1 and W2 find nothing,
// then R1 leaves the buffer.
//
// W2 reads many words one after the other, and locks come and go meanwhile. Reader: w5 = (g, s) is held;
// w2 = (g, s) is locked as well; w5 = 0. Were W2 to read w2 before and w5 after, it would find neither. But
// then W1 < W2 < R1 of w2, so its R2 finds gen[s] = 0 and the second lock fails: what W1 did not close was in
// its word before W2 began. Hence W2 begins after W1 of the very slot that is to be filled: words that were
// read for one slot say of another only that it is locked, never that it is free.
//
// The list of readers is part of W2: a reader is listed (seq_cst) before its control page is sent. In the
// reverse order a reader could lock between the two, unseen. A reader that is cut off while it lives (it pins
// too much) is treated the same way: `revoked` is stored (seq_cst) before its locks are counted, and the
// reader looks at it (seq_cst) after R1.
#ifndef SHM_PROTOCOL_H
#define SHM_PROTOCOL_H

#include "atomic.h"

#include <shm/shm_types.h>

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace shm {

constexpr uint32_t kProtocolMagic = 0x316d6873; // "shm1" in memory
constexpr uint32_t kProtocolVersion = 2;

constexpr uint64_t kPage = 4096;
constexpr uint32_t kSlotsMax = 256;        // history and spare slots of a store
constexpr uint32_t kSlotCapacityMax = 512; // the same with those that replace pinned ones
constexpr uint32_t kReadersMax = 256;
constexpr uint32_t kLocksMax = 64; // frames that one reader handle may hold
constexpr uint32_t kDefaultLocks = 8;
constexpr uint32_t kSampleRateMax = 768000;
constexpr uint32_t kAudioAnchors = 64;
constexpr uint64_t kSlotBytesMax = uint64_t{1} << 31;
constexpr uint64_t kAudioBytesMax = uint64_t{1} << 32;

constexpr int64_t kHeartbeatUs = 100000;
constexpr int64_t kStaleUs = 1000000;

template <class T>
struct alignas(64) Line
{
    Atomic<T> value;
};

static_assert(std::atomic<uint8_t>::is_always_lock_free && std::atomic<uint32_t>::is_always_lock_free &&
                  std::atomic<uint64_t>::is_always_lock_free && std::atomic<int64_t>::is_always_lock_free,
              "an atomic that takes a lock cannot be shared between processes");

enum StoreState : uint32_t { kStoreOpen = 1, kStoreClosed = 2 };

struct IndexHead
{
    Line<uint64_t> session;
    Line<int64_t> heartbeat;
    Line<uint32_t> state;
    Line<uint64_t> newest;
    Line<uint64_t> first;
    Line<uint32_t> wake;
    alignas(64) Atomic<int64_t> intervalUs;
    Atomic<int64_t> jitterUs;
    alignas(64) Atomic<uint64_t> published;
    Atomic<uint64_t> dropped;
    Atomic<uint64_t> refused;
    alignas(64) Atomic<uint32_t> readers;
    Atomic<uint32_t> locksHeld;
    Atomic<uint32_t> slots;
    Atomic<uint32_t> capture; // shm_capture; written by who publishes
    Atomic<uint64_t> totalBytes;
    Atomic<uint64_t> wish; // numerator << 32 | denominator, 0 = none
};
static_assert(std::is_standard_layout_v<IndexHead> && sizeof(IndexHead) == 576 && alignof(IndexHead) == 64);
static_assert(offsetof(IndexHead, heartbeat) == 64 && offsetof(IndexHead, state) == 128);
static_assert(offsetof(IndexHead, newest) == 192 && offsetof(IndexHead, first) == 256);
static_assert(offsetof(IndexHead, wake) == 320 && offsetof(IndexHead, intervalUs) == 384);
static_assert(offsetof(IndexHead, published) == 448 && offsetof(IndexHead, readers) == 512);
constexpr uint64_t kIndexSlots = 1024;

// gen[s]: 0 = not readable; g > 0 = frame g lies in the slot. Rises for the whole session.
using SlotGeneration = Line<uint64_t>;
static_assert(sizeof(SlotGeneration) == 64);

// What lies in the slot; written while gen[s] is 0.
struct alignas(64) SlotMeta
{
    Atomic<int64_t> timestamp;
    Atomic<int64_t> publishedUs; // monotonic
    Atomic<uint32_t> memoryGeneration;
    Atomic<uint32_t> color; // matrix | range << 8 | transfer << 16 | siting << 24
};
static_assert(sizeof(SlotMeta) == 64);

// Frame g lies at history[g mod historyRing]. Written: generation = 0, then the others (release), then
// generation = g (release). Read: the others (acquire), then generation, which must be g: whoever has seen a
// newer value of the others also sees that generation has changed.
struct HistoryEntry
{
    Atomic<uint64_t> generation;
    Atomic<int64_t> timestamp;
    Atomic<uint32_t> slot;
    Atomic<uint32_t> reserved[3];
};
static_assert(sizeof(HistoryEntry) == 32);

struct ControlPage
{
    Line<uint32_t> revoked;
    Line<uint64_t> wish;
    Line<uint32_t> waiting;
    uint8_t reserved[1024 - 3 * 64];
    Atomic<uint64_t> locks[kLocksMax];
    uint8_t rest[kPage - 1024 - sizeof(Atomic<uint64_t>) * kLocksMax];
};
static_assert(std::is_standard_layout_v<ControlPage> && sizeof(ControlPage) == kPage);
static_assert(offsetof(ControlPage, wish) == 64 && offsetof(ControlPage, waiting) == 128 &&
              offsetof(ControlPage, locks) == 1024);

// Sample `sample` of the stream is of the time `timestamp`; so are those that follow, up to the next anchor.
// Anchor n (from 1) lies at anchors[n mod kAudioAnchors], with `number` written like
// HistoryEntry::generation.
struct AudioAnchor
{
    Atomic<uint64_t> number;
    Atomic<uint64_t> sample;
    Atomic<int64_t> timestamp;
    Atomic<uint64_t> reserved;
};
static_assert(sizeof(AudioAnchor) == 32);

struct AudioHead
{
    Line<uint64_t> intent; // audio frames up to which the samples may be changing
    Line<uint64_t> end;    // audio frames written
    Line<uint64_t> first;  // audio frames before it are of another time line
    Line<uint64_t> anchorCount;
    Line<uint64_t> published;
    uint8_t reserved[1024 - 5 * 64];
    AudioAnchor anchors[kAudioAnchors];
    uint8_t rest[kPage - 1024 - sizeof(AudioAnchor) * kAudioAnchors];
};
static_assert(std::is_standard_layout_v<AudioHead> && sizeof(AudioHead) == kPage);
static_assert(offsetof(AudioHead, end) == 64 && offsetof(AudioHead, anchors) == 1024);

// Messages. One message is one packet; descriptors travel beside it.

enum MessageType : uint32_t {
    kHello = 1,   // reader: first thing it says
    kWelcome = 2, // writer: the layout; index, control page and, with audio, audio memory
    kSlots = 3,   // writer: memory of slots, one descriptor for each entry with a memory generation
    kReady = 4,   // writer: the handshake is complete
    kRefused = 5, // writer: why not; then it hangs up
    // Only between a reader that asks and a writer whose welcome said "yes" to it.
    kWantDmabufs = 6, // reader: send the DMA-bufs of slots, those to come as well
    kDmabufs = 7      // writer: DMA-bufs of slots, one descriptor for each entry; after the slots they are of
};

struct MessageHeader
{
    uint32_t magic;
    uint32_t version;
    uint32_t type;
    uint32_t length; // of the whole message
};
static_assert(sizeof(MessageHeader) == 16);

struct HelloMessage
{
    MessageHeader header;
    uint32_t maxLocks;
    uint32_t reserved[3];
};
static_assert(sizeof(HelloMessage) == 32);

enum MemoryKind : uint32_t {
    kMemfd = 1,
    kHugePages = 2,
    kUdmabuf = 3, // memfds that are DMA-bufs as well
    kDmaHeap = 4  // DMA-bufs of a heap; no seals
};

enum WelcomeFlags : uint32_t {
    kSealedFrames = 1u,  // nobody but the writer writes pixels
    kReadOnlyFrames = 2u // the descriptors of this reader are read-only
};

struct WelcomeMessage
{
    MessageHeader header;
    uint64_t session;
    int64_t startedUs; // wall clock
    uint64_t indexBytes;
    uint64_t slotBytes;
    uint64_t audioBytes;
    uint64_t offsets[4]; // of the planes in a slot, in the record's order
    uint32_t strides[4];
    uint32_t planeCount;
    uint32_t width;
    uint32_t height;
    uint32_t pixelFormat;
    uint32_t historyFrames;
    uint32_t historyRing;
    uint32_t slotCapacity;
    uint32_t memoryKind;
    uint32_t flags;
    uint32_t rateNumerator;
    uint32_t rateDenominator;
    uint32_t color; // like SlotMeta::color
    uint32_t sampleRate;
    uint32_t channels;
    uint32_t audioStreams;
    uint32_t audioCapacity; // audio frames in the ring
    uint32_t audioHistory;  // of which a reader may count on
    uint32_t reserved;
    char dmabuf[128]; // "yes", "yes, but ...", else why frames have no DMA-buf
    char memory[32];  // the kind in words: "memfd", "dma-heap:system"
};
static_assert(std::is_trivially_copyable_v<WelcomeMessage> && sizeof(WelcomeMessage) == 336);

constexpr uint32_t kSlotsPerMessage = 32;

struct SlotEntry
{
    uint32_t slot;
    uint32_t memoryGeneration; // 0: the slot has no memory any more
};

struct SlotsMessage
{
    MessageHeader header;
    uint32_t count;
    uint32_t reserved;
    SlotEntry entries[kSlotsPerMessage];
};
static_assert(sizeof(SlotsMessage) == 24 + 8 * kSlotsPerMessage);

struct WantDmabufsMessage
{
    MessageHeader header;
};

struct DmabufsMessage
{
    MessageHeader header;
    uint32_t count;    // 0 when there is nothing to be had
    uint32_t complete; // 1: all that there are now have been sent
    SlotEntry entries[kSlotsPerMessage];
};
static_assert(sizeof(DmabufsMessage) == 24 + 8 * kSlotsPerMessage);

struct ReadyMessage
{
    MessageHeader header;
};

struct RefusedMessage
{
    MessageHeader header;
    int32_t code; // positive errno
    uint32_t reserved;
    char text[200];
};
static_assert(sizeof(RefusedMessage) == 224);

constexpr size_t kMessageMax = 352;
static_assert(sizeof(WelcomeMessage) <= kMessageMax && sizeof(SlotsMessage) <= kMessageMax &&
              sizeof(RefusedMessage) <= kMessageMax);

// Fences of the audio ring, whose samples are plain memory. ThreadSanitizer does not know fences, but it does
// not see the two mappings of one memory as the same either.
#if defined(__SANITIZE_THREAD__) && defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wtsan"
#endif
inline void releaseFence()
{
    std::atomic_thread_fence(std::memory_order_release);
}
inline void acquireFence()
{
    std::atomic_thread_fence(std::memory_order_acquire);
}
#if defined(__SANITIZE_THREAD__) && defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

inline uint32_t packColor(const shm_color_t &color)
{
    return static_cast<uint32_t>(color.matrix) | static_cast<uint32_t>(color.range) << 8 |
           static_cast<uint32_t>(color.transfer) << 16 | static_cast<uint32_t>(color.siting) << 24;
}

inline shm_color_t unpackColor(uint32_t packed)
{
    shm_color_t color;
    color.matrix = static_cast<uint8_t>(packed);
    color.range = static_cast<uint8_t>(packed >> 8);
    color.transfer = static_cast<uint8_t>(packed >> 16);
    color.siting = static_cast<uint8_t>(packed >> 24);
    return color;
}

} // namespace shm

#endif
