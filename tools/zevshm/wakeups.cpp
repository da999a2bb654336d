#include "wakeups.h"

#include "failure.h"

#include <csignal>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace zevshm {

Wakeups::Wakeups()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr); // inherited by the threads that are started after this
    std::signal(SIGPIPE, SIG_IGN);
    m_signals = signalfd(-1, &signals, SFD_CLOEXEC);
    m_event = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (m_signals < 0 || m_event < 0)
        throw Failure(ExitResources, "no descriptors left; raise 'ulimit -n'");
}

Wakeups::~Wakeups()
{
    close(m_signals);
    close(m_event);
}

void Wakeups::wake() const
{
    eventfd_write(m_event, 1);
}

bool Wakeups::wait(int timeoutMs) const
{
    pollfd descriptors[2] = {{m_signals, POLLIN, 0}, {m_event, POLLIN, 0}};
    if (poll(descriptors, 2, timeoutMs) <= 0)
        return false;
    eventfd_t count;
    if (descriptors[1].revents)
        eventfd_read(m_event, &count);
    if (!descriptors[0].revents)
        return false;
    signalfd_siginfo info;
    return read(m_signals, &info, sizeof info) == static_cast<ssize_t>(sizeof info);
}

} // namespace zevshm
