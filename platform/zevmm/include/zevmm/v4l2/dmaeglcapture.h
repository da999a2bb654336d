#ifndef ZEVMM_V4L2_DMAEGLCAPTURE_H
#define ZEVMM_V4L2_DMAEGLCAPTURE_H

#include <zevmm/v4l2/capturebase.h>

#include <functional>
#include <string>

namespace zevmm {
namespace v4l2 {

/*
 * Shows a camera's buffers to the GPU: every buffer of the driver is exported as a DMA-buf once and wrapped
 * as an EGL image, and whoever draws gets the image of the newest frame. No pixel is copied or mapped.
 *
 * Usage:
 *
 *     DmaEglCapture capture("/dev/video0");
 *     capture.setup();                                  // any thread; throws when the device is no use
 *     capture.createEGLImages(display, createImage);    // the thread that draws
 *     capture.start();
 *     ...
 *     if (capture.isFrameReady())                       // any thread, at any rate
 *         capture.readFrame([](void *image) { ... });
 *     ...
 *     capture.stop();                                   // the thread that draws, before its context goes
 *     capture.destroyEGLImages(display, destroyImage);
 *
 * Frames: a thread of the capture's own takes frames from the driver as they come and keeps the newest; what
 * it replaces goes back to the driver at once. A delivered image is only lent, so its buffer goes back to the
 * driver when two newer ones have been delivered, and at stop():
 *
 *     delivered   A     B     C     D              while C is shown, nobody writes into B or C
 *     -------------------------------------->
 *     to driver               A     B              (after the callback for C, for D)
 *
 * Trouble: a device that delivers nothing for a second (or five of its frame intervals) is made to stream
 * anew, ever less often up to every eight seconds; one that is gone is looked for twice a second and opened
 * again when it is back. Meanwhile isFrameReady() is false and trouble() says why. Images of a device
 * that has gone are kept until destroyEGLImages(), since they may be on the screen; when they hold more than
 * 256 MiB, capture does not go on before destroyEGLImages() and start().
 *
 * Threads: thread-safe, in that any two operations may run at once; setup(), createEGLImages(), start(),
 * stop() and destroyEGLImages() wait for each other. readFrame() is for one thread at a time. Ownership: the
 * capture owns the images until destroyEGLImages(); the destructor releases the device and cannot destroy
 * images. Cost: isFrameReady() and readFrame() never call the driver nor wait for it (one EGL call for each
 * new buffer after a device came back); setup(), start() and stop() do.
 */
class ZEVMM_EXPORT DmaEglCapture : public CaptureBase
{
public:
    /* The types of eglCreateImageKHR and eglDestroyImageKHR; null images and EGL_FALSE are their failures. */
    using CreateImage = void *(*)(void *display, void *context, unsigned int target, void *buffer,
                                  const int *attributes);
    /* Of eglDestroyImageKHR. */
    using DestroyImage = unsigned int (*)(void *display, void *image);

    /* Opens nothing yet. `device` is a path, in the file system's encoding. */
    explicit DmaEglCapture(const std::string &device);
    ~DmaEglCapture() override;

    /*
     * Opens the device, asks it for NV12 at its present size, takes buffers and exports each of them. A
     * second call does nothing. Throws std::system_error whose code is the errno and whose text names device,
     * request and remedy: no such device, no permission, not a capture device, busy, no NV12, no DMA-bufs.
     * Nothing stays open then, and it may be called again.
     */
    void setup();

    /*
     * Wraps every buffer that has no image yet. Throws std::runtime_error when EGL refuses one (those made
     * until then are kept for destroyEGLImages()), std::logic_error before setup(). `display` and `create`
     * are kept, for the buffers of a device that comes back, until destroyEGLImages().
     */
    void createEGLImages(void *display, CreateImage create);

    /*
     * Starts streaming; does nothing while it streams. Throws std::system_error when the driver refuses, and
     * std::logic_error before createEGLImages(). A device that has gone since setup() is no error: it is
     * waited for.
     */
    void start();

    /* Whether a frame waits that readFrame() has not delivered yet. */
    bool isFrameReady() const;

    /*
     * Hands the image of the newest frame to `callback`, in this thread, before it returns; does not call it
     * when none is ready. No lock is held meanwhile. What `callback` throws is passed on.
     */
    void readFrame(std::function<void(void *)> callback);

    /* Stops streaming and takes every delivered buffer back. Never throws; harmless when it does not stream.
     */
    void stop();

    /*
     * Destroys all images made so far. Stops first when it streams. Waits for a callback of readFrame() that
     * is under way in another thread, but no longer than two seconds.
     */
    void destroyEGLImages(void *display, DestroyImage destroy);
};

} // namespace v4l2
} // namespace zevmm

#endif
