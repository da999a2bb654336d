#include "storesource.h"

#include "formats.h"
#include "slotpool.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

namespace zevgst {

namespace {

constexpr int kOpenLimitMs = 20; // a writer that takes longer is asked again, and goes on where it was
constexpr int kWaitMs = 20;
constexpr int kLocksMax = 32;
constexpr int64_t kAudioStartUs = 40000; // behind the newest sample
constexpr int64_t kAudioAheadUs =
    1000000; // a position so far ahead of the newest sample is one before a clock step

struct LockedFrame
{
    std::shared_ptr<Connection> connection;
    shm_video_frame_t frame;

    LockedFrame(std::shared_ptr<Connection> c, const shm_video_frame_t &f)
        : connection(std::move(c)), frame(f)
    {
        ++connection->locked;
    }
    ~LockedFrame()
    {
        shm_reader_unlock_video(connection->reader, &frame);
        --connection->locked;
    }
    LockedFrame(const LockedFrame &) = delete;
    LockedFrame &operator=(const LockedFrame &) = delete;
};

GQuark frameQuark()
{
    static const GQuark quark = g_quark_from_static_string("zevshm-frame");
    return quark;
}

size_t planeRows(const GstVideoInfo &info, guint plane)
{
    const int height = GST_VIDEO_INFO_HEIGHT(&info);
    return static_cast<size_t>(plane == 0 ? height : (height + 1) / 2);
}

} // namespace

void StoreSource::configure(const std::string &store, Media media, int stream)
{
    close();
    skipToNewest();
    m_session = 0;
    m_store = store;
    m_media = media;
    m_stream = stream;
}

void StoreSource::close()
{
    m_connection.reset();
    m_discont = true;
}

void StoreSource::skipToNewest()
{
    m_generation = 0;
    m_frameUs = 0;
    m_anchorUs = 0;
    m_discont = true;
}

StoreSource::Result StoreSource::open()
{
    shm_reader_options_t options = {};
    options.size = sizeof options;
    options.timeout_ms = kOpenLimitMs;
    options.max_locks = kLocksMax;
    shm_error_t error = {};
    shm_reader_t *reader = shm_reader_open_with(m_store.c_str(), &options, &error);
    if (reader == nullptr) {
        m_error = error.message;
        const bool mayCome = error.code == -ENOENT || error.code == -ECONNREFUSED || error.code == -ETIMEDOUT;
        return mayCome ? Result::Gone : Result::Failed;
    }
    auto connection = std::make_shared<Connection>(reader);
    shm_reader_format_t format = {};
    shm_store_info_t info = {};
    info.size = sizeof info;
    if (shm_reader_get_format(reader, &format) != 0 || shm_reader_get_info(reader, &info) != 0 ||
        !format.valid) {
        m_error = "store \"" + m_store + "\" went away while it was opened; start its writer again";
        return Result::Gone;
    }
    const bool isVideo = m_media == Media::Video;
    if (isVideo ? !format.has_video || videoFormat(format.pixel_format) == GST_VIDEO_FORMAT_UNKNOWN
                : !format.has_audio) {
        m_error = "store \"" + m_store + "\" has no " +
                  (isVideo ? "video; read its sound with media=audio, or publish it with video"
                           : "sound; read its video with media=video, or publish it with sound");
        // One that had it may have it again.
        return m_session != 0 ? Result::Gone : Result::Failed;
    }
    m_storeInfo = info;
    if (isVideo)
        setVideoFormat(format);
    else
        setAudioFormat(format);
    // The same writer again: it has hung up on a reader that held too much. It goes on where it was.
    if (info.session != m_session)
        skipToNewest();
    m_session = info.session;
    // Those that the store keeps beyond its history, but for the one that the writer fills.
    m_locksMax = std::clamp(info.slot_count - format.frame_count - 1, 1, kLocksMax - 1);
    m_connection = std::move(connection);
    m_formatChanged = true;
    return Result::Buffer;
}

void StoreSource::setVideoFormat(const shm_reader_format_t &format)
{
    gst_video_info_set_format(&m_video, videoFormat(format.pixel_format), static_cast<guint>(format.width),
                              static_cast<guint>(format.height));
    setColor(&m_video, m_storeInfo.color);
    m_video.fps_n = static_cast<gint>(m_storeInfo.rate_numerator);
    m_video.fps_d = m_storeInfo.rate_numerator > 0 ? static_cast<gint>(m_storeInfo.rate_denominator) : 1;
    m_duration = m_video.fps_n > 0 ? gst_util_uint64_scale_int(GST_SECOND, m_video.fps_d, m_video.fps_n)
                                   : GST_CLOCK_TIME_NONE;
}

void StoreSource::setAudioFormat(const shm_reader_format_t &format)
{
    GstAudioChannelPosition positions[64];
    const guint64 mask = gst_audio_channel_get_fallback_mask(format.channels);
    const bool known = mask != 0 && gst_audio_channel_positions_from_mask(format.channels, mask, positions);
    gst_audio_info_set_format(&m_audio, GST_AUDIO_FORMAT_S16LE, format.sample_rate, format.channels,
                              known ? positions : nullptr);
}

bool StoreSource::takeFormatChange()
{
    const bool changed = m_formatChanged;
    m_formatChanged = false;
    return changed;
}

GstCaps *StoreSource::caps() const
{
    if (m_media == Media::Audio)
        return gst_audio_info_to_caps(&m_audio);
    return gst_video_info_to_caps(&m_video);
}

StoreSource::Result StoreSource::next(GstBuffer **buffer, int64_t *timestampUs)
{
    if (!m_connection) {
        const Result opened = open();
        // The caller learns of the format before the first buffer.
        return opened == Result::Buffer ? Result::Nothing : opened;
    }
    const Result result =
        m_media == Media::Video ? nextFrame(buffer, timestampUs) : nextSamples(buffer, timestampUs);
    if (result == Result::Gone)
        close();
    if (result == Result::Buffer && m_discont) {
        GST_BUFFER_FLAG_SET(*buffer, GST_BUFFER_FLAG_DISCONT);
        m_discont = false;
    }
    return result;
}

StoreSource::Result StoreSource::nextFrame(GstBuffer **buffer, int64_t *timestampUs)
{
    shm_reader_t *reader = m_connection->reader;
    const int waited = shm_reader_wait_video(reader, m_generation, kWaitMs);
    if (waited == -ETIMEDOUT)
        return Result::Nothing;
    if (waited != 0)
        return Result::Gone;
    shm_video_frame_t frame = {};
    frame.timestamp = m_frameUs + 1;
    int locked = -ENOENT;
    if (m_generation != 0)
        locked = shm_reader_lock_video(reader, &frame, SHM_VIDEO_AT_OR_AFTER);
    if (locked == -ENOENT) // the first one, or the wall clock was set back
        locked = shm_reader_lock_video(reader, &frame, SHM_VIDEO_NEWEST);
    if (locked == -ENODEV)
        return Result::Gone;
    if (locked != 0)
        return Result::Nothing;
    if (m_generation != 0 && frame.generation != m_generation + 1)
        m_discont = true;
    m_generation = frame.generation;
    m_frameUs = frame.timestamp;
    *timestampUs = frame.timestamp;
    *buffer = wrap(frame);
    GST_BUFFER_OFFSET(*buffer) = frame.generation;
    return Result::Buffer;
}

GstBuffer *StoreSource::wrap(const shm_video_frame_t &frame)
{
    gsize offsets[GST_VIDEO_MAX_PLANES] = {};
    gint strides[GST_VIDEO_MAX_PLANES] = {};
    planeLayout(m_video, frame.plane_offsets, frame.strides, offsets, strides);
    bool usual = true;
    size_t size = 0;
    for (guint i = 0; i < GST_VIDEO_INFO_N_PLANES(&m_video); ++i) {
        offsets[i] -= static_cast<gsize>(frame.plane_offsets[0]);
        usual = usual && offsets[i] == GST_VIDEO_INFO_PLANE_OFFSET(&m_video, i) &&
                strides[i] == GST_VIDEO_INFO_PLANE_STRIDE(&m_video, i);
        size = std::max(size, offsets[i] + static_cast<size_t>(strides[i]) * planeRows(m_video, i));
    }
    auto locked = std::make_shared<LockedFrame>(m_connection, frame);
    // More would take slots that the writer needs.
    if ((!usual && !m_metaSupported) || m_connection->locked > m_locksMax)
        return copy(frame);
    return wrapPlanes(frame.planes[0], size, GST_MEMORY_FLAG_READONLY, m_video, offsets, strides,
                      std::move(locked), frameQuark());
}

GstBuffer *StoreSource::copy(const shm_video_frame_t &frame) const
{
    GstBuffer *buffer = gst_buffer_new_allocate(nullptr, GST_VIDEO_INFO_SIZE(&m_video), nullptr);
    GstVideoFrame target;
    if (!gst_video_frame_map(&target, &m_video, buffer, GST_MAP_WRITE))
        return buffer;
    const bool swapped = GST_VIDEO_INFO_FORMAT(&m_video) == GST_VIDEO_FORMAT_YV12;
    const guint planes = GST_VIDEO_INFO_N_PLANES(&m_video);
    for (guint i = 0; i < planes; ++i) {
        const guint plane = swapped && i > 0 ? 3 - i : i;
        const uint8_t *from = frame.planes[plane];
        auto *to = static_cast<uint8_t *>(GST_VIDEO_FRAME_PLANE_DATA(&target, i));
        const int half = (frame.width + 1) / 2;
        const auto bytes = static_cast<size_t>(i == 0 ? frame.width : planes == 2 ? 2 * half : half);
        for (size_t y = 0; y < planeRows(m_video, i); ++y) {
            std::memcpy(to, from, bytes);
            to += GST_VIDEO_FRAME_PLANE_STRIDE(&target, i);
            from += frame.strides[plane];
        }
    }
    gst_video_frame_unmap(&target);
    return buffer;
}

StoreSource::Result StoreSource::nextSamples(GstBuffer **buffer, int64_t *timestampUs)
{
    shm_reader_t *reader = m_connection->reader;
    shm_audio_status_t status = {};
    if (shm_reader_get_audio_status(reader, m_stream, &status) != 0)
        return Result::Gone;
    const int64_t rate = GST_AUDIO_INFO_RATE(&m_audio);
    const int64_t frames = std::max<int64_t>(rate / 100, 1);
    const auto positionUs = [&] { return m_anchorUs + m_anchorFrames * 1000000 / rate; };
    const auto start = [&] {
        m_anchorUs = std::max(status.oldest_timestamp, status.newest_timestamp - kAudioStartUs);
        m_anchorFrames = 0;
        m_discont = true;
    };
    if (status.frames > 0 && (m_anchorUs == 0 || positionUs() > status.newest_timestamp + kAudioAheadUs))
        start();
    if (status.frames == 0 || status.newest_timestamp - positionUs() < frames * 1000000 / rate) {
        std::this_thread::sleep_for(std::chrono::milliseconds(3));
        return Result::Nothing;
    }
    const auto bytes = static_cast<gsize>(frames * GST_AUDIO_INFO_BPF(&m_audio));
    *buffer = gst_buffer_new_allocate(nullptr, bytes, nullptr);
    GstMapInfo map;
    gst_buffer_map(*buffer, &map, GST_MAP_WRITE);
    const int64_t got = shm_reader_query_audio2(reader, m_stream, map.data,
                                                static_cast<unsigned long>(frames), 1, positionUs(), -1);
    gst_buffer_unmap(*buffer, &map);
    if (got <= 0) {
        gst_buffer_unref(*buffer);
        *buffer = nullptr;
        start(); // overtaken
        return got < 0 ? Result::Gone : Result::Nothing;
    }
    gst_buffer_set_size(*buffer, static_cast<gssize>(got * GST_AUDIO_INFO_BPF(&m_audio)));
    *timestampUs = positionUs();
    m_duration = gst_util_uint64_scale_int(static_cast<guint64>(got), GST_SECOND, static_cast<gint>(rate));
    m_anchorFrames += got;
    return Result::Buffer;
}

} // namespace zevgst
