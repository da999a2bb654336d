// The switch for DMA buffers is read once per process, so its "on" has a program of its own.
#include "fake_shm.h"

#include "sources/shmemreader.h"

#include <zevqt-mm/mediasource.h>
#include <zevqt-mm/shmemdmavideobuffer.h>
#include <zevqt-mm/storeframe.h>

#include <QtCore/QDateTime>

#include <QtTest/QtTest>

class tst_ShmemReaderDma : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void asksTheStoreToExport_data();
    void asksTheStoreToExport();
    void framesSayWhyTheyAreNoDmabufs();
    void descriptorDecidesTheKindOfFrame_data();
    void descriptorDecidesTheKindOfFrame();
    void frameCarriesWhatTheStoreSays();
    void droppedFramesAreUnlocked_data();
    void droppedFramesAreUnlocked();
    void aFormatOfALaterStoreIsUnknown();
    void lastCopyUnlocksAlsoAfterReopening();
    void framesAreDeliveredByEveryRequestAndImagesByNone();
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
#ifdef FAKE_SHM_WITHOUT_INFO
    QCOMPARE(store.takeCalls(),
             QStringList({"open cam0 100", "get_format", "open_dmabuf_fd", "set_fps 1/1"}));
    const QString reason = QStringLiteral("no: the store exports no DMA-bufs");
#else
    QCOMPARE(store.takeCalls(),
             QStringList({"open cam0 100", "get_format", "open_dmabuf_fd", "get_info", "set_fps 1/1"}));
    const QString reason = QStringLiteral("no: there is none");
#endif
    const QVideoFrame frame = reader.grabVideo(0);
    QCOMPARE(frame.handleType(), QAbstractVideoBuffer::NoHandle);
    QCOMPARE(StoreFrame::of(frame).noDmabufReason, reason);

    // The next writer exports, but not all of its memory.
    store.openDmabufResult = 0;
    QVERIFY(reader.open());
    QCOMPARE(StoreFrame::of(reader.grabVideo(0)).noDmabufReason,
             QStringLiteral("the store has no DMA-buf of this frame's memory, see zevshm info"));
    store.dmabufFd = 17;
    QCOMPARE(StoreFrame::of(reader.grabVideo(0)).noDmabufReason, QString());
}

void tst_ShmemReaderDma::descriptorDecidesTheKindOfFrame_data()
{
    QTest::addColumn<int>("descriptor");
    QTest::addColumn<bool>("isImage");
    QTest::newRow("none") << -1 << false;
    QTest::newRow("the lowest there is") << 0 << true;
    QTest::newRow("any other") << 17 << true;
}

// The store is asked for each frame anew: slots get fresh memory, and descriptors may come late.
void tst_ShmemReaderDma::descriptorDecidesTheKindOfFrame()
{
    QFETCH(int, descriptor);
    QFETCH(bool, isImage);
    FakeShm &store = FakeShm::instance();
    store.reset();
    store.dmabufFd = isImage ? -1 : 17;
    ShmemReader reader(QStringLiteral("cam0"), 100);
    QCOMPARE(StoreFrame::of(reader.grabVideo(0)).dmaBuffer != nullptr, !isImage);
    store.dmabufFd = descriptor;
    const QVideoFrame frame = reader.grabVideo(0);
    QVERIFY(frame.isValid());
    QCOMPARE(frame.handleType() == QAbstractVideoBuffer::EGLImageHandle, isImage);
    ShmemDmaVideoBuffer *buffer = StoreFrame::of(frame).dmaBuffer;
    QCOMPARE(buffer != nullptr, isImage);
    if (isImage)
        QCOMPARE(buffer->dmabufDescriptor(), descriptor);
}

void tst_ShmemReaderDma::frameCarriesWhatTheStoreSays()
{
    FakeShm &store = FakeShm::instance();
    store.reset();
    store.dmabufFd = 17;
    ShmemReader reader(QStringLiteral("cam0;1"), 100);
    QVideoFrame frame = reader.grabVideo(0);
    QCOMPARE(frame.size(), QSize(64, 36));
    QCOMPARE(frame.pixelFormat(), QVideoFrame::Format_NV12);
    QCOMPARE(frame.startTime(), qint64(1080000));
    QCOMPARE(frame.fieldType(), QVideoFrame::ProgressiveFrame);
    QCOMPARE(frame.metaData(QStringLiteral("shmname")), QVariant(QByteArrayLiteral("cam0")));
    QCOMPARE(frame.metaData(QStringLiteral("buffer")).userType(), int(QMetaType::VoidStar));
    QCOMPARE(frame.metaData(QStringLiteral("buffer")).value<void *>(), static_cast<void *>(frame.buffer()));
    QCOMPARE(frame.handle().userType(), int(QMetaType::VoidStar));
    QVERIFY(!frame.handle().value<void *>()); // nobody has made an image of it
    QVERIFY(!frame.map(QAbstractVideoBuffer::ReadOnly));
}

void tst_ShmemReaderDma::droppedFramesAreUnlocked_data()
{
    QTest::addColumn<int>("width");
    QTest::addColumn<int>("height");
    QTest::addColumn<int>("age"); // ms
    QTest::newRow("no width") << 0 << 36 << 0;
    QTest::newRow("no height") << 64 << 0 << 0;
    QTest::newRow("negative") << 64 << -36 << 0;
    QTest::newRow("too old") << 64 << 36 << 60000;
    QTest::newRow("too new") << 64 << 36 << -60000;
}

void tst_ShmemReaderDma::droppedFramesAreUnlocked()
{
    QFETCH(int, width);
    QFETCH(int, height);
    QFETCH(int, age);
    FakeShm &store = FakeShm::instance();
    store.reset();
    store.dmabufFd = 17;
    ShmemReader reader(QStringLiteral("cam0"), 100);
    reader.setRealtimeSyncRange(-30000, 30000);
    const auto agoUs = [](int ms) { return (QDateTime::currentMSecsSinceEpoch() - ms) * 1000; };
    store.frame.timestamp = agoUs(0);
    QVERIFY(reader.grabVideo(0).isValid());
    QCOMPARE(store.lockedFrames, 0);
    store.frame.width = width;
    store.frame.height = height;
    store.frame.timestamp = agoUs(age);
    const QVideoFrame frame = reader.grabVideo(0);
    QVERIFY(!frame.isValid());
    QCOMPARE(store.lockedFrames, 0);
    QCOMPARE(store.takeCalls().last(), QStringLiteral("unlock_video"));
}

void tst_ShmemReaderDma::lastCopyUnlocksAlsoAfterReopening()
{
    FakeShm &store = FakeShm::instance();
    store.reset();
    store.dmabufFd = 17;
    ShmemReader reader(QStringLiteral("cam0"), 100);
    QVideoFrame frame = reader.grabVideo(0);
    QVideoFrame copy = frame;
    QVERIFY(reader.open());
    QCOMPARE(store.openHandles, 2); // the frame's, and the new one
    frame = QVideoFrame();
    QCOMPARE(store.lockedFrames, 1);
    copy = QVideoFrame();
    QCOMPARE(store.lockedFrames, 0);
    QCOMPARE(store.openHandles, 1);
}

// With a descriptor all the same: the image would be asked for with fourcc 0, for EGL to refuse.
void tst_ShmemReaderDma::aFormatOfALaterStoreIsUnknown()
{
    FakeShm &store = FakeShm::instance();
    store.reset();
    store.format.pixel_format = 4;
    store.dmabufFd = 17;
    ShmemReader reader(QStringLiteral("cam0"), 100);
    const QVideoFrame frame = reader.grabVideo(0);
    QCOMPARE(frame.handleType(), QAbstractVideoBuffer::EGLImageHandle);
    QCOMPARE(frame.pixelFormat(), QVideoFrame::Format_Invalid);
    QCOMPARE(frame.size(), QSize(64, 36));
}

// Frames in the GPU do not map, so nothing is there to convert; the sound comes all the same.
void tst_ShmemReaderDma::framesAreDeliveredByEveryRequestAndImagesByNone()
{
    FakeShm &store = FakeShm::instance();
    store.reset();
    store.dmabufFd = 17;
    MediaSource source(QStringLiteral("cam0"), 100, nullptr);
    QStringList emitted;
    connect(&source, &MediaSourceBase::videoReady, [&](const QVideoFrame &frame) {
        emitted << (frame.handleType() == QAbstractVideoBuffer::EGLImageHandle ? "frame" : "other frame");
    });
    connect(&source, &MediaSourceBase::imageReady,
            [&](const QImage &image) { emitted << (image.isNull() ? "no image" : "image"); });
    connect(&source, &MediaSourceBase::audioReady,
            [&](const QAudioBuffer &audio) { emitted << (audio.isValid() ? "audio" : "no audio"); });
    source.requestVideo(0);
    source.requestVideoAudio(0);
    QCOMPARE(emitted, QStringList({"frame", "frame", "audio"}));
    emitted.clear();
    source.requestImage(0);
    source.requestImageAudio(0);
    QCOMPARE(emitted, QStringList({"no image", "no image", "audio"}));
    QCOMPARE(store.lockedFrames, 0);
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
