#include "deviceerror.h"

#include <cerrno>

namespace zevmm {
namespace v4l2 {

DeviceError::DeviceError(int error, const std::string &device, const std::string &what,
                         const std::string &remedy)
    : std::system_error(error, std::generic_category()), cause(what),
      text(device + ": " + what + "; " + remedy)
{}

DeviceError DeviceError::ofRequest(int error, const std::string &device, const std::string &request,
                                   const std::string &remedy)
{
    return DeviceError(error, device, request + " failed: " + errorText(error), remedy);
}

std::string remedyFor(int error, const std::string &device)
{
    switch (error) {
    case ENOENT:
    case ENODEV:
    case ENXIO:
        return "connect the camera, or name one that `v4l2-ctl --list-devices` lists";
    case EACCES:
    case EPERM:
        return "join the group that may use it, usually: sudo usermod -aG video $USER, and log in again";
    case EBUSY:
        return "end the program that uses it: `fuser -v " + device + "` names it";
    case ENOMEM:
        return "the driver has no memory for its buffers: choose a smaller size with `v4l2-ctl -d " + device +
               " --set-fmt-video=width=640,height=480`";
    case ENOSPC:
        return "the USB bus has no bandwidth left: connect the camera to another port, or choose a smaller "
               "size";
    case EMFILE:
    case ENFILE:
        return "too many files are open: close some, or raise the limit (ulimit -n)";
    case ENOTTY:
        return "name a capture device: `v4l2-ctl --list-devices` lists them";
    case EIO:
    case EPIPE:
    case ENOLINK:
    case EPROTO:
        return "check cable, power and signal; the kernel's log (dmesg) may say more";
    default:
        return "`v4l2-ctl -d " + device + " --all` and the kernel's log (dmesg) may say more";
    }
}

std::string throughAStore(const std::string &device, bool isMultiplanar)
{
    if (isMultiplanar) // of these only NV12 can be published
        return "use another camera, or a device node of its image processor: `v4l2-ctl -d " + device +
               " --list-formats` lists what each offers";
    return "publish it into a store, which converts (`zevshm publish NAME v4l2:" + device +
           "`), and show that";
}

bool isGone(int error)
{
    return error == ENODEV || error == ENXIO || error == ENOENT || error == EBADF;
}

std::string errorText(int error)
{
    return std::generic_category().message(error);
}

} // namespace v4l2
} // namespace zevmm
