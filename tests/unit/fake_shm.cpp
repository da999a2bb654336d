#include "fake_shm.h"

#include <QtCore/QMutexLocker>

#include <algorithm>
#include <atomic>
#include <cstring>

struct shm_reader
{
    int id;
};

namespace {

FakeShm &fake()
{
    return FakeShm::instance();
}

const int everything = -1000;

} // namespace

FakeShm &FakeShm::instance()
{
    static FakeShm store;
    return store;
}

void FakeShm::reset()
{
    exists = true;
    ready = 1;
    format = {};
    format.valid = 1;
    format.has_video = 1;
    format.width = 64;
    format.height = 36;
    format.frame_count = 8;
    format.pixel_format = SHM_PIXEL_FORMAT_NV12;
    format.has_audio = 1;
    format.sample_rate = 48000;
    format.channels = 2;
    videoStatus = {};
    videoStatus.live = 1;
    videoStatus.frame_interval_us = 40000;
    videoStatus.jitter_us = 100;
    timestamps = {1000000, 1040000, 1080000};
    timestampsResult = everything;
    lockResult = 0;
    frame = {};
    frame.width = 64;
    frame.height = 36;
    frame.timestamp = 1080000;
    frame.planes[0] = pixels;
    frame.planes[1] = pixels + 64 * 36;
    frame.strides[0] = 64;
    frame.strides[1] = 64;
    frame.plane_offsets[1] = 64 * 36;
    dmabufFd = -1;
    openDmabufResult = 0;
    dmabufText = "yes";
    audioStatusResult = 0;
    audioStatus = {};
    audioStatus.frames = 96000;
    audioStatus.oldest_timestamp = 500000;
    audioStatus.newest_timestamp = 2500000;
    queryResult = everything;
    openHandles = 0;
    lockedFrames = 0;
    lastUnlockedThrough = nullptr;
    std::fill(std::begin(pixels), std::end(pixels), uchar(128));
    takeCalls();
}

QStringList FakeShm::takeCalls()
{
    const QMutexLocker lock(&mutex);
    QStringList result;
    result.swap(calls);
    return result;
}

void FakeShm::record(const QString &call)
{
    const QMutexLocker lock(&mutex);
    calls.append(call);
}

extern "C" {

shm_reader_t *shm_reader_open(const char *name, int timeout_ms)
{
    fake().record(QStringLiteral("open %1 %2").arg(QString::fromUtf8(name)).arg(timeout_ms));
    if (!fake().exists)
        return nullptr;
    static std::atomic<int> lastId{0};
    ++fake().openHandles;
    return new shm_reader{++lastId};
}

void shm_reader_close(shm_reader_t *reader)
{
    if (!reader)
        return;
    fake().record(QStringLiteral("close"));
    --fake().openHandles;
    delete reader;
}

int shm_reader_get_format(shm_reader_t *, shm_reader_format_t *format)
{
    fake().record(QStringLiteral("get_format"));
    *format = fake().format;
    return 0;
}

int shm_reader_is_ready(shm_reader_t *)
{
    fake().record(QStringLiteral("is_ready"));
    return fake().ready;
}

int shm_reader_set_fps(shm_reader_t *, unsigned int numerator, unsigned int denominator)
{
    fake().record(QStringLiteral("set_fps %1/%2").arg(numerator).arg(denominator));
    return 0;
}

int shm_reader_open_dmabuf_fd(shm_reader_t *)
{
    fake().record(QStringLiteral("open_dmabuf_fd"));
    return fake().openDmabufResult;
}

#ifndef FAKE_SHM_WITHOUT_INFO
int shm_reader_get_info(shm_reader_t *, shm_store_info_t *info)
{
    fake().record(QStringLiteral("get_info"));
    qstrncpy(info->dmabuf, fake().dmabufText.constData(), sizeof info->dmabuf);
    return 0;
}
#endif

int shm_reader_get_dmabuf_fd(shm_reader_t *)
{
    fake().record(QStringLiteral("get_dmabuf_fd"));
    return fake().dmabufFd;
}

int shm_reader_get_video_status(shm_reader_t *, shm_video_status_t *status)
{
    fake().record(QStringLiteral("get_video_status"));
    *status = fake().videoStatus;
    return 0;
}

int shm_reader_get_video_timestamps(shm_reader_t *, long long *timestamps, int capacity)
{
    fake().record(QStringLiteral("get_video_timestamps %1").arg(capacity));
    if (fake().timestampsResult != everything)
        return fake().timestampsResult;
    const int count = qMin(capacity, fake().timestamps.size());
    std::copy_n(fake().timestamps.cend() - count, count, timestamps);
    return count;
}

int shm_reader_lock_video(shm_reader_t *, shm_video_frame_t *frame, shm_video_lookup_mode_t mode)
{
    fake().record(QStringLiteral("lock_video %1 mode %2").arg(frame->timestamp).arg(int(mode)));
    if (fake().lockResult != 0)
        return fake().lockResult;
    const int64_t asked = frame->timestamp;
    *frame = fake().frame;
    if (frame->timestamp == 0)
        frame->timestamp = asked;
    if (frame->planes[0])
        ++fake().lockedFrames;
    return 0;
}

void shm_reader_unlock_video(shm_reader_t *reader, shm_video_frame_t *frame)
{
    fake().record(QStringLiteral("unlock_video"));
    fake().lastUnlockedThrough = reader;
    --fake().lockedFrames;
    frame->planes[0] = nullptr;
}

int shm_reader_get_audio_status(shm_reader_t *, int stream, shm_audio_status_t *status)
{
    fake().record(QStringLiteral("get_audio_status %1").arg(stream));
    *status = fake().audioStatus;
    return fake().audioStatusResult;
}

int64_t shm_reader_query_audio2(shm_reader_t *, int stream, void *destination, unsigned long count_a,
                                unsigned long count_b, int64_t start_timestamp, int channel)
{
    fake().record(QStringLiteral("query_audio2 stream %1 %2 x %3 from %4 channel %5")
                      .arg(stream)
                      .arg(count_a)
                      .arg(count_b)
                      .arg(start_timestamp)
                      .arg(channel));
    const bool isOneChannel = channel >= 0 && !fake().format.has_video;
    const size_t channels = isOneChannel ? 1 : static_cast<size_t>(fake().format.channels);
    const int64_t items = fake().queryResult == everything ? int64_t(count_a) : fake().queryResult;
    if (items > 0)
        std::memset(destination, 0x11,
                    qMin(size_t(items), size_t(count_a)) * count_b * channels * sizeof(int16_t));
    return items;
}

} // extern "C"
