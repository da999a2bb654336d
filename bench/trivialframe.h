// A video frame in ordinary memory over the least that a video buffer can be: what the store's reader and the
// converters are compared with.
#ifndef BENCH_TRIVIALFRAME_H
#define BENCH_TRIVIALFRAME_H

#include <QAbstractPlanarVideoBuffer>
#include <QVariant>
#include <QVideoFrame>
#include <cstdint>
#include <vector>

namespace bench {

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

// The frame that the store's reader makes, over a buffer that does nothing. `name` is a QByteArray, ready as
// the reader has it.
inline QVideoFrame trivialFrame(const Pixels &pixels, const QVariant &name, qint64 timestamp)
{
    auto *buffer = new TrivialBuffer(pixels);
    QVideoFrame frame(buffer, QSize(width, height), pixels.format);
    frame.setStartTime(timestamp);
    frame.setFieldType(QVideoFrame::ProgressiveFrame);
    frame.setMetaData(QStringLiteral("shmname"), name);
    frame.setMetaData(QStringLiteral("buffer"), QVariant::fromValue(static_cast<void *>(buffer)));
    return frame;
}

} // namespace bench

#endif
