#include "storecapture.h"

#include "color.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <pthread.h>

namespace zevshm {

namespace {

constexpr int soundPollMs = 10;
constexpr int64_t firstFrameLimitUs = 2000000; // sound is taken without a picture after this
constexpr int imageAlign = 32;

AVPixelFormat pictureFormat(int pixelFormat)
{
    return pixelFormat == SHM_PIXEL_FORMAT_NV12 ? AV_PIX_FMT_NV12 : AV_PIX_FMT_YUV420P;
}

int64_t framesToUs(int64_t frames, int sampleRate)
{
    return (frames * 1000000 + sampleRate / 2) / sampleRate;
}

// Of timestamps, which are whatever another process has written.
int64_t difference(int64_t later, int64_t earlier)
{
    return static_cast<int64_t>(static_cast<uint64_t>(later) - static_cast<uint64_t>(earlier));
}

int64_t sum(int64_t timestamp, int64_t us)
{
    return static_cast<int64_t>(static_cast<uint64_t>(timestamp) + static_cast<uint64_t>(us));
}

} // namespace

FramePool makeFramePool(const shm_reader_format_t &format)
{
    const int bytes =
        av_image_get_buffer_size(pictureFormat(format.pixel_format), format.width, format.height, imageAlign);
    FramePool pool(
        bytes > 0 ? av_buffer_pool_init(static_cast<size_t>(bytes) + AV_INPUT_BUFFER_PADDING_SIZE, nullptr)
                  : nullptr);
    if (!pool)
        throw std::bad_alloc();
    return pool;
}

AvPtr<AVFrame> copyFrame(const shm_video_frame_t &frame, int pixelFormat, const shm_color_t &color,
                         AVBufferPool *pool)
{
    AvPtr<AVFrame> picture(av_frame_alloc());
    if (!picture)
        throw std::bad_alloc();
    picture->buf[0] = av_buffer_pool_get(pool);
    if (!picture->buf[0])
        throw std::bad_alloc();
    const AVPixelFormat format = pictureFormat(pixelFormat);
    picture->width = frame.width;
    picture->height = frame.height;
    picture->format = format;
    av_image_fill_arrays(picture->data, picture->linesize, picture->buf[0]->data, format, frame.width,
                         frame.height, imageAlign);
    const uint8_t *planes[4] = {frame.planes[0], frame.planes[1], frame.planes[2], nullptr};
    av_image_copy(picture->data, picture->linesize, planes, frame.strides, format, frame.width, frame.height);
    shm_color_t own = color;
    if (frame.matrix)
        own.matrix = frame.matrix;
    if (frame.range)
        own.range = frame.range;
    setColor(*picture, own);
    return picture;
}

AvPtr<AVFrame> describeFrame(const shm_reader_format_t &format, const shm_color_t &color)
{
    AvPtr<AVFrame> picture(av_frame_alloc());
    if (!picture)
        throw std::bad_alloc();
    picture->width = format.width;
    picture->height = format.height;
    picture->format = pictureFormat(format.pixel_format);
    setColor(*picture, color);
    return picture;
}

StoreCapture::StoreCapture(ReaderPtr reader, const Settings &settings)
    : m_reader(std::move(reader)), m_settings(settings), m_startedUs(monotonicUs()),
      m_generation(settings.generation)
{
    shm_reader_get_format(m_reader.get(), &m_format);
    m_info.size = sizeof m_info;
    shm_reader_get_info(m_reader.get(), &m_info);
    m_hasVideo = settings.withVideo && m_format.has_video;
    m_hasAudio = settings.withAudio && m_format.has_audio;
    if (m_hasVideo)
        m_pool = makeFramePool(m_format);
    if (m_hasAudio)
        m_tracks.resize(static_cast<size_t>(std::clamp(m_info.audio_streams, 1, int{SHM_STREAMS_MAX})));
    if (!m_hasVideo)
        m_soundFromUs = settings.startUs;
    if (settings.soundStartUs)
        m_soundFromUs = settings.soundStartUs;
    m_thread = std::thread([this] { run(); });
}

StoreCapture::~StoreCapture()
{
    stop();
    m_thread.join();
}

void StoreCapture::stop()
{
    m_stopToken.stop();
}

std::optional<CapturedItem> StoreCapture::next(int timeoutMs)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                       [this] { return m_ended || !m_items.empty(); });
    if (m_items.empty())
        return std::nullopt;
    CapturedItem item = std::move(m_items.front().first);
    m_queuedBytes -= m_items.front().second;
    m_items.pop_front();
    return item;
}

bool StoreCapture::done() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_ended && m_items.empty();
}

StoreCapture::End StoreCapture::end() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_end;
}

int64_t StoreCapture::resumeUs() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_resumeUs;
}

uint64_t StoreCapture::generation() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_endGeneration;
}

uint64_t StoreCapture::unseen() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_unseen;
}

// Of a writer that has gone, too: its count outlives its frames.
uint64_t StoreCapture::publishedSinceLast() const
{
    shm_store_info_t info{};
    info.size = sizeof info;
    if (m_generation == 0 || shm_reader_get_info(m_reader.get(), &info) < 0)
        return 0;
    return info.frames_published > m_generation ? info.frames_published - m_generation : 0;
}

void StoreCapture::finish(End end, int64_t resumeUs)
{
    const uint64_t unseen = end == End::WriterGone ? publishedSinceLast() : 0;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_ended)
            return;
        m_ended = true;
        m_end = end;
        m_resumeUs = resumeUs;
        m_endGeneration = m_generation;
        m_unseen = unseen;
    }
    m_changed.notify_all();
}

bool StoreCapture::isTooFarBehind(int64_t timestampUs) const
{
    return !m_items.empty() &&
           difference(timestampUs, m_items.front().first.timestampUs) > m_settings.queueUs;
}

// False when there was no room for it.
bool StoreCapture::push(CapturedItem item, size_t bytes)
{
    // Sound is small, and a gap in it is heard.
    const size_t room = (item.picture ? 1 : 2) * m_settings.queueBytes;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if ((m_queuedBytes + bytes > room && !m_items.empty()) || isTooFarBehind(item.timestampUs))
            return false;
        m_queuedBytes += bytes;
        m_items.emplace_back(std::move(item), bytes);
    }
    m_changed.notify_all();
    return true;
}

void StoreCapture::run()
{
    pthread_setname_np(pthread_self(), "capture");
    try {
        bool going = true;
        while (going) {
            waitForNews();
            const bool isLast = m_stopToken.stopped(); // what is there now is taken all the same
            going = (!m_hasVideo || takeVideo()) && (!m_hasAudio || takeSound(monotonicUs())) && !isLast;
            if (going && !shm_reader_is_ready(m_reader.get())) {
                finish(End::WriterGone, m_lastFrameUs ? sum(*m_lastFrameUs, 1) : 0);
                going = false;
            }
        }
    } catch (const std::bad_alloc &) {
        finish(End::Failed, 0);
    }
    finish(End::Stopped, m_lastFrameUs ? sum(*m_lastFrameUs, 1) : 0);
}

void StoreCapture::waitForNews()
{
    // Sound wakes nobody. A frame that has been seen and could not be had must not make this turn on the
    // spot.
    const int rc = m_hasVideo ? shm_reader_wait_video(m_reader.get(), m_generation, soundPollMs) : -ENOTSUP;
    if (rc == 0 || rc == -ETIMEDOUT)
        return;
    m_stopToken.waitUntil(monotonicUs() + soundPollMs * 1000);
}

bool StoreCapture::isSteppedBack()
{
    shm_video_status_t status{};
    shm_reader_get_video_status(m_reader.get(), &status);
    return m_lastFrameUs && status.frames_held > 0 && status.newest_timestamp < *m_lastFrameUs;
}

// Takes all frames that are there. False at a jump.
bool StoreCapture::takeVideo()
{
    for (;;) {
        shm_video_frame_t frame{};
        frame.timestamp = m_lastFrameUs ? sum(*m_lastFrameUs, 1) : m_settings.startUs.value_or(0);
        const auto mode = m_lastFrameUs || m_settings.startUs ? SHM_VIDEO_AT_OR_AFTER : SHM_VIDEO_NEWEST;
        if (shm_reader_lock_video(m_reader.get(), &frame, mode) < 0) {
            if (isSteppedBack()) {
                finish(End::Jumped, 0);
                return false;
            }
            shm_video_status_t status{};
            shm_reader_get_video_status(m_reader.get(), &status);
            if (status.frames_held > 0 && m_lastFrameUs && status.newest_timestamp > *m_lastFrameUs)
                m_stopToken.waitUntil(monotonicUs() + 1000); // its memory is still on the way to us
            return true;
        }
        const bool isTaken = takeFrame(frame);
        shm_reader_unlock_video(m_reader.get(), &frame);
        if (!isTaken)
            return false;
    }
}

bool StoreCapture::takeFrame(shm_video_frame_t &frame)
{
    const int64_t timestamp = frame.timestamp;
    constexpr int64_t intervalLimitUs = int64_t{1} << 50;
    const int64_t leftOutUs =
        std::max(longestSilenceUs, 3 * std::min<int64_t>(m_info.frame_interval_us, intervalLimitUs));
    if (m_hasAudio && m_lastFrameUs && difference(timestamp, *m_lastFrameUs) > leftOutUs) {
        finish(End::Jumped, timestamp);
        return false;
    }
    if (m_generation && frame.generation > m_generation + 1)
        m_lost += frame.generation - m_generation - 1;
    m_generation = frame.generation;
    m_lastFrameUs = timestamp;
    if (!m_soundFromUs)
        m_soundFromUs = timestamp;
    bool isFull = false;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        isFull = m_queuedBytes >= m_settings.queueBytes || isTooFarBehind(timestamp);
    }
    CapturedItem item;
    item.timestampUs = timestamp;
    if (!isFull)
        item.picture = copyFrame(frame, m_format.pixel_format, m_info.color, m_pool.get());
    const size_t bytes = isFull ? 0 : item.picture->buf[0]->size;
    if (isFull || !push(std::move(item), bytes))
        ++m_lost;
    return true;
}

// Takes all sound that is there. False at a jump.
bool StoreCapture::takeSound(int64_t nowUs)
{
    if (!m_soundFromUs) {
        shm_audio_status_t status{};
        if (shm_reader_get_audio_status(m_reader.get(), 0, &status) < 0 || status.frames == 0)
            return true;
        if (!m_hasVideo)
            m_soundFromUs = status.newest_timestamp;
        else if (nowUs - m_startedUs > firstFrameLimitUs)
            m_soundFromUs = status.oldest_timestamp;
        else
            return true;
    }
    for (int stream = 0; stream < static_cast<int>(m_tracks.size()); ++stream) {
        if (!takeSound(stream))
            return false;
    }
    return true;
}

bool StoreCapture::takeSound(int stream)
{
    Track &track = m_tracks[static_cast<size_t>(stream)];
    const int rate = m_format.sample_rate;
    const auto pieceFrames = static_cast<size_t>(std::max(rate / 10, 1));
    for (;;) {
        shm_audio_status_t status{};
        if (shm_reader_get_audio_status(m_reader.get(), stream, &status) < 0 || status.frames == 0)
            return true;
        if (!track.running) {
            track.runUs = std::max<int64_t>(*m_soundFromUs, status.oldest_timestamp);
            track.running = true;
        }
        const int64_t nextUs = sum(track.runUs, framesToUs(track.taken, rate));
        const int64_t aheadUs = difference(status.newest_timestamp, nextUs);
        if (track.taken > 0 && (aheadUs < -500000 || aheadUs > longestSilenceUs)) {
            finish(End::Jumped, aheadUs < 0 ? 0 : status.oldest_timestamp);
            return false;
        }
        if (aheadUs <= framesToUs(1, rate) / 2)
            return true;
        CapturedItem item;
        item.timestampUs = nextUs;
        item.stream = stream;
        item.samples.resize(pieceFrames * static_cast<size_t>(m_format.channels));
        const int64_t got =
            shm_reader_query_audio2(m_reader.get(), stream, item.samples.data(), pieceFrames, 1, nextUs, -1);
        if (got <= 0) {
            // Not held any more: what is left out becomes silence.
            if (got < 0 || status.oldest_timestamp <= nextUs)
                return true;
            track.runUs = status.oldest_timestamp;
            track.taken = 0;
            continue;
        }
        track.taken += got;
        item.samples.resize(static_cast<size_t>(got) * static_cast<size_t>(m_format.channels));
        const size_t bytes = item.samples.size() * sizeof(int16_t);
        if (!push(std::move(item), bytes))
            m_lostSoundUs += framesToUs(got, rate); // becomes silence
    }
}

} // namespace zevshm
