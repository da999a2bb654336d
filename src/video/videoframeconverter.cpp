#include <zevqt-mm/videoframeconverter.h>

#include <QtCore/QMutexLocker>
#include <QtCore/QVariant>

#include <limits>

extern "C" {
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
}

namespace {

// Planar 4:2:0 in other plane orders and packed formats are left out on purpose.
AVPixelFormat sourceFormat(QVideoFrame::PixelFormat format)
{
    switch (format) {
    case QVideoFrame::Format_YUV420P:
        return AV_PIX_FMT_YUV420P;
    case QVideoFrame::Format_NV12:
        return AV_PIX_FMT_NV12;
    case QVideoFrame::Format_NV21:
        return AV_PIX_FMT_NV21;
    default:
        return AV_PIX_FMT_NONE;
    }
}

AVPixelFormat destinationFormat(QImage::Format format)
{
    switch (format) {
    case QImage::Format_RGB32:
    case QImage::Format_ARGB32:
    case QImage::Format_ARGB32_Premultiplied:
        return AV_PIX_FMT_BGRA;
    case QImage::Format_RGB16:
    case QImage::Format_ARGB8565_Premultiplied:
        return AV_PIX_FMT_RGB565LE;
    default:
        return AV_PIX_FMT_NONE;
    }
}

void assumeFullRange(SwsContext *context)
{
    int *inverseTable = nullptr;
    int *table = nullptr;
    int sourceRange = 0;
    int destinationRange = 0;
    int brightness = 0;
    int contrast = 0;
    int saturation = 0;
    if (sws_getColorspaceDetails(context, &inverseTable, &sourceRange, &table, &destinationRange, &brightness,
                                 &contrast, &saturation) < 0 ||
        sourceRange == 1)
        return;
    sws_setColorspaceDetails(context, inverseTable, 1, table, destinationRange, brightness, contrast,
                             saturation);
}

/*! libswscale reckons offsets into a picture in ints. */
bool isWithinReach(const QSize &size, QImage::Format format)
{
    const qint64 bitsPerLine = qint64(size.width()) * QImage::toPixelFormat(format).bitsPerPixel();
    return (bitsPerLine + 31) / 32 * 4 * size.height() <= std::numeric_limits<int>::max();
}

void scale(SwsContext *context, const QVideoFrame &mapped, QImage &image)
{
    const uint8_t *sourcePlanes[4];
    int sourceStrides[4];
    for (int plane = 0; plane < 4; ++plane) {
        sourcePlanes[plane] = mapped.bits(plane);
        sourceStrides[plane] = mapped.bytesPerLine(plane);
    }
    uint8_t *planes[4] = {image.bits(), nullptr, nullptr, nullptr};
    const int strides[4] = {image.bytesPerLine(), 0, 0, 0};
    sws_scale(context, sourcePlanes, sourceStrides, 0, mapped.height(), planes, strides);
}

void describe(QImage &image, const QVideoFrame &frame)
{
    image.setText(QStringLiteral("pts"), QString::number(frame.startTime(), 10));
    const QVariantMap entries = frame.availableMetaData();
    for (auto entry = entries.cbegin(); entry != entries.cend(); ++entry)
        image.setText(entry.key(), entry.value().toString());
}

} // namespace

VideoFrameConverter::VideoFrameConverter(const QSize &size, QImage::Format format, bool keepAspect,
                                         bool pointSample)
    : targetSize(size), targetFormat(format), keepAspectRatio(keepAspect), pointSampling(pointSample),
      scalingContext(nullptr)
{}

VideoFrameConverter::~VideoFrameConverter()
{
    sws_freeContext(scalingContext);
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): part of the interface
QImage VideoFrameConverter::convert(QVideoFrame frame, const QSize &targetSize, QImage::Format targetFormat,
                                    bool keepAspectRatio, bool pointSampling)
{
    VideoFrameConverter converter(targetSize, targetFormat, keepAspectRatio, pointSampling);
    return converter.convert(frame);
}

QImage VideoFrameConverter::convert(QVideoFrame frame)
{
    if (!frame.isValid())
        return {};
    const QMutexLocker lock(&mutex);
    const qint64 startTime = frame.startTime();
    if (const QImage *cached = getCachedImage(startTime))
        return *cached;

    const QSize size = outputSize(frame.size());
    const AVPixelFormat from = sourceFormat(frame.pixelFormat());
    const AVPixelFormat to = destinationFormat(targetFormat);
    if (from == AV_PIX_FMT_NONE || to == AV_PIX_FMT_NONE || !isWithinReach(size, targetFormat) ||
        !prepareScaler(frame.size(), from, size, to))
        return {};

    QImage *supplied = allocateImage(size);
    QImage local;
    if (!supplied)
        local = QImage(size, targetFormat);
    QImage &image = supplied ? *supplied : local;
    if (image.isNull() || !frame.map(QAbstractVideoBuffer::ReadOnly))
        return {};
    scale(scalingContext, frame, image);
    frame.unmap();

    describe(image, frame);
    if (supplied)
        updateCache(supplied, startTime);
    return image;
}

QSize VideoFrameConverter::outputSize(const QSize &frameSize) const
{
    if (targetSize.width() <= 0 || targetSize.height() <= 0)
        return frameSize;
    const QSize size =
        frameSize.scaled(targetSize, keepAspectRatio ? Qt::KeepAspectRatio : Qt::IgnoreAspectRatio);
    return keepAspectRatio ? QSize(size.width() & ~1, size.height() & ~1) : size;
}

bool VideoFrameConverter::prepareScaler(const QSize &from, int fromFormat, const QSize &to, int toFormat)
{
    scalingContext = sws_getCachedContext(
        scalingContext, from.width(), from.height(), static_cast<AVPixelFormat>(fromFormat), to.width(),
        to.height(), static_cast<AVPixelFormat>(toFormat), pointSampling ? SWS_POINT : SWS_FAST_BILINEAR,
        nullptr, nullptr, nullptr);
    if (!scalingContext)
        return false;
    assumeFullRange(scalingContext);
    return true;
}

QImage *VideoFrameConverter::getCachedImage(qint64)
{
    return nullptr;
}

QImage *VideoFrameConverter::allocateImage(const QSize &)
{
    return nullptr;
}

void VideoFrameConverter::updateCache(QImage *, qint64) {}
