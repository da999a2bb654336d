// The words in which a reader tells what it holds: one for each lock, 0 while it is free.
//
// A word packs the frame's generation and its slot, so that it names one lock target for the whole session.
// The same frame locked twice is in two words. protocol.h tells how writer and reader use them; this is what
// they mean.
#ifndef SHM_LOCK_WORDS_H
#define SHM_LOCK_WORDS_H

#include "protocol.h"

#include <bitset>

namespace shm {

constexpr uint32_t kLockSlotBits = 9;
static_assert(kSlotCapacityMax == 1u << kLockSlotBits, "any word names a slot that exists or could");

// Beyond what a session publishes in a million years at 1,000 frames a second; a generation from a hostile
// index is compared with it before it is packed.
constexpr uint64_t kLockGenerationMax = UINT64_MAX >> kLockSlotBits;

// In a reader's own list: the lock is being given back. No generation is 0.
constexpr uint64_t kLockGoing = 1;

constexpr uint64_t lockWord(uint64_t generation, uint32_t slot)
{
    return generation << kLockSlotBits | slot;
}

constexpr uint32_t slotOfLock(uint64_t word)
{
    return static_cast<uint32_t>(word & (kSlotCapacityMax - 1));
}

using SlotSet = std::bitset<kSlotCapacityMax>;

// Adds the slots that the first `words` words of a page name to `slots`; returns how many words name one.
// The page is the reader's to write: whatever lies there, the answer stays within bounds. W2 of protocol.h.
inline uint32_t collectLocks(const ControlPage &page, uint32_t words, SlotSet *slots)
{
    uint32_t count = 0;
    for (uint32_t i = 0; i < words; ++i) {
        const uint64_t word = page.locks[i].load(std::memory_order_seq_cst);
        if (word == 0)
            continue;
        slots->set(slotOfLock(word));
        ++count;
    }
    return count;
}

} // namespace shm

#endif
