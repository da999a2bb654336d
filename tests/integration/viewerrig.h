#pragma once

#include "testpattern.h"
#include "xvfbserver.h"

#include <QImage>
#include <QJsonObject>
#include <QStringList>
#include <QTemporaryDir>

#include <functional>
#include <memory>

/* Looks every 50 ms, for at most a minute. */
bool waitUntil(const std::function<bool()> &condition);

/* Where screenshots are kept: artifacts/ in the build tree. */
QString artifact(const QString &name);

/* A test publisher that runs from construction on; gone with this object. */
class Publisher
{
public:
    Publisher(const QString &storeDirectory, const TestPattern &pattern, double fps,
              const QString &name = QStringLiteral("cam0"));
    ~Publisher();

    /* The first frame is out. */
    bool isReady() const { return m_ready; }
    void killNow();
    /* Frames dropped, after a proper end; -1 when it cannot tell. */
    int stopAndCountDrops();

private:
    BoundProcess m_process;
    bool m_ready = false;
};

/* One run of zevqt-viewer. */
class ViewerRun
{
public:
    struct Where
    {
        QString storeDirectory;
        QByteArray display;    // empty: none
        bool software = false; // the software scene graph
        bool asNobody = false; // a user that can be refused something; only root can start one
    };
    ViewerRun(const Where &where, const QStringList &arguments);
    ~ViewerRun();

    bool isRunning() const { return m_process.state() != QProcess::NotRunning; }
    void terminate() { m_process.terminate(); }
    qint64 processId() const { return m_process.processId(); }
    /* Exit code; -1 when it crashed or did not end. */
    int wait();
    /* What it has said so far. */
    QString errors();

private:
    class Process : public BoundProcess
    {
    public:
        bool asNobody = false;

    protected:
        void setupChildProcess() override;
    };

    Process m_process;
    QString m_errors;
};

QJsonObject readJson(const QString &path);

/*
 * The pattern's bars as RGB by another hand: libswscale, told of the matrix and the range, with accurate
 * rounding. The whole picture, number blocks included.
 */
QImage expectedPicture(const TestPattern &pattern, unsigned number);

/* Mean absolute difference of all channels over the lines [0, lines); 255 for different sizes. */
double meanDifference(const QImage &a, const QImage &b, int lines);
