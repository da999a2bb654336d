#include "system.h"

#include <cerrno>

namespace zevmm {
namespace v4l2 {

int System::request(int fd, unsigned long request, void *argument)
{
    // Signals come one at a time: a driver that is interrupted this often does not want to.
    constexpr int patience = 100;
    int result = 0;
    for (int i = 0; i < patience; ++i) {
        result = ioctl(fd, request, argument);
        if (result != -EINTR)
            break;
    }
    return result;
}

} // namespace v4l2
} // namespace zevmm
