#include "audioconverter.h"

#include "failure.h"

extern "C" {
#include <libavutil/channel_layout.h>
}

namespace zevshm {

void AudioConverter::prepare(const AVFrame &frame)
{
    const int channels = frame.ch_layout.nb_channels;
    const uint64_t mask = frame.ch_layout.order == AV_CHANNEL_ORDER_NATIVE ? frame.ch_layout.u.mask : 0;
    if (m_resampler && frame.sample_rate == m_sourceRate && frame.format == m_sourceFormat &&
        channels == m_sourceChannels && mask == m_sourceMask)
        return;

    // Sound without a layout gets the usual one of its channel count.
    AVChannelLayout source{};
    if (mask)
        av_channel_layout_from_mask(&source, mask);
    else
        av_channel_layout_default(&source, channels);
    AVChannelLayout target{};
    if (channels == m_target.channels)
        av_channel_layout_copy(&target, &source); // no mixing where the count stays
    else
        av_channel_layout_default(&target, m_target.channels);
    SwrContext *resampler = nullptr;
    int rc = swr_alloc_set_opts2(&resampler, &target, AV_SAMPLE_FMT_S16, m_target.sampleRate, &source,
                                 static_cast<AVSampleFormat>(frame.format), frame.sample_rate, 0, nullptr);
    m_resampler.reset(resampler);
    if (rc >= 0)
        rc = swr_init(resampler);
    av_channel_layout_uninit(&source);
    av_channel_layout_uninit(&target);
    if (rc < 0) {
        m_resampler.reset();
        throw Failure(ExitMedia, "sound of " + std::to_string(frame.sample_rate) + " Hz and " +
                                     std::to_string(channels) + " channels cannot be converted (" +
                                     avError(rc) + "); use --no-audio");
    }
    m_sourceRate = frame.sample_rate;
    m_sourceFormat = frame.format;
    m_sourceChannels = channels;
    m_sourceMask = mask;
}

const std::vector<int16_t> &AudioConverter::convert(const AVFrame *frame, int64_t &mediaUs)
{
    m_samples.clear();
    if (frame)
        prepare(*frame);
    if (!m_resampler)
        return m_samples;
    mediaUs -= swr_get_delay(m_resampler.get(), 1000000);
    const int room = swr_get_out_samples(m_resampler.get(), frame ? frame->nb_samples : 0);
    if (room <= 0)
        return m_samples;
    m_samples.resize(static_cast<size_t>(room) * static_cast<size_t>(m_target.channels));
    uint8_t *out = reinterpret_cast<uint8_t *>(m_samples.data());
    const uint8_t **in = frame ? const_cast<const uint8_t **>(frame->extended_data) : nullptr;
    const int got = swr_convert(m_resampler.get(), &out, room, in, frame ? frame->nb_samples : 0);
    m_samples.resize(static_cast<size_t>(got > 0 ? got : 0) * static_cast<size_t>(m_target.channels));
    return m_samples;
}

} // namespace zevshm
