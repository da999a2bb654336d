// Built with a currentContext() of its own: the entry points are fakes that answer as told and note the
// order.
#include "video/dmavideobuffer.h"

#include <zevqt-mm/eglimagecontext.h>
#include <zevqt-mm/shmemdmavideobuffer.h>

#include <shm/shm_reader.h>

#include <QtTest/QtTest>

using LockedFrame = std::unique_ptr<shm_video_frame_t, std::function<void(shm_video_frame_t *)>>;

namespace {

QStringList events;
char displayMemory;
char imageMemory;
void *imageToReturn = nullptr;
unsigned int destroyResult = 1;
int errorToReturn = 0x3000;
zevgl::EGLImageContext current;

void *fakeCreate(void *, void *, unsigned int, void *, const int *attributes)
{
    events << QStringLiteral("create fourcc %1").arg(attributes[7], 0, 16);
    return imageToReturn;
}

unsigned int fakeDestroy(void *, void *)
{
    events << QStringLiteral("destroy");
    return destroyResult;
}

int fakeError()
{
    return errorToReturn;
}

} // namespace

zevgl::EGLImageContext zevgl::EGLImageContext::currentContext()
{
    return current;
}

class tst_ShmemDmaVideoBuffer : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void takesTheFrameOver();
    void pixelFormat_data();
    void pixelFormat();
    void handleIsNullBeforeCreation();
    void createsOneImage();
    void incompleteContextFailsSilently_data();
    void incompleteContextFailsSilently();
    void refusedImageIsLogged_data();
    void refusedImageIsLogged();
    void destroyHandle();
    void refusedDestructionIsLoggedAndKeepsTheImage();
    void messagesAreOfTheDefaultCategory();
    void refusedDestructionGivesTheFrameBackAllTheSame();
    void imageGoesBeforeTheFrame();
    void bufferWithoutImageNeedsNoContext();
    void cannotBeMapped();
    void frameCannotBeMapped();
    void tellsWhereTheFrameLies();
    void borrowedImage();
    void borrowedImageCannotBeMapped();

private:
    LockedFrame makeFrame();

    uchar pixels[256] = {};
};

void tst_ShmemDmaVideoBuffer::init()
{
    events.clear();
    imageToReturn = &imageMemory;
    destroyResult = 1;
    errorToReturn = 0x3000;
    current.display = &displayMemory;
    current.eglCreateImageKHR = fakeCreate;
    current.eglDestroyImageKHR = fakeDestroy;
    current.eglGetError = fakeError;
}

LockedFrame tst_ShmemDmaVideoBuffer::makeFrame()
{
    LockedFrame frame(new shm_video_frame_t(), [](shm_video_frame_t *record) {
        events << QStringLiteral("unlock");
        delete record;
    });
    frame->width = 16;
    frame->height = 8;
    frame->planes[0] = pixels;
    frame->planes[1] = pixels + 128;
    frame->strides[0] = 16;
    frame->strides[1] = 16;
    frame->plane_offsets[1] = 128;
    frame->slot = 7;
    frame->matrix = SHM_MATRIX_BT601;
    frame->range = SHM_RANGE_LIMITED;
    frame->memory_generation = 3;
    frame->generation = 1000;
    frame->session = 0xABCDEF0123456789u;
    return frame;
}

void tst_ShmemDmaVideoBuffer::takesTheFrameOver()
{
    LockedFrame frame = makeFrame();
    ShmemDmaVideoBuffer buffer(SHM_PIXEL_FORMAT_NV12, 5, frame);
    QVERIFY(!frame);
    QVERIFY(!frame.get_deleter());
    QCOMPARE(buffer.handleType(), QAbstractVideoBuffer::EGLImageHandle);
}

void tst_ShmemDmaVideoBuffer::pixelFormat_data()
{
    QTest::addColumn<int>("stored");
    QTest::addColumn<QVideoFrame::PixelFormat>("expected");
    QTest::newRow("0") << 0 << QVideoFrame::Format_Invalid;
    QTest::newRow("1") << 1 << QVideoFrame::Format_YUV420P;
    QTest::newRow("2") << 2 << QVideoFrame::Format_YUV420P;
    QTest::newRow("3") << 3 << QVideoFrame::Format_NV12;
}

void tst_ShmemDmaVideoBuffer::pixelFormat()
{
    QFETCH(int, stored);
    LockedFrame frame = makeFrame();
    const ShmemDmaVideoBuffer buffer(static_cast<SHM_PIXEL_FORMAT>(stored), 5, frame);
    QTEST(buffer.format(), "expected");
}

void tst_ShmemDmaVideoBuffer::handleIsNullBeforeCreation()
{
    LockedFrame frame = makeFrame();
    const ShmemDmaVideoBuffer buffer(SHM_PIXEL_FORMAT_NV12, 5, frame);
    QCOMPARE(buffer.handle().userType(), int(QMetaType::VoidStar));
    QVERIFY(!buffer.handle().value<void *>());
    QCOMPARE(events, QStringList());
}

void tst_ShmemDmaVideoBuffer::createsOneImage()
{
    LockedFrame frame = makeFrame();
    ShmemDmaVideoBuffer buffer(SHM_PIXEL_FORMAT_NV12, 5, frame);
    QVERIFY(buffer.createHandle());
    QVERIFY(buffer.createHandle());
    QCOMPARE(events, QStringList({"create fourcc 3231564e"}));
    QCOMPARE(buffer.handle().value<void *>(), static_cast<void *>(&imageMemory));
}

void tst_ShmemDmaVideoBuffer::incompleteContextFailsSilently_data()
{
    QTest::addColumn<int>("missing");
    QTest::newRow("display") << 0;
    QTest::newRow("eglCreateImageKHR") << 1;
    QTest::newRow("eglDestroyImageKHR") << 2;
    QTest::newRow("eglGetError") << 3;
}

void tst_ShmemDmaVideoBuffer::incompleteContextFailsSilently()
{
    QFETCH(int, missing);
    const zevgl::EGLImageContext complete = current;
    switch (missing) {
    case 0:
        current.display = nullptr;
        break;
    case 1:
        current.eglCreateImageKHR = nullptr;
        break;
    case 2:
        current.eglDestroyImageKHR = nullptr;
        break;
    default:
        current.eglGetError = nullptr;
    }
    QStringList messages;
    static QStringList *sink;
    sink = &messages;
    const QtMessageHandler before = qInstallMessageHandler(
        [](QtMsgType, const QMessageLogContext &, const QString &text) { sink->append(text); });
    LockedFrame frame = makeFrame();
    ShmemDmaVideoBuffer buffer(SHM_PIXEL_FORMAT_NV12, 5, frame);
    const bool created = buffer.createHandle();
    qInstallMessageHandler(before);
    QVERIFY(!created);
    QCOMPARE(messages, QStringList());
    QCOMPARE(events, QStringList());
    current = complete;
    QVERIFY(buffer.createHandle()); // may be tried again later
}

void tst_ShmemDmaVideoBuffer::refusedImageIsLogged_data()
{
    QTest::addColumn<int>("storeFormat");
    QTest::addColumn<int>("error");
    QTest::addColumn<QString>("fourcc");
    QTest::addColumn<QByteArray>("message");
    QTest::newRow("refused") << 3 << 0x3003 << "create fourcc 3231564e"
                             << QByteArray("eglCreateImageKHR failed: \"Cannot allocate resources\"");
    QTest::newRow("no known store format")
        << 0 << 0x3009 << "create fourcc 0"
        << QByteArray("eglCreateImageKHR failed: \"Inconsistent arguments\"");
    QTest::newRow("an error of no list")
        << 3 << 7 << "create fourcc 3231564e" << QByteArray("eglCreateImageKHR failed: \"Unknown error 7\"");
}

void tst_ShmemDmaVideoBuffer::refusedImageIsLogged()
{
    QFETCH(int, storeFormat);
    QFETCH(int, error);
    QFETCH(QString, fourcc);
    QFETCH(QByteArray, message);
    imageToReturn = nullptr;
    errorToReturn = error;
    LockedFrame frame = makeFrame();
    ShmemDmaVideoBuffer buffer(static_cast<SHM_PIXEL_FORMAT>(storeFormat), 5, frame);
    QTest::ignoreMessage(QtCriticalMsg, message.constData());
    QVERIFY(!buffer.createHandle());
    QCOMPARE(events, QStringList({fourcc}));
    QVERIFY(!buffer.handle().value<void *>());
}

void tst_ShmemDmaVideoBuffer::destroyHandle()
{
    LockedFrame frame = makeFrame();
    ShmemDmaVideoBuffer buffer(SHM_PIXEL_FORMAT_NV12, 5, frame);
    buffer.destroyHandle(); // nothing to do
    QCOMPARE(events, QStringList());
    QVERIFY(buffer.createHandle());
    buffer.destroyHandle();
    QVERIFY(!buffer.handle().value<void *>());
    QVERIFY(buffer.createHandle()); // a new one
    QCOMPARE(events, QStringList({"create fourcc 3231564e", "destroy", "create fourcc 3231564e"}));
}

void tst_ShmemDmaVideoBuffer::refusedDestructionIsLoggedAndKeepsTheImage()
{
    LockedFrame frame = makeFrame();
    ShmemDmaVideoBuffer buffer(SHM_PIXEL_FORMAT_NV12, 5, frame);
    QVERIFY(buffer.createHandle());
    destroyResult = 0;
    errorToReturn = 0x3008;
    QTest::ignoreMessage(QtCriticalMsg, "eglDestroyImageKHR failed: \"Invalid EGL display\"");
    buffer.destroyHandle();
    QCOMPARE(buffer.handle().value<void *>(), static_cast<void *>(&imageMemory));
    destroyResult = 1;
}

void tst_ShmemDmaVideoBuffer::messagesAreOfTheDefaultCategory()
{
    static QStringList messages;
    messages.clear();
    const QtMessageHandler before =
        qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &context, const QString &text) {
            messages << QStringLiteral("%1 %2 %3").arg(type).arg(QLatin1String(context.category), text);
        });
    errorToReturn = 0x300E;
    {
        LockedFrame frame = makeFrame();
        ShmemDmaVideoBuffer buffer(SHM_PIXEL_FORMAT_NV12, 5, frame);
        imageToReturn = nullptr;
        buffer.createHandle();
        imageToReturn = &imageMemory;
        buffer.createHandle();
        destroyResult = 0;
        buffer.destroyHandle();
        destroyResult = 1;
    }
    qInstallMessageHandler(before);
    const QString critical = QString::number(QtCriticalMsg) + QStringLiteral(" default ");
    QCOMPARE(messages,
             QStringList({critical + QStringLiteral("eglCreateImageKHR failed: \"Context lost\""),
                          critical + QStringLiteral("eglDestroyImageKHR failed: \"Context lost\"")}));
}

void tst_ShmemDmaVideoBuffer::refusedDestructionGivesTheFrameBackAllTheSame()
{
    errorToReturn = 0x300C;
    destroyResult = 0;
    QTest::ignoreMessage(QtCriticalMsg, "eglDestroyImageKHR failed: \"Invalid argument\"");
    {
        LockedFrame frame = makeFrame();
        ShmemDmaVideoBuffer buffer(SHM_PIXEL_FORMAT_NV12, 5, frame);
        QVERIFY(buffer.createHandle());
    }
    QCOMPARE(events, QStringList({"create fourcc 3231564e", "destroy", "unlock"})); // and no second try
}

void tst_ShmemDmaVideoBuffer::imageGoesBeforeTheFrame()
{
    LockedFrame locked = makeFrame();
    auto *buffer = new ShmemDmaVideoBuffer(SHM_PIXEL_FORMAT_NV12, 5, locked);
    QVideoFrame frame(buffer, QSize(16, 8), buffer->format());
    QVERIFY(buffer->createHandle());
    QCOMPARE(frame.handle().value<void *>(), static_cast<void *>(&imageMemory));
    QVideoFrame copy = frame;
    frame = QVideoFrame();
    QCOMPARE(events, QStringList({"create fourcc 3231564e"}));
    copy = QVideoFrame();
    QCOMPARE(events, QStringList({"create fourcc 3231564e", "destroy", "unlock"}));
}

void tst_ShmemDmaVideoBuffer::bufferWithoutImageNeedsNoContext()
{
    current = {};
    {
        LockedFrame frame = makeFrame();
        ShmemDmaVideoBuffer buffer(SHM_PIXEL_FORMAT_NV12, 5, frame);
    }
    QCOMPARE(events, QStringList({"unlock"}));
}

void tst_ShmemDmaVideoBuffer::cannotBeMapped()
{
    LockedFrame frame = makeFrame();
    ShmemDmaVideoBuffer buffer(SHM_PIXEL_FORMAT_NV12, 5, frame);
    int bytes = -1;
    int stride = -1;
    QVERIFY(!buffer.map(QAbstractVideoBuffer::ReadOnly, &bytes, &stride));
    QCOMPARE(bytes, -1);
    QCOMPARE(stride, -1);
    QCOMPARE(buffer.mapMode(), QAbstractVideoBuffer::NotMapped);
    buffer.unmap();
}

void tst_ShmemDmaVideoBuffer::frameCannotBeMapped()
{
    LockedFrame locked = makeFrame();
    QVideoFrame frame(new ShmemDmaVideoBuffer(SHM_PIXEL_FORMAT_NV12, 5, locked), QSize(16, 8),
                      QVideoFrame::Format_NV12);
    QVERIFY(!frame.map(QAbstractVideoBuffer::ReadOnly));
    QVideoFrame borrowed(new DmaVideoBuffer(&imageMemory), QSize(16, 8), QVideoFrame::Format_NV12);
    QVERIFY(!borrowed.map(QAbstractVideoBuffer::ReadOnly));
}

void tst_ShmemDmaVideoBuffer::tellsWhereTheFrameLies()
{
    LockedFrame frame = makeFrame();
    ShmemDmaVideoBuffer buffer(SHM_PIXEL_FORMAT_NV12, 5, frame);
    const StoreFrame description = buffer.storeFrame();
    QCOMPARE(description.planeCount, 2);
    QCOMPARE(description.planes[0], static_cast<const uchar *>(pixels));
    QCOMPARE(description.planes[1], static_cast<const uchar *>(pixels + 128));
    QCOMPARE(description.strides[1], 16);
    QCOMPARE(description.size, QSize(16, 8));
    QCOMPARE(description.matrix, StoreFrame::MatrixBt601);
    QCOMPARE(description.range, StoreFrame::RangeLimited);
    QCOMPARE(description.session, quint64(0xABCDEF0123456789u));
    QCOMPARE(description.slot, quint16(7));
    QCOMPARE(description.memoryGeneration, quint32(3));
    QCOMPARE(description.generation, quint64(1000));
    QCOMPARE(description.dmaBuffer, &buffer);
    QCOMPARE(buffer.dmabufDescriptor(), 5);
    QCOMPARE(buffer.planeOffset(1), qint64(128));
    QCOMPARE(buffer.planeOffset(4), qint64(0));
    QCOMPARE(buffer.planeOffset(-1), qint64(0));
}

void tst_ShmemDmaVideoBuffer::borrowedImage()
{
    {
        const DmaVideoBuffer buffer(&imageMemory);
        QCOMPARE(buffer.handleType(), QAbstractVideoBuffer::EGLImageHandle);
        QCOMPARE(buffer.handle().userType(), int(QMetaType::VoidStar));
        QCOMPARE(buffer.handle().value<void *>(), static_cast<void *>(&imageMemory));
    }
    QCOMPARE(events, QStringList()); // the image stays its owner's
}

void tst_ShmemDmaVideoBuffer::borrowedImageCannotBeMapped()
{
    DmaVideoBuffer buffer(&imageMemory);
    int bytes = -1;
    int stride = -1;
    QVERIFY(!buffer.map(QAbstractVideoBuffer::ReadOnly, &bytes, &stride));
    QCOMPARE(bytes, -1);
    QCOMPARE(stride, -1);
    QCOMPARE(buffer.mapMode(), QAbstractVideoBuffer::NotMapped);
    buffer.unmap();
}

QTEST_GUILESS_MAIN(tst_ShmemDmaVideoBuffer)
#include "tst_shmemdmavideobuffer.moc"
