// Waiting by condition: a test waits for what it needs, however long a busy machine takes, and never for a
// time.
#ifndef ZEV_TESTS_WAITING_H
#define ZEV_TESTS_WAITING_H

#include <chrono>
#include <thread>
#include <utility>

// Looks at `condition` until it holds, and calls `pause` between two looks; false when it does not within
// `limit`.
template <class Condition, class Pause>
bool waitFor(Condition &&condition, std::chrono::milliseconds limit, Pause &&pause)
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        pause();
    }
    return true;
}

// The same with a look every millisecond.
template <class Condition>
bool waitFor(Condition &&condition, std::chrono::milliseconds limit = std::chrono::seconds(40))
{
    return waitFor(std::forward<Condition>(condition), limit,
                   [] { std::this_thread::sleep_for(std::chrono::milliseconds(1)); });
}

#endif
