// Counts what is allocated on the heap. Linked into a program, it stands before the C library's malloc for
// every library of that program.
#ifndef BENCH_COUNTING_ALLOCATOR_H
#define BENCH_COUNTING_ALLOCATOR_H

#include <cstdint>

namespace bench {

struct Allocations
{
    uint64_t count;      // calls that gave memory
    uint64_t largeCount; // of those, for 64 KiB and more: images
    uint64_t frees;
};

// Of the calling thread since it began.
Allocations allocations();

} // namespace bench

#endif
