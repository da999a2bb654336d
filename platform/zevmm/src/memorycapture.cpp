#include <zevmm/v4l2/memorycapture.h>

#include "memorystream.h"

namespace zevmm {
namespace v4l2 {

FrameTaker::~FrameTaker() = default;

MemoryCapture::MemoryCapture(const std::string &device)
    : stream(std::make_unique<MemoryStream>(device, kernelSystem()))
{}

MemoryCapture::~MemoryCapture() = default;

std::string MemoryCapture::device() const
{
    return stream->device();
}

CaptureFormat MemoryCapture::format() const
{
    return stream->format();
}

CaptureStatistics MemoryCapture::statistics() const
{
    return stream->statistics();
}

std::string MemoryCapture::trouble() const
{
    return stream->trouble();
}

void MemoryCapture::setup()
{
    stream->setup();
}

unsigned int MemoryCapture::queueLength() const
{
    return stream->queueLength();
}

bool MemoryCapture::start(MemoryWay way, const FrameLayout &layout, FrameTaker &taker, std::string *why)
{
    return stream->start(way, layout, taker, why);
}

MemoryCapture::Change MemoryCapture::run(int timeoutMs, int wakeDescriptor)
{
    return stream->run(timeoutMs, wakeDescriptor);
}

void MemoryCapture::stop()
{
    stream->stop();
}

} // namespace v4l2
} // namespace zevmm
