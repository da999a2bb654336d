#include "tonepublisher.h"

#include <shm/shm_writer.h>

#include <chrono>
#include <cmath>

namespace {

const int blocksPerSecond = 50;

} // namespace

TonePublisher::TonePublisher(std::string storeName, int sampleRate, std::vector<Tone> channelTones,
                             int64_t droppedEvery, int millionthsFast)
    : name(std::move(storeName)), rate(sampleRate), tones(std::move(channelTones)), dropEvery(droppedEvery),
      ppm(millionthsFast), thread([this] { run(); })
{
    while (!published && !stopping)
        std::this_thread::yield();
}

TonePublisher::~TonePublisher()
{
    stopping = true;
    thread.join();
}

void TonePublisher::run()
{
    using namespace std::chrono;
    shm_writer_params_t params;
    shm_writer_params_init(&params);
    params.name = name.c_str();
    params.sample_rate = rate;
    params.channels = static_cast<int32_t>(tones.size());
    params.audio_streams = 1;
    shm_writer_t *writer = nullptr;
    if (shm_writer_open(&params, &writer, nullptr) < 0) {
        stopping = true;
        return;
    }

    const int64_t start = duration_cast<microseconds>(system_clock::now().time_since_epoch()).count();
    const steady_clock::time_point steadyStart = steady_clock::now();
    const int frames = rate / blocksPerSecond;
    std::vector<int16_t> samples(static_cast<size_t>(frames) * tones.size());
    int64_t sent = 0;
    for (int64_t block = 1; !stopping; ++block) {
        auto *sample = samples.data();
        for (int64_t index = sent; index < sent + frames; ++index) {
            const int64_t i = index + (dropEvery > 0 ? index / dropEvery : 0);
            for (const Tone &tone : tones) {
                const double turns = std::fmod(tone.frequency * static_cast<double>(i) / rate, 1.0);
                *sample++ = static_cast<int16_t>(std::lround(tone.amplitude * std::sin(2 * M_PI * turns)));
            }
        }
        // A block is published when its last sample would have been captured.
        const nanoseconds blockTime(1000000000 / blocksPerSecond * int64_t(1000000) / (1000000 + ppm));
        std::this_thread::sleep_until(steadyStart + blockTime * block);
        shm_writer_publish_audio(writer, 0, samples.data(), static_cast<uint32_t>(frames),
                                 start + sent * 1000000 / rate);
        sent += frames;
        published = true;
    }
    shm_writer_close(writer);
}
