#include "writer.h"
#include "atomic.h"

#include "error.h"
#include "process_id.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>

using namespace shm;

namespace {

// Timestamps beyond this (36,000 years) are mistakes, and their differences would overflow.
constexpr int64_t kTimestampLimit = int64_t{1} << 60;

bool plausible(int64_t timestamp)
{
    return timestamp > -kTimestampLimit && timestamp < kTimestampLimit;
}

} // namespace

shm_writer::shm_writer(const ClockSource &clock, DmabufDevice &device)
    : m_clock(clock), m_process(processId()), m_service(m_store)
{
    m_store.dmabufDevice = &device;
}

shm_writer::~shm_writer()
{
    // First out of sight, so that no reader finds a store that is on its way out.
    m_publication.hide();
    if (m_store.index.head != nullptr) {
        IndexHead &head = *m_store.index.head;
        head.state.value.store(kStoreClosed, std::memory_order_release);
        syscall(SYS_futex, &head.wake.value, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
    }
    m_service.stop();
    // Not before: the service thread listens by the socket's number, which another thread's next descriptor
    // would get.
    m_publication.release();
}

int shm_writer::open(const shm_writer_params_t &params, shm_error_t *error)
{
    int result = makePolicy(params, &m_store.policy, error);
    if (result != 0)
        return result;
    std::string directory;
    result = writerDirectory(params.directory, params.group != nullptr, &directory, error);
    if (result == 0)
        result = m_publication.claim(directory, m_store.policy.name, error);
    if (result == 0)
        result = m_store.create(error);
    if (result != 0)
        return result;
    SHM_STEP("start: allocated");
    for (uint32_t i = 0; i < m_store.policy.audioStreams; ++i) {
        const uint64_t streamBytes = m_store.policy.audioBytes / m_store.policy.audioStreams;
        m_audio.emplace_back(m_store.audioMemory.mapping.data() + i * streamBytes, m_store.policy.audio);
    }
    m_publisher.emplace(m_store, m_clock);
    result = m_publication.listen(m_store.policy.group, error);
    if (result == 0)
        result = m_service.start(m_publication.socket(), error);
    return result;
}

void shm_writer::forget()
{
    m_publication.forget();
    m_service.forget();
    m_store.indexMemory.fd.reset();
    m_store.audioMemory.fd.reset();
    for (Slot &slot : m_store.slots) {
        slot.memory.fd.reset();
        slot.memory.dmabuf.reset();
    }
}

int shm_writer::publishAudio(int stream, const int16_t *samples, uint32_t frames, int64_t timestamp)
{
    if (stream < 0 || static_cast<size_t>(stream) >= m_audio.size() || (samples == nullptr && frames > 0) ||
        !plausible(timestamp)) {
        return -EINVAL;
    }
    m_audio[static_cast<size_t>(stream)].publish(samples, frames, timestamp, m_clock.read());
    return 0;
}

void shm_writer::statistics(shm_writer_stats_t *stats) const
{
    const IndexHead &head = *m_store.index.head;
    shm_writer_stats_t now = {};
    now.readers = static_cast<int32_t>(head.readers.load(std::memory_order_relaxed));
    now.locks_held = static_cast<int32_t>(head.locksHeld.load(std::memory_order_relaxed));
    now.slot_count = static_cast<int32_t>(head.slots.load(std::memory_order_relaxed));
    now.session = m_store.policy.session;
    now.frames_published = head.published.load(std::memory_order_relaxed);
    now.frames_dropped = head.dropped.load(std::memory_order_relaxed);
    now.frames_refused = head.refused.load(std::memory_order_relaxed);
    if (!m_audio.empty())
        now.audio_frames_published = m_audio[0].published();
    now.total_bytes = head.totalBytes.load(std::memory_order_relaxed);
    const uint64_t wish = head.wish.load(std::memory_order_relaxed);
    now.wished_numerator = static_cast<uint32_t>(wish >> 32);
    now.wished_denominator = static_cast<uint32_t>(wish);
    now.readers_disconnected = m_store.counters.disconnected.load(std::memory_order_relaxed);
    now.slots_replaced = m_store.counters.replaced.load(std::memory_order_relaxed);
    std::snprintf(now.memory, sizeof now.memory, "%s", m_store.policy.memory.c_str());
    std::snprintf(now.dmabuf, sizeof now.dmabuf, "%s",
                  m_store.policy.hasVideo() ? m_store.dmabufText().c_str() : "no video");
    // A program that was built with an older record gets what it has room for.
    const uint32_t size = stats->size;
    now.size = size;
    std::memcpy(stats, &now, size < sizeof now ? size : sizeof now);
}

int shm::openWriter(const shm_writer_params_t *params, const ClockSource &clock, shm_writer_t **writer,
                    shm_error_t *error, DmabufDevice &device)
{
    if (error != nullptr)
        *error = shm_error_t{};
    if (writer == nullptr || params == nullptr)
        return fail(error, EINVAL, "writer or parameters missing");
    *writer = nullptr;
    return guarded(error, [&] {
        shm_writer_params_t known;
        int result = readParams(params, &known, error);
        if (result != 0)
            return result;
        auto created = std::make_unique<shm_writer>(clock, device);
        result = created->open(known, error);
        if (result == 0)
            *writer = created.release();
        return result;
    });
}

void shm_writer_params_init_sized(shm_writer_params_t *params, size_t size)
{
    if (params == nullptr || size < sizeof params->size)
        return;
    shm_writer_params_t defaults = {};
    defaults.size = static_cast<uint32_t>(size);
    defaults.color.matrix = SHM_MATRIX_BT709;
    defaults.color.range = SHM_RANGE_FULL;
    defaults.color.transfer = SHM_TRANSFER_BT709;
    defaults.color.siting = SHM_SITING_LEFT;
    // A program that was built with another record has room for its own.
    void *const record = params;
    std::memset(record, 0, size);
    std::memcpy(record, &defaults, std::min(size, sizeof defaults));
}

int shm_writer_open(const shm_writer_params_t *params, shm_writer_t **writer, shm_error_t *error)
{
    static const SystemClock clock;
    return openWriter(params, clock, writer, error);
}

void shm_writer_close(shm_writer_t *writer)
{
    if (writer == nullptr)
        return;
    guarded(nullptr, [writer] {
        if (writer->mine())
            delete writer;
        else
            writer->forget(); // its thread lives in the parent only; the copy of its memory is left alone
        return 0;
    });
}

int shm_writer_describe_frame(int32_t width, int32_t height, int32_t pixel_format, shm_writer_frame_t *frame,
                              int64_t *bytes)
{
    if (frame == nullptr || width < 1 || height < 1)
        return -EINVAL;
    *frame = shm_writer_frame_t{};
    frame->memory_fd = -1;
    frame->slot = -1;
    const FrameLayout layout = frameLayout(static_cast<uint32_t>(width), static_cast<uint32_t>(height),
                                           static_cast<uint32_t>(pixel_format));
    if (layout.planeCount == 0)
        return -EINVAL;
    for (uint32_t p = 0; p < layout.planeCount; ++p) {
        frame->strides[p] = static_cast<int32_t>(layout.planes[p].stride);
        frame->plane_offsets[p] = static_cast<int64_t>(layout.planes[p].offset);
    }
    frame->width = width;
    frame->height = height;
    if (bytes != nullptr)
        *bytes = static_cast<int64_t>(layout.bytes);
    return 0;
}

int shm_writer_acquire(shm_writer_t *writer, shm_writer_frame_t *frame)
{
    if (writer == nullptr || frame == nullptr || !writer->mine())
        return -EINVAL;
    return writer->publisher()->acquire(frame, Publisher::Filler::Processor);
}

int shm_writer_acquire_for_device(shm_writer_t *writer, shm_writer_frame_t *frame)
{
    if (writer == nullptr || frame == nullptr || !writer->mine())
        return -EINVAL;
    return writer->publisher()->acquire(frame, Publisher::Filler::Device);
}

int shm_writer_publish(shm_writer_t *writer, shm_writer_frame_t *frame, int64_t timestamp)
{
    if (writer == nullptr || frame == nullptr || !writer->mine())
        return -EINVAL;
    if (!plausible(timestamp)) {
        writer->publisher()->abandon(frame);
        return -EINVAL;
    }
    return writer->publisher()->publish(frame, timestamp);
}

void shm_writer_abandon(shm_writer_t *writer, shm_writer_frame_t *frame)
{
    if (writer != nullptr && frame != nullptr && writer->mine())
        writer->publisher()->abandon(frame);
}

int shm_writer_publish_video(shm_writer_t *writer, const uint8_t *const planes[4], const int32_t strides[4],
                             int64_t timestamp)
{
    if (writer == nullptr || planes == nullptr || strides == nullptr || !writer->mine() ||
        !plausible(timestamp))
        return -EINVAL;
    return writer->publisher()->publishCopy(planes, strides, timestamp);
}

int shm_writer_publish_audio(shm_writer_t *writer, int stream, const int16_t *samples, uint32_t frames,
                             int64_t timestamp)
{
    if (writer == nullptr || !writer->mine())
        return -EINVAL;
    return writer->publishAudio(stream, samples, frames, timestamp);
}

int shm_writer_set_capture(shm_writer_t *writer, int capture)
{
    if (writer == nullptr || !writer->mine() || capture < SHM_CAPTURE_NONE || capture > SHM_CAPTURE_USERPTR)
        return -EINVAL;
    writer->tellCapture(static_cast<uint32_t>(capture));
    return 0;
}

int shm_writer_get_stats(shm_writer_t *writer, shm_writer_stats_t *stats)
{
    if (writer == nullptr || stats == nullptr || stats->size < sizeof stats->size || !writer->mine())
        return -EINVAL;
    writer->statistics(stats);
    return 0;
}
