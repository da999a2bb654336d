// What the library adds to making a QVideoFrame when it hands out a store frame. In a program of its own,
// without the counting allocator: it would make the side dearer that allocates more.
#include "store.h"
#include "trivialframe.h"

#include "sources/shmemreader.h"

#include <QVideoFrame>
#include <array>
#include <benchmark/benchmark.h>
#include <memory>

namespace {

const QByteArray storeName = "bench-grab";
constexpr size_t history = 38; // what a store of 50 frames a second holds unless told otherwise

bench::Writer &writer()
{
    static bench::StoreDirectory directory;
    static std::unique_ptr<bench::Writer> store;
    if (!store) {
        store =
            std::make_unique<bench::Writer>(storeName.toStdString(), bench::width, bench::height, history);
        for (size_t i = 0; i < 2 * history; ++i)
            store->publish();
    }
    return *store;
}

void makeTrivialFrame(benchmark::State &state)
{
    const bench::Pixels pixels(QVideoFrame::Format_YUV420P);
    const QVariant name = storeName;
    for (auto _ : state) {
        QVideoFrame frame = bench::trivialFrame(pixels, name, 1);
        benchmark::DoNotOptimize(frame);
    }
}

// Asks for each of `asked` in turn.
void grab(benchmark::State &state, const std::array<long long, history - 2> &asked)
{
    ShmemReader reader(QString::fromUtf8(storeName), 5000);
    for (const long long timestamp : asked) {
        if (!reader.grabVideo(timestamp).isValid()) {
            state.SkipWithError("no frame");
            return;
        }
    }
    size_t next = 0;
    for (auto _ : state) {
        QVideoFrame frame = reader.grabVideo(asked[next]);
        benchmark::DoNotOptimize(frame);
        next = next + 1 == asked.size() ? 0 : next + 1;
    }
}

void grabNewest(benchmark::State &state)
{
    writer();
    grab(state, {});
}

// As somebody does it who shows the stream: one frame after the other, off the frames' own times; from the
// last of the history back to the first.
void grabNearest(benchmark::State &state)
{
    std::array<long long, history - 2> asked{};
    for (size_t i = 0; i < asked.size(); ++i)
        asked[i] = writer().newest() - static_cast<long long>(asked.size() - i) * 20000 + 3000;
    grab(state, asked);
}

BENCHMARK(makeTrivialFrame);
BENCHMARK(grabNewest);
BENCHMARK(grabNearest);

} // namespace
