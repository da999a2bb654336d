#ifndef ZEVQTMM_TESTS_EXTERNALTEXTURE_H
#define ZEVQTMM_TESTS_EXTERNALTEXTURE_H

#include <QtGui/QImage>
#include <QtGui/QOffscreenSurface>
#include <QtGui/QOpenGLContext>
#include <QtGui/QOpenGLFunctions>
#include <QtGui/QOpenGLShaderProgram>

#include <memory>

/*!
 * What an application's renderer does with an EGL image, and nothing more: makes an external texture of it,
 * draws it, reads the pixels back.
 *
 * Threads: the thread that created it; its context stays current there.
 * Errors: isValid() false, with the reason in error(), when the platform gives no context that can do this.
 */
class ExternalTexture
{
public:
    ExternalTexture();
    ~ExternalTexture();

    bool isValid() const { return reason.isEmpty(); }
    QString error() const { return reason; }
    QOpenGLContext &context() { return glContext; }
    QSurface *surface() { return &offscreen; }

    /*! Whether GL takes the image: false once it is destroyed. */
    bool canBind(void *eglImage);
    /*! The image drawn at its own size, first line first; null when GL refuses. */
    QImage draw(void *eglImage, const QSize &size);
    /*! An empty picture: what the driver kept for the one before it goes. */
    void drawNothing();

private:
    void build();

    QOffscreenSurface offscreen;
    QOpenGLContext glContext;
    std::unique_ptr<QOpenGLShaderProgram> program;
    void (*targetTexture)(unsigned int target, void *image) = nullptr;
    QString reason;
};

#endif
