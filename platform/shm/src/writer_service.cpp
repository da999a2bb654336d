#include "writer_service.h"
#include "atomic.h"

#include "error.h"

#include <pthread.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>

namespace shm {
namespace {

// What an epoll event is about: kind, connection index, and the low bits of its serial, because an index may
// have been given to another connection by the time an event of the same batch is handled.
enum EventKind : uint64_t { kListen = 1, kPoke = 2, kSocket = 3, kPeer = 4 };

uint64_t eventData(EventKind kind, size_t index, uint64_t serial)
{
    return static_cast<uint64_t>(kind) << 56 | static_cast<uint64_t>(index & 0xffff) << 40 |
           (serial & 0xffffffffff);
}

// A reader says hello at once; who does not is no reader.
constexpr int64_t kHelloLimitUs = 5000000;

} // namespace

int WriterService::start(int listenSocket, shm_error_t *error)
{
    m_listen = listenSocket;
    m_epoll = UniqueFd(epoll_create1(EPOLL_CLOEXEC));
    m_event = UniqueFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!m_epoll || !m_event)
        return fail(error, errno, "no descriptors for the service thread: %s; raise the limit (ulimit -n)",
                    std::strerror(errno));
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.u64 = eventData(kPoke, 0, 0);
    epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, m_event.get(), &event);
    event.data.u64 = eventData(kListen, 0, 0);
    epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, m_listen, &event);
    m_listening = true;
    m_connections.resize(kReadersMax);
    m_retired.reserve(kReadersMax);
    m_store.pokeFd = m_event.get();

    // The application's signals are none of this thread's business.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    int result = 0;
    try {
        m_thread = std::thread([this] { run(); });
        pthread_setname_np(m_thread.native_handle(), "shm-service");
    } catch (const std::system_error &failure) {
        result = fail(error, failure.code().value(),
                      "the service thread cannot be started: %s; raise the limit of "
                      "processes (ulimit -u)",
                      failure.what());
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return result;
}

void WriterService::stop()
{
    if (!m_thread.joinable())
        return;
    m_stop.store(true, std::memory_order_release);
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(m_event.get(), &one, sizeof one);
    m_thread.join();
    m_store.pokeFd = -1;
    // Readers see the hang-up now.
    m_connections.clear();
    m_retired.clear();
}

void WriterService::forget()
{
    // The thread does not exist here, so it can neither be joined nor is there anything to detach: its handle
    // is left alone, with the memory of this object.
    m_epoll.reset();
    m_event.reset();
    for (auto &connection : m_connections) {
        if (connection) {
            connection->socket.reset();
            connection->pidfd.reset();
            connection->control.fd.reset();
        }
    }
}

void WriterService::run() noexcept
{
    m_nextBeatUs = monotonicUs();
    while (!m_stop.load(std::memory_order_acquire)) {
        try {
            const int64_t now = monotonicUs();
            if (now >= m_nextBeatUs) {
                m_nextBeatUs = now + kHeartbeatUs;
                beat();
            }
            const int64_t wait = std::max<int64_t>(m_nextBeatUs - monotonicUs(), 0);
            handleEvents(static_cast<int>((wait + 999) / 1000));
        } catch (...) {
            // Out of memory in the middle of something for one reader: that reader times out, the others go
            // on.
        }
    }
}

void WriterService::handleEvents(int timeoutMs)
{
    epoll_event events[64];
    const int count = epoll_wait(m_epoll.get(), events, 64, timeoutMs);
    for (int i = 0; i < count; ++i) {
        const uint64_t data = events[i].data.u64;
        const auto kind = static_cast<EventKind>(data >> 56);
        const size_t index = (data >> 40) & 0xffff;
        if (kind == kListen) {
            accept();
        } else if (kind == kPoke) {
            uint64_t value = 0;
            [[maybe_unused]] const ssize_t got = read(m_event.get(), &value, sizeof value);
            m_store.poked.store(false, std::memory_order_release);
            supplySlots();
        } else if (index < m_connections.size() && m_connections[index] &&
                   (m_connections[index]->serial & 0xffffffffff) == (data & 0xffffffffff)) {
            handleConnection(index, events[i].events, kind == kPeer);
        }
    }
}

void WriterService::beat()
{
    m_store.index.head->heartbeat.value.store(monotonicUs(), std::memory_order_release);
    freeRetired();
    supplySlots();
    const int64_t now = monotonicUs();
    for (size_t i = 0; i < m_connections.size(); ++i) {
        Connection *connection = m_connections[i].get();
        if (connection == nullptr)
            continue;
        if (!connection->welcomed && now - connection->sinceUs > kHelloLimitUs) {
            disconnect(i);
            continue;
        }
        // Also those that are blocked: descriptors in flight are limited for the user as a whole, so the end
        // of that shortage shows in no event.
        if (connection->welcomed && !tell(i))
            disconnect(i);
    }
    if (!m_listening) {
        epoll_event event = {};
        event.events = EPOLLIN;
        event.data.u64 = eventData(kListen, 0, 0);
        m_listening = epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, m_listen, &event) == 0;
    }
}

void WriterService::accept()
{
    for (int n = 0; n < 64; ++n) {
        UniqueFd socket(accept4(m_listen, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!socket) {
            if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) {
                // The one that waits would wake us for ever: look away until the next beat.
                epoll_ctl(m_epoll.get(), EPOLL_CTL_DEL, m_listen, nullptr);
                m_listening = false;
            }
            return;
        }
        const auto free = std::find(m_connections.begin(), m_connections.end(), nullptr);
        auto connection = std::make_unique<Connection>();
        connection->socket = std::move(socket);
        if (!peerOf(connection->socket.get(), &connection->peer))
            continue;
        // The socket's mode lets nobody else in; this stands when somebody changed the mode.
        const Peer &peer = connection->peer;
        connection->trusted = peer.uid == geteuid();
        const bool inGroup =
            m_store.policy.group >= 0 &&
            peerHasGroup(connection->socket.get(), peer, static_cast<unsigned>(m_store.policy.group));
        if (!connection->trusted && peer.uid != 0 && !inGroup) {
            refuse(*connection, EACCES, "this user may not read the store: join the group it is shared with");
            continue;
        }
        if (free == m_connections.end()) {
            refuse(*connection, EMFILE, "the store has as many readers as it can serve: close one");
            continue;
        }
        if (peerPidfd(connection->socket.get(), peer, &connection->pidfd) != 0)
            continue;
        connection->serial = ++m_serial;
        connection->sinceUs = monotonicUs();
        const auto index = static_cast<size_t>(free - m_connections.begin());
        epoll_event event = {};
        event.events = EPOLLIN | EPOLLRDHUP;
        event.data.u64 = eventData(kSocket, index, connection->serial);
        epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, connection->socket.get(), &event);
        if (connection->pidfd) {
            event.events = EPOLLIN;
            event.data.u64 = eventData(kPeer, index, connection->serial);
            epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, connection->pidfd.get(), &event);
        }
        *free = std::move(connection);
    }
}

void WriterService::watch(const Connection &connection, size_t index, bool writable)
{
    epoll_event event = {};
    event.events = EPOLLIN | EPOLLRDHUP | (writable ? static_cast<uint32_t>(EPOLLOUT) : 0u);
    event.data.u64 = eventData(kSocket, index, connection.serial);
    epoll_ctl(m_epoll.get(), EPOLL_CTL_MOD, connection.socket.get(), &event);
}

void WriterService::handleConnection(size_t index, uint32_t events, bool peerDied)
{
    Connection &connection = *m_connections[index];
    if (peerDied || (events & (EPOLLHUP | EPOLLERR | EPOLLRDHUP)) != 0) {
        disconnect(index);
        return;
    }
    bool good = true;
    if ((events & EPOLLIN) != 0)
        good = receive(connection);
    if (good && connection.welcomed)
        good = tell(index);
    if (!good)
        disconnect(index);
}

bool WriterService::receive(Connection &connection)
{
    Message message;
    while (true) {
        const int result = receiveMessage(connection.socket.get(), &message);
        if (result == -EAGAIN)
            return true;
        if (result != 0)
            return false;
        const MessageHeader header = message.header();
        if (header.version != kProtocolVersion) {
            refuse(connection, EPROTONOSUPPORT,
                   "the writer speaks another version of the protocol: use one libshm for both");
            return false;
        }
        // One hello, and one wish for DMA-bufs. A reader brings no descriptors.
        if (connection.welcomed && receiveWant(connection, message))
            continue;
        if (connection.welcomed || header.type != kHello || message.length != sizeof(HelloMessage) ||
            !message.fds.empty()) {
            return false;
        }
        HelloMessage hello;
        std::memcpy(&hello, message.bytes, sizeof hello);
        connection.maxLocks = std::clamp<uint32_t>(hello.maxLocks, 1, kLocksMax);
        if (!welcome(connection))
            return false;
    }
}

void WriterService::refuse(Connection &connection, int code, const char *text)
{
    auto message = makeMessage<RefusedMessage>(kRefused);
    message.code = code;
    std::snprintf(message.text, sizeof message.text, "%s", text);
    sendMessage(connection.socket.get(), &message, sizeof message, nullptr, 0);
}

bool WriterService::welcome(Connection &connection)
{
    const StorePolicy &policy = m_store.policy;
    if (policy.memoryKind == kDmaHeap && !mayHaveDmabufs(connection)) {
        refuse(connection, EACCES,
               "its frames are in memory of a DMA heap, which the publisher does not share with other users: "
               "publish in memory of the kind memfd");
        return false;
    }
    if (createSharedMemory(&connection.control, "shm-control", sizeof(ControlPage), kMemfd,
                           sealsForShared()) != 0) {
        refuse(connection, ENOMEM, "the writer has no memory for another reader: end other programs");
        return false;
    }
    SHM_STEP("serve: control page made");
    // Listed before it is sent: protocol.h says why.
    connection.listed = m_store.readers.add(
        reinterpret_cast<ControlPage *>(connection.control.mapping.data()), connection.maxLocks);
    if (connection.listed < 0) {
        refuse(connection, EMFILE, "the store has as many readers as it can serve: close one");
        return false;
    }
    SHM_STEP("serve: listed");
    const bool sealedFrames = (policy.flags & SHM_WRITER_SEALED) != 0;
    auto message = makeMessage<WelcomeMessage>(kWelcome);
    message.session = policy.session;
    message.startedUs = policy.startedUs;
    message.indexBytes = policy.indexBytes;
    message.slotBytes = policy.slotBytes;
    message.audioBytes = policy.audioBytes;
    for (uint32_t p = 0; p < policy.frame.planeCount; ++p) {
        message.offsets[p] = policy.frame.planes[p].offset;
        message.strides[p] = policy.frame.planes[p].stride;
    }
    message.planeCount = policy.frame.planeCount;
    message.width = policy.width;
    message.height = policy.height;
    message.pixelFormat = policy.pixelFormat;
    message.historyFrames = policy.historyFrames;
    message.historyRing = m_store.index.ring;
    message.slotCapacity = policy.slotCapacity;
    describeMemory(connection, &message);
    message.flags = sealedFrames ? uint32_t{kSealedFrames} : 0u;
    if (sealedFrames || !connection.trusted)
        message.flags |= kReadOnlyFrames;
    message.rateNumerator = policy.rateNumerator;
    message.rateDenominator = policy.rateDenominator;
    message.color = packColor(policy.color);
    message.sampleRate = policy.audio.sampleRate;
    message.channels = policy.audio.channels;
    message.audioStreams = policy.audioStreams;
    message.audioCapacity = policy.audio.capacity;
    message.audioHistory = policy.audio.history;

    const int fds[3] = {m_store.indexMemory.fd.get(), connection.control.fd.get(),
                        m_store.audioMemory.fd.get()};
    connection.sent.assign(policy.slotCapacity, 0);
    connection.welcomed =
        sendMessage(connection.socket.get(), &message, sizeof message, fds, policy.hasAudio() ? 3u : 2u) == 0;
    connection.control.fd.reset();
    SHM_STEP("serve: welcomed");
    return connection.welcomed;
}

// Sends entries `from` on of `changed`, as many as fit in a message. Returns how many, or a negative errno.
int WriterService::sendSlots(Connection &connection, const std::vector<uint32_t> &changed, size_t from)
{
    auto message = makeMessage<SlotsMessage>(kSlots);
    int fds[kSlotsPerMessage];
    UniqueFd reopened[kSlotsPerMessage];
    size_t fdCount = 0;
    const size_t count = std::min<size_t>(changed.size() - from, kSlotsPerMessage);
    for (size_t i = 0; i < count; ++i) {
        const uint32_t s = changed[from + i];
        const Slot &slot = m_store.slots[s];
        message.entries[i].slot = s;
        if (!slot.memory.fd)
            continue;
        message.entries[i].memoryGeneration = slot.memoryGeneration;
        fds[fdCount] = slot.memory.fd.get();
        // A DMA-buf cannot be opened again; who gets this far may have it as it is.
        if (!connection.trusted && m_store.policy.memoryKind != kDmaHeap) {
            reopened[fdCount] = reopenReadOnly(slot.memory.fd.get());
            if (!reopened[fdCount])
                return -errno;
            fds[fdCount] = reopened[fdCount].get();
        }
        ++fdCount;
    }
    message.count = static_cast<uint32_t>(count);
    const int result = sendMessage(connection.socket.get(), &message, sizeof message, fds, fdCount);
    if (result != 0)
        return result;
    SHM_STEP("serve: slots sent");
    for (size_t i = 0; i < count; ++i)
        connection.sent[message.entries[i].slot] = message.entries[i].memoryGeneration;
    return static_cast<int>(count);
}

// Brings what the reader knows in line with what is, and asks to be woken when its queue has room again for
// the rest; false when the connection is beyond help.
bool WriterService::tell(size_t index)
{
    Connection &connection = *m_connections[index];
    if (!sendState(connection))
        return false;
    // By what epoll was told, not by how it was before this call: several callers come here, and room that is
    // watched for although nothing waits for it wakes us for ever.
    if (connection.blocked != connection.watched) {
        watch(connection, index, connection.blocked);
        connection.watched = connection.blocked;
    }
    return true;
}

// False when the connection is beyond help.
bool WriterService::sendState(Connection &connection)
{
    std::vector<uint32_t> changed;
    for (uint32_t s = 0; s < m_store.policy.slotCapacity; ++s) {
        const Slot &slot = m_store.slots[s];
        if (connection.sent[s] != (slot.memory.fd ? slot.memoryGeneration : 0))
            changed.push_back(s);
    }
    connection.blocked = false;
    size_t done = 0;
    int result = 0;
    while (done < changed.size()) {
        result = sendSlots(connection, changed, done);
        if (result < 0)
            break;
        done += static_cast<size_t>(result);
    }
    if (result >= 0 && !connection.ready) {
        const auto message = makeMessage<ReadyMessage>(kReady);
        result = sendMessage(connection.socket.get(), &message, sizeof message, nullptr, 0);
        connection.ready = result == 0;
    }
    if (result >= 0 && connection.wantsDmabufs)
        result = sendDmabufs(connection);
    if (result >= 0)
        return true;
    // A full queue, or too many descriptors in flight: its own, or those of other connections. Both pass.
    // Only of the first kind does its socket tell the end; a full allowance would wake us for ever.
    connection.blocked = result == -EAGAIN;
    return result == -EAGAIN || result == -ETOOMANYREFS || result == -ENOBUFS || result == -EMFILE ||
           result == -ENFILE || result == -ENOMEM;
}

void WriterService::disconnect(size_t index)
{
    Connection &connection = *m_connections[index];
    if (connection.listed >= 0) {
        Retired retired;
        retired.scan = m_store.readers.remove(connection.listed);
        SHM_STEP("serve: off the list");
        retired.control = std::move(connection.control.mapping);
        m_retired.push_back(std::move(retired));
    }
    m_connections[index].reset();
    freeRetired();
}

void WriterService::freeRetired()
{
    m_retired.erase(
        std::remove_if(m_retired.begin(), m_retired.end(),
                       [this](const Retired &retired) { return m_store.readers.drained(retired.scan); }),
        m_retired.end());
}

} // namespace shm
