// LiveSource with a camera, in a window that the scene graph's own render thread draws: whose the camera is
// while the window is hidden, shown, or told another camera.
#include "colorbars.h"
#include "livesource.h"
#include "livevideo.h"
#include "virtualcamera.h"

#include <zevmm/v4l2/dmaeglcapture.h>

#include <linux/videodev2.h>

#include <QtGui/QGuiApplication>
#include <QtGui/QSurfaceFormat>
#include <QtQuick/QQuickWindow>
#include <QtTest/QtTest>

#include <memory>
#include <system_error>

namespace {

const int limitMs = 60000;
const int tolerance = 3;
const QSize size(160, 90); // of the window; the camera's is twice that

QUrl urlOf(const VirtualCamera &camera)
{
    return QUrl(QStringLiteral("v4l://") + QString::fromLatin1(camera.device()));
}

/*! Whether somebody else may have it now. */
bool isFree(const VirtualCamera &camera)
{
    zevmm::v4l2::DmaEglCapture other(camera.device().toStdString());
    try {
        other.setup();
        return true;
    } catch (const std::system_error &) {
        return false;
    }
}

} // namespace

class tst_CameraWindow : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void isItsOwnersWhileItIsShown();

private:
    bool waitForBars();

    VirtualCamera camera, other;
    std::unique_ptr<QQuickWindow> window;
    QPointer<LiveVideo> item; // the window's
    QString problem;
};

void tst_CameraWindow::init()
{
    if (VirtualCamera::all(false).size() != 1 || VirtualCamera::all(true).size() != 1)
        QSKIP("there is not one virtual camera of each flavour");
    camera = VirtualCamera::all(false).first();
    other = VirtualCamera::all(true).first();
    for (VirtualCamera *one : {&camera, &other})
        QVERIFY2(one->showBars("sRGB", "Default", "Default") && one->setFormat(2 * size, V4L2_PIX_FMT_YUYV) &&
                     one->setRate(10),
                 one->error().constData());
    window = std::make_unique<QQuickWindow>();
    item = new LiveVideo(window->contentItem());
    item->setSize(size);
    window->show();
}

void tst_CameraWindow::cleanup()
{
    window.reset();
}

bool tst_CameraWindow::waitForBars()
{
    const QDeadlineTimer deadline(limitMs);
    do {
        QTest::qWait(50);
        problem = item->framePath() == LiveVideo::EglImage
                      ? whereBarsDiffer(window->grabWindow(), size, tolerance)
                      : QStringLiteral("nothing is drawn: ") + item->framePathReason();
    } while (!problem.isEmpty() && !deadline.hasExpired());
    return problem.isEmpty();
}

void tst_CameraWindow::isItsOwnersWhileItIsShown()
{
    LiveSource source;
    QStringList told;
    connect(&source, &LiveSource::errorStringChanged, this, [&] {
        if (!source.errorString().isEmpty())
            told << source.errorString();
    });
    item->setSource(&source);
    source.setVideo(urlOf(camera));
    QVERIFY2(waitForBars(), qPrintable(problem + told.join(QLatin1Char(' '))));
    QVERIFY(!isFree(camera));

    window->hide();
    QTRY_VERIFY_WITH_TIMEOUT(isFree(camera), limitMs);
    window->show();
    QVERIFY2(waitForBars(), qPrintable(problem + told.join(QLatin1Char(' '))));

    window->hide();
    window->show(); // at once
    QVERIFY2(waitForBars(), qPrintable(problem + told.join(QLatin1Char(' '))));

    source.setVideo(urlOf(other));
    QTRY_VERIFY_WITH_TIMEOUT(isFree(camera), limitMs);
    QVERIFY2(waitForBars(), qPrintable(problem + told.join(QLatin1Char(' '))));
    // The same device by another name.
    source.setVideo(QUrl(QStringLiteral("v4l:") + QString::fromLatin1(other.device())));
    QTRY_VERIFY_WITH_TIMEOUT(source.state() != LiveSource::Live, limitMs);
    QVERIFY2(waitForBars(), qPrintable(problem + told.join(QLatin1Char(' '))));
    QTRY_COMPARE_WITH_TIMEOUT(source.state(), LiveSource::Live, limitMs);
    QCOMPARE(told, QStringList());
}

int main(int argc, char **argv)
{
    qputenv("QT_QPA_EGLFS_WIDTH", QByteArray::number(size.width()));
    qputenv("QT_QPA_EGLFS_HEIGHT", QByteArray::number(size.height()));
    QSurfaceFormat format = QSurfaceFormat::defaultFormat();
    format.setRenderableType(QSurfaceFormat::OpenGLES);
    QSurfaceFormat::setDefaultFormat(format);
    QGuiApplication application(argc, argv);
    tst_CameraWindow test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_camerawindow.moc"
