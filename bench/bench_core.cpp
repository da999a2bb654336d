// What the library adds to scaling when it makes an image.
#include "counting_allocator.h"
#include "trivialframe.h"

#include "video/videoframestreamconverter.h"

#include <QImage>
#include <benchmark/benchmark.h>

extern "C" {
#include <libswscale/swscale.h>
}

namespace {

using bench::height;
using bench::Pixels;
using bench::trivialFrame;
using bench::width;

const QVariant storeName = QByteArray("bench-core");

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

BENCHMARK_CAPTURE(scaleRaw, yuv420p, QVideoFrame::Format_YUV420P, AV_PIX_FMT_YUV420P);
BENCHMARK_CAPTURE(scaleRaw, nv12, QVideoFrame::Format_NV12, AV_PIX_FMT_NV12);
BENCHMARK_CAPTURE(convertStream, yuv420p, QVideoFrame::Format_YUV420P);
BENCHMARK_CAPTURE(convertStream, nv12, QVideoFrame::Format_NV12);
BENCHMARK(convertOnce);

} // namespace
