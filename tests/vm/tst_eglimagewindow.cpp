// LiveVideo in a window, drawn by the scene graph's own render thread, with frames that EGL imports: what
// stays locked once the window is not seen.
#include "dmapublisher.h"
#include "itemrenderer.h"
#include "livesource.h"
#include "testpicture.h"

#include <zevqt-mm/mediaprovider.h>
#include <zevqt-mm/mediasource.h>

#include <QtCore/QTemporaryDir>
#include <QtGui/QGuiApplication>
#include <QtGui/QSurfaceFormat>
#include <QtTest/QtTest>

namespace {

const int limitMs = 20000;
const QString storeName = QStringLiteral("picture");

} // namespace

class tst_EglImageWindow : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void ofASourceNothingIsLockedWhileTheWindowIsHidden();
    void ofFramesHandedOverOnlyTheNewestIsLocked();

private:
    bool isShown() const { return window->isExposed() && item && item->framePath() == LiveVideo::EglImage; }

    std::unique_ptr<QTemporaryDir> folder;
    DmaPublisher publisher;
    std::unique_ptr<QQuickWindow> window;
    QPointer<LiveVideo> item; // the window's
};

void tst_EglImageWindow::init()
{
    folder = std::make_unique<QTemporaryDir>(QStringLiteral("/tmp/zevwindowXXXXXX"));
    qputenv("ZEV_SHM_DIR", QFile::encodeName(folder->path()));
    qputenv("ZEV_GL_DMABUF", "1");
    QVERIFY(publisher.start({"udmabuf"}));
    window = std::make_unique<QQuickWindow>();
    item = new LiveVideo(window->contentItem());
    item->setSize(QSizeF(TestPicture::width, TestPicture::height));
    window->show();
}

void tst_EglImageWindow::cleanup()
{
    window.reset();
    publisher.kill();
}

void tst_EglImageWindow::ofASourceNothingIsLockedWhileTheWindowIsHidden()
{
    LiveSource source;
    item->setSource(&source);
    source.setVideo(QUrl(QStringLiteral("shm:///picture")));
    for (int round = 0; round < 2; ++round) {
        QTRY_VERIFY_WITH_TIMEOUT(isShown() && source.state() == LiveSource::Live, limitMs);
        QTRY_VERIFY_WITH_TIMEOUT(locksHeld(storeName) > 0, limitMs);
        window->hide();
        QTRY_VERIFY_WITH_TIMEOUT(!source.provider()->running(), limitMs);
        QTRY_COMPARE_WITH_TIMEOUT(locksHeld(storeName), 0, limitMs);
        QCOMPARE(source.statistics().locksHeld, 0);
        window->show();
        QTRY_VERIFY_WITH_TIMEOUT(item->videoState() == LiveVideo::Live, limitMs);
    }
}

void tst_EglImageWindow::ofFramesHandedOverOnlyTheNewestIsLocked()
{
    MediaSource source(storeName, 5000);
    QVERIFY(source.open());
    QTRY_VERIFY_WITH_TIMEOUT(presentNewest(source, item) && isShown(), limitMs);
    const QImage before = window->grabWindow();
    window->hide();
    for (int i = 0; i < 3; ++i) {
        QVERIFY(presentNewest(source, item));
        QTRY_COMPARE_WITH_TIMEOUT(locksHeld(storeName), 1, limitMs);
    }
    window->show(); // without another frame
    QTRY_VERIFY_WITH_TIMEOUT(window->isExposed(), limitMs);
    QCOMPARE(window->grabWindow(), before);
    QCOMPARE(locksHeld(storeName), 1);
}

int main(int argc, char **argv)
{
    if (!DmaPublisher::prepare())
        return 1;
    QSurfaceFormat format = QSurfaceFormat::defaultFormat();
    format.setRenderableType(QSurfaceFormat::OpenGLES);
    QSurfaceFormat::setDefaultFormat(format);
    QGuiApplication application(argc, argv);
    tst_EglImageWindow test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_eglimagewindow.moc"
