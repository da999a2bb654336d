#include "xvfbserver.h"

#include <QFile>
#include <QtEndian>

#include <csignal>
#include <sys/prctl.h>

void BoundProcess::setupChildProcess()
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
}

XvfbServer::XvfbServer(const QString &geometry)
{
    // The server chooses a free display and writes its number once it takes connections.
    m_process.setProcessChannelMode(QProcess::SeparateChannels);
    // What a test has preloaded is not for the server: with a sanitizer in it, that does not start.
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.remove(QStringLiteral("LD_PRELOAD"));
    m_process.setProcessEnvironment(environment);
    m_process.start(QStringLiteral("Xvfb"),
                    {QStringLiteral("-displayfd"), QStringLiteral("1"), QStringLiteral("-screen"),
                     QStringLiteral("0"), geometry, QStringLiteral("-fbdir"), m_frameBuffer.path(),
                     QStringLiteral("-nolisten"), QStringLiteral("tcp")});
    while (!m_process.canReadLine())
        if (!m_process.waitForReadyRead(30000))
            return;
    m_display = ':' + m_process.readLine().trimmed();
}

XvfbServer::~XvfbServer()
{
    m_process.terminate();
    if (!m_process.waitForFinished(10000))
        m_process.kill();
}

QImage XvfbServer::screenshot() const
{
    // An XWD file: a header of big-endian words, a color map, then the pixels in the server's order.
    enum {
        HeaderSize = 0,
        Width = 4,
        Height = 5,
        BitsPerPixel = 11,
        BytesPerLine = 12,
        Colors = 19,
        ColorBytes = 12
    };
    QFile file(m_frameBuffer.filePath(QStringLiteral("Xvfb_screen0")));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const QByteArray data = file.readAll();
    const auto word = [&](int index) { return qFromBigEndian<quint32>(data.constData() + 4 * index); };
    if (data.size() < 100 || word(BitsPerPixel) != 32)
        return {};
    const qint64 offset = qint64(word(HeaderSize)) + qint64(word(Colors)) * ColorBytes;
    if (data.size() < offset + qint64(word(BytesPerLine)) * word(Height))
        return {};
    return QImage(reinterpret_cast<const uchar *>(data.constData()) + offset, int(word(Width)),
                  int(word(Height)), int(word(BytesPerLine)), QImage::Format_RGB32)
        .copy();
}
