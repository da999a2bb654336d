#ifndef ZEVQTMM_AUDIOPLAYBACKAGE_H
#define ZEVQTMM_AUDIOPLAYBACKAGE_H

#include <zevqt-mm/zevqtmmglobal.h>

#include <QtCore/QtGlobal>

#include <deque>

/*!
 * Finds out how long ago the sound that is being heard was new: the age that a picture must have to come with
 * it.
 *
 * AudioPlayer::audioPlayed() tells the time by what the output has processed since the first sample. That is
 * right to a few periods when all goes well; it knows nothing of silence that was inserted, of a read
 * position that jumped, or of a device that began late, each of which may be hundreds of milliseconds. This
 * class looks at the player's device position instead: the timestamp of the next sample that the device will
 * take out of the output's buffer. A device takes sound in portions, the next one when the last one is about
 * to be through:
 *
 *     taken      |-- portion --|-- portion --|-- portion --|
 *     heard      |             |             |
 *                              ^ here the portion ends that was taken before, so what is heard is the device
 *                                position of just before
 *
 * So the position is sampled often, and whenever the device takes something, the time between the samples
 * around that less the position of the earlier one is the age. The median of three seconds counts.
 *
 * Usage: begin() when playing was started; sample() every few milliseconds while it plays; age() when
 * isKnown(). It knows no clock and no player.
 *
 *     QTimer timer;
 *     timer.setTimerType(Qt::PreciseTimer);
 *     connect(&timer, &QTimer::timeout, [&] { age.sample(wallClockUs, player->getDevicePosition()); });
 *     timer.start(AudioPlaybackAge::sampleIntervalMs);
 *     connect(player, &AudioPlayer::audioPlayed, [&](qint64) {
 *         if (age.isKnown(wallClockUs)) // only the first one after a stop of the timeline counts
 *             timeline->adjustReadPosition(wallClockUs - age.age() - frameInterval / 2);
 *     });
 *
 * Threads: reentrant. Units: microseconds, on the wall clock, which the timestamps are on.
 *
 * Limits: latency that the device has beyond its portions is not seen: nobody reports it. A sound server asks
 * the output for a period at a time and keeps to itself what it took beyond that; the player's position tells
 * what is made of it.
 */
class ZEVQTMM_EXPORT AudioPlaybackAge
{
public:
    /*!
     * Not a fraction of the 20 ms in which devices and sound servers like to work: a sample would always
     * come at the same place within a portion.
     */
    static constexpr int sampleIntervalMs = 7;

    /*! Forgets everything: playing was started anew. */
    void begin();
    /*! `devicePosition`: AudioPlayer::getDevicePosition() at this moment; 0 for none. */
    void sample(qint64 now, qint64 devicePosition);

    /*!
     * The device has been taking sound for a second and did so in the last one, and the ages found agree:
     * they do not for a while after a gap or a jump.
     */
    bool isKnown(qint64 now) const;
    /*! 0 while there is none. */
    qint64 age() const { return told; }

private:
    struct Portion
    {
        qint64 at;
        qint64 age;
    };
    void judge();

    std::deque<Portion> portions; // of the last seconds
    qint64 lastNow = 0;
    qint64 lastPosition = 0;
    qint64 told = 0;
    qint64 spread = 0; // of the middle half
};

#endif
