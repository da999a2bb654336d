#ifndef ZEV_TESTS_BEEPS_H
#define ZEV_TESTS_BEEPS_H

#include "monitorrecorder.h"

#include <cstddef>
#include <cstdint>
#include <vector>

/*!
 * When the beeps of a recording were heard: wall-clock microseconds, in order. They begin at full amplitude,
 * after silence of half a second. Those of which the recorder does not know it are left out.
 *
 * `rate`: that of the recording, which has been stopped.
 */
inline std::vector<double> beepsOf(const MonitorRecorder &recorder, int rate)
{
    std::vector<double> beeps;
    const std::vector<int16_t> &samples = recorder.samples();
    int quiet = 0;
    for (std::size_t i = 0; i < samples.size(); ++i) {
        if (samples[i] < 3000) {
            ++quiet;
            continue;
        }
        const double heardAt = quiet > rate / 2 ? recorder.heardAt(i) : 0.0;
        if (heardAt > 0.0)
            beeps.push_back(heardAt);
        quiet = 0;
    }
    return beeps;
}

#endif
