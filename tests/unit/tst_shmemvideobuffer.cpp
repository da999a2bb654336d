#include "sources/shmemvideobuffer.h"

#include <QtTest/QtTest>

#include <limits>

using LockedFrame = std::unique_ptr<shm_video_frame_t, std::function<void(shm_video_frame_t *)>>;

class tst_ShmemVideoBuffer : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void takesTheFrameOver();
    void pixelFormat_data();
    void pixelFormat();
    void planes_data();
    void planes();
    void numBytes_data();
    void numBytes();
    void secondMapFails();
    void mapsAgainAfterUnmap();
    void frameWithoutPlanesCannotBeMapped();
    void bufferWithoutFrameCannotBeMapped();
    void sizeIsOptional();
    void writingIsNotRefused();
    void destructionUnlocksOnce();
    void frameMapsTheStoresOwnPlanes();
    void oneRowInOnePlane_data();
    void oneRowInOnePlane();

private:
    LockedFrame makeFrame(int planeCount);

    int unlocked = 0;
    uchar pixels[4096] = {};
};

LockedFrame tst_ShmemVideoBuffer::makeFrame(int planeCount)
{
    unlocked = 0;
    LockedFrame frame(new shm_video_frame_t(), [this](shm_video_frame_t *record) {
        ++unlocked;
        delete record;
    });
    frame->width = 16;
    frame->height = 8;
    for (int plane = 0; plane < planeCount; ++plane) {
        frame->planes[plane] = pixels + plane * 1024;
        frame->strides[plane] = 100 + plane;
    }
    return frame;
}

void tst_ShmemVideoBuffer::takesTheFrameOver()
{
    LockedFrame frame = makeFrame(2);
    const shm_video_frame_t *record = frame.get();
    ShmemVideoBuffer buffer(SHM_PIXEL_FORMAT_NV12, frame);
    QVERIFY(!frame);
    QVERIFY(!frame.get_deleter());
    QCOMPARE(buffer.lockedFrame(), record);
    QCOMPARE(buffer.mapMode(), QAbstractVideoBuffer::NotMapped);
    QCOMPARE(buffer.handleType(), QAbstractVideoBuffer::NoHandle);
    QVERIFY(!buffer.handle().isValid());
}

void tst_ShmemVideoBuffer::pixelFormat_data()
{
    QTest::addColumn<int>("stored");
    QTest::addColumn<QVideoFrame::PixelFormat>("expected");
    QTest::newRow("0") << 0 << QVideoFrame::Format_Invalid;
    QTest::newRow("1") << 1 << QVideoFrame::Format_YUV420P;
    QTest::newRow("2") << 2 << QVideoFrame::Format_YUV420P;
    QTest::newRow("3") << 3 << QVideoFrame::Format_NV12;
}

void tst_ShmemVideoBuffer::pixelFormat()
{
    QFETCH(int, stored);
    LockedFrame frame = makeFrame(1);
    const ShmemVideoBuffer buffer(static_cast<SHM_PIXEL_FORMAT>(stored), frame);
    QTEST(buffer.format(), "expected");
}

void tst_ShmemVideoBuffer::planes_data()
{
    QTest::addColumn<int>("count");
    for (int count = 1; count <= 4; ++count)
        QTest::addRow("%d", count) << count;
}

void tst_ShmemVideoBuffer::planes()
{
    QFETCH(int, count);
    LockedFrame frame = makeFrame(count);
    ShmemVideoBuffer buffer(SHM_PIXEL_FORMAT_NV12, frame);
    int bytes = 0;
    int strides[4] = {-1, -1, -1, -1};
    uchar *data[4] = {};
    QCOMPARE(buffer.map(QAbstractVideoBuffer::ReadOnly, &bytes, strides, data), count);
    QCOMPARE(buffer.mapMode(), QAbstractVideoBuffer::ReadOnly);
    for (int plane = 0; plane < 4; ++plane) {
        QCOMPARE(data[plane], plane < count ? pixels + plane * 1024 : nullptr);
        QCOMPARE(strides[plane], plane < count ? 100 + plane : -1);
    }
}

void tst_ShmemVideoBuffer::numBytes_data()
{
    QTest::addColumn<int>("height");
    QTest::addColumn<QVector<int>>("strides");
    QTest::addColumn<int>("planes");
    QTest::addColumn<int>("expected");
    QTest::newRow("1080p") << 1080 << QVector<int>{1920, 960, 960} << 3 << 3110400;
    QTest::newRow("NV12") << 1080 << QVector<int>{2048, 2048, 0} << 2 << 3317760;
    QTest::newRow("third stride without a third plane") << 10 << QVector<int>{8, 8, 8} << 2 << 160;
    QTest::newRow("halves are truncated one by one") << 3 << QVector<int>{1, 1, 1} << 3 << 5;
    QTest::newRow("wraps at 32 bits") << 65536 << QVector<int>{65536, 2, 0} << 2 << 65536;
    QTest::newRow("halves without sign")
        << 1 << QVector<int>{0, std::numeric_limits<int>::min(), 0} << 2 << 0x40000000;
}

void tst_ShmemVideoBuffer::numBytes()
{
    QFETCH(int, height);
    QFETCH(QVector<int>, strides);
    QFETCH(int, planes);
    LockedFrame frame = makeFrame(planes);
    frame->height = height;
    for (int plane = 0; plane < 3; ++plane)
        frame->strides[plane] = strides[plane];
    ShmemVideoBuffer buffer(SHM_PIXEL_FORMAT_NV12, frame);
    int bytes = -1;
    int mappedStrides[4];
    uchar *data[4];
    QCOMPARE(buffer.map(QAbstractVideoBuffer::ReadOnly, &bytes, mappedStrides, data), planes);
    QTEST(bytes, "expected");
}

void tst_ShmemVideoBuffer::secondMapFails()
{
    LockedFrame frame = makeFrame(2);
    ShmemVideoBuffer buffer(SHM_PIXEL_FORMAT_NV12, frame);
    int bytes = 0;
    int strides[4] = {};
    uchar *data[4] = {};
    QCOMPARE(buffer.map(QAbstractVideoBuffer::ReadOnly, &bytes, strides, data), 2);
    int untouchedBytes = -1;
    int untouchedStrides[4] = {-1, -1, -1, -1};
    uchar *untouched[4] = {};
    QCOMPARE(buffer.map(QAbstractVideoBuffer::ReadWrite, &untouchedBytes, untouchedStrides, untouched), 0);
    QCOMPARE(buffer.mapMode(), QAbstractVideoBuffer::ReadOnly);
    QCOMPARE(untouchedBytes, -1);
    QCOMPARE(untouchedStrides[0], -1);
    QVERIFY(!untouched[0]);
}

void tst_ShmemVideoBuffer::mapsAgainAfterUnmap()
{
    LockedFrame frame = makeFrame(2);
    ShmemVideoBuffer buffer(SHM_PIXEL_FORMAT_NV12, frame);
    int strides[4];
    uchar *data[4];
    for (int round = 0; round < 3; ++round) {
        QCOMPARE(buffer.map(QAbstractVideoBuffer::ReadWrite, nullptr, strides, data), 2);
        QCOMPARE(buffer.mapMode(), QAbstractVideoBuffer::ReadWrite);
        buffer.unmap();
        QCOMPARE(buffer.mapMode(), QAbstractVideoBuffer::NotMapped);
        QCOMPARE(unlocked, 0);
    }
}

void tst_ShmemVideoBuffer::frameWithoutPlanesCannotBeMapped()
{
    LockedFrame frame = makeFrame(0);
    ShmemVideoBuffer buffer(SHM_PIXEL_FORMAT_NV12, frame);
    int strides[4];
    uchar *data[4];
    QCOMPARE(buffer.map(QAbstractVideoBuffer::ReadOnly, nullptr, strides, data), 0);
    QCOMPARE(buffer.mapMode(), QAbstractVideoBuffer::NotMapped);
}

void tst_ShmemVideoBuffer::bufferWithoutFrameCannotBeMapped()
{
    LockedFrame frame;
    ShmemVideoBuffer buffer(SHM_PIXEL_FORMAT_NV12, frame);
    int strides[4];
    uchar *data[4];
    QCOMPARE(buffer.map(QAbstractVideoBuffer::ReadOnly, nullptr, strides, data), 0);
}

void tst_ShmemVideoBuffer::sizeIsOptional()
{
    LockedFrame frame = makeFrame(3);
    ShmemVideoBuffer buffer(SHM_PIXEL_FORMAT_YUV420P, frame);
    int strides[4];
    uchar *data[4];
    QCOMPARE(buffer.map(QAbstractVideoBuffer::ReadOnly, nullptr, strides, data), 3);
}

void tst_ShmemVideoBuffer::writingIsNotRefused()
{
    LockedFrame frame = makeFrame(1);
    ShmemVideoBuffer buffer(SHM_PIXEL_FORMAT_NV12, frame);
    int strides[4];
    uchar *data[4];
    QCOMPARE(buffer.map(QAbstractVideoBuffer::WriteOnly, nullptr, strides, data), 1);
    data[0][5] = 42;
    QCOMPARE(pixels[5], uchar(42));
    pixels[5] = 0;
}

void tst_ShmemVideoBuffer::destructionUnlocksOnce()
{
    {
        LockedFrame frame = makeFrame(2);
        ShmemVideoBuffer buffer(SHM_PIXEL_FORMAT_NV12, frame);
        int strides[4];
        uchar *data[4];
        buffer.map(QAbstractVideoBuffer::ReadOnly, nullptr, strides, data);
        QCOMPARE(unlocked, 0);
    }
    QCOMPARE(unlocked, 1);
}

void tst_ShmemVideoBuffer::frameMapsTheStoresOwnPlanes()
{
    LockedFrame locked = makeFrame(3);
    auto *buffer = new ShmemVideoBuffer(SHM_PIXEL_FORMAT_YUV420P, locked);
    QVideoFrame frame(buffer, QSize(16, 8), buffer->format());
    QVERIFY(frame.map(QAbstractVideoBuffer::ReadOnly));
    QCOMPARE(frame.planeCount(), 3);
    QCOMPARE(frame.bits(2), pixels + 2048);
    QCOMPARE(frame.bytesPerLine(2), 102);
    QVideoFrame copy = frame;
    frame.unmap();
    frame = QVideoFrame();
    QCOMPARE(unlocked, 0);
    copy = QVideoFrame();
    QCOMPARE(unlocked, 1);
}

void tst_ShmemVideoBuffer::oneRowInOnePlane_data()
{
    QTest::addColumn<int>("stored");
    QTest::addColumn<bool>("isMapped");
    QTest::newRow("no format") << 0 << true;
    QTest::newRow("YUV420P") << 1 << false;
    QTest::newRow("YVU420P") << 2 << false;
    QTest::newRow("NV12") << 3 << true;
}

// Of one plane Qt works out where the others would lie, and divides by the rows of one of those.
void tst_ShmemVideoBuffer::oneRowInOnePlane()
{
    QFETCH(int, stored);
    LockedFrame locked = makeFrame(1);
    locked->height = 1;
    auto *buffer = new ShmemVideoBuffer(static_cast<SHM_PIXEL_FORMAT>(stored), locked);
    QVideoFrame frame(buffer, QSize(16, 1), buffer->format());
    QFETCH(bool, isMapped);
    QCOMPARE(frame.map(QAbstractVideoBuffer::ReadOnly), isMapped);
    QCOMPARE(buffer->mapMode(), isMapped ? QAbstractVideoBuffer::ReadOnly : QAbstractVideoBuffer::NotMapped);
    if (isMapped)
        frame.unmap();
}

QTEST_GUILESS_MAIN(tst_ShmemVideoBuffer)
#include "tst_shmemvideobuffer.moc"
