#ifndef ZEVQTMM_AUDIOPLAYBACKWATCH_H
#define ZEVQTMM_AUDIOPLAYBACKWATCH_H

#include <zevqt-mm/zevqtmmglobal.h>

#include <QtCore/QtGlobal>

/*!
 * Decides when a player that is meant to play should be started anew.
 *
 * A player stops by itself when the clock is set or the device fails; a device that was taken away may also
 * leave it playing into nothing; and a source whose clock is slower than the device's lets what a read leaves
 * in it (the reserve) run out, from when on reads end in a little silence. A source that was away for a
 * second or more is read from a full delay behind, with the output's buffer full of silence: the sound is
 * later than before by that buffer. Starting anew mends all four, the last one not before the source has as
 * much sound as the delay: until then the output's buffer is filled with silence once more.
 *
 * Usage: setDelay() to the player's delay; begin() whenever playing was started; check() a few times a second
 * with what the player and the source say, and start again when it answers true. It knows no clock and no
 * player.
 *
 *     const qint64 newest = source->getAudioLastTimestamp();
 *     if (watch.check(monotonicUs, !player->isStopped(), player->getReadPosition(), newest,
 *                     player->getReserve())) {
 *         player->start(source, fps);
 *         watch.begin(monotonicUs);
 *     }
 *
 * Threads: reentrant. Units: microseconds; `now` on a monotonic clock, the other timestamps on the wall
 * clock.
 *
 * A device that took its first sound and then nothing more is given six seconds: starting anew would make it
 * begin late once more. Attempts are a second apart at first, and farther and farther, up to half a minute,
 * while they do not help.
 */
class ZEVQTMM_EXPORT AudioPlaybackWatch
{
public:
    /*! Why it asks for a new start. */
    enum Reason {
        None,       // it does not
        Stopped,    // the player does not play
        Stuck,      // the device takes no more sound
        Dry,        // the reserve has run out
        SourceBack, // the source was away and has returned
    };

    /*!
     * How far behind its newest sound the source is read, or the device's buffer where that is longer. A
     * source that has come, or is back, is played when it has told of so much.
     */
    void setDelay(qint64 delay);
    /*! Playing was started, or an attempt failed. */
    void begin(qint64 now);
    /*!
     * True when it should be started anew. `isActive`: not stopped; a device whose buffer is empty for a
     * moment is. `reserve`: what the last read left, however long ago that was; -1: not known.
     */
    bool check(qint64 now, bool isActive, qint64 readPosition, qint64 newest, qint64 reserve);
    /*! Of the last check(); None since begin(). */
    Reason reason() const { return lastReason; }
    /*! Smallest reserve in the last whole second; -1 while it is not known. */
    qint64 reserve() const { return lastReserve; }

private:
    void followSource(qint64 now, qint64 newest);
    bool isFilling() const;
    void closeWindow(qint64 now);
    bool mayRestart(qint64 now) const;
    Reason findReason(qint64 now, bool isActive, qint64 readPosition, qint64 newest, qint64 reserve);

    qint64 delay = 200000; // the player's, unless it is told another one
    qint64 started = 0;
    qint64 backoff = 0;
    qint64 lastPosition = 0;
    qint64 lastMove = 0; // when the read position moved last
    qint64 newestThen = 0;
    qint64 windowStart = 0;
    qint64 windowReserve = -1;
    qint64 lastReserve = -1;
    int dryWindows = 0;
    bool wasHealthy = false;
    qint64 lastNewest = 0;
    qint64 lastNews = 0; // when the source last had something new
    qint64 backFrom = 0; // the newest when it came back
    bool isSourceAway = false;
    bool isSourceBack = false;
    Reason lastReason = None;
};

#endif
