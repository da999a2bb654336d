#include "dmabuf.h"

#include <fcntl.h>
#include <linux/dma-buf.h>
#include <linux/dma-heap.h>
#include <linux/udmabuf.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statfs.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#ifndef DMA_BUF_MAGIC
#define DMA_BUF_MAGIC 0x444d4142
#endif

namespace shm {
namespace {

int retried(int fd, unsigned long request, void *argument)
{
    int result = 0;
    do {
        result = ioctl(fd, request, argument);
    } while (result < 0 && (errno == EINTR || errno == EAGAIN));
    return result < 0 ? -errno : result;
}

class SystemDmabufDevice : public DmabufDevice
{
public:
    int exportMemfd(int memfd, uint64_t bytes, UniqueFd *dmabuf) override
    {
        const UniqueFd device(open("/dev/udmabuf", O_RDWR | O_CLOEXEC));
        if (!device)
            return -errno;
        udmabuf_create create = {};
        create.memfd = static_cast<uint32_t>(memfd);
        create.flags = UDMABUF_FLAGS_CLOEXEC;
        create.size = bytes;
        const int result = retried(device.get(), UDMABUF_CREATE, &create);
        if (result < 0)
            return result;
        dmabuf->reset(result);
        return 0;
    }

    int allocate(const char *heap, uint64_t bytes, UniqueFd *dmabuf) override
    {
        const UniqueFd device(open((std::string("/dev/dma_heap/") + heap).c_str(), O_RDWR | O_CLOEXEC));
        if (!device)
            return -errno;
        dma_heap_allocation_data allocation = {};
        allocation.len = bytes;
        allocation.fd_flags = O_RDWR | O_CLOEXEC;
        const int result = retried(device.get(), DMA_HEAP_IOCTL_ALLOC, &allocation);
        if (result < 0)
            return result;
        dmabuf->reset(static_cast<int>(allocation.fd));
        return 0;
    }

    // Writable means that no fence is open, of readers neither.
    bool isIdle(int dmabuf) override
    {
        pollfd poller = {dmabuf, POLLOUT, 0};
        return poll(&poller, 1, 0) == 1 && (poller.revents & POLLOUT) != 0;
    }

    void beginWrite(int dmabuf) override { synchronize(dmabuf, DMA_BUF_SYNC_START | DMA_BUF_SYNC_WRITE); }
    void endWrite(int dmabuf) override { synchronize(dmabuf, DMA_BUF_SYNC_END | DMA_BUF_SYNC_WRITE); }
    void takeDeviceWrites(int dmabuf) override
    {
        synchronize(dmabuf, DMA_BUF_SYNC_START | DMA_BUF_SYNC_READ);
        synchronize(dmabuf, DMA_BUF_SYNC_END | DMA_BUF_SYNC_READ);
    }

private:
    static void synchronize(int dmabuf, uint64_t flags)
    {
        dma_buf_sync sync = {};
        sync.flags = flags;
        retried(dmabuf, DMA_BUF_IOCTL_SYNC, &sync); // nothing can be done about a failure
    }
};

} // namespace

DmabufDevice &systemDmabufDevice()
{
    static SystemDmabufDevice device;
    return device;
}

std::string exportFailure(int code, uint64_t bytes)
{
    char text[128];
    switch (-code) {
    case ENOENT:
    case ENXIO:
    case ENODEV:
        return "no: this kernel has no /dev/udmabuf; load the module udmabuf or enable CONFIG_UDMABUF";
    case EACCES:
    case EPERM:
        return "no: the publisher may not open /dev/udmabuf; give its user access to it";
    case EINVAL:
        std::snprintf(text, sizeof text,
                      "no: udmabuf refuses frames of %llu bytes; raise its parameter size_limit_mb",
                      static_cast<unsigned long long>(bytes));
        return text;
    default:
        std::snprintf(text, sizeof text, "no: /dev/udmabuf does not export frames: %s", std::strerror(-code));
        return text;
    }
}

std::string lateExportFailure(int code, uint64_t bytes)
{
    return "yes, but not for memory that was added: " +
           exportFailure(code, bytes).substr(std::strlen("no: "));
}

bool saysExported(const char *text)
{
    return std::strcmp(text, "yes") == 0 || std::strncmp(text, "yes,", 4) == 0;
}

std::string heapFailure(int code, const std::string &heap)
{
    switch (-code) {
    case ENOENT:
    case ENXIO:
    case ENODEV:
        return "there is no /dev/dma_heap/" + heap + "; choose one that is there, or the memory kind memfd";
    case EACCES:
    case EPERM:
        return "this user may not open /dev/dma_heap/" + heap +
               "; give it access, or choose the memory kind memfd";
    default:
        return "/dev/dma_heap/" + heap + " does not allocate: " + std::strerror(-code);
    }
}

bool isHeapName(const std::string &name)
{
    // As drivers and device trees name them: "system", "linux,cma", "reserved@80000000".
    return !name.empty() && name.size() <= kHeapNameMax && name[0] != '.' &&
           std::all_of(name.begin(), name.end(), [](char c) { return c > ' ' && c <= '~' && c != '/'; });
}

int checkDmabuf(int fd, uint64_t bytes, uint64_t *inode, const char **why)
{
    struct stat status = {};
    struct statfs system = {};
    if (fstat(fd, &status) != 0 || fstatfs(fd, &system) != 0) {
        *why = "a descriptor cannot be examined";
        return -EPROTO;
    }
    if (static_cast<unsigned long>(system.f_type) != DMA_BUF_MAGIC) {
        *why = "a descriptor is no DMA-buf";
        return -EPROTO;
    }
    if (status.st_size < 0 || static_cast<uint64_t>(status.st_size) != bytes) {
        *why = "a DMA-buf is not of the announced size";
        return -EPROTO;
    }
    *inode = static_cast<uint64_t>(status.st_ino) ^ (static_cast<uint64_t>(status.st_dev) << 48);
    return 0;
}

} // namespace shm
