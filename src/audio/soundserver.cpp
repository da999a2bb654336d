#include "audio/soundserver.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtCore/QLibrary>
#include <QtCore/QStringList>
#include <QtMultimedia/QAudioDeviceInfo>

#include <algorithm>
#include <memory>
#include <utility>

namespace soundserver {
namespace {

const int answerMs = 1000;                          // on a busy machine it took half of that
const char realm[] = "default";                     // what Qt calls PulseAudio's devices
const char plugin[] = "/audio/libqtmedia_pulse.so"; // that has the backend
const char defaultSink[] = "@DEFAULT_SINK@";

// One look at the server: its connection and its question share the time that one may wait.
class Wait
{
public:
    explicit Wait(int limitMs) : limit(limitMs) { waiting.start(); }
    int leftUs() const { return static_cast<int>(1000 * qMax<qint64>(0, limit - waiting.elapsed())); }
    /*! For a server that speaks again: the whole time, from when the look began. */
    void extend() { limit = answerMs; }

private:
    QElapsedTimer waiting;
    int limit;
};

// A connection for one question, or for the sign that a silent server speaks again.
class Connection
{
public:
    enum class Progress { Ready, Failed, Late, Pending };

    ~Connection()
    {
        if (context) {
            disconnect(context);
            releaseContext(context);
        }
        if (loop)
            freeLoop(loop);
    }

    bool begin()
    {
        if (!resolve())
            return false;
        loop = newLoop();
        context = loop ? newContext(getApi(loop), "sound server?") : nullptr;
        return context && connect(context, nullptr, noAutospawn, nullptr) >= 0;
    }

    Progress proceed(Wait *wait)
    {
        runUntil(wait, [this] { return getState(context) >= ready; });
        const int state = getState(context);
        if (state < ready)
            return Progress::Pending;
        if (state == ready)
            return Progress::Ready;
        return getError(context) == timeout ? Progress::Late : Progress::Failed;
    }

    State knows(const QByteArray &sink, Wait *wait)
    {
        State answer = State::Silent;
        void *question = getSink(context, sink.constData(), onSink, &answer);
        if (!question)
            return State::NoServer;
        runUntil(wait, [&] { return answer != State::Silent || getState(context) != ready; });
        cancel(question); // or it would be answered into what is gone
        release(question);
        return answer == State::Silent && getState(context) != ready ? State::NoServer : answer;
    }

private:
    static constexpr int noAutospawn = 1;
    static constexpr int answered = 3; // a state: the server has let us in
    static constexpr int ready = 4;    // those above are ends
    static constexpr int timeout = 8;  // an error

    static void onSink(void *, const void *info, int end, void *answer)
    {
        if (info || end < 0)
            *static_cast<State *>(answer) = info ? State::There : State::Gone;
    }

    // Also without any time, what has come is taken.
    template <typename Condition>
    void runUntil(Wait *wait, const Condition &isDone)
    {
        while (!isDone()) {
            if (prepare(loop, wait->leftUs()) < 0 || poll(loop) < 0)
                return;
            const int handled = dispatch(loop);
            if (handled > 0 && getState(context) >= answered) // what it said before is no news
                wait->extend();
            if (handled < 0 || (handled == 0 && wait->leftUs() <= 0))
                return;
        }
    }

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
               get(getState, "pa_context_get_state") && get(getError, "pa_context_errno") &&
               get(getSink, "pa_context_get_sink_info_by_name") && get(cancel, "pa_operation_cancel") &&
               get(release, "pa_operation_unref");
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
    int (*getError)(const void *) = nullptr;
    void *(*getSink)(void *, const char *, void (*)(void *, const void *, int, void *), void *) = nullptr;
    void (*cancel)(void *) = nullptr;
    void (*release)(void *) = nullptr;
};

// A server that did not answer. What it owes is waited for at the connection that it owes it to, so that no
// look after the first one takes time, and its queue of clients does not grow.
struct Silence
{
    std::unique_ptr<Connection> connection;
    bool isKnown = false;
};
thread_local Silence silence;

std::unique_ptr<Connection> newConnection()
{
    auto connection = std::make_unique<Connection>();
    return connection->begin() ? std::move(connection) : nullptr;
}

State remember(std::unique_ptr<Connection> connection)
{
    Wait none(0);
    if (connection)
        connection->proceed(&none); // a new one has to ask first
    silence.connection = std::move(connection);
    silence.isKnown = bool(silence.connection);
    return silence.isKnown ? State::Silent : State::NoServer;
}

// There when it answers; `sink`: and has it.
State look(const QByteArray &sink = {})
{
    Wait wait(silence.isKnown ? 0 : answerMs);
    for (int attempt = 0; attempt < 2; ++attempt) {
        std::unique_ptr<Connection> connection = std::move(silence.connection);
        const bool isKept = bool(connection);
        if (!isKept)
            connection = newConnection();
        if (!connection)
            return remember(nullptr);
        switch (connection->proceed(&wait)) {
        case Connection::Progress::Pending:
            return remember(std::move(connection));
        case Connection::Progress::Ready: {
            wait.extend();
            const State state = sink.isEmpty() ? State::There : connection->knows(sink, &wait);
            return state == State::Silent ? remember(newConnection()) : (remember(nullptr), state);
        }
        case Connection::Progress::Failed:
            wait.extend(); // whoever is there now may be another one
            if (!isKept)
                return remember(nullptr);
            break;
        case Connection::Progress::Late:
            break; // the client library has given up
        }
    }
    return remember(newConnection());
}

} // namespace

bool isItsDevice(const QAudioDeviceInfo &device)
{
    return device.realm() == QLatin1String(realm) && !device.deviceName().isEmpty();
}

bool isUsed()
{
    const QStringList folders = QCoreApplication::libraryPaths();
    return std::any_of(folders.begin(), folders.end(),
                       [](const QString &folder) { return QFile::exists(folder + QLatin1String(plugin)); });
}

bool isSilent()
{
    return isUsed() && look() == State::Silent;
}

bool isAnswering()
{
    return look() == State::There;
}

bool hasSink()
{
    return look(defaultSink) == State::There;
}

State stateOf(const QAudioDeviceInfo &device)
{
    return isItsDevice(device) ? look(device.deviceName().toUtf8()) : State::There;
}

} // namespace soundserver
