#ifndef ZEVQTMM_TESTS_ITEMRENDERER_H
#define ZEVQTMM_TESTS_ITEMRENDERER_H

#include "livevideo.h"

#include <QtGui/QImage>
#include <QtGui/QOffscreenSurface>
#include <QtGui/QOpenGLContext>
#include <QtGui/QOpenGLFramebufferObject>
#include <QtQuick/QQuickRenderControl>
#include <QtQuick/QQuickWindow>

#include <memory>

class MediaSource;

/*!
 * A Qt Quick scene that is drawn into a framebuffer object, with one LiveVideo that fills it: as in a window,
 * where the platform has none.
 *
 * Threads: the one that made it; the scene's render thread is the same. Errors: isValid() false when the
 * platform gives no context.
 */
class ItemRenderer
{
public:
    explicit ItemRenderer(const QSize &size);
    ~ItemRenderer();
    ItemRenderer(const ItemRenderer &) = delete;
    ItemRenderer &operator=(const ItemRenderer &) = delete;

    bool isValid() const { return target != nullptr; }
    LiveVideo *item() const { return video; }
    QQuickItem *root() const { return window->contentItem(); }
    QOpenGLContext *context() const { return glContext.get(); }

    /*! Deletes the item and what it draws, and puts a fresh one there. */
    void renewItem();
    /*! Deletes the item; what it draws goes with the next rendering. */
    void deleteItem();
    /*! Draws what is new; the picture, first line first. */
    QImage render();
    /*! The same without reading it back. */
    void renderUnseen();
    /*! The window's and the item's new size. */
    void resize(const QSize &size);
    /*! The context goes, and everything that the scene graph had in it; rendering goes on in another one. */
    bool loseContext();
    /*! No context is current from now on until something is drawn. */
    void doneCurrent() { glContext->doneCurrent(); }

private:
    bool startRendering();
    void makeTarget();

    QOffscreenSurface surface;
    std::unique_ptr<QOpenGLContext> glContext;
    std::unique_ptr<QQuickRenderControl> control;
    std::unique_ptr<QQuickWindow> window;
    std::unique_ptr<QOpenGLFramebufferObject> target;
    LiveVideo *video = nullptr;
};

/*! The newest frame of a source, presented; false when it has none. */
bool presentNewest(MediaSource &source, LiveVideo *item);

/*! Frames of a store that readers hold; -1 when it is not there. */
int locksHeld(const QString &store);

/*! Where pictures are kept: artifacts/ in the build tree. The name says what the picture shows. */
bool keepArtifact(const QImage &image, const QString &name);

#endif
