#include "video/storeframerecord.h"

StoreFrame storeFrameFromRecord(const shm_video_frame_t &record)
{
    StoreFrame result;
    // Values that a later store may know and this library does not are unknown to the application too.
    switch (record.matrix) {
    case SHM_MATRIX_BT601:
        result.matrix = StoreFrame::MatrixBt601;
        break;
    case SHM_MATRIX_BT709:
        result.matrix = StoreFrame::MatrixBt709;
        break;
    case SHM_MATRIX_BT2020:
        result.matrix = StoreFrame::MatrixBt2020;
        break;
    default:
        break;
    }
    if (record.range == SHM_RANGE_FULL)
        result.range = StoreFrame::RangeFull;
    else if (record.range == SHM_RANGE_LIMITED)
        result.range = StoreFrame::RangeLimited;
    result.size = QSize(record.width, record.height);
    while (result.planeCount < 4 && record.planes[result.planeCount]) {
        result.planes[result.planeCount] = record.planes[result.planeCount];
        result.strides[result.planeCount] = record.strides[result.planeCount];
        ++result.planeCount;
    }
    result.session = record.session;
    result.memoryGeneration = record.memory_generation;
    result.slot = record.slot;
    result.generation = record.generation;
    return result;
}
