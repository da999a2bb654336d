#include "astats.h"

#include <audio-level/audio_level.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <sstream>
#include <tuple>
#include <vector>

// The same source for processors with fewer vectors: without any of its own, and with those only that every
// processor of the architecture has.
extern "C" int av_audio_level_calc_vectors0(const void *, size_t, long, int, AudioLevelCalcResult *);
extern "C" int av_audio_level_calc_vectors1(const void *, size_t, long, int, AudioLevelCalcResult *);

namespace {

const float floorDb = -120.0f;

using Calculation = decltype(&av_audio_level_calc);
const Calculation calculations[] = {av_audio_level_calc, av_audio_level_calc_vectors0,
                                    av_audio_level_calc_vectors1};

using Samples = std::vector<std::int16_t>;

AudioLevelCalcResult levelsOf(const Samples &samples, int channels,
                              Calculation calculate = av_audio_level_calc)
{
    AudioLevelCalcResult result;
    EXPECT_EQ(
        calculate(samples.data(), samples.size() / static_cast<std::size_t>(channels), channels, 1, &result),
        0);
    return result;
}

// Different audio on every channel: a sine of falling level with noise of rising level on top.
Samples audio(int channels, std::size_t frames)
{
    std::mt19937 random(static_cast<unsigned>(channels));
    std::uniform_real_distribution<double> noise(-1.0, 1.0);
    Samples samples;
    samples.reserve(frames * static_cast<std::size_t>(channels));
    for (std::size_t i = 0; i < frames; ++i) {
        for (int c = 0; c < channels; ++c) {
            const double sine = std::sin(2 * M_PI * (100.0 * (c + 1)) * static_cast<double>(i) / 48000.0);
            const double value = 26000.0 * std::pow(0.5, c) * sine + 700.0 * c * noise(random);
            samples.push_back(static_cast<std::int16_t>(std::lround(std::clamp(value, -32768.0, 32767.0))));
        }
    }
    return samples;
}

class AudioLevelChannels : public testing::TestWithParam<std::tuple<int, int>>
{
protected:
    int channels() const { return std::get<0>(GetParam()); }
    Calculation calculation() const { return calculations[std::get<1>(GetParam())]; }
};

TEST_P(AudioLevelChannels, AgreeWithAstats)
{
    const int channels = this->channels();
    // No whole number of vectors, so that the odd end counts too.
    const Samples samples = audio(channels, 48000 + 13);
    const AstatsLevels expected = astatsOf(samples, channels, 48000);
    ASSERT_EQ(expected.rms.size(), static_cast<std::size_t>(channels));
    ASSERT_EQ(expected.peak.size(), static_cast<std::size_t>(channels));
    const AudioLevelCalcResult levels = levelsOf(samples, channels, calculation());
    for (int c = 0; c < channels; ++c) {
        EXPECT_NEAR(levels.rms[c], expected.rms[static_cast<std::size_t>(c)], 0.01) << "channel " << c;
        EXPECT_NEAR(levels.max[c], expected.peak[static_cast<std::size_t>(c)], 0.01) << "channel " << c;
    }
    for (int c = channels; c < AUDIO_LEVEL_CHANNELS_MAX; ++c) {
        EXPECT_EQ(levels.rms[c], floorDb);
        EXPECT_EQ(levels.max[c], floorDb);
    }
}

// Every length around the width of a row, against the definition; every sample must count, once, for its
// channel.
TEST_P(AudioLevelChannels, EveryLengthAndAlignmentCounts)
{
    const int channels = this->channels();
    const Samples samples = audio(channels, 200);
    std::vector<char> unaligned(samples.size() * sizeof(std::int16_t) + 64);
    for (std::size_t frames = 1; frames < 200; ++frames) {
        const std::size_t shift = 2 * (frames % 9);
        std::memcpy(unaligned.data() + shift, samples.data(), samples.size() * sizeof(std::int16_t));
        AudioLevelCalcResult levels;
        ASSERT_EQ(calculation()(unaligned.data() + shift, frames, channels, 1, &levels), 0);
        for (int c = 0; c < channels; ++c) {
            double squares = 0;
            int peak = 0;
            for (std::size_t i = 0; i < frames; ++i) {
                const int sample =
                    samples[i * static_cast<std::size_t>(channels) + static_cast<std::size_t>(c)];
                squares += static_cast<double>(sample) * sample;
                peak = std::max(peak, std::abs(sample));
            }
            const double rms = std::sqrt(squares / static_cast<double>(frames));
            ASSERT_NEAR(levels.rms[c], std::max(-120.0, 20 * std::log10(rms / 32768)), 1e-4)
                << frames << " frames, channel " << c;
            ASSERT_NEAR(levels.max[c], std::max(-120.0, 20 * std::log10(peak / 32768.0)), 1e-4)
                << frames << " frames, channel " << c;
        }
    }
}

// The samples that sums overflow with, if they can: every one of full scale, and none else, for longer than
// any sum is kept; among them a few that a single wrong carry would drown.
TEST_P(AudioLevelChannels, FullScaleDoesNotOverflow)
{
    const std::size_t frames = 1600000;
    const auto width = static_cast<std::size_t>(channels());
    Samples samples(frames * width, std::numeric_limits<std::int16_t>::min());
    for (std::size_t i = 0; i < frames; ++i)
        samples[i * width + width - 1] = static_cast<std::int16_t>(i % 3 ? 0 : 32767);
    const AudioLevelCalcResult levels = levelsOf(samples, channels(), calculation());
    for (std::size_t c = 0; c + 1 < width; ++c) {
        EXPECT_EQ(levels.rms[c], 0.0f) << "channel " << c;
        EXPECT_EQ(levels.max[c], 0.0f) << "channel " << c;
    }
    const double mean = 32767.0 * 32767.0 * ((frames + 2) / 3) / static_cast<double>(frames);
    EXPECT_NEAR(levels.rms[width - 1], 10 * std::log10(mean / 32768 / 32768), 1e-5);
    EXPECT_NEAR(levels.max[width - 1], -0.000265, 1e-6);
}

INSTANTIATE_TEST_SUITE_P(OneToEight, AudioLevelChannels,
                         testing::Combine(testing::Range(1, 9), testing::Range(0, 3)));

TEST(AudioLevel, FullScaleIsZero)
{
    const AudioLevelCalcResult levels = levelsOf({-32768, 32767, -32768, 32767}, 2);
    EXPECT_EQ(levels.rms[0], 0.0f);
    EXPECT_EQ(levels.max[0], 0.0f);
    EXPECT_NEAR(levels.rms[1], -0.000265, 1e-6);
    EXPECT_NEAR(levels.max[1], -0.000265, 1e-6);
}

TEST(AudioLevel, TheSmallestSampleIsAboveTheFloor)
{
    const AudioLevelCalcResult levels = levelsOf({0, 1, 0, -1}, 2);
    EXPECT_EQ(levels.rms[0], floorDb);
    EXPECT_EQ(levels.max[0], floorDb);
    EXPECT_NEAR(levels.rms[1], -90.309, 1e-3);
    EXPECT_NEAR(levels.max[1], -90.309, 1e-3);
}

TEST(AudioLevel, SilenceIsTheFloor)
{
    const AudioLevelCalcResult levels = levelsOf(Samples(8 * 4800, 0), 8);
    for (int c = 0; c < 8; ++c) {
        EXPECT_EQ(levels.rms[c], floorDb);
        EXPECT_EQ(levels.max[c], floorDb);
    }
}

TEST(AudioLevel, NearSilenceStopsAtTheFloor)
{
    Samples samples(4800000, 0);
    samples[4000000] = 1; // -157 dB in the mean
    const AudioLevelCalcResult levels = levelsOf(samples, 1);
    EXPECT_EQ(levels.rms[0], floorDb);
    EXPECT_NEAR(levels.max[0], -90.309, 1e-3);
}

TEST(AudioLevel, NoFramesAreTheFloor)
{
    AudioLevelCalcResult levels;
    std::memset(&levels, 0x55, sizeof levels);
    ASSERT_EQ(av_audio_level_calc(nullptr, 0, 2, 1, &levels), 0);
    for (int c = 0; c < 8; ++c) {
        EXPECT_EQ(levels.rms[c], floorDb);
        EXPECT_EQ(levels.max[c], floorDb);
    }
}

// Loud audio first, then a long quiet part: an accumulator of single precision would stand still in it.
TEST(AudioLevel, LongBlocksKeepTheirQuietParts)
{
    const std::size_t loud = 480000;
    const std::size_t quiet = 30 * 480000;
    Samples samples(loud, 30000);
    samples.insert(samples.end(), quiet, 40);
    const double mean = (30000.0 * 30000.0 * loud + 40.0 * 40.0 * quiet) / static_cast<double>(loud + quiet);
    for (const Calculation calculate : calculations)
        EXPECT_NEAR(levelsOf(samples, 1, calculate).rms[0], 10 * std::log10(mean / 32768 / 32768), 1e-5);
}

struct BadCall
{
    const char *what;
    bool data;
    std::size_t frames;
    long channels;
    int mode;
    bool result;
};

TEST(AudioLevel, BadArgumentsAreRefusedAndNothingIsWritten)
{
    const Samples samples(9 * 10, 1000);
    const BadCall calls[] = {
        {"nine channels", true, 10, 9, 1, true},
        {"a great many channels", true, 10, std::numeric_limits<long>::max(), 1, true},
        {"fewer than no channels", true, 10, -1, 1, true},
        {"no data", false, 10, 2, 1, true},
        {"mode 0", true, 10, 2, 0, true},
        {"mode 2", true, 10, 2, 2, true},
        {"no result", true, 10, 2, 1, false},
    };
    for (const BadCall &call : calls) {
        AudioLevelCalcResult levels;
        AudioLevelCalcResult untouched;
        std::memset(&levels, 0x55, sizeof levels);
        std::memset(&untouched, 0x55, sizeof untouched);
        EXPECT_EQ(av_audio_level_calc(call.data ? samples.data() : nullptr, call.frames, call.channels,
                                      call.mode, call.result ? &levels : nullptr),
                  -EINVAL)
            << call.what;
        EXPECT_EQ(std::memcmp(&levels, &untouched, sizeof levels), 0) << call.what;
    }
}

TEST(AudioLevel, NoChannelsSucceed)
{
    AudioLevelCalcResult levels;
    EXPECT_EQ(av_audio_level_calc(nullptr, 10, 0, 1, &levels), 0);
}

TEST(AudioLevel, TheRecordIsEightAndEightFloats)
{
    EXPECT_EQ(sizeof(AudioLevelCalcResult), 64u);
    EXPECT_EQ(offsetof(AudioLevelCalcResult, rms), 0u);
    EXPECT_EQ(offsetof(AudioLevelCalcResult, max), 32u);
}

} // namespace
