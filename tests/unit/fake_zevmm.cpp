#include "fake_zevmm.h"

#include <zevmm/v4l2/dmaeglcapture.h>

#include <QtCore/QMutexLocker>

#include <cerrno>
#include <stdexcept>
#include <system_error>

namespace {

FakeZevmm &fake()
{
    return FakeZevmm::instance();
}

void note(const char *operation, const QString &more = QString())
{
    fake().record(QLatin1String(operation) + more);
    if (fake().failing.contains(QLatin1String(operation)))
        throw std::runtime_error(operation);
}

QString text(const void *pointer)
{
    return QStringLiteral(" %1").arg(quintptr(pointer), 0, 16);
}

} // namespace

FakeZevmm &FakeZevmm::instance()
{
    static FakeZevmm library;
    return library;
}

void FakeZevmm::reset()
{
    failing.clear();
    format = {};
    format.width = 64;
    format.height = 36;
    images.clear();
    isExclusive = false;
    lateFrame = false;
    trouble.clear();
    statistics = {};
    alive = 0;
    takeCalls();
}

QStringList FakeZevmm::takeCalls()
{
    const QMutexLocker lock(&mutex);
    QStringList result;
    result.swap(calls);
    return result;
}

void FakeZevmm::record(const QString &call)
{
    const QMutexLocker lock(&mutex);
    calls.append(call);
}

void FakeZevmm::offer(void *image)
{
    const QMutexLocker lock(&mutex);
    images.append(image);
}

void *FakeZevmm::take()
{
    const QMutexLocker lock(&mutex);
    return images.isEmpty() ? nullptr : images.takeFirst();
}

bool FakeZevmm::hasImage()
{
    const QMutexLocker lock(&mutex);
    return !images.isEmpty();
}

void FakeZevmm::setTrouble(const std::string &text)
{
    const QMutexLocker lock(&mutex);
    trouble = text;
}

std::string FakeZevmm::currentTrouble()
{
    const QMutexLocker lock(&mutex);
    return trouble;
}

namespace zevmm {
namespace v4l2 {

class Capture
{
public:
    explicit Capture(const std::string &path) : device(path) { ++fake().alive; }
    ~Capture()
    {
        --fake().alive;
        fake().record(QStringLiteral("delete"));
    }

    const std::string device;
};

CaptureBase::CaptureBase(std::unique_ptr<Capture> implementation) : capture(std::move(implementation)) {}

CaptureBase::~CaptureBase() = default;

std::string CaptureBase::device() const
{
    return capture->device;
}

CaptureFormat CaptureBase::format() const
{
    return fake().format;
}

CaptureStatistics CaptureBase::statistics() const
{
    return fake().statistics;
}

std::string CaptureBase::trouble() const
{
    return fake().currentTrouble();
}

DmaEglCapture::DmaEglCapture(const std::string &device) : CaptureBase(std::make_unique<Capture>(device))
{
    note("new", QLatin1Char(' ') + QString::fromStdString(device));
}

DmaEglCapture::~DmaEglCapture() = default;

void DmaEglCapture::setup()
{
    note("setup");
    if (fake().isExclusive && fake().alive > 1)
        throw std::system_error(EBUSY, std::generic_category(), device());
}

void DmaEglCapture::createEGLImages(void *display, CreateImage create)
{
    note("createEGLImages", text(display) + text(reinterpret_cast<void *>(create)));
}

void DmaEglCapture::start()
{
    note("start");
}

bool DmaEglCapture::isFrameReady() const
{
    note("isFrameReady");
    return !fake().lateFrame && fake().hasImage();
}

void DmaEglCapture::readFrame(std::function<void(void *)> callback)
{
    note("readFrame");
    if (void *image = fake().take())
        callback(image);
}

void DmaEglCapture::stop()
{
    note("stop");
}

void DmaEglCapture::destroyEGLImages(void *display, DestroyImage destroy)
{
    note("destroyEGLImages", text(display) + text(reinterpret_cast<void *>(destroy)));
}

} // namespace v4l2
} // namespace zevmm
