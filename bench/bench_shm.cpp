// What a frame store costs beside the two atomic operations that no lock can do without, how its costs grow
// with the history, and that they do not grow with the frames.
#include "store.h"

#include <atomic>
#include <benchmark/benchmark.h>
#include <map>
#include <memory>

namespace {

// A store with a full history, made when it is first asked for and kept: the repetitions of a benchmark share
// it.
struct FilledStore
{
    FilledStore(const std::string &name, int width, int height, uint32_t history)
        : writer(name, width, height, history), reader(name)
    {
        shm_store_info_t info = {};
        info.size = sizeof info;
        if (shm_reader_get_info(reader.get(), &info) != 0)
            bench::fail("the store tells nothing about itself");
        for (int i = 0; i < 2 * info.slot_count; ++i)
            writer.publish();
    }
    bench::Writer writer;
    bench::Reader reader;
};

FilledStore &store(int width, int height, uint32_t history)
{
    static bench::StoreDirectory directory;
    static std::map<std::string, std::unique_ptr<FilledStore>> stores;
    const std::string name =
        "bench-" + std::to_string(width) + "x" + std::to_string(height) + "-" + std::to_string(history);
    std::unique_ptr<FilledStore> &entry = stores[name];
    if (!entry)
        entry = std::make_unique<FilledStore>(name, width, height, history);
    return *entry;
}

void lockAndUnlock(benchmark::State &state, shm_reader_t *reader, int64_t timestamp,
                   shm_video_lookup_mode_t mode)
{
    shm_video_frame_t frame = {};
    for (auto _ : state) {
        frame.timestamp = timestamp;
        if (shm_reader_lock_video(reader, &frame, mode) != 0) {
            state.SkipWithError("no frame");
            return;
        }
        benchmark::DoNotOptimize(frame);
        shm_reader_unlock_video(reader, &frame);
    }
}

// The bound: one lock counter up, sequentially consistent, and down again.
void atomicPair(benchmark::State &state)
{
    alignas(64) static std::atomic<uint32_t> counter{0};
    for (auto _ : state) {
        benchmark::DoNotOptimize(counter.fetch_add(1, std::memory_order_seq_cst));
        benchmark::DoNotOptimize(counter.fetch_sub(1, std::memory_order_release));
    }
}

void lockNewestByHistory(benchmark::State &state)
{
    FilledStore &filled = store(64, 64, static_cast<uint32_t>(state.range(0)));
    lockAndUnlock(state, filled.reader.get(), 0, SHM_VIDEO_NEWEST);
}

// Asks for the middle of the history, 3 ms off: no guess from either end finds it.
void lockNearestByHistory(benchmark::State &state)
{
    FilledStore &filled = store(64, 64, static_cast<uint32_t>(state.range(0)));
    const int64_t middle = filled.writer.newest() - state.range(0) / 2 * 20000 + 3000;
    lockAndUnlock(state, filled.reader.get(), middle, SHM_VIDEO_NEAREST);
}

void lockNewestBySize(benchmark::State &state)
{
    FilledStore &filled = store(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)), 8);
    lockAndUnlock(state, filled.reader.get(), 0, SHM_VIDEO_NEWEST);
}

// Takes a slot and publishes it with what is in it.
void publishBySize(benchmark::State &state)
{
    FilledStore &filled = store(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)), 8);
    for (auto _ : state)
        filled.writer.publish();
}

BENCHMARK(atomicPair);
BENCHMARK(lockNewestByHistory)->Arg(8)->Arg(32)->Arg(128);
BENCHMARK(lockNearestByHistory)->Arg(8)->Arg(32)->Arg(128);
BENCHMARK(lockNewestBySize)->Args({64, 64})->Args({640, 480})->Args({1920, 1080})->Args({3840, 2160});
BENCHMARK(publishBySize)->Args({64, 64})->Args({640, 480})->Args({1920, 1080})->Args({3840, 2160});

} // namespace
