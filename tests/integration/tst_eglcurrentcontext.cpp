// EGLImageContext on real drivers: with the argument "egl" on a context made through EGL, with "glx" on one
// that is not. Uses the display there is, else starts Xvfb; without either, or without a driver, it is
// skipped.
#include <zevqt-mm/eglimagecontext.h>
#include <zevqt-mm/shmemdmavideobuffer.h>

#include <shm/shm_reader.h>

#include <QtCore/QProcess>
#include <QtGui/QGuiApplication>
#include <QtGui/QOffscreenSurface>
#include <QtGui/QOpenGLContext>
#include <QtTest/QtTest>

#include <cstdio>

#include <sys/mman.h>
#include <unistd.h>

namespace {

const int skipped = 77;
bool isEgl = true;
bool hasDriver = true;

} // namespace

class tst_EGLCurrentContext : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void contextFieldsAreThere();
    void ordinaryMemoryIsNoImage();
    void withoutACurrentContextEverythingIsNull();

private:
    QOffscreenSurface surface;
    QOpenGLContext context;
};

void tst_EGLCurrentContext::initTestCase()
{
    surface.create();
    hasDriver = context.create() && context.makeCurrent(&surface);
    if (!hasDriver)
        QSKIP("no OpenGL driver");
}

void tst_EGLCurrentContext::cleanupTestCase()
{
    context.doneCurrent();
}

void tst_EGLCurrentContext::contextFieldsAreThere()
{
    const auto current = zevgl::EGLImageContext::currentContext();
    QCOMPARE(current.display != nullptr, isEgl);
    QCOMPARE(current.eglCreateImageKHR != nullptr, isEgl);
    QCOMPARE(current.eglDestroyImageKHR != nullptr, isEgl);
    QCOMPARE(current.eglGetError != nullptr, isEgl);
    if (isEgl)
        QCOMPARE(current.eglGetError(), 0x3000);
}

// A memfd is no DMA-buf: the driver refuses, and the message carries its reason.
void tst_EGLCurrentContext::ordinaryMemoryIsNoImage()
{
    const int fd = memfd_create("frame", MFD_CLOEXEC);
    QVERIFY(fd >= 0 && ftruncate(fd, 1 << 16) == 0);
    std::unique_ptr<shm_video_frame_t, std::function<void(shm_video_frame_t *)>> frame(
        new shm_video_frame_t(), [](shm_video_frame_t *record) { delete record; });
    frame->width = 64;
    frame->height = 64;
    frame->strides[0] = 256;
    frame->strides[1] = 256;
    frame->plane_offsets[1] = 256 * 64;
    {
        ShmemDmaVideoBuffer buffer(SHM_PIXEL_FORMAT_NV12, fd, frame);
        if (isEgl)
            QTest::ignoreMessage(QtCriticalMsg, QRegularExpression(QStringLiteral(
                                                    "^eglCreateImageKHR failed: \"[A-Z][A-Za-z ]+\"$")));
        QVERIFY(!buffer.createHandle()); // in silence where the context does not come from EGL
        QVERIFY(!buffer.handle().value<void *>());
    }
    close(fd);
}

void tst_EGLCurrentContext::withoutACurrentContextEverythingIsNull()
{
    context.doneCurrent();
    const auto current = zevgl::EGLImageContext::currentContext();
    QVERIFY(!current.display && !current.eglCreateImageKHR && !current.eglDestroyImageKHR &&
            !current.eglGetError);
    QVERIFY(context.makeCurrent(&surface));
}

int main(int argc, char **argv)
{
    isEgl = argc < 2 || qstrcmp(argv[1], "glx") != 0;
    argc = 1;
    qputenv("QT_QPA_PLATFORM", "xcb");
    qputenv("QT_XCB_GL_INTEGRATION", isEgl ? "xcb_egl" : "xcb_glx");

    QProcess server;
    if (qEnvironmentVariableIsEmpty("DISPLAY")) {
        server.setProcessChannelMode(QProcess::SeparateChannels);
        server.start(QStringLiteral("Xvfb"), {QStringLiteral("-displayfd"), QStringLiteral("1"),
                                              QStringLiteral("-nolisten"), QStringLiteral("tcp")});
        if (!server.waitForStarted() || !server.waitForReadyRead(30000)) {
            std::puts("SKIP: no display, and Xvfb could not be started");
            return skipped;
        }
        qputenv("DISPLAY", ":" + server.readLine().trimmed());
    }
    int result;
    {
        QGuiApplication application(argc, argv);
        tst_EGLCurrentContext test;
        result = QTest::qExec(&test, argc, argv);
    }
    server.terminate();
    server.waitForFinished();
    return result == 0 && !hasDriver ? skipped : result; // Qt calls it passed when everything is skipped
}

#include "tst_eglcurrentcontext.moc"
