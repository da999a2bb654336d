#include "tonecheck.h"

#include <cmath>
#include <cstdlib>

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
    return periods < 1 ? 0 : static_cast<double>(periods) * rate / (last - first);
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

namespace {

// A seam shows up to a resampler's filter around it.
const size_t filterReach = 150;

// Phase of the sine in radians, as if it had begun at sample 0: by least squares.
double phaseOf(const std::vector<double> &samples, double radiansPerSample, size_t first, size_t length)
{
    double ss = 0, cc = 0, sc = 0, xs = 0, xc = 0;
    for (size_t i = first; i < first + length; ++i) {
        const double s = std::sin(radiansPerSample * static_cast<double>(i));
        const double c = std::cos(radiansPerSample * static_cast<double>(i));
        ss += s * s;
        cc += c * c;
        sc += s * c;
        xs += samples[i] * s;
        xc += samples[i] * c;
    }
    const double determinant = ss * cc - sc * sc;
    return std::atan2((xc * ss - xs * sc) / determinant, (xs * cc - xc * sc) / determinant);
}

} // namespace

double lagBetween(const std::vector<double> &samples, int rate, double frequency, size_t first, size_t second,
                  size_t length)
{
    const double radiansPerSample = 2 * M_PI * frequency / rate;
    const double change = phaseOf(samples, radiansPerSample, second, length) -
                          phaseOf(samples, radiansPerSample, first, length);
    return -std::remainder(change, 2 * M_PI) / (2 * M_PI * frequency);
}

double ExpectedSeams::intervalSeconds() const
{
    const auto cut = static_cast<double>(int64_t(framesPerRead) * 1000000 % sourceRate);
    return 1e6 / cut * framesPerRead / sourceRate;
}

std::vector<ToneFault> ExpectedSeams::judge(const std::vector<double> &samples, int rate, double frequency,
                                            const std::vector<size_t> &seams) const
{
    const auto window = static_cast<size_t>(rate / 10);
    const double spread = static_cast<double>(framesPerRead) / sourceRate + 0.002;
    std::vector<ToneFault> faults;
    double total = 0;
    bool isAfterFault = false;
    for (size_t i = 0; i < seams.size(); ++i) {
        const double at = static_cast<double>(seams[i]) / rate;
        const double distance = i > 0 ? at - static_cast<double>(seams[i - 1]) / rate : 0;
        const bool isEarly = i > 0 && !isAfterFault && distance < intervalSeconds() - spread;
        isAfterFault = false;
        std::string what;
        if (isEarly || distance > intervalSeconds() + spread) {
            what = "is " + std::to_string(distance) + " s after the one before";
        } else if (seams[i] >= window + filterReach && seams[i] + window + filterReach <= samples.size()) {
            const double lag =
                sourceRate * lagBetween(samples, rate, frequency, seams[i] - window - filterReach,
                                        seams[i] + filterReach, window);
            if (std::abs(lag - 1) > 0.1)
                what = "is of " + std::to_string(lag) + " samples";
            total += 1;
        } // else too near to an end to be measured
        if (!what.empty()) {
            faults.push_back({"seam at " + std::to_string(at) + " s " + what, at});
            isAfterFault = true;
        }
    }
    if (!faults.empty())
        return faults;

    const double seconds = static_cast<double>(samples.size()) / rate;
    const auto found = static_cast<double>(seams.size());
    if (std::abs(found - seconds / intervalSeconds()) > 1 + spread / intervalSeconds())
        faults.push_back({std::to_string(seams.size()) + " seams instead of one in " +
                              std::to_string(intervalSeconds()) + " s",
                          -1});
    // What came and went without a seam would show here.
    const size_t head =
        seams.empty() || seams.front() >= window + filterReach ? 0 : seams.front() + filterReach;
    size_t tail = samples.size() - window;
    if (!seams.empty() && seams.back() + window + filterReach > samples.size())
        tail = seams.back() - window - filterReach;
    const double lag = sourceRate * lagBetween(samples, rate, frequency, head, tail, window);
    if (std::abs(std::remainder(lag - total, sourceRate / frequency)) > 0.2)
        faults.push_back({"the end is " + std::to_string(lag) +
                              " samples late but for whole periods, the seams " + std::to_string(total),
                          -1});
    return faults;
}
