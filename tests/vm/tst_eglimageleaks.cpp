// LiveVideo on a real EGL, for long: no image, descriptor, lock or memory is left.
#include "dmapublisher.h"
#include "itemrenderer.h"
#include "recordedegl.h"
#include "testpicture.h"

#include <zevqt-mm/mediasource.h>

#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>

namespace {

const QString storeName = QStringLiteral("picture");

// The kernel's count of DMA-bufs on this machine; -1 where it does not tell, which is so outside the virtual
// machine.
int dmabufsOfTheMachine()
{
    QFile list(QStringLiteral("/sys/kernel/debug/dma_buf/bufinfo"));
    if (!list.open(QIODevice::ReadOnly))
        return -1;
    const QRegularExpression total(QStringLiteral("Total (\\d+) objects"));
    const auto match = total.match(QString::fromLatin1(list.readAll()));
    return match.hasMatch() ? match.captured(1).toInt() : -1;
}

} // namespace

class tst_EglImageLeaks : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanupTestCase();
    void nothingIsLeftAfter500Frames();
    void nothingIsLeftAfter100Restarts();

private:
    QTemporaryDir folder{QStringLiteral("/tmp/zeveglXXXXXX")};
    std::unique_ptr<ItemRenderer> renderer;
    RecordedEgl &egl = RecordedEgl::instance();
};

void tst_EglImageLeaks::initTestCase()
{
    qputenv("ZEV_GL_DMABUF", "1");
    qputenv("ZEV_SHM_DIR", QFile::encodeName(folder.path()));
    renderer = std::make_unique<ItemRenderer>(QSize(TestPicture::width, TestPicture::height));
    QVERIFY(renderer->isValid());
}

void tst_EglImageLeaks::init()
{
    renderer->renewItem();
    renderer->item()->setSize(QSizeF(8, 4)); // emulated, every pixel counts
    egl = RecordedEgl();
}

void tst_EglImageLeaks::cleanupTestCase()
{
    renderer.reset();
}

void tst_EglImageLeaks::nothingIsLeftAfter500Frames()
{
    DmaPublisher publisher;
    QVERIFY(publisher.start({"udmabuf", SHM_PIXEL_FORMAT_NV12, SHM_MATRIX_BT709, SHM_RANGE_FULL}));
    MediaSource source(storeName, 5000);
    QVERIFY(source.open());
    int before = 0;
    for (int i = 0; i < 500; ++i) {
        QVERIFY(presentNewest(source, renderer->item()));
        renderer->renderUnseen();
        QCOMPARE(renderer->item()->framePath(), LiveVideo::EglImage);
        QCOMPARE(egl.alive(), 0);
        if (i == 50)
            before = openDescriptors();
    }
    QVERIFY2(egl.created > 400, qPrintable(QString::number(egl.created))); // a frame may come twice
    QCOMPARE(egl.refused, 0);
    renderer->item()->clear();
    renderer->renderUnseen();
    // The driver keeps the memory of a few images until it is done with drawing them.
    const int after = openDescriptors();
    QVERIFY2(after < before + 16, qPrintable(QStringLiteral("%1, %2 at first").arg(after).arg(before)));
    QTRY_COMPARE_WITH_TIMEOUT(locksHeld(storeName), 0, 30000);
}

// Publishers in processes of their own, killed while their frame is on screen.
void tst_EglImageLeaks::nothingIsLeftAfter100Restarts()
{
    MediaSource source(storeName, 5000);
    int descriptors = 0;
    int dmabufs = 0;
    for (int i = 0; i < 100; ++i) {
        DmaPublisher publisher;
        QVERIFY(publisher.start({"udmabuf", SHM_PIXEL_FORMAT_NV12, SHM_MATRIX_BT709, SHM_RANGE_FULL}));
        QVERIFY(source.open());
        QVERIFY(presentNewest(source, renderer->item()));
        renderer->renderUnseen();
        QCOMPARE(renderer->item()->framePath(), LiveVideo::EglImage);
        QCOMPARE(egl.created, i + 1);
        QCOMPARE(egl.alive(), 0);
        if (i == 10) {
            descriptors = openDescriptors();
            dmabufs = dmabufsOfTheMachine();
        }
        publisher.kill();
    }
    renderer->item()->clear();
    source.close();
    renderer->renderUnseen();
    const int after = openDescriptors();
    QVERIFY2(after < descriptors + 16,
             qPrintable(QStringLiteral("%1, %2 at first").arg(after).arg(descriptors)));
    // An image, or a lock, that stayed would keep its publisher's memory in the kernel.
    const int dmabufsAfter = dmabufsOfTheMachine();
    qInfo("DMA-bufs of the machine: %d during the eleventh run, %d after the last", dmabufs, dmabufsAfter);
    QVERIFY(dmabufsAfter <= dmabufs);
    // The name is free: the next publisher has it, and nobody holds its frames.
    DmaPublisher last;
    QVERIFY(last.start({"udmabuf", SHM_PIXEL_FORMAT_NV12, SHM_MATRIX_BT709, SHM_RANGE_FULL}));
    QCOMPARE(locksHeld(storeName), 0);
}

int main(int argc, char **argv)
{
    if (!DmaPublisher::prepare())
        return 1;
    QGuiApplication application(argc, argv);
    tst_EglImageLeaks test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_eglimageleaks.moc"
