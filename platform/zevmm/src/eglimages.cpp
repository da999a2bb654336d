#include "eglimages.h"

#include <utility>

namespace zevmm {
namespace v4l2 {

namespace {

// Values of the EGL registry and of DRM. Written out because EGL is only handed in at run time: the headers
// need not be there to build.
enum : int {
    eglTrue = 1,
    eglNone = 0x3038,
    eglHeight = 0x3056,
    eglWidth = 0x3057,
    eglImagePreserved = 0x30D2,
    eglLinuxDmaBuf = 0x3270,
    eglLinuxDrmFourcc = 0x3271,
    eglDmaBufPlane0Fd = 0x3272, // offset and pitch follow each
    eglDmaBufPlane1Fd = 0x3275,
    eglYuvColorSpaceHint = 0x327B,
    eglSampleRangeHint = 0x327C,
    eglItuRec601 = 0x327F,
    eglItuRec709 = 0x3280,
    eglItuRec2020 = 0x3281,
    eglYuvFullRange = 0x3282,
    eglYuvNarrowRange = 0x3283,
    drmFormatNv12 = 0x3231564E, // "NV12", with one descriptor or two
};

int colorHint(ColorEncoding encoding)
{
    switch (encoding) {
    case ColorEncoding::Bt709:
        return eglItuRec709;
    case ColorEncoding::Bt2020:
        return eglItuRec2020;
    case ColorEncoding::Bt601:
        break;
    }
    return eglItuRec601;
}

} // namespace

std::vector<int> imageAttributes(const Negotiated &negotiated, const ExportedBuffer &buffer)
{
    const CaptureFormat &format = negotiated.format;
    std::vector<int> attributes = {eglImagePreserved,
                                   eglTrue,
                                   eglWidth,
                                   static_cast<int>(format.width),
                                   eglHeight,
                                   static_cast<int>(format.height),
                                   eglLinuxDrmFourcc,
                                   drmFormatNv12,
                                   eglYuvColorSpaceHint,
                                   colorHint(format.encoding),
                                   eglSampleRangeHint,
                                   format.fullRange ? eglYuvFullRange : eglYuvNarrowRange};
    const int names[2] = {eglDmaBufPlane0Fd, eglDmaBufPlane1Fd};
    const std::uint32_t strides[2] = {format.strideBytes, format.chromaStrideBytes};
    for (unsigned int plane = 0; plane < 2; ++plane) {
        const Plane &place = negotiated.planes[plane];
        attributes.insert(attributes.end(), {names[plane], buffer.dmabufs[place.memory].get(),
                                             names[plane] + 1, static_cast<int>(place.offset),
                                             names[plane] + 2, static_cast<int>(strides[plane])});
    }
    attributes.push_back(eglNone);
    return attributes;
}

EglImages::EglImages(const Negotiated &negotiated, std::vector<ExportedBuffer> exportedBuffers)
    : format(negotiated), buffers(std::move(exportedBuffers)), images(buffers.size(), nullptr)
{}

void *EglImages::image(unsigned int index, void *display, DmaEglCapture::CreateImage create)
{
    if (images[index] == nullptr && display != nullptr)
        images[index] =
            create(display, nullptr, eglLinuxDmaBuf, nullptr, imageAttributes(format, buffers[index]).data());
    return images[index];
}

std::uint64_t EglImages::imageBytes() const
{
    std::uint64_t sum = 0;
    for (unsigned int index = 0; index < images.size(); ++index) {
        if (images[index] != nullptr)
            sum += buffers[index].bytes[0] + buffers[index].bytes[1];
    }
    return sum;
}

void EglImages::destroy(void *display, DmaEglCapture::DestroyImage destroyImage)
{
    // An image that EGL does not know (any more) is gone all the same; to ask again would not help.
    for (void *&image : images) {
        if (image != nullptr)
            destroyImage(display, std::exchange(image, nullptr));
    }
}

void EglImages::releaseBuffers()
{
    for (ExportedBuffer &buffer : buffers) {
        for (Descriptor &dmabuf : buffer.dmabufs)
            dmabuf.reset();
    }
}

} // namespace v4l2
} // namespace zevmm
