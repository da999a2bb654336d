#ifndef ZEV_TESTS_SCENEGRAPH_TESTING_H
#define ZEV_TESTS_SCENEGRAPH_TESTING_H

#include <zevqt-mm/mediasourcebase.h>

#include <QQuickWindow>

#include <atomic>
#include <functional>
#include <memory>

/*! Whether the program was told to use OpenGL instead of the software scene graph. */
bool withOpenGl();

/*! Handles events until the condition holds; false when it does not within a generous time. */
bool waitUntil(const std::function<bool()> &condition);

/*! A black window of 200 x 100 that is exposed. */
std::unique_ptr<QQuickWindow> makeWindow();

/*!
 * Runs all tests on a virtual display of its own, with the software scene graph or, after --opengl, with
 * OpenGL; returns the program's exit code, 77 when there is no display to be had.
 */
int runOnDisplay(int argc, char **argv);

/*!
 * A source without frames that counts the calls of its hooks and throws when told to.
 *
 * Threads: the hooks run in the render thread, the counters are read and set in any.
 */
class HookedSource : public MediaSourceBase
{
public:
    bool open() override { return true; }
    QString name() const override { return QStringLiteral("hooked"); }
    void setRealtimeSyncRange(int, int) override {}
    VideoStatus getVideoStatus() override { return {}; }
    QSize getVideoFrameSize() override { return {-1, -1}; }
    void setVideoFrameRate(unsigned int, unsigned int) override {}
    void setVideoFrameRate(double) override {}
    void setRequestedImageFormat(const QSize &, QImage::Format, bool, bool) override {}
    void doBeforeGLSynchronizing() override;
    void doAfterGLSynchronizing() override { ++after; }
    void releaseGLResources() override;
    void requestVideo(long long) override {}
    void requestImage(long long) override {}
    void requestAudio(long long) override {}
    void requestVideoAudio(long long) override {}
    void requestImageAudio(long long) override {}

    std::atomic<int> before{0}, after{0}, released{0};
    std::atomic<bool> hadContextBefore{false}, hadContextAtRelease{false};
    std::atomic<bool> isThrowing{false}, needsEgl{false};
};

#endif
