#include "camerapublisher.h"

#include "cadence.h"
#include "camera.h"
#include "failure.h"
#include "messages.h"

#include <sys/eventfd.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <system_error>

namespace zevshm {

using zevmm::v4l2::CaptureFormat;
using zevmm::v4l2::ColorEncoding;
using zevmm::v4l2::MemoryCapture;
using zevmm::v4l2::MemoryWay;

namespace {

constexpr int64_t oldestUs = 1000000; // a driver's time that is farther from now than this is none
constexpr int64_t retryUs = 500000;   // between two attempts to use a camera that came back different
constexpr int waitMs = 1000;

uint8_t matrixOf(ColorEncoding encoding)
{
    switch (encoding) {
    case ColorEncoding::Bt709:
        return SHM_MATRIX_BT709;
    case ColorEncoding::Bt2020:
        return SHM_MATRIX_BT2020;
    case ColorEncoding::Bt601:
        break;
    }
    return SHM_MATRIX_BT601;
}

bool isDmabuf(int fd)
{
    constexpr auto magic = 0x444d4142;
    struct statfs system = {};
    return fstatfs(fd, &system) == 0 && static_cast<unsigned long>(system.f_type) == magic;
}

// The rate whose interval, rounded to microseconds, is this one: of the usual ones if one fits.
std::optional<Ratio> rateOf(int64_t frameInterval)
{
    if (frameInterval <= 0)
        return std::nullopt;
    const auto whole = static_cast<int>((1000000 + frameInterval / 2) / frameInterval);
    for (const Ratio rate : {Ratio{whole, 1}, Ratio{1000 * whole, 1001}}) {
        if (whole > 0 && std::abs(intervalUs(rate) - frameInterval) <= 1)
            return rate;
    }
    return Ratio{1000000, static_cast<int>(std::min<int64_t>(frameInterval, INT_MAX))};
}

} // namespace

CameraPublisher::CameraPublisher(const Settings &settings, StoreWriter &store, SharedClock &clock)
    : m_settings(settings), m_store(store), m_clock(clock), m_capture(settings.device), m_slots(512),
      m_wakeFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    if (m_wakeFd < 0)
        throw Failure(ExitResources, "no descriptors left; raise 'ulimit -n'");
}

CameraPublisher::~CameraPublisher()
{
    stop();
    if (m_thread.joinable())
        m_thread.join();
    m_capture.stop();
    close(m_wakeFd);
}

// False when it offers no NV12.
bool CameraPublisher::setUpCamera()
{
    try {
        m_capture.setup();
        return true;
    } catch (const std::system_error &error) {
        if (error.code().value() == EINVAL)
            return false;
        throw Failure(ExitInput, error.what());
    }
}

bool CameraPublisher::open()
{
    m_clock.observe();
    if (!setUpCamera())
        return false;
    start();
    return true;
}

VideoFormat CameraPublisher::cameraFormat() const
{
    const CaptureFormat camera = m_capture.format();
    VideoFormat format;
    format.width = static_cast<int>(camera.width);
    format.height = static_cast<int>(camera.height);
    format.color.matrix = matrixOf(camera.encoding);
    format.color.range = camera.fullRange ? SHM_RANGE_FULL : SHM_RANGE_LIMITED;
    format.color.siting = SHM_SITING_LEFT;
    format.rate = rateOf(camera.frameInterval);
    return format;
}

// The store, with the camera streaming into it. Throws Failure.
void CameraPublisher::start()
{
    const VideoFormat camera = cameraFormat();
    std::string why = m_settings.obstacle;
    if (why.empty() && startStraight(camera, &why))
        return;
    // First the camera: nobody is to find the store of one that does not stream.
    std::string refusal;
    if (!m_capture.start(MemoryWay::Mapped, {}, *this, &refusal))
        throw Failure(ExitInput, m_settings.device + ": does not stream (" + refusal + "); 'v4l2-ctl -d " +
                                     m_settings.device + " --all' and the kernel's log (dmesg) may say more");
    Publisher::Settings wishes;
    wishes.size = m_settings.size;
    wishes.keepRange = m_settings.keepRange;
    m_store.setCapture(SHM_CAPTURE_COPIED);
    try {
        m_store.open(Publisher::storeFormat({camera, std::nullopt}, wishes), m_settings.pixelFormat);
    } catch (...) {
        m_capture.stop();
        throw;
    }
    m_way = "each frame written into the store from the driver's buffer: one copy, because " + why;
}

bool CameraPublisher::startStraight(const VideoFormat &format, std::string *why)
{
    shm_writer_frame_t slot{};
    int64_t bytes = 0;
    if (shm_writer_describe_frame(format.width, format.height, SHM_PIXEL_FORMAT_NV12, &slot, &bytes) != 0) {
        *why = "a store has no frames of this size";
        return false;
    }
    const zevmm::v4l2::FrameLayout layout{static_cast<uint32_t>(slot.strides[0]),
                                          static_cast<uint64_t>(slot.plane_offsets[1]),
                                          static_cast<uint64_t>(bytes)};
    // One more than the driver has: the filled one is published when another has taken its place.
    const uint32_t lent = m_capture.queueLength() + 1;
    if (lent > SHM_LENT_MAX) {
        *why = "the driver wants " + std::to_string(lent) + " frames at once";
        return false;
    }
    struct Way
    {
        MemoryWay way;
        const char *name;
        int capture;
    };
    std::vector<Way> ways;
    if (m_store.isExportWished())
        ways.push_back({MemoryWay::DmaBuf, "DMABUF", SHM_CAPTURE_DMABUF});
    ways.push_back({MemoryWay::Address, "USERPTR", SHM_CAPTURE_USERPTR});
    m_wantedStore = {format, lent};
    const uint64_t noSlotBefore = m_noSlot;
    for (const Way &next : ways) {
        std::string refusal;
        m_needsDmabufs = next.way == MemoryWay::DmaBuf;
        if (m_capture.start(next.way, layout, *this, &refusal)) {
            m_store.setCapture(next.capture);
            m_way = std::string("captured straight into the store (") + next.name + ")";
            if (!why->empty()) // the other way's refusal
                m_way += ", not " + *why;
            return true;
        }
        // What is not to be had while a way is tried is no frame that was left out.
        m_noSlot = noSlotBefore;
        if (m_needsDmabufs && !m_wantedStore && std::strcmp(m_store.stats().dmabuf, "yes") != 0)
            refusal = "the store's frames have none";
        *why += (why->empty() ? "" : "; ") + std::string(next.name) + ": " + refusal;
    }
    m_wantedStore.reset();
    return false;
}

// The store that the driver is to write into is opened when it asks for the first memory: one that cannot be
// captured into, for the layout of its frames, is never seen by anybody.
void CameraPublisher::openWantedStore()
{
    if (!m_wantedStore)
        return;
    m_store.open({m_wantedStore->format, std::nullopt}, SHM_PIXEL_FORMAT_NV12, m_wantedStore->lentFrames);
    m_wantedStore.reset();
}

void CameraPublisher::run(std::function<void()> wake)
{
    m_wake = std::move(wake);
    m_thread = std::thread([this] {
        try {
            loop();
        } catch (...) {
            m_failure = std::current_exception();
        }
        m_finished = true;
        m_wake();
    });
}

void CameraPublisher::stop()
{
    m_stopping = true;
    eventfd_write(m_wakeFd, 1);
}

void CameraPublisher::join()
{
    if (m_thread.joinable())
        m_thread.join();
    m_capture.stop(); // before the store goes, whose memory it has
    if (m_failure)
        std::rethrow_exception(m_failure);
}

Publisher::Counters CameraPublisher::counters() const
{
    Publisher::Counters counters;
    counters.frames = m_published;
    counters.noSlot = m_noSlot;
    counters.refused = m_refused;
    return counters;
}

void CameraPublisher::loop()
{
    while (!m_stopping) {
        if (m_capture.run(waitMs, m_wakeFd) == MemoryCapture::Change::Format)
            follow();
        const std::string trouble = m_capture.trouble();
        if (trouble != m_trouble)
            say(trouble.empty() ? m_settings.device + ": connected again" : trouble);
        m_trouble = trouble;
    }
}

// The camera is back, and is different.
void CameraPublisher::follow()
{
    while (!m_stopping) {
        m_capture.stop();
        std::string problem =
            m_settings.device + ": offers no NV12 any more; start zevshm again to publish it through FFmpeg";
        try {
            if (setUpCamera()) {
                start();
                const VideoFormat camera = cameraFormat();
                say("the input changed to " + std::to_string(camera.width) + "x" +
                    std::to_string(camera.height) + " " + shm_matrix_name(camera.color.matrix) + " " +
                    shm_range_name(camera.color.range) + "; the store is opened anew, " + m_way);
                return;
            }
        } catch (const Failure &failure) {
            problem = failure.what();
        }
        if (problem != m_trouble)
            say(problem);
        m_trouble = problem;
        StopToken().waitUntil(monotonicUs() + retryUs);
    }
}

bool CameraPublisher::lend(zevmm::v4l2::FrameMemory *memory)
{
    openWantedStore();
    shm_writer_frame_t slot{};
    if (m_store.acquireForDevice(slot) != 0) {
        ++m_noSlot;
        return false;
    }
    // Of memory that was added later there may be none.
    if (m_needsDmabufs && !isDmabuf(slot.memory_fd)) {
        m_store.abandon(slot);
        ++m_noSlot;
        return false;
    }
    *memory = memoryOf(slot);
    m_slots[slotOf(*memory)] = slot;
    return true;
}

// Fresh memory of the same slot often lies at the address of what was there before: it has another number.
zevmm::v4l2::FrameMemory CameraPublisher::memoryOf(const shm_writer_frame_t &slot)
{
    zevmm::v4l2::FrameMemory memory;
    memory.address = slot.planes[0];
    memory.dmabuf = slot.memory_fd;
    memory.id = static_cast<uint64_t>(slot.memory_generation) << 32 | static_cast<uint32_t>(slot.slot);
    return memory;
}

void CameraPublisher::returned(const zevmm::v4l2::FrameMemory &memory)
{
    m_store.abandon(m_slots[slotOf(memory)]);
}

void CameraPublisher::taken(const zevmm::v4l2::FilledFrame &frame)
{
    const int64_t labelUs = labelFor(frame.timestamp);
    if (frame.memory.address != nullptr)
        publish(m_slots[slotOf(frame.memory)], labelUs);
    else
        copy(frame, labelUs);
}

// The wall-clock time of what the driver says is the monotonic time of the picture.
int64_t CameraPublisher::labelFor(int64_t capturedUs)
{
    if (const int64_t step = m_clock.observe())
        say("the wall clock was set by " + std::to_string(step / 1000) + " ms; timestamps follow");
    const int64_t nowUs = monotonicUs();
    return m_clock.labelFor(std::abs(nowUs - capturedUs) > oldestUs ? nowUs : capturedUs);
}

void CameraPublisher::publish(shm_writer_frame_t &slot, int64_t labelUs)
{
    const int published = m_store.publish(slot, labelUs);
    if (published == 0)
        ++m_published;
    else if (published == -EEXIST)
        ++m_refused;
    else
        throw Failure(ExitInternal, std::string("a frame cannot be published (") + std::strerror(-published) +
                                        "); start publishing again");
}

void CameraPublisher::copy(const zevmm::v4l2::FilledFrame &frame, int64_t labelUs)
{
    shm_writer_frame_t slot{};
    if (m_store.acquire(slot) != 0) {
        ++m_noSlot;
        return;
    }
    const CaptureFormat camera = m_capture.format();
    const AvPtr<AVFrame> picture(av_frame_alloc());
    if (!picture) {
        m_store.abandon(slot);
        throw Failure(ExitResources, m_settings.device + ": no memory for its frames; end other programs");
    }
    picture->format = AV_PIX_FMT_NV12;
    picture->width = static_cast<int>(camera.width);
    picture->height = static_cast<int>(camera.height);
    picture->colorspace = colorSpaceOf(camera.encoding);
    picture->color_range = colorRangeOf(camera.fullRange);
    for (int plane = 0; plane < 2; ++plane) {
        picture->data[plane] = const_cast<uint8_t *>(frame.planes[plane]); // read only
        picture->linesize[plane] = static_cast<int>(frame.strideBytes[plane]);
    }
    try {
        m_converter.convert(*picture, slot, m_store.pixelFormat(), m_store.format().video->color);
    } catch (...) {
        m_store.abandon(slot);
        throw;
    }
    publish(slot, labelUs);
}

} // namespace zevshm
