#pragma once

#include <QString>
#include <QVector>
#include <QtGlobal>

#include <deque>
#include <vector>

/*
 * Counts what a provider hands out: how many pictures, which of them new, which missed, how old.
 *
 * Usage: setTickIntervalUs() whenever the ticks change; then one call per event, in the order of events;
 * figures() at any time.
 *
 * What is counted:
 *   frames      pictures of the source handed out
 *   distinct    those whose timestamp differs from the one handed out before
 *   repeated    those with the same timestamp: frames = distinct + repeated
 *   skipped     source frames that were never handed out although the ticks were fast enough. Between two
 *               pictures in a row, the source's frames after the first up to the second are counted: in the
 *               source's history where that reaches back far enough, else by its nominal interval. One of
 *               them is the second picture; when ticks are slower than the source, a tick step explains as
 *               many as fit into it, rounded up (25 ticks of a 60 fps source explain 3). The rest is skipped.
 *   lapped      how often the source had gone round meanwhile: its history begins after the picture handed
 * out before, so that what came in between was overwritten before it could be asked for backward    pictures
 * older than the one before idle        how often pictures stopped coming and the last one was kept: one for
 * each time, however many requests go unanswered meanwhile noSignal    no-signal pictures handed out fps
 * pictures per second while pictures came: over all stretches between two interruptions recentFps   the same
 * over the last two seconds latency     clock at the hand-out minus the frame's timestamp; for the
 * percentiles in steps of 0.1 ms, everything above 2 s counts as the maximum
 *
 * An idle report or a no-signal picture is an interruption: what the source did meanwhile is neither skipped
 * nor part of fps.
 *
 * Threads: one. Units: microseconds, timestamps and `now` on the wall clock. Cost: constant per call, plus a
 * walk of the history; 80 KB.
 */
class FrameStatistics
{
public:
    struct Figures
    {
        quint64 frames = 0;
        quint64 distinct = 0;
        quint64 repeated = 0;
        quint64 skipped = 0;
        quint64 lapped = 0;
        quint64 backward = 0;
        quint64 idle = 0;
        quint64 noSignal = 0;
        double fps = 0.0;
        double recentFps = 0.0;
        long long sourceIntervalUs = 0;
        double latencyP50Ms = 0.0;
        double latencyP95Ms = 0.0;
        double latencyP99Ms = 0.0;
        double latencyMaxMs = 0.0;
    };

    FrameStatistics();

    /* 0: not known, one source frame per tick is expected. */
    void setTickIntervalUs(double interval) { m_tickIntervalUs = interval; }

    /* `history`: timestamps that the source holds, ascending; may be empty. `sourceIntervalUs`: 0 = unknown.
     */
    void handedOut(long long now, long long timestamp, const QVector<long long> &history,
                   long long sourceIntervalUs);
    void idle(); // for every request without an answer, or only for the first
    void noSignal();
    /* Nobody asks for pictures from now on: an interruption, of which nothing is counted. */
    void paused();

    Figures figures(long long now) const;

private:
    void countSkipped(long long timestamp, const QVector<long long> &history);
    double latencyPercentileMs(double fraction) const;

    double m_tickIntervalUs = 0.0;
    Figures m_figures;
    bool m_continuing = false; // the previous event was a picture
    bool m_isIdle = false;     // it was idle()
    long long m_lastTimestamp = 0;
    long long m_lastHandOut = 0;
    long long m_streamedUs = 0;       // sum of the stretches between interruptions
    quint64 m_streamedSteps = 0;      // steps between pictures in them
    std::deque<long long> m_recent;   // hand-outs of the last two seconds
    std::vector<quint32> m_latencies; // how many, in steps of 0.1 ms; the last one: and above
    long long m_latencyMaxUs = 0;
};
