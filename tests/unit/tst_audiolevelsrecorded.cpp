// Levels of a person's voice, as recorded: quiet stretches, noise, and peaks that a sine does not have.

#include "astats.h"

#include <audio-level/audio_level.h>
#include <zevqt-mm/audiolevel.h>

#include <gtest/gtest.h>

#include <QAudioBuffer>
#include <QByteArray>
#include <QFile>
#include <QtEndian>

#include <cmath>
#include <cstring>
#include <limits>

namespace {

using Samples = std::vector<std::int16_t>;

constexpr int rate = 16000;
constexpr std::size_t recordedFrames = 2 * rate;
constexpr double agreementDb = 0.01;
const char *const recording = TEST_DATA "/speech.wav";

// One channel, whatever stands before it in the file.
Samples recorded()
{
    QFile file(QString::fromLatin1(recording));
    EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << recording;
    const QByteArray content = file.readAll();
    const int chunk = content.indexOf("data");
    const int bytes = 2 * int(recordedFrames);
    if (chunk < 0 || content.size() < chunk + 8 + bytes)
        return {};
    Samples samples(recordedFrames);
    qFromLittleEndian<qint16>(content.constData() + chunk + 8, qsizetype(recordedFrames), samples.data());
    return samples;
}

// As many channels, each the same voice from another moment on.
Samples spread(const Samples &voice, std::size_t channels)
{
    constexpr std::size_t apart = 3187;
    const std::size_t frames = voice.size() - apart * (channels - 1);
    Samples samples;
    samples.reserve(frames * channels);
    for (std::size_t i = 0; i < frames; ++i)
        for (std::size_t c = 0; c < channels; ++c)
            samples.push_back(voice[i + c * apart]);
    return samples;
}

QAudioFormat format(int channels)
{
    QAudioFormat result;
    result.setCodec(QStringLiteral("audio/pcm"));
    result.setSampleRate(rate);
    result.setChannelCount(channels);
    result.setSampleSize(16);
    result.setSampleType(QAudioFormat::SignedInt);
    result.setByteOrder(QAudioFormat::LittleEndian);
    return result;
}

class RecordedLevels : public testing::TestWithParam<int>
{};

INSTANTIATE_TEST_SUITE_P(Channels, RecordedLevels, testing::Range(1, AUDIO_LEVEL_CHANNELS_MAX + 1));

TEST_P(RecordedLevels, AgreeWithAstats)
{
    const int channels = GetParam();
    const Samples voice = recorded();
    ASSERT_EQ(voice.size(), recordedFrames);
    const Samples samples = spread(voice, std::size_t(channels));
    const std::size_t frames = samples.size() / std::size_t(channels);
    const AstatsLevels expected = astatsOf(samples, channels, rate);
    ASSERT_EQ(expected.rms.size(), std::size_t(channels));
    ASSERT_EQ(expected.peak.size(), std::size_t(channels));

    AudioLevelCalcResult calculated;
    ASSERT_EQ(av_audio_level_calc(samples.data(), frames, channels, 1, &calculated), 0);
    const QVector<AudioLevel> levels = getRmsMaxDecibels(samples.data(), frames, format(channels));
    ASSERT_EQ(levels.size(), channels);
    QAudioBuffer buffer(int(frames), format(channels));
    std::memcpy(buffer.data(), samples.data(), samples.size() * sizeof samples[0]);
    const QVector<AudioLevel> ofBuffer = getRmsMaxDecibels(buffer);
    ASSERT_EQ(ofBuffer.size(), channels);
    for (int c = 0; c < channels; ++c) {
        EXPECT_LT(expected.rms[std::size_t(c)], expected.peak[std::size_t(c)] - 9.0) << "not a voice";
        EXPECT_NEAR(calculated.rms[c], expected.rms[std::size_t(c)], agreementDb) << "channel " << c;
        EXPECT_NEAR(calculated.max[c], expected.peak[std::size_t(c)], agreementDb) << "channel " << c;
        EXPECT_NEAR(levels[c].rms, expected.rms[std::size_t(c)], agreementDb) << "channel " << c;
        EXPECT_NEAR(levels[c].max, expected.peak[std::size_t(c)], agreementDb) << "channel " << c;
        EXPECT_EQ(ofBuffer[c].rms, levels[c].rms) << "channel " << c;
        EXPECT_EQ(ofBuffer[c].max, levels[c].max) << "channel " << c;
    }
}

// The file as ffmpeg reads it, so that what is compared above is the recording.
TEST(RecordedLevels, AreThoseOfTheFile)
{
    const Samples voice = recorded();
    ASSERT_EQ(voice.size(), recordedFrames);
    const AstatsLevels expected = astatsOf(recording);
    ASSERT_EQ(expected.rms.size(), 1u);
    const QVector<AudioLevel> levels = getRmsMaxDecibels(voice.data(), voice.size(), format(1));
    ASSERT_EQ(levels.size(), 1);
    EXPECT_NEAR(levels[0].rms, expected.rms[0], agreementDb);
    EXPECT_NEAR(levels[0].max, expected.peak[0], agreementDb);
}

// What a meter gets: blocks of a frame of video. Their levels make up those of the whole.
TEST(RecordedLevels, OfBlocksMakeUpTheWhole)
{
    const Samples voice = recorded();
    ASSERT_EQ(voice.size(), recordedFrames);
    const std::size_t block = rate / 25;
    double power = 0.0;
    float peak = -std::numeric_limits<float>::infinity();
    for (std::size_t i = 0; i < voice.size(); i += block) {
        const QVector<AudioLevel> levels = getRmsMaxDecibels(&voice[i], block, format(1));
        ASSERT_EQ(levels.size(), 1);
        power += std::pow(10.0, double(levels[0].rms) / 10.0);
        peak = std::max(peak, levels[0].max);
    }
    const QVector<AudioLevel> whole = getRmsMaxDecibels(voice.data(), voice.size(), format(1));
    EXPECT_NEAR(10.0 * std::log10(power * double(block) / double(voice.size())), whole[0].rms, 0.001);
    EXPECT_EQ(peak, whole[0].max);
}

} // namespace
