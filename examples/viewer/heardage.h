#pragma once

#include <QtGlobal>

#include <deque>

/*
 * How long ago the sound that is being heard was new.
 *
 * The player's reports are right when playing begins, but they are the first timestamp that was read and what
 * the device has processed since: they know nothing of silence that was inserted and of a read position that
 * jumped, and their smoothing keeps the age that there was at first although clocks differ. So the reports of
 * the beginning tell how much lies between reading and hearing (the buffers, which do not change), and from
 * then on the read position tells the rest:
 *
 *     heard                        read position                      now
 *       |---------- buffered ----------|--------- behind ---------------|
 *       |---------------------------- age ------------------------------|
 *
 * What is read ahead in blocks makes `behind` a saw-tooth; its upper end, just before a block, is meant. A
 * single report may be off by what the device takes at once: `buffered` comes from the median of the first
 * second in which reading goes on steadily (a device that was asleep takes its first sound and then nothing
 * for a while).
 *
 * Usage: restart() whenever playing starts; report() for every AudioPlayer::audioPlayed(); age() when
 * isKnown(). A jump before `buffered` is known spoils that: isSpoiled(), and playing is to be started again.
 * Threads: one. Units: microseconds; `now` and timestamps on the wall clock.
 */
class HeardAge
{
public:
    struct Report
    {
        qint64 now;
        qint64 heard;        // as reported; 0: nothing yet
        qint64 readPosition; // of the player at this moment
        qint64 silence;      // likewise, since whenever
        int jumps;
    };

    /* `jumps`: the reader's count at this moment. */
    void restart(int jumps = 0);
    void report(const Report &report);

    /* There were reports for a second, no silence, and the last report is no older than a second. */
    bool isKnown(qint64 now) const;
    bool isSpoiled() const { return m_isSpoiled; }
    /* 0 while not known. */
    qint64 age() const;

private:
    qint64 behind() const;

    std::deque<Report> m_reports; // of the last second
    qint64 m_first = 0;           // time of the first since restart()
    qint64 m_buffered = -1;       // -1: not known yet
    int m_jumps = 0;              // at restart()
    bool m_isSpoiled = false;
};
