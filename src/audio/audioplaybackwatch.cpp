#include <zevqt-mm/audioplaybackwatch.h>

namespace {

const qint64 second = 1000000;
const qint64 firstBackoff = second;
const qint64 longestBackoff = 30 * second;
const qint64 healthyAfter = 60 * second; // an attempt that lasted so long has helped
const qint64 stuckAfter = 3 * second;    // reads are never so far apart, whatever the device's buffer
const qint64 lateAfter =
    6 * second; // a sink that was asleep may begin two seconds late, on a busy machine more
const qint64 awayAfter = second;
const qint64 dryReserve = 1000;
const qint64 healthyReserve = 20000;
const int dryWindowsToRestart = 5;

} // namespace

void AudioPlaybackWatch::begin(qint64 now)
{
    // What ran dry had a reserve before: the start before has helped, however fast the source loses it.
    if (backoff == 0 || now - started >= healthyAfter || lastReason == Dry)
        backoff = firstBackoff;
    else
        backoff = qMin(2 * backoff, longestBackoff);
    started = now;
    lastPosition = 0;
    lastMove = now;
    newestThen = 0;
    windowStart = now;
    windowReserve = -1;
    lastReserve = -1;
    dryWindows = 0;
    wasHealthy = false;
    lastNews = now;
    isSourceBack = isFilling(); // a start in between is late by the buffer
    lastReason = None;
}

void AudioPlaybackWatch::setDelay(qint64 newDelay)
{
    delay = newDelay;
}

bool AudioPlaybackWatch::mayRestart(qint64 now) const
{
    return backoff == 0 || now - started >= backoff;
}

bool AudioPlaybackWatch::check(qint64 now, bool isActive, qint64 readPosition, qint64 newest, qint64 reserve)
{
    const Reason reason = findReason(now, isActive, readPosition, newest, reserve);
    lastReason = mayRestart(now) ? reason : None;
    return lastReason != None;
}

AudioPlaybackWatch::Reason AudioPlaybackWatch::findReason(qint64 now, bool isActive, qint64 readPosition,
                                                          qint64 newest, qint64 reserve)
{
    followSource(now, newest);
    if (!isActive)
        return isFilling() ? None : Stopped;
    if (readPosition != lastPosition || newest == 0 || newest == newestThen) {
        // It moves, or there is nothing new to move to.
        if (readPosition != lastPosition || newest == 0)
            newestThen = newest;
        lastPosition = readPosition;
        lastMove = now;
    } else if (now - lastMove >= (lastMove - started < second ? lateAfter : stuckAfter)) {
        return Stuck;
    }

    if (reserve >= 0 && newest > 0 && !isSourceAway)
        windowReserve = windowReserve < 0 ? reserve : qMin(windowReserve, reserve);
    if (now - windowStart >= second)
        closeWindow(now);
    if (isSourceBack && !isSourceAway && !isFilling())
        return SourceBack;
    return dryWindows >= dryWindowsToRestart ? Dry : None;
}

// Away is only what was seen to be: whoever does not look for a second has missed nothing. Before the first
// start there is nothing to miss.
void AudioPlaybackWatch::followSource(qint64 now, qint64 newest)
{
    if (newest == 0 || newest == lastNewest) {
        const bool isNew = newest == 0 && backoff == 0;
        isSourceAway = isSourceAway || isNew || now - lastNews >= awayAfter;
        return;
    }
    if (isSourceAway) {
        isSourceBack = true;
        backFrom = newest;
    }
    backFrom = qMin(backFrom, newest); // its clock may have been set back
    isSourceAway = false;
    lastNewest = newest;
    lastNews = now;
}

// There is nothing to read yet a delay behind the newest: the output's buffer would be filled with silence,
// by which everything after that is late.
bool AudioPlaybackWatch::isFilling() const
{
    return isSourceBack && !isSourceAway && lastNewest - backFrom < delay;
}

// Only a reserve that was there once can run out: where the delay is too short for the device, starting anew
// would not help. The seconds in which it ran out need not follow each other. With long blocks it is the read
// just before the next block that finds too little, and it may be seconds until a read comes just then again.
void AudioPlaybackWatch::closeWindow(qint64 now)
{
    lastReserve = windowReserve;
    windowReserve = -1;
    windowStart = now;
    if (lastReserve > healthyReserve) {
        wasHealthy = true;
        dryWindows = 0;
    } else if (wasHealthy && lastReserve >= 0 && lastReserve <= dryReserve) {
        ++dryWindows;
    }
}
