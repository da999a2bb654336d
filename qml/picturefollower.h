#pragma once

#include <QtGlobal>

#include <deque>

/*
 * Decides which age the picture is to have so that it comes with its sound, and when the timeline has to be
 * told again.
 *
 * The timeline takes the first report after a stop, and truncates to whole frames: it is told of half a
 * frame interval more than the sound's age, which puts the picture within half an interval of its sound. It
 * is told again, for which it has to be stopped, when the sound was started anew, and when the pictures that
 * were handed out have been farther than that from their sound for three seconds: clocks differ, and 200 ppm
 * are a frame of 25 a second in less than four minutes. The picture moves then, so the moves are ten seconds
 * apart after the first one, and farther and farther while they do not help (pictures that are not shown at
 * their source's rate may not come to it). Sound whose age has changed by as much since the last move (after
 * a gap, a jump) is followed after those three seconds, whenever that move was.
 *
 * A picture cannot be older than what the store holds: beyond that it is as old as there are frames, two of
 * them kept as a margin, and shortfall() says by how much its sound comes later.
 *
 * Usage: soundStarted(); handedOut() for every picture, update() a few times a second, both while the
 * sound's age is known. When update() answers true, stop and start the timeline. target() goes to
 * adjustReadPosition() with every report of the player, so that the timeline has it again after any other
 * stop.
 *
 * Threads: one. Units: microseconds, `now` on a monotonic clock.
 */
class PictureFollower
{
public:
    struct Store
    {
        qint64 newestAge;   // clock minus the newest timestamp
        qint64 historySpan; // newest minus oldest timestamp
        qint64 interval;    // 0: not known
    };

    /* The next update() asks for a stop. */
    void soundStarted() { m_isNew = true; }
    /* `pictureAge`: clock minus its timestamp. */
    void handedOut(qint64 now, qint64 pictureAge);
    bool update(qint64 now, qint64 soundAge, const Store &store);

    bool hasTarget() const { return m_target > 0; }
    /* Age that the timeline is to be told; 0: not known. */
    qint64 target() const { return m_target; }
    /* How much later than the picture the sound is because the store's history is too short; 0: it is not. */
    qint64 shortfall() const { return m_shortfall; }

private:
    struct Picture
    {
        qint64 at;
        qint64 age;
    };
    bool isOff(qint64 now, qint64 wantedAge, qint64 allowed);

    bool m_isNew = true;
    qint64 m_target = 0;
    qint64 m_shownThen = 0; // the age that the target was made of
    qint64 m_shortfall = 0;
    qint64 m_told = 0;     // when the target was set
    qint64 m_apart = 0;    // how long to leave it then
    qint64 m_offSince = 0; // since when pictures have been off; 0: they are not
    std::deque<Picture> m_pictures;
};
