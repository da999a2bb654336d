#include "audio/soundserverreturn.h"

#include "audio/audiologging.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QEvent>
#include <QtCore/QLibrary>
#include <QtCore/QThread>
#include <QtMultimedia/QAudioDeviceInfo>

namespace {

const qint64 ownAttemptMs = 3000; // then the backend looks, once
const qint64 marginMs = 500;
const int answerMs = 250;
const char lostSlot[] = "onContextFailed()";
const char realm[] = "default"; // what Qt calls PulseAudio's devices
const char connectSlot[] = "prepare()";

SoundServerReturn *theWatch = nullptr;

// The few functions of PulseAudio's client library that ask whether its server answers. The library is loaded
// by Qt's plugin, or by nobody; linking to it would bind everybody else to it.
class ServerProbe
{
public:
    ~ServerProbe()
    {
        if (context) {
            disconnect(context);
            releaseContext(context);
        }
        if (loop)
            freeLoop(loop);
    }

    bool isAnswered()
    {
        if (!resolve())
            return false;
        loop = newLoop();
        context = loop ? newContext(getApi(loop), "sound server?") : nullptr;
        if (!context || connect(context, nullptr, noAutospawn, nullptr) < 0)
            return false;
        QElapsedTimer waiting;
        waiting.start();
        while (getState(context) < ready && !waiting.hasExpired(answerMs)) {
            const auto leftUs = static_cast<int>(1000 * (answerMs - waiting.elapsed()));
            if (prepare(loop, qMax(0, leftUs)) < 0 || poll(loop) < 0 || dispatch(loop) < 0)
                return false;
        }
        return getState(context) == ready;
    }

private:
    static constexpr int noAutospawn = 1;
    static constexpr int ready = 4;

    template <typename Function>
    bool get(Function *&function, const char *name)
    {
        function = reinterpret_cast<Function *>(library.resolve(name));
        return function;
    }
    bool resolve()
    {
        return get(newLoop, "pa_mainloop_new") && get(freeLoop, "pa_mainloop_free") &&
               get(getApi, "pa_mainloop_get_api") && get(prepare, "pa_mainloop_prepare") &&
               get(poll, "pa_mainloop_poll") && get(dispatch, "pa_mainloop_dispatch") &&
               get(newContext, "pa_context_new") && get(releaseContext, "pa_context_unref") &&
               get(connect, "pa_context_connect") && get(disconnect, "pa_context_disconnect") &&
               get(getState, "pa_context_get_state");
    }

    QLibrary library{QStringLiteral("pulse"), 0};
    void *loop = nullptr;
    void *context = nullptr;
    void *(*newLoop)() = nullptr;
    void (*freeLoop)(void *) = nullptr;
    void *(*getApi)(void *) = nullptr;
    int (*prepare)(void *, int) = nullptr;
    int (*poll)(void *) = nullptr;
    int (*dispatch)(void *) = nullptr;
    void *(*newContext)(void *, const char *) = nullptr;
    void (*releaseContext)(void *) = nullptr;
    int (*connect)(void *, const char *, int, const void *) = nullptr;
    void (*disconnect)(void *) = nullptr;
    int (*getState)(const void *) = nullptr;
};

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
           device.realm() == QLatin1String(realm);
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
        !ServerProbe().isAnswered())
        return false;
    theWatch->lost.restart();
    qCInfo(audio) << "The sound server is back: connecting to it again";
    return QMetaObject::invokeMethod(theWatch->backend, "prepare", Qt::DirectConnection);
}
