#include "camerafixture.h"

#include "opendescriptors.h"

#include <QtTest/QtTest>

#include <linux/videodev2.h>

using zevmm::v4l2::DmaEglCapture;

const QSize CameraFixture::size(320, 180);

const CameraFixture::Kind &CameraFixture::kind(int row)
{
    static const Kind all[kinds] = {
        {"single-planar NV12", false, V4L2_PIX_FMT_YUYV, V4L2_PIX_FMT_NV12},
        {"multi-planar NV12", true, V4L2_PIX_FMT_YUYV, V4L2_PIX_FMT_NV12},
        {"multi-planar, a descriptor each", true, V4L2_PIX_FMT_NV12M, V4L2_PIX_FMT_NV12M},
    };
    return all[row];
}

void CameraFixture::addRows()
{
    QTest::addColumn<int>("row");
    for (int row = 0; row < kinds; ++row)
        QTest::newRow(kind(row).name) << row;
}

CameraFixture::CameraFixture()
{
    if (VirtualCamera::all(false).size() != 1 || VirtualCamera::all(true).size() != 1)
        reason = "there is not one virtual camera of each flavour";
    else if (!renderer.isValid())
        reason = renderer.error().toUtf8();
    else
        egl = zevgl::EGLImageContext::currentContext();
}

CameraFixture::~CameraFixture()
{
    if (capture)
        end();
}

bool CameraFixture::useCamera(int row)
{
    if (capture)
        end();
    capture.reset();
    camera = VirtualCamera::all(kind(row).isMultiplanar).first();
    capture = std::make_unique<DmaEglCapture>(camera.device().toStdString());
    return camera.showBars("sRGB", "Default", "Default") && camera.setFormat(size, kind(row).present) &&
           camera.setRate(30);
}

void CameraFixture::begin()
{
    capture->setup();
    capture->createEGLImages(egl.display, egl.eglCreateImageKHR);
    capture->start();
}

void CameraFixture::end()
{
    capture->stop();
    capture->destroyEGLImages(egl.display, egl.eglDestroyImageKHR);
}

void *CameraFixture::next()
{
    void *image = nullptr;
    if (QTest::qWaitFor([this] { return capture->isFrameReady(); }, limitMs))
        capture->readFrame([&image](void *delivered) { image = delivered; });
    return image;
}

int CameraFixture::descriptorsLeft()
{
    return settledDescriptors([this] { renderer.drawNothing(); });
}
