#include "camera.h"

#include "failure.h"

extern "C" {
#include <libavdevice/version.h>
}

#include <cerrno>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace zevshm {

namespace {

// The encoding that V4L2 says a color space has when the driver names none.
std::uint32_t encodingOf(std::uint32_t colorspace, std::uint32_t encoding)
{
    if (encoding != V4L2_YCBCR_ENC_DEFAULT)
        return encoding;
    return V4L2_MAP_YCBCR_ENC_DEFAULT(colorspace);
}

AVColorSpace matrixOf(std::uint32_t encoding)
{
    switch (encoding) {
    case V4L2_YCBCR_ENC_709:
    case V4L2_YCBCR_ENC_XV709:
    case V4L2_YCBCR_ENC_SMPTE240M: // the nearest
        return AVCOL_SPC_BT709;
    case V4L2_YCBCR_ENC_BT2020:
    case V4L2_YCBCR_ENC_BT2020_CONST_LUM:
        return AVCOL_SPC_BT2020_NCL;
    default:
        return AVCOL_SPC_SMPTE170M;
    }
}

// 0 when it is no video device.
std::uint32_t capabilitiesOf(int fd)
{
    v4l2_capability capability = {};
    if (::ioctl(fd, VIDIOC_QUERYCAP, &capability) != 0)
        return 0;
    return capability.capabilities & V4L2_CAP_DEVICE_CAPS ? capability.device_caps : capability.capabilities;
}

} // namespace

bool isCameraInput(const std::string &input)
{
    return input.rfind("v4l2:", 0) == 0;
}

const AVInputFormat *cameraDemuxer()
{
    static const AVInputFormat *const demuxer = []() -> const AVInputFormat * {
        const std::string library = "libavdevice.so." + std::to_string(LIBAVDEVICE_VERSION_MAJOR);
        void *const handle =
            dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL); // kept: FFmpeg lists it from now on
        const auto registerAll =
            handle ? reinterpret_cast<void (*)()>(dlsym(handle, "avdevice_register_all")) : nullptr;
        if (!registerAll)
            throw Failure(ExitResources, "cameras need FFmpeg's " + library +
                                             ", which cannot be loaded; install the package libavdevice" +
                                             std::to_string(LIBAVDEVICE_VERSION_MAJOR));
        registerAll();
        return av_find_input_format("video4linux2");
    }();
    if (!demuxer)
        throw Failure(ExitResources, "this FFmpeg is built without video4linux2; install the distribution's");
    return demuxer;
}

CameraColor colorOfCamera(const std::string &device)
{
    const int fd = ::open(device.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return {};
    CameraColor color;
    v4l2_format format = {};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE; // FFmpeg knows this flavour only
    if (::ioctl(fd, VIDIOC_G_FMT, &format) == 0) {
        const v4l2_pix_format &picture = format.fmt.pix;
        color.matrix = matrixOf(encodingOf(picture.colorspace, picture.ycbcr_enc));
        const bool isFull =
            picture.quantization == V4L2_QUANTIZATION_FULL_RANGE ||
            (picture.quantization == V4L2_QUANTIZATION_DEFAULT && picture.colorspace == V4L2_COLORSPACE_JPEG);
        color.range = isFull ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG;
    }
    ::close(fd);
    return color;
}

std::string cameraProblem(int error, const std::string &device)
{
    const std::string text = "cannot be opened (" + avError(error) + "); ";
    switch (AVUNERROR(error)) {
    case EACCES:
    case EPERM:
        return text +
               "join the group that may use it, usually: sudo usermod -aG video $USER, and log in again";
    case EBUSY:
        return text + "end the program that uses it: 'fuser -v " + device + "' names it";
    case ENOENT:
    case ENXIO:
        return text + "connect the camera, or name one that 'v4l2-ctl --list-devices' lists";
    default:
        return text + "'v4l2-ctl -d " + device + " --all' and the kernel's log (dmesg) may say more";
    }
}

std::string cameraProblem(const std::string &device)
{
    const int fd = ::open(device.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return cameraProblem(AVERROR(errno), device);
    const std::uint32_t capabilities = capabilitiesOf(fd);
    ::close(fd);
    if (capabilities & (V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_VIDEO_CAPTURE_MPLANE))
        return "";
    return "is no capture device; name one that 'v4l2-ctl --list-devices' lists";
}

bool isMultiplanarCamera(const std::string &device)
{
    const int fd = ::open(device.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return false;
    const std::uint32_t capabilities = capabilitiesOf(fd);
    ::close(fd);
    return (capabilities & V4L2_CAP_VIDEO_CAPTURE) == 0 &&
           (capabilities & V4L2_CAP_VIDEO_CAPTURE_MPLANE) != 0;
}

} // namespace zevshm
