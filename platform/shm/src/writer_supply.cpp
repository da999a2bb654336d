// The service thread's care for free slots: fresh memory before readers pin the last one.
//
// A slot is free when it is not in the history, no reader locks it and it is not being filled. Below half the
// spare slots, fresh ones are added until twice the original number; there the reader that pins most is cut
// off. Above, what was added is taken back. What was lost with such a reader is replaced, so that there are
// as many as at first. A pinned slot is never written: its readers keep it as long as they like.
#include "atomic.h"
#include "memory_check.h"
#include "writer_service.h"

#include <algorithm>

namespace shm {

bool WriterService::inHistory(uint32_t slot) const
{
    const uint64_t generation = m_store.index.generations[slot].value.load(std::memory_order_acquire);
    if (generation == 0)
        return false;
    const uint64_t newest = m_store.index.head->newest.value.load(std::memory_order_acquire);
    return generation + m_store.policy.historyFrames > newest &&
           generation >= m_store.index.head->first.value.load(std::memory_order_acquire);
}

uint32_t WriterService::collectLocks(const Connection &connection, SlotSet *slots)
{
    if (connection.listed < 0)
        return 0;
    const auto *page = reinterpret_cast<const ControlPage *>(connection.control.mapping.data());
    return shm::collectLocks(*page, connection.maxLocks, slots);
}

SlotSet WriterService::lockedSlots() const
{
    SlotSet locked;
    for (const auto &connection : m_connections) {
        if (connection)
            collectLocks(*connection, &locked);
    }
    return locked;
}

WriterService::Census WriterService::census() const
{
    Census census;
    SlotSet outside;
    for (uint32_t s = 0; s < m_store.policy.slotCapacity; ++s)
        outside[s] = !inHistory(s);
    SlotSet locked;
    for (size_t i = 0; i < m_connections.size(); ++i) {
        if (!m_connections[i])
            continue;
        SlotSet mine;
        census.locks += collectLocks(*m_connections[i], &mine);
        locked |= mine;
        const auto pins = static_cast<uint32_t>((mine & outside).count());
        if (pins > census.worstPins) {
            census.worst = i;
            census.worstPins = pins;
        }
    }
    for (uint32_t s = 0; s < m_store.policy.slotCapacity; ++s) {
        const SlotOwner owner = m_store.slots[s].owner.load(std::memory_order_acquire);
        if (m_store.slots[s].memory.fd) {
            ++census.populated;
            census.unexported += m_store.slots[s].memory.dmabuf ? 0 : 1;
        }
        const bool usable = owner == SlotOwner::Ready || owner == SlotOwner::Pool;
        const bool poisoned = m_store.slots[s].poisoned.load(std::memory_order_relaxed);
        if (usable && outside[s] && !locked[s] && !poisoned)
            ++census.freeSlots;
        if (poisoned && !locked[s] && owner != SlotOwner::Empty)
            ++census.comingSlots;
    }
    // Neither in the history nor locked are those that are being filled, too. One of them has its place among
    // the spare ones, what is lent beyond it does not.
    const uint32_t lent = m_store.lentSlots.load(std::memory_order_relaxed);
    census.freeSlots -= std::min(census.freeSlots, lent > 1 ? lent - 1 : 0);
    return census;
}

void WriterService::freeReturnedSlots()
{
    SlotSet returned;
    for (uint32_t s = 0; s < m_store.policy.slotCapacity; ++s)
        returned[s] = m_store.slots[s].owner.load(std::memory_order_acquire) == SlotOwner::Returned;
    if (returned.none())
        return;
    // A lock of a reader that is still listed keeps the number in use: its word names the number. No new one
    // comes, since the generation of a returned slot is 0.
    const SlotSet free = returned & ~lockedSlots();
    for (uint32_t s = 0; s < m_store.policy.slotCapacity; ++s) {
        if (!free[s])
            continue;
        Slot &slot = m_store.slots[s];
        slot.memory = SharedMemory{};
        SHM_STEP("supply: memory freed");
        slot.owner.store(SlotOwner::Empty, std::memory_order_relaxed);
    }
}

bool WriterService::addSlot()
{
    MemoryNeed need;
    (m_store.policy.memoryKind == kHugePages ? need.hugeBytes : need.bytes) = m_store.policy.slotBytes;
    need.descriptors = m_store.policy.isExported() ? 2 : 1;
    if (checkMemory(need, readMemoryFacts("/"), m_store.policy.name.c_str(), nullptr) != 0)
        return false;
    for (uint32_t s = 0; s < m_store.policy.slotCapacity; ++s) {
        Slot &slot = m_store.slots[s];
        if (slot.owner.load(std::memory_order_relaxed) != SlotOwner::Empty)
            continue;
        if (m_store.createSlot(s) != 0)
            return false;
        SHM_STEP("supply: fresh memory");
        // Told to the readers first, so that they rarely meet a frame in memory that they do not have.
        for (size_t i = 0; i < m_connections.size(); ++i) {
            if (m_connections[i] && m_connections[i]->welcomed && !tell(i))
                disconnect(i);
        }
        SHM_STEP("supply: readers told");
        slot.owner.store(SlotOwner::Ready, std::memory_order_release);
        m_store.readySlots.fetch_add(1, std::memory_order_release);
        m_store.counters.replaced.fetch_add(1, std::memory_order_relaxed);
        return true;
    }
    return false;
}

// Ends the connection of a reader that lives. It may go on looking at what it has locked, so that memory is
// never written again.
void WriterService::cutOff(size_t index)
{
    Connection &connection = *m_connections[index];
    auto *page = reinterpret_cast<ControlPage *>(connection.control.mapping.data());
    page->revoked.value.store(1, std::memory_order_seq_cst);
    SHM_STEP("supply: reader revoked");
    SlotSet held;
    collectLocks(connection, &held);
    for (uint32_t s = 0; s < m_store.policy.slotCapacity; ++s) {
        if (held[s])
            m_store.slots[s].poisoned.store(true, std::memory_order_seq_cst);
    }
    SHM_STEP("supply: slots poisoned");
    disconnect(index);
    m_store.counters.disconnected.fetch_add(1, std::memory_order_relaxed);
}

void WriterService::supplySlots()
{
    freeReturnedSlots();
    Census now = census();
    if (!m_store.policy.hasVideo()) {
        publishStatistics(now);
        return;
    }
    if (now.unexported == 0) // what could not be exported has been given back
        m_store.lateExportError.store(0, std::memory_order_relaxed);
    const uint32_t low = std::max<uint32_t>(2, m_store.policy.spareFrames / 2);
    while ((now.freeSlots < low || now.populated < m_store.policy.slotCount) && addSlot()) {
        ++now.freeSlots;
        ++now.populated;
    }
    // What the last one pinned comes back as fresh memory when the publisher has given it up; until then
    // nobody else is to blame.
    if (now.freeSlots < 2 && now.comingSlots == 0 && now.worst != SIZE_MAX) {
        cutOff(now.worst);
        now = census();
    }
    const uint32_t added =
        now.populated > m_store.policy.slotCount ? now.populated - m_store.policy.slotCount : 0;
    const uint32_t beyond =
        now.freeSlots > m_store.policy.spareFrames ? now.freeSlots - m_store.policy.spareFrames : 0;
    m_store.surplusSlots.store(std::min(added, beyond), std::memory_order_relaxed);
    publishStatistics(now);
}

void WriterService::publishStatistics(const Census &now)
{
    IndexHead &head = *m_store.index.head;
    uint32_t readers = 0;
    uint64_t wish = 0;
    for (const auto &connection : m_connections) {
        if (!connection || !connection->ready)
            continue;
        ++readers;
        const auto *page = reinterpret_cast<const ControlPage *>(connection->control.mapping.data());
        const uint64_t mine = page->wish.value.load(std::memory_order_relaxed);
        const uint64_t numerator = mine >> 32;
        const uint64_t denominator = mine & 0xffffffff;
        if (numerator == 0 || denominator == 0 || (numerator == 1 && denominator == 1))
            continue;
        if (wish == 0 || numerator * (wish & 0xffffffff) > (wish >> 32) * denominator)
            wish = mine;
    }
    head.readers.store(readers, std::memory_order_relaxed);
    head.locksHeld.store(now.locks, std::memory_order_relaxed);
    head.slots.store(now.populated, std::memory_order_relaxed);
    head.totalBytes.store(m_store.bytesWith(now.populated), std::memory_order_relaxed);
    head.wish.store(wish, std::memory_order_relaxed);
}

} // namespace shm
