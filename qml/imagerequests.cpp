#include "imagerequests.h"

#include <zevqt-mm/mediaprovider.h>
#include <zevqt-mm/videotimeline.h>

ImageRequests::ImageRequests(MediaProvider *provider, int limit, QObject *parent)
    : QObject(parent), m_video(provider->getVideoSource()),
      m_audio(provider->getAudioSource() == m_video ? QSharedPointer<MediaSourceBase>()
                                                    : provider->getAudioSource()),
      m_limit(limit)
{
    connect(provider->getTimeline(), &VideoTimeline::tick, this, &ImageRequests::request,
            Qt::DirectConnection);
    // Connected after the provider's own handler: an image that is counted off here has been handed out.
    connect(
        m_video.data(), &MediaSourceBase::imageReady, this, [this] { --m_waiting; }, Qt::QueuedConnection);
}

void ImageRequests::request(long long timestamp)
{
    if (m_waiting >= m_limit) {
        ++m_withheld;
        return;
    }
    ++m_waiting;
    if (m_audio) {
        m_video->requestImage(timestamp);
        m_audio->requestAudio(timestamp);
    } else {
        m_video->requestImageAudio(timestamp);
    }
}
