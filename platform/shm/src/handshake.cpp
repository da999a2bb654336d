#include "handshake.h"
#include "atomic.h"

#include "clock.h"
#include "error.h"
#include "handshake_check.h"
#include "layout.h"

#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

namespace shm {

namespace {

constexpr char kNoRoom[] = "its memory cannot be mapped; end other programs or raise the limit (ulimit -v)";

} // namespace

int StoreConnection::beginSlots(const Message &message, SlotsMessage *list, const char **why) const
{
    return checkSlots(message.bytes, message.length, message.fds.size(), layout.slotCapacity, list, why);
}

// Two slots in one memory would tear each other's frames.
bool StoreConnection::known(uint64_t inode) const
{
    return std::find(m_inodes.begin(), m_inodes.end(), inode) != m_inodes.end() ||
           std::any_of(slots.begin(), slots.end(), [inode](const SlotMapping &slot) {
               return slot.memoryGeneration != 0 && slot.inode == inode;
           });
}

int StoreConnection::mapSlots(Message &message, const SlotsMessage &list, const char **why)
{
    const bool sealedFrames = (layout.flags & kSealedFrames) != 0;
    const bool readOnly = (layout.flags & kReadOnlyFrames) != 0;
    size_t next = 0;
    for (uint32_t i = 0; i < list.count; ++i) {
        SlotMapping fresh;
        fresh.memoryGeneration = list.entries[i].memoryGeneration;
        if (fresh.memoryGeneration != 0) {
            const int fd = message.fds[next++].get();
            int result = layout.memoryKind == kDmaHeap
                             ? checkDmabuf(fd, layout.slotBytes, &fresh.inode, why)
                             : checkSharedMemory(fd, layout.slotBytes,
                                                 sealedFrames ? sealsForReadOnly() : sealsForShared(),
                                                 &fresh.inode, why);
            if (result != 0)
                return result;
            if (known(fresh.inode)) {
                *why = "two parts of the store are the same memory";
                return -EPROTO;
            }
            result = fresh.mapping.map(fd, layout.slotBytes, !readOnly);
            if (result != 0) {
                *why = kNoRoom;
                return result;
            }
        }
        slots[list.entries[i].slot] = std::move(fresh);
    }
    message.fds.clear();
    return 0;
}

int StoreConnection::applyDmabufs(Message &message, bool *complete, const char **why)
{
    DmabufsMessage list;
    const int result =
        checkDmabufs(message.bytes, message.length, message.fds.size(), layout.slotCapacity, &list, why);
    if (result != 0)
        return result;
    for (uint32_t i = 0; i < list.count; ++i) {
        SlotMapping &slot = slots[list.entries[i].slot];
        // One for as long as the memory serves: the one that somebody may be using now is never closed under
        // him.
        if (slot.memoryGeneration != list.entries[i].memoryGeneration || slot.dmabuf) {
            *why = "a DMA-buf belongs to no memory that we have";
            return -EPROTO;
        }
        uint64_t inode = 0;
        if (checkDmabuf(message.fds[i].get(), layout.slotBytes, &inode, why) != 0)
            return -EPROTO;
        slot.dmabuf = std::move(message.fds[i]);
    }
    message.fds.clear();
    *complete = *complete || list.complete != 0;
    return 0;
}

int Handshake::reject(int code, const char *why, shm_error_t *error)
{
    // What has no cause but a damaged or a different writer has one remedy.
    const char *remedy = code == EPROTO ? "; start its writer again, with the libshm of this program" : "";
    return fail(error, code, "store \"%s\" in %s cannot be used: %s%s", m_name.c_str(),
                m_connection.directory.c_str(), why, remedy);
}

int Handshake::failDead(shm_error_t *error) const
{
    return fail(error, ECONNREFUSED, "the writer of store \"%s\" in %s is dead: start it again",
                m_name.c_str(), m_connection.directory.c_str());
}

int Handshake::failSilent(shm_error_t *error) const
{
    return fail(
        error, ETIMEDOUT,
        "the writer of store \"%s\" does not answer: it is stopped or overloaded; continue it or start "
        "it again",
        m_name.c_str());
}

int Handshake::begin(const std::string &directory, const std::string &name, int timeoutMs, uint32_t maxLocks,
                     shm_error_t *error)
{
    m_name = name;
    m_connection.directory = directory;
    int result = socketFile(directory, name, &m_file);
    if (result == 0)
        result = connectStore(directory, name, timeoutMs, &m_connection.socket);
    switch (result) {
    case 0:
        break;
    case -ENOENT:
        return fail(error, ENOENT, "no store \"%s\" in %s: start its writer", name.c_str(),
                    directory.c_str());
    case -ECONNREFUSED:
        return failDead(error);
    case -EACCES:
        return fail(error, EACCES,
                    "store \"%s\" in %s may not be read by this user: join the group it is shared with",
                    name.c_str(), directory.c_str());
    case -EAGAIN:
        return failSilent(error);
    default:
        return fail(error, -result, "store \"%s\" in %s cannot be opened: %s; %s", name.c_str(),
                    directory.c_str(), std::strerror(-result),
                    result == -EMFILE || result == -ENFILE
                        ? "close some files or raise the limit (ulimit -n)"
                        : "check what lies there, or start its writer again");
    }
    if (!peerOf(m_connection.socket.get(), &m_connection.peer))
        return reject(EPROTO, "its writer cannot be identified", error);
    // Whoever owns the socket file made it; a socket that somebody else serves has been put there.
    const unsigned uid = m_connection.peer.uid;
    if (uid != m_file.owner && uid != 0)
        return reject(
            EACCES, "its writer is not the user who owns it; remove its socket or name another store", error);
    if (peerPidfd(m_connection.socket.get(), m_connection.peer, &m_connection.pidfd) != 0) {
        // A child of the dead writer keeps the listening socket open.
        return failDead(error);
    }
    auto hello = makeMessage<HelloMessage>(kHello);
    hello.maxLocks = maxLocks;
    SHM_STEP("open: connected");
    result = sendMessage(m_connection.socket.get(), &hello, sizeof hello, nullptr, 0);
    SHM_STEP("open: said hello");
    // A writer that refuses at once may have hung up already; its reason is there to be read.
    if (result != 0 && result != -EPIPE && result != -ECONNRESET)
        return reject(-result, "its writer does not take messages; try again", error);
    return 0;
}

int Handshake::wait(int64_t deadlineUs, shm_error_t *error)
{
    pollfd fds[2] = {{m_connection.socket.get(), POLLIN, 0}, {m_connection.pidfd.get(), POLLIN, 0}};
    while (true) {
        const int64_t left = std::max<int64_t>(deadlineUs - monotonicUs(), 0);
        const timespec limit = {left / 1000000, (left % 1000000) * 1000};
        const int count = ppoll(fds, 2, &limit, nullptr);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return reject(errno, "it cannot be waited for; end other programs", error);
        if (count == 0)
            return failSilent(error);
        // What it sent before it died is of no use.
        if ((fds[1].revents & POLLIN) != 0)
            return failDead(error);
        return 0;
    }
}

int Handshake::advance(int64_t deadlineUs, shm_error_t *error)
{
    Message message;
    while (!m_ready) {
        int result = receiveMessage(m_connection.socket.get(), &message);
        if (result == -EAGAIN) {
            result = wait(deadlineUs, error);
            if (result != 0)
                return result;
            continue;
        }
        if (result == -EPIPE)
            return reject(ECONNREFUSED, "its writer hung up; try again", error);
        if (result == -EMFILE || result == -ENFILE)
            return reject(
                -result,
                "no descriptors are left for its memory; close some files or raise the limit (ulimit -n)",
                error);
        if (result != 0)
            return reject(EPROTO, "a message is damaged", error);
        result = handle(message, error);
        if (result != 0)
            return result;
    }
    return 0;
}

int Handshake::handle(Message &message, shm_error_t *error)
{
    const MessageHeader header = message.header();
    const char *why = "";
    if (header.type == kRefused) {
        RefusedMessage refused;
        checkRefused(message.bytes, message.length, &refused);
        return reject(refused.code, refused.text, error);
    }
    if (!m_welcomed)
        return handleWelcome(message, error);
    if (header.type == kSlots) {
        const int result = m_connection.applySlots(
            message, [](uint32_t) { return false; }, &why);
        return result != 0 ? reject(-result, why, error) : 0;
    }
    if (header.type != kReady || message.length != sizeof(ReadyMessage) || !message.fds.empty())
        return reject(EPROTO, "a message is out of order", error);
    // Frames of a store with less memory than its history and one to fill cannot be right.
    uint32_t populated = 0;
    for (const SlotMapping &slot : m_connection.slots)
        populated += slot.memoryGeneration != 0 ? 1 : 0;
    if (m_connection.layout.slotCapacity != 0 && populated == 0)
        return reject(EPROTO, "it has no frame memory", error);
    SHM_STEP("open: complete");
    m_ready = true;
    return 0;
}

int Handshake::handleWelcome(Message &message, shm_error_t *error)
{
    const char *why = "";
    StoreConnection &c = m_connection;
    int result = checkWelcome(message.bytes, message.length, message.fds.size(), &c.layout, &why);
    if (result != 0)
        return reject(-result, why, error);
    const struct
    {
        Mapping *mapping;
        uint64_t bytes;
        unsigned seals;
        bool writable;
    } parts[] = {{&c.index, c.layout.indexBytes, sealsForReadOnly(), false},
                 {&c.control, sizeof(ControlPage), sealsForShared(), true},
                 {&c.audio, c.layout.audioBytes, sealsForReadOnly(), false}};
    const size_t count = std::min(message.fds.size(), std::size(parts)); // more were refused above
    for (size_t i = 0; i < count; ++i) {
        const int fd = message.fds[i].get();
        uint64_t inode = 0;
        result = checkSharedMemory(fd, parts[i].bytes, parts[i].seals, &inode, &why);
        if (result == 0 && c.known(inode)) {
            why = "two parts of the store are the same memory";
            result = -EPROTO;
        }
        if (result == 0) {
            why = kNoRoom;
            result = parts[i].mapping->map(fd, parts[i].bytes, parts[i].writable);
        }
        if (result != 0)
            return reject(-result, why, error);
        c.m_inodes.push_back(inode);
        // Small, and touched with every lock: no page fault later.
#ifdef MADV_POPULATE_READ
        madvise(parts[i].mapping->data(), parts[i].bytes,
                parts[i].writable ? MADV_POPULATE_WRITE : MADV_POPULATE_READ);
#endif
    }
    message.fds.clear();
    const auto *head = reinterpret_cast<const IndexHead *>(c.index.data());
    if (head->session.value.load(std::memory_order_relaxed) != c.layout.session)
        return reject(EPROTO, "the index is of another session", error);
    c.slots.resize(c.layout.slotCapacity);
    m_welcomed = true;
    SHM_STEP("open: welcomed");
    return 0;
}

} // namespace shm
