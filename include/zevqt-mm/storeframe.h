#ifndef ZEVQTMM_STOREFRAME_H
#define ZEVQTMM_STOREFRAME_H

#include <zevqt-mm/zevqtmmglobal.h>

#include <QtCore/QSize>
#include <QtCore/QString>

class QVideoFrame;
class ShmemDmaVideoBuffer;

/*!
 * What a frame from a store knows about itself beyond QVideoFrame: how its samples become colors, where its
 * planes lie, and which memory it is in.
 *
 * Usage: StoreFrame::of(frame) in a renderer. A frame on the DMA-buf path cannot be mapped; when its EGL
 * image cannot be made either, `planes` are the way to still show it. An image of the memory may be cached by
 * (session, slot, memoryGeneration): the same three mean the same memory.
 *
 * Threads: reentrant. Ownership: `planes` and `dmaBuffer` are borrowed, valid while a copy of the QVideoFrame
 * lives. Units: strides in bytes, size in pixels. Errors: a default record for frames that come from
 * elsewhere. Cost: two look-ups in the frame's meta-data.
 */
struct ZEVQTMM_EXPORT StoreFrame
{
    /*! By which samples become colors. */
    enum Matrix : quint8 { MatrixUnknown, MatrixBt601, MatrixBt709, MatrixBt2020 };
    /*! Which values are black and white. */
    enum Range : quint8 { RangeUnknown, RangeFull, RangeLimited };

    Matrix matrix = MatrixUnknown;            //!< of this frame
    Range range = RangeUnknown;               //!< of this frame
    QSize size = QSize(-1, -1);               //!< pixels
    int planeCount = 0;                       //!< 0: the frame does not come from a store
    const uchar *planes[4] = {};              //!< in the order Y, U, V, or Y, UV
    int strides[4] = {};                      //!< bytes from row to row
    quint64 session = 0;                      //!< of the writer; differs after a restart
    quint32 memoryGeneration = 0;             //!< rises when the slot's memory is replaced
    quint16 slot = 0;                         //!< index of the memory in the store
    quint64 generation = 0;                   //!< of the frame; unique and rising within a session
    ShmemDmaVideoBuffer *dmaBuffer = nullptr; //!< set for a frame on the DMA-buf path
    QString noDmabufReason;                   //!< why it is not on it although that was asked for

    /*! What `frame` knows about itself. */
    static StoreFrame of(const QVideoFrame &frame);
};

#endif
