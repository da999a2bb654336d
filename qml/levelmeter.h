#pragma once

#include <zevqt-mm/audiolevel.h>

#include <QVector>

/*
 * What a meter shows of a sound's levels: RMS as it is, the peak falling slowly, and its highest point held.
 *
 * RMS and peak rise at once and fall by 40 dB a second, so that the eye can follow; the highest peak stands
 * for 1.5 s and then falls by 20 dB a second. While no levels come, everything falls: sound that has stopped
 * does not stand still on the meter.
 *
 * Usage: update() with the levels of a block, also with none; channels() to draw.
 * Threads: one. Units: decibels relative to full scale, -120 for silence; `now` in microseconds, monotonic.
 */
class LevelMeter
{
public:
    struct Channel
    {
        double rms;
        double peak;
        double hold;
    };

    void update(qint64 now, const QVector<AudioLevel> &levels);
    const QVector<Channel> &channels() const { return m_channels; }

private:
    QVector<Channel> m_channels;
    QVector<qint64> m_held; // when the highest peak was
    qint64 m_updated = 0;
    qint64 m_received = 0; // when there were levels last
};
