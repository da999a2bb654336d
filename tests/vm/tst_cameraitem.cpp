// From the kernel's virtual camera to the picture of a Qt Quick scene: provider, source, LiveVideo, a real
// EGL.
#include "camerafixture.h"
#include "colorbars.h"
#include "itemrenderer.h"
#include "opendescriptors.h"
#include "recordedegl.h"
#include "virtualcamera.h"

#include <zevmm/v4l2/capturebase.h>
#include <zevqt-mm/mediaprovider.h>
#include <zevqt-mm/v4l2mediasource.h>
#include <zevqt-mm/videotimeline.h>

#include <QtCore/QMutex>
#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>

namespace {

const int tolerance = 3;
const int limitMs = 60000;

RecordedEgl &egl()
{
    return RecordedEgl::instance();
}

qint64 monotonicUs()
{
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return qint64(time.tv_sec) * 1000000 + time.tv_nsec / 1000;
}

} // namespace

class tst_CameraItem : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();
    void opensBetweenTheHooks_data();
    void opensBetweenTheHooks();
    void startsAHundredTimes();
    void deliversTheNewest();
    void showsTheColors_data();
    void showsTheColors();
    void survivesTheLossOfItsContext();
    void isStoppedWhenNobodyShowsIt();
    void goneAndBack();

private:
    bool useCamera(int row);
    void makeProvider(bool hasExternalTicks = false);
    bool nextFrame();
    // Renders until the bars are there; false, with a reason, when they never are.
    bool waitForBars();
    // Or is; emulated, frames may be late.
    bool becomesLive();

    std::unique_ptr<ItemRenderer> renderer;
    VirtualCamera camera;
    std::unique_ptr<MediaProvider> provider;
    QSharedPointer<V4L2MediaSource> source;
    QString problem;
};

void tst_CameraItem::initTestCase()
{
    if (VirtualCamera::all(false).size() != 1 || VirtualCamera::all(true).size() != 1)
        QSKIP("there is not one virtual camera of each flavour");
    renderer = std::make_unique<ItemRenderer>(CameraFixture::size);
    QVERIFY(renderer->isValid());
}

void tst_CameraItem::init()
{
    renderer->renewItem();
    renderer->renderUnseen();
    egl() = {};
    problem.clear();
}

void tst_CameraItem::cleanup()
{
    provider.reset();
    source.reset();
    if (!renderer)
        return;
    renderer->renewItem();
    renderer->renderUnseen();
    QCOMPARE(egl().alive(), 0);
}

void tst_CameraItem::cleanupTestCase()
{
    renderer.reset();
}

bool tst_CameraItem::useCamera(int row)
{
    const CameraFixture::Kind &kind = CameraFixture::kind(row);
    camera = VirtualCamera::all(kind.isMultiplanar).first();
    return camera.showBars("sRGB", "Default", "Default") &&
           camera.setFormat(CameraFixture::size, kind.present) && camera.setRate(30);
}

void tst_CameraItem::makeProvider(bool hasExternalTicks)
{
    provider = std::make_unique<MediaProvider>(
        QUrl(QStringLiteral("v4l://") + QString::fromLatin1(camera.device())), QUrl(), hasExternalTicks);
    source = provider->getVideoSource().objectCast<V4L2MediaSource>();
    provider->enableVideoFrames();
}

// With external ticks.
bool tst_CameraItem::nextFrame()
{
    bool isDelivered = false;
    const auto connection =
        connect(provider.get(), &MediaProvider::videoReady, this, [&](const QVideoFrame &frame) {
            isDelivered = frame.pixelFormat() == QVideoFrame::Format_NV12 &&
                          frame.handleType() == QAbstractVideoBuffer::EGLImageHandle &&
                          frame.size() == CameraFixture::size;
        });
    const bool isInTime = QTest::qWaitFor(
        [&] {
            provider->getTimeline()->externalTick(0);
            return isDelivered;
        },
        limitMs);
    disconnect(connection);
    return isInTime;
}

bool tst_CameraItem::waitForBars()
{
    const QDeadlineTimer deadline(limitMs);
    do {
        QTest::qWait(20);
        problem = whereBarsDiffer(renderer->render(), CameraFixture::size, tolerance);
    } while (!problem.isEmpty() && !deadline.hasExpired());
    if (!problem.isEmpty())
        problem += QStringLiteral("; ") + renderer->item()->problem() + QStringLiteral("; ") +
                   QString::fromStdString(source->getCapture().trouble());
    return problem.isEmpty();
}

bool tst_CameraItem::becomesLive()
{
    return QTest::qWaitFor(
        [this] {
            renderer->renderUnseen();
            return renderer->item()->videoState() == LiveVideo::Live;
        },
        limitMs);
}

void tst_CameraItem::opensBetweenTheHooks_data()
{
    CameraFixture::addRows();
}

void tst_CameraItem::opensBetweenTheHooks()
{
    QFETCH(int, row);
    QVERIFY2(useCamera(row), camera.error().constData());
    makeProvider(true);
    QCOMPARE(source->name(), QString::fromLatin1(camera.device()));
    QCOMPARE(source->getVideoFrameSize(), CameraFixture::size);
    QVERIFY(!source->open());
    source->doBeforeGLSynchronizing();
    QVERIFY(source->open());
    const int made = egl().created;
    QVERIFY(made >= 4);
    QVERIFY(nextFrame());
    source->doBeforeGLSynchronizing();
    QVERIFY(source->open());
    QCOMPARE(egl().created, made);
    QVERIFY(nextFrame());
    source->releaseGLResources();
    QVERIFY(!source->open());
    QCOMPARE(egl().alive(), 0);
    source->requestVideoAudio(0); // what was waiting is gone, too
    source->doBeforeGLSynchronizing();
    QVERIFY(source->open());
    QVERIFY(nextFrame());
    source->releaseGLResources();
}

void tst_CameraItem::startsAHundredTimes()
{
    QVERIFY2(useCamera(0), camera.error().constData());
    QVERIFY2(camera.setRate(60), camera.error().constData());
    makeProvider(true);
    int descriptors = 0;
    for (int i = 0; i < 100; ++i) {
        source->doBeforeGLSynchronizing();
        QVERIFY(source->open());
        if (i % 10 == 0)
            QVERIFY(nextFrame());
        source->releaseGLResources();
        QCOMPARE(egl().alive(), 0);
        if (i == 0)
            descriptors = settledDescriptors([this] { renderer->renderUnseen(); });
    }
    QCOMPARE(settledDescriptors([this] { renderer->renderUnseen(); }), descriptors);
}

// In a virtual machine without a processor to itself a thread may have to wait: the median counts, and the
// order.
void tst_CameraItem::deliversTheNewest()
{
    QVERIFY2(useCamera(0), camera.error().constData());
    QVERIFY2(camera.set("Timestamp Source", "Start of Exposure"), camera.error().constData());
    makeProvider();
    const qint64 tick = 40000, interval = source->getCapture().format().frameInterval;
    QCOMPARE(interval, qint64(33333));
    QMutex mutex;
    QVector<qint64> ages;
    QVector<std::uint32_t> order;
    connect(
        source.data(), &MediaSourceBase::videoReady, this,
        [&](const QVideoFrame &frame) {
            const auto statistics = source->getCapture().statistics();
            const QMutexLocker lock(&mutex);
            if (!frame.isValid())
                return;
            ages << monotonicUs() - statistics.lastTimestamp;
            order << statistics.lastSequence;
        },
        Qt::DirectConnection);
    source->doBeforeGLSynchronizing();
    provider->setRunning(true);
    QVERIFY(QTest::qWaitFor(
        [&] {
            const QMutexLocker lock(&mutex);
            return ages.size() >= 40;
        },
        limitMs));
    provider->setRunning(false);
    source->releaseGLResources();
    QVERIFY(std::is_sorted(order.cbegin(), order.cend()));
    QVERIFY(std::adjacent_find(order.cbegin(), order.cend()) == order.cend()); // none twice
    std::sort(ages.begin(), ages.end());
    qInfo("age of a frame when delivered: median %lld, most %lld us", ages[ages.size() / 2], ages.last());
    QVERIFY2(ages[ages.size() / 2] <= 2 * interval + tick,
             QByteArray::number(ages[ages.size() / 2]).constData());
}

void tst_CameraItem::showsTheColors_data()
{
    QTest::addColumn<int>("row");
    QTest::addColumn<QByteArray>("colorspace");
    QTest::addColumn<QByteArray>("encoding");
    QTest::addColumn<QByteArray>("range");
    QTest::newRow("as the camera likes it")
        << 0 << QByteArray("sRGB") << QByteArray("Default") << QByteArray("Default");
    QTest::newRow("BT.601 full") << 0 << QByteArray("sRGB") << QByteArray("ITU-R 601")
                                 << QByteArray("Full Range");
    QTest::newRow("multi-planar, BT.709")
        << 1 << QByteArray("Rec. 709") << QByteArray("Default") << QByteArray("Default");
    QTest::newRow("a descriptor each, BT.2020 limited")
        << 2 << QByteArray("sRGB") << QByteArray("BT.2020") << QByteArray("Limited Range");
}

void tst_CameraItem::showsTheColors()
{
    QFETCH(int, row);
    QFETCH(QByteArray, colorspace);
    QFETCH(QByteArray, encoding);
    QFETCH(QByteArray, range);
    QVERIFY2(useCamera(row), camera.error().constData());
    QVERIFY2(camera.showBars(colorspace, encoding, range), camera.error().constData());
    makeProvider();
    renderer->item()->setSource(provider.get());
    provider->setRunning(true);
    QVERIFY2(waitForBars(), qPrintable(problem));
    QVERIFY(source->open());
    QCOMPARE(renderer->item()->framePath(), LiveVideo::EglImage);
    QCOMPARE(renderer->item()->framePathReason(), QString());
    QCOMPARE(renderer->item()->problem(), QString());
    QVERIFY(becomesLive());
    QCOMPARE(renderer->item()->videoSize(), CameraFixture::size);
    keepArtifact(renderer->render(), QStringLiteral("camera-item-%1").arg(row));
}

void tst_CameraItem::survivesTheLossOfItsContext()
{
    QVERIFY2(useCamera(0), camera.error().constData());
    makeProvider();
    renderer->item()->setSource(provider.get());
    provider->setRunning(true);
    QVERIFY2(waitForBars(), qPrintable(problem));
    QVERIFY(renderer->loseContext());
    QVERIFY(!source->open());
    QCOMPARE(egl().alive(), 0);
    // The frame that it had is worth nothing any more, and is not drawn.
    QVERIFY(!whereBarsDiffer(renderer->render(), CameraFixture::size, tolerance).isEmpty());
    QVERIFY2(waitForBars(), qPrintable(problem));
    QCOMPARE(renderer->item()->framePath(), LiveVideo::EglImage);
}

void tst_CameraItem::isStoppedWhenNobodyShowsIt()
{
    QVERIFY2(useCamera(0), camera.error().constData());
    makeProvider();
    renderer->item()->setSource(provider.get());
    provider->setRunning(true);
    QVERIFY2(waitForBars(), qPrintable(problem));
    renderer->item()->setSource(nullptr);
    renderer->renderUnseen();
    QVERIFY(!source->open());
    QCOMPARE(egl().alive(), 0);
    renderer->item()->setSource(provider.get());
    QVERIFY2(waitForBars(), qPrintable(problem));
}

// The driver lets the device return when nobody has it open any more.
void tst_CameraItem::goneAndBack()
{
    const QTemporaryDir folder;
    const QString picture = folder.filePath(QStringLiteral("nosignal.png"));
    QImage red(CameraFixture::size, QImage::Format_RGB32);
    red.fill(Qt::red);
    QVERIFY(red.save(picture));
    QVERIFY2(useCamera(0), camera.error().constData());
    makeProvider();
    provider->setNoSignalImage(picture, std::chrono::seconds(1));
    renderer->item()->setSource(provider.get());
    provider->setRunning(true);
    QVERIFY2(waitForBars(), qPrintable(problem));

    const int held = ::open(camera.device().constData(), O_RDWR | O_CLOEXEC);
    QVERIFY(held >= 0);
    QVERIFY2(camera.set("Disconnect", 1), camera.error().constData());
    QVERIFY(QTest::qWaitFor(
        [&] {
            const QImage shown = renderer->render();
            return renderer->item()->videoState() == LiveVideo::NoSignal &&
                   shown.pixelColor(160, 90) == QColor(Qt::red);
        },
        limitMs));
    QVERIFY(source->getCapture().trouble().find("gone") != std::string::npos);
    QCOMPARE(renderer->item()->framePath(), LiveVideo::Converted);
    ::close(held);
    QVERIFY2(waitForBars(), qPrintable(problem));
    QVERIFY(becomesLive());
    QCOMPARE(source->getCapture().trouble(), std::string());
    QVERIFY(source->getCapture().statistics().returns >= 1);
}

QTEST_MAIN(tst_CameraItem)
#include "tst_cameraitem.moc"
