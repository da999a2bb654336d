#include "fake_v4l2.h"

#include "pixelformat.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

namespace fake {

using Lock = std::lock_guard<std::recursive_mutex>;

int Kernel::faultOf(unsigned long request)
{
    const int call = calls++;
    ++callsOf[request];
    const bool isHit = call == fault.call || (fault.request != 0 && fault.request == request);
    if (isHit && fault.forGood && fault.request == 0) {
        fault.request = request; // from now on, all of its kind
        fault.call = -1;
    }
    if (!isHit)
        return 0;
    if (!fault.forGood)
        fault = {-1, 0, fault.error, false};
    return -fault.error;
}

std::uint32_t Kernel::type() const
{
    return driver.multiplanar ? V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE : V4L2_BUF_TYPE_VIDEO_CAPTURE;
}

int Kernel::open(const char *name, int)
{
    const Lock lock(mutex);
    if (const int error = faultOf(openCall))
        return error;
    if (openError != 0)
        return -openError;
    if (!isPresent || name != path)
        return -ENOENT;
    if (device >= 0)
        violations.push_back("opened twice");
    device = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    isStale = false;
    openDescriptors.insert(device);
    return device;
}

int Kernel::close(int fd)
{
    const Lock lock(mutex);
    if (openDescriptors.erase(fd) == 0) {
        violations.push_back("closed what is not open");
        return -EBADF;
    }
    if (fd != device)
        return 0;
    ::close(device);
    device = -1;
    isStreaming = false;
    bufferCount = 0;
    queue.clear();
    done.clear();
    return 0;
}

void Kernel::signal(bool readable)
{
    std::uint64_t count = 1;
    if (device < 0)
        return;
    [[maybe_unused]] const ssize_t result =
        readable ? ::write(device, &count, sizeof count) : ::read(device, &count, sizeof count);
}

int Kernel::ioctl(int fd, unsigned long request, void *argument)
{
    const Lock lock(mutex);
    if (fd < 0 || fd != device) {
        violations.push_back("ioctl of what is not open");
        return -EBADF;
    }
    if (const int error = faultOf(request))
        return error;
    if (isStale)
        return -ENODEV;
    return answer(request, argument);
}

int Kernel::poll(pollfd *descriptors, unsigned int count, int timeoutMs)
{
    const int result = ::poll(descriptors, count, timeoutMs);
    const Lock lock(mutex);
    for (unsigned int i = 0; result > 0 && isStale && i < count; ++i) {
        if (descriptors[i].fd == device && descriptors[i].revents != 0)
            descriptors[i].revents = POLLERR | POLLHUP;
    }
    return result < 0 ? -errno : result;
}

std::int64_t Kernel::now()
{
    const Lock lock(mutex);
    if (!hasRealClock)
        return clock;
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

std::uint32_t Kernel::bytesOf(std::uint32_t code, unsigned int plane) const
{
    if (driver.sizeimage != 0)
        return driver.sizeimage;
    const std::uint32_t line = std::max(stride, driver.stride != 0 ? driver.stride : driver.width);
    const std::uint32_t luma = line * driver.height;
    const std::uint32_t chroma = line * ((driver.height + 1) / 2);
    if (code == V4L2_PIX_FMT_NV12M)
        return plane == 0 ? luma : chroma;
    return luma + chroma;
}

std::uint32_t Kernel::currentBytes(unsigned int plane) const
{
    return bytesOf(driver.multiplanar ? current.fmt.pix_mp.pixelformat : current.fmt.pix.pixelformat, plane);
}

// What S_FMT and TRY_FMT make of what they are asked for.
void Kernel::fillFormat(v4l2_format *format) const
{
    const std::uint32_t asked =
        driver.multiplanar ? format->fmt.pix_mp.pixelformat : format->fmt.pix.pixelformat;
    const bool isOffered = std::count(driver.formats.begin(), driver.formats.end(), asked) > 0;
    const std::uint32_t code = isOffered ? asked : driver.formats.empty() ? 0 : driver.formats.front();
    if (driver.multiplanar) {
        v4l2_pix_format_mplane &picture = format->fmt.pix_mp;
        picture.pixelformat = code;
        picture.width = driver.width;
        picture.height = driver.height;
        picture.colorspace = driver.colorspace;
        picture.ycbcr_enc = static_cast<std::uint8_t>(driver.encoding);
        picture.quantization = static_cast<std::uint8_t>(driver.quantization);
        picture.num_planes = static_cast<std::uint8_t>(driver.planes != 0           ? driver.planes
                                                       : code == V4L2_PIX_FMT_NV12M ? 2
                                                                                    : 1);
        for (unsigned int plane = 0; plane < 2; ++plane) {
            picture.plane_fmt[plane].bytesperline = std::max(driver.stride, stride);
            picture.plane_fmt[plane].sizeimage = bytesOf(code, plane);
        }
    } else {
        v4l2_pix_format &picture = format->fmt.pix;
        picture.pixelformat = code;
        picture.width = driver.width;
        picture.height = driver.height;
        picture.bytesperline = std::max(driver.stride, stride);
        picture.colorspace = driver.colorspace;
        picture.ycbcr_enc = driver.encoding;
        picture.quantization = driver.quantization;
        picture.sizeimage = bytesOf(code, 0);
    }
}

int Kernel::answer(unsigned long request, void *argument)
{
    switch (request) {
    case VIDIOC_QUERYCAP: {
        if (!driver.isVideo)
            return -ENOTTY;
        auto *capability = static_cast<v4l2_capability *>(argument);
        std::strcpy(reinterpret_cast<char *>(capability->card), "Fake camera");
        capability->capabilities = V4L2_CAP_DEVICE_CAPS | V4L2_CAP_VIDEO_OUTPUT;
        const std::uint32_t flavour =
            driver.multiplanar ? V4L2_CAP_VIDEO_CAPTURE_MPLANE : V4L2_CAP_VIDEO_CAPTURE;
        capability->device_caps = driver.capabilities | (driver.isCapture ? flavour : V4L2_CAP_META_CAPTURE);
        return 0;
    }
    case VIDIOC_ENUM_FMT: {
        auto *description = static_cast<v4l2_fmtdesc *>(argument);
        if (description->type != type() || description->index >= driver.formats.size())
            return -EINVAL;
        description->pixelformat = driver.formats[description->index];
        return 0;
    }
    case VIDIOC_G_FMT: {
        auto *format = static_cast<v4l2_format *>(argument);
        if (format->type != type())
            return -EINVAL;
        format->fmt = current.fmt;
        fillFormat(format);
        return 0;
    }
    case VIDIOC_TRY_FMT:
        fillFormat(static_cast<v4l2_format *>(argument));
        return 0;
    case VIDIOC_S_FMT:
        if (bufferCount > 0)
            return -EBUSY;
        stride = 0;
        if (driver.takesStrides)
            stride = driver.multiplanar
                         ? static_cast<v4l2_format *>(argument)->fmt.pix_mp.plane_fmt[0].bytesperline
                         : static_cast<v4l2_format *>(argument)->fmt.pix.bytesperline;
        fillFormat(static_cast<v4l2_format *>(argument));
        current = *static_cast<v4l2_format *>(argument);
        return 0;
    case VIDIOC_G_PARM:
        static_cast<v4l2_streamparm *>(argument)->parm.capture.timeperframe = driver.interval;
        return 0;
    case VIDIOC_G_CTRL:
        if (driver.leastBuffers == 0)
            return -EINVAL;
        static_cast<v4l2_control *>(argument)->value = driver.leastBuffers;
        return 0;
    case VIDIOC_REQBUFS: {
        auto *buffers = static_cast<v4l2_requestbuffers *>(argument);
        const bool isTaken = buffers->memory == V4L2_MEMORY_MMAP ||
                             (buffers->memory == V4L2_MEMORY_USERPTR && driver.takesAddresses) ||
                             (buffers->memory == V4L2_MEMORY_DMABUF && driver.takesDmabufs);
        if (!isTaken || buffers->type != type())
            return -EINVAL;
        memory = buffers->memory;
        places.assign(32, {});
        pinned.assign(32, {});
        orphans.clear();
        bufferCount = buffers->count = std::min(buffers->count, driver.mostBuffers);
        contents.assign(bufferCount, 0);
        exports.assign(bufferCount, 0);
        return 0;
    }
    case VIDIOC_QUERYBUF: {
        auto *buffer = static_cast<v4l2_buffer *>(argument);
        if (buffer->index >= bufferCount)
            return -EINVAL;
        const auto lengthOf = [this](unsigned int plane) {
            return driver.bufferLength != 0 ? driver.bufferLength : currentBytes(plane);
        };
        if (driver.multiplanar) {
            const unsigned int planes = current.fmt.pix_mp.num_planes;
            for (unsigned int plane = 0; plane < planes; ++plane) {
                buffer->m.planes[plane].length = lengthOf(plane);
                buffer->m.planes[plane].m.mem_offset = 4096 * (2 * buffer->index + plane);
            }
            buffer->length = planes;
        } else {
            buffer->length = lengthOf(0);
            buffer->m.offset = 4096 * 2 * buffer->index;
        }
        return 0;
    }
    case VIDIOC_EXPBUF:
        return exportBuffer(static_cast<v4l2_exportbuffer *>(argument));
    case VIDIOC_QBUF:
        return queueBuffer(static_cast<v4l2_buffer *>(argument));
    case VIDIOC_DQBUF:
        return dequeueBuffer(static_cast<v4l2_buffer *>(argument));
    case VIDIOC_STREAMON:
        if (driver.startError != 0)
            return -driver.startError;
        isStreaming = true;
        return 0;
    case VIDIOC_STREAMOFF:
        isStreaming = false;
        queue.clear();
        done.clear();
        signal(false);
        return 0;
    default:
        return -ENOTTY;
    }
}

int Kernel::exportBuffer(v4l2_exportbuffer *request)
{
    const unsigned int planes = driver.multiplanar ? current.fmt.pix_mp.num_planes : 1;
    if (request->index >= bufferCount || request->plane >= planes)
        return -EINVAL;
    if (request->plane == 0)
        ++exports[request->index];
    request->fd = nextDmabuf++;
    openDescriptors.insert(request->fd);
    bufferOfDmabuf[request->fd] = request->index;
    return 0;
}

int Kernel::queueBuffer(v4l2_buffer *buffer)
{
    if (buffer->index >= bufferCount) {
        violations.push_back("queued a buffer that is not there");
        return -EINVAL;
    }
    const unsigned int index = buffer->index;
    const bool isDone =
        std::any_of(done.begin(), done.end(), [index](const Filled &f) { return f.index == index; });
    if (isDone || std::count(queue.begin(), queue.end(), index) > 0) {
        violations.push_back("queued a queued buffer");
        return -EINVAL;
    }
    if (buffer->memory != memory) {
        violations.push_back("queued with another kind of memory");
        return -EINVAL;
    }
    if (memory != V4L2_MEMORY_MMAP) {
        const int result = takeMemory(*buffer);
        if (result < 0)
            return result;
    }
    queue.push_back(index);
    return 0;
}

// What the buffer comes with: addresses, or numbers of DMA-bufs.
int Kernel::takeMemory(const v4l2_buffer &buffer)
{
    const unsigned int planes = driver.multiplanar ? current.fmt.pix_mp.num_planes : 1;
    std::vector<std::uintptr_t> given;
    for (unsigned int plane = 0; plane < planes; ++plane) {
        const bool isAddress = memory == V4L2_MEMORY_USERPTR;
        std::uintptr_t place = 0;
        std::uint32_t length = 0;
        if (driver.multiplanar) {
            const v4l2_plane &part = buffer.m.planes[plane];
            place = isAddress ? part.m.userptr : static_cast<std::uintptr_t>(part.m.fd);
            length = part.length;
        } else {
            place = isAddress ? buffer.m.userptr : static_cast<std::uintptr_t>(buffer.m.fd);
            length = buffer.length;
        }
        if (place == 0 || length < currentBytes(plane))
            return -EINVAL;
        given.push_back(place);
    }
    if (foreign().count(given[0]) > 0) {
        violations.push_back("queued memory that the driver has");
        return -EINVAL;
    }
    if (given[0] == refusedPlace)
        return -EFAULT; // with what was looked up before left as it is
    if (places[buffer.index] != given)
        pinned[buffer.index] = given;
    relocations += !places[buffer.index].empty() && places[buffer.index] != given ? 1 : 0;
    places[buffer.index] = given;
    return 0;
}

void Kernel::replaceMemory(std::uint8_t *address, std::size_t bytes)
{
    const Lock lock(mutex);
    const auto begin = reinterpret_cast<std::uintptr_t>(address);
    orphans.emplace_back(bytes);
    for (auto &planes : pinned) {
        for (std::uintptr_t &place : planes) {
            if (place >= begin && place - begin < bytes)
                place = reinterpret_cast<std::uintptr_t>(orphans.back().data()) + (place - begin);
        }
    }
}

std::set<std::uintptr_t> Kernel::foreign() const
{
    std::set<std::uintptr_t> all;
    for (const unsigned int index : queue)
        all.insert(places.at(index).empty() ? 0 : places.at(index)[0]);
    for (const Filled &filled : done)
        all.insert(places.at(filled.index).empty() ? 0 : places.at(filled.index)[0]);
    return all;
}

int Kernel::map(int fd, std::size_t bytes, std::int64_t offset, void **address)
{
    const Lock lock(mutex);
    if (const int error = faultOf(mapCall))
        return error;
    if (fd != device || memory != V4L2_MEMORY_MMAP || offset / 4096 / 2 >= bufferCount)
        return -EINVAL;
    std::vector<std::uint8_t> content(bytes);
    void *const place = content.data();
    mapped[place] = std::move(content);
    places[static_cast<std::size_t>(offset / 4096 / 2)].push_back(reinterpret_cast<std::uintptr_t>(place));
    *address = place;
    return 0;
}

int Kernel::unmap(void *address, std::size_t)
{
    const Lock lock(mutex);
    if (mapped.erase(address) == 0)
        violations.push_back("unmapped what is not mapped");
    return 0;
}

// Writes the frame's number into the first byte of each line of both planes, where there is memory to write
// into.
void Kernel::paint(unsigned int index)
{
    if (memory == V4L2_MEMORY_DMABUF || places.empty() || places[index].empty())
        return;
    const std::uint32_t line = std::max(stride, driver.stride != 0 ? driver.stride : driver.width);
    const auto &planes = memory == V4L2_MEMORY_USERPTR ? pinned[index] : places[index];
    auto *luma = reinterpret_cast<std::uint8_t *>(planes[0]);
    auto *chroma = planes.size() > 1 ? reinterpret_cast<std::uint8_t *>(planes[1])
                                     : luma + std::size_t{line} * driver.height;
    for (std::uint32_t row = 0; row < driver.height; ++row)
        luma[std::size_t{row} * line] = static_cast<std::uint8_t>(nextSequence);
    for (std::uint32_t row = 0; row < (driver.height + 1) / 2; ++row)
        chroma[std::size_t{row} * line] = static_cast<std::uint8_t>(nextSequence + 100);
}

int Kernel::dequeueBuffer(v4l2_buffer *buffer)
{
    if (!isStreaming)
        return -EINVAL;
    if (done.empty())
        return -EAGAIN;
    const Filled filled = done.front();
    done.pop_front();
    if (done.empty())
        signal(false);
    buffer->index = forgedIndex >= 0 ? static_cast<unsigned int>(forgedIndex) : filled.index;
    buffer->flags = filled.flags | V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC;
    buffer->sequence = filled.sequence;
    buffer->timestamp = {static_cast<time_t>(filled.time / 1000000),
                         static_cast<suseconds_t>(filled.time % 1000000)};
    if (driver.multiplanar) {
        for (unsigned int plane = 0; plane < current.fmt.pix_mp.num_planes; ++plane) {
            buffer->m.planes[plane].bytesused = currentBytes(plane) - filled.lacking;
            buffer->m.planes[plane].data_offset = filled.dataOffset;
        }
    } else {
        buffer->bytesused = currentBytes(0) - filled.lacking;
    }
    return 0;
}

bool Kernel::fill(std::uint32_t flags, std::uint32_t lackingBytes, std::uint32_t dataOffset)
{
    const Lock lock(mutex);
    if (!isStreaming || queue.empty() || isStale)
        return false;
    const unsigned int index = queue.front();
    queue.pop_front();
    contents[index] = nextSequence;
    paint(index);
    done.push_back({index, flags, nextSequence++, lackingBytes, dataOffset, now()});
    signal(true);
    return true;
}

void Kernel::unplug()
{
    const Lock lock(mutex);
    isPresent = false;
    isStale = device >= 0;
    signal(true);
}

void Kernel::plugIn()
{
    const Lock lock(mutex);
    isPresent = true;
}

namespace {

struct EglState
{
    std::mutex mutex;
    std::map<void *, std::vector<int>> images;
    std::uintptr_t next = 0x1000;
    int created = 0;
    int failFrom = -1;
    int wrong = 0;
};

EglState &egl()
{
    static EglState state;
    return state;
}

char displayMemory;

} // namespace

void *Egl::display()
{
    return &displayMemory;
}

void *Egl::create(void *display, void *context, unsigned int target, void *buffer, const int *attributes)
{
    EglState &state = egl();
    const std::lock_guard<std::mutex> lock(state.mutex);
    const int creation = state.created++;
    const bool isAsked =
        display == &displayMemory && context == nullptr && target == 0x3270 && buffer == nullptr;
    if (!isAsked || (state.failFrom >= 0 && creation >= state.failFrom))
        return nullptr;
    std::vector<int> copy;
    for (int i = 0; attributes[i] != 0x3038; i += 2)
        copy.insert(copy.end(), {attributes[i], attributes[i + 1]});
    state.next += 0x10;
    void *const image = reinterpret_cast<void *>(state.next);
    state.images[image] = copy;
    return image;
}

unsigned int Egl::destroy(void *display, void *image)
{
    EglState &state = egl();
    const std::lock_guard<std::mutex> lock(state.mutex);
    if (display == &displayMemory && state.images.erase(image) == 1)
        return 1;
    ++state.wrong;
    return 0;
}

void Egl::reset()
{
    EglState &state = egl();
    const std::lock_guard<std::mutex> lock(state.mutex);
    state.images.clear();
    state.created = 0;
    state.failFrom = -1;
    state.wrong = 0;
}

void Egl::failFrom(int creation)
{
    const std::lock_guard<std::mutex> lock(egl().mutex);
    egl().failFrom = creation;
}

int Egl::alive()
{
    const std::lock_guard<std::mutex> lock(egl().mutex);
    return static_cast<int>(egl().images.size());
}

int Egl::created()
{
    const std::lock_guard<std::mutex> lock(egl().mutex);
    return egl().created;
}

std::vector<int> Egl::attributesOf(void *image)
{
    const std::lock_guard<std::mutex> lock(egl().mutex);
    const auto found = egl().images.find(image);
    return found == egl().images.end() ? std::vector<int>() : found->second;
}

int Egl::wrongDestructions()
{
    const std::lock_guard<std::mutex> lock(egl().mutex);
    return egl().wrong;
}

} // namespace fake
