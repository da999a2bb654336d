#include "storefeed.h"

#include <cerrno>
#include <chrono>

namespace zevgst {

namespace {

// How long the store of the former format may be held by buffers that are still under way.
constexpr std::chrono::milliseconds kOldStoreLimit{2000};

} // namespace

bool VideoFormat::operator==(const VideoFormat &other) const
{
    return width == other.width && height == other.height && pixelFormat == other.pixelFormat &&
           color.matrix == other.color.matrix && color.range == other.color.range &&
           color.transfer == other.color.transfer && color.siting == other.color.siting &&
           rateNumerator == other.rateNumerator && rateDenominator == other.rateDenominator;
}

OpenStore::OpenStore(shm_writer_t *w, std::shared_ptr<OpenCount> c) : writer(w), count(std::move(c))
{
    const std::lock_guard<std::mutex> guard(count->mutex);
    ++count->open;
}

OpenStore::~OpenStore()
{
    shm_writer_close(writer);
    const std::lock_guard<std::mutex> guard(count->mutex);
    --count->open;
    count->changed.notify_all();
}

Slot::Slot(std::shared_ptr<OpenStore> store, const shm_writer_frame_t &frame, bool isPooled)
    : m_store(std::move(store)), m_frame(frame), m_isPooled(isPooled)
{}

Slot::~Slot()
{
    if (m_isPooled)
        --m_store->pooled;
    if (m_done)
        return;
    const std::lock_guard<std::mutex> guard(m_store->video);
    shm_writer_abandon(m_store->writer, &m_frame);
}

size_t Slot::size() const
{
    size_t end = 0;
    for (int i = 0; i < 4 && m_frame.planes[i] != nullptr; ++i) {
        const size_t rows = static_cast<size_t>(i == 0 ? m_frame.height : (m_frame.height + 1) / 2);
        const size_t planeEnd =
            static_cast<size_t>(m_frame.plane_offsets[i]) + static_cast<size_t>(m_frame.strides[i]) * rows;
        end = planeEnd > end ? planeEnd : end;
    }
    return end;
}

int Slot::publish(int64_t timestamp)
{
    const std::lock_guard<std::mutex> guard(m_store->video);
    m_done = true;
    return shm_writer_publish(m_store->writer, &m_frame, timestamp);
}

void StoreFeed::configure(const FeedSettings &settings)
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    m_settings = settings;
}

void StoreFeed::expect(Kind kind)
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    (kind == Kind::Video ? m_expectVideo : m_expectAudio) = true;
}

bool StoreFeed::release(Kind kind, std::string *error)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (kind == Kind::Video) {
        m_expectVideo = false;
        m_video.reset();
    } else {
        m_expectAudio = false;
        m_audio.reset();
    }
    return reopen(lock, error);
}

bool StoreFeed::setVideo(const VideoFormat &format, std::string *error)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_store && m_video == format)
        return true;
    m_video = format;
    return reopen(lock, error);
}

bool StoreFeed::setAudio(const AudioFormat &format, std::string *error)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_store && m_audio == format)
        return true;
    m_audio = format;
    return reopen(lock, error);
}

void StoreFeed::interrupt(bool interrupted)
{
    const std::lock_guard<std::mutex> guard(m_count->mutex);
    m_count->interrupted = interrupted;
    m_count->changed.notify_all();
}

void StoreFeed::end(Kind kind)
{
    std::shared_ptr<OpenStore> former; // closed with m_mutex free
    const std::lock_guard<std::mutex> guard(m_mutex);
    if (kind == Kind::Video)
        m_video.reset();
    else
        m_audio.reset();
    if (!m_video && !m_audio) {
        ++m_formats;
        former.swap(m_store);
    }
}

// The name is free when the former store is closed, and that is when nobody has a slot of it any more.
bool StoreFeed::waitForFormer(std::string *error) const
{
    std::unique_lock<std::mutex> lock(m_count->mutex);
    const bool isOver = m_count->changed.wait_for(
        lock, kOldStoreLimit, [this] { return m_count->open == 0 || m_count->interrupted; });
    if (m_count->open == 0)
        return true;
    if (!isOver)
        *error = "store \"" + m_settings.store +
                 "\" cannot be opened anew: an element still holds a buffer of what it carried before; "
                 "make it give the buffer back, or put identity drop-allocation=true in front of this sink";
    return false;
}

bool StoreFeed::reopen(std::unique_lock<std::mutex> &lock, std::string *error)
{
    if ((m_expectVideo && !m_video) || (m_expectAudio && !m_audio) || (!m_video && !m_audio))
        return true; // when the other one is known
    const uint64_t mine = ++m_formats;
    m_store.reset();
    lock.unlock(); // other pads go on, without a store
    const bool isFree = waitForFormer(error);
    lock.lock();
    if (mine != m_formats)
        return true; // another pad's format came meanwhile, and that pad opens
    if (!isFree)
        return error->empty(); // interrupted: the stream ends

    shm_writer_params_t params;
    shm_writer_params_init(&params);
    params.name = m_settings.store.c_str();
    params.group = m_settings.group.empty() ? nullptr : m_settings.group.c_str();
    params.memory = m_settings.memory.empty() ? nullptr : m_settings.memory.c_str();
    params.flags = m_settings.sealed ? uint32_t{SHM_WRITER_SEALED} : 0;
    params.history_frames = m_settings.history;
    if (m_video) {
        params.width = m_video->width;
        params.height = m_video->height;
        params.pixel_format = m_video->pixelFormat;
        params.color = m_video->color;
        params.rate_numerator = m_video->rateNumerator;
        params.rate_denominator = m_video->rateDenominator;
        params.lent_frames = pooledFrames + 1;
    }
    if (m_audio) {
        params.sample_rate = m_audio->sampleRate;
        params.channels = m_audio->channels;
    }
    shm_writer_t *writer = nullptr;
    shm_error_t why = {};
    if (shm_writer_open(&params, &writer, &why) != 0) {
        *error = why.message;
        return false;
    }
    m_store = std::make_shared<OpenStore>(writer, m_count);
    return true;
}

std::shared_ptr<OpenStore> StoreFeed::store() const
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    return m_store;
}

bool StoreFeed::keepsRange() const
{
    const std::lock_guard<std::mutex> guard(m_mutex);
    return m_settings.keepRange;
}

bool StoreFeed::owns(const Slot &slot) const
{
    return slot.isOf(store().get());
}

std::shared_ptr<Slot> StoreFeed::acquire(int width, int height, SHM_PIXEL_FORMAT pixelFormat, For use)
{
    std::shared_ptr<OpenStore> open;
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        if (!m_store || !m_video || m_video->width != width || m_video->height != height ||
            m_video->pixelFormat != pixelFormat)
            return nullptr;
        open = m_store;
    }
    const bool isPooled = use == For::Pool;
    if (isPooled && ++open->pooled > pooledFrames) {
        --open->pooled;
        return nullptr;
    }
    shm_writer_frame_t frame = {};
    int result = 0;
    {
        const std::lock_guard<std::mutex> guard(open->video);
        result = shm_writer_acquire(open->writer, &frame);
    }
    if (result != 0) {
        if (isPooled)
            --open->pooled;
        return nullptr;
    }
    return std::make_shared<Slot>(std::move(open), frame, isPooled);
}

int StoreFeed::publishAudio(const int16_t *samples, uint32_t frames, int64_t timestamp)
{
    const std::shared_ptr<OpenStore> open = store();
    if (!open)
        return -ENODEV;
    const std::lock_guard<std::mutex> guard(open->audio);
    return shm_writer_publish_audio(open->writer, 0, samples, frames, timestamp);
}

} // namespace zevgst
