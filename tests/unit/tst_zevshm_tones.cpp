#include <zevshm-pattern/tones.h>

#include <gtest/gtest.h>

#include <cmath>
#include <set>
#include <vector>

using namespace zevshm;

namespace {

// Amplitude of one frequency in one channel (Goertzel).
double amplitude(const std::vector<int16_t> &samples, int channels, int channel, int hz, int rate)
{
    const double w = 2 * M_PI * hz / rate;
    double s1 = 0;
    double s2 = 0;
    const size_t frames = samples.size() / static_cast<size_t>(channels);
    for (size_t i = 0; i < frames; ++i) {
        const double s = samples[i * static_cast<size_t>(channels) + static_cast<size_t>(channel)] +
                         2 * std::cos(w) * s1 - s2;
        s2 = s1;
        s1 = s;
    }
    const double power = s1 * s1 + s2 * s2 - 2 * std::cos(w) * s1 * s2;
    return 2 * std::sqrt(power) / static_cast<double>(frames);
}

} // namespace

TEST(Tones, everyChannelHasItsOwnTone)
{
    constexpr int channels = 8;
    const ToneGenerator generator(48000, channels);
    std::vector<int16_t> second(48000 * channels);
    generator.tones(second.data(), 48000, 0);
    std::set<int> frequencies;
    for (int channel = 0; channel < channels; ++channel) {
        frequencies.insert(ToneGenerator::toneHz(channel));
        for (int tone = 0; tone < channels; ++tone) {
            const double heard = amplitude(second, channels, channel, ToneGenerator::toneHz(tone), 48000);
            if (tone == channel)
                EXPECT_NEAR(heard, ToneGenerator::amplitude, 10);
            else
                EXPECT_LT(heard, 10) << channel << " hears " << tone;
        }
    }
    EXPECT_EQ(frequencies.size(), 8u);
}

TEST(Tones, blocksJoinWithoutAClick)
{
    for (const int rate : {8000, 44100, 48000}) {
        const ToneGenerator generator(rate, 2);
        std::vector<int16_t> whole(static_cast<size_t>(rate) * 4);
        generator.tones(whole.data(), 2 * rate, rate - 1234);
        std::vector<int16_t> pieces(whole.size());
        for (int at = 0; at < 2 * rate;) {
            const int frames = std::min(rate / 100, 2 * rate - at);
            generator.tones(pieces.data() + 2 * at, frames, rate - 1234 + at);
            at += frames;
        }
        EXPECT_EQ(whole, pieces) << rate;
    }
}

TEST(Tones, beepStartsAtTheWholeSecondWithFullAmplitude)
{
    const ToneGenerator generator(48000, 2);
    constexpr int64_t second = 1767225600000000;
    std::vector<int16_t> samples(2 * 48000);
    generator.beeps(samples.data(), 48000, second - 500000);
    for (int i = 0; i < 24000; ++i)
        ASSERT_EQ(samples[static_cast<size_t>(2 * i)], 0) << i;
    EXPECT_EQ(samples[2 * 24000], ToneGenerator::amplitude);
    EXPECT_EQ(samples[2 * 24000 + 1], ToneGenerator::amplitude);
    EXPECT_NE(samples[2 * (24000 + 4799)], 0);
    for (int i = 24000 + 4800; i < 48000; ++i)
        ASSERT_EQ(samples[static_cast<size_t>(2 * i)], 0) << i;
}

TEST(Tones, beepDoesNotDependOnBlocks)
{
    const ToneGenerator generator(44100, 1);
    constexpr int64_t start = 1767225600000000 - 30000;
    std::vector<int16_t> whole(44100);
    generator.beeps(whole.data(), 44100, start);
    std::vector<int16_t> pieces(44100);
    for (int at = 0; at < 44100; at += 441)
        generator.beeps(pieces.data() + at, 441, start + at / 441 * 10000);
    EXPECT_EQ(whole, pieces);
}
