#pragma once

#include "xvfbserver.h"

#include <QProcessEnvironment>
#include <QStringList>

/* zevshm publishing from construction on; gone with this object. */
class ToolPublisher
{
public:
    ToolPublisher(const QString &storeDirectory, const QString &name, const QStringList &arguments);
    ~ToolPublisher();

    /* The store is there. */
    bool isReady() const { return m_ready; }
    /* A viewer that is there before the first frame begins with the no-signal picture. */
    bool hasFrame() const;
    /* Ended as by somebody at a terminal; the exit code, -1 when it crashed or did not end. */
    int end();

private:
    const QString m_directory;
    const QString m_name;
    QProcessEnvironment m_environment;
    BoundProcess m_process;
    bool m_ready = false;
};
