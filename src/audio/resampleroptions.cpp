#include "audio/resampleroptions.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

#include <string>

namespace {

// Longer filters and more phases than needed cost time, shorter ones treble.
const int filterSize = 32;
const int phaseShift = 5;
const double cutoff = 1.0;

#if LIBSWRESAMPLE_VERSION_MAJOR < 5

// Unspecified for other counts than one and two: the store does not say which channel is which.
int64_t layoutMask(int channels)
{
    switch (channels) {
    case 1:
        return AV_CH_LAYOUT_MONO;
    case 2:
        return AV_CH_LAYOUT_STEREO;
    default:
        return 0;
    }
}

void setLayout(SwrContext *context, const std::string &side, int channels)
{
    // Deprecated long before its replacement takes an unspecified layout by mask.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    av_opt_set_channel_layout(context, (side + "_channel_layout").c_str(), layoutMask(channels), 0);
#pragma GCC diagnostic pop
}

void setCount(SwrContext *context, const std::string &side, int channels)
{
    av_opt_set_int(context, (side + "_channel_count").c_str(), channels, 0);
}

#else

void setLayout(SwrContext *context, const std::string &side, int channels)
{
    AVChannelLayout layout = {};
    if (channels == 1 || channels == 2) {
        av_channel_layout_default(&layout, channels);
    } else {
        layout.order = AV_CHANNEL_ORDER_UNSPEC;
        layout.nb_channels = channels;
    }
    av_opt_set_chlayout(context, (side + "_chlayout").c_str(), &layout, 0);
    av_channel_layout_uninit(&layout);
}

// Part of the layout.
void setCount(SwrContext *, const std::string &, int) {}

#endif

void setSide(SwrContext *context, const std::string &side, const ResamplerSide &values)
{
    setLayout(context, side, values.channels);
    av_opt_set_sample_fmt(context, (side + "_sample_fmt").c_str(), values.sampleFormat, 0);
    av_opt_set_int(context, (side + "_sample_rate").c_str(), values.sampleRate, 0);
    setCount(context, side, values.channels);
}

} // namespace

void setResamplerOptions(SwrContext *context, const ResamplerSide &in, const ResamplerSide &out)
{
    setSide(context, "in", in);
    setSide(context, "out", out);
    av_opt_set_int(context, "filter_size", filterSize, 0);
    av_opt_set_int(context, "phase_shift", phaseShift, 0);
    av_opt_set_double(context, "cutoff", cutoff, 0);
}
