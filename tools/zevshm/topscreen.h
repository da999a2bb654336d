// The terminal while `zevshm top` has it.
#ifndef ZEVSHM_TOPSCREEN_H
#define ZEVSHM_TOPSCREEN_H

#include <string>
#include <vector>

#include <termios.h>

namespace zevshm {

// Takes the terminal (a screen of its own, no echo, no cursor) and gives it back as it was: in the
// destructor, and while the program is stopped (Ctrl-Z).
//
// Usage: made before any thread is started; show() and wait() in turn until that says to end.
// Errors: Failure (ExitResources, ExitOutput). Threads: one.
class TopScreen
{
public:
    TopScreen();
    ~TopScreen();
    TopScreen(const TopScreen &) = delete;
    TopScreen &operator=(const TopScreen &) = delete;

    int width() const;
    int height() const;
    void show(const std::vector<std::string> &lines);

    enum class Event { Time, Resized, End };
    Event wait(int timeoutMs);

private:
    void enter();
    void leave();
    void restoreSettings() const;
    void put(const std::string &text);
    void stopHere();

    int m_signals = -1;
    bool m_hasKeys = false;
    bool m_isEntered = false;
    bool m_hasBefore = false;
    termios m_before{};
};

} // namespace zevshm

#endif
