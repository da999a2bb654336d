// The frame buffers on a real EGL: real DMA-bufs of the kernel in the virtual machine, stand-ins in the fast
// tier.
#include "dmamemory.h"
#include "externaltexture.h"
#include "opendescriptors.h"
#include "testpicture.h"

#include <zevqt-mm/eglimagecontext.h>
#include <zevqt-mm/shmemdmavideobuffer.h>

#include <QtMultimedia/QVideoFrame>
#include <QtTest/QtTest>

#include <fcntl.h>
#include <unistd.h>

using LockedFrame = std::unique_ptr<shm_video_frame_t, std::function<void(shm_video_frame_t *)>>;

namespace {

const int tolerance = 3;

} // namespace

class tst_DmabufImages : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void contextIsUsable();
    void drawnPixels_data();
    void drawnPixels();
    void createsOneImage();
    void imageShowsWhatIsWrittenLater();
    void frameCannotBeMapped();
    void refusedDescriptorIsLogged();
    void unknownFormatIsLogged();
    void frameWithoutPlanesIsRefused();
    void imageDestroyedByOthersIsLogged();
    void imageGoesBeforeTheFrame();
    void silentWithoutContext();
    void leaksNothing();

private:
    LockedFrame frameOf(DmaMemory &memory, int pixelFormat, shm_range range = SHM_RANGE_FULL);

    std::unique_ptr<ExternalTexture> renderer;
    std::function<void()> onUnlock;
};

void tst_DmabufImages::initTestCase()
{
    renderer = std::make_unique<ExternalTexture>();
    QVERIFY2(renderer->isValid(), qPrintable(renderer->error()));
}

void tst_DmabufImages::cleanupTestCase()
{
    renderer.reset();
}

// A locked frame as a store hands it out, by hand.
LockedFrame tst_DmabufImages::frameOf(DmaMemory &memory, int pixelFormat, shm_range range)
{
    LockedFrame frame(new shm_video_frame_t(), [this](shm_video_frame_t *locked) {
        if (onUnlock)
            onUnlock();
        delete locked;
    });
    TestPicture::layOut(pixelFormat, frame.get());
    for (int plane = 0; plane < 4 && frame->strides[plane]; ++plane)
        frame->planes[plane] = memory.data() + frame->plane_offsets[plane];
    memory.beginWrite();
    TestPicture(SHM_MATRIX_BT709, range).write(pixelFormat, *frame, memory.data());
    memory.endWrite();
    return frame;
}

namespace {

size_t sizeOf(int pixelFormat)
{
    shm_video_frame_t record = {};
    return TestPicture::layOut(pixelFormat, &record);
}

} // namespace

void tst_DmabufImages::contextIsUsable()
{
    const auto context = zevgl::EGLImageContext::currentContext();
    QVERIFY(context.display);
    QVERIFY(context.eglCreateImageKHR);
    QVERIFY(context.eglDestroyImageKHR);
    QVERIFY(context.eglGetError);
}

void tst_DmabufImages::drawnPixels_data()
{
    QTest::addColumn<QByteArray>("memoryKind");
    QTest::addColumn<int>("pixelFormat");
    for (const char *kind : {"udmabuf", "dma-heap:system"}) {
        QTest::addRow("%s planar", kind) << QByteArray(kind) << int(SHM_PIXEL_FORMAT_YUV420P);
        QTest::addRow("%s planar V first", kind) << QByteArray(kind) << int(SHM_PIXEL_FORMAT_YVU420P);
        QTest::addRow("%s NV12", kind) << QByteArray(kind) << int(SHM_PIXEL_FORMAT_NV12);
    }
}

void tst_DmabufImages::drawnPixels()
{
    QFETCH(QByteArray, memoryKind);
    QFETCH(int, pixelFormat);
    DmaMemory memory(memoryKind, sizeOf(pixelFormat));
    QVERIFY2(memory.isValid(), memory.error().constData());
    LockedFrame frame = frameOf(memory, pixelFormat);
    ShmemDmaVideoBuffer buffer(static_cast<SHM_PIXEL_FORMAT>(pixelFormat), memory.descriptor(), frame);

    QVERIFY(!buffer.handle().value<void *>());
    QVERIFY(buffer.createHandle());
    const QImage drawn =
        renderer->draw(buffer.handle().value<void *>(), QSize(TestPicture::width, TestPicture::height));
    QString where;
    const int difference = TestPicture(SHM_MATRIX_BT709, SHM_RANGE_FULL).worstDifference(drawn, &where);
    QVERIFY2(difference <= tolerance, qPrintable(where));
}

void tst_DmabufImages::createsOneImage()
{
    DmaMemory memory("udmabuf", sizeOf(SHM_PIXEL_FORMAT_NV12));
    QVERIFY2(memory.isValid(), memory.error().constData());
    LockedFrame frame = frameOf(memory, SHM_PIXEL_FORMAT_NV12);
    ShmemDmaVideoBuffer buffer(SHM_PIXEL_FORMAT_NV12, memory.descriptor(), frame);
    QVERIFY(buffer.createHandle());
    void *image = buffer.handle().value<void *>();
    const int descriptors = openDescriptors();
    QVERIFY(buffer.createHandle());
    QCOMPARE(buffer.handle().value<void *>(), image);
    QCOMPARE(openDescriptors(), descriptors);
}

// No copy was made: the image is the memory.
void tst_DmabufImages::imageShowsWhatIsWrittenLater()
{
    DmaMemory memory("udmabuf", sizeOf(SHM_PIXEL_FORMAT_NV12));
    QVERIFY2(memory.isValid(), memory.error().constData());
    LockedFrame frame = frameOf(memory, SHM_PIXEL_FORMAT_NV12);
    const shm_video_frame_t record = *frame;
    ShmemDmaVideoBuffer buffer(SHM_PIXEL_FORMAT_NV12, memory.descriptor(), frame);
    QVERIFY(buffer.createHandle());
    void *image = buffer.handle().value<void *>();
    const QSize size(record.width, record.height);
    const QRgb before = renderer->draw(image, size).pixel(8, 16);
    QVERIFY(qRed(before) > 250);

    QVERIFY(memory.beginWrite());
    memset(memory.data(), 0, static_cast<size_t>(record.strides[0]) * record.height);
    QVERIFY(memory.endWrite());
    const QRgb after = renderer->draw(image, size).pixel(8, 16);
    QVERIFY2(qRed(after) < 5, qPrintable(QColor(after).name()));
}

void tst_DmabufImages::frameCannotBeMapped()
{
    DmaMemory memory("udmabuf", sizeOf(SHM_PIXEL_FORMAT_NV12));
    QVERIFY2(memory.isValid(), memory.error().constData());
    LockedFrame locked = frameOf(memory, SHM_PIXEL_FORMAT_NV12);
    auto *buffer = new ShmemDmaVideoBuffer(SHM_PIXEL_FORMAT_NV12, memory.descriptor(), locked);
    QVideoFrame frame(buffer, QSize(TestPicture::width, TestPicture::height), buffer->format());
    QVERIFY(buffer->createHandle());
    QCOMPARE(buffer->map(QAbstractVideoBuffer::ReadOnly, nullptr, nullptr), nullptr);
    QVERIFY(!frame.map(QAbstractVideoBuffer::ReadOnly));
    QCOMPARE(frame.handleType(), QAbstractVideoBuffer::EGLImageHandle);
    QCOMPARE(frame.handle().value<void *>(), buffer->handle().value<void *>());
}

void tst_DmabufImages::refusedDescriptorIsLogged()
{
    DmaMemory memory("udmabuf", sizeOf(SHM_PIXEL_FORMAT_NV12));
    QVERIFY2(memory.isValid(), memory.error().constData());
    LockedFrame frame = frameOf(memory, SHM_PIXEL_FORMAT_NV12);
    const int notADmabuf = open("/dev/null", O_RDONLY | O_CLOEXEC);
    QVERIFY(notADmabuf >= 0);
    ShmemDmaVideoBuffer buffer(SHM_PIXEL_FORMAT_NV12, notADmabuf, frame);
    QTest::ignoreMessage(QtCriticalMsg, "eglCreateImageKHR failed: \"Cannot allocate resources\"");
    QVERIFY(!buffer.createHandle());
    QVERIFY(!buffer.handle().value<void *>());
    close(notADmabuf);
}

void tst_DmabufImages::unknownFormatIsLogged()
{
    DmaMemory memory("udmabuf", sizeOf(SHM_PIXEL_FORMAT_NV12));
    QVERIFY2(memory.isValid(), memory.error().constData());
    LockedFrame frame = frameOf(memory, SHM_PIXEL_FORMAT_NV12);
    ShmemDmaVideoBuffer buffer(SHM_PIXEL_FORMAT_NONE, memory.descriptor(), frame);
    QCOMPARE(buffer.format(), QVideoFrame::Format_Invalid);
    QTest::ignoreMessage(QtCriticalMsg, "eglCreateImageKHR failed: \"Inconsistent arguments\"");
    QVERIFY(!buffer.createHandle());
}

void tst_DmabufImages::frameWithoutPlanesIsRefused()
{
    DmaMemory memory("udmabuf", sizeOf(SHM_PIXEL_FORMAT_NV12));
    QVERIFY2(memory.isValid(), memory.error().constData());
    LockedFrame frame = frameOf(memory, SHM_PIXEL_FORMAT_NV12);
    frame->strides[0] = 0; // ends the list of planes
    ShmemDmaVideoBuffer buffer(SHM_PIXEL_FORMAT_NV12, memory.descriptor(), frame);
    QTest::ignoreMessage(QtCriticalMsg, "eglCreateImageKHR failed: \"Invalid argument\"");
    QVERIFY(!buffer.createHandle());
}

void tst_DmabufImages::imageDestroyedByOthersIsLogged()
{
    DmaMemory memory("udmabuf", sizeOf(SHM_PIXEL_FORMAT_NV12));
    QVERIFY2(memory.isValid(), memory.error().constData());
    int unlocks = 0;
    onUnlock = [&] { ++unlocks; };
    {
        LockedFrame frame = frameOf(memory, SHM_PIXEL_FORMAT_NV12);
        ShmemDmaVideoBuffer buffer(SHM_PIXEL_FORMAT_NV12, memory.descriptor(), frame);
        QVERIFY(buffer.createHandle());
        void *image = buffer.handle().value<void *>();
        QVERIFY(zevgl::EGLImageContext::currentContext().destroyImage(image));
        QTest::ignoreMessage(QtCriticalMsg, "eglDestroyImageKHR failed: \"Invalid argument\"");
        buffer.destroyHandle();
        QCOMPARE(buffer.handle().value<void *>(), image);
        // Once more with the buffer's end, which gives the frame back all the same.
        QTest::ignoreMessage(QtCriticalMsg, "eglDestroyImageKHR failed: \"Invalid argument\"");
        QCOMPARE(unlocks, 0);
    }
    onUnlock = nullptr;
    QCOMPARE(unlocks, 1);
}

// GL refuses an image that is destroyed: so, when the frame is given back, the image must be refused already.
void tst_DmabufImages::imageGoesBeforeTheFrame()
{
    DmaMemory memory("udmabuf", sizeOf(SHM_PIXEL_FORMAT_NV12));
    QVERIFY2(memory.isValid(), memory.error().constData());
    LockedFrame frame = frameOf(memory, SHM_PIXEL_FORMAT_NV12);
    auto buffer = std::make_unique<ShmemDmaVideoBuffer>(SHM_PIXEL_FORMAT_NV12, memory.descriptor(), frame);
    QVERIFY(buffer->createHandle());
    void *image = buffer->handle().value<void *>();
    QVERIFY(renderer->canBind(image));
    int unlocks = 0;
    bool couldBindAtUnlock = true;
    onUnlock = [&] {
        ++unlocks;
        couldBindAtUnlock = renderer->canBind(image);
    };
    buffer.reset();
    onUnlock = nullptr;
    QCOMPARE(unlocks, 1);
    QVERIFY(!couldBindAtUnlock);
}

void tst_DmabufImages::silentWithoutContext()
{
    DmaMemory memory("udmabuf", sizeOf(SHM_PIXEL_FORMAT_NV12));
    QVERIFY2(memory.isValid(), memory.error().constData());
    LockedFrame frame = frameOf(memory, SHM_PIXEL_FORMAT_NV12);
    ShmemDmaVideoBuffer buffer(SHM_PIXEL_FORMAT_NV12, memory.descriptor(), frame);
    renderer->context().doneCurrent();
    static int messages = 0;
    const QtMessageHandler previous =
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) { ++messages; });
    const bool isCreated = buffer.createHandle();
    qInstallMessageHandler(previous);
    QVERIFY(renderer->context().makeCurrent(renderer->surface()));
    QVERIFY(!isCreated);
    QCOMPARE(messages, 0);
    QVERIFY(buffer.createHandle()); // may be tried again
}

void tst_DmabufImages::leaksNothing()
{
    DmaMemory memory("udmabuf", sizeOf(SHM_PIXEL_FORMAT_NV12));
    QVERIFY2(memory.isValid(), memory.error().constData());
    int unlocks = 0;
    onUnlock = [&] { ++unlocks; };
    const auto showOne = [&](bool drawn) {
        LockedFrame frame = frameOf(memory, SHM_PIXEL_FORMAT_NV12);
        ShmemDmaVideoBuffer buffer(SHM_PIXEL_FORMAT_NV12, memory.descriptor(), frame);
        if (!buffer.createHandle())
            return false;
        return !drawn || !renderer->draw(buffer.handle().value<void *>(), QSize(16, 16)).isNull();
    };
    const auto show = [&](int frames) {
        for (int i = 0; i < frames; ++i) {
            if (!showOne(i % 10 == 0))
                return -1;
        }
        return settledDescriptors([&] { renderer->drawNothing(); });
    };
    const int before = show(100);
    const int after = show(500);
    onUnlock = nullptr;
    QVERIFY(before > 0);
    QCOMPARE(after, before);
    QCOMPARE(unlocks, 600);
}

QTEST_MAIN(tst_DmabufImages)
#include "tst_dmabufimages.moc"
