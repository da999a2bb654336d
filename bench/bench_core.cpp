// What the library adds to what cannot be done without: to making a QVideoFrame, when it hands out a store
// frame, and to scaling, when it makes an image.
#include "counting_allocator.h"
#include "store.h"

#include "sources/shmemreader.h"
#include "video/videoframestreamconverter.h"

#include <QAbstractPlanarVideoBuffer>
#include <QImage>
#include <QVariant>
#include <benchmark/benchmark.h>
#include <memory>
#include <vector>

extern "C" {
#include <libswscale/swscale.h>
}

namespace {

constexpr int width = 1920;
constexpr int height = 1080;

// A full-HD frame in ordinary memory, with strides as the store has them.
struct Pixels
{
    explicit Pixels(QVideoFrame::PixelFormat pixelFormat)
        : format(pixelFormat), planeCount(format == QVideoFrame::Format_NV12 ? 2 : 3)
    {
        const int chroma = format == QVideoFrame::Format_NV12 ? 2048 : 1024;
        strides[0] = 2048;
        for (int plane = 1; plane < planeCount; ++plane)
            strides[plane] = chroma;
        size_t offset = 0;
        for (int plane = 0; plane < planeCount; ++plane)
            offset += static_cast<size_t>(strides[plane]) * rows(plane);
        memory.resize(offset);
        for (size_t i = 0; i < memory.size(); ++i)
            memory[i] = static_cast<uint8_t>(i * 7 + i / 2048 * 3);
        offset = 0;
        for (int plane = 0; plane < planeCount; ++plane) {
            planes[plane] = memory.data() + offset;
            offset += static_cast<size_t>(strides[plane]) * rows(plane);
        }
    }
    static size_t rows(int plane) { return plane ? height / 2 : height; }

    const QVideoFrame::PixelFormat format;
    const int planeCount;
    std::vector<uint8_t> memory;
    uint8_t *planes[4] = {};
    int strides[4] = {};
};

// The least that a video buffer can be.
class TrivialBuffer : public QAbstractPlanarVideoBuffer
{
public:
    explicit TrivialBuffer(const Pixels &frame) : QAbstractPlanarVideoBuffer(NoHandle), pixels(frame) {}
    MapMode mapMode() const override { return mode; }
    int map(MapMode mapMode, int *numBytes, int bytesPerLine[4], uchar *data[4]) override
    {
        mode = mapMode;
        if (numBytes)
            *numBytes = static_cast<int>(pixels.memory.size());
        for (int plane = 0; plane < pixels.planeCount; ++plane) {
            bytesPerLine[plane] = pixels.strides[plane];
            data[plane] = pixels.planes[plane];
        }
        return pixels.planeCount;
    }
    void unmap() override { mode = NotMapped; }

private:
    const Pixels &pixels;
    MapMode mode = NotMapped;
};

// The frame that the store's reader makes, over a buffer that does nothing.
QVideoFrame trivialFrame(const Pixels &pixels, const QByteArray &name, qint64 timestamp)
{
    auto *buffer = new TrivialBuffer(pixels);
    QVideoFrame frame(buffer, QSize(width, height), pixels.format);
    frame.setStartTime(timestamp);
    frame.setFieldType(QVideoFrame::ProgressiveFrame);
    frame.setMetaData(QStringLiteral("shmname"), QVariant(name));
    frame.setMetaData(QStringLiteral("buffer"), QVariant::fromValue(static_cast<void *>(buffer)));
    return frame;
}

const QByteArray storeName = "bench-core";

bench::Writer &writer()
{
    static bench::StoreDirectory directory;
    static std::unique_ptr<bench::Writer> store;
    if (!store) {
        store = std::make_unique<bench::Writer>(storeName.toStdString(), width, height, 16);
        for (int i = 0; i < 32; ++i)
            store->publish();
    }
    return *store;
}

void makeTrivialFrame(benchmark::State &state)
{
    const Pixels pixels(QVideoFrame::Format_YUV420P);
    for (auto _ : state) {
        QVideoFrame frame = trivialFrame(pixels, storeName, 1);
        benchmark::DoNotOptimize(frame);
    }
}

void grab(benchmark::State &state, bool nearest)
{
    const long long asked = nearest ? writer().newest() - 100000 + 3000 : 0;
    ShmemReader reader(QString::fromUtf8(storeName), 5000);
    if (!reader.open() || !reader.grabVideo(asked).isValid()) {
        state.SkipWithError("no frame");
        return;
    }
    for (auto _ : state) {
        QVideoFrame frame = reader.grabVideo(asked);
        benchmark::DoNotOptimize(frame);
    }
}

void grabNewest(benchmark::State &state)
{
    writer();
    grab(state, false);
}

void grabNearest(benchmark::State &state)
{
    writer();
    grab(state, true);
}

void scaleRaw(benchmark::State &state, QVideoFrame::PixelFormat format, AVPixelFormat avFormat)
{
    const Pixels pixels(format);
    QImage image(width, height, QImage::Format_ARGB32_Premultiplied);
    SwsContext *context = sws_getContext(width, height, avFormat, width, height, AV_PIX_FMT_BGRA, SWS_POINT,
                                         nullptr, nullptr, nullptr);
    int *inverse = nullptr, *table = nullptr;
    int from = 0, to = 0, brightness = 0, contrast = 0, saturation = 0;
    sws_getColorspaceDetails(context, &inverse, &from, &table, &to, &brightness, &contrast, &saturation);
    sws_setColorspaceDetails(context, inverse, 1, table, to, brightness, contrast, saturation);
    uint8_t *const target[4] = {image.bits(), nullptr, nullptr, nullptr};
    const int stride[4] = {image.bytesPerLine(), 0, 0, 0};
    for (auto _ : state)
        sws_scale(context, pixels.planes, pixels.strides, 0, height, target, stride);
    sws_freeContext(context);
}

// A stream: every frame another time, the image dropped before the next. As the shared-memory source sets it
// up.
void convertStream(benchmark::State &state, QVideoFrame::PixelFormat format)
{
    const Pixels pixels(format);
    VideoFrameStreamConverter converter(QSize(0, 0), QImage::Format_ARGB32_Premultiplied, true, true);
    qint64 timestamp = 1;
    QVideoFrame frame = trivialFrame(pixels, storeName, timestamp);
    for (int i = 0; i < 8; ++i) {
        frame.setStartTime(++timestamp);
        if (converter.convert(frame).size() != QSize(width, height)) {
            state.SkipWithError("no image");
            return;
        }
    }
    const bench::Allocations before = bench::allocations();
    for (auto _ : state) {
        frame.setStartTime(++timestamp);
        QImage image = converter.convert(frame);
        benchmark::DoNotOptimize(image);
    }
    // Of 64 KiB and more; the image's texts are small ones.
    state.counters["large_allocations"] =
        static_cast<double>(bench::allocations().largeCount - before.largeCount);
}

// The same without a ring of images, for comparison: allocates each.
void convertOnce(benchmark::State &state)
{
    const Pixels pixels(QVideoFrame::Format_YUV420P);
    VideoFrameConverter converter(QSize(0, 0), QImage::Format_ARGB32_Premultiplied, true, true);
    QVideoFrame frame = trivialFrame(pixels, storeName, 1);
    const bench::Allocations before = bench::allocations();
    for (auto _ : state) {
        QImage image = converter.convert(frame);
        benchmark::DoNotOptimize(image);
    }
    state.counters["large_allocations"] =
        static_cast<double>(bench::allocations().largeCount - before.largeCount);
}

BENCHMARK(makeTrivialFrame);
BENCHMARK(grabNewest);
BENCHMARK(grabNearest);
BENCHMARK_CAPTURE(scaleRaw, yuv420p, QVideoFrame::Format_YUV420P, AV_PIX_FMT_YUV420P);
BENCHMARK_CAPTURE(scaleRaw, nv12, QVideoFrame::Format_NV12, AV_PIX_FMT_NV12);
BENCHMARK_CAPTURE(convertStream, yuv420p, QVideoFrame::Format_YUV420P);
BENCHMARK_CAPTURE(convertStream, nv12, QVideoFrame::Format_NV12);
BENCHMARK(convertOnce);

} // namespace
