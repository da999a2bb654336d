// Locking frames.
#include "atomic.h"
#include "clock.h"
#include "error.h"
#include "history.h"
#include "lock_words.h"
#include "process_id.h"
#include "reader.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

using namespace shm;

namespace {

// A writer has to publish a whole history during each look to outrun this many.
constexpr int kLookups = 16;

int64_t knownInterval(const IndexView &index)
{
    const int64_t interval = index.head->intervalUs.load(std::memory_order_relaxed);
    return std::clamp<int64_t>(interval, 0, int64_t{3600} * 1000000);
}

} // namespace

void shm_reader::videoStatus(shm_video_status_t *status) const
{
    const IndexHead &head = *m_index.head;
    status->live = 1;
    if (!hasVideo())
        return;
    for (int i = 0; i < kLookups; ++i) {
        const HistoryRange range = historyRange(m_index);
        if (range.newest == 0)
            break;
        if (range.empty())
            continue;
        // Both ends by generation, so that they belong to one moment.
        FoundFrame oldest;
        FoundFrame newest;
        if (!readHistoryEntry(m_index, range.oldest, &oldest) ||
            !readHistoryEntry(m_index, range.newest, &newest))
            continue;
        status->frames_held = static_cast<int32_t>(range.newest - range.oldest + 1);
        status->oldest_timestamp = oldest.timestamp;
        status->newest_timestamp = newest.timestamp;
        break;
    }
    status->frame_interval_us = knownInterval(m_index);
    status->jitter_us = std::max<int64_t>(head.jitterUs.load(std::memory_order_relaxed), 0);
    status->frames_published = head.published.load(std::memory_order_relaxed);
    status->frames_dropped = head.dropped.load(std::memory_order_relaxed);
}

int shm_reader::timestamps(long long *timestamps, int capacity) const
{
    return hasVideo() ? historyTimestamps(m_index, timestamps, capacity) : 0;
}

// Makes ready what the records of all frames in this slot have in common while its memory stays; false when
// the memory that the writer speaks of is not the one we have been given.
bool shm_reader::describeSlot(uint32_t slot, uint32_t memoryGeneration)
{
    const SlotMapping &memory = m_connection.slots[slot];
    if (memory.memoryGeneration != memoryGeneration)
        return false;
    shm_video_frame_t &described = m_described[slot].record;
    described = m_describedAll;
    for (uint32_t p = 0; p < m_connection.layout.planeCount; ++p)
        described.planes[p] = memory.mapping.data() + m_describedAll.plane_offsets[p];
    described.slot = static_cast<uint16_t>(slot);
    described.memory_generation = memoryGeneration;
    return true;
}

void shm_reader::describe(uint32_t slot, uint64_t generation, shm_video_frame_t *frame) const
{
    const SlotMeta &meta = m_index.metas[slot];
    const shm_color_t color = unpackColor(meta.color.load(std::memory_order_relaxed));
    *frame = m_described[slot].record;
    frame->timestamp = meta.timestamp.load(std::memory_order_relaxed);
    frame->matrix = color.matrix;
    frame->range = color.range;
    frame->generation = generation;
}

uint32_t shm_reader::freeWord() const
{
    // Acquire: what was read before an unlock in another thread comes before what the writer finds in this
    // word next.
    for (uint32_t i = 0; i < m_maxLocks; ++i) {
        if (m_held[i].load(std::memory_order_acquire) == 0)
            return i;
    }
    return kLocksMax;
}

shm_reader::Attempt shm_reader::tryLock(uint64_t generation, uint32_t slot, uint32_t entry,
                                        shm_video_frame_t *frame)
{
    if (slot >= m_connection.layout.slotCapacity || generation == 0 || generation > kLockGenerationMax)
        return Attempt::NoFrame; // the index is nonsense
    const Atomic<uint64_t> &current = m_index.generations[slot].value;
    const uint64_t word = lockWord(generation, slot);

    Atomic<uint64_t> &lock = m_control->locks[entry];

    lock.store(word, std::memory_order_seq_cst); // R1 of protocol.h
    SHM_STEP("lock: named");
    if (current.load(std::memory_order_seq_cst) != generation) { // R2
        lock.store(0, std::memory_order_release);
        return Attempt::Retry;
    }
    const bool revoked = m_control->revoked.value.load(std::memory_order_seq_cst) != 0;
    const uint32_t memory = m_index.metas[slot].memoryGeneration.load(std::memory_order_relaxed);
    if (revoked || memory == 0 ||
        (memory != m_described[slot].record.memory_generation && !describeSlot(slot, memory))) {
        lock.store(0, std::memory_order_release);
        if (revoked)
            return Attempt::NoFrame;
        // Memory that we have not been given yet; if its message has come, the frame can be had after all.
        if (!pollConnection()) {
            m_gone = true; // a message that is taken and not understood does not come again
            return Attempt::NoFrame;
        }
        return memory == m_connection.slots[slot].memoryGeneration ? Attempt::Retry : Attempt::NoFrame;
    }
    describe(slot, generation, frame);
    m_lastSlot = slot;
    m_lastMemory = memory;
    SHM_STEP("lock: described");
    m_held[entry].store(word, std::memory_order_release);
    SHM_STEP("lock: held");
    return Attempt::Locked;
}

// Frees one word that holds `word`, which one of several locks of the same frame does not matter. False when
// there is none: the lock was given back before.
//
// Other threads give back too, and the locking thread fills words meanwhile, behind the place where this one
// looks. One pass is enough all the same: from any place on there are at least as many words of this frame as
// there are threads that look for one from there on. That is so when a look begins, since every lock has its
// word; and it stays so when a look passes a word of another frame, takes one, or finds one taken, and when a
// word is filled.
bool shm_reader::giveBack(uint64_t word)
{
    for (uint32_t i = 0; i < m_maxLocks; ++i) {
        uint64_t expected = word;
        if (m_held[i].load(std::memory_order_acquire) != word ||
            !m_held[i].compare_exchange_strong(expected, kLockGoing, std::memory_order_acq_rel,
                                               std::memory_order_acquire)) {
            continue;
        }
        SHM_STEP("unlock: taken");
        m_control->locks[i].store(0, std::memory_order_release); // R4
        SHM_STEP("unlock: word free");
        m_held[i].store(0, std::memory_order_release); // the locking thread may fill it again
        return true;
    }
    return false;
}

int shm_reader::lock(shm_video_frame_t *frame, shm_video_lookup_mode_t mode)
{
    if (!hasVideo())
        return -ENOENT;
    const uint32_t entry = freeWord();
    if (entry == kLocksMax)
        return -EBUSY;

    const int64_t asked = frame->timestamp;
    const int64_t limit = mode == SHM_VIDEO_NEAREST ? nearestLimitUs(knownInterval(m_index)) : 0;
    FoundFrame found;
    for (int i = 0; i < kLookups; ++i) {
        const Lookup result = findFrame(m_index, mode, asked, limit, &m_lookupHint, &found);
        if (result == Lookup::None)
            return -ENOENT;
        if (result == Lookup::Moved)
            continue;
        const Attempt attempt = tryLock(found.generation, found.slot, entry, frame);
        if (attempt == Attempt::Locked)
            return 0;
        if (attempt == Attempt::NoFrame)
            return -ENOENT;
    }
    return -ENOENT;
}

void shm_reader::unlock(shm_video_frame_t *frame)
{
    if (!mine()) {
        frame->planes[0] = nullptr;
        return;
    }
    if (frame->planes[0] == nullptr || frame->session != m_connection.layout.session ||
        frame->generation == 0 || frame->generation > kLockGenerationMax ||
        frame->slot >= m_connection.layout.slotCapacity) {
        return;
    }
    if (giveBack(lockWord(frame->generation, frame->slot)))
        frame->planes[0] = nullptr;
}

int shm_reader::waitVideo(uint64_t after, int timeoutMs)
{
    if (!hasVideo())
        return -EINVAL;
    // A writer that is killed wakes nobody, so the connection is looked at now and then.
    constexpr int64_t kSliceUs = 50000;
    const int64_t deadline = monotonicUs() + int64_t{timeoutMs} * 1000;
    IndexHead &head = *m_index.head;
    while (true) {
        const uint32_t word = head.wake.value.load(std::memory_order_acquire);
        if (head.newest.value.load(std::memory_order_acquire) > after)
            return 0;
        if (!live(Look::Now))
            return -ENODEV;
        const int64_t left = deadline - monotonicUs();
        if (left <= 0)
            return -ETIMEDOUT;
        const int64_t slice = std::min(left, kSliceUs);
        const timespec limit = {slice / 1000000, (slice % 1000000) * 1000};
        m_control->waiting.value.store(1, std::memory_order_seq_cst);
        // Not private: the word is in another process's memory too.
        syscall(SYS_futex, &head.wake.value, FUTEX_WAIT, word, &limit, nullptr, 0);
        m_control->waiting.value.store(0, std::memory_order_seq_cst);
    }
}
