#pragma once

#include <QMutex>
#include <QString>
#include <QVideoFrame>
#include <QtGui/qopengl.h>

#include <memory>

QT_BEGIN_NAMESPACE
class QOpenGLContext;
class QOpenGLFunctions;
QT_END_NAMESPACE

namespace zevqml {

/*
 * The frame that a texture shows. Who knows that nothing of it is drawn any more, as in a window that is
 * hidden, lets it go without waiting for the render thread, which does nothing for such a window.
 *
 * Threads: any. Ownership: shared by the texture and that one; holds the frame.
 */
class ShownFrame
{
public:
    /* The frame before goes in the calling thread. */
    void set(const QVideoFrame &frame);
    /* Lets go of the frame; nothing may draw from the texture until another one is shown. False when there is
     * none, or when it carries an image that somebody made of it: that could only be destroyed where its
     * context is current, and the frame stays until the texture goes. */
    bool drop();

private:
    QMutex m_mutex;
    QVideoFrame m_frame;
};

/*
 * The frame on screen as an external texture, without a copy: its memory, imported by EGL.
 *
 * The image is made of the frame, bound to the texture, and destroyed again at once; the texture keeps the
 * memory. So no frame ever carries an image outside show(), and its last copy may go in any thread: an image
 * that is destroyed where its context is not current could only crash or leak. Where EGL refuses to destroy
 * one, its frame is kept, and no more are imported, until it does. Nothing is kept for later
 * frames either: an image of its own for every slot would hold memory that the store has replaced.
 *
 * Threads: bound to the thread of the context that was current at the first show(), the destructor included.
 * Ownership: owns the texture and holds the frame, so that its memory is not written while it is shown; both
 * until the next show() or release(), or until the frame is dropped (ShownFrame). The texture goes before the
 * frame.
 */
class EglImageTexture
{
public:
    explicit EglImageTexture(std::shared_ptr<ShownFrame> shown) : m_shown(std::move(shown)) {}
    ~EglImageTexture() { release(); }
    EglImageTexture(const EglImageTexture &) = delete;
    EglImageTexture &operator=(const EglImageTexture &) = delete;

    /* The frame lies in a DMA buffer, or carries an image already. */
    static bool isCandidate(const QVideoFrame &frame);
    /* Carries an image that is not its own: made by whoever owns it with the stream's own colors, valid for
     * as long as he keeps it, and the only way to the pixels. */
    static bool isBorrowed(const QVideoFrame &frame);
    /* Empty when this context can texture from EGL images, else why not. */
    static QString whyNot(QOpenGLContext *context);

    /* Shows `frame` from now on. Returns false, showing nothing, when EGL or GL refuses; the reason is
     * logged, GL's once. */
    bool show(const QVideoFrame &frame);
    /* After show() was refused, with the same context current: why. */
    static QString whyRefused();
    void release();

    /* Binds the texture to unit 0. */
    void bind(QOpenGLFunctions *gl) const;

private:
    bool importInto(void *image);

    GLuint m_texture = 0;
    const std::shared_ptr<ShownFrame> m_shown;
};

} // namespace zevqml
