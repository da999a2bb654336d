#include "rendezvous.h"
#include "atomic.h"

#include "error.h"
#include "process_id.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <set>

namespace shm {
namespace {

std::string environment(const char *variable)
{
    const char *value = std::getenv(variable);
    return value != nullptr ? value : "";
}

std::string lockPath(const std::string &directory, const std::string &name)
{
    return directory + "/." + name + ".lock";
}

// An address for `path`. One that is longer than an address can hold is reached through its opened directory,
// which the caller keeps open in `*holder` meanwhile.
int makeAddress(const std::string &directory, const std::string &file, sockaddr_un *address, UniqueFd *holder)
{
    std::memset(address, 0, sizeof *address);
    address->sun_family = AF_UNIX;
    std::string path = directory + "/" + file;
    if (path.size() >= sizeof address->sun_path) {
        *holder = UniqueFd(open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (!*holder)
            return -errno;
        path = "/proc/self/fd/" + std::to_string(holder->get()) + "/" + file;
        if (path.size() >= sizeof address->sun_path)
            return -ENAMETOOLONG;
    }
    std::memcpy(address->sun_path, path.c_str(), path.size() + 1);
    return 0;
}

// Names published by this process, by their lock file. Never destroyed: a program may close its writer from
// the destructor of an object of its own that is static, after ours would have gone.
using LockKey = std::pair<dev_t, ino_t>;
std::mutex &heldMutex()
{
    static auto &mutex = *new std::mutex;
    return mutex;
}
std::set<LockKey> &heldLocks()
{
    static auto &locks = *new std::set<LockKey>;
    static uint64_t owner = processId();
    // Record locks are not inherited, so what is in the table after a fork is held by the parent alone.
    if (owner != processId()) {
        owner = processId();
        locks.clear();
    }
    return locks;
}

// What else to do about a directory, by who chose it.
const char *const kOfCaller = "name another one";
const char *const kOfEnvironment = "correct ZEV_SHM_DIR";
const char *const kUsual = "name another one in ZEV_SHM_DIR";

int failDirectory(const std::string &directory, int code, const char *otherwise, shm_error_t *error)
{
    if (code == ENOENT) {
        return fail(error, ENOENT, "directory %s does not exist: create it or %s", directory.c_str(),
                    otherwise);
    }
    if (code == ENOTDIR) {
        return fail(error, ENOTDIR, "%s is not a directory: make it one or %s", directory.c_str(), otherwise);
    }
    return fail(error, code, "directory %s cannot be written: %s; make it yours or %s", directory.c_str(),
                std::strerror(code), otherwise);
}

int checkWritable(const std::string &directory, const char *otherwise, shm_error_t *error)
{
    struct stat status = {};
    if (stat(directory.c_str(), &status) != 0)
        return failDirectory(directory, errno, otherwise, error);
    if (!S_ISDIR(status.st_mode))
        return failDirectory(directory, ENOTDIR, otherwise, error);
    if (access(directory.c_str(), W_OK | X_OK) != 0)
        return failDirectory(directory, errno, otherwise, error);
    return 0;
}

} // namespace

std::vector<std::string> readerDirectories()
{
    const std::string chosen = environment("ZEV_SHM_DIR");
    if (!chosen.empty())
        return {chosen};
    std::vector<std::string> directories;
    const std::string runtime = environment("XDG_RUNTIME_DIR");
    if (!runtime.empty())
        directories.push_back(runtime + "/zev-shm");
    directories.emplace_back(kSystemDirectory);
    return directories;
}

int checkSearchable(const std::string &directory, shm_error_t *error)
{
    struct stat status = {};
    if (stat(directory.c_str(), &status) == 0) {
        if (!S_ISDIR(status.st_mode)) {
            return fail(error, ENOTDIR, "%s is not a directory: correct ZEV_SHM_DIR or make it one",
                        directory.c_str());
        }
        if (access(directory.c_str(), X_OK) == 0)
            return 0;
    } else if (errno == ENOENT) {
        if (environment("ZEV_SHM_DIR").empty())
            return 0;
        return fail(error, ENOENT, "directory %s does not exist: create it or correct ZEV_SHM_DIR",
                    directory.c_str());
    }
    return fail(error, errno, "directory %s cannot be searched: %s; correct ZEV_SHM_DIR or its permissions",
                directory.c_str(), std::strerror(errno));
}

int writerDirectory(const char *asked, bool shared, std::string *directory, shm_error_t *error)
{
    // Chosen by somebody: it must be there.
    const bool byCaller = asked != nullptr && *asked != '\0';
    const std::string chosen = byCaller ? asked : environment("ZEV_SHM_DIR");
    if (!chosen.empty()) {
        *directory = chosen;
        return checkWritable(chosen, byCaller ? kOfCaller : kOfEnvironment, error);
    }
    const std::string runtime = environment("XDG_RUNTIME_DIR");
    if (!shared && !runtime.empty()) {
        *directory = runtime + "/zev-shm";
        if (mkdir(directory->c_str(), 0700) == 0 || errno == EEXIST) {
            if (checkWritable(*directory, kUsual, nullptr) == 0)
                return 0;
        }
    }
    *directory = kSystemDirectory;
    if (mkdir(kSystemDirectory, 0755) != 0 && errno != EEXIST) {
        return fail(
            error, errno,
            "no directory to publish in: %s cannot be created (%s); set XDG_RUNTIME_DIR or ZEV_SHM_DIR",
            kSystemDirectory, std::strerror(errno));
    }
    return checkWritable(*directory, kUsual, error);
}

int socketFile(const std::string &directory, const std::string &name, SocketFile *file)
{
    struct stat status = {};
    if (stat((directory + "/" + name).c_str(), &status) != 0)
        return -errno;
    if (!S_ISSOCK(status.st_mode))
        return -ENOENT;
    // Inode numbers are used again at once on some file systems; the time of change is not.
    *file = {status.st_dev, status.st_ino, status.st_uid,
             static_cast<int64_t>(status.st_ctim.tv_sec) * 1000000000 + status.st_ctim.tv_nsec};
    return 0;
}

int connectStore(const std::string &directory, const std::string &name, int timeoutMs, UniqueFd *socket)
{
    sockaddr_un address;
    UniqueFd holder;
    int result = makeAddress(directory, name, &address, &holder);
    if (result != 0)
        return result;
    const int wait = timeoutMs > 0 ? 0 : SOCK_NONBLOCK;
    UniqueFd fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | wait, 0));
    if (!fd)
        return -errno;
    // connect() on a Unix socket waits only for a place in the listener's queue, bounded by this.
    const timeval limit = {timeoutMs / 1000, suseconds_t{timeoutMs % 1000} * 1000};
    if (timeoutMs > 0)
        setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    do {
        result = connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address);
    } while (result != 0 && errno == EINTR);
    if (result != 0)
        return errno == EWOULDBLOCK ? -EAGAIN : -errno;
    *socket = std::move(fd);
    return 0;
}

int Publication::claim(const std::string &directory, const std::string &name, shm_error_t *error)
{
    // What the rename would overwrite: a socket is a dead writer's, anything else is somebody's.
    struct stat present = {};
    const std::string visible = directory + "/" + name;
    if (lstat(visible.c_str(), &present) == 0 && !S_ISSOCK(present.st_mode)) {
        return fail(error, EEXIST, "%s is in the way, and no store: move it or use another name or directory",
                    visible.c_str());
    }
    const std::string path = lockPath(directory, name);
    for (int attempt = 0; attempt < 100; ++attempt) {
        // Looked up before it is opened: closing any descriptor of a file drops the process's record locks on
        // it.
        const std::lock_guard<std::mutex> guard(heldMutex());
        struct stat status = {};
        if (stat(path.c_str(), &status) == 0 && heldLocks().count({status.st_dev, status.st_ino}) != 0) {
            return fail(error, EADDRINUSE,
                        "store \"%s\" in %s is already published by this process: close that writer first",
                        name.c_str(), directory.c_str());
        }
        UniqueFd fd(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
        if (!fd) {
            return fail(error, errno,
                        "lock file %s cannot be opened: %s; it may belong to another user: use another name "
                        "or directory",
                        path.c_str(), std::strerror(errno));
        }
        struct flock lock = {};
        lock.l_type = F_WRLCK;
        lock.l_whence = SEEK_SET;
        if (fcntl(fd.get(), F_SETLK, &lock) != 0) {
            if (errno != EACCES && errno != EAGAIN)
                return fail(error, errno,
                            "lock file %s cannot be locked: %s; use a directory of a local file system",
                            path.c_str(), std::strerror(errno));
            struct flock holder = {};
            holder.l_type = F_WRLCK;
            holder.l_whence = SEEK_SET;
            fcntl(fd.get(), F_GETLK, &holder);
            return fail(error, EADDRINUSE,
                        "store \"%s\" in %s is already published by process %d: stop it or use another name",
                        name.c_str(), directory.c_str(), static_cast<int>(holder.l_pid));
        }
        // The one who had the lock before may have removed the file meanwhile; a lock on a removed file locks
        // nothing.
        struct stat opened = {};
        if (fstat(fd.get(), &opened) != 0 || stat(path.c_str(), &status) != 0 ||
            opened.st_dev != status.st_dev || opened.st_ino != status.st_ino) {
            continue;
        }
        heldLocks().insert({opened.st_dev, opened.st_ino});
        m_lockDevice = opened.st_dev;
        m_lockInode = opened.st_ino;
        m_lock = std::move(fd);
        m_directory = directory;
        m_name = name;
        SHM_STEP("start: name locked");
        return 0;
    }
    return fail(error, EAGAIN, "store \"%s\" changes hands all the time: try again", name.c_str());
}

int Publication::listen(long group, shm_error_t *error)
{
    const std::string temporary = "." + m_name + ".new";
    const std::string temporaryPath = m_directory + "/" + temporary;
    const std::string path = m_directory + "/" + m_name;

    // Under the lock, so nobody else uses the temporary name; a writer that died here may have left it.
    ::unlink(temporaryPath.c_str());
    UniqueFd fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd)
        return fail(error, errno,
                    "no socket for store \"%s\": %s; close some files or raise the limit (ulimit -n)",
                    m_name.c_str(), std::strerror(errno));
    sockaddr_un address;
    UniqueFd holder;
    const int result = makeAddress(m_directory, temporary, &address, &holder);
    if (result != 0)
        return fail(
            error, -result,
            "directory %s cannot be opened: %s; give it a shorter name or raise the limit (ulimit -n)",
            m_directory.c_str(), std::strerror(-result));
    // The mode is set before anybody can connect: there is no listener until the rename.
    if (bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        return failDirectory(m_directory, errno, kUsual, error);
    SHM_STEP("start: socket bound");
    const bool ready =
        chmod(temporaryPath.c_str(), group >= 0 ? 0660 : 0600) == 0 &&
        (group < 0 || chown(temporaryPath.c_str(), static_cast<uid_t>(-1), static_cast<gid_t>(group)) == 0) &&
        ::listen(fd.get(), 128) == 0 && rename(temporaryPath.c_str(), path.c_str()) == 0;
    if (!ready) {
        const int code = errno;
        ::unlink(temporaryPath.c_str());
        return fail(error, code, "store \"%s\" cannot be made visible in %s: %s; %s", m_name.c_str(),
                    m_directory.c_str(), std::strerror(code),
                    code == EPERM && group >= 0 ? "join the group that it is shared with"
                                                : "make the directory yours or name another one");
    }
    m_socket = std::move(fd);
    m_visible = true;
    SHM_STEP("start: visible");
    return 0;
}

void Publication::hide()
{
    if (m_visible)
        ::unlink((m_directory + "/" + m_name).c_str());
    m_visible = false;
}

void Publication::release()
{
    if (!m_lock)
        return;
    hide();
    SHM_STEP("close: out of sight");
    m_socket.reset();
    const std::lock_guard<std::mutex> guard(heldMutex());
    ::unlink(lockPath(m_directory, m_name).c_str());
    SHM_STEP("close: lock file removed");
    heldLocks().erase({m_lockDevice, m_lockInode});
    m_lock.reset();
}

void Publication::forget()
{
    m_visible = false;
    m_socket.reset();
    m_lock.reset();
}

} // namespace shm

int shm_list_stores(void (*visit)(void *context, const char *name, const char *directory), void *context)
{
    using namespace shm;
    return guarded(nullptr, [&] {
        std::map<std::string, std::string> found; // name to directory, in alphabetical order
        bool readable = false;
        int code = ENOENT;
        for (const std::string &directory : readerDirectories()) {
            DIR *stream = opendir(directory.c_str());
            if (stream == nullptr) {
                code = errno;
                continue;
            }
            readable = true;
            while (const dirent *entry = readdir(stream)) {
                SocketFile file;
                if (shm_check_name(entry->d_name, nullptr) == 0 &&
                    socketFile(directory, entry->d_name, &file) == 0) {
                    found.emplace(entry->d_name, directory);
                }
            }
            closedir(stream);
        }
        if (!readable)
            return -code;
        for (const auto &[name, directory] : found) {
            if (visit != nullptr)
                visit(context, name.c_str(), directory.c_str());
        }
        return static_cast<int>(found.size());
    });
}
