// EGL images over the buffers of one opening of the device.
#ifndef ZEVMM_EGLIMAGES_H
#define ZEVMM_EGLIMAGES_H

#include "device.h"

#include <zevmm/v4l2/dmaeglcapture.h>

#include <cstdint>
#include <vector>

namespace zevmm {
namespace v4l2 {

// The attributes of eglCreateImageKHR for a buffer, up to and with EGL_NONE.
std::vector<int> imageAttributes(const Negotiated &negotiated, const ExportedBuffer &buffer);

// Threads: the caller's lock. Ownership: owns the exported buffers; images are only destroyed by destroy(),
// since that needs a display.
class EglImages
{
public:
    EglImages(const Negotiated &negotiated, std::vector<ExportedBuffer> exportedBuffers);

    unsigned int count() const { return static_cast<unsigned int>(buffers.size()); }
    const Negotiated &negotiated() const { return format; }
    // The image of a buffer, made when there is none yet. Null when EGL refuses.
    void *image(unsigned int index, void *display, DmaEglCapture::CreateImage create);
    // Bytes of the buffers that have an image, and so of the memory that images keep.
    std::uint64_t imageBytes() const;
    void destroy(void *display, DmaEglCapture::DestroyImage destroyImage);
    // Closes the descriptors; the images keep the memory.
    void releaseBuffers();

private:
    const Negotiated format;
    std::vector<ExportedBuffer> buffers;
    std::vector<void *> images; // by index, null where there is none
};

} // namespace v4l2
} // namespace zevmm

#endif
