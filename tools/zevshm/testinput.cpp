#include "testinput.h"

#include "cadence.h"

#include <ctime>

namespace zevshm {

namespace {

int utcOffsetSeconds(int64_t wallInstantUs)
{
    const time_t seconds = static_cast<time_t>(wallInstantUs / 1000000);
    tm local{};
    return localtime_r(&seconds, &local) ? static_cast<int>(local.tm_gmtoff) : 0;
}

} // namespace

TestInput::TestInput(const Settings &settings, const StopToken &stopToken)
    : m_settings(settings), m_stopToken(stopToken),
      m_tones(settings.audio.sampleRate, settings.audio.channels)
{}

int64_t TestInput::alignedStart(int64_t wallInstantUs, Ratio rate)
{
    constexpr int64_t secondUs = 1000000;
    const int64_t second = wallInstantUs / secondUs * secondUs;
    const int64_t into = wallInstantUs - second;
    for (int64_t index = into * rate.numerator / (secondUs * rate.denominator);; ++index) {
        const int64_t start = frameStartUs(index, rate);
        // A rate that does not divide the second, or a frame that lasts longer: the next whole second.
        if (start >= secondUs)
            return second + secondUs;
        if (start >= into)
            return second + start;
    }
}

VideoFormat TestInput::videoFormat() const
{
    VideoFormat format;
    format.width = m_settings.width;
    format.height = m_settings.height;
    format.rate = m_settings.rate;
    format.color.matrix = m_settings.matrix == Matrix::Bt601 ? SHM_MATRIX_BT601 : SHM_MATRIX_BT709;
    format.color.range = SHM_RANGE_FULL;
    format.color.transfer = SHM_TRANSFER_BT709;
    format.color.siting = SHM_SITING_CENTER; // a chroma sample is the mean of the four pixels it covers
    return format;
}

std::optional<InputFormat> TestInput::waitForFormat()
{
    InputFormat format;
    if (m_settings.withVideo)
        format.video = videoFormat();
    if (m_settings.withAudio)
        format.audio = m_settings.audio;
    return format;
}

void TestInput::prepare()
{
    if (m_settings.withVideo)
        m_pattern.emplace(m_settings.kind, m_settings.width, m_settings.height, m_settings.matrix);
}

bool TestInput::nextVideo(VideoItem &item)
{
    item.mediaUs = frameStartUs(m_nextFrame++, m_settings.rate);
    item.format = videoFormat();
    return !m_stopToken.stopped();
}

bool TestInput::nextAudio(AudioBlock &block)
{
    const int rate = m_settings.audio.sampleRate;
    block.frames = rate / 100;
    block.mediaUs = (m_nextSample * 1000000 + rate / 2) / rate;
    m_blockSample = m_nextSample;
    m_nextSample += block.frames;
    return !m_stopToken.stopped();
}

void TestInput::fillVideo(const shm_writer_frame_t &slot, int pixelFormat, const VideoFormat &,
                          const VideoItem &, uint64_t frameNumber, int64_t labelUs)
{
    PlaneSet planes;
    planes.width = slot.width;
    planes.height = slot.height;
    planes.interleavedChroma = pixelFormat == SHM_PIXEL_FORMAT_NV12;
    for (int i = 0; i < (planes.interleavedChroma ? 2 : 3); ++i) {
        planes.planes[i] = slot.planes[i];
        planes.strides[i] = slot.strides[i];
    }
    m_pattern->draw(planes, static_cast<uint32_t>(frameNumber), labelUs, utcOffsetSeconds(labelUs));
}

void TestInput::fillAudio(AudioBlock &block, int64_t labelUs)
{
    block.samples.resize(static_cast<size_t>(block.frames) * static_cast<size_t>(m_settings.audio.channels));
    if (m_settings.kind == PatternKind::AvSync)
        m_tones.beeps(block.samples.data(), block.frames, labelUs - m_settings.beepOffsetUs);
    else
        m_tones.tones(block.samples.data(), block.frames, m_blockSample);
}

} // namespace zevshm
