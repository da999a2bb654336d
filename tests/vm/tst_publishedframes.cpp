// Frames of a publisher in another process, imported by EGL and drawn by LiveVideo: real DMA-bufs in the
// virtual machine, stand-ins in the fast tier.
#include "dmapublisher.h"
#include "itemrenderer.h"
#include "payloadguard.h"
#include "testpicture.h"

#include <zevqt-mm/mediaprovider.h>
#include <zevqt-mm/mediasource.h>
#include <zevqt-mm/storeframe.h>

#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>

#include <atomic>

namespace {

const int tolerance = 3;
const QString storeName = QStringLiteral("picture");

} // namespace

class tst_PublishedFrames : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanupTestCase();
    void publishedFrames_data();
    void publishedFrames();
    void plainMemoryIsUploadedAndSaysWhy();
    void noByteOfAFrameIsTouched_data();
    void noByteOfAFrameIsTouched();
    void goesWhileFramesAreInFlight();

private:
    bool presentNext(MediaSource &source);

    QTemporaryDir folder{QStringLiteral("/tmp/zeveglXXXXXX")};
    std::unique_ptr<ItemRenderer> renderer; // one for all: an emulated context takes seconds to make
    quint64 shownGeneration = 0;
};

void tst_PublishedFrames::initTestCase()
{
    qputenv("ZEV_GL_DMABUF", "1");
    qputenv("ZEV_SHM_DIR", QFile::encodeName(folder.path()));
    renderer = std::make_unique<ItemRenderer>(QSize(TestPicture::width, TestPicture::height));
    QVERIFY(renderer->isValid());
}

void tst_PublishedFrames::init()
{
    renderer->renewItem();
    shownGeneration = 0;
}

void tst_PublishedFrames::cleanupTestCase()
{
    renderer.reset();
}

void tst_PublishedFrames::publishedFrames_data()
{
    QTest::addColumn<QByteArray>("memory");
    QTest::addColumn<int>("pixelFormat");
    QTest::addColumn<int>("matrix");
    QTest::addColumn<int>("range");
    const auto add = [](const char *memory, int format, shm_matrix matrix, shm_range range) {
        QTest::addRow("%s %s %s %s", memory, shm_pixel_format_name(format), shm_matrix_name(matrix),
                      shm_range_name(range))
            << QByteArray(memory) << format << int(matrix) << int(range);
    };
    for (const char *memory : {"udmabuf", "dma-heap:system"}) {
        add(memory, SHM_PIXEL_FORMAT_YUV420P, SHM_MATRIX_BT709, SHM_RANGE_FULL);
        add(memory, SHM_PIXEL_FORMAT_NV12, SHM_MATRIX_BT709, SHM_RANGE_FULL);
        add(memory, SHM_PIXEL_FORMAT_NV12, SHM_MATRIX_BT601, SHM_RANGE_FULL);
    }
    add("udmabuf", SHM_PIXEL_FORMAT_YVU420P, SHM_MATRIX_BT709, SHM_RANGE_FULL);
    add("udmabuf", SHM_PIXEL_FORMAT_YUV420P, SHM_MATRIX_BT601, SHM_RANGE_FULL);
    add("udmabuf", SHM_PIXEL_FORMAT_NV12, SHM_MATRIX_BT709, SHM_RANGE_LIMITED);
    add("udmabuf", SHM_PIXEL_FORMAT_NV12, SHM_MATRIX_BT601, SHM_RANGE_LIMITED);
    add("udmabuf", SHM_PIXEL_FORMAT_NV12, SHM_MATRIX_BT2020, SHM_RANGE_FULL);
}

void tst_PublishedFrames::publishedFrames()
{
    QFETCH(QByteArray, memory);
    QFETCH(int, pixelFormat);
    QFETCH(int, matrix);
    QFETCH(int, range);
    const DmaPublication publication = {memory, pixelFormat, static_cast<shm_matrix>(matrix),
                                        static_cast<shm_range>(range)};
    DmaPublisher publisher;
    QVERIFY(publisher.start(publication));
    MediaSource source(storeName, 5000);
    QVERIFY(source.open());
    QVERIFY(presentNewest(source, renderer->item()));
    const QImage image = renderer->render();
    QCOMPARE(renderer->item()->framePath(), LiveVideo::EglImage);
    QCOMPARE(renderer->item()->framePathReason(), QString());

    const TestPicture picture(publication.matrix, publication.range);
    keepArtifact(image, QStringLiteral("eglimage-%1-%2-%3")
                            .arg(QLatin1String(shm_pixel_format_name(pixelFormat)),
                                 QLatin1String(shm_matrix_name(publication.matrix)),
                                 QLatin1String(shm_range_name(publication.range))));
    QString where;
    // Exact for every matrix here: this driver decodes in the shader and clips nothing before the correction.
    QVERIFY2(picture.worstDifference(image, &where) <= tolerance, qPrintable(where));
}

void tst_PublishedFrames::plainMemoryIsUploadedAndSaysWhy()
{
    DmaPublisher publisher;
    DmaPublication publication;
    publication.memory = "memfd";
    publication.matrix = SHM_MATRIX_BT601;
    QVERIFY(publisher.start(publication));
    MediaSource source(storeName, 5000);
    QVERIFY(source.open());
    QVERIFY(presentNewest(source, renderer->item()));
    const QImage image = renderer->render();
    QCOMPARE(renderer->item()->framePath(), LiveVideo::Mapped);
    QCOMPARE(renderer->item()->framePathReason(),
             QStringLiteral("no: frames are in plain memory; publish with the memory kind udmabuf"));
    QString where;
    QVERIFY2(TestPicture(SHM_MATRIX_BT601, SHM_RANGE_FULL).worstDifference(image, &where) <= tolerance,
             qPrintable(where));
}

// Presents a frame that is not the one before; the publisher makes one every 20 ms.
bool tst_PublishedFrames::presentNext(MediaSource &source)
{
    const QDeadlineTimer deadline(60000);
    while (!deadline.hasExpired()) {
        const QVideoFrame frame = source.grabVideo(0);
        const StoreFrame store = StoreFrame::of(frame);
        if (frame.isValid() && store.generation != shownGeneration) {
            shownGeneration = store.generation;
            renderer->item()->present(frame);
            return true;
        }
        QTest::qWait(5); // until the publisher's next frame
    }
    return false;
}

void tst_PublishedFrames::noByteOfAFrameIsTouched_data()
{
    QTest::addColumn<QByteArray>("memory");
    QTest::newRow("udmabuf") << QByteArray("udmabuf");
    QTest::newRow("dma-heap") << QByteArray("dma-heap:system");
}

// Every mapping of a frame's memory that the library has is inaccessible while frames are locked, imported,
// drawn and released. That the guard notices is shown by the other path, which reads them all.
void tst_PublishedFrames::noByteOfAFrameIsTouched()
{
    QFETCH(QByteArray, memory);
    DmaPublisher publisher;
    QVERIFY(publisher.start({memory, SHM_PIXEL_FORMAT_NV12, SHM_MATRIX_BT709, SHM_RANGE_FULL}));
    MediaSource source(storeName, 5000);
    QVERIFY(source.open());
    PayloadGuard guard;
    QSet<quint16> slotsSeen;
    for (int i = 0; i < 24; ++i) {
        QVideoFrame frame = source.grabVideo(0);
        QVERIFY(frame.isValid());
        const StoreFrame store = StoreFrame::of(frame);
        QVERIFY(store.dmaBuffer);
        QVERIFY(guard.guard(store.planes[0]));
        slotsSeen << store.slot;
        frame = QVideoFrame();
        QVERIFY(presentNext(source));
        renderer->renderUnseen();
        QCOMPARE(renderer->item()->framePath(), LiveVideo::EglImage);
    }
    QVERIFY2(slotsSeen.size() > 4, qPrintable(QString::number(slotsSeen.size())));
    QVERIFY(guard.guardedBytes() >= size_t(slotsSeen.size()) * TestPicture::width * TestPicture::height);
    QCOMPARE(guard.touchedPages(), 0);
    QString where;
    QVERIFY2(TestPicture(SHM_MATRIX_BT709, SHM_RANGE_FULL).worstDifference(renderer->render(), &where) <=
                 tolerance,
             qPrintable(where));
    QCOMPARE(guard.touchedPages(), 0);

    const QVideoFrame frame = source.grabVideo(0);
    QVERIFY(guard.guard(StoreFrame::of(frame).planes[0]));
    renderer->item()->setEglImages(false);
    renderer->item()->present(frame);
    renderer->renderUnseen();
    QCOMPARE(renderer->item()->framePath(), LiveVideo::Mapped);
    // Luma of 256 bytes a line, 64 lines, and half as many of chroma.
    QCOMPARE(guard.touchedPages(), 256 * 64 / 4096 + 256 * 32 / 4096);
}

// The provider's thread fetches on while the item goes, with frames shown, presented and queued.
void tst_PublishedFrames::goesWhileFramesAreInFlight()
{
    DmaPublisher publisher;
    QVERIFY(publisher.start({"udmabuf", SHM_PIXEL_FORMAT_NV12, SHM_MATRIX_BT709, SHM_RANGE_FULL}));
    MediaProvider provider(QUrl(QStringLiteral("shm:///") + storeName), QUrl());
    provider.enableVideoFrames();
    provider.setFrameRate(25);
    std::atomic<int> frames{0};
    connect(
        provider.getVideoSource().data(), &MediaSourceBase::videoReady, this, [&frames] { ++frames; },
        Qt::DirectConnection);
    provider.setRunning(true);
    for (int i = 0; i < 3; ++i) {
        renderer->renewItem();
        renderer->item()->setSource(&provider);
        QTRY_VERIFY_WITH_TIMEOUT(
            (renderer->renderUnseen(), renderer->item()->framePath() == LiveVideo::EglImage), 60000);
        QVERIFY(renderer->item()->videoState() != LiveVideo::Waiting);
        const int presented = frames;
        QTRY_VERIFY_WITH_TIMEOUT(frames > presented, 60000); // presented and not drawn
        const int queued = frames + 2;                       // fetched while no event is delivered
        const QDeadlineTimer deadline(60000);
        while (frames < queued && !deadline.hasExpired())
            QThread::yieldCurrentThread();
        QVERIFY(frames >= queued);
        renderer->deleteItem();
    }
    provider.setRunning(false);
    renderer->renderUnseen();
    QTRY_COMPARE_WITH_TIMEOUT(locksHeld(storeName), 0, 60000);
}

int main(int argc, char **argv)
{
    if (!DmaPublisher::prepare())
        return 1;
    QGuiApplication application(argc, argv);
    tst_PublishedFrames test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_publishedframes.moc"
