// When a stream is taken for dead, and when the next attempt to revive it is due.
#ifndef ZEVMM_RECOVERY_H
#define ZEVMM_RECOVERY_H

#include <cstdint>

namespace zevmm {
namespace v4l2 {

// The states of a capture, of who steps it:
//
//     Idle --begin--> Streaming --stall, error--> Broken --restart--> Streaming
//                         |                          | the driver refuses
//                         +----the device is gone----+--> Gone --it opens again--> Streaming
//     any --end--> Idle
//
// A stream is dead after a second without a frame, or five of its frame intervals. The first restart is at
// once, the next ones wait twice as long each, up to eight seconds. A device that has gone is looked for
// twice a second.
//
// Knows no device and no clock. Threads: one at a time. Units: microseconds, CLOCK_MONOTONIC.
class Recovery
{
public:
    enum class State { Idle, Streaming, Broken, Gone };

    State state() const { return current; }
    // Streaming, with nothing held against the device: started, or opened again.
    void begin(std::int64_t now, std::int64_t frameIntervalUs);
    void end() { current = State::Idle; }
    // A good frame came.
    void frame(std::int64_t now);
    // The stream is dead.
    void broke(std::int64_t now);
    // The next attempt to restart it is this one.
    void restarts(std::int64_t now);
    void restarted(std::int64_t now);
    // The device is not there; to be looked for at the usual interval, or after `waitUs`.
    void gone(std::int64_t now);
    void gone(std::int64_t now, std::int64_t waitUs);
    // Something is due though the device is silent: a stall, a restart, a look for the device.
    std::int64_t nextStep() const;

    static constexpr std::int64_t longestWait = 8000000;

private:
    std::int64_t stallLimit() const;

    State current = State::Idle;
    std::int64_t interval = 0;
    std::int64_t lastFrame = 0; // when the last good one came, or streaming began
    std::int64_t retryAt = 0;   // in Broken and Gone
    std::int64_t lastRestart = 0;
    unsigned int failures = 0; // restarts since a good frame
};

} // namespace v4l2
} // namespace zevmm

#endif
