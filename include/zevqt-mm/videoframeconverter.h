#ifndef ZEVQTMM_VIDEOFRAMECONVERTER_H
#define ZEVQTMM_VIDEOFRAMECONVERTER_H

#include <zevqt-mm/zevqtmmglobal.h>

#include <QtCore/QMutex>
#include <QtCore/QSize>
#include <QtGui/QImage>
#include <QtMultimedia/QVideoFrame>

struct SwsContext;

/*!
 * Turns mappable 4:2:0 frames (YUV420P, NV12, NV21) into images of a size and format.
 *
 * Usage: keep one per stream and call convert() for each frame; the static convert() does a single one.
 * Targets are RGB32, ARGB32, ARGB32_Premultiplied, RGB16 and ARGB8565_Premultiplied. An invalid or empty
 * target size means the frame's own; with keepAspectRatio the image is the largest even size that fits inside
 * it.
 *
 * The image carries the text "pts" (the frame's start time in decimal) and every meta-data entry of the
 * frame. Samples are taken as full range (0 to 255), with swscale's default matrix.
 *
 * Threads: thread-safe; conversions on one converter take turns.
 *
 * Ownership: the image is shared implicitly; a subclass may keep a reference to it.
 *
 * Units: sizes in pixels; start time in microseconds as in the frame.
 *
 * swscale reads rows in blocks of up to 32 bytes: the memory behind a frame has to go on that far after its
 * last sample, as a store's padded rows do.
 *
 * Errors: a null image for an invalid or unmappable frame, a format that is not listed, memory that is not
 * there, or an image of 2 GiB and more.
 *
 * Cost: scales in the calling thread; allocates the image on every call unless a subclass supplies it.
 */
class ZEVQTMM_EXPORT VideoFrameConverter
{
public:
    /*! pointSampling takes the nearest sample instead of filtering bilinearly: faster, and coarser. */
    VideoFrameConverter(const QSize &targetSize, QImage::Format targetFormat, bool keepAspectRatio,
                        bool pointSampling);
    virtual ~VideoFrameConverter();

    /*! The frame as an image; a subclass may have it already. */
    QImage convert(QVideoFrame frame);
    /*! The same, once, with nothing kept. */
    static QImage convert(QVideoFrame frame, const QSize &targetSize, QImage::Format targetFormat,
                          bool keepAspectRatio, bool pointSampling);

protected:
    // Called by convert() with the mutex held; must not call back into it. Images stay the subclass's own.

    /*! The image for this start time, or null to convert. */
    virtual QImage *getCachedImage(qint64 startTime);
    /*! An image of exactly `size` to write into, or null to let convert() make one. */
    virtual QImage *allocateImage(const QSize &size);
    /*! `image`, got from allocateImage(), now holds the frame of `startTime`. */
    virtual void updateCache(QImage *image, qint64 startTime);

    QMutex mutex;                //!< held during a conversion, protects the rest
    QSize targetSize;            //!< pixels; empty: the frame's own
    QImage::Format targetFormat; //!< of the images
    bool keepAspectRatio;        //!< the image is smaller than asked for rather than distorted
    bool pointSampling;          //!< the nearest sample, not filtered
    SwsContext *scalingContext;  //!< swscale's, for the last sizes and formats; null before the first

private:
    Q_DISABLE_COPY(VideoFrameConverter)

    QSize outputSize(const QSize &frameSize) const;
    bool prepareScaler(const QSize &from, int fromFormat, const QSize &to, int toFormat);
};

#endif
