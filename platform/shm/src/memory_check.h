// Whether a store's memory is to be had, asked before any of it is allocated.
//
// Shared memory is not refused when it is allocated: the machine runs into its limit later and the kernel
// kills somebody. So the limits are compared first: free memory, the control group's limit, the process's
// limits.
//
// The decision is a pure function of MemoryFacts. Units: bytes.
#ifndef SHM_MEMORY_CHECK_H
#define SHM_MEMORY_CHECK_H

#include <shm/shm_types.h>

namespace shm {

constexpr uint64_t kNoLimit = UINT64_MAX;

struct MemoryNeed
{
    uint64_t bytes = 0;
    uint64_t hugeBytes = 0;
    uint64_t largestObject = 0;
    uint64_t descriptors = 0;
};

struct MemoryFacts
{
    uint64_t systemAvailable = kNoLimit;
    uint64_t groupAvailable = kNoLimit;   // of the control group and all above it
    uint64_t addressAvailable = kNoLimit; // RLIMIT_AS
    uint64_t fileLimit = kNoLimit;        // RLIMIT_FSIZE: of one object
    uint64_t descriptorsAvailable = kNoLimit;
    uint64_t hugeAvailable = 0;
};

// `root` is where /proc and /sys are found ("/", or a test's folder).
MemoryFacts readMemoryFacts(const char *root);

// How many more descriptors this process may open.
uint64_t descriptorsLeft(const char *root);

// Returns 0 or a negative errno (-ENOMEM, -EFBIG, -EMFILE) whose text names needed and available bytes.
int checkMemory(const MemoryNeed &need, const MemoryFacts &facts, const char *store, shm_error_t *error);

} // namespace shm

#endif
