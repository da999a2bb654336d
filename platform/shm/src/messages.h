// One message on a SOCK_SEQPACKET socket, with its descriptors.
#ifndef SHM_MESSAGES_H
#define SHM_MESSAGES_H

#include "fd.h"
#include "protocol.h"

#include <cstddef>
#include <vector>

namespace shm {

struct Message
{
    alignas(8) uint8_t bytes[kMessageMax];
    size_t length = 0;
    std::vector<UniqueFd> fds;

    MessageHeader header() const;
};

template <class T>
T makeMessage(MessageType type)
{
    T message{};
    auto *header = reinterpret_cast<MessageHeader *>(&message);
    *header = {kProtocolMagic, kProtocolVersion, type, static_cast<uint32_t>(sizeof(T))};
    return message;
}

// Never waits. Borrows the descriptors. Returns 0 or a negative errno (-EAGAIN: the peer's queue is full).
int sendMessage(int socket, const void *bytes, size_t length, const int *fds, size_t fdCount);

// Never waits. Returns 0, -EAGAIN, -EPIPE when the peer has hung up, -EPROTO for a message that is cut off,
// too long or has no valid header, -EMFILE or -ENFILE when there is no room for its descriptors (those that
// came are closed).
int receiveMessage(int socket, Message *message);

struct Peer
{
    int pid = 0;
    unsigned uid = 0;
    unsigned gid = 0;
};
bool peerOf(int socket, Peer *peer);
bool peerHasGroup(int socket, const Peer &peer, unsigned group);

// A descriptor that becomes readable when the peer's process ends; a child of it may keep the socket open.
// Returns -ESRCH when it has ended already; 0 with `fd` empty where the kernel cannot tell.
int peerPidfd(int socket, const Peer &peer, UniqueFd *fd);

} // namespace shm

#endif
