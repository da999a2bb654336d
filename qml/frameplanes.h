#pragma once

#include "yuvcolors.h"

#include <QVideoFrame>

namespace zevqml {

/* True for the planar layouts that stores carry: YUV420P and NV12. */
bool isPlanarYuv(QVideoFrame::PixelFormat format);

/* The frame's matrix and range as its store recorded them; unknown for frames from elsewhere. */
YuvColors frameColors(const QVideoFrame &frame);

/* A provider's picture for a source that gives none: neither of a store nor of the GPU, and an image. Also
 * when it is invalid, for want of one. */
bool isStandIn(const QVideoFrame &frame);

/* The planes of this frame can be read by the CPU: mapped, or, of a frame that lives in a DMA buffer, where
 * the store has them in memory. */
bool hasReadablePlanes(const QVideoFrame &frame);

/*
 * The planes of a 4:2:0 frame (Y, U, V, or Y and interleaved UV) for as long as this object lives.
 *
 * Threads: any, one at a time per object. Ownership: holds a copy of the frame, mapped for reading.
 * Errors: isNull() when the frame is of another layout, cannot be read, or has planes too small for its size.
 */
class FramePlanes
{
public:
    explicit FramePlanes(const QVideoFrame &frame);
    ~FramePlanes();
    FramePlanes(const FramePlanes &) = delete;
    FramePlanes &operator=(const FramePlanes &) = delete;

    bool isNull() const { return m_count == 0; }
    int count() const { return m_count; }
    bool interleaved() const { return m_count == 2; }
    QSize size() const { return m_frame.size(); }
    /* Rounded up for odd sizes. */
    QSize chromaSize() const { return {(size().width() + 1) / 2, (size().height() + 1) / 2}; }
    const uchar *row(int plane, int row) const
    {
        return m_data[plane] + qptrdiff(row) * m_strideBytes[plane];
    }
    int strideBytes(int plane) const { return m_strideBytes[plane]; }

private:
    QVideoFrame m_frame;
    bool m_mapped = false;
    int m_count = 0;
    const uchar *m_data[3] = {};
    int m_strideBytes[3] = {};
};

} // namespace zevqml
