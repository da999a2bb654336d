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
// Whoever takes a frame at once and gives another buffer for it keeps none.
constexpr unsigned int usualQueue = 4;
constexpr unsigned int leastMapped = 2;

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

bool Device::tryPixelFormat(std::uint32_t code, const Wish &wish, Negotiated *negotiated)
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
            picture.width = wish.width != 0 ? wish.width : picture.width;
            picture.height = wish.height != 0 ? wish.height : picture.height;
            picture.num_planes = code == V4L2_PIX_FMT_NV12M ? 2 : 1;
            std::memset(picture.plane_fmt, 0, sizeof picture.plane_fmt);
            for (unsigned int plane = 0; plane < picture.num_planes; ++plane)
                picture.plane_fmt[plane].bytesperline = wish.strideBytes;
        } else {
            v4l2_pix_format &picture = asked->fmt.pix;
            picture.pixelformat = code;
            picture.width = wish.width != 0 ? wish.width : picture.width;
            picture.height = wish.height != 0 ? wish.height : picture.height;
            picture.bytesperline = wish.strideBytes;
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

// Somebody who set that has a reason.
bool Device::isSetToTwoMemories()
{
    v4l2_format present = {};
    present.type = negotiatedFormat.bufferType();
    return system.request(file.get(), VIDIOC_G_FMT, &present) == 0 &&
           present.fmt.pix_mp.pixelformat == V4L2_PIX_FMT_NV12M;
}

Negotiated Device::negotiate(const Wish &wish)
{
    Negotiated negotiated;
    bool found = false;
    if (!negotiatedFormat.multiplanar) {
        found = tryPixelFormat(V4L2_PIX_FMT_NV12, wish, &negotiated);
    } else {
        const bool isTwoFirst = wish.memories == Wish::Memories::TwoFirst ||
                                (wish.memories == Wish::Memories::AsSet && isSetToTwoMemories());
        const std::uint32_t first = isTwoFirst ? V4L2_PIX_FMT_NV12M : V4L2_PIX_FMT_NV12;
        const std::uint32_t second = isTwoFirst ? V4L2_PIX_FMT_NV12 : V4L2_PIX_FMT_NV12M;
        found = tryPixelFormat(first, wish, &negotiated) || tryPixelFormat(second, wish, &negotiated);
    }
    if (!found)
        fail(EINVAL, "the camera offers no NV12 (VIDIOC_S_FMT), but " + offeredFormats(),
             throughAStore(name, negotiatedFormat.multiplanar));
    negotiated.format.frameInterval = frameInterval();
    negotiatedFormat = negotiated;
    return negotiated;
}

// What the driver says it needs to have; 0 when it does not say.
unsigned int Device::leastQueue()
{
    v4l2_control least = {};
    least.id = V4L2_CID_MIN_BUFFERS_FOR_CAPTURE;
    if (system.request(file.get(), VIDIOC_G_CTRL, &least) < 0 || least.value < 1)
        return 0;
    return std::min<unsigned int>(least.value, VIDEO_MAX_FRAME);
}

unsigned int Device::wantedQueue()
{
    return std::max(usualQueue, leastQueue() + 1);
}

unsigned int Device::wantedBuffers()
{
    return std::max(usualBuffers, buffersOfReader + leastQueue());
}

void Device::requestBuffers(unsigned int count, unsigned int least)
{
    v4l2_requestbuffers request = {};
    request.count = count;
    request.type = negotiatedFormat.bufferType();
    request.memory = memory;
    const int result = system.request(file.get(), VIDIOC_REQBUFS, &request);
    if (result == -EINVAL && memory != V4L2_MEMORY_MMAP)
        fail(EINVAL,
             std::string("the driver takes no memory by ") +
                 (memory == V4L2_MEMORY_USERPTR ? "address" : "DMA-buf") + " (VIDIOC_REQBUFS)",
             "use another camera, or another driver");
    if (result < 0)
        fail(-result, "VIDIOC_REQBUFS");
    if (request.count < least || request.count > VIDEO_MAX_FRAME)
        fail(ENOMEM,
             "the driver answers VIDIOC_REQBUFS with " + std::to_string(request.count) + " buffers, " +
                 std::to_string(least) + " are needed",
             remedyFor(ENOMEM, name));
    queued.assign(request.count, false);
}

unsigned int Device::reserve(std::uint32_t memoryType, unsigned int count, unsigned int least)
{
    memory = memoryType;
    requestBuffers(count, least);
    return static_cast<unsigned int>(queued.size());
}

std::vector<ExportedBuffer> Device::allocate()
{
    memory = V4L2_MEMORY_MMAP;
    requestBuffers(wantedBuffers(), leastBuffers);
    std::vector<ExportedBuffer> buffers;
    for (unsigned int index = 0; index < queued.size(); ++index)
        buffers.push_back(exportBuffer(index));
    return buffers;
}

std::vector<MappedBuffer> Device::allocateMapped()
{
    memory = V4L2_MEMORY_MMAP;
    requestBuffers(wantedQueue(), leastMapped);
    std::vector<MappedBuffer> buffers;
    for (unsigned int index = 0; index < queued.size(); ++index) {
        v4l2_plane planes[VIDEO_MAX_PLANES] = {};
        v4l2_buffer buffer = {};
        queryBuffer(&buffer, planes, index);
        buffers.emplace_back(system);
        for (unsigned int part = 0; part < negotiatedFormat.memories; ++part) {
            const bool isMulti = negotiatedFormat.multiplanar;
            const int result =
                buffers.back().map(part, file.get(), isMulti ? planes[part].length : buffer.length,
                                   isMulti ? planes[part].m.mem_offset : buffer.m.offset);
            if (result < 0)
                fail(-result, "mmap of a buffer");
        }
    }
    return buffers;
}

MappedBuffer::~MappedBuffer()
{
    for (unsigned int part = 0; part < places.size(); ++part) {
        if (places[part] != nullptr)
            system->unmap(places[part], sizes[part]);
    }
}

int MappedBuffer::map(unsigned int part, int fd, std::size_t bytes, std::int64_t offset)
{
    sizes[part] = bytes;
    const int result = system->map(fd, bytes, offset, &places[part]);
    return result == -EINTR ? system->map(fd, bytes, offset, &places[part]) : result;
}

// The driver's buffer and the lengths of its memories, which hold a picture.
void Device::queryBuffer(v4l2_buffer *buffer, v4l2_plane *planes, unsigned int index)
{
    buffer->index = index;
    buffer->type = negotiatedFormat.bufferType();
    buffer->memory = V4L2_MEMORY_MMAP;
    if (negotiatedFormat.multiplanar) {
        buffer->m.planes = planes;
        buffer->length = VIDEO_MAX_PLANES;
    }
    const int result = system.request(file.get(), VIDIOC_QUERYBUF, buffer);
    if (result < 0)
        fail(-result, "VIDIOC_QUERYBUF");
    for (unsigned int part = 0; part < negotiatedFormat.memories; ++part) {
        const std::uint64_t bytes = negotiatedFormat.multiplanar ? planes[part].length : buffer->length;
        // EGL takes what it is told: what lies outside would be read all the same.
        if (bytes < negotiatedFormat.bytes[part])
            fail(EPROTO,
                 "the driver answers VIDIOC_QUERYBUF with a buffer of " + std::to_string(bytes) +
                     " bytes for a picture of " + std::to_string(negotiatedFormat.bytes[part]),
                 "use another camera, or another driver");
    }
}

ExportedBuffer Device::exportBuffer(unsigned int index)
{
    v4l2_plane planes[VIDEO_MAX_PLANES] = {};
    v4l2_buffer buffer = {};
    queryBuffer(&buffer, planes, index);

    ExportedBuffer exported;
    for (unsigned int part = 0; part < negotiatedFormat.memories; ++part) {
        exported.bytes[part] = negotiatedFormat.multiplanar ? planes[part].length : buffer.length;
        v4l2_exportbuffer request = {};
        request.type = negotiatedFormat.bufferType();
        request.index = index;
        request.plane = part;
        request.flags = O_CLOEXEC | O_RDWR; // software drivers map what they sample for writing, too
        const int result = system.request(file.get(), VIDIOC_EXPBUF, &request);
        if (result == -ENOTTY || result == -EINVAL)
            fail(-result, "the driver cannot export its buffers as DMA-bufs (VIDIOC_EXPBUF)",
                 throughAStore(name, false));
        if (result < 0)
            fail(-result, "VIDIOC_EXPBUF");
        exported.dmabufs[part] = Descriptor(system, request.fd);
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

int Device::queue(unsigned int index, const ForeignMemory *foreign)
{
    if (index >= queued.size() || queued[index])
        return -EINVAL;
    v4l2_plane planes[VIDEO_MAX_PLANES] = {};
    v4l2_buffer buffer = {};
    buffer.index = index;
    buffer.type = negotiatedFormat.bufferType();
    buffer.memory = memory;
    if (negotiatedFormat.multiplanar) {
        buffer.m.planes = planes;
        buffer.length = negotiatedFormat.memories;
    }
    for (unsigned int part = 0; foreign != nullptr && part < negotiatedFormat.memories; ++part) {
        const auto address = reinterpret_cast<unsigned long>(foreign->addresses[part]);
        const bool isAddress = memory == V4L2_MEMORY_USERPTR;
        if (negotiatedFormat.multiplanar) {
            planes[part].length = foreign->lengths[part];
            if (isAddress)
                planes[part].m.userptr = address;
            else
                planes[part].m.fd = foreign->dmabufs[part];
        } else {
            buffer.length = foreign->lengths[part];
            if (isAddress)
                buffer.m.userptr = address;
            else
                buffer.m.fd = foreign->dmabufs[part];
        }
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
    buffer.memory = memory;
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
    for (unsigned int part = 0; part < negotiatedFormat.memories; ++part) {
        const std::uint64_t used = negotiatedFormat.multiplanar ? planes[part].bytesused : buffer.bytesused;
        const std::uint64_t begin = negotiatedFormat.multiplanar ? planes[part].data_offset : 0;
        // The images over the buffers begin at their begin.
        if (begin != 0 || used < negotiatedFormat.bytes[part])
            filled->damaged = true;
    }
    const bool monotonic = (buffer.flags & V4L2_BUF_FLAG_TIMESTAMP_MASK) == V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC;
    filled->timestamp =
        monotonic ? std::int64_t(buffer.timestamp.tv_sec) * 1000000 + buffer.timestamp.tv_usec : 0;
    return 0;
}

} // namespace v4l2
} // namespace zevmm
