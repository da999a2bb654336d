#include <zevqt-utils/multimediathread.h>

#include "tickthread.h"

#include <QByteArray>
#include <QtDebug>
#include <chrono>
#include <system_error>

namespace {

constexpr int kernelNameBytes = 15; // TASK_COMM_LEN without the terminator

std::string kernelName(const QString &objectName)
{
    QByteArray name = objectName.isEmpty() ? QByteArrayLiteral("tick") : objectName.toUtf8();
    if (name.size() > kernelNameBytes) {
        int length = kernelNameBytes;
        // name[length] is the first byte to go: while it continues a character, the whole character goes.
        while (length > 0 && (static_cast<unsigned char>(name.at(length)) & 0xC0) == 0x80)
            --length;
        name.truncate(length);
    }
    return name.toStdString();
}

int64_t monotonicNs()
{
    // CLOCK_MONOTONIC, the clock that the tick thread sleeps on.
    return std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
}

} // namespace

MultimediaThread::MultimediaThread(QObject *parent)
    : QObject(parent), thread(std::make_shared<TickThread>([this] { Q_EMIT tick(); }))
{}

MultimediaThread::~MultimediaThread()
{
    thread->close();
}

void MultimediaThread::start(int intervalNumerator, int intervalDenominator, long long phase)
{
    if (!TickSchedule::isInterval(intervalNumerator, intervalDenominator)) {
        qWarning("MultimediaThread \"%s\": no ticks, %d/%d s is not an interval; give two positive numbers",
                 qUtf8Printable(objectName()), intervalNumerator, intervalDenominator);
        thread->stop(0);
        return;
    }
    const TickSchedule schedule(monotonicNs(), intervalNumerator, intervalDenominator, phase);
    try {
        thread->start(schedule, kernelName(objectName()));
    } catch (const std::system_error &error) {
        qWarning("MultimediaThread \"%s\": no ticks, its thread cannot be created (%s); raise the limit on "
                 "threads",
                 qUtf8Printable(objectName()), error.what());
    }
}

void MultimediaThread::stop(long long waitMs)
{
    thread->stop(waitMs);
}
