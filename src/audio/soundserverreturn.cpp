#include "audio/soundserverreturn.h"

#include "audio/audiologging.h"
#include "audio/newobjects.h"
#include "audio/soundserver.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QEvent>
#include <QtCore/QThread>
#include <QtMultimedia/QAudioDeviceInfo>

#include <algorithm>

namespace {

const int ownAttemptMs = 3000; // then the backend looks, once; give or take a twentieth
const int marginMs = 500;
const int secondLookMs = 1000;
const char backendClass[] = "QPulseAudioEngine";
const char lostSlot[] = "onContextFailed";
const char connectSlot[] = "prepare";

SoundServerReturn *theWatch = nullptr;

bool isBackend(const QObject *object)
{
    const QMetaObject *meta = object->metaObject();
    return object->inherits(backendClass) && meta->indexOfSlot("onContextFailed()") >= 0 &&
           meta->indexOfSlot("prepare()") >= 0;
}

} // namespace

SoundServerReturn::SoundServerReturn(QObject *parent) : QObject(parent)
{
    ownAttempt.setSingleShot(true);
    ownAttempt.setTimerType(Qt::PreciseTimer);
    ownAttempt.setInterval(ownAttemptMs + marginMs);
    secondLook.setSingleShot(true);
    secondLook.setInterval(secondLookMs);
    connect(&secondLook, &QTimer::timeout, this, &SoundServerReturn::lookForServerAgain);
}

void SoundServerReturn::watch()
{
    QCoreApplication *application = QCoreApplication::instance();
    if (theWatch || !application || application->thread() != QThread::currentThread())
        return;
    theWatch = new SoundServerReturn(application);
    connect(theWatch, &QObject::destroyed, [] { theWatch = nullptr; });
    application->installEventFilter(theWatch);
}

SoundServerReturn *SoundServerReturn::ofThisThread()
{
    return theWatch && theWatch->thread() == QThread::currentThread() ? theWatch : nullptr;
}

// The backend learns of its loss in a thread of the client library, which posts it to the backend.
bool SoundServerReturn::eventFilter(QObject *receiver, QEvent *event)
{
    if (event->type() == QEvent::MetaCall && isBackend(receiver)) {
        loser = receiver;
        ownAttempt.start();
    }
    return false;
}

bool SoundServerReturn::findBackend()
{
    SoundServerReturn *self = ofThisThread();
    if (self && self->hasLooked)
        return true;
    if (soundserver::isSilent())
        return false;
    if (!self)
        return true;
    self->hasLooked = true;
    const NewObjects objects;
    QAudioDeviceInfo::availableDevices(QAudio::AudioOutput);
    QObject *found = objects.find(backendClass);
    if (found && isBackend(found))
        self->made = found;
    return true;
}

bool SoundServerReturn::isConnected(const QAudioDeviceInfo &device)
{
    SoundServerReturn *self = ofThisThread();
    if (!self || !self->made || !soundserver::isItsDevice(device))
        return false;
    QCoreApplication::sendPostedEvents(self->made, QEvent::MetaCall); // it may have lost it just now
    return !self->loser;
}

void SoundServerReturn::lookForServer(const QList<QAudioDeviceInfo> &listed)
{
    SoundServerReturn *self = ofThisThread();
    if (!self || !self->made || self->ownAttempt.isActive() || self->secondLook.isActive() ||
        std::any_of(listed.begin(), listed.end(), soundserver::isItsDevice) || !soundserver::hasSink())
        return;
    self->secondLook.start();
}

// Nothing tells whether a backend without devices is connected. One that is gets its list a moment later than
// others see the sinks: only after a second look is it told to let go, which does no harm then, and is
// followed by the backend's own attempt.
void SoundServerReturn::lookForServerAgain()
{
    const QList<QAudioDeviceInfo> listed = QAudioDeviceInfo::availableDevices(QAudio::AudioOutput);
    if (!made || ownAttempt.isActive() ||
        std::any_of(listed.begin(), listed.end(), soundserver::isItsDevice) || !soundserver::hasSink())
        return;
    ownAttempt.start();
    qCInfo(audio) << "The sound server has devices that are not listed: connecting to it in three seconds";
    QMetaObject::invokeMethod(made, lostSlot, Qt::DirectConnection);
}

void SoundServerReturn::started(const QAudioDeviceInfo &device)
{
    SoundServerReturn *self = ofThisThread();
    if (self && soundserver::isItsDevice(device))
        self->loser = nullptr; // it is connected
}

// To no server it must not be told: each attempt that fails costs it a thread.
bool SoundServerReturn::lookAgain(const QAudioDeviceInfo &device)
{
    SoundServerReturn *self = ofThisThread();
    if (!self || !self->loser || !soundserver::isItsDevice(device))
        return false;
    QCoreApplication::sendPostedEvents(self->loser, QEvent::MetaCall); // it may have lost it once more
    if (self->ownAttempt.isActive() || !soundserver::isAnswering())
        return false;
    self->ownAttempt.start(); // an attempt that fails may be followed by one of its own
    qCInfo(audio) << "The sound server is back: connecting to it again";
    return QMetaObject::invokeMethod(self->loser, connectSlot, Qt::DirectConnection);
}
