// Owner of one descriptor of a System.
#ifndef ZEVMM_DESCRIPTOR_H
#define ZEVMM_DESCRIPTOR_H

#include "system.h"

#include <utility>

namespace zevmm {
namespace v4l2 {

class Descriptor
{
public:
    Descriptor() = default;
    // Takes `fd`, which `system` opened and is to close.
    Descriptor(System &opener, int fd) : system(&opener), number(fd) {}
    Descriptor(Descriptor &&other) noexcept : system(other.system), number(std::exchange(other.number, -1)) {}
    Descriptor &operator=(Descriptor &&other) noexcept
    {
        if (this != &other) {
            reset();
            system = other.system;
            number = std::exchange(other.number, -1);
        }
        return *this;
    }
    ~Descriptor() { reset(); }

    int get() const { return number; }
    explicit operator bool() const { return number >= 0; }
    void reset()
    {
        if (number >= 0)
            system->close(number);
        number = -1;
    }

private:
    System *system = nullptr;
    int number = -1;
};

} // namespace v4l2
} // namespace zevmm

#endif
