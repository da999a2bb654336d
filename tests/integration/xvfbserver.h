#pragma once

#include <QByteArray>
#include <QImage>
#include <QProcess>
#include <QString>
#include <QTemporaryDir>

/* A process that dies with the thread that started it: a test that crashes leaves nothing running. */
class BoundProcess : public QProcess
{
protected:
    void setupChildProcess() override;
};

/*
 * A virtual X display for as long as this object lives. Needs no application object, so that it can be there
 * before QGuiApplication looks for a display.
 */
class XvfbServer
{
public:
    explicit XvfbServer(const QString &geometry = QStringLiteral("1280x800x24"));
    ~XvfbServer();

    /* Null when the server did not start. ":N" else. */
    QByteArray display() const { return m_display; }

    /* The whole screen as it is now, seen from outside every program. */
    QImage screenshot() const;

private:
    QTemporaryDir m_frameBuffer;
    BoundProcess m_process;
    QByteArray m_display;
};
