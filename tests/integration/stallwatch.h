#ifndef ZEV_TESTS_STALLWATCH_H
#define ZEV_TESTS_STALLWATCH_H

#include <algorithm>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

/*!
 * Waits in short naps and notes by how much they were too long: what the machine does to everybody who has to
 * be in time.
 *
 * Threads: naps in one of its own; the operations are thread-safe. Units: wall-clock microseconds.
 */
class StallWatch
{
public:
    StallWatch() : thread([this] { nap(); }) {}
    ~StallWatch()
    {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            stopping = true;
        }
        thread.join();
    }

    double worstMs() { return worstMs(0, 1e18); }
    /*! Of the naps that were going on at a time between two. */
    double worstMs(double fromUs, double toUs)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        double worst = 0;
        for (const Stall &stall : stalls)
            if (stall.end >= fromUs && stall.end - 1000 * stall.ms <= toUs)
                worst = std::max(worst, stall.ms);
        return worst;
    }
    /*! Of the same, all together; those of `leastMs` and more. */
    double totalMs(double fromUs, double toUs, double leastMs = 0)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        double total = 0;
        for (const Stall &stall : stalls)
            if (stall.end >= fromUs && stall.end <= toUs && stall.ms >= leastMs)
                total += stall.ms;
        return total;
    }

private:
    struct Stall
    {
        double end;
        double ms;
    };
    void nap()
    {
        using namespace std::chrono;
        for (;;) {
            const auto before = steady_clock::now();
            std::this_thread::sleep_for(milliseconds(5));
            const duration<double, std::milli> took = steady_clock::now() - before;
            const duration<double, std::micro> end = system_clock::now().time_since_epoch();
            const std::lock_guard<std::mutex> lock(mutex);
            if (stopping)
                return;
            if (took.count() > 6)
                stalls.push_back({end.count(), took.count() - 5});
        }
    }

    std::mutex mutex;
    std::vector<Stall> stalls; // protected by the mutex
    bool stopping = false;     // likewise
    std::thread thread;        // last, so that what it uses is there
};

#endif
