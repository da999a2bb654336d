// Which options a resampler is given, with which values and in which order.

#include "audio/resampleroptions.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

namespace {

// The linker puts the __wrap_ functions below in the place of the library's: they note the call and hand on.
struct Calls
{
    const void *context = nullptr;
    std::vector<std::string> texts;

    int note(const char *kind, const void *object, const char *name, double value, int flags, int result)
    {
        std::ostringstream text;
        text << kind << ' ' << name << '=' << value;
        if (object != context)
            text << " on another object";
        if (flags != 0)
            text << " with flags";
        if (result < 0)
            text << " is refused";
        texts.push_back(text.str());
        return result;
    }
};

Calls calls;

} // namespace

extern "C" {

int __real_av_opt_set_int(void *, const char *, int64_t, int);
int __real_av_opt_set_double(void *, const char *, double, int);
int __real_av_opt_set_sample_fmt(void *, const char *, AVSampleFormat, int);

int __wrap_av_opt_set_int(void *object, const char *name, int64_t value, int flags)
{
    return calls.note("int", object, name, double(value), flags,
                      __real_av_opt_set_int(object, name, value, flags));
}

int __wrap_av_opt_set_double(void *object, const char *name, double value, int flags)
{
    return calls.note("double", object, name, value, flags,
                      __real_av_opt_set_double(object, name, value, flags));
}

int __wrap_av_opt_set_sample_fmt(void *object, const char *name, AVSampleFormat format, int flags)
{
    return calls.note("format", object, name, format, flags,
                      __real_av_opt_set_sample_fmt(object, name, format, flags));
}

#if LIBSWRESAMPLE_VERSION_MAJOR < 5

int __real_av_opt_set_channel_layout(void *, const char *, int64_t, int);

int __wrap_av_opt_set_channel_layout(void *object, const char *name, int64_t mask, int flags)
{
    return calls.note("layout", object, name, double(mask), flags,
                      __real_av_opt_set_channel_layout(object, name, mask, flags));
}

#else

int __real_av_opt_set_chlayout(void *, const char *, const AVChannelLayout *, int);

int __wrap_av_opt_set_chlayout(void *object, const char *name, const AVChannelLayout *layout, int flags)
{
    const bool isKnown = layout->order == AV_CHANNEL_ORDER_NATIVE;
    calls.note("layout", object, name, isKnown ? double(layout->u.mask) : 0.0, flags,
               __real_av_opt_set_chlayout(object, name, layout, flags));
    return calls.note("count", object, name, layout->nb_channels, flags, 0);
}

#endif

} // extern "C"

namespace {

// What one side is to be given; the mask as in FFmpeg's channel_layout.h, 0 for none.
std::vector<std::string> side(const std::string &prefix, int mask, int channels, int format, int rate)
{
    const auto with = [](const std::string &name, int value) { return name + '=' + std::to_string(value); };
#if LIBSWRESAMPLE_VERSION_MAJOR < 5
    return {with("layout " + prefix + "_channel_layout", mask),
            with("format " + prefix + "_sample_fmt", format), with("int " + prefix + "_sample_rate", rate),
            with("int " + prefix + "_channel_count", channels)};
#else
    return {with("layout " + prefix + "_chlayout", mask), with("count " + prefix + "_chlayout", channels),
            with("format " + prefix + "_sample_fmt", format), with("int " + prefix + "_sample_rate", rate)};
#endif
}

std::vector<std::string> callsFor(const ResamplerSide &in, const ResamplerSide &out)
{
    SwrContext *context = swr_alloc();
    calls = {context, {}};
    setResamplerOptions(context, in, out);
    swr_free(&context);
    return calls.texts;
}

std::vector<std::string> join(std::vector<std::string> in, const std::vector<std::string> &out)
{
    in.insert(in.end(), out.begin(), out.end());
    for (const char *text : {"int filter_size=32", "int phase_shift=5", "double cutoff=1"})
        in.emplace_back(text);
    return in;
}

TEST(ResamplerOptions, MonoToStereo)
{
    EXPECT_EQ(callsFor({1, AV_SAMPLE_FMT_S16, 8000}, {2, AV_SAMPLE_FMT_FLT, 48000}),
              join(side("in", 4, 1, 1, 8000), side("out", 3, 2, 3, 48000)));
}

TEST(ResamplerOptions, StereoToMono)
{
    EXPECT_EQ(callsFor({2, AV_SAMPLE_FMT_U8, 44100}, {1, AV_SAMPLE_FMT_S32, 96000}),
              join(side("in", 3, 2, 0, 44100), side("out", 4, 1, 2, 96000)));
}

TEST(ResamplerOptions, OtherCountsHaveNoLayout)
{
    EXPECT_EQ(callsFor({6, AV_SAMPLE_FMT_DBL, 32000}, {3, AV_SAMPLE_FMT_S16, 44100}),
              join(side("in", 0, 6, 4, 32000), side("out", 0, 3, 1, 44100)));
}

// Left to swr_init, which fails.
TEST(ResamplerOptions, AFormatThatThereIsNot)
{
    EXPECT_EQ(callsFor({2, AV_SAMPLE_FMT_NONE, 48000}, {2, AV_SAMPLE_FMT_S16, 48000}),
              join(side("in", 3, 2, -1, 48000), side("out", 3, 2, 1, 48000)));
}

} // namespace
