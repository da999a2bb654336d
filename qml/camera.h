#pragma once

#include <zevmm/v4l2/capturebase.h>

#include <QSharedPointer>
#include <QString>

#include <memory>

class MediaSourceBase;
class V4L2MediaSource;

/*
 * What there is to tell of a capture device. Its source has no history and its frames no timestamps, so this
 * comes from the capture itself.
 *
 * Threads: any. Ownership: shares the source. Units: microseconds; `now` on the wall clock. Errors: none.
 */
class Camera
{
public:
    /* Null when `source` is none. */
    static std::unique_ptr<Camera> of(const QSharedPointer<MediaSourceBase> &source);

    /* As the driver declares it; 0 when it does not. */
    qint64 frameIntervalUs() const;
    /*
     * Ticks a second: two for a frame, up to the screen's rate (0: not known). The camera's clock and ours
     * are not the same: at one tick a frame, every time one overtakes the other a frame would be left out or
     * come late.
     */
    double tickRate(double screenRate) const;
    /* When the frame that was delivered last was captured; `now` when the driver does not tell. */
    qint64 lastCapturedAt(qint64 now) const;
    QString colorsName() const;
    /* Why no frames come; empty when they do. */
    QString trouble() const;
    zevmm::v4l2::CaptureStatistics statistics() const;

private:
    explicit Camera(const QSharedPointer<V4L2MediaSource> &source) : m_source(source) {}

    const QSharedPointer<V4L2MediaSource> m_source;
};
