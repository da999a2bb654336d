#include "scenegraph_testing.h"

#include "xvfbserver.h"

#include <zevqt-mm/eglimagecontext.h>

#include <gtest/gtest.h>

#include <QDeadlineTimer>
#include <QGuiApplication>
#include <QOpenGLContext>

#include <cstdio>
#include <stdexcept>

namespace {

bool isOpenGlWanted = false;

} // namespace

bool withOpenGl()
{
    return isOpenGlWanted;
}

bool waitUntil(const std::function<bool()> &condition)
{
    const QDeadlineTimer deadline(30000);
    while (!condition()) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents, 20);
    }
    return true;
}

std::unique_ptr<QQuickWindow> makeWindow()
{
    auto result = std::make_unique<QQuickWindow>();
    result->setColor(Qt::black);
    result->resize(200, 100);
    result->show();
    waitUntil([&] { return result->isExposed(); });
    return result;
}

int runOnDisplay(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    isOpenGlWanted = argc > 1 && qstrcmp(argv[1], "--opengl") == 0;
    // Also for the software scene graph: windows of the offscreen platform cannot be grabbed.
    const XvfbServer server;
    if (server.display().isEmpty()) {
        std::puts("skipped: Xvfb did not start");
        return 77;
    }
    qputenv("DISPLAY", server.display());
    qputenv("QT_QPA_PLATFORM", "xcb");
    if (isOpenGlWanted)
        qunsetenv("QT_QUICK_BACKEND");
    else
        qputenv("QT_QUICK_BACKEND", "software");
    const QGuiApplication application(argc, argv);
    return RUN_ALL_TESTS();
}

void HookedSource::doBeforeGLSynchronizing()
{
    ++before;
    hadContextBefore = QOpenGLContext::currentContext() != nullptr;
    if (isThrowing)
        throw std::runtime_error("no usable display");
    if (needsEgl && !zevgl::EGLImageContext::currentContext().display)
        throw std::runtime_error("no EGL here");
}

void HookedSource::releaseGLResources()
{
    ++released;
    hadContextAtRelease = QOpenGLContext::currentContext() != nullptr;
    if (isThrowing)
        throw std::runtime_error("no usable display to release on");
}
