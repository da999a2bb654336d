#include "itemrenderer.h"

#include <zevqt-mm/mediasource.h>

#include <shm/shm_reader.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtGui/QOpenGLFunctions>

ItemRenderer::ItemRenderer(const QSize &size) : glContext(std::make_unique<QOpenGLContext>())
{
    surface.create();
    if (!glContext->create())
        return;
    control = std::make_unique<QQuickRenderControl>();
    window = std::make_unique<QQuickWindow>(control.get());
    window->setGeometry(QRect(QPoint(), size));
    window->setColor(Qt::black);
    window->contentItem()->setSize(size);
    if (startRendering())
        renewItem();
}

ItemRenderer::~ItemRenderer()
{
    if (!window)
        return;
    deleteItem();
    glContext->makeCurrent(&surface);
    control->invalidate();
    target.reset();
    window.reset();
    control.reset();
}

bool ItemRenderer::startRendering()
{
    if (!glContext->makeCurrent(&surface))
        return false;
    makeTarget();
    control->initialize(glContext.get());
    return true;
}

void ItemRenderer::makeTarget()
{
    target = std::make_unique<QOpenGLFramebufferObject>(window->size(),
                                                        QOpenGLFramebufferObject::CombinedDepthStencil);
    window->setRenderTarget(target.get());
}

void ItemRenderer::renewItem()
{
    if (video) {
        deleteItem();
        renderUnseen();
    }
    video = new LiveVideo(window->contentItem());
    video->setSize(window->size());
}

void ItemRenderer::deleteItem()
{
    delete video;
    video = nullptr;
}

QImage ItemRenderer::render()
{
    renderUnseen();
    return target->toImage();
}

void ItemRenderer::renderUnseen()
{
    glContext->makeCurrent(&surface);
    control->polishItems();
    control->sync();
    control->render();
    window->resetOpenGLState();
    glContext->functions()->glFinish();
    QCoreApplication::processEvents(); // the path is reported to the GUI thread
}

void ItemRenderer::resize(const QSize &size)
{
    window->setGeometry(QRect(QPoint(), size));
    window->contentItem()->setSize(size);
    if (video)
        video->setSize(size);
    glContext->makeCurrent(&surface);
    makeTarget();
}

bool ItemRenderer::loseContext()
{
    glContext->makeCurrent(&surface);
    control->invalidate();
    target.reset();
    glContext = std::make_unique<QOpenGLContext>();
    return glContext->create() && startRendering();
}

bool presentNewest(MediaSource &source, LiveVideo *item)
{
    const QVideoFrame newest = source.grabVideo(0);
    item->present(newest);
    return newest.isValid();
}

int locksHeld(const QString &store)
{
    shm_reader_t *reader = shm_reader_open(store.toUtf8().constData(), 5000);
    shm_store_info_t info = {};
    info.size = sizeof info;
    const int result = reader && shm_reader_get_info(reader, &info) == 0 ? info.locks_held : -1;
    shm_reader_close(reader);
    return result;
}

bool keepArtifact(const QImage &image, const QString &name)
{
    // The virtual machine's other writes are thrown away.
    const QString folder = qEnvironmentVariable("RIG_ARTIFACTS", QStringLiteral(ARTIFACTS_DIR));
    return QDir().mkpath(folder) && image.save(folder + QLatin1Char('/') + name + QStringLiteral(".png"));
}
