// Frames of a publisher in another process, imported by EGL and drawn by LiveVideo: real DMA-bufs in the
// virtual machine, stand-ins in the fast tier.
#include "dmapublisher.h"
#include "itemrenderer.h"
#include "payloadguard.h"
#include "recordedegl.h"
#include "testpicture.h"
#include "udmabuflimit.h"

#include <zevqt-mm/mediaprovider.h>
#include <zevqt-mm/mediasource.h>
#include <zevqt-mm/storeframe.h>

#include <QtCore/QDir>
#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>

#include <algorithm>
#include <atomic>
#include <functional>
#include <iterator>

namespace {

const int tolerance = 3;
const QString storeName = QStringLiteral("picture");
const UdmabufLimit udmabufLimit; // before the process that publishers are made from

// Mappings and descriptors of stores' memory that this process has, whoever made them: the library, EGL.
QStringList storeMemory()
{
    const auto isStores = [](const QString &name) {
        return name.contains(QLatin1String("/dmabuf:")) || name.contains(QLatin1String("/memfd:shm-"));
    };
    QStringList found;
    QFile maps(QStringLiteral("/proc/self/maps"));
    if (!maps.open(QIODevice::ReadOnly))
        return {QStringLiteral("no /proc/self/maps")};
    const QStringList lines = QString::fromUtf8(maps.readAll()).split(QLatin1Char('\n'));
    std::copy_if(lines.begin(), lines.end(), std::back_inserter(found), isStores);
    const QDir descriptors(QStringLiteral("/proc/self/fd"));
    for (const QString &entry :
         descriptors.entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System)) {
        const QString name = QFile::symLinkTarget(descriptors.filePath(entry));
        if (isStores(name))
            found << QStringLiteral("descriptor %1: %2").arg(entry, name);
    }
    return found;
}

// The largest difference of a color's part, 0 to 255; 256 for another size.
int worstDifference(const QImage &image, const QImage &expected)
{
    if (image.size() != expected.size())
        return 256;
    int worst = 0;
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x) {
            const QRgb is = image.pixel(x, y), wanted = expected.pixel(x, y);
            worst = std::max({worst, qAbs(qRed(is) - qRed(wanted)), qAbs(qGreen(is) - qGreen(wanted)),
                              qAbs(qBlue(is) - qBlue(wanted))});
        }
    }
    return worst;
}

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
    void plainMemoryIsUploadedAndSaysWhy_data();
    void plainMemoryIsUploadedAndSaysWhy();
    void framesBeyondTheKernelsLimitAreUploaded();
    void noByteOfAFrameIsTouched_data();
    void noByteOfAFrameIsTouched();
    void goesWhileFramesAreInFlight();
    void standsInBetweenTwoPublishers();

private:
    bool presentNext(MediaSource &source);
    bool drawUntil(const std::function<bool()> &condition);

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

void tst_PublishedFrames::plainMemoryIsUploadedAndSaysWhy_data()
{
    QTest::addColumn<int>("pixelFormat");
    QTest::addColumn<int>("matrix");
    QTest::addColumn<int>("range");
    const auto add = [](int format, shm_matrix matrix, shm_range range) {
        QTest::addRow("%s %s %s", shm_pixel_format_name(format), shm_matrix_name(matrix),
                      shm_range_name(range))
            << format << int(matrix) << int(range);
    };
    add(SHM_PIXEL_FORMAT_NV12, SHM_MATRIX_BT601, SHM_RANGE_FULL);
    add(SHM_PIXEL_FORMAT_NV12, SHM_MATRIX_BT709, SHM_RANGE_LIMITED);
    add(SHM_PIXEL_FORMAT_NV12, SHM_MATRIX_BT2020, SHM_RANGE_FULL);
    add(SHM_PIXEL_FORMAT_YUV420P, SHM_MATRIX_BT709, SHM_RANGE_FULL);
    add(SHM_PIXEL_FORMAT_YUV420P, SHM_MATRIX_BT601, SHM_RANGE_LIMITED);
    add(SHM_PIXEL_FORMAT_YUV420P, SHM_MATRIX_BT2020, SHM_RANGE_LIMITED);
    add(SHM_PIXEL_FORMAT_YVU420P, SHM_MATRIX_BT709, SHM_RANGE_LIMITED);
}

void tst_PublishedFrames::plainMemoryIsUploadedAndSaysWhy()
{
    QFETCH(int, pixelFormat);
    QFETCH(int, matrix);
    QFETCH(int, range);
    const auto colors = static_cast<shm_matrix>(matrix);
    const auto samples = static_cast<shm_range>(range);
    DmaPublisher publisher;
    QVERIFY(publisher.start({"memfd", pixelFormat, colors, samples}));
    MediaSource source(storeName, 5000);
    QVERIFY(source.open());
    QVERIFY(presentNewest(source, renderer->item()));
    const QImage image = renderer->render();
    QCOMPARE(renderer->item()->framePath(), LiveVideo::Mapped);
    QCOMPARE(renderer->item()->framePathReason(),
             QStringLiteral("no: frames are in plain memory; publish with the memory kind udmabuf"));
    QString where;
    QVERIFY2(TestPicture(colors, samples).worstDifference(image, &where) <= tolerance, qPrintable(where));
    keepArtifact(image,
                 QStringLiteral("mapped-%1-%2-%3")
                     .arg(QLatin1String(shm_pixel_format_name(pixelFormat)),
                          QLatin1String(shm_matrix_name(colors)), QLatin1String(shm_range_name(samples))));
}

// Refused by the kernel, whose limit is lowered below these frames.
void tst_PublishedFrames::framesBeyondTheKernelsLimitAreUploaded()
{
    QVERIFY(udmabufLimit.set(0));
    DmaPublisher publisher;
    const bool isStarted =
        publisher.start({"udmabuf", SHM_PIXEL_FORMAT_NV12, SHM_MATRIX_BT601, SHM_RANGE_FULL});
    QVERIFY(udmabufLimit.set(64));
    QVERIFY(isStarted);
    MediaSource source(storeName, 5000);
    QVERIFY(source.open());
    QVERIFY(presentNewest(source, renderer->item()));
    const QImage image = renderer->render();
    QCOMPARE(renderer->item()->framePath(), LiveVideo::Mapped);
    QCOMPARE(renderer->item()->framePathReason(),
             QStringLiteral("no: udmabuf refuses frames of 24576 bytes; raise its parameter size_limit_mb"));
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
    QTest::addColumn<int>("pixelFormat");
    QTest::addColumn<int>("pages"); // of a frame's samples
    // Luma of 256 bytes a line, 64 lines, and half as many of chroma.
    const int nv12 = 256 * 64 / 4096 + 256 * 32 / 4096;
    QTest::newRow("udmabuf") << QByteArray("udmabuf") << int(SHM_PIXEL_FORMAT_NV12) << nv12;
    QTest::newRow("dma-heap") << QByteArray("dma-heap:system") << int(SHM_PIXEL_FORMAT_NV12) << nv12;
    // Luma of 512 bytes a line, and two planes of chroma of 256.
    QTest::newRow("udmabuf, three planes")
        << QByteArray("udmabuf") << int(SHM_PIXEL_FORMAT_YUV420P) << 512 * 64 / 4096 + 2 * (256 * 32 / 4096);
}

// Every mapping of a frame's memory that the library has is inaccessible while frames are locked, imported,
// drawn and released. That the guard notices is shown by the other path, which reads them all.
void tst_PublishedFrames::noByteOfAFrameIsTouched()
{
    QFETCH(QByteArray, memory);
    QFETCH(int, pixelFormat);
    QFETCH(int, pages);
    DmaPublisher publisher;
    QVERIFY(publisher.start({memory, pixelFormat, SHM_MATRIX_BT709, SHM_RANGE_FULL}));
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
    QCOMPARE(guard.touchedPages(), pages);
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

// Draws what comes until the condition holds; false when it does not within 20 s.
bool tst_PublishedFrames::drawUntil(const std::function<bool()> &condition)
{
    const QDeadlineTimer deadline(20000);
    do {
        renderer->renderUnseen();
        if (condition())
            return true;
        QTest::qWait(10);
    } while (!deadline.hasExpired());
    return false;
}

// Imported frames, the picture that stands in for them, imported frames of another publisher.
void tst_PublishedFrames::standsInBetweenTwoPublishers()
{
    using std::chrono::seconds;
    const seconds never(3600); // live frames may be late where everything is emulated
    QImage standIn(TestPicture::width, TestPicture::height, QImage::Format_RGB32);
    standIn.fill(qRgb(200, 40, 90));
    for (int y = 0; y < 16; ++y) { // a corner of its own, to tell how it lies
        for (int x = 0; x < 32; ++x)
            standIn.setPixel(x, y, qRgb(20, 180, 130));
    }
    const QString file = folder.filePath(QStringLiteral("nosignal.png"));
    QVERIFY(standIn.save(file));
    const RecordedEgl &egl = RecordedEgl::instance();
    const auto expectPicture = [this, &egl](shm_matrix matrix, const QString &artifact) {
        const QImage image = renderer->render();
        QVERIFY(keepArtifact(image, artifact));
        QString where;
        QVERIFY2(TestPicture(matrix, SHM_RANGE_FULL).worstDifference(image, &where) <= tolerance,
                 qPrintable(where));
        QCOMPARE(renderer->item()->framePath(), LiveVideo::EglImage);
        QCOMPARE(egl.alive(), 0); // the texture is all that is kept
    };

    renderer->renderUnseen();
    const QStringList before = storeMemory(); // a real driver has a DMA-buf of its own
    const auto isStoreHeld = [&before] {
        const QStringList now = storeMemory();
        return std::any_of(now.begin(), now.end(),
                           [&before](const QString &entry) { return !before.contains(entry); });
    };
    DmaPublisher publisher;
    QVERIFY(publisher.start({"udmabuf", SHM_PIXEL_FORMAT_NV12, SHM_MATRIX_BT709, SHM_RANGE_FULL}));
    MediaProvider provider(QUrl(QStringLiteral("shm:///") + storeName), QUrl());
    provider.enableVideoFrames();
    provider.setNoSignalImage(file, never);
    renderer->item()->setSource(&provider);
    provider.setRunning(true);
    QVERIFY(drawUntil([this] { return renderer->item()->framePath() == LiveVideo::EglImage; }));
    expectPicture(SHM_MATRIX_BT709, QStringLiteral("nosignal-1-before"));
    if (QTest::currentTestFailed())
        return;

    // The last picture stays for the delay, and with it the memory that it lies in.
    publisher.kill();
    QVERIFY(drawUntil([this] { return renderer->item()->videoState() == LiveVideo::Idle; }));
    expectPicture(SHM_MATRIX_BT709, QStringLiteral("nosignal-2-idle"));
    if (QTest::currentTestFailed())
        return;
    QVERIFY(isStoreHeld());

    provider.setNoSignalImage(file, seconds(1));
    QVERIFY(drawUntil([this] { return renderer->item()->videoState() == LiveVideo::NoSignal; }));
    const int imported = egl.created;
    const QImage between = renderer->render();
    QVERIFY(keepArtifact(between, QStringLiteral("nosignal-3-stands-in")));
    QCOMPARE(worstDifference(between, standIn), 0);
    QCOMPARE(renderer->item()->framePath(), LiveVideo::Converted);
    QCOMPARE(renderer->item()->framePathReason(), QStringLiteral("the frame is RGB"));
    QCOMPARE(renderer->item()->problem(), QString());
    // A lock is of a store's memory, which goes with the last of its frames; so does what EGL had of it.
    QVERIFY2(drawUntil([&] { return !isStoreHeld(); }), qPrintable(storeMemory().join(QLatin1Char('\n'))));
    QCOMPARE(egl.alive(), 0);
    QCOMPARE(egl.created, imported);
    QCOMPARE(worstDifference(renderer->render(), standIn), 0); // it came again with every tick

    provider.setNoSignalImage(file, never);
    DmaPublisher next;
    QVERIFY(next.start({"dma-heap:system", SHM_PIXEL_FORMAT_YUV420P, SHM_MATRIX_BT601, SHM_RANGE_FULL}));
    QVERIFY(drawUntil([this] { return renderer->item()->framePath() == LiveVideo::EglImage; }));
    expectPicture(SHM_MATRIX_BT601, QStringLiteral("nosignal-4-after"));
    if (QTest::currentTestFailed())
        return;
    QCOMPARE(renderer->item()->framePathReason(), QString());
    QVERIFY(egl.created > imported);

    provider.setRunning(false);
    renderer->deleteItem();
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
