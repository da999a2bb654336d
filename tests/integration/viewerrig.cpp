#include "viewerrig.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QThread>

extern "C" {
#include <libswscale/swscale.h>
}

#include <cmath>
#include <cstdlib>
#include <grp.h>
#include <unistd.h>
#include <vector>

bool waitUntil(const std::function<bool()> &condition)
{
    const QDeadlineTimer deadline(60000);
    while (!condition()) {
        if (deadline.hasExpired())
            return false;
        QThread::msleep(50);
        QCoreApplication::processEvents();
    }
    return true;
}

QString artifact(const QString &name)
{
    QDir().mkpath(QStringLiteral(ARTIFACTS_DIR));
    return QStringLiteral(ARTIFACTS_DIR "/") + name;
}

Publisher::Publisher(const QString &storeDirectory, const TestPattern &pattern, double fps,
                     const QString &name)
{
    auto environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("ZEV_SHM_DIR"), storeDirectory);
    m_process.setProcessEnvironment(environment);
    m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    m_process.start(QStringLiteral(PUBLISHER),
                    {name, QStringLiteral("%1x%2").arg(pattern.width).arg(pattern.height),
                     QString::fromLatin1(shm_pixel_format_name(pattern.pixelFormat)), QString::number(fps),
                     QString::fromLatin1(shm_matrix_name(pattern.color.matrix)),
                     QString::fromLatin1(shm_range_name(pattern.color.range))});
    while (!m_process.canReadLine())
        if (!m_process.waitForReadyRead(30000))
            return;
    m_ready = m_process.readLine() == "ready\n";
}

Publisher::~Publisher()
{
    killNow();
}

void Publisher::killNow()
{
    m_process.kill();
    m_process.waitForFinished(10000);
}

int Publisher::stopAndCountDrops()
{
    m_process.terminate();
    if (!m_process.waitForFinished(30000))
        return -1;
    int published = 0;
    int dropped = -1;
    if (std::sscanf(m_process.readAll().constData(), "published %d dropped %d", &published, &dropped) != 2 ||
        published < 1)
        return -1;
    return dropped;
}

ViewerRun::ViewerRun(const Where &where, const QStringList &arguments)
{
    auto environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("ZEV_SHM_DIR"), where.storeDirectory);
    for (const char *name : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM", "QT_QUICK_BACKEND"})
        environment.remove(QString::fromLatin1(name));
    if (!where.display.isEmpty())
        environment.insert(QStringLiteral("DISPLAY"), QString::fromLatin1(where.display));
    if (where.software)
        environment.insert(QStringLiteral("QT_QUICK_BACKEND"), QStringLiteral("software"));
    m_process.setProcessEnvironment(environment);
    m_process.setProcessChannelMode(QProcess::SeparateChannels);
    m_process.asNobody = where.asNobody;
    m_process.start(QStringLiteral(VIEWER), arguments);
}

ViewerRun::~ViewerRun()
{
    m_process.kill();
    m_process.waitForFinished(10000);
}

int ViewerRun::wait()
{
    if (isRunning() && !m_process.waitForFinished(90000))
        return -1;
    return m_process.exitStatus() == QProcess::NormalExit ? m_process.exitCode() : -1;
}

QString ViewerRun::errors()
{
    m_errors += QString::fromUtf8(m_process.readAllStandardError());
    return m_errors;
}

void ViewerRun::Process::setupChildProcess()
{
    constexpr unsigned nobody = 65534;
    if (asNobody && (setgroups(0, nullptr) != 0 || setgid(nobody) != 0 || setuid(nobody) != 0))
        _exit(77);
    BoundProcess::setupChildProcess(); // after: a change of user forgets what it asks for
}

QJsonObject readJson(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QJsonDocument::fromJson(file.readAll()).object();
}

QImage expectedPicture(const TestPattern &pattern, unsigned number)
{
    const bool pairs = pattern.pixelFormat == SHM_PIXEL_FORMAT_NV12;
    const int chromaWidth = (pattern.width + 1) / 2;
    const int chromaHeight = (pattern.height + 1) / 2;
    const int32_t strides[4] = {pattern.width, pairs ? 2 * chromaWidth : chromaWidth, pairs ? 0 : chromaWidth,
                                0};
    std::vector<uint8_t> memory[3];
    uint8_t *planes[4] = {};
    for (int i = 0; i < (pairs ? 2 : 3); ++i) {
        memory[i].resize(std::size_t(strides[i]) * std::size_t(i == 0 ? pattern.height : chromaHeight));
        planes[i] = memory[i].data();
    }
    pattern.draw(planes, strides, number);

    SwsContext *scaler = sws_getContext(
        pattern.width, pattern.height, pairs ? AV_PIX_FMT_NV12 : AV_PIX_FMT_YUV420P, pattern.width,
        pattern.height, AV_PIX_FMT_BGRA,
        SWS_BILINEAR | SWS_FULL_CHR_H_INT | SWS_FULL_CHR_H_INP | SWS_ACCURATE_RND, nullptr, nullptr, nullptr);
    if (!scaler)
        return {};
    const int *coefficients =
        sws_getCoefficients(pattern.color.matrix == SHM_MATRIX_BT601    ? SWS_CS_ITU601
                            : pattern.color.matrix == SHM_MATRIX_BT2020 ? SWS_CS_BT2020
                                                                        : SWS_CS_ITU709);
    sws_setColorspaceDetails(scaler, coefficients, pattern.color.range == SHM_RANGE_FULL, coefficients, 1, 0,
                             1 << 16, 1 << 16);
    QImage image(pattern.width, pattern.height, QImage::Format_RGB32);
    uint8_t *const target[4] = {image.bits(), nullptr, nullptr, nullptr};
    const int targetStrides[4] = {image.bytesPerLine(), 0, 0, 0};
    sws_scale(scaler, planes, strides, 0, pattern.height, target, targetStrides);
    sws_freeContext(scaler);
    return image;
}

double meanDifference(const QImage &a, const QImage &b, int lines)
{
    if (a.isNull() || a.size() != b.size() || lines > a.height())
        return 255.0;
    double sum = 0.0;
    for (int y = 0; y < lines; ++y) {
        for (int x = 0; x < a.width(); ++x) {
            const QRgb p = a.pixel(x, y);
            const QRgb q = b.pixel(x, y);
            sum +=
                std::abs(qRed(p) - qRed(q)) + std::abs(qGreen(p) - qGreen(q)) + std::abs(qBlue(p) - qBlue(q));
        }
    }
    return sum / (3.0 * a.width() * lines);
}
