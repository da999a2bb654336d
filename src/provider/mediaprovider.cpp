#include <zevqt-mm/mediaprovider.h>

#include "provider/sourceurl.h"

#include <zevqt-mm/mediasource.h>
#include <zevqt-mm/v4l2mediasource.h>
#include <zevqt-mm/videotimeline.h>

#include <QtCore/QDebug>

#include <algorithm>

namespace {

// Goes to the store's open as it is: the deadline of the handshake in milliseconds.
const int shmOpenParam = 100;

const int defaultFrameRateNumerator = 25000000;
const int frameRateDenominator = 1000000;
const int minDepthFrames = 2;
const QSize defaultFrameSize(320, 240);

QSharedPointer<MediaSourceBase> makeShmSource(const QString &name)
{
    return QSharedPointer<MediaSourceBase>(new MediaSource(name, shmOpenParam, nullptr));
}

QSharedPointer<MediaSourceBase> makeV4lSource(const QString &device)
{
    return QSharedPointer<MediaSourceBase>(new V4L2MediaSource(device, nullptr));
}

QSharedPointer<MediaSourceBase> makeVideoSource(MediaProvider::Schemes scheme, const QString &name)
{
    if (scheme == MediaProvider::v4l) {
        auto source = makeV4lSource(name);
        qDebug().noquote() << "MediaProvider: video4linux2 device" << name << "used as a video source";
        return source;
    }
    auto source = makeShmSource(name);
    qDebug().noquote() << "MediaProvider: shared memory" << name << "used as a video source";
    return source;
}

} // namespace

MediaProvider::MediaProvider(const QUrl &video, const QUrl &audio, bool useExternalTicks, QObject *parent)
    : QObject(parent), running_(false), timeline(nullptr), noSignalDelay(5), separateAudio(false)
{
    const auto [videoScheme, videoName] = extractSourceFromUrl<Video>(video);
    const auto [audioScheme, audioName] = extractSourceFromUrl<Audio>(audio);
    Q_UNUSED(audioScheme) // audio of its own always comes from a store

    if (videoName.isEmpty()) {
        audioSource = makeShmSource(audioName);
        connect(audioSource.data(), &MediaSourceBase::audioReady, this, &MediaProvider::audioReady);
        return;
    }

    videoSource = makeVideoSource(videoScheme, videoName);
    timeline = new VideoTimeline(videoSource, defaultFrameRateNumerator, frameRateDenominator,
                                 useExternalTicks, this);
    timeline->setMinDepth(minDepthFrames);
    setRequestedFrameSize(defaultFrameSize);

    if (audioName == videoName) {
        audioSource = videoSource;
    } else if (!audioName.isEmpty()) {
        audioSource = makeShmSource(audioName);
        separateAudio = true;
    }
    const MediaSourceBase *audioSender = separateAudio ? audioSource.data() : videoSource.data();
    connect(audioSender, &MediaSourceBase::audioReady, this, &MediaProvider::audioReady);
    connect(videoSource.data(), &MediaSourceBase::imageReady, this, &MediaProvider::emitImageFrame);
    connect(videoSource.data(), &MediaSourceBase::videoReady, this, &MediaProvider::emitVideoFrame);
}

MediaProvider::~MediaProvider()
{
    // The sources go before the timeline, which is a child: no tick may be under way by then.
    if (timeline) {
        QObject::disconnect(timeline, nullptr, nullptr, nullptr);
        timeline->stop();
    }
}

bool MediaProvider::running() const
{
    return running_;
}

void MediaProvider::setRunning(bool on)
{
    if (on == running_)
        return;
    running_ = on;
    if (!on && timeline)
        timeline->stop();
    Q_EMIT audioReady(QAudioBuffer()); // tells listeners that what follows does not continue what they have
    if (on && running_ && timeline)    // a listener may have switched off meanwhile
        timeline->start();
    Q_EMIT runningChanged(running_);
}

void MediaProvider::setFrameRate(double fps)
{
    if (timeline)
        timeline->setFrameRate(static_cast<int>(fps * 1000000.0), frameRateDenominator);
    if (videoSource)
        videoSource->setVideoFrameRate(fps);
}

void MediaProvider::setRequestedFrameSize(const QSize &size)
{
    if (size == requestedFrameSize)
        return;
    requestedFrameSize = size;
    updateNoSignalImage();
    videoSource->setRequestedImageFormat(size, QImage::Format_RGB16, true, true);
}

QSize MediaProvider::getVideoFrameSize() const
{
    return videoSource ? videoSource->getVideoFrameSize() : QSize(-1, -1);
}

void MediaProvider::enableImageFrames()
{
    connectTicks(&MediaSourceBase::requestImageAudio, &MediaSourceBase::requestImage);
}

void MediaProvider::enableVideoFrames()
{
    connectTicks(&MediaSourceBase::requestVideoAudio, &MediaSourceBase::requestVideo);
}

void MediaProvider::connectTicks(void (MediaSourceBase::*combined)(long long),
                                 void (MediaSourceBase::*videoOnly)(long long))
{
    if (!videoSource)
        return;
    QObject::disconnect(timeline, nullptr, nullptr, nullptr);
    // Direct: requests run in the tick thread, so that a busy application delays the showing, not the
    // fetching.
    if (!separateAudio) {
        connect(timeline, &VideoTimeline::tick, videoSource.data(), combined, Qt::DirectConnection);
        return;
    }
    connect(timeline, &VideoTimeline::tick, videoSource.data(), videoOnly, Qt::DirectConnection);
    connect(timeline, &VideoTimeline::tick, audioSource.data(), &MediaSourceBase::requestAudio,
            Qt::DirectConnection);
}

void MediaProvider::setNoSignalImage(const QString &path, std::chrono::seconds delay)
{
    if (path != noSignalImagePath) {
        noSignalImagePath = path;
        updateNoSignalImage();
        if (!path.isEmpty())
            noSignalFrame = QVideoFrame(QImage(path).convertToFormat(QImage::Format_RGB32));
    }
    if (delay != noSignalDelay) {
        noSignalDelay = delay;
        rearmIdleDeadline();
    }
}

void MediaProvider::updateNoSignalImage()
{
    if (noSignalImagePath.isEmpty())
        return;
    noSignalImage = QImage(noSignalImagePath);
    if (!noSignalImage.isNull()) // Qt complains about scaling nothing
        noSignalImage = noSignalImage.scaled(requestedFrameSize, Qt::KeepAspectRatio, Qt::FastTransformation)
                            .convertToFormat(QImage::Format_RGB16);
}

void MediaProvider::emitImageFrame(const QImage &image)
{
    if (!image.isNull()) {
        rearmIdleDeadline();
        Q_EMIT imageReady(image);
    } else if (idleDeadline.hasExpired()) {
        Q_EMIT imageReady(noSignalImage);
    }
}

void MediaProvider::emitVideoFrame(const QVideoFrame &frame)
{
    if (frame.isValid()) {
        rearmIdleDeadline();
        Q_EMIT videoReady(frame);
    } else if (!idleDeadline.hasExpired()) {
        Q_EMIT videoIdle();
    } else {
        Q_EMIT videoReady(noSignalFrame);
    }
}

QSharedPointer<MediaSourceBase> MediaProvider::getVideoSource() const
{
    return videoSource;
}

QSharedPointer<MediaSourceBase> MediaProvider::getAudioSource() const
{
    return audioSource;
}

VideoTimeline *MediaProvider::getTimeline() const
{
    return timeline;
}

void MediaProvider::rearmIdleDeadline()
{
    // Seconds that do not fit into the timer's nanoseconds would wrap into the past, or out of it; 292 years
    // are as good as never, and what is over is over.
    using namespace std::chrono;
    if (noSignalDelay > duration_cast<seconds>(nanoseconds::max()))
        idleDeadline = QDeadlineTimer(QDeadlineTimer::Forever, Qt::CoarseTimer);
    else
        idleDeadline.setRemainingTime(std::max(noSignalDelay, seconds::zero()), Qt::CoarseTimer);
}
