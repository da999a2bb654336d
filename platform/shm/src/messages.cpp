#include "messages.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <cerrno>
#include <cstring>

#ifndef SO_PEERPIDFD
#define SO_PEERPIDFD 77
#endif

namespace shm {
namespace {

// One more than is ever sent, so that a message with too many descriptors is seen as such.
constexpr size_t kFdsMax = kSlotsPerMessage + 4;

} // namespace

MessageHeader Message::header() const
{
    MessageHeader header{};
    if (length >= sizeof header)
        std::memcpy(&header, bytes, sizeof header);
    return header;
}

int sendMessage(int socket, const void *bytes, size_t length, const int *fds, size_t fdCount)
{
    iovec part = {const_cast<void *>(bytes), length};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kFdsMax)] = {};
    msghdr header = {};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    if (fdCount > 0) {
        if (fdCount > kFdsMax)
            return -EINVAL;
        header.msg_control = control;
        header.msg_controllen = CMSG_SPACE(sizeof(int) * fdCount);
        cmsghdr *extra = CMSG_FIRSTHDR(&header);
        extra->cmsg_level = SOL_SOCKET;
        extra->cmsg_type = SCM_RIGHTS;
        extra->cmsg_len = CMSG_LEN(sizeof(int) * fdCount);
        std::memcpy(CMSG_DATA(extra), fds, sizeof(int) * fdCount);
    }
    ssize_t sent = 0;
    do {
        sent = sendmsg(socket, &header, MSG_DONTWAIT | MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0)
        return errno == EWOULDBLOCK ? -EAGAIN : -errno;
    return 0;
}

int receiveMessage(int socket, Message *message)
{
    message->length = 0;
    message->fds.clear();
    // Before the descriptors exist: a failing allocation would lose them.
    message->fds.reserve(kFdsMax);
    iovec part = {message->bytes, sizeof message->bytes};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kFdsMax)] = {};
    msghdr header = {};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof control;
    // A peer that hangs up without having read everything leaves an error in front of what it sent; the error
    // is told once, and then its last words can be read.
    ssize_t received = 0;
    int resets = 0;
    do {
        received = recvmsg(socket, &header, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    } while (received < 0 && (errno == EINTR || (errno == ECONNRESET && resets++ == 0)));
    if (received < 0) {
        if (errno == EAGAIN || errno == EWOULDBLOCK)
            return -EAGAIN;
        return errno == ECONNRESET ? -EPIPE : -errno;
    }
    for (cmsghdr *extra = CMSG_FIRSTHDR(&header); extra != nullptr; extra = CMSG_NXTHDR(&header, extra)) {
        if (extra->cmsg_level != SOL_SOCKET || extra->cmsg_type != SCM_RIGHTS)
            continue;
        const size_t count = (extra->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < count; ++i) {
            int fd = -1;
            std::memcpy(&fd, CMSG_DATA(extra) + i * sizeof(int), sizeof fd);
            message->fds.emplace_back(fd);
        }
    }
    if (received == 0)
        return -EPIPE;
    message->length = static_cast<size_t>(received);
    const MessageHeader head = message->header();
    // Cut short for want of room in this process, which those that came still take up? Then it is not
    // damaged.
    if ((header.msg_flags & MSG_CTRUNC) != 0 && !UniqueFd(fcntl(socket, F_DUPFD_CLOEXEC, 0)) &&
        (errno == EMFILE || errno == ENFILE)) {
        const int code = errno;
        message->fds.clear();
        return -code;
    }
    if ((header.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) != 0 || message->length < sizeof head ||
        head.magic != kProtocolMagic || head.length != message->length) {
        message->fds.clear();
        return -EPROTO;
    }
    return 0;
}

bool peerOf(int socket, Peer *peer)
{
    ucred credentials = {};
    socklen_t length = sizeof credentials;
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0)
        return false;
    *peer = {static_cast<int>(credentials.pid), credentials.uid, credentials.gid};
    return true;
}

bool peerHasGroup(int socket, const Peer &peer, unsigned group)
{
    if (peer.gid == group)
        return true;
    gid_t groups[256];
    socklen_t length = sizeof groups;
    if (getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups, &length) != 0)
        return false;
    for (size_t i = 0; i < length / sizeof(gid_t); ++i) {
        if (groups[i] == group)
            return true;
    }
    return false;
}

int peerPidfd(int socket, const Peer &peer, UniqueFd *fd)
{
    int pidfd = -1;
    socklen_t length = sizeof pidfd;
    if (getsockopt(socket, SOL_SOCKET, SO_PEERPIDFD, &pidfd, &length) == 0) {
        *fd = UniqueFd(pidfd);
        return 0;
    }
    if (errno == ESRCH || errno == EINVAL)
        return -ESRCH;
    if (peer.pid <= 0) // a peer in another process namespace has no number here
        return 0;
    pidfd = static_cast<int>(syscall(SYS_pidfd_open, peer.pid, 0));
    if (pidfd < 0 && errno == ESRCH)
        return -ESRCH;
    *fd = UniqueFd(pidfd);
    return 0;
}

} // namespace shm
