#ifndef ZEVQTMM_RESAMPLEROPTIONS_H
#define ZEVQTMM_RESAMPLEROPTIONS_H

extern "C" {
#include <libavutil/samplefmt.h>
}

struct SwrContext;

/*! One side of a resampler. */
struct ResamplerSide
{
    int channels;
    AVSampleFormat sampleFormat;
    int sampleRate;
};

/*!
 * Sets all options of a fresh resampler. FFmpeg replaced channel masks and counts by channel layouts; which
 * of the two is set, depends on the libswresample that is built against, and is nobody's business outside.
 */
void setResamplerOptions(SwrContext *context, const ResamplerSide &in, const ResamplerSide &out);

#endif
