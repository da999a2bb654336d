#include "fake_resampler.h"

#include <cstdint>
#include <utility>

extern "C" {
#include <libswresample/swresample.h>
}

namespace fakeresampler {

int convertsUntilFailure = -1;
int initsUntilFailure = -1;
int live = 0;
std::function<void()> onConvert;

void reset()
{
    convertsUntilFailure = -1;
    initsUntilFailure = -1;
    onConvert = nullptr;
}

} // namespace fakeresampler

namespace {

bool failsNow(int *countdown)
{
    return *countdown >= 0 && (*countdown)-- == 0;
}

} // namespace

extern "C" {

int __real_swr_convert(SwrContext *, uint8_t **, int, const uint8_t **, int);
int __real_swr_init(SwrContext *);
SwrContext *__real_swr_alloc();
void __real_swr_free(SwrContext **);

int __wrap_swr_convert(SwrContext *context, uint8_t **out, int outCount, const uint8_t **in, int inCount)
{
    if (fakeresampler::onConvert)
        std::exchange(fakeresampler::onConvert, nullptr)();
    return failsNow(&fakeresampler::convertsUntilFailure)
               ? -1
               : __real_swr_convert(context, out, outCount, in, inCount);
}

int __wrap_swr_init(SwrContext *context)
{
    return failsNow(&fakeresampler::initsUntilFailure) ? -1 : __real_swr_init(context);
}

SwrContext *__wrap_swr_alloc()
{
    ++fakeresampler::live;
    return __real_swr_alloc();
}

void __wrap_swr_free(SwrContext **context)
{
    if (*context)
        --fakeresampler::live;
    __real_swr_free(context);
}

} // extern "C"
