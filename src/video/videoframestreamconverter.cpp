#include "video/videoframestreamconverter.h"

#include <QtCore/QMutexLocker>

namespace {

const int ringSize = 4;

// Which entry to write into: the lower, the less it costs. A shared entry is safe to take, since writing
// detaches it, but that copies. A null image is never detached, so class 1 stays empty; it keeps the order
// complete.
enum EntryClass {
    FreeOfThisSize,
    FreeNull,
    FreeOfOtherSize,
    SharedNull,
    SharedOfThisSize,
    SharedOfOtherSize,
    EntryClassCount
};

EntryClass classify(const QImage &image, const QSize &size)
{
    if (image.isDetached())
        return image.size() == size ? FreeOfThisSize : image.isNull() ? FreeNull : FreeOfOtherSize;
    return image.isNull() ? SharedNull : image.size() == size ? SharedOfThisSize : SharedOfOtherSize;
}

} // namespace

VideoFrameStreamConverter::VideoFrameStreamConverter(const QSize &size, QImage::Format format,
                                                     bool keepAspect, bool pointSample)
    : VideoFrameConverter(size, format, keepAspect, pointSample), imageRing(ringSize), cachedImage(nullptr),
      cachedTimestamp(0)
{}

VideoFrameStreamConverter::~VideoFrameStreamConverter() = default;

void VideoFrameStreamConverter::reset(const QSize &size, QImage::Format format, bool keepAspect,
                                      bool pointSample)
{
    const QMutexLocker lock(&mutex);
    if (size != targetSize || format != targetFormat) {
        cachedImage = nullptr;
        cachedTimestamp = 0;
        imageRing.fill(QImage());
    }
    targetSize = size;
    keepAspectRatio = keepAspect;
    pointSampling = pointSample;
}

QImage *VideoFrameStreamConverter::getCachedImage(qint64 startTime)
{
    return startTime == cachedTimestamp ? cachedImage : nullptr;
}

QImage *VideoFrameStreamConverter::allocateImage(const QSize &size)
{
    QImage *firstOfClass[EntryClassCount] = {};
    for (QImage &image : imageRing) {
        const EntryClass entryClass = classify(image, size);
        if (!firstOfClass[entryClass])
            firstOfClass[entryClass] = &image;
        if (entryClass == FreeOfThisSize)
            break;
    }
    QImage *chosen = &imageRing.first();
    for (QImage *candidate : firstOfClass) {
        if (candidate) {
            chosen = candidate;
            break;
        }
    }
    // From here on it holds something else, also when the conversion fails and nothing takes its place.
    if (chosen == cachedImage) {
        cachedImage = nullptr;
        cachedTimestamp = 0;
    }
    if (chosen->size() != size)
        *chosen = QImage(size, targetFormat);
    return chosen;
}

void VideoFrameStreamConverter::updateCache(QImage *image, qint64 startTime)
{
    cachedImage = image;
    cachedTimestamp = startTime;
}
