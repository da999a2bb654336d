// What the audio road adds to what cannot be done without: to resampling, when it reads, and to reading the
// memory, when it measures levels.
#include "counting_allocator.h"
#include "store.h"

#include "audio/resampleroptions.h"

#include <audio-level/audio_level.h>
#include <zevqt-mm/audioreader.h>
#include <zevqt-mm/mediasource.h>

#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

extern "C" {
#include <libswresample/swresample.h>
}

// The level function as it is on processors with fewer vectors: with those only that every processor of the
// architecture has, and with what the compiler makes of plain C.
extern "C" int av_audio_level_calc_vectors1(const void *, size_t, long, int, AudioLevelCalcResult *);
extern "C" int av_audio_level_calc_vectors0(const void *, size_t, long, int, AudioLevelCalcResult *);

namespace {

const int sourceRate = 48000;
const int channels = 2;
const int frameBytes = 4;
const int grabFrames = 1024;
const int readBytes = 16384; // what QIODevice asks for
const int readFrames = readBytes / frameBytes;

QAudioFormat pcm(int rate)
{
    QAudioFormat format;
    format.setCodec(QStringLiteral("audio/pcm"));
    format.setSampleRate(rate);
    format.setChannelCount(channels);
    format.setSampleSize(16);
    format.setSampleType(QAudioFormat::SignedInt);
    format.setByteOrder(QAudioFormat::LittleEndian);
    return format;
}

std::vector<int16_t> noise(size_t samples)
{
    std::vector<int16_t> result(samples);
    uint32_t state = 1;
    for (int16_t &sample : result) {
        state = state * 1664525 + 1013904223;
        sample = static_cast<int16_t>(state >> 16);
    }
    return result;
}

// A store with two seconds of audio.
class AudioStore
{
public:
    AudioStore()
    {
        shm_writer_params_t params;
        shm_writer_params_init(&params);
        params.name = "audio";
        params.sample_rate = sourceRate;
        params.channels = channels;
        shm_error_t error = {};
        if (shm_writer_open(&params, &writer, &error) != 0)
            bench::fail(error.message);
        const std::vector<int16_t> samples = noise(2 * sourceRate * channels);
        shm_writer_publish_audio(writer, 0, samples.data(), 2 * sourceRate, bench::wallClockUs());
    }
    ~AudioStore() { shm_writer_close(writer); }
    AudioStore(const AudioStore &) = delete;
    AudioStore &operator=(const AudioStore &) = delete;

private:
    shm_writer_t *writer = nullptr;
};

const bench::StoreDirectory directory;

// Reads of which each starts at the same place, so that there is always audio.
void readAudio(benchmark::State &state, int outputRate)
{
    const AudioStore store;
    MediaSource source(QStringLiteral("audio"), 1000);
    AudioReader reader;
    reader.setDelay(1500000);
    reader.setMaxDelay(1900000);
    if (!source.open() || !reader.open(&source, pcm(outputRate), true)) {
        state.SkipWithError("no audio");
        return;
    }
    std::vector<char> data(readBytes);
    reader.readDataInternal(data.data(), readBytes);
    const bench::Allocations before = bench::allocations();
    for (auto _ : state) {
        reader.resetTimer();
        reader.readDataInternal(data.data(), readBytes);
        benchmark::ClobberMemory();
    }
    const auto allocations = bench::allocations().count - before.count;
    state.counters["allocations"] = static_cast<double>(allocations);
    if (allocations > 0)
        state.SkipWithError("reading allocates memory");
    else if (reader.getReadPosition() - reader.getFirstTimestamp() < 70000)
        state.SkipWithError("the reads were short");
}

void readResampled(benchmark::State &state)
{
    readAudio(state, 44100);
}

void readEqualFormats(benchmark::State &state)
{
    readAudio(state, sourceRate);
}

// The same work without a reader: a copy of each block and the conversion.
void convertBare(benchmark::State &state)
{
    const std::vector<int16_t> samples = noise(2 * sourceRate * channels);
    SwrContext *context = swr_alloc();
    setResamplerOptions(context, {channels, AV_SAMPLE_FMT_S16, sourceRate},
                        {channels, AV_SAMPLE_FMT_S16, 44100});
    if (swr_init(context) < 0) {
        state.SkipWithError("no resampler");
        return;
    }
    std::vector<int16_t> staging(grabFrames * channels);
    std::vector<char> data(readBytes);
    for (auto _ : state) {
        auto *output = reinterpret_cast<uint8_t *>(data.data());
        const int16_t *next = samples.data() + sourceRate / 2 * channels;
        for (int frames = readFrames; frames > 0;) {
            std::memcpy(staging.data(), next, grabFrames * frameBytes);
            next += grabFrames * channels;
            const auto *input = reinterpret_cast<const uint8_t *>(staging.data());
            const int converted = swr_convert(context, &output, frames, &input, grabFrames);
            output += converted * frameBytes;
            frames -= converted;
        }
        benchmark::ClobberMemory();
    }
    swr_free(&context);
}

// Levels and a plain read of the same stereo block: of 100 ms, which lies in the cache, and of a length that
// does not.
const int64_t shortBlock = sourceRate / 10;
const int64_t longBlock = sourceRate * 1000;

void measureLevels(benchmark::State &state, decltype(&av_audio_level_calc) calculate)
{
    const std::vector<int16_t> samples = noise(static_cast<size_t>(state.range(0)) * channels);
    AudioLevelCalcResult result;
    for (auto _ : state) {
        calculate(samples.data(), static_cast<size_t>(state.range(0)), channels, 1, &result);
        benchmark::DoNotOptimize(result);
    }
}

void levels(benchmark::State &state)
{
    measureLevels(state, av_audio_level_calc);
}

void levelsBaseline(benchmark::State &state)
{
    measureLevels(state, av_audio_level_calc_vectors1);
}

void levelsPlain(benchmark::State &state)
{
    measureLevels(state, av_audio_level_calc_vectors0);
}

void readMemory(benchmark::State &state)
{
    const std::vector<int16_t> samples = noise(static_cast<size_t>(state.range(0)) * channels);
    const auto *words = reinterpret_cast<const uint64_t *>(samples.data());
    for (auto _ : state) {
        uint64_t sum = 0;
        for (int64_t i = 0; i < state.range(0) / 2; ++i)
            sum += words[i];
        benchmark::DoNotOptimize(sum);
    }
}

BENCHMARK(readResampled);
BENCHMARK(readEqualFormats);
BENCHMARK(convertBare);
BENCHMARK(levels)->Arg(shortBlock)->Arg(longBlock);
BENCHMARK(levelsBaseline)->Arg(shortBlock)->Arg(longBlock);
BENCHMARK(levelsPlain)->Arg(shortBlock)->Arg(longBlock);
BENCHMARK(readMemory)->Arg(shortBlock)->Arg(longBlock);

} // namespace
