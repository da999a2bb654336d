// Owner of one file descriptor.
#ifndef SHM_FD_H
#define SHM_FD_H

#include <unistd.h>

#include <utility>

namespace shm {

class UniqueFd
{
public:
    UniqueFd() = default;
    // Takes `fd`; -1 owns nothing.
    explicit UniqueFd(int fd) : m_fd(fd) {}
    UniqueFd(UniqueFd &&other) noexcept : m_fd(other.release()) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept
    {
        if (this != &other)
            reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;
    ~UniqueFd() { reset(); }

    int get() const { return m_fd; }
    explicit operator bool() const { return m_fd >= 0; }
    int release() { return std::exchange(m_fd, -1); }
    void reset(int fd = -1)
    {
        // close() is not repeated on EINTR: Linux has freed the number by then.
        if (m_fd >= 0)
            ::close(m_fd);
        m_fd = fd;
    }

private:
    int m_fd = -1;
};

} // namespace shm

#endif
