// The service thread's part in handing out DMA-bufs.
//
// They are given to who asks: most readers never do, and each costs the receiver a descriptor. A DMA-buf can
// be written by whoever has it, whatever the memory's seals say, so readers of other users get none unless
// the publisher wants it.
#include "writer_service.h"

#include <algorithm>
#include <cstdio>

namespace shm {

bool WriterService::mayHaveDmabufs(const Connection &connection) const
{
    return connection.trusted || (m_store.policy.flags & SHM_WRITER_DMABUF_OTHERS) != 0;
}

void WriterService::describeMemory(const Connection &connection, WelcomeMessage *message) const
{
    const StorePolicy &policy = m_store.policy;
    message->memoryKind = policy.memoryKind;
    std::snprintf(message->memory, sizeof message->memory, "%s", policy.memory.c_str());
    const bool isWithheld = policy.isExported() && !mayHaveDmabufs(connection);
    std::snprintf(message->dmabuf, sizeof message->dmabuf, "%s",
                  isWithheld
                      ? "no: the publisher does not share DMA-bufs, which can be written, with other users"
                      : m_store.dmabufText().c_str());
}

// Takes a wish for DMA-bufs; false when the message is none, or comes from a reader that may have none.
bool WriterService::receiveWant(Connection &connection, const Message &message) const
{
    if (message.header().type != kWantDmabufs || message.length != sizeof(WantDmabufsMessage) ||
        !message.fds.empty() || connection.wantsDmabufs || !m_store.policy.isExported() ||
        !mayHaveDmabufs(connection)) {
        return false;
    }
    connection.wantsDmabufs = true;
    connection.sentDmabufs.assign(m_store.policy.slotCapacity, 0);
    return true;
}

// Sends what the reader has not yet. It knows the slots' memory already: those are sent first.
int WriterService::sendDmabufs(Connection &connection)
{
    std::vector<uint32_t> missing;
    for (uint32_t s = 0; s < m_store.policy.slotCapacity; ++s) {
        const Slot &slot = m_store.slots[s];
        if (!slot.memory.dmabuf)
            connection.sentDmabufs[s] = 0;
        else if (connection.sentDmabufs[s] != slot.memoryGeneration)
            missing.push_back(s);
    }
    size_t done = 0;
    while (done < missing.size() || !connection.dmabufsComplete) {
        auto message = makeMessage<DmabufsMessage>(kDmabufs);
        int fds[kSlotsPerMessage];
        message.count = static_cast<uint32_t>(std::min<size_t>(missing.size() - done, kSlotsPerMessage));
        for (uint32_t i = 0; i < message.count; ++i) {
            const Slot &slot = m_store.slots[missing[done + i]];
            message.entries[i] = {missing[done + i], slot.memoryGeneration};
            fds[i] = slot.memory.dmabuf.get();
        }
        done += message.count;
        message.complete = done == missing.size() ? 1 : 0;
        const int result = sendMessage(connection.socket.get(), &message, sizeof message, fds, message.count);
        if (result != 0)
            return result;
        for (uint32_t i = 0; i < message.count; ++i)
            connection.sentDmabufs[message.entries[i].slot] = message.entries[i].memoryGeneration;
        connection.dmabufsComplete = message.complete != 0;
    }
    return 0;
}

} // namespace shm
