// How long a look at a sound server takes that stops to speak half way, over a client library of the test's
// own.

#include "audio/soundserver.h"

#include <gtest/gtest.h>

#include <QtCore/QByteArray>
#include <QtCore/QLibrary>
#include <QtCore/QThread>

namespace {

constexpr int letIn = 3; // states of a connection
constexpr int ready = 4;

// The client library, and the server behind it.
struct Pulse
{
    int reaches = ready; // the state that a connection comes to
    int state = 0;       // of the last connection
    int connections = 0;
    int timeoutUs = 0; // of the next poll()
    qint64 waitedUs = 0;
};
Pulse pulse;

void *newObject()
{
    return &pulse;
}
void *newContext(void *, const char *)
{
    return &pulse;
}
void forget(void *) {}
int connectTo(void *, const char *, int, const void *)
{
    ++pulse.connections;
    pulse.state = 1;
    return 0;
}
int state(const void *)
{
    return pulse.state;
}
int errorOf(void *)
{
    return 0;
}
int prepare(void *, int timeoutUs)
{
    pulse.timeoutUs = timeoutUs;
    return 0;
}
int waitForEvents(void *)
{
    if (pulse.state < pulse.reaches)
        return 1;
    QThread::usleep(static_cast<unsigned long>(pulse.timeoutUs));
    pulse.waitedUs += pulse.timeoutUs;
    return 0;
}
int dispatch(void *)
{
    if (pulse.state >= pulse.reaches)
        return 0;
    ++pulse.state;
    return 1;
}
void *sinkOf(void *, const char *, void (*tell)(void *, const void *, int, void *), void *answer)
{
    tell(nullptr, &pulse, 0, answer);
    return &pulse;
}

template <typename Function>
QFunctionPointer pointer(Function *function)
{
    return reinterpret_cast<QFunctionPointer>(function);
}

} // namespace

extern "C" QFunctionPointer __wrap__ZN8QLibrary7resolveEPKc(QLibrary *, const char *symbol)
{
    const QByteArray name(symbol);
    if (name == "pa_mainloop_new")
        return pointer(newObject);
    if (name == "pa_mainloop_get_api")
        return pointer(+[](void *loop) { return loop; });
    if (name == "pa_context_new")
        return pointer(newContext);
    if (name == "pa_context_connect")
        return pointer(connectTo);
    if (name == "pa_context_get_state")
        return pointer(state);
    if (name == "pa_context_errno")
        return pointer(errorOf);
    if (name == "pa_mainloop_prepare")
        return pointer(prepare);
    if (name == "pa_mainloop_poll")
        return pointer(waitForEvents);
    if (name == "pa_mainloop_dispatch")
        return pointer(dispatch);
    if (name == "pa_context_get_sink_info_by_name")
        return pointer(sinkOf);
    return pointer(forget); // what ends something
}

TEST(SoundServer, isAskedInNoTimeWhenItIsWell)
{
    pulse = Pulse();
    EXPECT_TRUE(soundserver::isAnswering());
    EXPECT_TRUE(soundserver::hasSink());
    EXPECT_EQ(pulse.connections, 2);
    EXPECT_EQ(pulse.waitedUs, 0);
}

class SoundServerSilence : public testing::TestWithParam<int>
{};

INSTANTIATE_TEST_SUITE_P(After, SoundServerSilence, testing::Values(1, letIn),
                         [](const auto &test) { return test.param == letIn ? "lettingIn" : "nothing"; });

// Also one that has let us in and says no more.
TEST_P(SoundServerSilence, takesTimeOnlyOnce)
{
    pulse = Pulse();
    pulse.reaches = GetParam();
    EXPECT_FALSE(soundserver::isAnswering());
    EXPECT_GT(pulse.waitedUs, 0);
    EXPECT_LE(pulse.waitedUs, 1000000);
    pulse.waitedUs = 0;
    for (int i = 0; i < 3; ++i)
        EXPECT_FALSE(soundserver::isAnswering());
    EXPECT_EQ(pulse.waitedUs, 0);
    EXPECT_EQ(pulse.connections, 1);
    pulse.reaches = ready;
    EXPECT_TRUE(soundserver::isAnswering());
}
