#pragma once

#include <QAbstractVideoBuffer>
#include <QVideoFrame>

#include <vector>

/*
 * A 4:2:0 frame in ordinary memory, with padding after every row, that knows how many of its kind are alive:
 * as a frame of a store is locked while its buffer lives.
 */
class PlanarBuffer : public QAbstractPlanarVideoBuffer
{
public:
    PlanarBuffer(QVideoFrame::PixelFormat format, QSize size, int padding)
        : QAbstractPlanarVideoBuffer(NoHandle)
    {
        const QSize chroma((size.width() + 1) / 2, (size.height() + 1) / 2);
        const bool pairs = format == QVideoFrame::Format_NV12;
        m_count = pairs ? 2 : 3;
        for (int i = 0; i < m_count; ++i) {
            m_strides[i] = (i == 0 ? size.width() : chroma.width() * (pairs ? 2 : 1)) + padding;
            // Padding that is drawn by mistake is seen: 0x55 is no value of the tests.
            m_planes[i].assign(
                std::size_t(m_strides[i]) * std::size_t(i == 0 ? size.height() : chroma.height()), 0x55);
        }
        ++alive();
    }
    ~PlanarBuffer() override { --alive(); }

    static int &alive()
    {
        static int count = 0;
        return count;
    }

    uchar *row(int plane, int y) { return m_planes[plane].data() + std::ptrdiff_t(y) * m_strides[plane]; }

    MapMode mapMode() const override { return m_mode; }
    void unmap() override { m_mode = NotMapped; }
    int map(MapMode mode, int *numBytes, int bytesPerLine[4], uchar *data[4]) override
    {
        if (m_mode != NotMapped || refuseToMap)
            return 0;
        m_mode = mode;
        if (numBytes)
            *numBytes = int(m_planes[0].size() + m_planes[1].size() + m_planes[2].size());
        for (int i = 0; i < m_count; ++i) {
            bytesPerLine[i] = m_strides[i];
            data[i] = m_planes[i].data();
        }
        return m_count;
    }

    bool refuseToMap = false;

private:
    MapMode m_mode = NotMapped;
    int m_count = 0;
    int m_strides[3] = {};
    std::vector<uchar> m_planes[3];
};

/* A frame whose left and right halves have one color each. */
struct Yuv
{
    uchar y, u, v;
};
inline QVideoFrame twoColorFrame(QVideoFrame::PixelFormat format, QSize size, Yuv left, Yuv right,
                                 int padding = 0, bool refuseToMap = false)
{
    auto *buffer = new PlanarBuffer(format, size, padding);
    for (int row = 0; row < size.height(); ++row)
        for (int x = 0; x < size.width(); ++x)
            buffer->row(0, row)[x] = x < size.width() / 2 ? left.y : right.y;
    const bool pairs = format == QVideoFrame::Format_NV12;
    for (int row = 0; row < (size.height() + 1) / 2; ++row) {
        for (int x = 0; x < (size.width() + 1) / 2; ++x) {
            const Yuv &color = x < size.width() / 4 ? left : right;
            (pairs ? buffer->row(1, row)[2 * x] : buffer->row(1, row)[x]) = color.u;
            (pairs ? buffer->row(1, row)[2 * x + 1] : buffer->row(2, row)[x]) = color.v;
        }
    }
    buffer->refuseToMap = refuseToMap;
    return QVideoFrame(buffer, size, format);
}
