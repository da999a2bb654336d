// A stand-in for /dev/udmabuf and /dev/dma_heap/system, to be preloaded where the kernel has neither:
// programs then take the whole DMA-buf road, within a second and without a virtual machine. What it hands out
// are memfds. Mesa's lavapipe imports those like a DMA-buf, a real device would not: what needs the kernel's
// own is run in the virtual machine.
//
// They are opened a second time with O_NOATIME, which no memfd has otherwise: by that flag, which travels
// with the descriptor from process to process, fstatfs() knows them and says that they are DMA-bufs.
//
// It refuses what the kernel refuses: memory that is not sealed against shrinking or is sealed against
// writing, sizes that are not whole pages or above 64 MiB, or what $FAKE_UDMABUF_LIMIT_FILE says instead,
// like the kernel's parameter size_limit_mb. Offsets into the memory, which nothing here uses, are refused
// too.
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <linux/dma-buf.h>
#include <linux/dma-heap.h>
#include <linux/sync_file.h>
#include <linux/udmabuf.h>

#ifndef F_SEAL_FUTURE_WRITE
#define F_SEAL_FUTURE_WRITE 0x0010
#endif

#ifndef DMA_BUF_MAGIC
#define DMA_BUF_MAGIC 0x444d4142
#endif

#define FAKE __attribute__((visibility("default")))

enum { pageSize = 4096, usualLimitMb = 64 };

static int openAt(int folder, const char *path, int flags, mode_t mode)
{
    if (path && (!strcmp(path, "/dev/udmabuf") || !strcmp(path, "/dev/dma_heap/system")))
        return memfd_create("fake-dmabuf-device", MFD_CLOEXEC);
    return (int)syscall(SYS_openat, folder, path, flags | O_LARGEFILE, mode);
}

static mode_t modeOf(int flags, va_list arguments)
{
    return flags & O_CREAT || (flags & O_TMPFILE) == O_TMPFILE ? va_arg(arguments, mode_t) : 0;
}

#define DEFINE_OPEN(name)                                                                                    \
    FAKE int name(const char *path, int flags, ...);                                                         \
    FAKE int name(const char *path, int flags, ...)                                                          \
    {                                                                                                        \
        va_list arguments;                                                                                   \
        va_start(arguments, flags);                                                                          \
        const mode_t mode = modeOf(flags, arguments);                                                        \
        va_end(arguments);                                                                                   \
        return openAt(AT_FDCWD, path, flags, mode);                                                          \
    }

#define DEFINE_OPENAT(name)                                                                                  \
    FAKE int name(int folder, const char *path, int flags, ...);                                             \
    FAKE int name(int folder, const char *path, int flags, ...)                                              \
    {                                                                                                        \
        va_list arguments;                                                                                   \
        va_start(arguments, flags);                                                                          \
        const mode_t mode = modeOf(flags, arguments);                                                        \
        va_end(arguments);                                                                                   \
        return openAt(folder, path, flags, mode);                                                            \
    }

DEFINE_OPEN(open)
DEFINE_OPEN(open64)
DEFINE_OPEN(__open_2)
DEFINE_OPEN(__open64_2)
DEFINE_OPENAT(openat)
DEFINE_OPENAT(openat64)

static int isMemfd(int fd)
{
    struct stat status;
    return fcntl(fd, F_GET_SEALS) >= 0 && !fstat(fd, &status) && S_ISREG(status.st_mode);
}

static int fail(int error)
{
    errno = error;
    return -1;
}

// A second open file of the same memory, marked.
static int mark(int fd)
{
    char path[40];
    snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    return (int)syscall(SYS_openat, AT_FDCWD, path, O_RDWR | O_LARGEFILE | O_NOATIME | O_CLOEXEC, 0);
}

static int isMarked(int fd)
{
    return isMemfd(fd) && (fcntl(fd, F_GETFL) & O_NOATIME) != 0;
}

#define DEFINE_FSTATFS(name, type)                                                                           \
    FAKE int name(int fd, struct type *status)                                                               \
    {                                                                                                        \
        const int result = (int)syscall(SYS_fstatfs, fd, status);                                            \
        if (result == 0 && isMarked(fd))                                                                     \
            status->f_type = DMA_BUF_MAGIC;                                                                  \
        return result;                                                                                       \
    }

DEFINE_FSTATFS(fstatfs, statfs)
DEFINE_FSTATFS(fstatfs64, statfs64) // the same record on 64-bit systems

static uint64_t udmabufLimit(void)
{
    char text[16] = "";
    const char *file = getenv("FAKE_UDMABUF_LIMIT_FILE");
    const int fd = file ? (int)syscall(SYS_openat, AT_FDCWD, file, O_RDONLY | O_CLOEXEC, 0) : -1;
    const ssize_t length = fd < 0 ? -1 : read(fd, text, sizeof text - 1);
    if (fd >= 0)
        close(fd);
    const long megabytes = length > 0 ? strtol(text, NULL, 10) : usualLimitMb;
    return (uint64_t)megabytes << 20;
}

static int createUdmabuf(const struct udmabuf_create *create)
{
    const int seals = fcntl((int)create->memfd, F_GET_SEALS);
    struct stat status;
    if (seals < 0 || fstat((int)create->memfd, &status))
        return fail(EBADF);
    if (!(seals & F_SEAL_SHRINK) || seals & (F_SEAL_WRITE | F_SEAL_FUTURE_WRITE))
        return fail(EINVAL);
    if (create->offset || !create->size || create->size % pageSize || create->size > udmabufLimit() ||
        create->size > (uint64_t)status.st_size)
        return fail(EINVAL);
    return mark((int)create->memfd);
}

static int allocateFromHeap(struct dma_heap_allocation_data *allocation)
{
    if (allocation->fd || !allocation->len || allocation->heap_flags)
        return fail(EINVAL);
    const int fd = memfd_create("fake-dma-heap", MFD_CLOEXEC);
    const uint64_t size = (allocation->len + pageSize - 1) / pageSize * pageSize;
    if (fd < 0 || ftruncate(fd, (off_t)size)) {
        if (fd >= 0)
            close(fd);
        return fail(ENOMEM);
    }
    const int marked = mark(fd);
    close(fd);
    if (marked < 0)
        return fail(ENOMEM);
    allocation->fd = (uint32_t)marked;
    return 0;
}

FAKE int ioctl(int fd, unsigned long request, ...)
{
    va_list arguments;
    va_start(arguments, request);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);

    if (isMemfd(fd)) {
        switch (request) {
        case UDMABUF_CREATE:
            return createUdmabuf(argument);
        case DMA_HEAP_IOCTL_ALLOC:
            return allocateFromHeap(argument);
        case DMA_BUF_IOCTL_SYNC:
        case DMA_BUF_IOCTL_IMPORT_SYNC_FILE:
            return 0;
        case DMA_BUF_IOCTL_EXPORT_SYNC_FILE: { // idle always: an event that has happened stands for the fence
            struct dma_buf_export_sync_file *exported = argument;
            exported->fd = eventfd(1, EFD_CLOEXEC);
            return exported->fd < 0 ? -1 : 0;
        }
        default:
            break;
        }
    }
    const int result = (int)syscall(SYS_ioctl, fd, request, argument);
    if (result != 0 && request == SYNC_IOC_MERGE) {
        struct sync_merge_data *merge = argument;
        merge->fence = eventfd(1, EFD_CLOEXEC);
        return merge->fence < 0 ? -1 : 0;
    }
    return result;
}
