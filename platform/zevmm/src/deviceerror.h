// What setup() and start() throw: an errno, and one line that names device, request and remedy.
#ifndef ZEVMM_DEVICEERROR_H
#define ZEVMM_DEVICEERROR_H

#include <string>
#include <system_error>

namespace zevmm {
namespace v4l2 {

// std::system_error puts the errno's text at the end; here it stands before the remedy.
class DeviceError : public std::system_error
{
public:
    // "DEVICE: WHAT: REMEDY", where `what` is told as it is.
    DeviceError(int error, const std::string &device, const std::string &what, const std::string &remedy);
    // "DEVICE: REQUEST failed: TEXT OF THE ERRNO; REMEDY"
    static DeviceError ofRequest(int error, const std::string &device, const std::string &request,
                                 const std::string &remedy);

    const char *what() const noexcept override { return text.c_str(); }
    // WHAT alone.
    const std::string &reason() const { return cause; }

private:
    std::string cause;
    std::string text;
};

// What can be done about a request that failed with this errno.
std::string remedyFor(int error, const std::string &device);
// What can be done about a camera whose buffers cannot be shown as they are.
std::string throughAStore(const std::string &device, bool isMultiplanar); // and offers no NV12
// Whether this errno says that the device is no longer there.
bool isGone(int error);
std::string errorText(int error);

} // namespace v4l2
} // namespace zevmm

#endif
