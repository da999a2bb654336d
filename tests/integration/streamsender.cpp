#include "streamsender.h"

#include <csignal>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace driver {

namespace {

pid_t startFfmpeg(std::vector<std::string> &words)
{
    std::vector<char *> arguments;
    for (std::string &word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    pid_t pid = -1;
    return posix_spawnp(&pid, "ffmpeg", nullptr, nullptr, arguments.data(), environ) == 0 ? pid : -1;
}

} // namespace

bool runFfmpeg(std::vector<std::string> arguments)
{
    std::vector<std::string> words = {"ffmpeg", "-v", "quiet", "-nostdin", "-y"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    const pid_t pid = startFfmpeg(words);
    int status = 0;
    return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

StreamSender::StreamSender(std::string url, int rate) : m_url(std::move(url)), m_rate(rate) {}

StreamSender::~StreamSender()
{
    if (m_pid < 0)
        return;
    kill(m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
}

bool StreamSender::keepSending()
{
    if (m_pid > 0 && waitpid(m_pid, nullptr, WNOHANG) == 0)
        return true;
    std::vector<std::string> words = {
        "ffmpeg",   "-v",         "quiet",
        "-nostdin", "-re",        "-f",
        "lavfi",    "-i",         "testsrc2=s=320x240:r=" + std::to_string(m_rate),
        "-c:v",     "mpeg2video", "-g",
        "5",        "-f",         "mpegts",
        m_url};
    m_pid = startFfmpeg(words);
    return m_pid > 0;
}

} // namespace driver
