#include "capture.h"

#include <zevmm/v4l2/capturebase.h>

#include <utility>

namespace zevmm {
namespace v4l2 {

CaptureBase::CaptureBase(std::unique_ptr<Capture> implementation) : capture(std::move(implementation)) {}

CaptureBase::~CaptureBase() = default;

std::string CaptureBase::device() const
{
    return capture->stream().device();
}

CaptureFormat CaptureBase::format() const
{
    return capture->stream().format();
}

CaptureStatistics CaptureBase::statistics() const
{
    return capture->stream().statistics();
}

std::string CaptureBase::trouble() const
{
    return capture->stream().trouble();
}

} // namespace v4l2
} // namespace zevmm
