#include "camera.h"

#include "ratefollower.h"

#include <zevqt-mm/v4l2mediasource.h>

#include <algorithm>
#include <ctime>

namespace {

constexpr double usualScreenRate = 60.0;

qint64 monotonicUs()
{
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time); // the clock of the driver's timestamps
    return qint64(time.tv_sec) * 1000000 + time.tv_nsec / 1000;
}

} // namespace

std::unique_ptr<Camera> Camera::of(const QSharedPointer<MediaSourceBase> &source)
{
    const auto camera = source.objectCast<V4L2MediaSource>();
    return std::unique_ptr<Camera>(camera ? new Camera(camera) : nullptr);
}

qint64 Camera::frameIntervalUs() const
{
    return m_source->getCapture().format().frameInterval;
}

double Camera::tickRate(double screenRate) const
{
    const double most = screenRate > 0.0 ? screenRate : usualScreenRate;
    const qint64 interval = frameIntervalUs();
    return interval > 1000 ? std::min(2.0 * RateFollower::rateOf(interval), most) : most;
}

qint64 Camera::lastCapturedAt(qint64 now) const
{
    const qint64 captured = m_source->getCapture().statistics().lastTimestamp;
    return captured > 0 ? now - (monotonicUs() - captured) : now;
}

QString Camera::colorsName() const
{
    const auto format = m_source->getCapture().format();
    const QString range = format.fullRange ? QStringLiteral(" full") : QStringLiteral(" limited");
    switch (format.encoding) {
    case zevmm::v4l2::ColorEncoding::Bt709:
        return QStringLiteral("BT.709") + range;
    case zevmm::v4l2::ColorEncoding::Bt2020:
        return QStringLiteral("BT.2020") + range;
    case zevmm::v4l2::ColorEncoding::Bt601:
        break;
    }
    return QStringLiteral("BT.601") + range;
}

QString Camera::trouble() const
{
    return QString::fromStdString(m_source->getCapture().trouble());
}

zevmm::v4l2::CaptureStatistics Camera::statistics() const
{
    return m_source->getCapture().statistics();
}
