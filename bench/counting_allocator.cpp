#include "counting_allocator.h"

#include <cerrno>
#include <cstddef>

// The C library's own, under the names that it keeps for whoever stands before them.
extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *memory, size_t size);
void *__libc_memalign(size_t alignment, size_t size);
void __libc_free(void *memory);
}

namespace {

constexpr size_t large = 64 * 1024;
// initial-exec: a first access from malloc itself must not allocate.
__attribute__((tls_model("initial-exec"))) thread_local bench::Allocations counts;

void *counted(void *memory, size_t size)
{
    ++counts.count;
    counts.largeCount += size >= large;
    return memory;
}

} // namespace

bench::Allocations bench::allocations()
{
    return counts;
}

extern "C" {
#pragma GCC visibility push(default)

void *malloc(size_t size)
{
    return counted(__libc_malloc(size), size);
}
void *calloc(size_t count, size_t size)
{
    return counted(__libc_calloc(count, size), count * size);
}
void *realloc(void *memory, size_t size)
{
    return counted(__libc_realloc(memory, size), size);
}
void *memalign(size_t alignment, size_t size)
{
    return counted(__libc_memalign(alignment, size), size);
}
void *aligned_alloc(size_t alignment, size_t size)
{
    return counted(__libc_memalign(alignment, size), size);
}
int posix_memalign(void **memory, size_t alignment, size_t size)
{
    *memory = counted(__libc_memalign(alignment, size), size);
    return *memory ? 0 : ENOMEM;
}
void free(void *memory)
{
    counts.frees += memory != nullptr;
    __libc_free(memory);
}

#pragma GCC visibility pop
}
