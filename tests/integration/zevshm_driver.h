// What the integration tests of the command-line tool have in common: real processes, a store directory of
// their own, readers that wait by condition, and media made on the spot.
#ifndef ZEVSHM_DRIVER_H
#define ZEVSHM_DRIVER_H

#include <shm/shm_reader.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace driver {

// For conditions that come true within a second on an idle machine; more where the processor is emulated.
#ifdef ZEVSHM_DRIVER_LIMIT_MS
constexpr int generousMs = ZEVSHM_DRIVER_LIMIT_MS;
#else
constexpr int generousMs = 20000;
#endif

// Waits until `condition` holds; false after `limitMs`.
bool waitFor(const std::function<bool()> &condition, int limitMs = generousMs);

// A fresh directory, named by ZEV_SHM_DIR while it lives, removed with all that is in it.
class StoreDirectory
{
public:
    StoreDirectory();
    ~StoreDirectory();
    const std::string &path() const { return m_path; }
    std::string file(const std::string &name) const { return m_path + "/" + name; }
    bool hasSocket(const std::string &store) const;

private:
    std::string m_path;
};

// A process of the tool. Killed when it is forgotten.
class Zevshm
{
public:
    // Borrows the descriptors. With `errorFd` its messages go there, and errors() is empty; with `outputFd`
    // the same for output().
    explicit Zevshm(const std::vector<std::string> &arguments, int inputFd = -1, int errorFd = -1,
                    int outputFd = -1);
    ~Zevshm();
    Zevshm(const Zevshm &) = delete;
    Zevshm &operator=(const Zevshm &) = delete;

    void signal(int number) const;
    // The exit code, 128 + the signal that ended it, or -1 when it has not ended in time (it is killed then).
    int wait(int limitMs = generousMs);
    bool running();
    pid_t pid() const { return m_pid; }
    // What it has written; complete after wait().
    std::string output() const;
    std::string errors() const;

private:
    pid_t m_pid = -1;
    std::optional<int> m_code;
    int m_outputFd = -1;
    int m_errorFd = -1;
};

struct Result
{
    int code;
    std::string output;
    std::string errors;
};
Result run(const std::vector<std::string> &arguments);

struct ReaderClose
{
    void operator()(shm_reader_t *reader) const { shm_reader_close(reader); }
};
using Reader = std::unique_ptr<shm_reader_t, ReaderClose>;

// Waits until the store is there.
Reader openStore(const std::string &name);

// A locked frame, given back at the end of the scope.
class Frame
{
public:
    explicit Frame(shm_reader_t *reader, int64_t timestamp = 0,
                   shm_video_lookup_mode_t mode = SHM_VIDEO_NEWEST);
    ~Frame() { shm_reader_unlock_video(m_reader, &m_frame); }
    Frame(const Frame &) = delete;
    Frame &operator=(const Frame &) = delete;
    explicit operator bool() const { return m_frame.planes[0] != nullptr; }
    const shm_video_frame_t &operator*() const { return m_frame; }
    const shm_video_frame_t *operator->() const { return &m_frame; }

private:
    shm_reader_t *m_reader;
    shm_video_frame_t m_frame{};
};

// Waits until the store has published `frames` frames since its start.
bool waitForFrames(shm_reader_t *reader, uint64_t frames);
// The timestamps of all frames from now on until there are `count`, oldest first; fewer after the limit.
std::vector<int64_t> collectTimestamps(shm_reader_t *reader, size_t count);
shm_store_info_t storeInfo(shm_reader_t *reader);

} // namespace driver

#endif
