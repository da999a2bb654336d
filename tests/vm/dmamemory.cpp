#include "dmamemory.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <linux/dma-buf.h>
#include <linux/dma-heap.h>
#include <linux/udmabuf.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

const size_t pageSize = 4096;
const QByteArray heapPrefix = QByteArrayLiteral("dma-heap:");

} // namespace

DmaMemory::DmaMemory(const QByteArray &kind, size_t size) : bytes((size + pageSize - 1) / pageSize * pageSize)
{
    if (kind.startsWith(heapPrefix))
        allocateFromHeap(kind.mid(heapPrefix.size()));
    else
        makeUdmabuf();
}

DmaMemory::~DmaMemory()
{
    if (pixels)
        munmap(pixels, bytes);
    if (dmabuf >= 0)
        close(dmabuf);
}

void DmaMemory::makeUdmabuf()
{
    const int memory = memfd_create("frames", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    const int device = open("/dev/udmabuf", O_RDWR | O_CLOEXEC);
    udmabuf_create create = {};
    create.memfd = static_cast<__u32>(memory);
    create.flags = UDMABUF_FLAGS_CLOEXEC;
    create.size = bytes;
    if (memory < 0 || ftruncate(memory, static_cast<off_t>(bytes)) ||
        fcntl(memory, F_ADD_SEALS, F_SEAL_SHRINK))
        fail("cannot make sealed memory");
    else if (device < 0)
        fail("cannot open /dev/udmabuf");
    else if ((dmabuf = ioctl(device, UDMABUF_CREATE, &create)) < 0)
        fail("/dev/udmabuf refuses the memory");
    else
        mapFrom(memory);
    if (device >= 0)
        close(device);
    if (memory >= 0)
        close(memory);
}

void DmaMemory::allocateFromHeap(const QByteArray &heap)
{
    const QByteArray path = "/dev/dma_heap/" + heap;
    const int device = open(path.constData(), O_RDWR | O_CLOEXEC);
    dma_heap_allocation_data allocation = {};
    allocation.len = bytes;
    allocation.fd_flags = O_RDWR | O_CLOEXEC;
    if (device < 0) {
        fail(path.constData());
    } else if (ioctl(device, DMA_HEAP_IOCTL_ALLOC, &allocation)) {
        fail("the heap refuses to allocate");
    } else {
        dmabuf = static_cast<int>(allocation.fd);
        mapFrom(dmabuf);
    }
    if (device >= 0)
        close(device);
}

void DmaMemory::mapFrom(int fd)
{
    void *mapped = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (mapped == MAP_FAILED)
        fail("cannot map the memory");
    else
        pixels = static_cast<unsigned char *>(mapped);
}

void DmaMemory::fail(const char *what)
{
    reason = QByteArray(what) + ": " + QByteArray(strerror(errno));
}

bool DmaMemory::beginWrite()
{
    return synchronize(DMA_BUF_SYNC_START | DMA_BUF_SYNC_WRITE);
}

bool DmaMemory::endWrite()
{
    return synchronize(DMA_BUF_SYNC_END | DMA_BUF_SYNC_WRITE);
}

bool DmaMemory::synchronize(unsigned long long flags)
{
    dma_buf_sync request = {};
    request.flags = flags;
    return ioctl(dmabuf, DMA_BUF_IOCTL_SYNC, &request) == 0;
}
