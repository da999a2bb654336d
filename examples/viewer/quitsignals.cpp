#include "quitsignals.h"

#include <QSocketNotifier>

#include <csignal>
#include <sys/signalfd.h>
#include <unistd.h>

namespace {

sigset_t quitSet()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

} // namespace

void QuitSignals::block()
{
    const sigset_t set = quitSet();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

QuitSignals::QuitSignals(QObject *parent) : QObject(parent)
{
    const sigset_t set = quitSet();
    m_fd = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    if (m_fd < 0) {
        // Without it the signals must at least end the program.
        pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
        return;
    }
    auto *notifier = new QSocketNotifier(m_fd, QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, [this] {
        signalfd_siginfo info;
        if (read(m_fd, &info, sizeof info) != ssize_t(sizeof info))
            return;
        // The same signal again ends the program at once. Another one does not: Ctrl-C reaches a whole group
        // of processes, one of which may ask the others to end in its own way.
        sigset_t again;
        sigemptyset(&again);
        sigaddset(&again, int(info.ssi_signo));
        pthread_sigmask(SIG_UNBLOCK, &again, nullptr);
        emit quitRequested();
    });
}

QuitSignals::~QuitSignals()
{
    if (m_fd >= 0)
        close(m_fd);
}
