// A reader's DMA-bufs: asked for once, kept with the slots.
#include "clock.h"
#include "memory_check.h"
#include "reader.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>

using namespace shm;

namespace {

// What the process needs besides: sockets, mappings under way, the application's own.
constexpr uint64_t kSpareDescriptors = 32;

} // namespace

int shm_reader::openDmabufs()
{
    const WelcomeMessage &layout = m_connection.layout;
    if (!hasVideo() || !saysExported(layout.dmabuf))
        return -ENOTSUP;
    if (m_wantsDmabufs)
        return 0;
    // Descriptors that do not fit are cut off their message, and the connection would be lost with it.
    if (descriptorsLeft("/") < layout.slotCapacity + kSpareDescriptors) {
        m_dmabufTrouble = "no: this process may not open as many descriptors; raise its limit (ulimit -n)";
        return -EMFILE;
    }
    m_dmabufTrouble = nullptr;
    const auto message = makeMessage<WantDmabufsMessage>(kWantDmabufs);
    const int result = sendMessage(m_connection.socket.get(), &message, sizeof message, nullptr, 0);
    if (result != 0)
        return result;
    m_wantsDmabufs = true;
    return awaitDmabufs();
}

int shm_reader::awaitDmabufs()
{
    const int64_t deadline = monotonicUs() + int64_t{m_timeoutMs} * 1000;
    while (true) {
        if (!pollConnection()) {
            m_gone = true;
            return -ENODEV;
        }
        if (m_dmabufsComplete)
            return 0;
        const int64_t left = deadline - monotonicUs();
        if (left <= 0) {
            m_dmabufTrouble = "no: the publisher did not send them in time; frames have them once it does";
            return -ETIMEDOUT;
        }
        pollfd fds[2] = {{m_connection.socket.get(), POLLIN | POLLRDHUP, 0},
                         {m_connection.pidfd.get(), POLLIN, 0}};
        const timespec limit = {left / 1000000, (left % 1000000) * 1000};
        ppoll(fds, 2, &limit, nullptr); // an interruption is as good as an answer: looked at above
    }
}

int shm_reader::dmabuf() const
{
    if (m_lastSlot >= m_connection.slots.size())
        return -1;
    const SlotMapping &slot = m_connection.slots[m_lastSlot];
    return slot.memoryGeneration == m_lastMemory ? slot.dmabuf.get() : -1;
}
