#include "system.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

namespace zevmm {
namespace v4l2 {

namespace {

int answer(int result)
{
    return result < 0 ? -errno : result;
}

class Kernel : public System
{
public:
    int open(const char *path, int flags) override { return answer(::open(path, flags)); }
    // Not repeated on EINTR: Linux has freed the number by then.
    int close(int fd) override { return answer(::close(fd)); }
    int ioctl(int fd, unsigned long request, void *argument) override
    {
        return answer(::ioctl(fd, request, argument));
    }
    int poll(pollfd *descriptors, unsigned int count, int timeoutMs) override
    {
        return answer(::poll(descriptors, count, timeoutMs));
    }
    int map(int fd, std::size_t bytes, std::int64_t offset, void **address) override
    {
        void *const mapped = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, offset);
        if (mapped == MAP_FAILED)
            return -errno;
        *address = mapped;
        return 0;
    }
    int unmap(void *address, std::size_t bytes) override { return answer(::munmap(address, bytes)); }
    std::int64_t now() override
    {
        timespec time = {};
        clock_gettime(CLOCK_MONOTONIC, &time);
        return static_cast<std::int64_t>(time.tv_sec) * 1000000 + time.tv_nsec / 1000;
    }
};

} // namespace

System &kernelSystem()
{
    static Kernel kernel;
    return kernel;
}

} // namespace v4l2
} // namespace zevmm
