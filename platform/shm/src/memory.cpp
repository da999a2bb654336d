#include "memory.h"

#include "process_id.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <linux/memfd.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statfs.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#ifndef MFD_NOEXEC_SEAL
#define MFD_NOEXEC_SEAL 0x0008U
#endif
#ifndef F_SEAL_FUTURE_WRITE
#define F_SEAL_FUTURE_WRITE 0x0010
#endif
#ifndef HUGETLBFS_MAGIC
#define HUGETLBFS_MAGIC 0x958458f6
#endif

namespace shm {

Mapping::Mapping(Mapping &&other) noexcept
    : m_data(std::exchange(other.m_data, nullptr)), m_bytes(std::exchange(other.m_bytes, 0)),
      m_process(other.m_process)
{}

Mapping &Mapping::operator=(Mapping &&other) noexcept
{
    if (this != &other) {
        reset();
        m_data = std::exchange(other.m_data, nullptr);
        m_bytes = std::exchange(other.m_bytes, 0);
        m_process = other.m_process;
    }
    return *this;
}

int Mapping::map(int fd, size_t bytes, bool writable)
{
    reset();
    void *memory = mmap(nullptr, bytes, writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED)
        return -errno;
    madvise(memory, bytes, MADV_DONTFORK);
    madvise(memory, bytes, MADV_DONTDUMP);
    m_data = static_cast<uint8_t *>(memory);
    m_bytes = bytes;
    m_process = processId();
    return 0;
}

void Mapping::reset()
{
    if (m_data != nullptr && m_process == processId())
        munmap(m_data, m_bytes);
    m_data = nullptr;
    m_bytes = 0;
}

unsigned sealsForReadOnly()
{
    return F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_FUTURE_WRITE | F_SEAL_SEAL;
}

unsigned sealsForShared()
{
    return F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;
}

namespace {

UniqueFd createMemfd(const char *label, MemoryKind kind)
{
    const unsigned base = MFD_CLOEXEC | MFD_ALLOW_SEALING | (kind == kHugePages ? MFD_HUGETLB : 0u);
    UniqueFd fd(memfd_create(label, base | MFD_NOEXEC_SEAL));
    if (!fd && errno == EINVAL) // a kernel before 6.3
        fd = UniqueFd(memfd_create(label, base));
    return fd;
}

int allocate(int fd, uint64_t bytes)
{
    int result = 0;
    do {
        result = fallocate(fd, 0, 0, static_cast<off_t>(bytes));
    } while (result != 0 && errno == EINTR);
    return result == 0 ? 0 : -errno;
}

} // namespace

namespace {

// Zeroed, populated and mapped; not sealed yet.
int createUnsealed(SharedMemory *memory, const char *label, uint64_t bytes, MemoryKind kind)
{
    memory->fd = createMemfd(label, kind);
    if (!memory->fd)
        return -errno;
    if (ftruncate(memory->fd.get(), static_cast<off_t>(bytes)) != 0)
        return -errno;
    int result = allocate(memory->fd.get(), bytes);
    if (result != 0)
        return result == -ENOSPC ? -ENOMEM : result;
    result = memory->mapping.map(memory->fd.get(), bytes, true);
    if (result != 0)
        return result;
        // Fills the page tables; the pages are there already. An older kernel faults them in one by one,
        // once.
#ifdef MADV_POPULATE_WRITE
    madvise(memory->mapping.data(), bytes, MADV_POPULATE_WRITE);
#endif
    return 0;
}

int seal(const SharedMemory &memory, unsigned seals)
{
    return fcntl(memory.fd.get(), F_ADD_SEALS, static_cast<int>(seals)) == 0 ? 0 : -errno;
}

} // namespace

int createSharedMemory(SharedMemory *memory, const char *label, uint64_t bytes, MemoryKind kind,
                       unsigned seals)
{
    SharedMemory fresh;
    int result = createUnsealed(&fresh, label, bytes, kind);
    // Last, because F_SEAL_FUTURE_WRITE spares only mappings that exist.
    if (result == 0)
        result = seal(fresh, seals);
    if (result == 0)
        *memory = std::move(fresh);
    return result;
}

int createExportedMemory(SharedMemory *memory, const char *label, uint64_t bytes, unsigned seals,
                         DmabufDevice &device, int *exported)
{
    SharedMemory fresh;
    int result = createUnsealed(&fresh, label, bytes, kUdmabuf);
    if (result == 0)
        result = seal(fresh, F_SEAL_SHRINK); // demanded for the export
    if (result != 0)
        return result;
    *exported = device.exportMemfd(fresh.fd.get(), bytes, &fresh.dmabuf);
    // After the export: newer kernels do not export what is sealed against future writes.
    result = seal(fresh, seals);
    if (result == 0)
        *memory = std::move(fresh);
    return result;
}

int createHeapMemory(SharedMemory *memory, const char *heap, uint64_t bytes, DmabufDevice &device)
{
    SharedMemory fresh;
    int result = device.allocate(heap, bytes, &fresh.fd);
    if (result == 0)
        result = fresh.mapping.map(fresh.fd.get(), bytes, true);
    if (result != 0)
        return result;
    fresh.dmabuf = UniqueFd(fcntl(fresh.fd.get(), F_DUPFD_CLOEXEC, 0));
    if (!fresh.dmabuf)
        return -errno;
    *memory = std::move(fresh);
    return 0;
}

UniqueFd reopenReadOnly(int fd)
{
    if (fchmod(fd, 0400) != 0)
        return UniqueFd();
    char path[40];
    std::snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    return UniqueFd(open(path, O_RDONLY | O_CLOEXEC));
}

uint64_t hugePageBytes()
{
    std::FILE *file = std::fopen("/proc/meminfo", "re");
    if (file == nullptr)
        return 0;
    char line[128];
    unsigned long long kilobytes = 0;
    while (std::fgets(line, sizeof line, file) != nullptr) {
        if (std::sscanf(line, "Hugepagesize: %llu kB", &kilobytes) == 1)
            break;
    }
    std::fclose(file);
    return kilobytes * 1024;
}

int checkSharedMemory(int fd, uint64_t bytes, unsigned seals, uint64_t *inode, const char **why)
{
    struct stat status = {};
    struct statfs system = {};
    if (fstat(fd, &status) != 0 || fstatfs(fd, &system) != 0) {
        *why = "a descriptor cannot be examined";
        return -EPROTO;
    }
    const auto magic = static_cast<unsigned long>(system.f_type);
    if (!S_ISREG(status.st_mode) || (magic != TMPFS_MAGIC && magic != HUGETLBFS_MAGIC)) {
        *why = "a descriptor is no shared memory";
        return -EPROTO;
    }
    const int present = fcntl(fd, F_GET_SEALS);
    if (present < 0 || (static_cast<unsigned>(present) & seals) != seals) {
        *why = "shared memory is not sealed";
        return -EPROTO;
    }
    if (status.st_size < 0 || static_cast<uint64_t>(status.st_size) != bytes) {
        *why = "shared memory is not of the announced size";
        return -EPROTO;
    }
    // Holes would be filled when they are read, out of the reader's allowance, or end in SIGBUS.
    if (static_cast<uint64_t>(status.st_blocks) * 512 < bytes) {
        *why = "shared memory has holes";
        return -EPROTO;
    }
    *inode = static_cast<uint64_t>(status.st_ino) ^ (static_cast<uint64_t>(status.st_dev) << 48);
    return 0;
}

} // namespace shm
