#include "sources/shmemreader.h"

#include "sources/shmemvideobuffer.h"
#include "wrapping.h"

#include <zevqt-mm/shmemdmavideobuffer.h>

#include <QtCore/QMutexLocker>
#include <QtCore/QVariant>

#include <cstdlib>
#include <limits>

extern "C" {
#include <libavutil/time.h>
}

namespace {

const qint64 checkIntervalMs = 1000;
const int microsecondsPerMillisecond = 1000;

QAudioFormat shmemFormatToAudioFormat(const shm_reader_format_t &format)
{
    QAudioFormat result;
    if (!format.has_audio)
        return result;
    result.setChannelCount(format.channels);
    result.setSampleRate(format.sample_rate);
    result.setSampleSize(16);
    result.setSampleType(QAudioFormat::SignedInt);
    result.setByteOrder(QAudioFormat::LittleEndian);
    result.setCodec(QStringLiteral("audio/pcm"));
    return result;
}

// The record keeps the handle it is locked through: the reader may move on to the next writer meanwhile. In
// one piece, since a deleter that carried the handle itself would be one more allocation for every frame.
struct LockedRecord : shm_video_frame_t
{
    explicit LockedRecord(const QSharedPointer<shm_reader_t> &reader) : shm_video_frame_t(), handle(reader) {}

    static void release(shm_video_frame_t *record)
    {
        auto *locked = static_cast<LockedRecord *>(record);
        if (locked->planes[0])
            shm_reader_unlock_video(locked->handle.data(), locked);
        delete locked;
    }

    const QSharedPointer<shm_reader_t> handle;
};

bool isDmaRequested()
{
    static const bool useDma = [] {
        const char *value = std::getenv("ZEV_GL_DMABUF");
        return value && *value;
    }();
    return useDma;
}

// The number comes from another process: one that the enumeration does not have must not be put into it.
SHM_PIXEL_FORMAT knownPixelFormat(int pixelFormat)
{
    switch (pixelFormat) {
    case SHM_PIXEL_FORMAT_YUV420P:
    case SHM_PIXEL_FORMAT_YVU420P:
    case SHM_PIXEL_FORMAT_NV12:
        return static_cast<SHM_PIXEL_FORMAT>(pixelFormat);
    default:
        return SHM_PIXEL_FORMAT_NONE;
    }
}

bool isDmaExportable(int pixelFormat)
{
    return knownPixelFormat(pixelFormat) != SHM_PIXEL_FORMAT_NONE;
}

} // namespace

ShmemReader::ShmemReader(QString storeName, int openParameter)
    : reader(nullptr), format(), realtimeSyncMin(0), realtimeSyncMax(0), fpsNumerator(0), fpsDenominator(0),
      openParam(openParameter), audioChannel(-1), reportedChannels(0)
{
    const int separator = storeName.indexOf(QLatin1Char(';'));
    if (separator < 0) {
        name = storeName.toUtf8();
    } else {
        name = storeName.left(separator).toUtf8();
        bool isNumber = false;
        const int channel = storeName.mid(separator + 1).toInt(&isNumber, 10);
        audioChannel = isNumber ? channel : -1;
    }
}

ShmemReader::~ShmemReader()
{
    close();
}

bool ShmemReader::open()
{
    const QMutexLocker lock(&mutex);
    return reopen();
}

void ShmemReader::close()
{
    const QMutexLocker lock(&mutex);
    reader = nullptr;
    readerRef.reset();
    format.valid = 0;
}

bool ShmemReader::check(bool force)
{
    const bool isRecent = !force && checkTimer.isValid() && !checkTimer.hasExpired(checkIntervalMs);
    if (format.valid) {
        if (isRecent)
            return true;
        if (shm_reader_is_ready(reader)) {
            checkTimer.start();
            return true;
        }
    } else if (isRecent) {
        return false;
    }
    const bool isUsable = reopen();
    checkTimer.start();
    return isUsable;
}

bool ShmemReader::reopen()
{
    format.valid = 0;
    reader = shm_reader_open(name.constData(), openParam);
    readerRef = QSharedPointer<shm_reader_t>(reader, shm_reader_close);
    if (!reader)
        return false;
    shm_reader_get_format(reader, &format);
    if (!format.valid) {
        reader = nullptr;
        readerRef.reset();
        return false;
    }
    noDmabufReason.clear();
    if (isDmaRequested() && isDmaExportable(format.pixel_format))
        openDmabufs();
    if (format.has_video)
        applyVideoFrameRate();
    else if (format.has_audio && audioChannel >= 0)
        format.channels = 1;
    return format.valid;
}

void ShmemReader::openDmabufs()
{
    if (shm_reader_open_dmabuf_fd(reader) == 0)
        return;
    // Frames are there all the same; who shows them can say why they take the longer way.
    shm_store_info_t info = {};
    info.size = sizeof info;
    if (shm_reader_get_info(reader, &info) == 0)
        noDmabufReason =
            QString::fromUtf8(info.dmabuf, static_cast<int>(qstrnlen(info.dmabuf, sizeof info.dmabuf)));
}

void ShmemReader::setRealtimeSyncRange(int min, int max)
{
    const QMutexLocker lock(&mutex);
    realtimeSyncMin = wrapping::multiply(min, microsecondsPerMillisecond);
    realtimeSyncMax = wrapping::multiply(max, microsecondsPerMillisecond);
}

bool ShmemReader::checkRealtimeSync(long long ts) const
{
    if (realtimeSyncMin == 0 && realtimeSyncMax == 0)
        return true;
    const long long ahead = wrapping::subtract<long long>(ts, av_gettime());
    return realtimeSyncMin <= ahead && ahead <= realtimeSyncMax;
}

void ShmemReader::setVideoFrameRate(unsigned int numerator, unsigned int denominator)
{
    const QMutexLocker lock(&mutex);
    fpsNumerator = numerator;
    fpsDenominator = denominator;
    if (format.valid && format.has_video)
        applyVideoFrameRate();
}

void ShmemReader::setVideoFrameRate(double fps)
{
    setVideoFrameRate(static_cast<unsigned int>(static_cast<int>(fps * 1000.0)), 1000);
}

void ShmemReader::applyVideoFrameRate()
{
    if (fpsNumerator == 0 || fpsDenominator == 0)
        shm_reader_set_fps(reader, 1, 1);
    else
        shm_reader_set_fps(reader, fpsNumerator, fpsDenominator);
}

shm_video_status_t ShmemReader::getVideoStatus()
{
    shm_video_status_t status = {};
    const QMutexLocker lock(&mutex);
    if (hasVideo()) {
        shm_reader_get_video_status(reader, &status);
        if (!status.live)
            format.valid = 0;
    }
    return status;
}

QSize ShmemReader::getVideoFrameSize()
{
    const QMutexLocker lock(&mutex);
    return hasVideo() ? QSize(format.width, format.height) : QSize(-1, -1);
}

QVector<long long> ShmemReader::getVideoTimestamps()
{
    const QMutexLocker lock(&mutex);
    if (!hasVideo())
        return {};
    QVector<long long> timestamps(qMax(0, format.frame_count));
    const int count = shm_reader_get_video_timestamps(reader, timestamps.data(), timestamps.size());
    if (count <= 0)
        return {};
    timestamps.resize(qMin(count, timestamps.size()));
    return timestamps;
}

QVideoFrame ShmemReader::grabVideo(long long ts)
{
    return grabVideoInternal(ts, nullptr);
}

QVideoFrame ShmemReader::grabVideo(long long ts, shm_video_lookup_mode_t mode)
{
    return grabVideoInternal(ts, &mode);
}

QVideoFrame ShmemReader::grabVideoInternal(long long ts, shm_video_lookup_mode_t *mode)
{
    const QMutexLocker lock(&mutex);
    if (!hasVideo())
        return {};

    std::unique_ptr<shm_video_frame_t, std::function<void(shm_video_frame_t *)>> frame(
        new LockedRecord(readerRef), &LockedRecord::release);
    frame->timestamp = ts;
    const shm_video_lookup_mode_t lookup = mode ? *mode : ts == 0 ? SHM_VIDEO_NEWEST : SHM_VIDEO_NEAREST;
    if (shm_reader_lock_video(reader, frame.get(), lookup) != 0)
        return {};

    const QSize size(frame->width, frame->height);
    const long long timestamp = frame->timestamp;
    const int dmabufFd = shm_reader_get_dmabuf_fd(reader);
    const SHM_PIXEL_FORMAT storeFormat = knownPixelFormat(format.pixel_format);

    std::unique_ptr<QAbstractVideoBuffer> buffer;
    QVideoFrame::PixelFormat pixelFormat;
    void *address; // of the concrete class: who reads it back casts to that
    if (dmabufFd == -1) {
        auto *cpuBuffer = new ShmemVideoBuffer(storeFormat, frame);
        cpuBuffer->setNoDmabufReason(noDmabufReason);
        buffer.reset(cpuBuffer);
        pixelFormat = cpuBuffer->format();
        address = cpuBuffer;
    } else {
        auto *dmaBuffer = new ShmemDmaVideoBuffer(storeFormat, dmabufFd, frame);
        buffer.reset(dmaBuffer);
        pixelFormat = dmaBuffer->format();
        address = dmaBuffer;
    }
    if (size.width() < 1 || size.height() < 1 || !checkRealtimeSync(timestamp))
        return {};

    QVideoFrame result(buffer.release(), size, pixelFormat);
    result.setStartTime(timestamp);
    result.setFieldType(QVideoFrame::ProgressiveFrame);
    result.setMetaData(QStringLiteral("shmname"), QVariant(name));
    result.setMetaData(QStringLiteral("buffer"), QVariant::fromValue(address));
    return result;
}

QAudioBuffer ShmemReader::grabAudio(int stream, unsigned long frames, long long ts)
{
    if (frames == 0)
        return {};
    const QMutexLocker lock(&mutex);
    if (!hasAudio())
        return {};
    shm_audio_status_t status = {};
    if (shm_reader_get_audio_status(reader, stream, &status) != 0) {
        if (status.frames == 0)
            format.valid = 0;
        return {};
    }
    if (status.frames < frames)
        return {};

    const QAudioFormat audioFormat = shmemFormatToAudioFormat(format);
    if (audioFormat.sampleRate() <= 0 || audioFormat.channelCount() <= 0)
        return {}; // Qt takes such a format for valid, and divides by the rate
    const int bytesPerFrame = qMax(1, audioFormat.bytesPerFrame());
    if (frames > static_cast<unsigned long>(std::numeric_limits<int>::max() / bytesPerFrame))
        return {}; // more than QAudioBuffer can count
    const long long duration = audioFormat.durationForFrames(static_cast<qint32>(frames));
    const long long newestStart = wrapping::subtract<long long>(status.newest_timestamp, duration);
    long long start = ts <= 0 ? wrapping::add(newestStart, ts) : ts;
    if (start < status.oldest_timestamp)
        start = status.oldest_timestamp;
    else if (start > newestStart) // not "start + duration > newest": a start near the end of time would wrap
        start = newestStart;
    if (!checkRealtimeSync(start))
        return {};

    QAudioBuffer buffer(static_cast<int>(frames), audioFormat, start);
    if (shm_reader_query_audio2(reader, stream, buffer.data(), 1, frames, start, audioChannel) != 1)
        return {};
    return buffer;
}

long long ShmemReader::grabAudio(int stream, unsigned long frames, void *dst, long long ts)
{
    const QMutexLocker lock(&mutex);
    if (!hasAudio())
        return 0;
    // A writer that came back with more channels would write past the end of a buffer sized for fewer.
    if (reportedChannels > 0 && format.channels > reportedChannels)
        return 0;
    const long long copied = shm_reader_query_audio2(reader, stream, dst, frames, 1, ts, audioChannel);
    return qMax(0LL, copied);
}

QAudioFormat ShmemReader::getAudioFormat()
{
    const QMutexLocker lock(&mutex);
    const QAudioFormat current = currentAudioFormat();
    if (current.isValid())
        reportedChannels = current.channelCount();
    return current;
}

QAudioFormat ShmemReader::peekAudioFormat()
{
    const QMutexLocker lock(&mutex);
    return currentAudioFormat();
}

QAudioFormat ShmemReader::currentAudioFormat()
{
    if (!hasAudio())
        return {};
    if (mappedFormat.sampleRate() != format.sample_rate || mappedFormat.channelCount() != format.channels)
        mappedFormat = shmemFormatToAudioFormat(format);
    return mappedFormat;
}

long long ShmemReader::getAudioLastTimestamp()
{
    const QMutexLocker lock(&mutex);
    if (!hasAudio())
        return 0;
    shm_audio_status_t status = {};
    return shm_reader_get_audio_status(reader, 0, &status) >= 0 ? status.newest_timestamp : 0;
}
