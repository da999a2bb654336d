#include "device.h"

#include "deviceerror.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace zevmm {
namespace v4l2 {

namespace {

// Between two deliveries the reader holds two buffers and a third waits for it: the rest is the driver's to
// fill.
constexpr unsigned int buffersOfReader = 3;
constexpr unsigned int leastBuffers = buffersOfReader + 1;
constexpr unsigned int usualBuffers = 6;

} // namespace

Device::Device(System &calls, std::string devicePath) : system(calls), name(std::move(devicePath)) {}

void Device::fail(int error, const char *request)
{
    close();
    throw DeviceError::ofRequest(error, name, request, remedyFor(error, name));
}

void Device::fail(int error, const std::string &what, const std::string &remedy)
{
    close();
    throw DeviceError(error, name, what, remedy);
}

void Device::open()
{
    // Without waiting for frames, and not handed to programs that this one starts.
    int fd = system.open(name.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd == -EINTR)
        fd = system.open(name.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        fail(-fd, "open");
    file = Descriptor(system, fd);

    v4l2_capability capability = {};
    const int result = system.request(fd, VIDIOC_QUERYCAP, &capability);
    if (result == -ENOTTY || result == -EINVAL)
        fail(ENOTTY, "this is not a video4linux2 device (VIDIOC_QUERYCAP is unknown there)",
             remedyFor(ENOTTY, name));
    if (result < 0)
        fail(-result, "VIDIOC_QUERYCAP");
    const std::uint32_t capabilities = (capability.capabilities & V4L2_CAP_DEVICE_CAPS) != 0
                                           ? capability.device_caps
                                           : capability.capabilities;
    if ((capabilities & (V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_VIDEO_CAPTURE_MPLANE)) == 0)
        fail(ENOTTY, "this is not a capture device (VIDIOC_QUERYCAP)", remedyFor(ENOTTY, name));
    if ((capabilities & V4L2_CAP_STREAMING) == 0)
        fail(ENOTSUP, "the driver can only be read from, not stream buffers (VIDIOC_QUERYCAP)",
             "use another camera");
    negotiatedFormat = {};
    negotiatedFormat.multiplanar = (capabilities & V4L2_CAP_VIDEO_CAPTURE) == 0;
}

std::string Device::offeredFormats()
{
    constexpr unsigned int most = 64; // a driver that never comes to an end
    std::string text;
    for (unsigned int index = 0; index < most; ++index) {
        v4l2_fmtdesc description = {};
        description.index = index;
        description.type = negotiatedFormat.bufferType();
        if (system.request(file.get(), VIDIOC_ENUM_FMT, &description) < 0)
            break;
        text += (text.empty() ? "" : ", ") + fourccText(description.pixelformat);
    }
    return text.empty() ? "nothing that it names" : text;
}

bool Device::tryPixelFormat(std::uint32_t code, std::uint32_t width, std::uint32_t height,
                            Negotiated *negotiated)
{
    v4l2_format format = {};
    format.type = negotiatedFormat.bufferType();
    int result = system.request(file.get(), VIDIOC_G_FMT, &format);
    if (result < 0)
        fail(-result, "VIDIOC_G_FMT");
    const auto ask = [&](v4l2_format *asked) {
        if (negotiatedFormat.multiplanar) {
            v4l2_pix_format_mplane &picture = asked->fmt.pix_mp;
            picture.pixelformat = code;
            picture.width = width != 0 ? width : picture.width;
            picture.height = height != 0 ? height : picture.height;
            picture.num_planes = code == V4L2_PIX_FMT_NV12M ? 2 : 1;
            std::memset(picture.plane_fmt, 0, sizeof picture.plane_fmt);
        } else {
            v4l2_pix_format &picture = asked->fmt.pix;
            picture.pixelformat = code;
            picture.width = width != 0 ? width : picture.width;
            picture.height = height != 0 ? height : picture.height;
            picture.bytesperline = 0;
            picture.sizeimage = 0;
        }
    };
    const auto codeOf = [&](const v4l2_format &answer) {
        return negotiatedFormat.multiplanar ? answer.fmt.pix_mp.pixelformat : answer.fmt.pix.pixelformat;
    };
    // First without changing anything: who is refused leaves the device as it was.
    v4l2_format trial = format;
    ask(&trial);
    result = system.request(file.get(), VIDIOC_TRY_FMT, &trial);
    if (result == -EINVAL || (result == 0 && codeOf(trial) != code))
        return false;
    if (result < 0 && result != -ENOTTY)
        fail(-result, "VIDIOC_TRY_FMT");
    ask(&format);
    result = system.request(file.get(), VIDIOC_S_FMT, &format);
    if (result == -EINVAL || (result == 0 && codeOf(format) != code))
        return false;
    if (result < 0)
        fail(-result, "VIDIOC_S_FMT");
    std::string why;
    if (!readFormat(format, negotiated, &why))
        fail(EPROTO, "the driver answers VIDIOC_S_FMT with " + why, "use another camera, or another driver");
    return true;
}

std::int64_t Device::frameInterval()
{
    v4l2_streamparm parameters = {};
    parameters.type = negotiatedFormat.bufferType();
    if (system.request(file.get(), VIDIOC_G_PARM, &parameters) < 0)
        return 0;
    const v4l2_fract &interval = parameters.parm.capture.timeperframe;
    if (interval.denominator == 0)
        return 0;
    return std::int64_t(interval.numerator) * 1000000 / interval.denominator;
}

Negotiated Device::negotiate(std::uint32_t width, std::uint32_t height)
{
    Negotiated negotiated;
    bool found = false;
    if (!negotiatedFormat.multiplanar) {
        found = tryPixelFormat(V4L2_PIX_FMT_NV12, width, height, &negotiated);
    } else {
        // Somebody who set two descriptors has a reason.
        v4l2_format present = {};
        present.type = negotiatedFormat.bufferType();
        const bool isSeparate = system.request(file.get(), VIDIOC_G_FMT, &present) == 0 &&
                                present.fmt.pix_mp.pixelformat == V4L2_PIX_FMT_NV12M;
        const std::uint32_t first = isSeparate ? V4L2_PIX_FMT_NV12M : V4L2_PIX_FMT_NV12;
        const std::uint32_t second = isSeparate ? V4L2_PIX_FMT_NV12 : V4L2_PIX_FMT_NV12M;
        found = tryPixelFormat(first, width, height, &negotiated) ||
                tryPixelFormat(second, width, height, &negotiated);
    }
    if (!found)
        fail(EINVAL, "the camera offers no NV12 (VIDIOC_S_FMT), but " + offeredFormats(),
             throughAStore(name, negotiatedFormat.multiplanar));
    negotiated.format.frameInterval = frameInterval();
    negotiatedFormat = negotiated;
    return negotiated;
}

unsigned int Device::wantedBuffers()
{
    v4l2_control least = {};
    least.id = V4L2_CID_MIN_BUFFERS_FOR_CAPTURE;
    if (system.request(file.get(), VIDIOC_G_CTRL, &least) < 0 || least.value < 1)
        return usualBuffers;
    return std::max(usualBuffers, buffersOfReader + std::min<unsigned int>(least.value, VIDEO_MAX_FRAME));
}

std::vector<ExportedBuffer> Device::allocate(const Negotiated &negotiated)
{
    v4l2_requestbuffers request = {};
    request.count = wantedBuffers();
    request.type = negotiated.bufferType();
    request.memory = V4L2_MEMORY_MMAP;
    const int result = system.request(file.get(), VIDIOC_REQBUFS, &request);
    if (result < 0)
        fail(-result, "VIDIOC_REQBUFS");
    if (request.count < leastBuffers || request.count > VIDEO_MAX_FRAME)
        fail(ENOMEM,
             "the driver answers VIDIOC_REQBUFS with " + std::to_string(request.count) + " buffers, " +
                 std::to_string(leastBuffers) + " are needed",
             remedyFor(ENOMEM, name));
    std::vector<ExportedBuffer> buffers;
    for (unsigned int index = 0; index < request.count; ++index)
        buffers.push_back(exportBuffer(index));
    queued.assign(buffers.size(), false);
    return buffers;
}

ExportedBuffer Device::exportBuffer(unsigned int index)
{
    v4l2_plane planes[VIDEO_MAX_PLANES] = {};
    v4l2_buffer buffer = {};
    buffer.index = index;
    buffer.type = negotiatedFormat.bufferType();
    buffer.memory = V4L2_MEMORY_MMAP;
    if (negotiatedFormat.multiplanar) {
        buffer.m.planes = planes;
        buffer.length = VIDEO_MAX_PLANES;
    }
    int result = system.request(file.get(), VIDIOC_QUERYBUF, &buffer);
    if (result < 0)
        fail(-result, "VIDIOC_QUERYBUF");

    ExportedBuffer exported;
    for (unsigned int memory = 0; memory < negotiatedFormat.memories; ++memory) {
        exported.bytes[memory] = negotiatedFormat.multiplanar ? planes[memory].length : buffer.length;
        // EGL takes what it is told: what lies outside would be read all the same.
        if (exported.bytes[memory] < negotiatedFormat.bytes[memory])
            fail(EPROTO,
                 "the driver answers VIDIOC_QUERYBUF with a buffer of " +
                     std::to_string(exported.bytes[memory]) + " bytes for a picture of " +
                     std::to_string(negotiatedFormat.bytes[memory]),
                 "use another camera, or another driver");
        v4l2_exportbuffer request = {};
        request.type = negotiatedFormat.bufferType();
        request.index = index;
        request.plane = memory;
        request.flags = O_CLOEXEC | O_RDWR; // software drivers map what they sample for writing, too
        result = system.request(file.get(), VIDIOC_EXPBUF, &request);
        if (result == -ENOTTY || result == -EINVAL)
            fail(-result, "the driver cannot export its buffers as DMA-bufs (VIDIOC_EXPBUF)",
                 throughAStore(name, negotiatedFormat.multiplanar));
        if (result < 0)
            fail(-result, "VIDIOC_EXPBUF");
        exported.dmabufs[memory] = Descriptor(system, request.fd);
    }
    return exported;
}

void Device::close()
{
    queued.clear();
    file.reset();
}

int Device::startStreaming()
{
    int type = static_cast<int>(negotiatedFormat.bufferType());
    return system.request(file.get(), VIDIOC_STREAMON, &type);
}

int Device::stopStreaming()
{
    int type = static_cast<int>(negotiatedFormat.bufferType());
    const int result = system.request(file.get(), VIDIOC_STREAMOFF, &type);
    if (result == 0)
        queued.assign(queued.size(), false); // the driver lets go of them all
    return result;
}

int Device::queue(unsigned int index)
{
    if (index >= queued.size() || queued[index])
        return -EINVAL;
    v4l2_plane planes[VIDEO_MAX_PLANES] = {};
    v4l2_buffer buffer = {};
    buffer.index = index;
    buffer.type = negotiatedFormat.bufferType();
    buffer.memory = V4L2_MEMORY_MMAP;
    if (negotiatedFormat.multiplanar) {
        buffer.m.planes = planes;
        buffer.length = negotiatedFormat.memories;
    }
    const int result = system.request(file.get(), VIDIOC_QBUF, &buffer);
    queued[index] = result == 0;
    return result;
}

int Device::dequeue(FilledBuffer *filled)
{
    v4l2_plane planes[VIDEO_MAX_PLANES] = {};
    v4l2_buffer buffer = {};
    buffer.type = negotiatedFormat.bufferType();
    buffer.memory = V4L2_MEMORY_MMAP;
    if (negotiatedFormat.multiplanar) {
        buffer.m.planes = planes;
        buffer.length = VIDEO_MAX_PLANES;
    }
    const int result = system.request(file.get(), VIDIOC_DQBUF, &buffer);
    if (result < 0)
        return result;
    if (buffer.index >= queued.size() || !queued[buffer.index])
        return -EBADMSG;
    queued[buffer.index] = false;

    filled->index = buffer.index;
    filled->sequence = buffer.sequence;
    filled->damaged = (buffer.flags & V4L2_BUF_FLAG_ERROR) != 0;
    for (unsigned int memory = 0; memory < negotiatedFormat.memories; ++memory) {
        const std::uint64_t used = negotiatedFormat.multiplanar ? planes[memory].bytesused : buffer.bytesused;
        const std::uint64_t begin = negotiatedFormat.multiplanar ? planes[memory].data_offset : 0;
        // The images over the buffers begin at their begin.
        if (begin != 0 || used < negotiatedFormat.bytes[memory])
            filled->damaged = true;
    }
    const bool monotonic = (buffer.flags & V4L2_BUF_FLAG_TIMESTAMP_MASK) == V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC;
    filled->timestamp =
        monotonic ? std::int64_t(buffer.timestamp.tv_sec) * 1000000 + buffer.timestamp.tv_usec : 0;
    return 0;
}

} // namespace v4l2
} // namespace zevmm
