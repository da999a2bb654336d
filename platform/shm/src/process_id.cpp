#include "process_id.h"

#include <pthread.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <new>

namespace shm {
namespace detail {

std::atomic<std::atomic<uint64_t> *> processWord{nullptr};

namespace {

std::atomic<uint64_t> fallbackWord{0};

std::atomic<uint64_t> *makeWord()
{
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    // cppcheck-suppress invalidFunctionArg  // anonymous memory has no descriptor
    void *memory = mmap(nullptr, page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory != MAP_FAILED) {
        if (madvise(memory, page, MADV_WIPEONFORK) == 0)
            return new (memory) std::atomic<uint64_t>(0);
        munmap(memory, page);
    }
    // A kernel before 4.14. Children of a bare clone() go unnoticed there.
    pthread_atfork(nullptr, nullptr, [] { fallbackWord.store(0, std::memory_order_relaxed); });
    return &fallbackWord;
}

} // namespace

uint64_t renewProcessId()
{
    static std::atomic<uint64_t> *const word = makeWord();
    processWord.store(word, std::memory_order_release);

    // Process ids are used again, so the time goes in as well: a grandchild may have its grandparent's id.
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const uint64_t moment =
        static_cast<uint64_t>(now.tv_sec) * 1000000u + static_cast<uint64_t>(now.tv_nsec) / 1000u;
    const uint64_t fresh = (static_cast<uint64_t>(getpid()) << 40) ^ moment ^ (uint64_t{1} << 63);
    uint64_t expected = 0;
    if (word->compare_exchange_strong(expected, fresh, std::memory_order_relaxed))
        return fresh;
    return expected;
}

} // namespace detail
} // namespace shm
