#ifndef ZEV_TESTS_FAKES_MULTIMEDIATHREAD_H
#define ZEV_TESTS_FAKES_MULTIMEDIATHREAD_H

#include <QtCore/QObject>
#include <QtCore/QStringList>

/*! A tick source that has no thread: it notes what it is asked, and the test emits tick(). */
class MultimediaThread : public QObject
{
    Q_OBJECT

public:
    explicit MultimediaThread(QObject *parent) : QObject(parent) {}

    void start(int intervalNumerator, int intervalDenominator, long long phase)
    {
        calls.append(
            QStringLiteral("start %1 %2 %3").arg(intervalNumerator).arg(intervalDenominator).arg(phase));
    }
    void stop(long long waitMs) { calls.append(QStringLiteral("stop %1").arg(waitMs)); }

    inline static QStringList calls;

Q_SIGNALS:
    void tick();
};

#endif
