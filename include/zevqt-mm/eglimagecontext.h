#ifndef ZEVQTMM_EGLIMAGECONTEXT_H
#define ZEVQTMM_EGLIMAGECONTEXT_H

#include <zevqt-mm/zevqtmmglobal.h>

#include <QtCore/QString>
#include <QtMultimedia/QVideoFrame>

#include <functional>
#include <memory>

/*! A locked frame: libshm's, of shm/shm_reader.h. */
typedef struct shm_video_frame shm_video_frame_t;

namespace zevgl {

/*!
 * The EGL display of the current OpenGL context, and the entry points that make and destroy images on it.
 *
 * Usage: take currentContext() where it is needed, check all four fields, use it at once.
 *
 * Threads: only valid on the thread whose context was current, while it stays current.
 *
 * Errors: all fields null when there is no current context, or it does not come from EGL; any entry point may
 * be null by itself. The operations do not check them: the caller does.
 */
struct ZEVQTMM_EXPORT EGLImageContext
{
    /*! Of eglCreateImageKHR. */
    using CreateImage = void *(*)(void *display, void *context, unsigned int target, void *buffer,
                                  const int *attribs);
    /*! Of eglDestroyImageKHR. */
    using DestroyImage = unsigned int (*)(void *display, void *image);
    /*! Of eglGetError. */
    using GetError = int (*)();

    void *display = nullptr;                   //!< EGL's; null for no context, or none of EGL
    CreateImage eglCreateImageKHR = nullptr;   //!< null where EGL does not have it
    DestroyImage eglDestroyImageKHR = nullptr; //!< likewise
    GetError eglGetError = nullptr;            //!< likewise

    /*! Of the calling thread, at this moment. */
    static EGLImageContext currentContext();

    /*!
     * An EGL image of the DMA-buf `dmabufFd` (borrowed; EGL takes its own reference) that holds the pixels of
     * `frame` (borrowed). Null on failure, with the reason in eglGetError(). Exists for the locked frame's
     * unique pointer only.
     */
    template <class FrameHolder>
    void *createImage(FrameHolder &frame, int dmabufFd, QVideoFrame::PixelFormat format);
    /*! False when EGL refuses. */
    bool destroyImage(void *image);
};

extern template ZEVQTMM_EXPORT void *EGLImageContext::createImage(
    std::unique_ptr<shm_video_frame_t, std::function<void(shm_video_frame_t *)>> &frame, int dmabufFd,
    QVideoFrame::PixelFormat format);

/*! A readable text for an EGL error code. */
ZEVQTMM_EXPORT QString eglErrorString(int error);

} // namespace zevgl

#endif
