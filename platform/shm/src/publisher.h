// The publishing thread's part of a writer: which slot to fill, and how a filled one becomes visible.
//
// Threads: bound to the video thread. Ownership: borrows the store. Cost: no allocation, no lock, no system
// call but a futex wake when a reader waits and an eventfd write when slots run short; neither blocks. With
// DMA-bufs three more a frame: one asks whether a device still reads, and a slot where one does is passed
// over, so that the two that bracket the writes find nothing to wait for.
#ifndef SHM_PUBLISHER_H
#define SHM_PUBLISHER_H

#include "frame_order.h"
#include "interval_estimator.h"
#include "writer_store.h"

namespace shm {

class Publisher
{
public:
    Publisher(Store &store, const ClockSource &clock);

    // Who writes into a slot: a processor's writes into a DMA-buf are bracketed, a device's are its driver's,
    // and caches forget what they had before.
    enum class Filler : uint8_t { Processor, Device };

    int acquire(shm_writer_frame_t *frame, Filler filler);
    int publish(shm_writer_frame_t *frame, int64_t timestamp);
    void abandon(shm_writer_frame_t *frame);
    int publishCopy(const uint8_t *const planes[4], const int32_t strides[4], int64_t timestamp);

private:
    // A queue of slot numbers without allocation.
    class SlotQueue
    {
    public:
        explicit SlotQueue(uint32_t capacity) : m_slots(capacity) {}
        uint32_t size() const { return m_size; }
        void push(uint32_t slot)
        {
            m_slots[(m_head + m_size) % m_slots.size()] = slot;
            ++m_size;
        }
        uint32_t pop()
        {
            const uint32_t slot = m_slots[m_head];
            m_head = (m_head + 1) % static_cast<uint32_t>(m_slots.size());
            --m_size;
            return slot;
        }

    private:
        std::vector<uint32_t> m_slots;
        uint32_t m_head = 0;
        uint32_t m_size = 0;
    };

    enum class Lent : uint8_t { No, ToProcessor, ToDevice };
    int acquireSlot(Filler filler, uint32_t *slot);
    bool isLent(const shm_writer_frame_t &frame) const;
    // The slot is no longer lent. A processor's writes are at their end; a device's are there for readers
    // that map them: caches are the machine's, so that doing it once here serves every reader.
    void takeBack(uint32_t slot);
    int pickSlot();
    enum class Use { Free, Locked, Gone };
    Use tryUse(ReaderList::Scan &scan, uint32_t slot);
    void giveUp(uint32_t slot);
    void giveUpSurplus(ReaderList::Scan &scan);
    void takeReadySlots();
    void describe(uint32_t slot, shm_writer_frame_t *frame) const;
    void commit(uint32_t slot, int64_t timestamp, FrameOrder::Verdict verdict, const ClockReading &now);
    void enterHistory(uint32_t slot, uint64_t generation, int64_t timestamp, FrameOrder::Verdict verdict);
    void wakeWaiters();

    Store &m_store;
    const ClockSource &m_clock;
    SlotQueue m_free;    // not in the history; some of them may be locked by readers
    SlotQueue m_history; // oldest first
    // By slot. A lent slot is in neither queue and its generation is 0, so that no reader finds it: for the
    // protocol it is a slot whose publication takes long.
    std::vector<Lent> m_lent;
    uint32_t m_lentCount = 0;
    uint32_t m_readySeen = 0;
    uint64_t m_generation = 0;
    FrameOrder m_order;
    IntervalEstimator m_estimator;
};

} // namespace shm

#endif
