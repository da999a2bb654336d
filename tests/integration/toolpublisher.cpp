#include "toolpublisher.h"

#include "viewerrig.h"

#include <QFileInfo>

ToolPublisher::ToolPublisher(const QString &storeDirectory, const QString &name, const QStringList &arguments)
    : m_directory(storeDirectory), m_name(name), m_environment(QProcessEnvironment::systemEnvironment())
{
    m_environment.insert(QStringLiteral("ZEV_SHM_DIR"), storeDirectory);
    m_process.setProcessEnvironment(m_environment);
    m_process.start(QStringLiteral(ZEVSHM), QStringList{QStringLiteral("publish"), name} + arguments);
    // The socket has the store's name.
    m_ready = m_process.waitForStarted(30000) &&
              waitUntil([&] { return QFileInfo::exists(m_directory + QLatin1Char('/') + m_name); });
}

ToolPublisher::~ToolPublisher()
{
    m_process.kill();
    m_process.waitForFinished(10000);
}

bool ToolPublisher::hasFrame() const
{
    QProcess snapshot;
    snapshot.setProcessEnvironment(m_environment);
    snapshot.start(QStringLiteral(ZEVSHM),
                   {QStringLiteral("snapshot"), m_name, m_directory + QStringLiteral("/frame.png")});
    return snapshot.waitForFinished(30000) && snapshot.exitCode() == 0;
}

int ToolPublisher::end()
{
    m_process.terminate();
    if (!m_process.waitForFinished(30000) || m_process.exitStatus() != QProcess::NormalExit)
        return -1;
    return m_process.exitCode();
}
