#include "camera.h"

#include "ratefollower.h"

#include <zevqt-mm/v4l2mediasource.h>

#include <QStringList>

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

QString ratesText(const std::vector<double> &rates)
{
    QStringList numbers;
    for (const double rate : rates)
        numbers << QString::number(rate, 'g', 4);
    return numbers.join(QStringLiteral(", "));
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

QString cameraListText(const std::vector<zevmm::v4l2::Camera> &cameras)
{
    QString text;
    for (const zevmm::v4l2::Camera &camera : cameras) {
        text += QString::fromStdString(camera.device);
        if (!camera.name.empty())
            text += QStringLiteral("  %1 (%2, %3)")
                        .arg(QString::fromStdString(camera.name), QString::fromStdString(camera.driver),
                             QString::fromStdString(camera.bus));
        text += QLatin1Char('\n');
        text += camera.problem.empty()
                    ? QStringLiteral("  show it with: zevqt-viewer v4l://%1\n")
                          .arg(QString::fromStdString(camera.device))
                    : QStringLiteral("  cannot be shown: %1\n").arg(QString::fromStdString(camera.problem));
        for (const zevmm::v4l2::CameraFormat &format : camera.formats) {
            text += QStringLiteral("  %1  %2\n")
                        .arg(QString::fromStdString(format.code), QString::fromStdString(format.description));
            for (const zevmm::v4l2::CameraSize &size : format.sizes) {
                text += QStringLiteral("    %1x%2").arg(size.width).arg(size.height);
                if (!size.rates.empty())
                    text += QStringLiteral("  %1 frames/s").arg(ratesText(size.rates));
                text += QLatin1Char('\n');
            }
        }
    }
    return text;
}
