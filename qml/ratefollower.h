#pragma once

/*
 * Decides how many ticks a second a source deserves: its own rate, up to the screen's.
 *
 * Ticks that are a little off the source's rate repeat or skip a picture every few seconds, and every change
 * of the ticks restarts them; so a rate close to a usual one is taken as that, a large change is followed at
 * once, and a small one only when it lasts.
 *
 * Threads: one. Units: microseconds, ticks a second.
 */
class RateFollower
{
public:
    /* `screenRate`: pictures a second that the screen shows, 0 for no limit. */
    explicit RateFollower(double screenRate = 0.0) : m_screenRate(screenRate) {}

    /* To be told of the source's frame interval about twice a second. Returns the new rate, 0 for no change.
     */
    double update(long long sourceIntervalUs);

    double rate() const { return m_rate; }

    /* The rate for an interval: near a usual rate that one. */
    static double rateOf(long long sourceIntervalUs);

private:
    const double m_screenRate;
    double m_rate = 0.0;
    int m_drifted = 0; // updates in a row with a small difference
};
