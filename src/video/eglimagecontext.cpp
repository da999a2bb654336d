#include <zevqt-mm/eglimagecontext.h>

#include <shm/shm_reader.h>

#include <QtCore/QMap>
#include <QtCore/QVarLengthArray>

namespace zevgl {

namespace {

// Values of the EGL registry and of DRM. Written out because EGL is only looked up at run time:
// nothing here includes its headers.
enum : int {
    eglTrue = 1,
    eglNone = 0x3038,
    eglHeight = 0x3056,
    eglWidth = 0x3057,
    eglImagePreserved = 0x30D2,
    eglLinuxDmaBuf = 0x3270,
    eglLinuxDrmFourcc = 0x3271,
    eglDmaBufPlane0Fd = 0x3272,
    eglDmaBufPlane1Fd = 0x3275,
    eglDmaBufPlane2Fd = 0x3278,
    eglYuvColorSpaceHint = 0x327B,
    eglSampleRangeHint = 0x327C,
    eglItuRec709 = 0x3280,
    eglYuvFullRange = 0x3282,
    drmFormatYuv420 = 0x32315559, // "YU12"
    drmFormatNv12 = 0x3231564E,   // "NV12"
};

// Offset and pitch follow the descriptor's attribute. This scheme has no fourth plane: it takes the first's
// names, by intent.
constexpr int planeFd[] = {eglDmaBufPlane0Fd, eglDmaBufPlane1Fd, eglDmaBufPlane2Fd, eglDmaBufPlane0Fd};

int drmFourcc(QVideoFrame::PixelFormat format)
{
    static const QMap<QVideoFrame::PixelFormat, int> pixelFormatMap = {
        {QVideoFrame::Format_YUV420P, drmFormatYuv420},
        {QVideoFrame::Format_NV12, drmFormatNv12},
    };
    return pixelFormatMap.value(format, 0);
}

} // namespace

template <class FrameHolder>
void *EGLImageContext::createImage(FrameHolder &frame, int dmabufFd, QVideoFrame::PixelFormat format)
{
    QVarLengthArray<int, 32> attributes;
    const auto add = [&attributes](int attribute, int value) {
        attributes.append(attribute);
        attributes.append(value);
    };
    add(eglImagePreserved, eglTrue);
    add(eglWidth, frame->width);
    add(eglHeight, frame->height);
    add(eglLinuxDrmFourcc, drmFourcc(format));
    // Fixed: a renderer that knows better undoes this decoding and applies the stream's own.
    add(eglYuvColorSpaceHint, eglItuRec709);
    add(eglSampleRangeHint, eglYuvFullRange);

    for (int plane = 0; plane < 4 && frame->strides[plane] != 0; ++plane) {
        add(planeFd[plane], dmabufFd);
        add(planeFd[plane] + 1, static_cast<int>(frame->plane_offsets[plane]));
        add(planeFd[plane] + 2, frame->strides[plane]);
    }
    attributes.append(eglNone);
    return eglCreateImageKHR(display, nullptr, eglLinuxDmaBuf, nullptr, attributes.constData());
}

template void *EGLImageContext::createImage(
    std::unique_ptr<shm_video_frame_t, std::function<void(shm_video_frame_t *)>> &frame, int dmabufFd,
    QVideoFrame::PixelFormat format);

bool EGLImageContext::destroyImage(void *image)
{
    // NOLINTNEXTLINE(clang-analyzer-core.CallAndMessage): whoever has an image has had the function
    return eglDestroyImageKHR(display, image) != 0;
}

QString eglErrorString(int error)
{
    static const QMap<int, QString> messages = {
        {0x3000, QStringLiteral("No error")},
        {0x3001, QStringLiteral("EGL not initialized or failed to initialize")},
        {0x3002, QStringLiteral("Resource inaccessible")},
        {0x3003, QStringLiteral("Cannot allocate resources")},
        {0x3004, QStringLiteral("Unrecognized attribute or attribute value")},
        {0x3005, QStringLiteral("Invalid EGL frame buffer configuration")},
        {0x3006, QStringLiteral("Invalid EGL context")},
        {0x3007, QStringLiteral("Current surface is no longer valid")},
        {0x3008, QStringLiteral("Invalid EGL display")},
        {0x3009, QStringLiteral("Inconsistent arguments")},
        {0x300A, QStringLiteral("Invalid native pixmap")},
        {0x300B, QStringLiteral("Invalid native window")},
        {0x300C, QStringLiteral("Invalid argument")},
        {0x300D, QStringLiteral("Invalid surface")},
        {0x300E, QStringLiteral("Context lost")},
    };
    const auto message = messages.constFind(error);
    return message != messages.constEnd() ? *message
                                          : QStringLiteral("Unknown error ") + QString::number(error);
}

} // namespace zevgl
