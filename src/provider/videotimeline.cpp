#include <zevqt-mm/videotimeline.h>

#include "wrapping.h"

#include <zevqt-utils/multimediathread.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <utility>

namespace {

const auto relaxed = std::memory_order_relaxed;

// Below these, intervals are noise: no frames are counted with the first, no timing is derived from the
// second.
const long long minCountableInterval = 1000;
const long long minUsableInterval = 2000;

// How near to a whole number the ratio of the intervals has to be for a beat: 2 x 0.45, within 0.05.
const double beatThreshold = 0.9;

long long systemClock()
{
    using namespace std::chrono;
    return duration_cast<nanoseconds>(system_clock::now().time_since_epoch()).count() / 1000;
}

// Frames that fit into the time between `age` and the wanted latency. 64-bit, then cut to 32.
int depthForLatency(long long targetLatency, long long age, long long frameInterval)
{
    if (targetLatency == 0 || frameInterval <= minCountableInterval)
        return 0;
    return static_cast<int>(wrapping::subtract(targetLatency, age) / frameInterval);
}

// The warm-up: two seconds of ticks, and one, in which the delay may shrink twice a second, to get over a
// first reading that was taken at a bad moment. 2 x numerator wraps at 32 bits; the quotient is taken in 64
// because INT_MIN / -1 traps.
int warmUpTicks(int numerator, int denominator)
{
    const long long doubled = wrapping::multiply(2, numerator);
    return wrapping::add(static_cast<int>(doubled / denominator), 1);
}

bool isWarmUpStep(long long tick, int numerator, int denominator)
{
    const long long period = static_cast<long long>(numerator) / denominator / 2 + 1;
    return period != 0 && tick % period == 0; // a negative rate can make it 0
}

bool beats(double ratio)
{
    const double x = ratio >= 1.0 ? ratio : 1.0 / ratio;
    return 2 * std::fabs(0.5 - std::fmod(x, 1.0)) > beatThreshold;
}

// True when noise in the timestamps would decide which of two frames `readPoint` lies nearest to.
bool liesMidway(const QVector<long long> &timestamps, long long readPoint, long long frameInterval)
{
    const auto next = std::upper_bound(timestamps.cbegin(), timestamps.cend(), readPoint);
    if (next == timestamps.cend() || next == timestamps.cbegin())
        return false;
    const long long sincePrevious = wrapping::subtract(readPoint, *(next - 1));
    const long long untilNext = wrapping::subtract(*next, readPoint);
    const long long threshold = frameInterval > 19999 ? frameInterval / 10 : 2000;
    const long long asymmetry = wrapping::subtract(sincePrevious, untilNext);
    return -threshold < asymmetry && asymmetry < threshold;
}

// Just below two, the read point moves half a tick towards live; everywhere else above 1.5 away from it. The
// asymmetry is intended: in that band the point drifts the other way.
long long beatCorrection(double ratio, double tickInterval)
{
    const auto halfTick = static_cast<long long>(tickInterval / 2);
    if (ratio > 1.9 && ratio < 2.0)
        return -halfTick;
    if (ratio > 1.5)
        return halfTick;
    return 0;
}

} // namespace

VideoTimeline::VideoTimeline(QSharedPointer<MediaSourceBase> pacedSource, int numerator, int denominator,
                             bool useExternalTicks, QObject *parent)
    : QObject(parent), source(std::move(pacedSource)), thread(nullptr), frameRateNumerator(numerator),
      frameRateDenominator(denominator), minDepth(1), targetLatency(0), running(false), readOffset(0),
      adjustCount(0), tickCount(0)
{
    if (useExternalTicks)
        return;
    thread = new MultimediaThread(this);
    connect(
        thread, &MultimediaThread::tick, thread, [this] { Q_EMIT tick(nextTimestamp(systemClock())); },
        Qt::DirectConnection);
    thread->setObjectName(QStringLiteral("VT %1").arg(source->name()));
}

VideoTimeline::~VideoTimeline() = default;

void VideoTimeline::start()
{
    tickCount.store(0, relaxed);
    if (thread)
        thread->start(frameRateDenominator.load(relaxed), frameRateNumerator.load(relaxed), 0);
    running.store(true, relaxed);
}

void VideoTimeline::stop()
{
    if (thread)
        thread->stop(0);
    running.store(false, relaxed);
    adjustCount.store(0, relaxed);
}

void VideoTimeline::setMinDepth(int frames)
{
    minDepth.store(frames, relaxed);
}

void VideoTimeline::setFrameRate(int numerator, int denominator)
{
    if (numerator == frameRateNumerator.load(relaxed) && denominator == frameRateDenominator.load(relaxed))
        return;
    const bool wasRunning = running.load(relaxed);
    if (wasRunning)
        stop();
    frameRateNumerator.store(numerator, relaxed);
    frameRateDenominator.store(denominator, relaxed);
    if (wasRunning)
        start();
}

void VideoTimeline::adjustReadPosition(long long ts)
{
    if (ts == 0)
        return;
    if (adjustCount.load(relaxed) == 0) {
        // In this order, see updateReadOffset(): who sees the offset cleared sees what to aim at.
        targetLatency.store(wrapping::subtract(systemClock(), ts), relaxed);
        readOffset.store(0, std::memory_order_release);
        adjustCount.store(1, relaxed);
    } else {
        adjustCount.fetch_add(1, relaxed); // atomic arithmetic wraps
    }
}

void VideoTimeline::updateReadOffset(long long now, long long correction,
                                     const MediaSourceBase::VideoStatus &status, OffsetUpdateMode mode)
{
    const long long age = wrapping::subtract(now, status.timestamps.last());
    const int least = minDepth.load(relaxed);
    const auto offsetFor = [&](long long latency) {
        int depth = depthForLatency(latency, age, status.frameInterval);
        if (least >= depth) {
            depth = least;
            // A source that delivers unevenly gets a frame of reserve.
            if (status.jitter > status.frameInterval / 10)
                depth = wrapping::add(depth, 1);
        }
        const long long value =
            wrapping::add(age, wrapping::multiply<long long>(depth, status.frameInterval));
        const long long corrected = wrapping::add(value, correction);
        return corrected == 0 ? 1 : corrected; // 0 stands for "not yet computed"
    };

    // The owner's thread may set a new aim while this tick computes for the old one. Stored over the clearing
    // that announces it, the old offset would stay for good, and the picture apart from its sound:
    //   1 tick: loads the offset and the old aim     2 owner: stores the new aim, clears the offset
    //   3 tick: stores the offset for the old aim
    // The exchange fails at 3 when the offset was something and is cleared now; when it had been clear
    // already, the aim is seen to have changed.
    const auto acquire = std::memory_order_acquire;
    long long current = readOffset.load(acquire);
    for (;;) {
        const long long latency = targetLatency.load(relaxed);
        const long long value = offsetFor(latency);
        if (mode == DecreaseOnly && current <= value)
            return;
        if (!readOffset.compare_exchange_strong(current, value, acquire, acquire))
            continue;
        if (targetLatency.load(relaxed) == latency)
            return;
        current = value;
    }
}

long long VideoTimeline::nextTimestamp(long long now)
{
    const MediaSourceBase::VideoStatus status = source->getVideoStatus();
    if (status.timestamps.isEmpty()) {
        readOffset.store(0, relaxed);
        tickCount.store(0, relaxed);
        return now;
    }

    const long long offset = readOffset.load(relaxed);
    const long long readPoint = wrapping::subtract(now, offset);
    const int numerator = frameRateNumerator.load(relaxed);
    const int denominator = frameRateDenominator.load(relaxed);
    if (status.timestamps.size() < 2 || status.frameInterval < minUsableInterval || numerator == 0 ||
        denominator == 0)
        return readPoint;

    const auto reanchored = [&](long long correction, OffsetUpdateMode mode) {
        updateReadOffset(now, correction, status, mode);
        return wrapping::subtract(now, readOffset.load(relaxed));
    };

    const int warmUp = warmUpTicks(numerator, denominator);
    long long counted = tickCount.load(relaxed);
    if (counted <= warmUp)
        tickCount.store(++counted, relaxed);
    if (offset == 0)
        return reanchored(0, Replace);
    if (counted <= warmUp && isWarmUpStep(counted, numerator, denominator))
        return reanchored(0, DecreaseOnly);

    const double tickInterval = denominator * 1000000.0 / numerator;
    const double ratio = static_cast<double>(status.frameInterval) / tickInterval;
    if (!beats(ratio) || !liesMidway(status.timestamps, readPoint, status.frameInterval))
        return readPoint;
    return reanchored(beatCorrection(ratio, tickInterval), Replace);
}

long long VideoTimeline::getReadOffset() const
{
    return readOffset.load(relaxed);
}

void VideoTimeline::externalTick(long long ts)
{
    if (thread)
        return;
    Q_EMIT tick(nextTimestamp(ts == 0 ? systemClock() : ts));
}
