#include <zevqt-mm/audioreader.h>

#include "audio/audiologging.h"
#include "audio/resampleroptions.h"

#include <zevqt-mm/mediasource.h>

#include <cmath>
#include <cstring>
#include <limits>

extern "C" {
#include <libswresample/swresample.h>
}

namespace {

const qint64 defaultDelayUs = 200000;
const qint64 defaultMaxDelayUs = 300000;
const int framesPerGrab = 1024;

// The audio stream that is asked for; the source's own requests use stream 0.
const int playbackStream = 3;

AVSampleFormat sampleFormat(const QAudioFormat &format)
{
    const int bytes = format.sampleSize() / 8;
    switch (format.sampleType()) {
    case QAudioFormat::UnSignedInt:
        if (bytes == 1)
            return AV_SAMPLE_FMT_U8;
        break;
    case QAudioFormat::SignedInt:
        if (bytes == 2)
            return AV_SAMPLE_FMT_S16;
        if (bytes == 4)
            return AV_SAMPLE_FMT_S32;
        break;
    case QAudioFormat::Float:
        if (bytes == 4)
            return AV_SAMPLE_FMT_FLT;
        if (bytes == 8)
            return AV_SAMPLE_FMT_DBL;
        break;
    case QAudioFormat::Unknown:
        break;
    }
    return AV_SAMPLE_FMT_NONE;
}

ResamplerSide side(const QAudioFormat &format)
{
    return {format.channelCount(), sampleFormat(format), format.sampleRate()};
}

// QIODevice buffers 16384 bytes at a time. A frame of three or six channels does not divide that: reads would
// end within a frame, and all channels change places from one to the next. Unbuffered, the output's own whole
// frames are asked for.
QIODevice::OpenMode readMode(const QAudioFormat &format)
{
    const int buffered = 16384;
    const int frame = format.bytesPerFrame();
    return frame > 0 && buffered % frame != 0 ? QIODevice::ReadOnly | QIODevice::Unbuffered
                                              : QIODevice::ReadOnly;
}

// QAudioFormat counts bytes and frames in 32 bits.
int clamped(qint64 bytes)
{
    return static_cast<int>(qBound<qint64>(0, bytes, std::numeric_limits<int>::max()));
}

} // namespace

AudioReader::AudioReader(QObject *parent)
    : QIODevice(parent), source(nullptr), requireAudio(true), readPosition(0), firstTimestamp(0),
      resampler(nullptr), delay(defaultDelayUs), maxDelay(defaultMaxDelayUs), samplesRead(0),
      grabSamples(framesPerGrab), waveformOutput(nullptr), reserve(-1)
{}

AudioReader::~AudioReader()
{
    swr_free(&resampler);
}

bool AudioReader::open(MediaSource *newSource, const QAudioFormat &newOutputFormat, bool newRequireAudio)
{
    outputFormat = newOutputFormat;
    const QAudioFormat format = newSource->getAudioFormat();
    if (format.isValid()) {
        if (!updateResampler(format))
            return false;
    } else if (newRequireAudio) {
        return false;
    }
    source = newSource;
    inputFormat = format;
    requireAudio = newRequireAudio;
    readPosition = 0;
    firstTimestamp = 0;
    reserve = -1;
    return QIODevice::open(readMode(outputFormat));
}

void AudioReader::close()
{
    source = nullptr;
    QIODevice::close();
    readTimer.invalidate();
}

bool AudioReader::isSequential() const
{
    return true;
}

qint64 AudioReader::bytesAvailable() const
{
    return 0;
}

bool AudioReader::seek(qint64)
{
    return false;
}

qint64 AudioReader::writeData(const char *, qint64)
{
    return 0;
}

void AudioReader::setDelay(qint64 newDelay)
{
    delay = newDelay;
}

void AudioReader::setMaxDelay(qint64 newMaxDelay)
{
    maxDelay = newMaxDelay;
}

void AudioReader::setWaveformOutput(QIODevice *output)
{
    waveformOutput = output;
}

void AudioReader::resetTimer()
{
    readPosition = 0;
    firstTimestamp = 0;
    readTimer.invalidate();
}

// Without a resampler, samples pass through unchanged, which would write more than fits when the formats
// differ. So after a failure no input format is known, and the next read begins with building a resampler.
void AudioReader::failResampler(const char *message)
{
    swr_free(&resampler);
    inputFormat = QAudioFormat();
    qCCritical(audio) << message;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): part of the interface
bool AudioReader::updateResampler(QAudioFormat newInputFormat)
{
    swr_free(&resampler);
    if (newInputFormat == outputFormat)
        return true;

    const ResamplerSide in = side(newInputFormat);
    const ResamplerSide out = side(outputFormat);
    resampler = swr_alloc();
    qCDebug(audio).nospace() << "Create new resampler context: " << in.sampleRate << "," << in.channels << ","
                             << in.sampleFormat << "-->" << out.sampleRate << "," << out.channels << ","
                             << out.sampleFormat;
    setResamplerOptions(resampler, in, out);
    // libswresample does not refuse a format that it does not know in every version.
    const bool isKnown = in.sampleFormat != AV_SAMPLE_FMT_NONE && out.sampleFormat != AV_SAMPLE_FMT_NONE;
    if (!isKnown || swr_init(resampler) < 0) {
        failResampler("Error in creating resampler");
        return false;
    }
    inputBuffer.resize(newInputFormat.bytesForFrames(grabSamples));
    return true;
}

// QIODevice asks for more than the output does, and a resampler keeps what is in its filter.
qint64 AudioReader::readAhead() const
{
    const qint64 buffered = outputFormat.durationForBytes(clamped(QIODevice::bytesAvailable()));
    return buffered + (resampler ? swr_get_delay(resampler, 1000000) : 0);
}

qint64 AudioReader::readData(char *data, qint64 maxSize)
{
    const qint64 result = readDataInternal(data, maxSize);
    if (result < 0)
        return result;
    if (waveformOutput)
        waveformOutput->write(data, result);
    return result;
}

qint64 AudioReader::readDataInternal(char *data, qint64 maxSize)
{
    if (maxSize == 0)
        return 0;
    if (!source)
        return -1;

    const QAudioFormat format = source->getAudioFormat();
    if (!format.isValid()) {
        reserve = -1;
        if (requireAudio)
            return -1;
        std::memset(data, 0, static_cast<size_t>(maxSize));
        countSilence(outputFormat.framesForBytes(clamped(maxSize)));
        return maxSize;
    }
    if (format != inputFormat) {
        if (!updateResampler(format))
            return -1;
        inputFormat = format;
        if (readTimer.isValid())
            ++gaps.jumps;
        readTimer.invalidate();
    }

    const qint64 last = source->getAudioLastTimestamp();
    // The output's bytes, measured in the source's format: that is intended.
    anchor(last, inputFormat.durationForBytes(clamped(maxSize)));

    qint64 frames = outputFormat.framesForBytes(clamped(maxSize));
    if (resampler) {
        if (frames < 1)
            return maxSize;
        frames = resample(data, frames, last);
        if (frames < 0)
            return -1;
    } else {
        frames -= grab(static_cast<unsigned long>(frames), data, last);
    }
    reserve = last > 0 ? qMax<qint64>(0, last - readPosition) : -1;

    if (frames >= 1) {
        const bool hasAudio = source->getAudioFormat().isValid();
        if (!hasAudio && requireAudio)
            return -1;
        const qint64 silence = outputFormat.bytesForFrames(clamped(frames));
        std::memset(data + maxSize - silence, 0, static_cast<size_t>(silence));
    }
    countSilence(frames);
    return maxSize;
}

void AudioReader::countSilence(qint64 frames)
{
    if (frames > 0 && !gaps.isSilent)
        ++gaps.episodes;
    gaps.isSilent = frames > 0;
    if (gaps.isSilent)
        gaps.silence += outputFormat.durationForFrames(clamped(frames));
}

void AudioReader::anchor(qint64 last, qint64 span)
{
    const bool isAnchored = readTimer.isValid();
    if (isAnchored && last - readPosition <= maxDelay)
        return;
    readPosition = last - qMax(delay, span);
    if (isAnchored) {
        ++gaps.jumps;
    } else {
        samplesRead = 0;
        readTimer.start();
    }
}

// One request to the source at the read position, which moves on by the duration of what was obtained, cut to
// microseconds: 1024 frames at 48 kHz last 21333.3 us, so a sample is read twice every 1.3 s. The position
// stays a timestamp like the store's.
qint64 AudioReader::grab(unsigned long frames, void *destination, qint64 last)
{
    const qint64 got =
        source->grabAudio(playbackStream, frames, static_cast<short *>(destination), readPosition);
    qCDebug(audioTimings).nospace() << "Audio reader got " << got << "/" << frames << " samples at "
                                    << readPosition << " (" << readPosition - last << ")";
    if (got <= 0)
        return 0;
    if (firstTimestamp == 0)
        firstTimestamp = readPosition;
    readPosition += inputFormat.durationForFrames(clamped(got));
    samplesRead += got;
    return got;
}

// Returns the frames that are still missing, or -1.
qint64 AudioReader::resample(char *data, qint64 frames, qint64 last)
{
    auto *output = reinterpret_cast<uint8_t *>(data);
    for (;;) {
        // Always a full request: the resampler keeps the surplus for the next read.
        const qint64 in = grab(static_cast<unsigned long>(grabSamples), inputBuffer.data(), last);
        const uint8_t *input = inputBuffer.constData();
        const int converted =
            swr_convert(resampler, &output, static_cast<int>(frames), &input, static_cast<int>(in));
        if (converted < 0) {
            qCCritical(audio) << "Error while converting audio format";
            return -1;
        }
        output += outputFormat.bytesForFrames(converted);
        if (converted > frames)
            return 0;
        frames -= converted;
        if (frames == 0)
            return 0;
        if (in < grabSamples)
            break;
    }

    // The source ran dry: take what the filter still holds, and start afresh with the next samples.
    const int drained = swr_convert(resampler, &output, static_cast<int>(frames), nullptr, 0);
    if (drained < 0) {
        qCCritical(audio) << "Error while converting audio format";
        return -1;
    }
    if (swr_init(resampler) < 0) {
        failResampler("Error reseting resampler");
        return -1;
    }
    return frames - drained;
}

bool AudioReader::check_delta()
{
    if (firstTimestamp < 1 || readPosition < 1)
        return false;
    const qint64 stream = readPosition - firstTimestamp;
    const auto wall = static_cast<qint64>(static_cast<double>(readTimer.nsecsElapsed()) / 1000.0);
    const qint64 delta = wall - stream;
    if (std::abs(delta) <= maxDelay)
        return false;
    qCDebug(audioTimings).nospace() << "check_delta: " << firstTimestamp << " " << readPosition << " "
                                    << stream << " " << wall << " " << delta;
    return true;
}
