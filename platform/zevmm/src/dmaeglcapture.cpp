#include "capture.h"

#include <zevmm/v4l2/dmaeglcapture.h>

#include <memory>

namespace zevmm {
namespace v4l2 {

DmaEglCapture::DmaEglCapture(const std::string &device) : CaptureBase(std::make_unique<Capture>(device)) {}

DmaEglCapture::~DmaEglCapture() = default;

void DmaEglCapture::setup()
{
    capture->setup();
}

void DmaEglCapture::createEGLImages(void *display, CreateImage create)
{
    capture->createImages(display, create);
}

void DmaEglCapture::start()
{
    capture->start();
}

bool DmaEglCapture::isFrameReady() const
{
    return capture->stream().isFrameReady();
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): part of the interface
void DmaEglCapture::readFrame(std::function<void(void *)> callback)
{
    capture->readFrame(callback);
}

void DmaEglCapture::stop()
{
    capture->stop();
}

void DmaEglCapture::destroyEGLImages(void *display, DestroyImage destroy)
{
    capture->destroyImages(display, destroy);
}

} // namespace v4l2
} // namespace zevmm
