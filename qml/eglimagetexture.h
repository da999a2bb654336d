#pragma once

#include <QString>
#include <QVideoFrame>
#include <QtGui/qopengl.h>

QT_BEGIN_NAMESPACE
class QOpenGLContext;
class QOpenGLFunctions;
QT_END_NAMESPACE

namespace zevqml {

/*
 * The frame on screen as an external texture, without a copy: its memory, imported by EGL.
 *
 * The image is made of the frame, bound to the texture, and destroyed again at once; the texture keeps the
 * memory. So no frame ever carries an image outside show(), and its last copy may go in any thread: an image
 * that is destroyed where its context is not current could only crash or leak. Nothing is kept for later
 * frames either: an image of its own for every slot would hold memory that the store has replaced.
 *
 * Threads: bound to the thread of the context that was current at the first show(), the destructor included.
 * Ownership: owns the texture and holds the frame, so that its memory is not written while it is shown; both
 * until the next show() or release(). The texture goes before the frame.
 */
class EglImageTexture
{
public:
    EglImageTexture() = default;
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
    QVideoFrame m_frame;
};

} // namespace zevqml
