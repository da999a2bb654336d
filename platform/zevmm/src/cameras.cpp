#include "cameralist.h"
#include "device.h"
#include "deviceerror.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <utility>

namespace zevmm {
namespace v4l2 {

namespace {

constexpr unsigned int mostEntries = 256; // of a driver whose lists do not come to an end

// Text of a fixed field, which need not end in a zero.
template <std::size_t Size>
std::string fieldText(const unsigned char (&field)[Size])
{
    const auto *const text = reinterpret_cast<const char *>(field);
    return std::string(text, strnlen(text, Size));
}

std::vector<double> ratesOf(System &system, int fd, std::uint32_t code, std::uint32_t width,
                            std::uint32_t height)
{
    std::vector<double> rates;
    for (unsigned int index = 0; index < mostEntries; ++index) {
        v4l2_frmivalenum entry = {};
        entry.index = index;
        entry.pixel_format = code;
        entry.width = width;
        entry.height = height;
        if (system.request(fd, VIDIOC_ENUM_FRAMEINTERVALS, &entry) < 0)
            break;
        const auto add = [&rates](const v4l2_fract &interval) {
            if (interval.numerator != 0)
                rates.push_back(double(interval.denominator) / interval.numerator);
        };
        if (entry.type == V4L2_FRMIVAL_TYPE_DISCRETE) {
            add(entry.discrete);
            continue;
        }
        add(entry.stepwise.max); // the longest interval is the slowest
        add(entry.stepwise.min);
        break;
    }
    return rates;
}

std::vector<CameraSize> sizesOf(System &system, int fd, std::uint32_t code)
{
    std::vector<CameraSize> sizes;
    for (unsigned int index = 0; index < mostEntries; ++index) {
        v4l2_frmsizeenum entry = {};
        entry.index = index;
        entry.pixel_format = code;
        if (system.request(fd, VIDIOC_ENUM_FRAMESIZES, &entry) < 0)
            break;
        const auto add = [&](std::uint32_t width, std::uint32_t height) {
            sizes.push_back({width, height, ratesOf(system, fd, code, width, height)});
        };
        if (entry.type == V4L2_FRMSIZE_TYPE_DISCRETE) {
            add(entry.discrete.width, entry.discrete.height);
            continue;
        }
        add(entry.stepwise.min_width, entry.stepwise.min_height);
        add(entry.stepwise.max_width, entry.stepwise.max_height);
        break;
    }
    return sizes;
}

std::vector<CameraFormat> formatsOf(System &system, int fd, std::uint32_t type)
{
    std::vector<CameraFormat> formats;
    for (unsigned int index = 0; index < mostEntries; ++index) {
        v4l2_fmtdesc entry = {};
        entry.index = index;
        entry.type = type;
        if (system.request(fd, VIDIOC_ENUM_FMT, &entry) < 0)
            break;
        formats.push_back({entry.pixelformat, fourccText(entry.pixelformat), fieldText(entry.description),
                           sizesOf(system, fd, entry.pixelformat)});
    }
    return formats;
}

// The number at the end of videoN, -1 for other names.
int videoNumber(const std::string &name)
{
    if (name.compare(0, 5, "video") != 0 || name.size() == 5 || name.size() > 14 ||
        name.find_first_not_of("0123456789", 5) != std::string::npos)
        return -1;
    return std::stoi(name.substr(5));
}

} // namespace

bool describeCamera(System &system, const std::string &path, Camera *camera)
{
    *camera = {};
    camera->device = path;
    Device device(system, path);
    try {
        device.open();
    } catch (const DeviceError &error) {
        camera->problem = error.what();
        // A node that does other things is none of ours; one that does not open may be.
        return error.code().value() != ENOTTY && !isGone(error.code().value());
    }
    v4l2_capability capability = {};
    if (system.request(device.descriptor(), VIDIOC_QUERYCAP, &capability) == 0) {
        camera->name = fieldText(capability.card);
        camera->driver = fieldText(capability.driver);
        camera->bus = fieldText(capability.bus_info);
    }
    camera->formats = formatsOf(system, device.descriptor(), device.bufferType());
    const bool isMultiplanar = device.bufferType() == V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    const bool isShown = std::any_of(camera->formats.begin(), camera->formats.end(),
                                     [isMultiplanar](const CameraFormat &format) {
                                         return format.pixelFormat == V4L2_PIX_FMT_NV12 ||
                                                (isMultiplanar && format.pixelFormat == V4L2_PIX_FMT_NV12M);
                                     });
    if (!isShown)
        camera->problem = path + ": the camera offers no NV12; " + throughAStore(path, isMultiplanar);
    return true;
}

CameraState stateOfCamera(System &system, const std::string &path)
{
    Device device(system, path);
    device.open();
    CameraState state;
    state.multiplanar = device.bufferType() == V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    v4l2_format format = {};
    format.type = device.bufferType();
    const int result = system.request(device.descriptor(), VIDIOC_G_FMT, &format);
    if (result < 0)
        throw DeviceError::ofRequest(-result, path, "VIDIOC_G_FMT", remedyFor(-result, path));
    readColors(format, &state.encoding, &state.fullRange);
    return state;
}

CameraState stateOfCamera(const std::string &device)
{
    return stateOfCamera(kernelSystem(), device);
}

std::vector<Camera> listCameras()
{
    std::vector<std::pair<int, std::string>> nodes;
    std::error_code error;
    for (std::filesystem::directory_iterator entry("/dev", error), end; !error && entry != end;
         entry.increment(error)) {
        const int number = videoNumber(entry->path().filename());
        if (number >= 0)
            nodes.emplace_back(number, entry->path());
    }
    std::sort(nodes.begin(), nodes.end());
    std::vector<Camera> cameras;
    for (const auto &[number, path] : nodes) {
        Camera camera;
        if (describeCamera(kernelSystem(), path, &camera))
            cameras.push_back(std::move(camera));
    }
    return cameras;
}

} // namespace v4l2
} // namespace zevmm
