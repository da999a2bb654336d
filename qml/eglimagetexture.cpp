#include "eglimagetexture.h"

#include <zevqt-mm/eglimagecontext.h>
#include <zevqt-mm/shmemdmavideobuffer.h>
#include <zevqt-mm/storeframe.h>

#include <QMutex>
#include <QMutexLocker>
#include <QOpenGLContext>
#include <QOpenGLFunctions>

#include <atomic>
#include <utility>
#include <vector>

namespace zevqml {

namespace {

const GLenum textureExternal = 0x8D65; // GL_TEXTURE_EXTERNAL_OES

using TargetTexture = void (*)(GLenum target, void *image);

TargetTexture targetTexture(QOpenGLContext *context)
{
    return reinterpret_cast<TargetTexture>(context->getProcAddress("glEGLImageTargetTexture2DOES"));
}

// What GL said last of an image that it did not take: told once, not with every frame.
std::atomic<GLenum> toldError{GL_NO_ERROR};

const char *errorName(GLenum error)
{
    switch (error) {
    case GL_INVALID_ENUM:
        return "GL_INVALID_ENUM: it has no such textures";
    case GL_INVALID_VALUE:
        return "GL_INVALID_VALUE: this is no image to it";
    case GL_INVALID_OPERATION:
        return "GL_INVALID_OPERATION: it cannot draw from memory of this format or layout";
    case GL_OUT_OF_MEMORY:
        return "GL_OUT_OF_MEMORY";
    case 0x0507: // GL_CONTEXT_LOST
        return "GL_CONTEXT_LOST";
    default:
        return "an error of no list";
    }
}

// Two windows may show the same frame, each in its own render thread; the image is the frame's.
QMutex &imageMutex()
{
    static QMutex mutex;
    return mutex;
}

// A frame whose image EGL did not destroy: whoever dropped the last copy of it would destroy the image, and
// that may be a thread without a context.
struct Undestroyed
{
    void *display;
    QVideoFrame frame;
};

// By imageMutex(). Never destroyed: nobody has a context when the program ends.
std::vector<Undestroyed> &undestroyed()
{
    static auto *const all = new std::vector<Undestroyed>;
    return *all;
}

// Tries again for those of this display. Frames that are free go to `freed`. False when some are left: what
// is imported now would only be added to them.
bool destroyRemaining(void *display, std::vector<QVideoFrame> *freed)
{
    bool isDone = true;
    std::vector<Undestroyed> &all = undestroyed();
    for (auto entry = all.begin(); entry != all.end();) {
        ShmemDmaVideoBuffer *const buffer = StoreFrame::of(entry->frame).dmaBuffer;
        if (entry->display == display)
            buffer->destroyHandle();
        if (!buffer->handle().value<void *>()) {
            freed->push_back(entry->frame);
            entry = all.erase(entry);
            continue;
        }
        isDone = isDone && entry->display != display;
        ++entry;
    }
    return isDone;
}

} // namespace

void ShownFrame::set(const QVideoFrame &frame)
{
    QVideoFrame next = frame;
    const QMutexLocker lock(&m_mutex);
    std::swap(m_frame, next);
}

bool ShownFrame::drop()
{
    QVideoFrame dropped;
    const QMutexLocker lock(&m_mutex);
    {
        // Another window may be making and destroying its image just now.
        const QMutexLocker imageLock(&imageMutex());
        const ShmemDmaVideoBuffer *buffer = StoreFrame::of(m_frame).dmaBuffer;
        if (!m_frame.isValid() || (buffer && buffer->handle().value<void *>()))
            return false;
    }
    std::swap(m_frame, dropped);
    return true;
}

bool EglImageTexture::isCandidate(const QVideoFrame &frame)
{
    if (!frame.isValid() || frame.handleType() != QAbstractVideoBuffer::EGLImageHandle)
        return false;
    return StoreFrame::of(frame).dmaBuffer || frame.handle().value<void *>();
}

bool EglImageTexture::isBorrowed(const QVideoFrame &frame)
{
    return isCandidate(frame) && !StoreFrame::of(frame).dmaBuffer;
}

QString EglImageTexture::whyNot(QOpenGLContext *context)
{
    if (!context)
        return QStringLiteral("the window has no OpenGL context");
    if (!context->isOpenGLES())
        return QStringLiteral("the window draws with desktop OpenGL, which has no external textures");
    if (!context->hasExtension("GL_OES_EGL_image_external") || !targetTexture(context))
        return QStringLiteral("the driver has no external textures (GL_OES_EGL_image_external)");
    return {};
}

bool EglImageTexture::show(const QVideoFrame &frame)
{
    bool isShown = false;
    std::vector<QVideoFrame> freed; // go after the mutex is let go of
    {
        const QMutexLocker lock(&imageMutex());
        void *const display = zevgl::EGLImageContext::currentContext().display;
        const bool mayImport = destroyRemaining(display, &freed);
        if (ShmemDmaVideoBuffer *buffer = StoreFrame::of(frame).dmaBuffer) {
            // An image that somebody else made of the frame is his to destroy.
            const bool isOurs = !buffer->handle().value<void *>();
            isShown = mayImport && buffer->createHandle() && importInto(buffer->handle().value<void *>());
            if (isOurs)
                buffer->destroyHandle();
            if (isOurs && buffer->handle().value<void *>())
                undestroyed().push_back({display, frame});
        } else if (void *image = frame.handle().value<void *>()) {
            isShown = importInto(image);
        }
    }
    if (isShown)
        m_shown->set(frame); // the one before goes now that the texture has left its memory
    else
        release();
    return isShown;
}

QString EglImageTexture::whyRefused()
{
    // Without it, making images is refused in silence. GLX can give OpenGL ES too, and Qt's Wayland plugin
    // tells nobody its display.
    if (!zevgl::EGLImageContext::currentContext().display)
        return QStringLiteral(
            "the window's OpenGL does not come from EGL, or Qt does not say from which display");
    return QStringLiteral("EGL could not import the frame's memory, see the log");
}

bool EglImageTexture::importInto(void *image)
{
    QOpenGLContext *context = QOpenGLContext::currentContext();
    QOpenGLFunctions *gl = context->functions();
    for (int i = 0; i < 16 && gl->glGetError() != GL_NO_ERROR; ++i) {
        // Somebody else's; a lost context answers with an error for ever.
    }
    if (m_texture == 0)
        gl->glGenTextures(1, &m_texture);
    gl->glBindTexture(textureExternal, m_texture);
    targetTexture(context)(textureExternal, image);
    const GLenum error = gl->glGetError();
    if (toldError.exchange(error) != error && error != GL_NO_ERROR)
        qCritical("glEGLImageTargetTexture2DOES failed: %s (0x%04X)", errorName(error), error);
    gl->glTexParameteri(textureExternal, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
    gl->glTexParameteri(textureExternal, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
    gl->glTexParameteri(textureExternal, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    gl->glTexParameteri(textureExternal, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    gl->glBindTexture(textureExternal, 0);
    return error == GL_NO_ERROR;
}

void EglImageTexture::release()
{
    // Without a context the texture went with it.
    QOpenGLContext *context = QOpenGLContext::currentContext();
    if (context && m_texture != 0)
        context->functions()->glDeleteTextures(1, &m_texture);
    m_texture = 0;
    m_shown->set(QVideoFrame());
}

void EglImageTexture::bind(QOpenGLFunctions *gl) const
{
    gl->glActiveTexture(GL_TEXTURE0);
    gl->glBindTexture(textureExternal, m_texture);
}

} // namespace zevqml
