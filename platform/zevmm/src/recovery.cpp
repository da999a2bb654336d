#include "recovery.h"

#include <algorithm>

namespace zevmm {
namespace v4l2 {

namespace {

constexpr std::int64_t shortestStall = 1000000; // without a frame
constexpr std::int64_t stallFrames = 5;
constexpr std::int64_t returnInterval = 500000;    // between two looks for a device that has gone
constexpr std::int64_t longestInterval = 60000000; // that a driver is believed to have between two frames

} // namespace

void Recovery::begin(std::int64_t now, std::int64_t frameIntervalUs)
{
    current = State::Streaming;
    interval = frameIntervalUs;
    lastFrame = now;
    lastRestart = now - longestWait;
    failures = 0;
}

void Recovery::frame(std::int64_t now)
{
    lastFrame = now;
    failures = 0;
}

void Recovery::broke(std::int64_t now)
{
    current = State::Broken;
    retryAt = failures == 0 ? now : lastRestart + stallLimit();
}

void Recovery::restarts(std::int64_t now)
{
    lastRestart = now;
    ++failures;
}

void Recovery::restarted(std::int64_t now)
{
    current = State::Streaming;
    lastFrame = now;
}

void Recovery::gone(std::int64_t now)
{
    gone(now, returnInterval);
}

void Recovery::gone(std::int64_t now, std::int64_t waitUs)
{
    current = State::Gone;
    retryAt = now + waitUs;
}

std::int64_t Recovery::stallLimit() const
{
    const std::int64_t limit =
        std::max(shortestStall, stallFrames * std::clamp<std::int64_t>(interval, 0, longestInterval));
    return std::max(limit, std::min(limit << std::min(failures, 3u), longestWait));
}

std::int64_t Recovery::nextStep() const
{
    return current == State::Streaming ? lastFrame + stallLimit() : retryAt;
}

} // namespace v4l2
} // namespace zevmm
