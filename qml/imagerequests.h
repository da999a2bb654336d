#pragma once

#include <QObject>
#include <QSharedPointer>

#include <atomic>

class MediaProvider;
class MediaSourceBase;

/*
 * Passes a provider's ticks on as requests for images, but only while few images wait for the event loop.
 *
 * MediaProvider::enableImageFrames() asks on every tick. Images are queued to the provider's thread, and
 * unlike frames, whose number the store limits, nothing limits them: each one beyond the converter's ring of
 * four is an allocation of its own. An event loop that stood still for seven seconds at 1080p and 25 ticks
 * cost 700 MB; with this in between, 8 MB. Ticks that find `limit` images waiting are left out.
 *
 * Usage: construct once instead of enableImageFrames(); destroy it while the provider is not running.
 * Threads: constructed and destroyed in the provider's thread; the requests run in the tick thread.
 */
class ImageRequests : public QObject
{
    Q_OBJECT

public:
    /* The converter reuses four images; one of them is being shown. */
    explicit ImageRequests(MediaProvider *provider, int limit = 3, QObject *parent = nullptr);

    /* Ticks left out because images were waiting. */
    quint64 withheld() const { return m_withheld; }

private:
    void request(long long timestamp);

    const QSharedPointer<MediaSourceBase> m_video;
    const QSharedPointer<MediaSourceBase> m_audio; // null unless it is a source of its own
    const int m_limit;
    std::atomic<int> m_waiting{0};
    std::atomic<quint64> m_withheld{0};
};
