// What a shown frame costs the processor: imported as an EGL image, beside its planes uploaded. The driver is
// one in software, so drawing is kept small: what is left is how the frame gets to where it is drawn from.
//
// Runs under tests/vm/with-gl, with stand-ins for DMA-bufs where the kernel has none.
#include "store.h"

#include "itemrenderer.h"

#include <zevqt-mm/mediasource.h>
#include <zevqt-mm/shmemdmavideobuffer.h>
#include <zevqt-mm/storeframe.h>

#include <QGuiApplication>
#include <benchmark/benchmark.h>

#include <algorithm>

namespace {

const QSize drawnSize(64, 36);

void ensureApplication()
{
    static int count = 1;
    static char name[] = "bench_gpu";
    static char *arguments[] = {name, nullptr};
    // Never destroyed, nor the scene: statics go when Qt's own have gone.
    static const auto *application = new QGuiApplication(count, arguments);
    static const bench::StoreDirectory directory;
    benchmark::DoNotOptimize(application);
    qputenv("ZEV_GL_DMABUF", "1");
}

// A store whose memory is exported, its writer in this process.
class ExportedStore
{
public:
    ExportedStore(int width, int height) : m_height(height)
    {
        shm_writer_params_t params;
        shm_writer_params_init(&params);
        params.name = "gpu";
        params.width = width;
        params.height = height;
        params.pixel_format = SHM_PIXEL_FORMAT_NV12;
        params.history_frames = 4;
        params.spare_frames = 4;
        params.memory = "udmabuf";
        shm_error_t error = {};
        if (shm_writer_open(&params, &m_writer, &error) != 0)
            bench::fail(error.message);
        // Every page has been written once: what is measured is not the kernel's first look at it.
        for (int i = 0; i < 8; ++i)
            publish(true);
    }
    ~ExportedStore() { shm_writer_close(m_writer); }
    ExportedStore(const ExportedStore &) = delete;
    ExportedStore &operator=(const ExportedStore &) = delete;

    void publish(bool isWritten = false)
    {
        shm_writer_frame_t frame = {};
        if (shm_writer_acquire(m_writer, &frame) != 0)
            return;
        for (int i = 0; isWritten && i < 2; ++i)
            std::fill_n(frame.planes[i], std::size_t(frame.strides[i]) * std::size_t(m_height >> i),
                        uint8_t(128));
        m_timestamp = std::max(m_timestamp + 1, bench::wallClockUs());
        shm_writer_publish(m_writer, &frame, m_timestamp);
    }

private:
    const int m_height;
    shm_writer_t *m_writer = nullptr;
    int64_t m_timestamp = 0;
};

ItemRenderer &renderer()
{
    static auto *const result = new ItemRenderer(drawnSize);
    return *result;
}

// From the lock in the store to the frame on screen, a new one each time.
void shownFrame(benchmark::State &state, bool isImported)
{
    ensureApplication();
    ExportedStore store(int(state.range(0)), int(state.range(1)));
    MediaSource source(QStringLiteral("gpu"), 1000, nullptr);
    ItemRenderer &scene = renderer();
    scene.renewItem();
    scene.item()->setEglImages(isImported);
    const auto showOne = [&] {
        store.publish();
        if (!presentNewest(source, scene.item()))
            bench::fail("there is no frame");
        scene.renderUnseen();
    };
    for (int i = 0; i < 8; ++i)
        showOne();
    if (scene.item()->framePath() != (isImported ? LiveVideo::EglImage : LiveVideo::Mapped)) {
        state.SkipWithError(qPrintable("another path was taken: " + scene.item()->framePathReason()));
        return;
    }
    for (auto _ : state)
        showOne();
    scene.renewItem();
}

// The lock in the store, the QVideoFrame, its handle, and the release of all of it: no pixel is drawn.
void handOver(benchmark::State &state)
{
    ensureApplication();
    ExportedStore store(int(state.range(0)), int(state.range(1)));
    MediaSource source(QStringLiteral("gpu"), 1000, nullptr);
    renderer().renderUnseen(); // its context is current from now on
    const auto takeOne = [&source] {
        QVideoFrame frame = source.grabVideo(0);
        ShmemDmaVideoBuffer *buffer = StoreFrame::of(frame).dmaBuffer;
        const bool isMade = buffer && buffer->createHandle();
        benchmark::DoNotOptimize(frame.handle());
        return isMade;
    };
    for (int i = 0; i < 8; ++i)
        takeOne(); // the first one opens the store
    for (auto _ : state) {
        if (!takeOne()) {
            state.SkipWithError("the frame gets no image");
            return;
        }
    }
}

// Of that, making and destroying the image.
void makeImage(benchmark::State &state)
{
    ensureApplication();
    ExportedStore store(int(state.range(0)), int(state.range(1)));
    MediaSource source(QStringLiteral("gpu"), 1000, nullptr);
    renderer().renderUnseen();
    const QVideoFrame frame = source.grabVideo(0);
    ShmemDmaVideoBuffer *buffer = StoreFrame::of(frame).dmaBuffer;
    for (auto _ : state) {
        if (!buffer || !buffer->createHandle()) {
            state.SkipWithError("the frame gets no image");
            return;
        }
        buffer->destroyHandle();
    }
}

// What there is time for: not measured, told.
void framePeriodOf60(benchmark::State &state)
{
    for (auto _ : state)
        state.SetIterationTime(1.0 / 60);
}

BENCHMARK_CAPTURE(shownFrame, eglimage, true)
    ->Args({1920, 1080})
    ->Args({3840, 2160})
    ->MeasureProcessCPUTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(shownFrame, mapped, false)
    ->Args({1920, 1080})
    ->Args({3840, 2160})
    ->MeasureProcessCPUTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(handOver)->Args({64, 64})->Args({1920, 1080})->Args({3840, 2160})->Unit(benchmark::kMicrosecond);
BENCHMARK(makeImage)->Args({64, 64})->Args({1920, 1080})->Args({3840, 2160})->Unit(benchmark::kMicrosecond);
BENCHMARK(framePeriodOf60)->UseManualTime()->Iterations(1);

} // namespace
