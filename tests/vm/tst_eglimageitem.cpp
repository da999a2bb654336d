// LiveVideo on a real EGL, with frames of the test's own: what it does with images, locks and contexts.
#include "dmamemory.h"
#include "itemrenderer.h"
#include "recordedegl.h"
#include "testpicture.h"

#include <zevqt-mm/shmemdmavideobuffer.h>

#include <shm/shm_reader.h>

#include <QtTest/QtTest>

#include <fcntl.h>
#include <unistd.h>

#include <functional>

using LockedFrame = std::unique_ptr<shm_video_frame_t, std::function<void(shm_video_frame_t *)>>;

namespace {

const int tolerance = 3;
const QSize pictureSize(TestPicture::width, TestPicture::height);
QStringList criticals;
QStringList warnings;

bool isNear(QRgb pixel, QRgb color)
{
    return qAbs(qRed(pixel) - qRed(color)) <= tolerance && qAbs(qGreen(pixel) - qGreen(color)) <= tolerance &&
           qAbs(qBlue(pixel) - qBlue(color)) <= tolerance;
}

void noteCriticals(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    if (type == QtCriticalMsg)
        criticals << text;
    else if (type == QtWarningMsg)
        warnings << text;
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
    void attributesAreTheFrames_data();
    void attributesAreTheFrames();
    void refusedImageIsUploadedAndSaysWhy_data();
    void refusedImageIsUploadedAndSaysWhy();
    void aFrameWithoutStridesIsRefused();
    void aFreshPublisherIsTriedAgain();
    void imagesCanBeSwitchedOff();
    void aTextureThatIsRefusedIsSaidSo();
    void aFrameWhoseImageIsNotDestroyedIsKept();
    void holdsTheShownFrameAndNoOther();
    void imageAndTextureGoBeforeTheLock();
    void twoItemsShowOneFrame();
    void aHiddenItemImportsNothing();
    void copiesMayGoWithoutAContext();
    void anImageOfTheApplicationsOwnIsLeftToIt();
    void survivesTheLossOfItsContext();
    void survivesAnotherWindow();
    void goesWithAFrameShownAndOneToCome();
    void fillModesPlaceThePicture();
    void followsTheTurnOfItsWindow();
    void aShaderThatIsNotBuiltCostsThePathAndNotThePicture(); // last: it is not tried again in this process

private:
    QVideoFrame handMade(int pixelFormat, int descriptor = -1, quint64 session = 1, bool hasPlanes = true);
    QVideoFrame nv12(int descriptor = -1, quint64 session = 1)
    {
        return handMade(SHM_PIXEL_FORMAT_NV12, descriptor, session);
    }
    LiveVideo *item() const { return renderer->item(); }

    std::unique_ptr<ItemRenderer> renderer; // one for all: an emulated context takes seconds to make
    std::unique_ptr<DmaMemory> memory;
    int notADmabuf = -1;
    int framesAlive = 0;
    RecordedEgl &egl = RecordedEgl::instance();
};

#define COMPARE_PICTURE(image)                                                                               \
    do {                                                                                                     \
        QString where;                                                                                       \
        QVERIFY2(TestPicture(SHM_MATRIX_BT709, SHM_RANGE_FULL).worstDifference(image, &where) <= tolerance,  \
                 qPrintable(where));                                                                         \
    } while (false)

void tst_EglImageItem::initTestCase()
{
    // Shaders are to be built here, not found.
    QCoreApplication::setAttribute(Qt::AA_DisableShaderDiskCache);
    renderer = std::make_unique<ItemRenderer>(pictureSize);
    QVERIFY(renderer->isValid());
    memory = std::make_unique<DmaMemory>("udmabuf", TestPicture::width * TestPicture::height * 8);
    QVERIFY2(memory->isValid(), memory->error().constData());
    notADmabuf = open("/dev/null", O_RDONLY | O_CLOEXEC);
    QVERIFY(notADmabuf >= 0);
}

void tst_EglImageItem::init()
{
    egl = RecordedEgl();
    renderer->renewItem();
}

void tst_EglImageItem::cleanup()
{
    renderer->deleteItem();
    renderer->renderUnseen(); // what it drew goes now
    QCOMPARE(framesAlive, 0);
    QCOMPARE(egl.alive(), 0);
}

void tst_EglImageItem::cleanupTestCase()
{
    renderer.reset();
    memory.reset();
    close(notADmabuf);
}

// A frame as the library makes them of a store's, of memory of the test's own.
QVideoFrame tst_EglImageItem::handMade(int pixelFormat, int descriptor, quint64 session, bool hasPlanes)
{
    LockedFrame frame(new shm_video_frame_t(), [this](shm_video_frame_t *locked) {
        --framesAlive;
        egl.events << QStringLiteral("unlock %1").arg(locked->session);
        delete locked;
    });
    ++framesAlive;
    TestPicture::layOut(pixelFormat, frame.get());
    for (int plane = 0; plane < 4 && frame->strides[plane]; ++plane)
        frame->planes[plane] = memory->data() + frame->plane_offsets[plane];
    frame->matrix = SHM_MATRIX_BT709;
    frame->range = SHM_RANGE_FULL;
    frame->session = session;
    memory->beginWrite();
    TestPicture(SHM_MATRIX_BT709, SHM_RANGE_FULL).write(pixelFormat, *frame, memory->data());
    memory->endWrite();
    if (!hasPlanes) {
        frame->planes[0] = nullptr;
        frame->strides[0] = 0;
    }
    auto *buffer = new ShmemDmaVideoBuffer(static_cast<SHM_PIXEL_FORMAT>(pixelFormat),
                                           descriptor < 0 ? memory->descriptor() : descriptor, frame);
    QVideoFrame result(buffer, pictureSize, buffer->format());
    result.setMetaData(QStringLiteral("shmname"), QByteArrayLiteral("picture"));
    result.setMetaData(QStringLiteral("buffer"), QVariant::fromValue(static_cast<void *>(buffer)));
    return result;
}

void tst_EglImageItem::attributesAreTheFrames_data()
{
    QTest::addColumn<int>("pixelFormat");
    QTest::addColumn<QVector<int>>("expected"); // -2 stands for the descriptor
    const auto head = [](int fourcc) {
        return QVector<int>{
            0x30D2, 1,      0x3057, TestPicture::width, 0x3056, TestPicture::height, 0x3271, fourcc, 0x327B,
            0x3280, 0x327C, 0x3282};
    };
    QTest::newRow("YUV420P: 31 integers")
        << int(SHM_PIXEL_FORMAT_YUV420P)
        << head(0x32315559) + QVector<int>{0x3272, -2,  0x3273, 0,  0x3274, 512,   0x3275, -2,  0x3276, 32768,
                                           0x3277, 256, 0x3278, -2, 0x3279, 40960, 0x327A, 256, 0x3038};
    QTest::newRow("V first: 31 integers")
        << int(SHM_PIXEL_FORMAT_YVU420P)
        << head(0x32315559) + QVector<int>{0x3272, -2,  0x3273, 0,  0x3274, 512,   0x3275, -2,  0x3276, 40960,
                                           0x3277, 256, 0x3278, -2, 0x3279, 32768, 0x327A, 256, 0x3038};
    QTest::newRow("NV12: 25 integers")
        << int(SHM_PIXEL_FORMAT_NV12)
        << head(0x3231564E) + QVector<int>{0x3272, -2,     0x3273, 0,      0x3274, 256,   0x3275,
                                           -2,     0x3276, 16384,  0x3277, 256,    0x3038};
}

// What arrives at EGL when the item shows a frame.
void tst_EglImageItem::attributesAreTheFrames()
{
    QFETCH(int, pixelFormat);
    QFETCH(QVector<int>, expected);
    item()->present(handMade(pixelFormat));
    COMPARE_PICTURE(renderer->render());
    QCOMPARE(item()->framePath(), LiveVideo::EglImage);
    for (int &value : expected) {
        if (value == -2)
            value = memory->descriptor();
    }
    QCOMPARE(egl.attributes, expected);
    QCOMPARE(egl.attributes.size(), pixelFormat == SHM_PIXEL_FORMAT_NV12 ? 25 : 31);
    QCOMPARE(egl.created, 1);
    QCOMPARE(egl.destroyed, 1);
}

void tst_EglImageItem::refusedImageIsUploadedAndSaysWhy_data()
{
    QTest::addColumn<int>("error"); // 0: the real one's, of a descriptor that is no DMA-buf
    QTest::addColumn<QString>("message");
    QTest::newRow("no DMA-buf") << 0 << "eglCreateImageKHR failed: \"Cannot allocate resources\"";
    QTest::newRow("EGL_BAD_MATCH") << 0x3009 << "eglCreateImageKHR failed: \"Inconsistent arguments\"";
    QTest::newRow("EGL_BAD_PARAMETER") << 0x300C << "eglCreateImageKHR failed: \"Invalid argument\"";
    QTest::newRow("EGL_BAD_ATTRIBUTE")
        << 0x3004 << "eglCreateImageKHR failed: \"Unrecognized attribute or attribute value\"";
    QTest::newRow("EGL_CONTEXT_LOST") << 0x300E << "eglCreateImageKHR failed: \"Context lost\"";
    QTest::newRow("of no list") << 12345 << "eglCreateImageKHR failed: \"Unknown error 12345\"";
}

void tst_EglImageItem::refusedImageIsUploadedAndSaysWhy()
{
    QFETCH(int, error);
    QFETCH(QString, message);
    egl.failWith = error;
    criticals.clear();
    const QtMessageHandler before = qInstallMessageHandler(noteCriticals);
    QImage image;
    for (int i = 0; i < 3; ++i) {
        item()->present(nv12(error ? -1 : notADmabuf));
        image = renderer->render();
    }
    qInstallMessageHandler(before);
    QCOMPARE(criticals, QStringList(message)); // once: it would say the same of every frame
    QCOMPARE(egl.refused, 1);
    COMPARE_PICTURE(image);
    QCOMPARE(item()->framePath(), LiveVideo::Mapped);
    QCOMPARE(item()->framePathReason(),
             QStringLiteral("EGL could not import the frame's memory, see the log"));
    QCOMPARE(framesAlive, 1);
    // Another source may do better.
    egl.failWith = 0;
    item()->clear();
    item()->present(nv12());
    renderer->render();
    QCOMPARE(item()->framePath(), LiveVideo::EglImage);
    QCOMPARE(item()->framePathReason(), QString());
}

// With the first stride at 0 the list of planes ends before it begins, and with the first address at 0 there
// is nothing to upload either.
void tst_EglImageItem::aFrameWithoutStridesIsRefused()
{
    criticals.clear();
    const QtMessageHandler before = qInstallMessageHandler(noteCriticals);
    item()->present(handMade(SHM_PIXEL_FORMAT_NV12, -1, 1, false));
    const QImage image = renderer->render();
    qInstallMessageHandler(before);
    const QVector<int> expected = {0x30D2, 1,
                                   0x3057, TestPicture::width,
                                   0x3056, TestPicture::height,
                                   0x3271, 0x3231564E,
                                   0x327B, 0x3280,
                                   0x327C, 0x3282,
                                   0x3038};
    QCOMPARE(egl.attributes, expected);
    QCOMPARE(egl.attributes.size(), 13);
    QCOMPARE(egl.refused, 1);
    QCOMPARE(egl.created, 0);
    QCOMPARE(criticals, QStringList(QStringLiteral("eglCreateImageKHR failed: \"Invalid argument\"")));
    QCOMPARE(item()->framePath(), LiveVideo::NoPath);
    QCOMPARE(item()->framePathReason(),
             QStringLiteral("EGL could not import the frame's memory, see the log"));
    QCOMPARE(item()->problem(), item()->framePathReason());
    QImage black(image.size(), image.format());
    black.fill(Qt::black);
    QCOMPARE(image, black);

    item()->present(nv12(-1, 2)); // a fresh publisher's
    COMPARE_PICTURE(renderer->render());
    QCOMPARE(item()->framePath(), LiveVideo::EglImage);
    QCOMPARE(item()->problem(), QString());
    QCOMPARE(framesAlive, 1);
}

void tst_EglImageItem::aFreshPublisherIsTriedAgain()
{
    QTest::ignoreMessage(QtCriticalMsg, "eglCreateImageKHR failed: \"Cannot allocate resources\"");
    item()->present(nv12(notADmabuf, 1));
    renderer->renderUnseen();
    QCOMPARE(item()->framePath(), LiveVideo::Mapped);
    item()->present(nv12(-1, 1));
    renderer->renderUnseen();
    QCOMPARE(item()->framePath(), LiveVideo::Mapped); // one that was refused is not asked for every frame
    item()->present(nv12(-1, 2));
    COMPARE_PICTURE(renderer->render());
    QCOMPARE(item()->framePath(), LiveVideo::EglImage);
}

void tst_EglImageItem::imagesCanBeSwitchedOff()
{
    item()->setEglImages(false);
    item()->present(nv12());
    COMPARE_PICTURE(renderer->render());
    QCOMPARE(item()->framePath(), LiveVideo::Mapped);
    QCOMPARE(item()->framePathReason(), QStringLiteral("EGL images are switched off"));
    QCOMPARE(egl.created, 0);
    item()->setEglImages(true);
    COMPARE_PICTURE(renderer->render());
    QCOMPARE(item()->framePath(), LiveVideo::EglImage);
}

// The image is made, and GL does not take it: as a driver that imports what it cannot draw from.
void tst_EglImageItem::aTextureThatIsRefusedIsSaidSo()
{
    egl.refuseTextures = true;
    criticals.clear();
    const QtMessageHandler before = qInstallMessageHandler(noteCriticals);
    QImage image;
    for (quint64 session = 1; session <= 3; ++session) { // of fresh publishers, so that each is tried
        item()->present(nv12(-1, session));
        image = renderer->render();
    }
    qInstallMessageHandler(before);
    QCOMPARE(criticals, QStringList(QStringLiteral("glEGLImageTargetTexture2DOES failed: GL_INVALID_VALUE: "
                                                   "this is no image to it (0x0501)")));
    QCOMPARE(egl.created, 3);
    QCOMPARE(egl.destroyed, 3);
    COMPARE_PICTURE(image);
    QCOMPARE(item()->framePath(), LiveVideo::Mapped);
    QCOMPARE(item()->framePathReason(),
             QStringLiteral("EGL could not import the frame's memory, see the log"));
    QCOMPARE(framesAlive, 1);
    egl.refuseTextures = false;
    item()->present(nv12(-1, 4));
    COMPARE_PICTURE(renderer->render());
    QCOMPARE(item()->framePath(), LiveVideo::EglImage);
}

// A copy of it may go in any thread, and would call EGL there.
void tst_EglImageItem::aFrameWhoseImageIsNotDestroyedIsKept()
{
    egl.refuseDestroying = true;
    criticals.clear();
    const QtMessageHandler before = qInstallMessageHandler(noteCriticals);
    item()->present(nv12(-1, 1));
    QImage image = renderer->render();
    QCOMPARE(item()->framePath(), LiveVideo::EglImage);
    item()->present(nv12(-1, 2)); // of a fresh publisher, so that it is tried
    image = renderer->render();
    qInstallMessageHandler(before);
    COMPARE_PICTURE(image);
    QCOMPARE(item()->framePath(), LiveVideo::Mapped);
    QCOMPARE(egl.created, 1); // another image would only stay, too
    QCOMPARE(criticals,
             QStringList({QStringLiteral("eglDestroyImageKHR failed: \"Resource inaccessible\""),
                          QStringLiteral("eglDestroyImageKHR failed: \"Resource inaccessible\"")}));
    item()->clear(); // and with it the item's copies, in this thread
    renderer->renderUnseen();
    QCOMPARE(framesAlive, 1);
    egl.refuseDestroying = false;
    item()->present(nv12(-1, 3));
    COMPARE_PICTURE(renderer->render());
    QCOMPARE(item()->framePath(), LiveVideo::EglImage);
    QCOMPARE(egl.alive(), 0);
    QCOMPARE(framesAlive, 1);
}

void tst_EglImageItem::holdsTheShownFrameAndNoOther()
{
    for (int i = 1; i <= 5; ++i) {
        item()->present(nv12());
        renderer->renderUnseen();
        renderer->renderUnseen(); // again without a new one: nothing is imported
        QCOMPARE(framesAlive, 1);
        QCOMPARE(egl.created, i);
        QCOMPARE(egl.alive(), 0);
    }
    item()->clear();
    renderer->renderUnseen();
    QCOMPARE(framesAlive, 0);
}

// Once it is unlocked, the store writes into the memory: nothing may draw from it then.
void tst_EglImageItem::imageAndTextureGoBeforeTheLock()
{
    const auto eventsOf = [this](const std::function<void()> &step) {
        egl.events.clear();
        step();
        renderer->renderUnseen();
        return egl.events;
    };
    const auto present = [this](quint64 session) { item()->present(nv12(-1, session)); };
    QCOMPARE(eventsOf([&] { present(1); }), QStringList({"image", "bound", "image gone"}));
    QCOMPARE(eventsOf([&] { present(2); }), QStringList({"image", "bound", "image gone", "unlock 1"}));
    QCOMPARE(eventsOf([&] { item()->clear(); }), QStringList({"texture gone", "unlock 2"}));

    present(3);
    renderer->renderUnseen();
    QCOMPARE(eventsOf([&] { item()->setEglImages(false); }),
             QStringList("texture gone")); // its planes are shown
    item()->setEglImages(true);
    QCOMPARE(eventsOf([] {}), QStringList({"image", "bound", "image gone"}));
    QCOMPARE(eventsOf([&] { renderer->deleteItem(); }), QStringList({"texture gone", "unlock 3"}));
    renderer->renewItem();

    // A frame with an image of the application's own: that goes with the last copy, and then the lock.
    QVideoFrame frame = nv12(-1, 4);
    renderer->renderUnseen();
    QVERIFY(static_cast<ShmemDmaVideoBuffer *>(frame.buffer())->createHandle());
    QCOMPARE(eventsOf([&] { item()->present(frame); }), QStringList("bound"));
    frame = QVideoFrame();
    QCOMPARE(eventsOf([&] { item()->clear(); }), QStringList({"texture gone", "image gone", "unlock 4"}));
}

// In two windows, each with a context of its own, and twice in one of them.
void tst_EglImageItem::twoItemsShowOneFrame()
{
    ItemRenderer other(pictureSize);
    QVERIFY(other.isValid());
    const auto small = std::make_unique<LiveVideo>(renderer->root());
    small->setSize(QSizeF(64, 32)); // bars of 8 pixels over those of 16
    QVideoFrame frame = nv12();
    for (LiveVideo *each : {item(), other.item(), small.get()})
        each->present(frame);
    frame = QVideoFrame();
    const QImage both = renderer->render();
    COMPARE_PICTURE(other.render());
    for (LiveVideo *each : {item(), other.item(), small.get()})
        QCOMPARE(each->framePath(), LiveVideo::EglImage);
    QVERIFY(isNear(both.pixel(12, 8), qRgb(255, 255, 0))); // the second bar of the small one
    QVERIFY(isNear(both.pixel(20, 8), qRgb(0, 255, 255)));
    QVERIFY(isNear(both.pixel(24, 48), qRgb(128, 128, 128))); // the large one below it
    QCOMPARE(egl.created, 3);
    QCOMPARE(egl.alive(), 0);
    QCOMPARE(framesAlive, 1);

    // Who goes takes nothing from the others.
    small->clear();
    COMPARE_PICTURE(renderer->render());
    item()->clear();
    renderer->renderUnseen();
    COMPARE_PICTURE(other.render());
    QCOMPARE(framesAlive, 1);
    other.deleteItem();
    other.renderUnseen();
    QCOMPARE(framesAlive, 0);
}

void tst_EglImageItem::aHiddenItemImportsNothing()
{
    item()->present(nv12());
    renderer->renderUnseen();
    QCOMPARE(egl.created, 1);
    item()->setVisible(false);
    for (int i = 0; i < 3; ++i) {
        item()->present(nv12());
        QCOMPARE(renderer->render().pixel(8, 8), qRgb(0, 0, 0));
        QCOMPARE(framesAlive, 1); // the newest, to have something to show
        QCOMPARE(egl.created, 1);
    }
    item()->setVisible(true);
    COMPARE_PICTURE(renderer->render());
    QCOMPARE(framesAlive, 1);
    QCOMPARE(egl.created, 2);
    // Hidden with what it lies in, too.
    renderer->root()->setVisible(false);
    item()->present(nv12());
    renderer->renderUnseen();
    QCOMPARE(egl.created, 2);
    renderer->root()->setVisible(true);
    COMPARE_PICTURE(renderer->render());
}

// An application's own copy outlives the item's and goes where no context is current.
void tst_EglImageItem::copiesMayGoWithoutAContext()
{
    QVideoFrame copy = nv12();
    item()->present(copy);
    renderer->renderUnseen();
    QCOMPARE(item()->framePath(), LiveVideo::EglImage);
    item()->clear();
    renderer->renderUnseen();
    QVERIFY(!copy.handle().value<void *>());
    renderer->doneCurrent();
    QCOMPARE(framesAlive, 1);
    copy = QVideoFrame();
    QCOMPARE(framesAlive, 0);
}

void tst_EglImageItem::anImageOfTheApplicationsOwnIsLeftToIt()
{
    QVideoFrame frame = nv12();
    renderer->renderUnseen(); // its context is current from now on
    auto *buffer = static_cast<ShmemDmaVideoBuffer *>(frame.buffer());
    QVERIFY(buffer->createHandle());
    item()->present(frame);
    COMPARE_PICTURE(renderer->render());
    QCOMPARE(egl.created, 1);
    QCOMPARE(egl.destroyed, 0);
    QVERIFY(frame.handle().value<void *>());
    item()->clear();
    renderer->renderUnseen();
    frame = QVideoFrame();
    QCOMPARE(egl.destroyed, 1);
}

void tst_EglImageItem::survivesTheLossOfItsContext()
{
    item()->present(nv12());
    renderer->renderUnseen();
    QVERIFY(renderer->loseContext());
    COMPARE_PICTURE(renderer->render());
    QCOMPARE(item()->framePath(), LiveVideo::EglImage);
    QCOMPARE(framesAlive, 1);
    QCOMPARE(egl.alive(), 0);
}

// Each window has a context of its own: textures of one mean nothing, or something else, in the other.
void tst_EglImageItem::survivesAnotherWindow()
{
    ItemRenderer other(pictureSize);
    QVERIFY(other.isValid());
    other.deleteItem();
    item()->present(nv12());
    COMPARE_PICTURE(renderer->render());
    for (int i = 0; i < 2; ++i) {
        item()->setParentItem(other.root());
        QCOMPARE(renderer->render().pixel(8, 8), qRgb(0, 0, 0));
        COMPARE_PICTURE(other.render());
        QCOMPARE(item()->framePath(), LiveVideo::EglImage);
        QCOMPARE(framesAlive, 1);
        item()->setParentItem(renderer->root());
        QCOMPARE(other.render().pixel(8, 8), qRgb(0, 0, 0));
        COMPARE_PICTURE(renderer->render());
        QCOMPARE(framesAlive, 1);
    }
    QCOMPARE(egl.created, 5);
}

void tst_EglImageItem::goesWithAFrameShownAndOneToCome()
{
    item()->present(nv12());
    renderer->deleteItem(); // nothing drawn yet
    QCOMPARE(framesAlive, 0);
    renderer->renewItem();
    item()->present(nv12());
    renderer->renderUnseen();
    item()->present(nv12());
    QCOMPARE(framesAlive, 2); // on screen, and the next one
    renderer->deleteItem();
    QCOMPARE(framesAlive, 1); // on screen still
    QCOMPARE(renderer->render().pixel(8, 8), qRgb(0, 0, 0));
    QCOMPARE(framesAlive, 0);
}

void tst_EglImageItem::fillModesPlaceThePicture()
{
    // A picture twice as wide as high in a square: its first bar is white, the last one black, so that edges
    // are told by the second and the seventh, yellow and blue.
    renderer->resize(QSize(128, 128));
    item()->present(nv12());
    const QImage fit = renderer->render();
    item()->setFillMode(LiveVideo::Stretch);
    const QImage stretched = renderer->render();
    item()->setFillMode(LiveVideo::PreserveAspectCrop);
    const QImage cropped = renderer->render();
    renderer->resize(pictureSize);
    keepArtifact(fit, QStringLiteral("eglimage-fill-fit"));
    keepArtifact(stretched, QStringLiteral("eglimage-fill-stretch"));
    keepArtifact(cropped, QStringLiteral("eglimage-fill-crop"));

    const QRgb black = qRgb(0, 0, 0), white = qRgb(255, 255, 255), yellow = qRgb(255, 255, 0),
               green = qRgb(0, 255, 0);
    QVERIFY(isNear(fit.pixel(8, 16), black)); // above the picture
    QVERIFY(isNear(fit.pixel(8, 112), black));
    QVERIFY(isNear(fit.pixel(8, 40), white));
    QVERIFY(isNear(fit.pixel(24, 40), yellow));
    QVERIFY(isNear(stretched.pixel(8, 16), white));
    QVERIFY(isNear(stretched.pixel(24, 40), yellow));
    // The middle half, at twice the width: cyan, green, magenta, red.
    QVERIFY(isNear(cropped.pixel(16, 16), qRgb(0, 255, 255)));
    QVERIFY(isNear(cropped.pixel(48, 16), green));
    QVERIFY(isNear(cropped.pixel(112, 16), qRgb(255, 0, 0)));
}

void tst_EglImageItem::followsTheTurnOfItsWindow()
{
    item()->present(nv12());
    COMPARE_PICTURE(renderer->render());
    renderer->resize(QSize(64, 128)); // portrait: half the size, in the middle
    const QImage portrait = renderer->render();
    renderer->resize(pictureSize);
    const QImage landscape = renderer->render();
    keepArtifact(portrait, QStringLiteral("eglimage-portrait"));
    keepArtifact(landscape, QStringLiteral("eglimage-landscape"));
    QCOMPARE(portrait.size(), QSize(64, 128));
    QCOMPARE(portrait.pixel(12, 40), qRgb(0, 0, 0));
    QCOMPARE(portrait.pixel(12, 88), qRgb(0, 0, 0));
    const QRgb yellow = portrait.pixel(12, 56); // second bar
    QVERIFY2(qRed(yellow) > 250 && qGreen(yellow) > 250 && qBlue(yellow) < 5,
             qPrintable(QColor(yellow).name()));
    COMPARE_PICTURE(landscape);
    QCOMPARE(egl.created, 1); // the same frame all the time
}

// Said in the log and in the reason, and the picture is there without another frame.
void tst_EglImageItem::aShaderThatIsNotBuiltCostsThePathAndNotThePicture()
{
    const QString message = QStringLiteral("QSGMaterialShader: Shader compilation failed:");
    ItemRenderer other(pictureSize); // where nothing has been built yet
    QVERIFY(other.isValid());
    const auto show = [&](const char *word, int pixelFormat) {
        egl.brokenShader = word;
        warnings.clear();
        const QtMessageHandler before = qInstallMessageHandler(noteCriticals);
        other.item()->present(handMade(pixelFormat));
        QImage image;
        for (int i = 0; i < 3; ++i)
            image = other.render();
        qInstallMessageHandler(before);
        return image;
    };
    COMPARE_PICTURE(show("samplerExternalOES", SHM_PIXEL_FORMAT_NV12));
    QCOMPARE(warnings.count(message), 1);
    QVERIFY(!warnings.filter(QStringLiteral("broken by the test")).isEmpty());
    QCOMPARE(other.item()->framePath(), LiveVideo::Mapped);
    QCOMPARE(other.item()->framePathReason(),
             QStringLiteral("the shader for EGL images could not be built, see the log"));
    COMPARE_PICTURE(show("samplerExternalOES", SHM_PIXEL_FORMAT_NV12));
    QCOMPARE(warnings, QStringList()); // not tried again

    COMPARE_PICTURE(show("plane2", SHM_PIXEL_FORMAT_YUV420P)); // of three planes, the one not built yet
    QCOMPARE(warnings.count(message), 1);
    QCOMPARE(other.item()->framePath(), LiveVideo::Converted);
    QCOMPARE(other.item()->framePathReason(), QStringLiteral("the shader could not be built, see the log"));
    QCOMPARE(other.item()->problem(), QString()); // there is a picture
    other.deleteItem();
    other.renderUnseen();
}

QTEST_MAIN(tst_EglImageItem)
#include "tst_eglimageitem.moc"
