#ifndef ZEVQTMM_VIDEOFRAMESTREAMCONVERTER_H
#define ZEVQTMM_VIDEOFRAMESTREAMCONVERTER_H

#include <zevqt-mm/videoframeconverter.h>

#include <QtCore/QVector>

/*!
 * The converter for a stream: converts each frame once, into images whose memory is used again.
 *
 * Usage: as its base. Consumers that let go of an image within the next three get conversion without
 * allocation; one that holds images longer costs a deep copy, never a wrong picture.
 *
 * Threads: thread-safe; reset() takes turns with conversions.
 *
 * Ownership: the ring shares its images' pixels with the consumers.
 */
class VideoFrameStreamConverter : public VideoFrameConverter
{
public:
    VideoFrameStreamConverter(const QSize &targetSize, QImage::Format targetFormat, bool keepAspectRatio,
                              bool pointSampling);
    ~VideoFrameStreamConverter() override;

    /*!
     * New size and flags for the frames to come. The format stays what it was at construction: another one
     * only empties the ring. With size and format unchanged, a cached image is still returned as it is.
     */
    void reset(const QSize &size, QImage::Format format, bool keepAspectRatio, bool pointSampling);

protected:
    QImage *getCachedImage(qint64 startTime) override;
    QImage *allocateImage(const QSize &size) override;
    void updateCache(QImage *image, qint64 startTime) override;

private:
    QVector<QImage> imageRing;
    QImage *cachedImage; // in imageRing
    qint64 cachedTimestamp;
};

#endif
