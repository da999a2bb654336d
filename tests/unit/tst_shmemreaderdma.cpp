// The switch for DMA buffers is read once per process, so its "on" has a program of its own.
#include "fake_shm.h"

#include "sources/shmemreader.h"

#include <zevqt-mm/storeframe.h>

#include <QtTest/QtTest>

class tst_ShmemReaderDma : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void asksTheStoreToExport_data();
    void asksTheStoreToExport();
    void framesSayWhyTheyAreNoDmabufs();
    void switchIsReadOnce();
};

void tst_ShmemReaderDma::asksTheStoreToExport_data()
{
    qputenv("ZEV_GL_DMABUF", "0"); // not empty: on
    QTest::addColumn<int>("pixelFormat");
    QTest::addColumn<bool>("asked");
    QTest::newRow("none") << 0 << false;
    QTest::newRow("YUV420P") << 1 << true;
    QTest::newRow("YVU420P") << 2 << true;
    QTest::newRow("NV12") << 3 << true;
    QTest::newRow("unknown") << 4 << false;
}

void tst_ShmemReaderDma::asksTheStoreToExport()
{
    QFETCH(int, pixelFormat);
    QFETCH(bool, asked);
    FakeShm &store = FakeShm::instance();
    store.reset();
    store.format.pixel_format = pixelFormat;
    ShmemReader reader(QStringLiteral("cam0"), 100);
    QVERIFY(reader.open());
    QStringList expected = {"open cam0 100", "get_format"};
    if (asked)
        expected << "open_dmabuf_fd";
    expected << "set_fps 1/1";
    QCOMPARE(store.takeCalls(), expected);
}

void tst_ShmemReaderDma::framesSayWhyTheyAreNoDmabufs()
{
    FakeShm &store = FakeShm::instance();
    store.reset();
    store.openDmabufResult = -95;
    store.dmabufText = "no: there is none";
    ShmemReader reader(QStringLiteral("cam0"), 100);
    QVERIFY(reader.open());
    QCOMPARE(store.takeCalls(),
             QStringList({"open cam0 100", "get_format", "open_dmabuf_fd", "get_info", "set_fps 1/1"}));
    const QVideoFrame frame = reader.grabVideo(0);
    QCOMPARE(frame.handleType(), QAbstractVideoBuffer::NoHandle);
    QCOMPARE(StoreFrame::of(frame).noDmabufReason, QStringLiteral("no: there is none"));

    // The next writer exports.
    store.openDmabufResult = 0;
    QVERIFY(reader.open());
    QCOMPARE(StoreFrame::of(reader.grabVideo(0)).noDmabufReason, QString());
}

void tst_ShmemReaderDma::switchIsReadOnce()
{
    qunsetenv("ZEV_GL_DMABUF");
    FakeShm &store = FakeShm::instance();
    store.reset();
    ShmemReader reader(QStringLiteral("cam0"), 100);
    QVERIFY(reader.open());
    QVERIFY(store.takeCalls().contains(QStringLiteral("open_dmabuf_fd")));
}

QTEST_GUILESS_MAIN(tst_ShmemReaderDma)
#include "tst_shmemreaderdma.moc"
