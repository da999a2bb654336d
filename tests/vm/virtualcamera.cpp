#include "virtualcamera.h"

#include <QtCore/QDir>

#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

QList<VirtualCamera> VirtualCamera::all(bool isMultiplanar)
{
    QList<VirtualCamera> cameras;
    for (int number = 0; number < 64; ++number) {
        VirtualCamera camera;
        camera.path = "/dev/video" + QByteArray::number(number);
        v4l2_capability capability = {};
        if (!QFile::exists(QString::fromLatin1(camera.path)) ||
            !camera.request(VIDIOC_QUERYCAP, &capability, "VIDIOC_QUERYCAP"))
            continue;
        const bool isVivid = std::strcmp(reinterpret_cast<const char *>(capability.driver), "vivid") == 0;
        const std::uint32_t flavour = isMultiplanar ? V4L2_CAP_VIDEO_CAPTURE_MPLANE : V4L2_CAP_VIDEO_CAPTURE;
        camera.multiplanar = isMultiplanar;
        if (isVivid && (capability.device_caps & flavour) != 0)
            cameras.append(camera);
    }
    return cameras;
}

bool VirtualCamera::request(unsigned long number, void *argument, const char *what)
{
    const int fd = ::open(path.constData(), O_RDWR | O_CLOEXEC | O_NONBLOCK);
    const bool isDone = fd >= 0 && ::ioctl(fd, number, argument) == 0;
    if (!isDone && failure.isEmpty())
        failure = path + ": " + what + ": " + QByteArray(strerror(errno));
    if (fd >= 0)
        ::close(fd);
    return isDone;
}

bool VirtualCamera::set(const char *control, int value)
{
    v4l2_queryctrl query = {};
    while (true) {
        query.id |= V4L2_CTRL_FLAG_NEXT_CTRL;
        if (!request(VIDIOC_QUERYCTRL, &query, control))
            return false;
        if (std::strcmp(reinterpret_cast<const char *>(query.name), control) == 0)
            break;
    }
    v4l2_control setting = {query.id, value};
    return request(VIDIOC_S_CTRL, &setting, control);
}

bool VirtualCamera::set(const char *control, const char *menuEntry)
{
    v4l2_queryctrl query = {};
    do {
        query.id |= V4L2_CTRL_FLAG_NEXT_CTRL;
        if (!request(VIDIOC_QUERYCTRL, &query, control))
            return false;
    } while (std::strcmp(reinterpret_cast<const char *>(query.name), control) != 0);
    for (int index = query.minimum; index <= query.maximum; ++index) {
        v4l2_querymenu menu = {};
        menu.id = query.id;
        menu.index = static_cast<std::uint32_t>(index);
        const QByteArray before = failure;
        const bool isThere = request(VIDIOC_QUERYMENU, &menu, control); // there are gaps
        failure = before;
        if (isThere && std::strcmp(reinterpret_cast<const char *>(menu.name), menuEntry) == 0)
            return set(control, index);
    }
    failure = path + ": " + control + " has no entry " + menuEntry;
    return false;
}

bool VirtualCamera::setFormat(const QSize &size, std::uint32_t pixelFormat)
{
    v4l2_format format = {};
    format.type = multiplanar ? V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE : V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (!request(VIDIOC_G_FMT, &format, "VIDIOC_G_FMT"))
        return false;
    // The three that are looked at lie at the same place in either flavour.
    format.fmt.pix.width = static_cast<std::uint32_t>(size.width());
    format.fmt.pix.height = static_cast<std::uint32_t>(size.height());
    format.fmt.pix.pixelformat = pixelFormat;
    if (multiplanar)
        std::memset(format.fmt.pix_mp.plane_fmt, 0, sizeof format.fmt.pix_mp.plane_fmt);
    else
        format.fmt.pix.bytesperline = format.fmt.pix.sizeimage = 0;
    if (!request(VIDIOC_S_FMT, &format, "VIDIOC_S_FMT"))
        return false;
    const bool isSet = format.fmt.pix.width == static_cast<std::uint32_t>(size.width()) &&
                       format.fmt.pix.height == static_cast<std::uint32_t>(size.height()) &&
                       format.fmt.pix.pixelformat == pixelFormat;
    if (!isSet)
        failure = path + ": the driver makes another format of the one asked for";
    return isSet;
}

bool VirtualCamera::setRate(unsigned int framesPerSecond)
{
    v4l2_streamparm parameters = {};
    parameters.type = multiplanar ? V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE : V4L2_BUF_TYPE_VIDEO_CAPTURE;
    parameters.parm.capture.timeperframe = {1, framesPerSecond};
    return request(VIDIOC_S_PARM, &parameters, "VIDIOC_S_PARM");
}

bool VirtualCamera::showBars(const char *colorspace, const char *encoding, const char *range)
{
    return set("Test Pattern", "100% Colorbar") && set("OSD Text Mode", "None") &&
           set("Horizontal Movement", "No Movement") && set("Colorspace", colorspace) &&
           set("Y'CbCr Encoding", encoding) && set("Quantization", range);
}
