// LiveVideo on a real EGL, for long: no image, descriptor, lock or memory is left.
#include "dmapublisher.h"
#include "itemrenderer.h"
#include "recordedegl.h"
#include "testpicture.h"

#include <zevqt-mm/mediasource.h>

#include <QtCore/QDir>
#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>

namespace {

const QString storeName = QStringLiteral("picture");

// The virtual machine's kernel is this program's alone, and tells.
bool isInTheVirtualMachine()
{
    return qgetenv("RIG_ARTIFACTS") == "/mnt/artifacts";
}

// The kernel's count of DMA-bufs on this machine; -1 where it does not tell.
int dmabufsOfTheMachine()
{
    QFile list(QStringLiteral("/sys/kernel/debug/dma_buf/bufinfo"));
    if (!list.open(QIODevice::ReadOnly))
        return -1;
    const QRegularExpression total(QStringLiteral("Total (\\d+) objects"));
    const auto match = total.match(QString::fromLatin1(list.readAll()));
    return match.hasMatch() ? match.captured(1).toInt() : -1;
}

// What this process has open: what its descriptors point to, each as often as it is open.
QStringList openFiles()
{
    QStringList found;
    const QDir descriptors(QStringLiteral("/proc/self/fd"));
    for (const QString &entry :
         descriptors.entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System)) {
        QString target = QFile::symLinkTarget(descriptors.filePath(entry));
        target.remove(QRegularExpression(QStringLiteral("\\d+\\]?$"))); // sockets and pipes are numbered
        if (!target.contains(QLatin1String("/proc/")))                  // the list being read
            found << target;
    }
    found.sort();
    return found;
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
    QStringList settled();
    bool settlesAt(const QStringList &before, QString *difference);

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

// What is open with nothing shown. The driver keeps the memory of a few images until it is done with what it
// drew of them, which it notices when it draws something else.
QStringList tst_EglImageLeaks::settled()
{
    renderer->item()->clear();
    QStringList files = openFiles();
    for (int unchanged = 0; unchanged < 10; ++unchanged) {
        renderer->renderUnseen();
        const QStringList now = openFiles();
        if (now != files)
            unchanged = 0;
        files = now;
    }
    return files;
}

// Whether as much as before is open with nothing shown, to the descriptor; if not, what is too many.
bool tst_EglImageLeaks::settlesAt(const QStringList &before, QString *difference)
{
    QStringList files = settled();
    if (files == before)
        return true;
    QStringList missing;
    for (const QString &file : before) {
        if (!files.removeOne(file))
            missing << file;
    }
    *difference = QStringLiteral("left open: %1; no longer open: %2")
                      .arg(files.join(QLatin1String(", ")), missing.join(QLatin1String(", ")));
    return false;
}

void tst_EglImageLeaks::nothingIsLeftAfter500Frames()
{
    DmaPublisher publisher;
    QVERIFY(publisher.start({"udmabuf", SHM_PIXEL_FORMAT_NV12, SHM_MATRIX_BT709, SHM_RANGE_FULL}));
    MediaSource source(storeName, 5000);
    QVERIFY(source.open());
    QStringList before;
    for (int i = 0; i < 520; ++i) {
        QVERIFY(presentNewest(source, renderer->item()));
        renderer->renderUnseen();
        QCOMPARE(renderer->item()->framePath(), LiveVideo::EglImage);
        QCOMPARE(egl.alive(), 0);
        if (i == 19) // all that is opened once is open
            before = settled();
    }
    QVERIFY2(egl.created > 400, qPrintable(QString::number(egl.created))); // a frame may come twice
    QCOMPARE(egl.refused, 0);
    QString difference;
    QVERIFY2(settlesAt(before, &difference), qPrintable(difference));
    QTRY_COMPARE_WITH_TIMEOUT(locksHeld(storeName), 0, 30000);
}

// Publishers in processes of their own, killed while their frame is on screen.
void tst_EglImageLeaks::nothingIsLeftAfter100Restarts()
{
    MediaSource source(storeName, 5000);
    QStringList before;
    int dmabufs = -1;
    int whileShown = -1;
    for (int i = 0; i < 101; ++i) {
        DmaPublisher publisher;
        QVERIFY(publisher.start({"udmabuf", SHM_PIXEL_FORMAT_NV12, SHM_MATRIX_BT709, SHM_RANGE_FULL}));
        QVERIFY(source.open());
        QVERIFY(presentNewest(source, renderer->item()));
        renderer->renderUnseen();
        QCOMPARE(renderer->item()->framePath(), LiveVideo::EglImage);
        QCOMPARE(egl.created, i + 1);
        QCOMPARE(egl.alive(), 0);
        if (i == 0)
            whileShown = dmabufsOfTheMachine();
        publisher.kill();
        if (i == 0) {
            source.close();
            before = settled();
            dmabufs = dmabufsOfTheMachine();
        }
    }
    source.close();
    QString difference;
    QVERIFY2(settlesAt(before, &difference), qPrintable(difference));
    // An image, or a lock, that stayed would keep its publisher's memory in the kernel.
    if (isInTheVirtualMachine()) {
        QVERIFY2(dmabufs >= 0 && whileShown > dmabufs,
                 qPrintable(QStringLiteral("%1, %2 while a frame is shown").arg(dmabufs).arg(whileShown)));
        QTRY_COMPARE_WITH_TIMEOUT(dmabufsOfTheMachine(), dmabufs, 30000);
        qInfo("DMA-bufs of the machine: %d after the first run and after the last, %d while a frame is shown",
              dmabufs, whileShown);
    } else {
        qInfo("DMA-bufs of the machine are counted in the virtual machine only");
    }
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
