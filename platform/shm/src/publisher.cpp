#include "publisher.h"
#include "atomic.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>

namespace shm {

Publisher::Publisher(Store &store, const ClockSource &clock)
    : m_store(store), m_clock(clock), m_free(std::max<uint32_t>(store.policy.slotCapacity, 1)),
      m_history(std::max<uint32_t>(store.policy.slotCapacity, 1)), m_lent(store.policy.slotCapacity, Lent::No)
{}

void Publisher::takeReadySlots()
{
    const uint32_t ready = m_store.readySlots.load(std::memory_order_acquire);
    if (ready == m_readySeen)
        return;
    m_readySeen = ready;
    for (uint32_t s = 0; s < m_store.policy.slotCapacity; ++s) {
        if (m_store.slots[s].owner.load(std::memory_order_acquire) == SlotOwner::Ready) {
            m_store.slots[s].owner.store(SlotOwner::Pool, std::memory_order_relaxed);
            m_free.push(s);
        }
    }
}

void Publisher::giveUp(uint32_t slot)
{
    m_store.slots[slot].owner.store(SlotOwner::Returned, std::memory_order_release);
    m_store.poke();
}

Publisher::Use Publisher::tryUse(ReaderList::Scan &scan, uint32_t slot)
{
    // W1 and W2 of protocol.h.
    m_store.index.generations[slot].value.store(0, std::memory_order_seq_cst);
    SHM_STEP("publish: slot closed");
    if (scan.locked(slot))
        return Use::Locked;
    // After the locks: a reader that is cut off has its slots poisoned before it leaves the list.
    if (m_store.slots[slot].poisoned.load(std::memory_order_seq_cst)) {
        giveUp(slot);
        return Use::Gone;
    }
    // A device may read on for a moment after its reader's lock. To be waited for by nobody.
    const UniqueFd &dmabuf = m_store.slots[slot].memory.dmabuf;
    if (dmabuf && !m_store.dmabufDevice->isIdle(dmabuf.get()))
        return Use::Locked;
    return Use::Free;
}

// One slot at a time of those that were added while readers pinned others, and never one of the original
// number: the service thread may have counted one that was given up before it said how many are too many.
void Publisher::giveUpSurplus(ReaderList::Scan &scan)
{
    const uint32_t found = 1; // to be filled now
    if (m_free.size() + m_history.size() + m_lentCount + found <= m_store.policy.slotCount)
        return;
    uint32_t surplus = m_store.surplusSlots.load(std::memory_order_relaxed);
    // The service thread may set it to 0 meanwhile.
    if (surplus == 0 ||
        !m_store.surplusSlots.compare_exchange_strong(surplus, surplus - 1, std::memory_order_relaxed)) {
        return;
    }
    const uint32_t slot = m_free.pop();
    // While some memory is without a DMA-buf, that is what there is too much of.
    if (m_store.slots[slot].memory.dmabuf && m_store.lateExportError.load(std::memory_order_relaxed) != 0) {
        m_free.push(slot);
        return;
    }
    const Use use = tryUse(scan, slot);
    if (use == Use::Free)
        giveUp(slot);
    else if (use == Use::Locked)
        m_free.push(slot);
}

int Publisher::pickSlot()
{
    takeReadySlots();
    ReaderList::Scan scan(m_store.readers);
    const uint32_t candidates = m_free.size();
    const uint32_t low = std::max<uint32_t>(2, m_store.policy.spareFrames / 2);
    uint32_t lockedSlots = 0;
    int found = -1;
    for (uint32_t i = 0; i < candidates && found < 0; ++i) {
        const uint32_t slot = m_free.pop();
        const Use use = tryUse(scan, slot);
        if (use == Use::Locked) {
            m_free.push(slot);
            ++lockedSlots;
        } else if (use == Use::Free) {
            found = static_cast<int>(slot);
        }
    }
    if (found >= 0 && m_free.size() > lockedSlots)
        giveUpSurplus(scan);
    // Those not looked at may be locked too; enough of them and nobody needs to count.
    if (lockedSlots > 0 && m_free.size() - lockedSlots < low)
        m_store.poke();
    return found;
}

int Publisher::acquireSlot(Filler filler, uint32_t *slot)
{
    if (!m_store.policy.hasVideo())
        return -EINVAL;
    if (m_lentCount >= m_store.policy.lentFrames)
        return -EBUSY;
    const int found = pickSlot();
    SHM_STEP("publish: slot chosen");
    if (found < 0) {
        m_store.index.head->dropped.fetch_add(1, std::memory_order_relaxed);
        m_store.poke();
        return -EAGAIN;
    }
    *slot = static_cast<uint32_t>(found);
    m_lent[*slot] = filler == Filler::Device ? Lent::ToDevice : Lent::ToProcessor;
    m_store.lentSlots.store(++m_lentCount, std::memory_order_relaxed);
    const UniqueFd &dmabuf = m_store.slots[*slot].memory.dmabuf;
    if (dmabuf && filler == Filler::Processor)
        m_store.dmabufDevice->beginWrite(dmabuf.get());
    return 0;
}

bool Publisher::isLent(const shm_writer_frame_t &frame) const
{
    return frame.slot >= 0 && static_cast<size_t>(frame.slot) < m_lent.size() &&
           m_lent[static_cast<size_t>(frame.slot)] != Lent::No;
}

void Publisher::takeBack(uint32_t slot)
{
    const UniqueFd &dmabuf = m_store.slots[slot].memory.dmabuf;
    if (dmabuf && m_lent[slot] == Lent::ToProcessor)
        m_store.dmabufDevice->endWrite(dmabuf.get());
    else if (dmabuf)
        m_store.dmabufDevice->takeDeviceWrites(dmabuf.get());
    m_lent[slot] = Lent::No;
    m_store.lentSlots.store(--m_lentCount, std::memory_order_relaxed);
}

void Publisher::describe(uint32_t slot, shm_writer_frame_t *frame) const
{
    const FrameLayout &layout = m_store.policy.frame;
    const SharedMemory &memory = m_store.slots[slot].memory;
    *frame = shm_writer_frame_t{};
    for (uint32_t p = 0; p < layout.planeCount; ++p) {
        frame->planes[p] = memory.mapping.data() + layout.planes[p].offset;
        frame->strides[p] = static_cast<int32_t>(layout.planes[p].stride);
        frame->plane_offsets[p] = static_cast<int64_t>(layout.planes[p].offset);
    }
    frame->width = static_cast<int32_t>(m_store.policy.width);
    frame->height = static_cast<int32_t>(m_store.policy.height);
    frame->slot = static_cast<int32_t>(slot);
    frame->memory_fd = memory.dmabuf ? memory.dmabuf.get() : memory.fd.get();
    frame->memory_generation = m_store.slots[slot].memoryGeneration;
}

int Publisher::acquire(shm_writer_frame_t *frame, Filler filler)
{
    *frame = shm_writer_frame_t{};
    frame->memory_fd = -1;
    frame->slot = -1;
    uint32_t slot = 0;
    const int result = acquireSlot(filler, &slot);
    if (result == 0)
        describe(slot, frame);
    return result;
}

void Publisher::abandon(shm_writer_frame_t *frame)
{
    if (!isLent(*frame))
        return;
    const auto slot = static_cast<uint32_t>(frame->slot);
    takeBack(slot);
    m_free.push(slot);
    *frame = shm_writer_frame_t{};
    frame->memory_fd = -1;
    frame->slot = -1;
}

int Publisher::publish(shm_writer_frame_t *frame, int64_t timestamp)
{
    if (!isLent(*frame))
        return -EINVAL;
    const ClockReading now = m_clock.read();
    const FrameOrder::Verdict verdict = m_order.judge(timestamp, now);
    if (verdict == FrameOrder::Verdict::Refuse) {
        m_store.index.head->refused.fetch_add(1, std::memory_order_relaxed);
        abandon(frame);
        return -EEXIST;
    }
    commit(static_cast<uint32_t>(frame->slot), timestamp, verdict, now);
    *frame = shm_writer_frame_t{};
    frame->memory_fd = -1;
    frame->slot = -1;
    return 0;
}

int Publisher::publishCopy(const uint8_t *const planes[4], const int32_t strides[4], int64_t timestamp)
{
    const FrameLayout &layout = m_store.policy.frame;
    if (layout.planeCount == 0)
        return -EINVAL;
    for (uint32_t p = 0; p < layout.planeCount; ++p) {
        const int64_t stride = strides[p];
        if (planes[p] == nullptr || (stride < 0 ? -stride : stride) < layout.planes[p].rowBytes)
            return -EINVAL;
    }
    // Before the copy: a refused frame costs nothing, and takes no slot.
    const ClockReading now = m_clock.read();
    const FrameOrder::Verdict verdict = m_order.judge(timestamp, now);
    if (verdict == FrameOrder::Verdict::Refuse) {
        m_store.index.head->refused.fetch_add(1, std::memory_order_relaxed);
        return -EEXIST;
    }
    uint32_t slot = 0;
    const int result = acquireSlot(Filler::Processor, &slot);
    if (result != 0)
        return result;
    uint8_t *const base = m_store.slots[slot].memory.mapping.data();
    for (uint32_t p = 0; p < layout.planeCount; ++p) {
        const PlaneLayout &plane = layout.planes[p];
        const uint8_t *source = planes[p];
        uint8_t *target = base + plane.offset;
        if (strides[p] == static_cast<int32_t>(plane.stride)) {
            std::memcpy(target, source, size_t{plane.stride} * (plane.rows - 1) + plane.rowBytes);
            continue;
        }
        for (uint32_t row = 0; row < plane.rows; ++row, source += strides[p], target += plane.stride)
            std::memcpy(target, source, plane.rowBytes);
    }
    commit(slot, timestamp, verdict, now);
    return 0;
}

void Publisher::commit(uint32_t slot, int64_t timestamp, FrameOrder::Verdict verdict, const ClockReading &now)
{
    takeBack(slot);
    IndexHead &head = *m_store.index.head;
    const uint64_t generation = ++m_generation;
    SlotMeta &meta = m_store.index.metas[slot];
    meta.timestamp.store(timestamp, std::memory_order_relaxed);
    meta.publishedUs.store(now.monotonicUs, std::memory_order_relaxed);
    meta.color.store(packColor(m_store.policy.color), std::memory_order_relaxed);
    SHM_STEP("publish: described");
    m_store.index.generations[slot].value.store(generation, std::memory_order_release); // W4
    SHM_STEP("publish: readable");

    enterHistory(slot, generation, timestamp, verdict);
    m_order.accepted(timestamp, verdict);
    if (verdict == FrameOrder::Verdict::Restart)
        m_estimator.reset();
    m_estimator.add(timestamp);
    const IntervalEstimator::Estimate estimate = m_estimator.estimate();
    int64_t interval = estimate.intervalUs;
    if (m_store.policy.rateNumerator != 0) {
        interval = std::llround(1e6 * m_store.policy.rateDenominator / m_store.policy.rateNumerator);
    }
    head.intervalUs.store(interval, std::memory_order_relaxed);
    head.jitterUs.store(estimate.jitterUs, std::memory_order_relaxed);
    head.published.fetch_add(1, std::memory_order_relaxed);
    head.heartbeat.value.store(monotonicUs(), std::memory_order_release);
    wakeWaiters();
}

void Publisher::enterHistory(uint32_t slot, uint64_t generation, int64_t timestamp,
                             FrameOrder::Verdict verdict)
{
    HistoryEntry &entry = m_store.index.history[generation & (m_store.index.ring - 1)];
    entry.generation.store(0, std::memory_order_relaxed);
    SHM_STEP("publish: history entry open");
    entry.timestamp.store(timestamp, std::memory_order_release);
    entry.slot.store(slot, std::memory_order_release);
    entry.generation.store(generation, std::memory_order_release);

    IndexHead &head = *m_store.index.head;
    if (verdict == FrameOrder::Verdict::Restart) {
        // Before `newest`: who sees this frame must not see those of the old time beside it.
        head.first.value.store(generation, std::memory_order_release);
        while (m_history.size() > 0)
            m_free.push(m_history.pop());
    }
    SHM_STEP("publish: in the history");
    head.newest.value.store(generation, std::memory_order_release);
    SHM_STEP("publish: newest");
    m_history.push(slot);
    if (m_history.size() > m_store.policy.historyFrames)
        m_free.push(m_history.pop());
}

void Publisher::wakeWaiters()
{
    IndexHead &head = *m_store.index.head;
    // A waiter announces itself before it compares this word, in the kernel: it sees the new value or is
    // woken.
    head.wake.value.store(static_cast<uint32_t>(m_generation), std::memory_order_seq_cst);
    const ReaderList::Scan scan(m_store.readers);
    if (scan.anyWaiting())
        syscall(SYS_futex, &head.wake.value, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

} // namespace shm
