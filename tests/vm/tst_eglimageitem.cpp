// LiveVideo on a real EGL: frames of a publisher in another process, in real DMA-bufs in the virtual machine
// and in stand-ins in the fast tier, drawn into a framebuffer object.
#include "dmamemory.h"
#include "dmapublisher.h"
#include "livevideo.h"
#include "testpicture.h"

#include <zevqt-mm/mediasource.h>
#include <zevqt-mm/shmemdmavideobuffer.h>
#include <zevqt-mm/storeframe.h>

#include <shm/shm_reader.h>

#include <QtCore/QDir>
#include <QtCore/QTemporaryDir>
#include <QtGui/QOffscreenSurface>
#include <QtGui/QOpenGLContext>
#include <QtGui/QOpenGLFramebufferObject>
#include <QtGui/QOpenGLFunctions>
#include <QtQuick/QQuickRenderControl>
#include <QtQuick/QQuickWindow>
#include <QtTest/QtTest>

#include <fcntl.h>
#include <unistd.h>

using LockedFrame = std::unique_ptr<shm_video_frame_t, std::function<void(shm_video_frame_t *)>>;

namespace {

const int tolerance = 3;
const QString storeName = QStringLiteral("picture");

int openDescriptors()
{
    return QDir(QStringLiteral("/proc/self/fd"))
        .entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System)
        .size();
}

} // namespace

class tst_EglImageItem : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();
    void publishedFrames_data();
    void publishedFrames();
    void plainMemoryIsUploadedAndSaysWhy();
    void refusedImageIsUploadedAndSaysWhy();
    void imagesCanBeSwitchedOff();
    void holdsTheShownFrameAndNoOther();
    void hiddenItemHoldsTheNewestFrameOnly();
    void copiesMayGoWithoutAContext();
    void survivesTheLossOfItsContext();
    void nothingIsLeftAfter500Frames();
    void nothingIsLeftAfter100Restarts();

private:
    void startRendering();
    QImage render();
    void renderUnseen();
    QVideoFrame handMade(DmaMemory &memory, int descriptor);
    bool showNewest(MediaSource &source);
    int locksHeld();

    QTemporaryDir folder{QStringLiteral("/tmp/zeveglXXXXXX")};
    QOffscreenSurface surface;
    std::unique_ptr<QOpenGLContext> context;
    std::unique_ptr<QQuickRenderControl> control;
    std::unique_ptr<QQuickWindow> window;
    std::unique_ptr<QOpenGLFramebufferObject> target;
    LiveVideo *item = nullptr;
    int framesAlive = 0; // hand-made ones
};

void tst_EglImageItem::initTestCase()
{
    qputenv("ZEV_GL_DMABUF", "1");
    qputenv("ZEV_SHM_DIR", QFile::encodeName(folder.path()));
    surface.create();
    // One for all: an emulated context takes seconds to make.
    context = std::make_unique<QOpenGLContext>();
    QVERIFY(context->create());
    control = std::make_unique<QQuickRenderControl>();
    window = std::make_unique<QQuickWindow>(control.get());
    window->setGeometry(0, 0, TestPicture::width, TestPicture::height);
    window->setColor(Qt::black);
    window->contentItem()->setSize(window->size());
    startRendering();
}

void tst_EglImageItem::init()
{
    item = new LiveVideo(window->contentItem());
    item->setSize(window->size());
}

void tst_EglImageItem::startRendering()
{
    QVERIFY(context->makeCurrent(&surface));
    target = std::make_unique<QOpenGLFramebufferObject>(window->size(),
                                                        QOpenGLFramebufferObject::CombinedDepthStencil);
    window->setRenderTarget(target.get());
    control->initialize(context.get());
}

void tst_EglImageItem::cleanup()
{
    delete item;
    render(); // its nodes go now
    QCOMPARE(framesAlive, 0);
}

void tst_EglImageItem::cleanupTestCase()
{
    context->makeCurrent(&surface);
    control->invalidate();
    target.reset();
    window.reset();
    control.reset();
    context.reset();
}

QImage tst_EglImageItem::render()
{
    renderUnseen();
    return target->toImage();
}

void tst_EglImageItem::renderUnseen()
{
    context->makeCurrent(&surface);
    control->polishItems();
    control->sync();
    control->render();
    window->resetOpenGLState();
    context->functions()->glFinish();
    QCoreApplication::processEvents(); // the path is reported to the GUI thread
}

// A frame as the library makes them of a store's, of memory of the test's own.
QVideoFrame tst_EglImageItem::handMade(DmaMemory &memory, int descriptor)
{
    LockedFrame frame(new shm_video_frame_t(), [this](shm_video_frame_t *locked) {
        --framesAlive;
        delete locked;
    });
    ++framesAlive;
    TestPicture::layOut(SHM_PIXEL_FORMAT_NV12, frame.get());
    for (int plane = 0; plane < 2; ++plane)
        frame->planes[plane] = memory.data() + frame->plane_offsets[plane];
    frame->matrix = SHM_MATRIX_BT709;
    frame->range = SHM_RANGE_FULL;
    memory.beginWrite();
    TestPicture(SHM_MATRIX_BT709, SHM_RANGE_FULL).write(SHM_PIXEL_FORMAT_NV12, *frame, memory.data());
    memory.endWrite();
    auto *buffer = new ShmemDmaVideoBuffer(SHM_PIXEL_FORMAT_NV12, descriptor, frame);
    QVideoFrame result(buffer, QSize(TestPicture::width, TestPicture::height), buffer->format());
    result.setMetaData(QStringLiteral("shmname"), QByteArrayLiteral("picture"));
    result.setMetaData(QStringLiteral("buffer"), QVariant::fromValue(static_cast<void *>(buffer)));
    return result;
}

bool tst_EglImageItem::showNewest(MediaSource &source)
{
    QVideoFrame newest;
    const auto connection =
        connect(&source, &MediaSource::videoReady, this, [&](const QVideoFrame &frame) { newest = frame; });
    source.requestVideo(0);
    disconnect(connection);
    item->present(newest);
    return newest.isValid();
}

int tst_EglImageItem::locksHeld()
{
    shm_reader_t *reader = shm_reader_open(storeName.toUtf8().constData(), 5000);
    shm_store_info_t info = {};
    info.size = sizeof info;
    const int result = reader && shm_reader_get_info(reader, &info) == 0 ? info.locks_held : -1;
    shm_reader_close(reader);
    return result;
}

void tst_EglImageItem::publishedFrames_data()
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

void tst_EglImageItem::publishedFrames()
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
    QVERIFY(showNewest(source));
    const QImage image = render();
    QCOMPARE(item->framePath(), LiveVideo::EglImage);
    QCOMPARE(item->framePathReason(), QString());

    const TestPicture picture(publication.matrix, publication.range);
    QString where;
    // Exact for every matrix here: this driver decodes in the shader and clips nothing before the correction.
    QVERIFY2(picture.worstDifference(image, &where) <= tolerance, qPrintable(where));
}

void tst_EglImageItem::plainMemoryIsUploadedAndSaysWhy()
{
    DmaPublisher publisher;
    DmaPublication publication;
    publication.memory = "memfd";
    publication.matrix = SHM_MATRIX_BT601;
    QVERIFY(publisher.start(publication));
    MediaSource source(storeName, 5000);
    QVERIFY(source.open());
    QVERIFY(showNewest(source));
    const QImage image = render();
    QCOMPARE(item->framePath(), LiveVideo::Mapped);
    QCOMPARE(item->framePathReason(),
             QStringLiteral("no: frames are in plain memory; publish with the memory kind udmabuf"));
    QString where;
    QVERIFY2(TestPicture(SHM_MATRIX_BT601, SHM_RANGE_FULL).worstDifference(image, &where) <= tolerance,
             qPrintable(where));
}

void tst_EglImageItem::refusedImageIsUploadedAndSaysWhy()
{
    DmaMemory memory("udmabuf", TestPicture::width * TestPicture::height * 8);
    QVERIFY2(memory.isValid(), memory.error().constData());
    const int notADmabuf = open("/dev/null", O_RDONLY | O_CLOEXEC);
    // Once: it would say the same of every frame.
    QTest::ignoreMessage(QtCriticalMsg, "eglCreateImageKHR failed: \"Cannot allocate resources\"");
    for (int i = 0; i < 3; ++i) {
        item->present(handMade(memory, notADmabuf));
        const QImage image = render();
        QCOMPARE(item->framePath(), LiveVideo::Mapped);
        QCOMPARE(item->framePathReason(),
                 QStringLiteral("EGL could not import the frame's memory, see the log"));
        QString where;
        QVERIFY2(TestPicture(SHM_MATRIX_BT709, SHM_RANGE_FULL).worstDifference(image, &where) <= tolerance,
                 qPrintable(where));
    }
    // Another source may do better.
    item->clear();
    item->present(handMade(memory, memory.descriptor()));
    render();
    QCOMPARE(item->framePath(), LiveVideo::EglImage);
    close(notADmabuf);
}

void tst_EglImageItem::imagesCanBeSwitchedOff()
{
    DmaMemory memory("udmabuf", TestPicture::width * TestPicture::height * 8);
    QVERIFY2(memory.isValid(), memory.error().constData());
    item->setEglImages(false);
    item->present(handMade(memory, memory.descriptor()));
    const QImage image = render();
    QCOMPARE(item->framePath(), LiveVideo::Mapped);
    QCOMPARE(item->framePathReason(), QStringLiteral("EGL images are switched off"));
    QString where;
    QVERIFY2(TestPicture(SHM_MATRIX_BT709, SHM_RANGE_FULL).worstDifference(image, &where) <= tolerance,
             qPrintable(where));
    item->setEglImages(true);
    QVERIFY2(TestPicture(SHM_MATRIX_BT709, SHM_RANGE_FULL).worstDifference(render(), &where) <= tolerance,
             qPrintable(where));
    QCOMPARE(item->framePath(), LiveVideo::EglImage);
}

void tst_EglImageItem::holdsTheShownFrameAndNoOther()
{
    DmaMemory memory("udmabuf", TestPicture::width * TestPicture::height * 8);
    QVERIFY2(memory.isValid(), memory.error().constData());
    for (int i = 0; i < 5; ++i) {
        item->present(handMade(memory, memory.descriptor()));
        render();
        QCOMPARE(framesAlive, 1);
    }
    item->clear();
    render();
    QCOMPARE(framesAlive, 0);
}

void tst_EglImageItem::hiddenItemHoldsTheNewestFrameOnly()
{
    DmaMemory memory("udmabuf", TestPicture::width * TestPicture::height * 8);
    QVERIFY2(memory.isValid(), memory.error().constData());
    item->present(handMade(memory, memory.descriptor()));
    render();
    item->setVisible(false);
    render();
    item->present(handMade(memory, memory.descriptor()));
    render();
    QCOMPARE(framesAlive, 1);
    item->setVisible(true);
    QString where;
    QVERIFY2(TestPicture(SHM_MATRIX_BT709, SHM_RANGE_FULL).worstDifference(render(), &where) <= tolerance,
             qPrintable(where));
    QCOMPARE(framesAlive, 1);
}

// An application's own copy outlives the item's and goes where no context is current.
void tst_EglImageItem::copiesMayGoWithoutAContext()
{
    DmaMemory memory("udmabuf", TestPicture::width * TestPicture::height * 8);
    QVERIFY2(memory.isValid(), memory.error().constData());
    QVideoFrame copy = handMade(memory, memory.descriptor());
    item->present(copy);
    render();
    QCOMPARE(item->framePath(), LiveVideo::EglImage);
    item->clear();
    render();
    QVERIFY(!copy.handle().value<void *>());
    context->doneCurrent();
    QCOMPARE(framesAlive, 1);
    copy = QVideoFrame();
    QCOMPARE(framesAlive, 0);
}

void tst_EglImageItem::survivesTheLossOfItsContext()
{
    DmaMemory memory("udmabuf", TestPicture::width * TestPicture::height * 8);
    QVERIFY2(memory.isValid(), memory.error().constData());
    item->present(handMade(memory, memory.descriptor()));
    render();
    context->makeCurrent(&surface);
    control->invalidate();
    target.reset();
    context = std::make_unique<QOpenGLContext>();
    QVERIFY(context->create());
    startRendering();
    QString where;
    QVERIFY2(TestPicture(SHM_MATRIX_BT709, SHM_RANGE_FULL).worstDifference(render(), &where) <= tolerance,
             qPrintable(where));
    QCOMPARE(item->framePath(), LiveVideo::EglImage);
    QCOMPARE(framesAlive, 1);
}

void tst_EglImageItem::nothingIsLeftAfter500Frames()
{
    DmaPublisher publisher;
    QVERIFY(publisher.start({"udmabuf", SHM_PIXEL_FORMAT_NV12, SHM_MATRIX_BT709, SHM_RANGE_FULL}));
    MediaSource source(storeName, 5000);
    QVERIFY(source.open());
    item->setSize(QSizeF(8, 4)); // emulated, every pixel counts
    int before = 0;
    for (int i = 0; i < 500; ++i) {
        QVERIFY(showNewest(source));
        renderUnseen();
        QCOMPARE(item->framePath(), LiveVideo::EglImage);
        if (i == 50)
            before = openDescriptors();
    }
    QVERIFY(before > 0);
    item->clear();
    render();
    const int after = openDescriptors();
    QVERIFY2(after < before + 16, qPrintable(QStringLiteral("%1, %2 at first").arg(after).arg(before)));
    QTRY_COMPARE_WITH_TIMEOUT(locksHeld(), 0, 30000);
}

void tst_EglImageItem::nothingIsLeftAfter100Restarts()
{
    shm_writer_params_t params;
    shm_writer_params_init(&params);
    params.name = "picture";
    params.memory = "udmabuf";
    params.width = TestPicture::width;
    params.height = TestPicture::height;
    params.pixel_format = SHM_PIXEL_FORMAT_NV12;
    params.history_frames = 2;
    params.spare_frames = 2;
    item->setSize(QSizeF(8, 4));
    MediaSource source(storeName, 5000);
    int before = 0;
    for (int i = 0; i < 100; ++i) {
        shm_writer_t *writer = nullptr;
        shm_error_t error = {};
        QVERIFY2(shm_writer_open(&params, &writer, &error) == 0, error.message);
        shm_writer_frame_t frame = {};
        QCOMPARE(shm_writer_acquire(writer, &frame), 0);
        QCOMPARE(shm_writer_publish(writer, &frame, 1000000 + i), 0);
        QVERIFY(source.open());
        QVERIFY(showNewest(source));
        renderUnseen();
        QCOMPARE(item->framePath(), LiveVideo::EglImage);
        shm_writer_close(writer); // while its frame is on screen
        if (i == 10)
            before = openDescriptors();
    }
    item->clear();
    source.close();
    render();
    const int after = openDescriptors();
    QVERIFY2(after < before + 16, qPrintable(QStringLiteral("%1, %2 at first").arg(after).arg(before)));
}

int main(int argc, char **argv)
{
    if (DmaPublisher::isPublisher(argc, argv))
        return DmaPublisher::run(argv);
    QGuiApplication application(argc, argv);
    tst_EglImageItem test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_eglimageitem.moc"
