#include "frameplanes.h"

#include <zevqt-mm/storeframe.h>

namespace zevqml {

bool isPlanarYuv(QVideoFrame::PixelFormat format)
{
    return format == QVideoFrame::Format_YUV420P || format == QVideoFrame::Format_NV12;
}

YuvColors frameColors(const QVideoFrame &frame)
{
    const StoreFrame store = StoreFrame::of(frame);
    YuvColors colors;
    switch (store.matrix) {
    case StoreFrame::MatrixBt601:
        colors.matrix = YuvColors::Matrix::Bt601;
        break;
    case StoreFrame::MatrixBt709:
        colors.matrix = YuvColors::Matrix::Bt709;
        break;
    case StoreFrame::MatrixBt2020:
        colors.matrix = YuvColors::Matrix::Bt2020;
        break;
    case StoreFrame::MatrixUnknown:
        break;
    }
    switch (store.range) {
    case StoreFrame::RangeFull:
        colors.range = YuvColors::Range::Full;
        break;
    case StoreFrame::RangeLimited:
        colors.range = YuvColors::Range::Limited;
        break;
    case StoreFrame::RangeUnknown:
        break;
    }
    return colors;
}

bool isStandIn(const QVideoFrame &frame)
{
    return !frame.isValid() || (frame.handleType() == QAbstractVideoBuffer::NoHandle &&
                                !isPlanarYuv(frame.pixelFormat()) && StoreFrame::of(frame).planeCount == 0);
}

bool hasReadablePlanes(const QVideoFrame &frame)
{
    return frame.handleType() == QAbstractVideoBuffer::NoHandle || StoreFrame::of(frame).planeCount > 0;
}

FramePlanes::FramePlanes(const QVideoFrame &frame) : m_frame(frame)
{
    if (!m_frame.isValid() || !isPlanarYuv(m_frame.pixelFormat()))
        return;
    const bool pairs = m_frame.pixelFormat() == QVideoFrame::Format_NV12;
    const int count = pairs ? 2 : 3;
    if (m_frame.handleType() == QAbstractVideoBuffer::NoHandle) {
        m_mapped = m_frame.map(QAbstractVideoBuffer::ReadOnly);
        if (!m_mapped || m_frame.planeCount() < count)
            return;
        for (int i = 0; i < count; ++i) {
            m_data[i] = m_frame.bits(i);
            m_strideBytes[i] = m_frame.bytesPerLine(i);
        }
    } else {
        const StoreFrame store = StoreFrame::of(m_frame);
        if (store.planeCount < count)
            return;
        for (int i = 0; i < count; ++i) {
            m_data[i] = store.planes[i];
            m_strideBytes[i] = store.strides[i];
        }
    }
    for (int i = 0; i < count; ++i) {
        const int rowBytes = i == 0 ? size().width() : chromaSize().width() * (pairs ? 2 : 1);
        if (!m_data[i] || m_strideBytes[i] < rowBytes)
            return;
    }
    m_count = count;
}

FramePlanes::~FramePlanes()
{
    if (m_mapped)
        m_frame.unmap();
}

} // namespace zevqml
