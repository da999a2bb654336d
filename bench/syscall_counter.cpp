#include "syscall_counter.h"

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// No such process group: the kernel answers with an error, and the parent sees where the measured part begins
// and ends.
constexpr int marker = 0x7ead5eed;
constexpr int ptraceRefused = 99;

void mark()
{
    syscall(SYS_getpgid, marker);
}

const char *nameOf(long number)
{
    switch (number) {
#ifdef SYS_poll
    case SYS_poll:
        return "poll";
#endif
    case SYS_ppoll:
        return "ppoll";
    case SYS_recvmsg:
        return "recvmsg";
    case SYS_futex:
        return "futex";
    case SYS_clock_gettime:
        return "clock_gettime";
    case SYS_read:
        return "read";
    case SYS_write:
        return "write";
    default:
        return nullptr;
    }
}

[[noreturn]] void runChild(const std::function<void()> &prepare, const std::function<void()> &measured)
{
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0)
        _exit(ptraceRefused);
    raise(SIGSTOP);
    prepare();
    mark();
    measured();
    mark();
    _exit(0);
}

} // namespace

long bench::SyscallCount::total() const
{
    long sum = 0;
    for (const auto &[number, count] : calls)
        sum += count;
    return sum;
}

std::string bench::SyscallCount::text() const
{
    std::string text;
    for (const auto &[number, count] : calls) {
        const char *name = nameOf(number);
        text += (text.empty() ? "" : ", ") + (name ? std::string(name) : "number " + std::to_string(number)) +
                " " + std::to_string(count);
    }
    return text.empty() ? "none" : text;
}

std::optional<bench::SyscallCount> bench::countSyscalls(const std::function<void()> &prepare,
                                                        const std::function<void()> &measured)
{
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0)
        runChild(prepare, measured);
    int status = 0;
    waitpid(child, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == ptraceRefused)
        return std::nullopt;
    ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    SyscallCount count;
    bool counting = false;
    int signal = 0;
    for (;;) {
        ptrace(PTRACE_SYSCALL, child, nullptr, signal);
        signal = 0;
        if (waitpid(child, &status, 0) < 0 || WIFEXITED(status) || WIFSIGNALED(status))
            break;
        if (WSTOPSIG(status) != (SIGTRAP | 0x80)) {
            signal = WSTOPSIG(status); // its own, passed on
            continue;
        }
        __ptrace_syscall_info info = {}; // the C library names it so
        ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof info, &info);
        if (info.op != PTRACE_SYSCALL_INFO_ENTRY)
            continue;
        if (info.entry.nr == SYS_getpgid && info.entry.args[0] == marker)
            counting = !counting;
        else if (counting)
            ++count.calls[static_cast<long>(info.entry.nr)];
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::fprintf(stderr, "the measured child failed (status 0x%x)\n", status);
        std::exit(1);
    }
    return count;
}
