#include "cameralist.h"

#include <QStringList>

namespace {

QString ratesText(const std::vector<double> &rates)
{
    QStringList numbers;
    for (const double rate : rates)
        numbers << QString::number(rate, 'g', 4);
    return numbers.join(QStringLiteral(", "));
}

} // namespace

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
