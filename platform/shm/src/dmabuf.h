// DMA-bufs of slot memory: descriptors that a GPU or another device imports it through.
//
// Two ways to one. /dev/udmabuf makes a DMA-buf of a sealed memfd; a heap in /dev/dma_heap allocates memory
// that is a DMA-buf from the start. Both are optional in a kernel, and their nodes belong to root unless a
// device's rules say otherwise: that there is none is the normal case.
#ifndef SHM_DMABUF_H
#define SHM_DMABUF_H

#include "fd.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace shm {

// What the kernel does with DMA-bufs; a test puts something else in its place.
//
// Threads: reentrant. Ownership: borrows the descriptors it is given. Errors: 0 or a negative errno.
class DmabufDevice
{
public:
    virtual ~DmabufDevice() = default;

    // A DMA-buf of a whole memfd that is sealed against shrinking, and not yet against writing.
    virtual int exportMemfd(int memfd, uint64_t bytes, UniqueFd *dmabuf) = 0;
    // Zeroed memory from /dev/dma_heap/`heap`.
    virtual int allocate(const char *heap, uint64_t bytes, UniqueFd *dmabuf) = 0;
    // No device has work with this memory under way. Never waits.
    virtual bool isIdle(int dmabuf) = 0;
    // Bracket the processor's writes: a device without coherent caches sees them after the second. Wait for a
    // device that has work under way: ask isIdle() first.
    virtual void beginWrite(int dmabuf) = 0;
    virtual void endWrite(int dmabuf) = 0;
    // Between a device's writes and the processor's reads: what caches have of before is forgotten, nothing
    // of theirs is written over what the device wrote. To be asked once the device is done, then it does not
    // wait.
    virtual void takeDeviceWrites(int dmabuf) = 0;
};

DmabufDevice &systemDmabufDevice();

// Why exportMemfd() failed with `code` (negative errno) for slots of `bytes`: one line that fits a welcome.
std::string exportFailure(int code, uint64_t bytes);
// The same when only memory that was added later is without.
std::string lateExportFailure(int code, uint64_t bytes);
// Whether such a line says that there are DMA-bufs at all.
bool saysExported(const char *text);
std::string heapFailure(int code, const std::string &heap);

// A heap's name: it becomes part of a path, and with "dma-heap:" before it of a field of 32 bytes.
constexpr size_t kHeapNameMax = 22;
bool isHeapName(const std::string &name);

// Checks a descriptor that a peer sent: a DMA-buf (whose size cannot change) of exactly this size. Anything
// else could end in SIGBUS in the driver that imports it. Returns 0 or a negative errno with the reason in
// `*why`.
int checkDmabuf(int fd, uint64_t bytes, uint64_t *inode, const char **why);

} // namespace shm

#endif
