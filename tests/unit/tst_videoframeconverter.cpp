#include "video/videoframestreamconverter.h"

#include <zevqt-mm/videoframeconverter.h>

#include <QtTest/QtTest>

#include <cstring>

#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

extern "C" {
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
}

namespace {

/*! A frame in ordinary memory with a gradient in it. */
QVideoFrame makeFrame(QVideoFrame::PixelFormat format, const QSize &size, qint64 startTime = 0, int shade = 0)
{
    const int stride = (size.width() + 63) / 64 * 64;
    const int chromaRows = (size.height() + 1) / 2;
    QVideoFrame frame(stride * (size.height() + 2 * chromaRows) * 2, size, stride, format);
    if (!frame.map(QAbstractVideoBuffer::WriteOnly))
        return {};
    uchar *bytes = frame.bits();
    for (int i = 0; i < frame.mappedBytes(); ++i)
        bytes[i] = uchar((i * 7 + i / stride * 3 + shade) & 0xff);
    frame.unmap();
    frame.setStartTime(startTime);
    return frame;
}

/*! What FFmpeg itself makes of the frame with the documented settings. */
QImage reference(QVideoFrame frame, AVPixelFormat from, const QSize &size, QImage::Format format,
                 AVPixelFormat to, int flags)
{
    SwsContext *context = sws_getContext(frame.width(), frame.height(), from, size.width(), size.height(), to,
                                         flags, nullptr, nullptr, nullptr);
    int *inverse;
    int *table;
    int sourceRange;
    int destinationRange;
    int brightness;
    int contrast;
    int saturation;
    sws_getColorspaceDetails(context, &inverse, &sourceRange, &table, &destinationRange, &brightness,
                             &contrast, &saturation);
    sws_setColorspaceDetails(context, inverse, 1, table, destinationRange, brightness, contrast, saturation);
    QImage image(size, format);
    image.fill(0);
    frame.map(QAbstractVideoBuffer::ReadOnly);
    const uint8_t *planes[4] = {frame.bits(0), frame.bits(1), frame.bits(2), nullptr};
    const int strides[4] = {frame.bytesPerLine(0), frame.bytesPerLine(1), frame.bytesPerLine(2), 0};
    uint8_t *target[4] = {image.bits(), nullptr, nullptr, nullptr};
    const int targetStrides[4] = {image.bytesPerLine(), 0, 0, 0};
    sws_scale(context, planes, strides, 0, frame.height(), target, targetStrides);
    frame.unmap();
    sws_freeContext(context);
    return image;
}

/*! Planes that end exactly before a page nobody may touch. */
class GuardedBuffer : public QAbstractPlanarVideoBuffer
{
public:
    GuardedBuffer(int stride_, int rows)
        : QAbstractPlanarVideoBuffer(NoHandle), stride(stride_), lumaRows(rows)
    {
        const size_t page = size_t(sysconf(_SC_PAGESIZE));
        const size_t bytes = size_t(stride) * (lumaRows + (lumaRows + 1) / 2);
        mapped = (bytes + page - 1) / page * page + page;
        memory = static_cast<uchar *>(
            mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        mprotect(memory + mapped - page, page, PROT_NONE);
        start = memory + mapped - page - bytes;
        for (size_t i = 0; i < bytes; ++i)
            start[i] = uchar(i);
    }
    ~GuardedBuffer() override { munmap(memory, mapped); }
    MapMode mapMode() const override { return mode; }
    using QAbstractPlanarVideoBuffer::map;
    int map(MapMode wanted, int *bytes, int strides[4], uchar *data[4]) override
    {
        mode = wanted;
        if (bytes)
            *bytes = stride * (lumaRows + (lumaRows + 1) / 2);
        data[0] = start;
        data[1] = start + size_t(stride) * lumaRows;
        strides[0] = strides[1] = stride;
        return 2;
    }
    void unmap() override { mode = NotMapped; }

private:
    MapMode mode = NotMapped;
    int stride;
    int lumaRows;
    size_t mapped;
    uchar *memory;
    uchar *start;
};

/*! Cannot be mapped. */
class UnmappableBuffer : public QAbstractVideoBuffer
{
public:
    UnmappableBuffer() : QAbstractVideoBuffer(NoHandle) {}
    MapMode mapMode() const override { return NotMapped; }
    uchar *map(MapMode, int *, int *) override { return nullptr; }
    void unmap() override {}
};

/*! Notes when the hooks are called. */
class HookedConverter : public VideoFrameConverter
{
public:
    using VideoFrameConverter::VideoFrameConverter;
    QStringList calls;
    QImage *cached = nullptr;
    QImage *supplied = nullptr;

protected:
    QImage *getCachedImage(qint64 startTime) override
    {
        calls << QStringLiteral("cached %1").arg(startTime);
        return cached;
    }
    QImage *allocateImage(const QSize &size) override
    {
        calls << QStringLiteral("allocate %1x%2").arg(size.width()).arg(size.height());
        return supplied;
    }
    void updateCache(QImage *image, qint64 startTime) override
    {
        calls << QStringLiteral("update %1 %2").arg(image == supplied).arg(startTime);
    }
};

const QSize beyondInts(30000, 30000); // with four bytes a pixel
const QSize large(20000, 20000);

/*! While it lives, this process gets no memory for a large picture. */
class LittleMemory
{
public:
    LittleMemory()
    {
        getrlimit(RLIMIT_AS, &before);
        QFile statm(QStringLiteral("/proc/self/statm")); // pages, of the address space first
        if (!statm.open(QIODevice::ReadOnly))
            return;
        const rlim_t used = statm.readAll().split(' ').first().toULongLong() * rlim_t(sysconf(_SC_PAGESIZE));
        const rlimit little{used + (rlim_t(512) << 20), before.rlim_max};
        applied = setrlimit(RLIMIT_AS, &little) == 0;
    }
    ~LittleMemory() { setrlimit(RLIMIT_AS, &before); }
    bool applied = false;

private:
    rlimit before;
};

/*! What is logged while it lives. */
class Warnings
{
public:
    Warnings() : before(qInstallMessageHandler(&note)) { texts.clear(); }
    ~Warnings() { qInstallMessageHandler(before); }
    static QStringList texts;

private:
    static void note(QtMsgType, const QMessageLogContext &, const QString &text) { texts << text; }
    QtMessageHandler before;
};
QStringList Warnings::texts;

bool samePixels(const QImage &a, const QImage &b)
{
    if (a.size() != b.size() || a.format() != b.format())
        return false;
    for (int y = 0; y < a.height(); ++y) {
        if (std::memcmp(a.constScanLine(y), b.constScanLine(y), size_t(a.width()) * size_t(a.depth()) / 8) !=
            0)
            return false;
    }
    return true;
}

} // namespace

class tst_VideoFrameConverter : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void comparesWithFFmpeg_data();
    void comparesWithFFmpeg();
    void samplesAreFullRange();
    void size_data();
    void size();
    void unsupportedSources_data();
    void unsupportedSources();
    void unsupportedTargets_data();
    void unsupportedTargets();
    void invalidFrameTouchesNoHook();
    void unmappableFrameGivesNull();
    void imageThatCannotBeAllocatedGivesNull();
    void imageBeyondTheScalersReachGivesNull();
    void missingPlaneGivesAnImageAllTheSame();
    void text();
    void metaDataOverridesPts();
    void hooks();
    void cachedImageIsReturnedUnseen();
    void changingSourcesOnOneConverter();
    void neverReadsOrWritesPastTheEnd_data();
    void neverReadsOrWritesPastTheEnd();

    void streamConvertsAFrameOnce();
    void streamReusesMemory();
    void streamLeavesHeldImagesAlone();
    void streamPrefersMemoryOfTheRightSize();
    void streamRingGrowsNoFurther();
    void resetWithNewSizeConvertsAgain();
    void resetOfTheFlagsKeepsTheCache();
    void resetWithNewFormatEmptiesTheRingAndKeepsTheFormat();
    void resetForgetsImagesThatNobodyHolds();
    void startTimeZeroIsNoHit();
    void failureForgetsTheImageThatItOverwrote();
    void streamRemembersNoImageThatCouldNotBeAllocated();
    void conversionsTakeTurns();
};

void tst_VideoFrameConverter::comparesWithFFmpeg_data()
{
    QTest::addColumn<QVideoFrame::PixelFormat>("source");
    QTest::addColumn<int>("from");
    QTest::addColumn<QImage::Format>("target");
    QTest::addColumn<int>("to");
    QTest::addColumn<bool>("pointSampling");
    QTest::addColumn<QSize>("size");
    const struct
    {
        const char *name;
        QVideoFrame::PixelFormat format;
        AVPixelFormat ffmpeg;
    } sources[] = {{"YUV420P", QVideoFrame::Format_YUV420P, AV_PIX_FMT_YUV420P},
                   {"NV12", QVideoFrame::Format_NV12, AV_PIX_FMT_NV12},
                   {"NV21", QVideoFrame::Format_NV21, AV_PIX_FMT_NV21}};
    const struct
    {
        const char *name;
        QImage::Format format;
        AVPixelFormat ffmpeg;
    } targets[] = {{"RGB32", QImage::Format_RGB32, AV_PIX_FMT_BGRA},
                   {"ARGB32", QImage::Format_ARGB32, AV_PIX_FMT_BGRA},
                   {"ARGB32_Premultiplied", QImage::Format_ARGB32_Premultiplied, AV_PIX_FMT_BGRA},
                   {"RGB16", QImage::Format_RGB16, AV_PIX_FMT_RGB565LE},
                   {"ARGB8565_Premultiplied", QImage::Format_ARGB8565_Premultiplied, AV_PIX_FMT_RGB565LE}};
    for (const auto &source : sources) {
        for (const auto &target : targets) {
            for (bool pointSampling : {true, false}) {
                for (const QSize &size : {QSize(128, 72), QSize(64, 36), QSize(200, 151)})
                    QTest::addRow("%s to %s, %s, %dx%d", source.name, target.name,
                                  pointSampling ? "point" : "bilinear", size.width(), size.height())
                        << source.format << int(source.ffmpeg) << target.format << int(target.ffmpeg)
                        << pointSampling << size;
            }
        }
    }
}

void tst_VideoFrameConverter::comparesWithFFmpeg()
{
    QFETCH(QVideoFrame::PixelFormat, source);
    QFETCH(int, from);
    QFETCH(QImage::Format, target);
    QFETCH(int, to);
    QFETCH(bool, pointSampling);
    QFETCH(QSize, size);
    const QVideoFrame frame = makeFrame(source, QSize(128, 72), 5);
    VideoFrameConverter converter(size, target, false, pointSampling);
    const QImage expected =
        reference(frame, AVPixelFormat(from), size, target, AVPixelFormat(to), pointSampling ? 0x10 : 1);
    const QImage once = converter.convert(frame);
    QCOMPARE(once.format(), target);
    const int bytes = to == AV_PIX_FMT_BGRA ? 4 : 2; // written for each pixel
    for (int round = 0; round < 2; ++round) {        // the second time with the scaler kept from the first
        const QImage image =
            round == 0 ? once : VideoFrameConverter::convert(frame, size, target, false, pointSampling);
        QCOMPARE(image.size(), size);
        for (int y = 0; y < size.height(); ++y)
            QVERIFY(std::memcmp(image.constScanLine(y), expected.constScanLine(y),
                                size_t(size.width()) * bytes) == 0);
    }
    const QImage again = converter.convert(frame);
    for (int y = 0; y < size.height(); ++y)
        QVERIFY(std::memcmp(again.constScanLine(y), expected.constScanLine(y),
                            size_t(size.width()) * bytes) == 0);
}

void tst_VideoFrameConverter::samplesAreFullRange()
{
    for (int luma : {0, 16, 128, 235, 255}) {
        QVideoFrame frame(64 * 64 * 3 / 2, QSize(64, 64), 64, QVideoFrame::Format_NV12);
        QVERIFY(frame.map(QAbstractVideoBuffer::WriteOnly));
        std::memset(frame.bits(0), luma, 64 * 64);
        std::memset(frame.bits(0) + 64 * 64, 128, 64 * 32);
        frame.unmap();
        const QImage image = VideoFrameConverter::convert(frame, QSize(), QImage::Format_RGB32, true, true);
        QVERIFY(qAbs(qGreen(image.pixel(10, 10)) - luma) <= 1);
        QVERIFY(qAbs(qRed(image.pixel(10, 10)) - luma) <= 1);
    }
}

void tst_VideoFrameConverter::size_data()
{
    QTest::addColumn<QSize>("source");
    QTest::addColumn<QSize>("target");
    QTest::addColumn<bool>("keepAspectRatio");
    QTest::addColumn<QSize>("expected");
    const QSize hd(1920, 1080);
    QTest::newRow("1280x1024") << hd << QSize(1280, 1024) << true << QSize(1280, 720);
    QTest::newRow("1000x1000") << hd << QSize(1000, 1000) << true << QSize(1000, 562);
    QTest::newRow("999x999 is rounded down to even") << hd << QSize(999, 999) << true << QSize(998, 560);
    QTest::newRow("exact") << hd << QSize(640, 480) << false << QSize(640, 480);
    QTest::newRow("exact and odd") << hd << QSize(641, 479) << false << QSize(641, 479);
    QTest::newRow("0x0: the source's") << hd << QSize(0, 0) << true << hd;
    QTest::newRow("-1x-1: the source's") << hd << QSize(-1, -1) << true << hd;
    QTest::newRow("one side only: the source's") << hd << QSize(640, 0) << true << hd;
    QTest::newRow("odd source is not rounded") << QSize(63, 35) << QSize() << true << QSize(63, 35);
    QTest::newRow("nothing left after rounding") << QSize(64, 64) << QSize(1, 1) << true << QSize(0, 0);
}

void tst_VideoFrameConverter::size()
{
    QFETCH(QSize, source);
    QFETCH(QSize, target);
    QFETCH(bool, keepAspectRatio);
    const QImage image = VideoFrameConverter::convert(makeFrame(QVideoFrame::Format_NV12, source), target,
                                                      QImage::Format_RGB16, keepAspectRatio, true);
    QTEST(image.size(), "expected");
}

void tst_VideoFrameConverter::unsupportedSources_data()
{
    QTest::addColumn<QVideoFrame::PixelFormat>("format");
    QTest::newRow("YV12") << QVideoFrame::Format_YV12;
    QTest::newRow("UYVY") << QVideoFrame::Format_UYVY;
    QTest::newRow("YUYV") << QVideoFrame::Format_YUYV;
    QTest::newRow("RGB32") << QVideoFrame::Format_RGB32;
    QTest::newRow("ARGB32") << QVideoFrame::Format_ARGB32;
    QTest::newRow("RGB565") << QVideoFrame::Format_RGB565;
    QTest::newRow("AYUV444") << QVideoFrame::Format_AYUV444;
    QTest::newRow("YUV444") << QVideoFrame::Format_YUV444;
    QTest::newRow("IMC1") << QVideoFrame::Format_IMC1;
    QTest::newRow("Y8") << QVideoFrame::Format_Y8;
    QTest::newRow("Jpeg") << QVideoFrame::Format_Jpeg;
    QTest::newRow("Invalid") << QVideoFrame::Format_Invalid;
}

void tst_VideoFrameConverter::unsupportedSources()
{
    QFETCH(QVideoFrame::PixelFormat, format);
    const QVideoFrame frame(64 * 64 * 4, QSize(64, 64), 256, format);
    QVERIFY(frame.isValid());
    QVERIFY(VideoFrameConverter::convert(frame, QSize(), QImage::Format_RGB32, true, true).isNull());
}

void tst_VideoFrameConverter::unsupportedTargets_data()
{
    QTest::addColumn<QImage::Format>("format");
    const QVector<QImage::Format> supported = {QImage::Format_RGB32, QImage::Format_ARGB32,
                                               QImage::Format_ARGB32_Premultiplied, QImage::Format_RGB16,
                                               QImage::Format_ARGB8565_Premultiplied};
    for (int format = QImage::Format_Invalid; format < QImage::NImageFormats; ++format) {
        if (!supported.contains(QImage::Format(format)))
            QTest::addRow("%d", format) << QImage::Format(format);
    }
}

void tst_VideoFrameConverter::unsupportedTargets()
{
    QFETCH(QImage::Format, format);
    const QVideoFrame frame = makeFrame(QVideoFrame::Format_NV12, QSize(64, 36));
    QVERIFY(VideoFrameConverter::convert(frame, QSize(), format, true, true).isNull());
}

void tst_VideoFrameConverter::invalidFrameTouchesNoHook()
{
    HookedConverter converter(QSize(), QImage::Format_RGB32, true, true);
    QVERIFY(converter.convert(QVideoFrame()).isNull());
    QCOMPARE(converter.calls, QStringList());
}

void tst_VideoFrameConverter::unmappableFrameGivesNull()
{
    HookedConverter converter(QSize(), QImage::Format_RGB32, true, true);
    QImage image(64, 36, QImage::Format_RGB32);
    converter.supplied = &image;
    QVERIFY(converter.convert(QVideoFrame(new UnmappableBuffer, QSize(64, 36), QVideoFrame::Format_NV12))
                .isNull());
    QCOMPARE(converter.calls, QStringList({"cached -1", "allocate 64x36"})); // nothing to remember
    QVERIFY(VideoFrameConverter::convert(
                QVideoFrame(new UnmappableBuffer, QSize(64, 36), QVideoFrame::Format_NV12), QSize(),
                QImage::Format_RGB32, true, true)
                .isNull());
}

void tst_VideoFrameConverter::imageThatCannotBeAllocatedGivesNull()
{
    HookedConverter converter(large, QImage::Format_RGB32, false, true);
    const QVideoFrame frame = makeFrame(QVideoFrame::Format_NV12, QSize(64, 36), 7);
    const Warnings warnings;
    QImage null; // as a converter that keeps images has it then
    converter.supplied = &null;
    QVERIFY(converter.convert(frame).isNull());
    QCOMPARE(converter.calls, QStringList({"cached 7", "allocate 20000x20000"})); // nothing to remember
    QCOMPARE(warnings.texts, QStringList());

#if defined __SANITIZE_ADDRESS__ || defined __SANITIZE_THREAD__
    QSKIP("the sanitizers' allocators do not fail, they end the process");
#endif
    converter.calls.clear();
    converter.supplied = nullptr;
    const LittleMemory littleMemory;
    QVERIFY(littleMemory.applied);
    QVERIFY(converter.convert(frame).isNull());
    QCOMPARE(converter.calls, QStringList({"cached 7", "allocate 20000x20000"}));
    QVERIFY(VideoFrameConverter::convert(frame, large, QImage::Format_RGB32, false, true).isNull());
    QVERIFY(!VideoFrameConverter::convert(frame, QSize(), QImage::Format_RGB32, false, true).isNull());
    QCOMPARE(warnings.texts, QStringList());
}

void tst_VideoFrameConverter::imageBeyondTheScalersReachGivesNull()
{
    const QVideoFrame frame = makeFrame(QVideoFrame::Format_NV12, QSize(64, 36), 7);
    HookedConverter converter(beyondInts, QImage::Format_RGB32, false, true);
    QVERIFY(converter.convert(frame).isNull());
    QCOMPARE(converter.calls, QStringList({"cached 7"})); // not even allocated
    VideoFrameStreamConverter stream(beyondInts, QImage::Format_RGB32, false, true);
    QVERIFY(stream.convert(frame).isNull());
    stream.reset(QSize(32, 32), QImage::Format_RGB32, false, true);
    QCOMPARE(stream.convert(frame).size(), QSize(32, 32));
}

// What scaling says is not looked at: a frame that lacks a plane gives an image of the right size.
void tst_VideoFrameConverter::missingPlaneGivesAnImageAllTheSame()
{
    class LumaOnly : public GuardedBuffer
    {
    public:
        LumaOnly() : GuardedBuffer(64, 36) {}
        int map(MapMode wanted, int *bytes, int strides[4], uchar *data[4]) override
        {
            GuardedBuffer::map(wanted, bytes, strides, data);
            data[1] = nullptr;
            return 1;
        }
        using GuardedBuffer::map;
    };
    const QVideoFrame frame(new LumaOnly, QSize(64, 36), QVideoFrame::Format_NV12);
    const QImage image = VideoFrameConverter::convert(frame, QSize(), QImage::Format_RGB32, true, true);
    QCOMPARE(image.size(), QSize(64, 36));
}

void tst_VideoFrameConverter::text()
{
    QVideoFrame frame = makeFrame(QVideoFrame::Format_NV12, QSize(64, 36), 1700000000123456);
    frame.setMetaData(QStringLiteral("shmname"), QByteArray("cam0"));
    frame.setMetaData(QStringLiteral("number"), 12);
    const QImage image = VideoFrameConverter::convert(frame, QSize(), QImage::Format_RGB32, true, true);
    QCOMPARE(image.text(QStringLiteral("pts")), QStringLiteral("1700000000123456"));
    QCOMPARE(image.text(QStringLiteral("shmname")), QStringLiteral("cam0"));
    QCOMPARE(image.text(QStringLiteral("number")), QStringLiteral("12"));
    QCOMPARE(image.textKeys().size(), 3);
}

void tst_VideoFrameConverter::metaDataOverridesPts()
{
    QVideoFrame frame = makeFrame(QVideoFrame::Format_NV12, QSize(64, 36), 5);
    frame.setMetaData(QStringLiteral("pts"), QStringLiteral("mine"));
    const QImage image = VideoFrameConverter::convert(frame, QSize(), QImage::Format_RGB32, true, true);
    QCOMPARE(image.text(QStringLiteral("pts")), QStringLiteral("mine"));
}

void tst_VideoFrameConverter::hooks()
{
    HookedConverter converter(QSize(32, 32), QImage::Format_RGB32, true, true);
    const QVideoFrame frame = makeFrame(QVideoFrame::Format_NV12, QSize(64, 36), 77);
    QVERIFY(!converter.convert(frame).isNull());
    QCOMPARE(converter.calls,
             QStringList({"cached 77", "allocate 32x18"})); // made its own, which is not remembered

    converter.calls.clear();
    QImage mine(32, 18, QImage::Format_RGB32);
    const uchar *bits = mine.constBits();
    converter.supplied = &mine;
    const QImage result = converter.convert(frame);
    QCOMPARE(converter.calls, QStringList({"cached 77", "allocate 32x18", "update 1 77"}));
    QCOMPARE(result.constBits(), bits); // shared, not copied
    QVERIFY(samePixels(result,
                       VideoFrameConverter::convert(frame, QSize(32, 32), QImage::Format_RGB32, true, true)));
}

void tst_VideoFrameConverter::cachedImageIsReturnedUnseen()
{
    HookedConverter converter(QSize(32, 32), QImage::Format_RGB32, true, true);
    QImage cached(5, 5, QImage::Format_Mono); // neither the size nor the format asked for
    converter.cached = &cached;
    const QImage result = converter.convert(makeFrame(QVideoFrame::Format_NV12, QSize(64, 36), 77));
    QCOMPARE(converter.calls, QStringList({"cached 77"}));
    QCOMPARE(result.constBits(), static_cast<const QImage &>(cached).constBits());
}

void tst_VideoFrameConverter::changingSourcesOnOneConverter()
{
    VideoFrameConverter converter(QSize(50, 40), QImage::Format_RGB32, false, true);
    for (const QSize &size : {QSize(64, 36), QSize(128, 72), QSize(64, 36)}) {
        for (auto format :
             {QVideoFrame::Format_NV12, QVideoFrame::Format_YUV420P, QVideoFrame::Format_NV21}) {
            const QVideoFrame frame = makeFrame(format, size);
            QVERIFY(samePixels(
                converter.convert(frame),
                VideoFrameConverter::convert(frame, QSize(50, 40), QImage::Format_RGB32, false, true)));
        }
    }
    // A scaler that cannot be made leaves none behind; the next frame starts afresh.
    VideoFrameConverter small(QSize(1, 1), QImage::Format_RGB32, true, true);
    QVERIFY(small.convert(makeFrame(QVideoFrame::Format_NV12, QSize(64, 64))).isNull());
    QVERIFY(small.convert(makeFrame(QVideoFrame::Format_NV12, QSize(64, 64))).isNull());
}

void tst_VideoFrameConverter::neverReadsOrWritesPastTheEnd_data()
{
    QTest::addColumn<QSize>("source");
    QTest::addColumn<QSize>("target");
    QTest::addColumn<bool>("pointSampling");
    for (bool pointSampling : {true, false}) {
        for (const QSize &source : {QSize(2, 2), QSize(16, 16), QSize(62, 34), QSize(64, 36), QSize(256, 144),
                                    QSize(1920, 1080), QSize(1278, 718)}) {
            for (const QSize &target :
                 {QSize(), QSize(320, 240), QSize(319, 239), QSize(33, 17), QSize(2000, 1000)})
                QTest::addRow("%s %dx%d to %dx%d", pointSampling ? "point" : "bilinear", source.width(),
                              source.height(), target.width(), target.height())
                    << source << target << pointSampling;
        }
    }
}

// The store's planes may end where its memory ends, and an image's memory belongs to its consumers. Rows as
// the store has them: swscale reads whole blocks, so that a stride without padding would be read past.
void tst_VideoFrameConverter::neverReadsOrWritesPastTheEnd()
{
    QFETCH(QSize, source);
    QFETCH(QSize, target);
    QFETCH(bool, pointSampling);
    const int storeStride = (source.width() + 255) / 256 * 256;
    const QVideoFrame frame(new GuardedBuffer(storeStride, source.height()), source,
                            QVideoFrame::Format_NV12);
    const QSize size = target.isValid() ? target : source;

    const size_t page = size_t(sysconf(_SC_PAGESIZE));
    const int stride = (size.width() * 2 + 3) / 4 * 4;
    const size_t bytes = size_t(stride) * size.height();
    const size_t mapped = (bytes + page - 1) / page * page + page;
    auto *memory = static_cast<uchar *>(
        mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    QVERIFY(memory != MAP_FAILED);
    mprotect(memory + mapped - page, page, PROT_NONE);
    {
        QImage guarded(memory + mapped - page - bytes, size.width(), size.height(), stride,
                       QImage::Format_RGB16);
        HookedConverter converter(target, QImage::Format_RGB16, false, pointSampling);
        converter.supplied = &guarded;
        QCOMPARE(converter.convert(frame).size(), size); // past the end is a page fault
    }
    munmap(memory, mapped);
}

void tst_VideoFrameConverter::streamConvertsAFrameOnce()
{
    VideoFrameStreamConverter converter(QSize(), QImage::Format_RGB32, true, true);
    const QImage first = converter.convert(makeFrame(QVideoFrame::Format_NV12, QSize(64, 36), 5, 1));
    // Other pixels under the same start time: what comes back shows that nothing was scaled again.
    const QImage second = converter.convert(makeFrame(QVideoFrame::Format_NV12, QSize(64, 36), 5, 99));
    QCOMPARE(second.constBits(), first.constBits());
    const QImage third = converter.convert(makeFrame(QVideoFrame::Format_NV12, QSize(64, 36), 6, 99));
    QVERIFY(!samePixels(first, third));
}

void tst_VideoFrameConverter::streamReusesMemory()
{
    VideoFrameStreamConverter converter(QSize(32, 18), QImage::Format_RGB16, true, true);
    QSet<const uchar *> memory;
    for (int i = 1; i <= 100; ++i) {
        const QImage image = converter.convert(makeFrame(QVideoFrame::Format_NV12, QSize(64, 36), i, i));
        memory.insert(image.constBits());
    }
    QCOMPARE(memory.size(), 1); // each was let go before the next
    memory.clear();
    QList<QImage> held;
    for (int i = 101; i <= 200; ++i) {
        held.append(converter.convert(makeFrame(QVideoFrame::Format_NV12, QSize(64, 36), i, i)));
        if (held.size() > 3)
            held.removeFirst();
        memory.insert(held.last().constBits());
    }
    QCOMPARE(memory.size(), 4); // three held at once: still the ring's own four
}

void tst_VideoFrameConverter::streamLeavesHeldImagesAlone()
{
    VideoFrameStreamConverter converter(QSize(), QImage::Format_RGB32, true, true);
    QList<QImage> held;
    QList<QImage> copies;
    for (int i = 1; i <= 12; ++i) {
        held.append(converter.convert(makeFrame(QVideoFrame::Format_NV12, QSize(64, 36), i, i * 13)));
        copies.append(held.last().copy());
        for (int j = 0; j < held.size(); ++j) {
            QVERIFY(samePixels(held[j], copies[j]));
            QCOMPARE(held[j].text(QStringLiteral("pts")), QString::number(j + 1));
        }
    }
    QSet<const uchar *> memory;
    for (const QImage &image : held)
        memory.insert(image.constBits());
    QCOMPARE(memory.size(), 12); // from the fifth on, each was detached from a held one
}

void tst_VideoFrameConverter::streamPrefersMemoryOfTheRightSize()
{
    VideoFrameStreamConverter converter(QSize(), QImage::Format_RGB32, true, true);
    QImage large = converter.convert(makeFrame(QVideoFrame::Format_NV12, QSize(64, 36), 1));
    QImage small = converter.convert(makeFrame(QVideoFrame::Format_NV12, QSize(32, 18), 2));
    const uchar *smallMemory = static_cast<const QImage &>(small).constBits();
    large = QImage();
    small = QImage();
    // Both entries are free by now, the large one comes first.
    const QImage next = converter.convert(makeFrame(QVideoFrame::Format_NV12, QSize(32, 18), 3));
    QCOMPARE(next.constBits(), smallMemory);
}

void tst_VideoFrameConverter::streamRingGrowsNoFurther()
{
    VideoFrameStreamConverter converter(QSize(), QImage::Format_RGB32, true, true);
    QList<QImage> held;
    for (int i = 1; i <= 4; ++i)
        held.append(converter.convert(makeFrame(QVideoFrame::Format_NV12, QSize(64, 36), i, i)));
    const uchar *third = held[2].constBits();
    held.removeAt(2);
    // Frames of another size, which the ring has not: the entry that nobody holds is taken, whichever it is.
    const QImage other = converter.convert(makeFrame(QVideoFrame::Format_NV12, QSize(32, 18), 5, 5));
    QCOMPARE(other.size(), QSize(32, 18));
    const QImage back = converter.convert(makeFrame(QVideoFrame::Format_NV12, QSize(64, 36), 6, 6));
    QCOMPARE(back.size(), QSize(64, 36));
    QVERIFY(third != held[0].constBits());
    QSet<const uchar *> memory = {other.constBits(), back.constBits()};
    for (const QImage &image : qAsConst(held))
        memory.insert(image.constBits());
    QCOMPARE(memory.size(), 5);
}

void tst_VideoFrameConverter::resetWithNewSizeConvertsAgain()
{
    VideoFrameStreamConverter converter(QSize(32, 32), QImage::Format_RGB32, true, true);
    const QVideoFrame frame = makeFrame(QVideoFrame::Format_NV12, QSize(64, 36), 5);
    const QImage before = converter.convert(frame);
    converter.reset(QSize(16, 16), QImage::Format_RGB32, true, true);
    QCOMPARE(converter.convert(frame).size(), QSize(16, 8)); // 9 lines, rounded down to even
    QCOMPARE(before.size(), QSize(32, 18));                  // the consumer's image lives on
}

void tst_VideoFrameConverter::resetOfTheFlagsKeepsTheCache()
{
    VideoFrameStreamConverter converter(QSize(32, 32), QImage::Format_RGB32, true, true);
    const QImage before = converter.convert(makeFrame(QVideoFrame::Format_NV12, QSize(64, 36), 5));
    converter.reset(QSize(32, 32), QImage::Format_RGB32, false, false);
    const QImage same = converter.convert(makeFrame(QVideoFrame::Format_NV12, QSize(64, 36), 5));
    QCOMPARE(same.constBits(), before.constBits());
    QCOMPARE(same.size(), QSize(32, 18));
    const QImage next = converter.convert(makeFrame(QVideoFrame::Format_NV12, QSize(64, 36), 6));
    QCOMPARE(next.size(), QSize(32, 32)); // the new flags
}

void tst_VideoFrameConverter::resetWithNewFormatEmptiesTheRingAndKeepsTheFormat()
{
    VideoFrameStreamConverter converter(QSize(32, 32), QImage::Format_RGB32, true, true);
    const QImage before = converter.convert(makeFrame(QVideoFrame::Format_NV12, QSize(64, 36), 5));
    converter.reset(QSize(32, 32), QImage::Format_RGB16, true, true);
    const QImage after = converter.convert(makeFrame(QVideoFrame::Format_NV12, QSize(64, 36), 5));
    QCOMPARE(after.format(), QImage::Format_RGB32);
    QVERIFY(after.constBits() != before.constBits());
    // The format was not stored: the same call empties the ring once more.
    converter.reset(QSize(32, 32), QImage::Format_RGB16, true, true);
    const QImage again = converter.convert(makeFrame(QVideoFrame::Format_NV12, QSize(64, 36), 5));
    QVERIFY(again.constBits() != after.constBits());
}

void tst_VideoFrameConverter::resetForgetsImagesThatNobodyHolds()
{
    VideoFrameStreamConverter converter(QSize(32, 32), QImage::Format_RGB32, true, true);
    QVideoFrame described = makeFrame(QVideoFrame::Format_NV12, QSize(64, 36), 5);
    described.setMetaData(QStringLiteral("from"), QStringLiteral("before"));
    QCOMPARE(converter.convert(described).text(QStringLiteral("from")), QStringLiteral("before"));
    converter.reset(QSize(32, 32), QImage::Format_RGB16, true, true);
    const QImage after = converter.convert(makeFrame(QVideoFrame::Format_NV12, QSize(64, 36), 6));
    QCOMPARE(after.text(QStringLiteral("from")), QString()); // not the old image used again
}

void tst_VideoFrameConverter::startTimeZeroIsNoHit()
{
    VideoFrameStreamConverter converter(QSize(), QImage::Format_RGB32, true, true);
    QVERIFY(!converter.convert(makeFrame(QVideoFrame::Format_NV12, QSize(64, 36), 0)).isNull());
    converter.reset(QSize(32, 32), QImage::Format_RGB32, true, true);
    QCOMPARE(converter.convert(makeFrame(QVideoFrame::Format_NV12, QSize(64, 36), 0)).size(), QSize(32, 18));
}

void tst_VideoFrameConverter::failureForgetsTheImageThatItOverwrote()
{
    VideoFrameStreamConverter converter(QSize(), QImage::Format_RGB32, true, true);
    const QVideoFrame first = makeFrame(QVideoFrame::Format_NV12, QSize(64, 36), 1);
    const QImage expected = converter.convert(first).copy(); // the ring's own is free again, and cached
    QVideoFrame unmappable(new UnmappableBuffer, QSize(32, 18), QVideoFrame::Format_NV12);
    unmappable.setStartTime(2);
    QVERIFY(converter.convert(unmappable).isNull()); // takes the free one, for another size
    const QImage again = converter.convert(first);
    QCOMPARE(again.text(QStringLiteral("pts")), QStringLiteral("1"));
    QVERIFY(samePixels(again, expected));
}

void tst_VideoFrameConverter::streamRemembersNoImageThatCouldNotBeAllocated()
{
#if defined __SANITIZE_ADDRESS__ || defined __SANITIZE_THREAD__
    QSKIP("the sanitizers' allocators do not fail, they end the process");
#endif
    class Looked : public VideoFrameStreamConverter
    {
    public:
        using VideoFrameStreamConverter::getCachedImage;
        using VideoFrameStreamConverter::VideoFrameStreamConverter;
    };
    Looked converter(large, QImage::Format_RGB32, false, true);
    const QVideoFrame frame = makeFrame(QVideoFrame::Format_NV12, QSize(64, 36), 7);
    const Warnings warnings;
    const LittleMemory littleMemory;
    QVERIFY(littleMemory.applied);
    QVERIFY(converter.convert(frame).isNull());
    QVERIFY(!converter.getCachedImage(7));
    QVERIFY(converter.convert(frame).isNull());
    QCOMPARE(warnings.texts, QStringList());
    converter.reset(QSize(32, 32), QImage::Format_RGB32, true, true);
    const QImage image = converter.convert(frame);
    QCOMPARE(image.size(), QSize(32, 18));
    QCOMPARE(image.text(QStringLiteral("pts")), QStringLiteral("7"));
}

void tst_VideoFrameConverter::conversionsTakeTurns()
{
    VideoFrameStreamConverter converter(QSize(32, 32), QImage::Format_RGB32, true, true);
    const QVideoFrame frame = makeFrame(QVideoFrame::Format_NV12, QSize(64, 36), 5);
    QAtomicInt wrong = 0;
    QVector<QThread *> threads;
    for (int t = 0; t < 3; ++t) {
        threads.append(QThread::create([&, t] {
            for (int i = 0; i < 200; ++i) {
                QVideoFrame mine = makeFrame(QVideoFrame::Format_NV12, QSize(64, 36), t * 1000 + i, i);
                const QImage image = converter.convert(mine);
                if (image.text(QStringLiteral("pts")) != QString::number(t * 1000 + i))
                    wrong.fetchAndAddRelaxed(1);
                if (t == 0 && i % 10 == 0)
                    converter.reset(QSize(16 + i, 64), QImage::Format_RGB32, true, true);
            }
        }));
    }
    for (QThread *thread : threads)
        thread->start();
    for (QThread *thread : threads) {
        QVERIFY(thread->wait(60000));
        delete thread;
    }
    QCOMPARE(wrong.loadRelaxed(), 0);
}

QTEST_GUILESS_MAIN(tst_VideoFrameConverter)
#include "tst_videoframeconverter.moc"
