#include "audio/soundserverreturn.h"

#include "audio/audiologging.h"
#include "audio/soundserver.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QEvent>
#include <QtCore/QThread>
#include <QtMultimedia/QAudioDeviceInfo>

namespace {

const qint64 ownAttemptMs = 3000; // then the backend looks, once
const qint64 marginMs = 500;
const char lostSlot[] = "onContextFailed()";
const char connectSlot[] = "prepare()";

SoundServerReturn *theWatch = nullptr;

} // namespace

void SoundServerReturn::watch()
{
    QCoreApplication *application = QCoreApplication::instance();
    if (theWatch || !application || application->thread() != QThread::currentThread())
        return;
    theWatch = new SoundServerReturn(application);
    connect(theWatch, &QObject::destroyed, [] { theWatch = nullptr; });
    application->installEventFilter(theWatch);
}

// The backend learns of its loss in a thread of the client library, which posts it to the backend.
bool SoundServerReturn::eventFilter(QObject *receiver, QEvent *event)
{
    if (event->type() == QEvent::MetaCall && receiver->inherits("QPulseAudioEngine") &&
        receiver->metaObject()->indexOfSlot(lostSlot) >= 0 &&
        receiver->metaObject()->indexOfSlot(connectSlot) >= 0) {
        backend = receiver;
        lost.start();
    }
    return false;
}

bool SoundServerReturn::isWatched(const QAudioDeviceInfo &device)
{
    return theWatch && theWatch->backend && theWatch->thread() == QThread::currentThread() &&
           soundserver::isItsDevice(device);
}

void SoundServerReturn::started(const QAudioDeviceInfo &device)
{
    if (isWatched(device))
        theWatch->backend = nullptr; // it is connected
}

// A backend that is connected must not be told to connect: it would do so twice. An output that fails at
// once, later than the backend's own attempt, shows that it is not; and to no server it must not be told
// either, since each attempt that fails costs it a thread.
bool SoundServerReturn::lookAgain(const QAudioDeviceInfo &device)
{
    if (!isWatched(device) || !theWatch->lost.hasExpired(ownAttemptMs + marginMs) ||
        !soundserver::isAnswering())
        return false;
    theWatch->lost.restart();
    qCInfo(audio) << "The sound server is back: connecting to it again";
    return QMetaObject::invokeMethod(theWatch->backend, "prepare", Qt::DirectConnection);
}
