#include "messages.h"

#include <atomic>
#include <cstdio>
#include <mutex>
#include <unistd.h>

namespace zevshm {

namespace {

std::mutex outputMutex;
bool progressShown = false; // protected by outputMutex
std::atomic<bool> isVerbose{false};

void clearProgress()
{
    if (progressShown)
        std::fputs("\r\x1b[K", stderr);
    progressShown = false;
}

} // namespace

void say(const std::string &text)
{
    const std::lock_guard<std::mutex> lock(outputMutex);
    clearProgress();
    std::fprintf(stderr, "zevshm: %s\n", text.c_str());
    std::fflush(stderr);
}

void sayVerbose(const std::string &text)
{
    if (isVerbose)
        say(text);
}

void setVerbose(bool verbose)
{
    isVerbose = verbose;
}

void showProgress(const std::string &text)
{
    static const bool isTerminal = isatty(STDERR_FILENO) == 1;
    if (!isTerminal)
        return;
    const std::lock_guard<std::mutex> lock(outputMutex);
    clearProgress();
    std::fputs(text.c_str(), stderr);
    std::fflush(stderr);
    progressShown = true;
}

void endProgress()
{
    const std::lock_guard<std::mutex> lock(outputMutex);
    if (progressShown)
        std::fputs("\n", stderr);
    progressShown = false;
}

} // namespace zevshm
