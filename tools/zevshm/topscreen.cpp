#include "topscreen.h"

#include "failure.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace zevshm {

namespace {

winsize sizeOfTerminal()
{
    winsize size{};
    ioctl(STDOUT_FILENO, TIOCGWINSZ, &size);
    return size;
}

} // namespace

TopScreen::TopScreen()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGWINCH, SIGTSTP})
        sigaddset(&signals, number);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    m_signals = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    if (m_signals < 0)
        throw Failure(ExitResources, "no descriptors left; raise 'ulimit -n'");
    m_hasKeys = isatty(STDIN_FILENO) == 1;
    try {
        enter();
    } catch (...) {
        close(m_signals);
        throw;
    }
}

TopScreen::~TopScreen()
{
    try {
        leave();
    } catch (const Failure &) {
        // A terminal that has gone needs nothing any more.
    }
    close(m_signals);
}

void TopScreen::enter()
{
    m_hasBefore = tcgetattr(STDOUT_FILENO, &m_before) == 0;
    if (m_hasBefore) {
        termios raw = m_before;
        raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO); // Ctrl-C and Ctrl-Z remain signals
        raw.c_cc[VMIN] = 0;
        raw.c_cc[VTIME] = 0;
        tcsetattr(STDOUT_FILENO, TCSANOW, &raw);
    }
    try {
        put("\x1b[?1049h\x1b[?25l");
    } catch (...) {
        restoreSettings();
        throw;
    }
    m_isEntered = true;
}

void TopScreen::restoreSettings() const
{
    if (m_hasBefore)
        tcsetattr(STDOUT_FILENO, TCSANOW, &m_before);
}

void TopScreen::leave()
{
    if (!m_isEntered)
        return;
    m_isEntered = false;
    restoreSettings();
    put("\x1b[?25h\x1b[?1049l");
}

void TopScreen::put(const std::string &text)
{
    for (size_t at = 0; at < text.size();) {
        const ssize_t written = write(STDOUT_FILENO, text.data() + at, text.size() - at);
        if (written > 0)
            at += static_cast<size_t>(written);
        else if (written < 0 && errno == EAGAIN) {
            pollfd terminal{STDOUT_FILENO, POLLOUT, 0};
            poll(&terminal, 1, 1000);
        } else if (written < 0 && errno != EINTR)
            throw Failure(ExitOutput,
                          std::string("the terminal cannot be written (") + std::strerror(errno) +
                              "); print the table with 'zevshm top --once', or use another terminal");
    }
}

int TopScreen::width() const
{
    const int columns = sizeOfTerminal().ws_col;
    return columns > 0 ? columns : 80;
}

int TopScreen::height() const
{
    const int rows = sizeOfTerminal().ws_row;
    return rows > 0 ? rows : 24;
}

void TopScreen::show(const std::vector<std::string> &lines)
{
    std::string text = "\x1b[H";
    for (size_t i = 0; i < lines.size(); ++i)
        text += (i == 0 ? "" : "\r\n") + lines[i] + "\x1b[K";
    put(text + "\x1b[J");
}

void TopScreen::stopHere()
{
    leave();
    std::raise(SIGSTOP);
    enter();
}

TopScreen::Event TopScreen::wait(int timeoutMs)
{
    pollfd descriptors[2] = {{m_signals, POLLIN, 0}, {m_hasKeys ? STDIN_FILENO : -1, POLLIN, 0}};
    if (poll(descriptors, 2, timeoutMs) <= 0)
        return Event::Time;
    if (descriptors[1].revents) {
        char keys[16];
        const ssize_t got = read(STDIN_FILENO, keys, sizeof keys);
        if (got <= 0)
            m_hasKeys = false;
        for (ssize_t i = 0; i < got; ++i) {
            if (keys[i] == 'q' || keys[i] == 'Q')
                return Event::End;
        }
    }
    Event event = Event::Resized; // shown again, whatever it was
    signalfd_siginfo info;
    while (read(m_signals, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
        if (info.ssi_signo == SIGTSTP)
            stopHere();
        else if (info.ssi_signo != SIGWINCH)
            event = Event::End;
    }
    return event;
}

} // namespace zevshm
