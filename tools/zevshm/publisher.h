// Carries an input into a store at its own time.
#ifndef ZEVSHM_PUBLISHER_H
#define ZEVSHM_PUBLISHER_H

#include "faults.h"
#include "hostclock.h"
#include "input.h"
#include "storewriter.h"

#include <atomic>
#include <exception>
#include <functional>
#include <thread>

namespace zevshm {

// One thread for video and one for audio. A frame is converted into its slot ahead of time and published at
// its timestamp; a block of sound (10 ms) is published when its last sample's time has come, so that the
// newest sample of the store is never ahead of the clock and at most a block behind it.
//
// Late frames: of a live input they are left out; a file's frames are left out while they are less than 0.2 s
// late, beyond that the whole input is moved on, sound and picture together.
//
// An input that changes its size or colors has the store opened anew with the new format, because readers
// learn the format only when they open; with a size asked for, frames are scaled to that and the store stays.
//
// Usage: construct, run(); finished() becomes true when the input has ended or failed; join() throws the
// failure. Threads: run(), finished(), counters() and join() in the thread that owns it.
class Publisher
{
public:
    struct Settings
    {
        FaultPlan faults;
        bool keepSize = false; // scale instead of opening anew
        bool keepRange = false;
        std::optional<std::pair<int, int>> size;
        std::optional<int64_t> firstWallUs; // media time 0 lies here; otherwise as soon as possible
    };
    struct Counters
    {
        uint64_t frames = 0;   // published
        uint64_t late = 0;     // left out because their time was over
        uint64_t withheld = 0; // by faults
        uint64_t noSlot = 0;
        uint64_t refused = 0;
    };

    Publisher(Input &input, StoreWriter &store, SharedClock &clock, StopToken &stopToken,
              const Settings &settings);
    ~Publisher();

    // `wake` is called from a thread of the publisher when it finishes.
    void run(std::function<void()> wake);
    bool finished() const { return m_running == 0; }
    Counters counters() const;
    void join();

    // What a store for this input looks like.
    static InputFormat storeFormat(const InputFormat &input, const Settings &settings);

private:
    enum class Timing { OnTime, TooLate };

    void videoLoop();
    void audioLoop();
    void publishFrame(const VideoItem &item, uint64_t number);
    Timing checkTiming(int64_t dueUs, int64_t intervalUs, int inRow);
    void followFormat(const VideoItem &item);
    void followStepBack(int64_t labelShiftUs);
    int64_t elapsed(int64_t dueUs) const { return dueUs - m_startUs; }
    void ended();

    Input &m_input;
    StoreWriter &m_store;
    SharedClock &m_clock;
    StopToken &m_stopToken;
    const Settings m_settings;
    const Faults m_faults;
    int64_t m_startUs = 0; // monotonic; of media time 0

    std::thread m_video;
    std::thread m_audio;
    std::atomic<int> m_running{0};
    std::function<void()> m_wake;
    std::exception_ptr m_failure; // written by the video thread before it ends

    int64_t m_lastDueUs = INT64_MIN; // video thread
    int m_lateInRow = 0;             // video thread
    VideoFormat m_seen;              // video thread: what the input last delivered
    int64_t m_lastShiftUs = 0;       // video thread; the audio thread's when there is no video

    std::atomic<uint64_t> m_published{0};
    std::atomic<uint64_t> m_late{0};
    std::atomic<uint64_t> m_withheld{0};
    std::atomic<uint64_t> m_noSlot{0};
    std::atomic<uint64_t> m_refused{0};
};

} // namespace zevshm

#endif
