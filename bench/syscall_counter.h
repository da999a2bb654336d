// Counts the system calls of a piece of code, by number: a child runs it under ptrace and the parent looks at
// every entry into the kernel. Nothing that the code calls can hide from that.
#ifndef BENCH_SYSCALL_COUNTER_H
#define BENCH_SYSCALL_COUNTER_H

#include <functional>
#include <map>
#include <optional>
#include <string>

namespace bench {

struct SyscallCount
{
    std::map<long, long> calls; // how often, by system call number
    long total() const;
    std::string text() const; // "poll 3, recvmsg 3"
};

// Forks; the child runs `prepare`, then `measured` and exits. Counts what the child's thread calls during
// `measured`. Nothing when ptrace is not allowed here. A child that fails ends the program.
std::optional<SyscallCount> countSyscalls(const std::function<void()> &prepare,
                                          const std::function<void()> &measured);

} // namespace bench

#endif
