// Shared memory objects: sealed memfds and their mappings.
#ifndef SHM_MEMORY_H
#define SHM_MEMORY_H

#include "dmabuf.h"
#include "fd.h"
#include "protocol.h"

#include <cstddef>
#include <cstdint>

namespace shm {

// Owner of a mapping. Not mapped in a forked child (MADV_DONTFORK), where the owner forgets it: something
// else may lie at the address there. Left out of core dumps: a store is gigabytes of somebody's pictures.
class Mapping
{
public:
    Mapping() = default;
    Mapping(Mapping &&other) noexcept;
    Mapping &operator=(Mapping &&other) noexcept;
    Mapping(const Mapping &) = delete;
    Mapping &operator=(const Mapping &) = delete;
    ~Mapping() { reset(); }

    // Borrows `fd`. Returns 0 or a negative errno.
    int map(int fd, size_t bytes, bool writable);
    void reset();

    uint8_t *data() const { return m_data; }
    size_t size() const { return m_bytes; }

private:
    uint8_t *m_data = nullptr;
    size_t m_bytes = 0;
    uint64_t m_process = 0;
};

struct SharedMemory
{
    UniqueFd fd;
    Mapping mapping;
    UniqueFd dmabuf; // of the same memory; empty when it is not exported
};

// Seals by purpose. Every object ends with F_SEAL_SEAL: a reader with a writable descriptor could otherwise
// add a seal that stops the others from mapping.
unsigned sealsForReadOnly(); // index, audio, sealed frames: nobody but the writer's present mapping can write
unsigned sealsForShared();   // frames, control pages

// Creates zeroed memory, populated (a frame that is first touched while it is filled costs a whole frame
// period), mapped writable and sealed. `bytes` is a multiple of the page size of `kind`. Returns 0 or a
// negative errno.
int createSharedMemory(SharedMemory *memory, const char *label, uint64_t bytes, MemoryKind kind,
                       unsigned seals);

// The same, exported as a DMA-buf as well. `*exported` is 0 or the negative errno that stood against it; the
// memory is there all the same.
int createExportedMemory(SharedMemory *memory, const char *label, uint64_t bytes, unsigned seals,
                         DmabufDevice &device, int *exported);

// Memory of a heap, which is a DMA-buf itself. There are no seals for it: whoever has its descriptor can
// write.
int createHeapMemory(SharedMemory *memory, const char *heap, uint64_t bytes, DmabufDevice &device);

// A read-only descriptor of the same memory, whose mode is made 0400 so that its receiver cannot turn it into
// a writable one through /proc. Empty with errno set on failure.
UniqueFd reopenReadOnly(int fd);

uint64_t hugePageBytes(); // 0 when the system has none

// Checks a descriptor that a peer sent before anything is mapped: regular memory file on tmpfs or hugetlbfs,
// these seals at least, exactly this size, not sparse. `*inode` identifies the memory. Returns 0 or a
// negative errno with the reason in `*why`.
int checkSharedMemory(int fd, uint64_t bytes, unsigned seals, uint64_t *inode, const char **why);

} // namespace shm

#endif
