#pragma once

#include <QtGlobal>

#include <vector>

/*
 * Collects how far the picture was from its sound, and tells the percentiles.
 *
 * Threads: one. Units: microseconds in, milliseconds out; positive: the picture is ahead of its sound.
 * Steps of 0.5 ms, at most 2 s to either side; constant cost and memory however long it runs.
 */
class OffsetStatistics
{
public:
    OffsetStatistics();
    void add(qint64 offsetUs);

    quint64 count() const { return m_count; }
    /* Of the offsets with their sign. 0 without any. */
    double medianMs() const;
    /* Of their sizes: this share of the pictures was no farther from its sound. 0 without any. */
    double sizePercentileMs(double share) const;

private:
    std::vector<quint32> m_steps;
    quint64 m_count = 0;
};
