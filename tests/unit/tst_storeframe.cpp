#include "fake_shm.h"

#include "sources/shmemreader.h"

#include <zevqt-mm/shmemdmavideobuffer.h>
#include <zevqt-mm/storeframe.h>

#include <QtTest/QtTest>

class tst_StoreFrame : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void color_data();
    void color();
    void planesOfACpuFrame();
    void planesOfADmaFrame();
    void foreignFramesAreUnknown();

private:
    FakeShm &store = FakeShm::instance();
};

void tst_StoreFrame::init()
{
    store.reset();
}

void tst_StoreFrame::color_data()
{
    QTest::addColumn<int>("dmabufFd");
    QTest::addColumn<int>("matrix");
    QTest::addColumn<int>("range");
    QTest::addColumn<int>("expectedMatrix");
    QTest::addColumn<int>("expectedRange");
    for (int fd : {-1, 3}) {
        const char *road = fd < 0 ? "cpu" : "dma";
        QTest::addRow("%s, not stated", road)
            << fd << 0 << 0 << int(StoreFrame::MatrixUnknown) << int(StoreFrame::RangeUnknown);
        QTest::addRow("%s, BT.601 full", road)
            << fd << 1 << 1 << int(StoreFrame::MatrixBt601) << int(StoreFrame::RangeFull);
        QTest::addRow("%s, BT.709 limited", road)
            << fd << 2 << 2 << int(StoreFrame::MatrixBt709) << int(StoreFrame::RangeLimited);
        QTest::addRow("%s, BT.2020", road)
            << fd << 3 << 0 << int(StoreFrame::MatrixBt2020) << int(StoreFrame::RangeUnknown);
        QTest::addRow("%s, of a later store", road)
            << fd << 200 << 200 << int(StoreFrame::MatrixUnknown) << int(StoreFrame::RangeUnknown);
    }
}

void tst_StoreFrame::color()
{
    QFETCH(int, dmabufFd);
    QFETCH(int, matrix);
    QFETCH(int, range);
    store.dmabufFd = dmabufFd;
    store.frame.matrix = uint8_t(matrix);
    store.frame.range = uint8_t(range);
    ShmemReader reader(QStringLiteral("cam0"), 100);
    const StoreFrame description = StoreFrame::of(reader.grabVideo(0));
    QTEST(int(description.matrix), "expectedMatrix");
    QTEST(int(description.range), "expectedRange");
    QCOMPARE(description.dmaBuffer != nullptr, dmabufFd >= 0);
}

void tst_StoreFrame::planesOfACpuFrame()
{
    store.frame.session = 5;
    store.frame.slot = 6;
    store.frame.memory_generation = 7;
    store.frame.generation = 8;
    ShmemReader reader(QStringLiteral("cam0"), 100);
    const QVideoFrame frame = reader.grabVideo(0);
    const StoreFrame description = StoreFrame::of(frame);
    QCOMPARE(description.size, QSize(64, 36));
    QCOMPARE(description.planeCount, 2);
    QCOMPARE(description.planes[0], static_cast<const uchar *>(store.pixels));
    QCOMPARE(description.strides[0], 64);
    QVERIFY(!description.planes[2]);
    QCOMPARE(description.session, quint64(5));
    QCOMPARE(description.slot, quint16(6));
    QCOMPARE(description.memoryGeneration, quint32(7));
    QCOMPARE(description.generation, quint64(8));
    QVERIFY(!description.dmaBuffer);
}

void tst_StoreFrame::planesOfADmaFrame()
{
    store.dmabufFd = 3;
    ShmemReader reader(QStringLiteral("cam0"), 100);
    const QVideoFrame frame = reader.grabVideo(0);
    const StoreFrame description = StoreFrame::of(frame);
    QCOMPARE(description.planeCount, 2); // to show it without its EGL image
    QCOMPARE(description.planes[1], static_cast<const uchar *>(store.pixels + 64 * 36));
    QVERIFY(description.dmaBuffer);
    QCOMPARE(description.dmaBuffer->dmabufDescriptor(), 3);
    QCOMPARE(static_cast<void *>(description.dmaBuffer), static_cast<void *>(frame.buffer()));
}

void tst_StoreFrame::foreignFramesAreUnknown()
{
    QCOMPARE(StoreFrame::of(QVideoFrame()).planeCount, 0);
    QVideoFrame frame(QImage(16, 8, QImage::Format_RGB32));
    QCOMPARE(StoreFrame::of(frame).planeCount, 0);
    // One entry by chance is not enough to follow an address.
    frame.setMetaData(QStringLiteral("buffer"), QVariant::fromValue(static_cast<void *>(this)));
    QCOMPARE(StoreFrame::of(frame).planeCount, 0);
    frame.setMetaData(QStringLiteral("buffer"), QStringLiteral("text"));
    frame.setMetaData(QStringLiteral("shmname"), QByteArray("cam0"));
    const StoreFrame description = StoreFrame::of(frame);
    QCOMPARE(description.planeCount, 0);
    QCOMPARE(description.matrix, StoreFrame::MatrixUnknown);
    QCOMPARE(description.range, StoreFrame::RangeUnknown);
}

QTEST_GUILESS_MAIN(tst_StoreFrame)
#include "tst_storeframe.moc"
