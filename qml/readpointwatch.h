#pragma once

#include <QtGlobal>

/*
 * Notices that the pictures are asked for where the source has none.
 *
 * The timeline asks for a moment at a fixed distance behind the clock. A source whose timestamps are shifted
 * all at once (its clock was set, and ours was not) goes on publishing, but somewhere else: every request
 * comes back empty, and nothing in the timeline looks for the source again while it has frames. Then the
 * read point has to be computed anew.
 *
 * Usage: look() at even intervals of about half a second. When it answers true, have the read point computed
 * anew; it does not answer so again before two more looks.
 *
 * Threads: one. Units: timestamps in microseconds; the counters only ever rise.
 */
class ReadPointWatch
{
public:
    /* `pictures`, `empty`: requests answered with and without one so far. `newest`: timestamp of the source's
     * newest frame, 0 without one. */
    bool look(quint64 pictures, quint64 empty, qint64 newest);

private:
    quint64 m_pictures = 0;
    quint64 m_empty = 0;
    qint64 m_newest = 0;
    int m_inVain = 0; // looks in a row with frames there and none had
};
