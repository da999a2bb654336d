// The system calls that capture is made of: a seam, so that a test can play a device that errs, stalls or
// goes.
#ifndef ZEVMM_SYSTEM_H
#define ZEVMM_SYSTEM_H

#include <poll.h>

#include <cstddef>
#include <cstdint>

namespace zevmm {
namespace v4l2 {

// Every call answers 0 or more, or a negative errno. Implementations are thread-safe.
class System
{
public:
    virtual ~System() = default;

    virtual int open(const char *path, int flags) = 0;
    virtual int close(int fd) = 0;
    virtual int ioctl(int fd, unsigned long request, void *argument) = 0;
    virtual int poll(pollfd *descriptors, unsigned int count, int timeoutMs) = 0;
    // Maps a buffer of the driver's for reading and writing, and gives it back.
    virtual int map(int fd, std::size_t bytes, std::int64_t offset, void **address) = 0;
    virtual int unmap(void *address, std::size_t bytes) = 0;
    virtual std::int64_t now() = 0; // CLOCK_MONOTONIC, microseconds

    // ioctl(), again when a signal interrupts it.
    int request(int fd, unsigned long request, void *argument);
};

// The kernel; in a file of its own, so that a test which links the library's parts may play it.
System &kernelSystem();

} // namespace v4l2
} // namespace zevmm

#endif
