#include "zevshm_driver.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace driver {

namespace {

std::string readAll(int fd)
{
    std::string text;
    char buffer[4096];
    off_t at = 0;
    ssize_t got;
    while ((got = pread(fd, buffer, sizeof buffer, at)) > 0) {
        text.append(buffer, static_cast<size_t>(got));
        at += got;
    }
    return text;
}

} // namespace

bool waitFor(const std::function<bool()> &condition, int limitMs)
{
    const auto limit = std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > limit)
            return false;
        poll(nullptr, 0, 2); // between two looks at the condition
    }
    return true;
}

StoreDirectory::StoreDirectory()
{
    char path[] = "/tmp/zevXXXXXX";
    if (!mkdtemp(path))
        throw std::runtime_error("no directory for the stores");
    m_path = path;
    setenv("ZEV_SHM_DIR", path, 1);
}

StoreDirectory::~StoreDirectory()
{
    unsetenv("ZEV_SHM_DIR");
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

bool StoreDirectory::hasSocket(const std::string &store) const
{
    for (const auto &entry : std::filesystem::directory_iterator(m_path)) {
        if (entry.is_socket() && entry.path().filename().string().rfind(store, 0) == 0)
            return true;
    }
    return false;
}

Zevshm::Zevshm(const std::vector<std::string> &arguments, int inputFd, int errorFd, int outputFd)
{
    // Files in memory: output of any length never blocks the process.
    m_outputFd = memfd_create("output", MFD_CLOEXEC);
    m_errorFd = memfd_create("errors", MFD_CLOEXEC);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (inputFd >= 0)
        posix_spawn_file_actions_adddup2(&actions, inputFd, STDIN_FILENO);
    else
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, outputFd >= 0 ? outputFd : m_outputFd, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, errorFd >= 0 ? errorFd : m_errorFd, STDERR_FILENO);
    std::vector<char *> argv = {const_cast<char *>(ZEVSHM_PROGRAM)};
    for (const std::string &argument : arguments)
        argv.push_back(const_cast<char *>(argument.c_str()));
    argv.push_back(nullptr);
    const int rc = posix_spawn(&m_pid, ZEVSHM_PROGRAM, &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0)
        throw std::runtime_error(std::string("cannot start ") + ZEVSHM_PROGRAM + ": " + std::strerror(rc));
}

Zevshm::~Zevshm()
{
    if (running()) {
        signal(SIGKILL);
        wait();
    }
    close(m_outputFd);
    close(m_errorFd);
}

void Zevshm::signal(int number) const
{
    kill(m_pid, number);
}

bool Zevshm::running()
{
    if (m_code)
        return false;
    int status = 0;
    if (waitpid(m_pid, &status, WNOHANG) != m_pid)
        return true;
    m_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return false;
}

int Zevshm::wait(int limitMs)
{
    if (waitFor([this] { return !running(); }, limitMs))
        return *m_code;
    signal(SIGKILL);
    waitFor([this] { return !running(); });
    return -1;
}

std::string Zevshm::output() const
{
    return readAll(m_outputFd);
}

std::string Zevshm::errors() const
{
    return readAll(m_errorFd);
}

Result run(const std::vector<std::string> &arguments)
{
    Zevshm process(arguments);
    const int code = process.wait();
    return {code, process.output(), process.errors()};
}

Reader openStore(const std::string &name)
{
    Reader reader;
    waitFor([&] {
        reader.reset(shm_reader_open(name.c_str(), 1000));
        return reader != nullptr;
    });
    return reader;
}

Frame::Frame(shm_reader_t *reader, int64_t timestamp, shm_video_lookup_mode_t mode) : m_reader(reader)
{
    m_frame.timestamp = timestamp;
    shm_reader_lock_video(reader, &m_frame, mode);
}

bool waitForFrames(shm_reader_t *reader, uint64_t frames)
{
    return waitFor([&] {
        shm_video_status_t status{};
        return shm_reader_get_video_status(reader, &status) == 0 && status.frames_published >= frames;
    });
}

std::vector<int64_t> collectTimestamps(shm_reader_t *reader, size_t count)
{
    std::vector<int64_t> collected;
    waitFor([&] {
        long long held[SHM_FRAMES_MAX];
        const int got = shm_reader_get_video_timestamps(reader, held, SHM_FRAMES_MAX);
        for (int i = 0; i < got; ++i) {
            if (collected.empty() || held[i] > collected.back())
                collected.push_back(held[i]);
        }
        return collected.size() >= count;
    });
    return collected;
}

shm_store_info_t storeInfo(shm_reader_t *reader)
{
    shm_store_info_t info{};
    info.size = sizeof info;
    shm_reader_get_info(reader, &info);
    return info;
}

} // namespace driver
