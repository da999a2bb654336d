#include "camera.h"

#include "failure.h"

extern "C" {
#include <libavdevice/version.h>
}

#include <cerrno>
#include <dlfcn.h>
#include <system_error>

namespace zevshm {

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

zevmm::v4l2::CameraState stateOfCamera(const std::string &device)
{
    try {
        return zevmm::v4l2::stateOfCamera(device);
    } catch (const std::system_error &error) {
        throw Failure(ExitInput, error.what());
    }
}

zevmm::v4l2::CameraState stateOfOpenCamera(const std::string &device,
                                           const zevmm::v4l2::CameraState &before) noexcept
{
    try {
        return stateOfCamera(device);
    } catch (const std::exception &) { // out of memory, too: only the picture's colors depend on it
        return before;
    }
}

AVColorSpace colorSpaceOf(zevmm::v4l2::ColorEncoding encoding)
{
    using zevmm::v4l2::ColorEncoding;
    switch (encoding) {
    case ColorEncoding::Bt709:
        return AVCOL_SPC_BT709;
    case ColorEncoding::Bt2020:
        return AVCOL_SPC_BT2020_NCL;
    case ColorEncoding::Bt601:
        break;
    }
    return AVCOL_SPC_SMPTE170M;
}

std::string cameraProblem(int error, const std::string &device)
{
    return "cannot be opened (" + avError(error) + "); " +
           (AVUNERROR(error) == EBUSY
                ? "end the program that uses it: `fuser -v " + device + "` names it"
                : "`v4l2-ctl -d " + device + " --all` and the kernel's log (dmesg) may say more");
}

} // namespace zevshm
