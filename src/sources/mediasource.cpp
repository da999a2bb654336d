#include <zevqt-mm/mediasource.h>

#include "sources/shmemreader.h"
#include "video/videoframestreamconverter.h"

#include <utility>

namespace {

const qint64 defaultAudioMicroseconds = 100000;

} // namespace

MediaSource::MediaSource(QString name, int openParam, QObject *parent)
    : MediaSourceBase(parent), reader(new ShmemReader(std::move(name), openParam)), requestedAudioSamples(0),
      converter(nullptr)
{
    qRegisterMetaType<MediaSource *>(); // "MediaSource*", for calls by name before anyone mentioned the type
}

MediaSource::~MediaSource()
{
    // Whoever uses the source from another thread stops on this signal. QObject's own destructor would emit
    // it too late, with the reader gone; it still does, but then nobody is connected any more.
    Q_EMIT destroyed(this);
    QObject::disconnect(this, &QObject::destroyed, nullptr, nullptr);
    delete converter;
    delete reader;
}

bool MediaSource::open()
{
    return reader->open();
}

QString MediaSource::name() const
{
    return QString::fromUtf8(reader->getName().constData());
}

void MediaSource::setRealtimeSyncRange(int min, int max)
{
    reader->setRealtimeSyncRange(min, max);
}

MediaSourceBase::VideoStatus MediaSource::getVideoStatus()
{
    VideoStatus result;
    const shm_video_status_t status = reader->getVideoStatus();
    if (!status.live)
        return result;
    result.timestamps = reader->getVideoTimestamps();
    result.frameInterval = status.frame_interval_us;
    result.jitter = status.jitter_us;
    return result;
}

int MediaSource::getHeldFrames() const
{
    return reader->getHeldFrames();
}

QSize MediaSource::getVideoFrameSize()
{
    return reader->getVideoFrameSize();
}

void MediaSource::setVideoFrameRate(unsigned int numerator, unsigned int denominator)
{
    reader->setVideoFrameRate(numerator, denominator);
}

void MediaSource::setVideoFrameRate(double fps)
{
    reader->setVideoFrameRate(fps);
}

void MediaSource::setRequestedImageFormat(const QSize &size, QImage::Format format, bool keepAspectRatio,
                                          bool pointSampling)
{
    if (converter)
        converter->reset(size, format, keepAspectRatio, pointSampling);
    else
        converter = new VideoFrameStreamConverter(size, format, keepAspectRatio, pointSampling);
}

void MediaSource::close()
{
    reader->close();
}

QVideoFrame MediaSource::grabVideo(long long ts)
{
    return reader->grabVideo(ts);
}

QImage MediaSource::grabImage(long long ts)
{
    const QVideoFrame frame = grabVideo(ts);
    return getVideoFrameConverter()->convert(frame);
}

QAudioBuffer MediaSource::grabAudio(unsigned long frames, long ts)
{
    return reader->grabAudio(0, frames, ts);
}

long long MediaSource::grabAudio(int stream, unsigned long frames, short *dst, long long ts)
{
    return reader->grabAudio(stream, frames, static_cast<void *>(dst), ts);
}

QAudioFormat MediaSource::getAudioFormat()
{
    return reader->getAudioFormat();
}

long long MediaSource::getAudioLastTimestamp()
{
    return reader->getAudioLastTimestamp();
}

unsigned long MediaSource::getDefaultSamplesCount()
{
    const unsigned long requested = requestedAudioSamples.load(std::memory_order_relaxed);
    if (requested != 0)
        return requested;
    const QAudioFormat format = reader->peekAudioFormat();
    if (!format.isValid())
        return 0;
    return static_cast<unsigned long>(qMax(0, format.framesForDuration(defaultAudioMicroseconds)));
}

void MediaSource::setRequestedAudioSamplesCount(unsigned long frames)
{
    requestedAudioSamples.store(frames, std::memory_order_relaxed);
}

VideoFrameConverter *MediaSource::getVideoFrameConverter()
{
    if (!converter)
        converter =
            new VideoFrameStreamConverter(QSize(0, 0), QImage::Format_ARGB32_Premultiplied, true, true);
    return converter;
}

void MediaSource::requestVideo(long long ts)
{
    Q_EMIT videoReady(grabVideo(ts));
}

void MediaSource::requestImage(long long ts)
{
    VideoFrameConverter *imageConverter = getVideoFrameConverter();
    const QVideoFrame frame = grabVideo(ts);
    Q_EMIT imageReady(imageConverter->convert(frame));
}

void MediaSource::requestAudio(long long ts)
{
    Q_EMIT audioReady(grabAudio(getDefaultSamplesCount(), ts));
}

void MediaSource::requestVideoAudio(long long ts)
{
    const QVideoFrame frame = grabVideo(ts);
    QAudioBuffer audio;
    if (frame.isValid())
        audio = grabAudio(getDefaultSamplesCount(), frame.startTime());
    Q_EMIT videoReady(frame);
    Q_EMIT audioReady(audio);
}

void MediaSource::requestImageAudio(long long ts)
{
    VideoFrameConverter *imageConverter = getVideoFrameConverter();
    const QVideoFrame frame = grabVideo(ts);
    QAudioBuffer audio;
    QImage image;
    if (frame.isValid()) {
        // Audio first: a conversion takes milliseconds, in which a short audio history moves on.
        audio = grabAudio(getDefaultSamplesCount(), frame.startTime());
        image = imageConverter->convert(frame);
    }
    Q_EMIT imageReady(image);
    Q_EMIT audioReady(audio);
}
