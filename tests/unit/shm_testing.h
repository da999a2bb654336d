// What the frame store's tests share: a directory of their own, child processes, waiting by condition.
#ifndef SHM_TESTING_H
#define SHM_TESTING_H

#include "../waiting.h"
#include "store_directory.h"

#include <shm/shm_reader.h>
#include <shm/shm_writer.h>

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace testing_shm {

// Looks at `condition` without a pause until it holds; false when it does not within a generous time.
template <class Condition>
bool eventually(Condition &&condition, std::chrono::seconds limit = std::chrono::seconds(30))
{
    return waitFor(condition, limit, [] { std::this_thread::yield(); });
}

inline shm_writer_params_t smallVideo(const char *name)
{
    shm_writer_params_t params;
    shm_writer_params_init(&params);
    params.name = name;
    params.width = 64;
    params.height = 48;
    params.pixel_format = SHM_PIXEL_FORMAT_NV12;
    params.history_frames = 8;
    params.spare_frames = 4;
    return params;
}

inline shm_writer_params_t smallAudio(const char *name, int channels = 2)
{
    shm_writer_params_t params;
    shm_writer_params_init(&params);
    params.name = name;
    params.sample_rate = 48000;
    params.channels = channels;
    return params;
}

// Owners, so that a failing assertion leaks nothing.
struct CloseWriter
{
    void operator()(shm_writer_t *writer) const { shm_writer_close(writer); }
};
struct CloseReader
{
    void operator()(shm_reader_t *reader) const { shm_reader_close(reader); }
};
using Writer = std::unique_ptr<shm_writer_t, CloseWriter>;
using Reader = std::unique_ptr<shm_reader_t, CloseReader>;

inline Writer openWriter(const shm_writer_params_t &params, shm_error_t *error = nullptr)
{
    shm_writer_t *writer = nullptr;
    shm_writer_open(&params, &writer, error);
    return Writer(writer);
}

inline Reader openReader(const char *name, shm_error_t *error = nullptr, int maxLocks = 0,
                         int timeoutMs = 10000)
{
    shm_reader_options_t options = {};
    options.size = sizeof options;
    options.timeout_ms = timeoutMs;
    options.max_locks = maxLocks;
    return Reader(shm_reader_open_with(name, &options, error));
}

// Publishes one frame whose every byte is `value`.
inline int publishFrame(shm_writer_t *writer, int64_t timestamp, uint8_t value)
{
    shm_writer_frame_t frame = {};
    const int result = shm_writer_acquire(writer, &frame);
    if (result != 0)
        return result;
    std::memset(frame.planes[0], value, static_cast<size_t>(frame.strides[0]) * 48);
    std::memset(frame.planes[1], value, static_cast<size_t>(frame.strides[1]) * 24);
    return shm_writer_publish(writer, &frame, timestamp);
}

inline int lockFrame(shm_reader_t *reader, shm_video_frame_t *frame, shm_video_lookup_mode_t mode,
                     int64_t timestamp = 0)
{
    *frame = shm_video_frame_t{};
    frame->timestamp = timestamp;
    return shm_reader_lock_video(reader, frame, mode);
}

inline shm_writer_stats_t statsOf(shm_writer_t *writer)
{
    shm_writer_stats_t stats = {};
    stats.size = sizeof stats;
    shm_writer_get_stats(writer, &stats);
    return stats;
}

inline shm_store_info_t infoOf(shm_reader_t *reader)
{
    shm_store_info_t info = {};
    info.size = sizeof info;
    shm_reader_get_info(reader, &info);
    return info;
}

inline size_t openDescriptors()
{
    size_t count = 0;
    for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator("/proc/self/fd"))
        ++count;
    return count;
}

inline size_t shmMappings()
{
    std::ifstream maps("/proc/self/maps");
    std::string line;
    size_t count = 0;
    while (std::getline(maps, line))
        count += line.find("memfd:shm-") != std::string::npos ? 1 : 0;
    return count;
}

// A child process that talks through two pipes: it tells by a byte that it has come to a point, and goes on
// when it is told to. Forked while this process has a single thread.
class Child
{
public:
    explicit Child(const std::function<int(Child &)> &body)
    {
        if (pipe(m_toChild) != 0 || pipe(m_toParent) != 0)
            std::abort();
        m_pid = fork();
        if (m_pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            close(m_toChild[1]);
            close(m_toParent[0]);
            m_out = m_toParent[1];
            m_in = m_toChild[0];
            _exit(body(*this));
        }
        close(m_toChild[0]);
        close(m_toParent[1]);
        m_out = m_toChild[1];
        m_in = m_toParent[0];
    }
    ~Child()
    {
        if (m_pid > 0)
            kill9();
        close(m_out);
        close(m_in);
    }
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    // Both sides.
    void tell(char what = 'x')
    {
        while (write(m_out, &what, 1) < 0 && errno == EINTR) {
        }
    }
    // 0 when the other side has gone.
    char hear()
    {
        char what = 0;
        ssize_t n = 0;
        while ((n = read(m_in, &what, 1)) < 0 && errno == EINTR) {
        }
        return n == 1 ? what : 0;
    }

    pid_t pid() const { return m_pid; }
    void kill9()
    {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
        m_pid = -1;
    }
    int exitCode()
    {
        int status = 0;
        waitpid(m_pid, &status, 0);
        m_pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
    }

private:
    int m_toChild[2] = {-1, -1};
    int m_toParent[2] = {-1, -1};
    int m_out = -1;
    int m_in = -1;
    pid_t m_pid = -1;
};

} // namespace testing_shm

#endif
