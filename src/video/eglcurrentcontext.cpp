#include <zevqt-mm/eglimagecontext.h>

#include <QtCore/QVariant>
#include <QtGui/QOpenGLContext>

// QEGLNativeContext needs EGL's types only. Without this, EGL's header brings X11 and its macros.
#define EGL_NO_X11
#include <EGL/egl.h>
#include <QtPlatformHeaders/QEGLNativeContext>

namespace zevgl {

EGLImageContext EGLImageContext::currentContext()
{
    QOpenGLContext *context = QOpenGLContext::currentContext();
    if (!context)
        return {};
    // A context that does not come from EGL (GLX) gives a native handle of another type: an empty value here.
    const auto native = context->nativeHandle().value<QEGLNativeContext>();
    if (!native.display())
        return {};

    EGLImageContext result;
    result.display = native.display();
    result.eglCreateImageKHR = reinterpret_cast<CreateImage>(context->getProcAddress("eglCreateImageKHR"));
    result.eglDestroyImageKHR = reinterpret_cast<DestroyImage>(context->getProcAddress("eglDestroyImageKHR"));
    result.eglGetError = reinterpret_cast<GetError>(context->getProcAddress("eglGetError"));
    return result;
}

} // namespace zevgl
