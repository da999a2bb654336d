#include "tonecheck.h"

#include <cmath>

std::vector<double> channelOf(const int16_t *samples, size_t frames, int channels, int channel)
{
    std::vector<double> result(frames);
    for (size_t i = 0; i < frames; ++i)
        result[i] = samples[i * static_cast<size_t>(channels) + static_cast<size_t>(channel)];
    return result;
}

double frequencyOf(const std::vector<double> &samples, int rate)
{
    double first = -1;
    double last = -1;
    int periods = -1;
    for (size_t i = 1; i < samples.size(); ++i) {
        if (samples[i - 1] < 0 && samples[i] >= 0) {
            last = static_cast<double>(i) - samples[i] / (samples[i] - samples[i - 1]);
            if (first < 0)
                first = last;
            ++periods;
        }
    }
    return periods < 1 ? 0 : periods * rate / (last - first);
}

double levelAgainst(const std::vector<double> &samples, double amplitude)
{
    double squares = 0;
    for (const double sample : samples)
        squares += sample * sample;
    return 10 * std::log10(squares / static_cast<double>(samples.size()) / (amplitude * amplitude / 2));
}

std::vector<size_t> seamsOf(const std::vector<double> &samples, int rate, double frequency, double tolerance)
{
    const double factor = 2 * std::cos(2 * M_PI * frequency / rate);
    std::vector<size_t> seams;
    size_t clearFrom = 0; // a seam shows in the samples behind it too
    for (size_t i = 2; i < samples.size(); ++i) {
        if (std::abs(samples[i] - factor * samples[i - 1] + samples[i - 2]) <= tolerance)
            continue;
        if (i >= clearFrom)
            seams.push_back(i);
        clearFrom = i + 50;
    }
    return seams;
}
