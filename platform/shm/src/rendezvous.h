// Where stores are found: directories, sockets in them, and the lock that keeps a name to one writer.
#ifndef SHM_RENDEZVOUS_H
#define SHM_RENDEZVOUS_H

#include "fd.h"

#include <shm/shm_types.h>

#include <sys/types.h>

#include <string>
#include <vector>

namespace shm {

constexpr const char *kSystemDirectory = "/run/zev-shm";

// The directories that readers search, in order.
std::vector<std::string> readerDirectories();

// Whether stores can be looked up in a directory that readers search. Returns 0 or a negative errno with
// `error` filled: -ENOENT only for a directory that somebody chose, since the usual ones come with the first
// writer.
int checkSearchable(const std::string &directory, shm_error_t *error);

// The directory that a writer publishes to, created where it is the user's runtime directory or the system's.
// Returns 0 or a negative errno with `error` filled.
int writerDirectory(const char *asked, bool shared, std::string *directory, shm_error_t *error);

// A connected socket to the store's writer, not waiting longer than `timeoutMs` for a place in its queue.
// Returns 0 or a negative errno (-EAGAIN: its queue stayed full).
int connectStore(const std::string &directory, const std::string &name, int timeoutMs, UniqueFd *socket);

// The socket file as it lies there now. Returns 0 or a negative errno (-ENOENT: no socket there).
struct SocketFile
{
    dev_t device = 0;
    ino_t inode = 0;
    uid_t owner = 0;
    int64_t changedNs = 0;
    bool operator==(const SocketFile &other) const
    {
        return device == other.device && inode == other.inode && changedNs == other.changedNs;
    }
};
int socketFile(const std::string &directory, const std::string &name, SocketFile *file);

// A name that this process publishes: the lock, and the socket that readers connect to.
//
// The lock is a POSIX record lock: unlike flock() it is not inherited by a forked child, which would go on
// holding the name after its parent's death. Within one process it does not exclude, so a table does.
//
// Threads: reentrant. Ownership: owns the socket and both files; release() removes them.
class Publication
{
public:
    Publication() = default;
    ~Publication() { release(); }
    Publication(const Publication &) = delete;
    Publication &operator=(const Publication &) = delete;

    // Takes the name: -EADDRINUSE when it is published by a living writer.
    int claim(const std::string &directory, const std::string &name, shm_error_t *error);
    // Makes it visible, replacing what a dead writer left. `group` -1: nobody but this user.
    int listen(long group, shm_error_t *error);
    // Out of sight: no reader finds it any more. The socket stays open until release().
    void hide();
    void release();
    // In a forked child: closes the descriptors and leaves the files to the parent.
    void forget();

    int socket() const { return m_socket.get(); }
    const std::string &directory() const { return m_directory; }

private:
    std::string m_directory;
    std::string m_name;
    UniqueFd m_lock;
    UniqueFd m_socket;
    dev_t m_lockDevice = 0;
    ino_t m_lockInode = 0;
    bool m_visible = false;
};

} // namespace shm

#endif
