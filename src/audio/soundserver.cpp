#include "audio/soundserver.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QLibrary>
#include <QtMultimedia/QAudioDeviceInfo>

namespace soundserver {
namespace {

const int answerMs = 250;
const char realm[] = "default"; // what Qt calls PulseAudio's devices
const char defaultSink[] = "@DEFAULT_SINK@";

// A connection for one question.
class Connection
{
public:
    ~Connection()
    {
        if (context) {
            disconnect(context);
            releaseContext(context);
        }
        if (loop)
            freeLoop(loop);
    }

    bool open()
    {
        if (!resolve())
            return false;
        loop = newLoop();
        context = loop ? newContext(getApi(loop), "sound server?") : nullptr;
        if (!context || connect(context, nullptr, noAutospawn, nullptr) < 0)
            return false;
        return runUntil([this] { return getState(context) >= ready; }) && getState(context) == ready;
    }

    enum class Answer { None, Yes, No };

    Answer knows(const QByteArray &sink)
    {
        Answer answer = Answer::None;
        void *question = getSink(context, sink.constData(), onSink, &answer);
        if (!question)
            return answer;
        const bool isAnswered = runUntil([&] { return answer != Answer::None; });
        cancel(question); // or it would be answered into what is gone
        release(question);
        return isAnswered ? answer : Answer::None;
    }

private:
    static constexpr int noAutospawn = 1;
    static constexpr int ready = 4;

    static void onSink(void *, const void *info, int end, void *answer)
    {
        if (info || end < 0)
            *static_cast<Answer *>(answer) = info ? Answer::Yes : Answer::No;
    }

    template <typename Condition>
    bool runUntil(const Condition &isDone)
    {
        QElapsedTimer waiting;
        waiting.start();
        while (!isDone()) {
            const auto leftUs = static_cast<int>(1000 * (answerMs - waiting.elapsed()));
            if (leftUs <= 0 || prepare(loop, leftUs) < 0 || poll(loop) < 0 || dispatch(loop) < 0)
                return false;
        }
        return true;
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
               get(getState, "pa_context_get_state") && get(getSink, "pa_context_get_sink_info_by_name") &&
               get(cancel, "pa_operation_cancel") && get(release, "pa_operation_unref");
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
    void *(*getSink)(void *, const char *, void (*)(void *, const void *, int, void *), void *) = nullptr;
    void (*cancel)(void *) = nullptr;
    void (*release)(void *) = nullptr;
};

} // namespace

bool isItsDevice(const QAudioDeviceInfo &device)
{
    return device.realm() == QLatin1String(realm) && !device.deviceName().isEmpty();
}

bool isAnswering()
{
    return Connection().open();
}

bool hasSink()
{
    Connection connection;
    return connection.open() && connection.knows(defaultSink) == Connection::Answer::Yes;
}

bool lacks(const QAudioDeviceInfo &device)
{
    Connection connection;
    return isItsDevice(device) && connection.open() &&
           connection.knows(device.deviceName().toUtf8()) == Connection::Answer::No;
}

} // namespace soundserver
