// What reading the statistics of a stream costs, beside the least that showing one frame costs: to lock it
// and to copy its planes to where a texture takes them from.
#include "livestream.h"
#include "store.h"

#include <zevqt-mm/mediaprovider.h>
#include <zevqt-mm/mediasource.h>
#include <zevqt-mm/storeframe.h>

#include <QVideoFrame>
#include <benchmark/benchmark.h>
#include <cstring>
#include <memory>
#include <vector>

namespace {

constexpr int width = 1920;
constexpr int height = 1080;
constexpr int history = 16;
constexpr qint64 usualAgeUs = 150000;
constexpr int shown = 15000; // five minutes of 50 a second

bench::Writer &writer()
{
    static bench::StoreDirectory directory;
    static std::unique_ptr<bench::Writer> store;
    if (!store) {
        store = std::make_unique<bench::Writer>("bench-qml", width, height, history);
        for (int i = 0; i < 2 * history; ++i)
            std::memset(store->publish(), 16, 1);
    }
    return *store;
}

void showFrame(benchmark::State &state)
{
    writer();
    MediaSource source(QStringLiteral("bench-qml"), 5000);
    std::vector<uchar> texture(std::size_t(width) * height * 3 / 2);
    for (auto _ : state) {
        const QVideoFrame frame = source.grabVideo(0);
        const StoreFrame store = StoreFrame::of(frame);
        if (store.planeCount != 3) {
            state.SkipWithError("no frame");
            return;
        }
        uchar *to = texture.data();
        for (int plane = 0; plane < 3; ++plane) {
            const int columns = plane == 0 ? width : width / 2;
            const int rows = plane == 0 ? height : height / 2;
            for (int row = 0; row < rows; ++row, to += columns)
                std::memcpy(to, store.planes[plane] + std::ptrdiff_t(row) * store.strides[plane],
                            std::size_t(columns));
        }
        benchmark::DoNotOptimize(texture.data());
    }
}

void readStatistics(benchmark::State &state)
{
    writer();
    LiveStream::Wishes wishes;
    wishes.video = QUrl(QStringLiteral("shm:///bench-qml"));
    LiveStream stream(wishes);
    auto source = stream.provider()->getVideoSource().objectCast<MediaSource>();
    QVideoFrame frame = source->grabVideo(0);
    for (int i = 0; i < shown; ++i) {
        frame.setStartTime(bench::wallClockUs() - usualAgeUs);
        emit stream.provider()->videoReady(frame);
    }
    if (stream.statistics().frames != shown || stream.statistics().locksHeld != 1) {
        state.SkipWithError("the statistics do not count");
        return;
    }
    for (auto _ : state) {
        LiveStatistics now = stream.statistics();
        benchmark::DoNotOptimize(now);
    }
}

BENCHMARK(showFrame);
BENCHMARK(readStatistics);

} // namespace
