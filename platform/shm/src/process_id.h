// Tells a forked child from its parent without a system call.
//
// Frames and control pages are not mapped in a child, and a child must not touch the addresses where they
// were: something else may lie there by then. So every handle and mapping remembers processId() and does
// nothing where it differs.
//
// The word behind it lies on a page that the kernel wipes on fork (MADV_WIPEONFORK), which also covers
// children made by a bare clone(); getpid() would cost a system call per lock.
//
// Threads: thread-safe. Cost: one load.
#ifndef SHM_PROCESS_ID_H
#define SHM_PROCESS_ID_H

#include <atomic>
#include <cstdint>

namespace shm {

namespace detail {
extern std::atomic<std::atomic<uint64_t> *> processWord;
uint64_t renewProcessId();
} // namespace detail

// processId() if it has been asked for in this process, else 0: enough to compare with, and no call.
inline uint64_t knownProcessId()
{
    const std::atomic<uint64_t> *word = detail::processWord.load(std::memory_order_acquire);
    return word != nullptr ? word->load(std::memory_order_relaxed) : 0;
}

// Differs between this process and any it was forked from; never 0.
inline uint64_t processId()
{
    const uint64_t id = knownProcessId();
    return id != 0 ? id : detail::renewProcessId();
}

} // namespace shm

#endif
