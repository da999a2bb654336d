#include <zevqt-mm/audiolevel.h>

#include <audio-level/audio_level.h>

#include <QtMultimedia/QAudioBuffer>
#include <QtMultimedia/QAudioFormat>

namespace {

// Interleaved signed 16-bit samples, which is what stores carry.
const int levelMode = 1;

} // namespace

QVector<AudioLevel> getRmsMaxDecibels(const void *data, size_t frames, const QAudioFormat &format)
{
    const int channels = format.channelCount();
    if (channels > AUDIO_LEVEL_CHANNELS_MAX) // more than the result has room for
        return {};
    AudioLevelCalcResult result;
    if (av_audio_level_calc(data, frames, channels, levelMode, &result) < 0 || channels < 1)
        return {};
    QVector<AudioLevel> levels(channels, AudioLevel{0, 0});
    for (int i = 0; i < channels; ++i)
        levels[i] = {result.rms[i], result.max[i]};
    return levels;
}

QVector<AudioLevel> getRmsMaxDecibels(const QAudioBuffer &buffer)
{
    if (!buffer.isValid())
        return {};
    return getRmsMaxDecibels(buffer.constData(), static_cast<size_t>(buffer.frameCount()), buffer.format());
}
