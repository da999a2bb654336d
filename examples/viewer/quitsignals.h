#pragma once

#include <QObject>

/*
 * SIGINT and SIGTERM as a Qt signal, so that the program ends in its own time and writes what it was asked
 * for.
 *
 * Usage: block() first thing in main(), before any thread is started (threads inherit the mask); then create
 * one object once there is an event loop. The same signal again ends the program at once.
 *
 * Threads: the one whose event loop it is.
 */
class QuitSignals : public QObject
{
    Q_OBJECT

public:
    static void block();

    explicit QuitSignals(QObject *parent = nullptr);
    ~QuitSignals() override;

signals:
    void quitRequested();

private:
    int m_fd; // owned
};
