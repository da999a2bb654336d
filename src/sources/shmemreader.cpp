#include "sources/shmemreader.h"

#include "sources/shmemvideobuffer.h"
#include "wrapping.h"

#include <zevqt-mm/shmemdmavideobuffer.h>

#include <QtCore/QVariant>

#include <time.h>

#include <cstdlib>
#include <limits>
#include <mutex>

extern "C" {
#include <libavutil/time.h>
}

// The one function of libshm that is called here and that a device's own may lack.
extern "C" __attribute__((weak)) int shm_reader_get_info(shm_reader_t *reader, shm_store_info_t *info);

namespace {

const qint64 checkIntervalMs = 1000;
const qint64 coarseLagMs = 50; // more than the coarse clock is behind, a late tick included
const int microsecondsPerMillisecond = 1000;

using Lock = std::lock_guard<QBasicMutex>; // whose lock() is inline, unlike QMutex's

// CLOCK_MONOTONIC, what QElapsedTimer reads, as of the kernel's last tick: up to 10 ms ago, for 7 ns
// instead of 22 (Xeon at 2.5 GHz).
qint64 coarseMs()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<qint64>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

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

// NOLINTNEXTLINE(performance-unnecessary-value-param): part of the interface
ShmemReader::ShmemReader(QString storeName, int openParameter)
    : reader(nullptr), format(), realtimeSyncMin(0), realtimeSyncMax(0), fpsNumerator(0), fpsDenominator(0),
      openParam(openParameter), audioChannel(-1), reportedChannels(0), recentUntilMs(0)
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
    nameEntry = name;
}

ShmemReader::~ShmemReader()
{
    close();
}

bool ShmemReader::open()
{
    const Lock lock(mutex);
    return reopen();
}

void ShmemReader::close()
{
    const Lock lock(mutex);
    reader = nullptr;
    lockedFrames.reset();
    readerRef.reset();
    format.valid = 0;
}

bool ShmemReader::check(bool force)
{
    const bool isRecent = !force && isCheckRecent();
    if (format.valid) {
        if (isRecent)
            return true;
        if (shm_reader_is_ready(reader)) {
            startCheckTimer();
            return true;
        }
    } else if (isRecent) {
        return false;
    }
    const bool isUsable = reopen();
    startCheckTimer();
    return isUsable;
}

void ShmemReader::startCheckTimer()
{
    checkTimer.start();
    recentUntilMs = coarseMs() + checkIntervalMs - coarseLagMs;
}

// The timer decides; it is only asked when the coarse clock leaves room for doubt.
bool ShmemReader::isCheckRecent() const
{
    return checkTimer.isValid() && (coarseMs() < recentUntilMs || !checkTimer.hasExpired(checkIntervalMs));
}

bool ShmemReader::reopen()
{
    format.valid = 0;
    lockedFrames.reset();
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
    if (format.has_video) {
        lockedFrames = LockedFrames::create(readerRef);
        applyVideoFrameRate();
    } else if (format.has_audio && audioChannel >= 0) {
        format.channels = 1;
    }
    return format.valid;
}

// Frames are there in any case; who shows them can say why they take the longer way.
void ShmemReader::openDmabufs()
{
    if (shm_reader_open_dmabuf_fd(reader) == 0) {
        noDmabufReason = QStringLiteral("the store has no DMA-buf of this frame's memory, see zevshm info");
        return;
    }
    noDmabufReason = QStringLiteral("no: the store exports no DMA-bufs");
    shm_store_info_t info = {};
    info.size = sizeof info;
    if (shm_reader_get_info && shm_reader_get_info(reader, &info) == 0)
        noDmabufReason =
            QString::fromUtf8(info.dmabuf, static_cast<int>(qstrnlen(info.dmabuf, sizeof info.dmabuf)));
}

void ShmemReader::setRealtimeSyncRange(int min, int max)
{
    const Lock lock(mutex);
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
    const Lock lock(mutex);
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
    const Lock lock(mutex);
    if (hasVideo()) {
        shm_reader_get_video_status(reader, &status);
        if (!status.live)
            format.valid = 0;
    }
    return status;
}

QSize ShmemReader::getVideoFrameSize()
{
    const Lock lock(mutex);
    return hasVideo() ? QSize(format.width, format.height) : QSize(-1, -1);
}

QVector<long long> ShmemReader::getVideoTimestamps()
{
    const Lock lock(mutex);
    if (!hasVideo())
        return {};
    QVector<long long> timestamps(qMax(0, format.frame_count));
    const int count = shm_reader_get_video_timestamps(reader, timestamps.data(), timestamps.size());
    if (count <= 0)
        return {};
    timestamps.resize(qMin(count, timestamps.size()));
    return timestamps;
}

int ShmemReader::getHeldFrames()
{
    if (mutex.tryLock()) {
        heldFrames = lockedFrames ? lockedFrames->outCount() : 0;
        mutex.unlock();
    }
    return heldFrames;
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
    const Lock lock(mutex);
    if (!hasVideo())
        return {};

    LockedFrames::Lease frame = lockedFrames->take();
    shm_video_frame_t &record = frame->record;
    record.timestamp = ts;
    const shm_video_lookup_mode_t lookup = mode ? *mode : ts == 0 ? SHM_VIDEO_NEWEST : SHM_VIDEO_NEAREST;
    if (shm_reader_lock_video(reader, &record, lookup) != 0)
        return {};
    const int dmabufFd = shm_reader_get_dmabuf_fd(reader);
    if (record.width < 1 || record.height < 1 || !checkRealtimeSync(record.timestamp))
        return {};
    return wrapFrame(std::move(frame), dmabufFd);
}

// One name for the result and no other way out, so that it is made where the caller wants it: a QVideoFrame
// cannot be moved, and its copy counts references up and down.
QVideoFrame ShmemReader::wrapFrame(LockedFrames::Lease frame, int dmabufFd)
{
    const QSize size(frame->record.width, frame->record.height);
    const long long timestamp = frame->record.timestamp;
    const SHM_PIXEL_FORMAT storeFormat = knownPixelFormat(format.pixel_format);

    QAbstractVideoBuffer *buffer;
    QVideoFrame::PixelFormat pixelFormat;
    void *address; // of the concrete class: who reads it back casts to that
    if (dmabufFd == -1) {
        frame->wrap(storeFormat);
        if (!noDmabufReason.isEmpty())
            frame->setNoDmabufReason(noDmabufReason);
        pixelFormat = frame->format();
        ShmemVideoBuffer *cpuBuffer = frame.release();
        buffer = cpuBuffer;
        address = cpuBuffer;
    } else {
        LockedFrames::Record record = LockedFrames::recordOf(std::move(frame));
        auto *dmaBuffer = new ShmemDmaVideoBuffer(storeFormat, dmabufFd, record);
        pixelFormat = dmaBuffer->format();
        buffer = dmaBuffer;
        address = dmaBuffer;
    }

    QVideoFrame result(buffer, size, pixelFormat);
    result.setStartTime(timestamp);
    result.setFieldType(QVideoFrame::ProgressiveFrame);
    result.setMetaData(QStringLiteral("shmname"), nameEntry);
    result.setMetaData(QStringLiteral("buffer"), QVariant::fromValue(address));
    return result;
}

QAudioBuffer ShmemReader::grabAudio(int stream, unsigned long frames, long long ts)
{
    if (frames == 0)
        return {};
    const Lock lock(mutex);
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
    const Lock lock(mutex);
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
    const Lock lock(mutex);
    const QAudioFormat current = currentAudioFormat();
    if (current.isValid())
        reportedChannels = current.channelCount();
    return current;
}

QAudioFormat ShmemReader::peekAudioFormat()
{
    const Lock lock(mutex);
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
    const Lock lock(mutex);
    if (!hasAudio())
        return 0;
    shm_audio_status_t status = {};
    return shm_reader_get_audio_status(reader, 0, &status) >= 0 ? status.newest_timestamp : 0;
}
