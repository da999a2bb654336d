#include "livevideo.h"

#include "eglimagenode.h"
#include "eglimagetexture.h"
#include "fillgeometry.h"
#include "frameimage.h"
#include "frameplanes.h"
#include "livesource.h"
#include "sourcehooks.h"
#include "yuvnode.h"
#include "yuvtextures.h"

#include <zevqt-mm/mediaprovider.h>
#include <zevqt-mm/storeframe.h>

#include <QMetaEnum>
#include <QOpenGLContext>
#include <QQuickRenderControl>
#include <QQuickWindow>
#include <QSGImageNode>
#include <QSGRectangleNode>
#include <QSGRendererInterface>

using zevqml::EglImageNode;
using zevqml::EglImageTexture;
using zevqml::YuvNode;

namespace {

constexpr qint64 cameraPauseMs = 500;
constexpr qint64 cameraPauseIntervals = 5;
constexpr qint64 longestIntervalMs = 2000; // more is no interval

zevqml::FillGeometry geometryOf(LiveVideo::FillMode mode, const QSizeF &item, const QSizeF &video)
{
    switch (mode) {
    case LiveVideo::Stretch:
        return zevqml::fillGeometry(zevqml::FillMode::Stretch, item, video);
    case LiveVideo::PreserveAspectCrop:
        return zevqml::fillGeometry(zevqml::FillMode::PreserveAspectCrop, item, video);
    case LiveVideo::PreserveAspectFit:
        break;
    }
    return zevqml::fillGeometry(zevqml::FillMode::PreserveAspectFit, item, video);
}

} // namespace

LiveVideo::LiveVideo(QQuickItem *parent) : QQuickItem(parent), m_hooks(new zevqml::SourceHooks(this))
{
    setFlag(ItemHasContents);
    connect(m_hooks, &zevqml::SourceHooks::failed, this, [this](const QString &message, const QString &hint) {
        m_hookError = hint.isEmpty() ? message : QStringLiteral("%1 (%2)").arg(hint, message);
        qWarning("LiveVideo: the source cannot prepare its frames for this window: %s; frames in the "
                 "GPU are not shown",
                 qPrintable(m_hookError));
        updateProblem();
        update();
    });
    connect(m_hooks, &zevqml::SourceHooks::recovered, this, [this] {
        m_hookError.clear();
        updateProblem();
        update();
    });
    connect(m_hooks, &zevqml::SourceHooks::released, this, [this] { update(); });
    watchWindow(window()); // a parent that is in one was given to the constructor: nothing tells of it
}

LiveVideo::~LiveVideo()
{
    m_hooks->detach();
    if (m_liveSource)
        m_liveSource->setShown(this, false);
}

QObject *LiveVideo::source() const
{
    return m_liveSource ? static_cast<QObject *>(m_liveSource) : m_provider;
}

void LiveVideo::setSource(QObject *source)
{
    auto *provider = qobject_cast<MediaProvider *>(source);
    auto *liveSource = qobject_cast<LiveSource *>(source);
    if (source && !provider && !liveSource)
        qWarning("LiveVideo: source is a %s; a LiveSource or a MediaProvider is needed",
                 source->metaObject()->className());
    if (liveSource == m_liveSource && (liveSource || provider == m_provider))
        return;
    if (m_liveSource) {
        disconnect(m_liveSource, nullptr, this, nullptr);
        m_liveSource->setShown(this, false);
    }
    m_liveSource = liveSource;
    if (liveSource) {
        connect(liveSource, &LiveSource::stopped, this, &LiveVideo::clear);
        connect(liveSource, &LiveSource::providerChanged, this,
                [this] { setProvider(m_liveSource->provider()); });
        connect(liveSource, &QObject::destroyed, this, &LiveVideo::sourceChanged);
        provider = liveSource->provider();
        m_isShown = false; // tell it anew
    }
    setProvider(provider);
    updateShown();
    emit sourceChanged();
}

void LiveVideo::setProvider(MediaProvider *provider)
{
    if (m_provider)
        disconnect(m_provider, nullptr, this, nullptr);
    m_provider = provider;
    if (provider) {
        connect(provider, &MediaProvider::videoReady, this, &LiveVideo::takeFromSource);
        connect(provider, &MediaProvider::imageReady, this, &LiveVideo::takeImageFromSource);
        const auto becomeIdle = [this] {
            if (m_videoState == Live)
                setVideoState(Idle);
        };
        connect(provider, &MediaProvider::videoIdle, this, [this, becomeIdle] {
            // A camera has nothing new for every tick between two of its frames.
            if (!EglImageTexture::isBorrowed(m_frame) ||
                m_sinceFrame.hasExpired(qMax(cameraPauseMs, cameraPauseIntervals * m_intervalMs)))
                becomeIdle();
        });
        connect(provider, &QObject::destroyed, this, [this, becomeIdle] {
            m_hooks->detach();
            becomeIdle();
            emit sourceChanged();
        });
    }
    clear();
    attachHooks();
}

// What a LiveSource runs for.
void LiveVideo::updateShown()
{
    const auto isOnScreen = [](QQuickWindow *shownIn) {
        return QQuickRenderControl::renderWindowFor(shownIn) ||
               (shownIn->visibility() != QWindow::Hidden && shownIn->visibility() != QWindow::Minimized);
    };
    const bool isShown = isVisible() && window() && isOnScreen(window());
    if (isShown == m_isShown)
        return;
    m_isShown = isShown;
    if (!m_liveSource)
        return;
    if (!isShown)
        clear();
    m_liveSource->setShown(this, isShown);
}

void LiveVideo::watchWindow(QQuickWindow *window)
{
    disconnect(m_windowVisibility);
    if (m_watchedWindow)
        m_watchedWindow->removeEventFilter(this);
    m_watchedWindow = window;
    m_wasExposed = window && window->isExposed();
    if (!window)
        return;
    window->installEventFilter(this);
    m_windowVisibility = connect(window, &QWindow::visibilityChanged, this, &LiveVideo::updateShown);
}

bool LiveVideo::eventFilter(QObject *watched, QEvent *event)
{
    if (event->type() == QEvent::Expose && watched == m_watchedWindow) {
        if (m_watchedWindow->isExposed())
            m_wasExposed = true;
        else
            dropUnseen();
    }
    return QQuickItem::eventFilter(watched, event);
}

// What is on screen stays locked until the scene graph has another frame, which it never gets while its
// window is not exposed. The window stops drawing when it has handled the event that tells it so; before it
// draws again it synchronizes, and the item shows what it has then.
void LiveVideo::dropUnseen()
{
    if (!m_shownFrame || !m_watchedWindow || !m_wasExposed)
        return;
    QMetaObject::invokeMethod(
        this,
        [this] {
            if (!m_watchedWindow || m_watchedWindow->isExposed() || !m_shownFrame->drop())
                return;
            ++m_serial;
            update();
        },
        Qt::QueuedConnection);
}

void LiveVideo::attachHooks()
{
    m_hookError.clear();
    updateProblem();
    m_hooks->attach(window(), m_provider ? m_provider->getVideoSource() : QSharedPointer<MediaSourceBase>());
}

void LiveVideo::setFillMode(FillMode mode)
{
    if (mode == m_fillMode)
        return;
    m_fillMode = mode;
    update();
    emit fillModeChanged();
}

void LiveVideo::setNoSignalPolicy(NoSignalPolicy policy)
{
    if (policy == m_noSignalPolicy)
        return;
    m_noSignalPolicy = policy;
    if (m_videoState == NoSignal)
        admitStandIn(); // the picture itself comes with the next tick
    update();
    emit noSignalPolicyChanged();
}

void LiveVideo::setEglImages(bool enabled)
{
    if (enabled == m_eglImages)
        return;
    m_eglImages = enabled;
    update();
    emit eglImagesChanged();
}

void LiveVideo::present(const QVideoFrame &frame)
{
    if (frame.isValid())
        setVideoState(Live);
    take(frame);
}

void LiveVideo::presentImage(const QImage &image)
{
    if (!image.isNull())
        setVideoState(Live);
    take(image);
}

// True when the picture that stands in for the source is to be shown.
bool LiveVideo::admitStandIn()
{
    if (m_noSignalPolicy == Picture)
        return true;
    if (m_noSignalPolicy != HoldLast || m_isStandIn)
        dropPicture();
    return false;
}

void LiveVideo::takeFromSource(const QVideoFrame &frame)
{
    if (m_liveSource && !(m_isShown && m_liveSource->running()))
        return; // it was on its way
    const bool isStandIn = zevqml::isStandIn(frame);
    setVideoState(isStandIn ? NoSignal : Live);
    if (isStandIn && !admitStandIn())
        return;
    take(frame);
    if (frame.isValid())
        m_isStandIn = isStandIn;
}

// The converter writes the frame's time into the images of a source.
void LiveVideo::takeImageFromSource(const QImage &image)
{
    const bool isStandIn = image.text(QStringLiteral("pts")).isEmpty();
    setVideoState(isStandIn ? NoSignal : Live);
    if (isStandIn && !admitStandIn())
        return;
    take(image);
    if (!image.isNull())
        m_isStandIn = isStandIn;
}

void LiveVideo::take(const QVideoFrame &frame)
{
    if (!frame.isValid() || frame == m_frame)
        return;
    if (m_hooks->areFramesStale() && EglImageTexture::isBorrowed(frame))
        return;
    m_frame = frame;
    m_intervalMs = m_sinceFrame.isValid() ? qMin(m_sinceFrame.elapsed(), longestIntervalMs) : 0;
    m_sinceFrame.start();
    m_frameGeneration = m_hooks->generation();
    m_image = QImage();
    pictureChanged(frame.size());
}

void LiveVideo::take(const QImage &image)
{
    // The no-signal picture comes again with every tick.
    if (image.isNull() || image.cacheKey() == m_image.cacheKey())
        return;
    m_image = image;
    m_frame = QVideoFrame();
    pictureChanged(image.size());
}

void LiveVideo::clear()
{
    m_mappingFailed = false;
    m_eglImageFailure.clear();
    setVideoState(Waiting);
    dropPicture();
    update();
}

void LiveVideo::dropPicture()
{
    if (!m_frame.isValid() && m_image.isNull())
        return;
    m_frame = QVideoFrame();
    m_image = QImage();
    m_isStandIn = false;
    pictureChanged(QSize(0, 0));
}

void LiveVideo::setVideoState(VideoState state)
{
    if (state == m_videoState)
        return;
    m_videoState = state;
    if (m_noSignalPolicy == Black && isVisible())
        update();
    emit videoStateChanged();
}

void LiveVideo::pictureChanged(const QSize &size)
{
    ++m_serial;
    if (isVisible())
        update();
    if (size == m_videoSize)
        return;
    m_videoSize = size;
    emit videoSizeChanged();
}

void LiveVideo::itemChange(ItemChange change, const ItemChangeData &value)
{
    if (change == ItemSceneChange) {
        m_eglImageFailure.clear(); // another window, another context
        attachHooks();
        watchWindow(value.window);
        updateShown();
    } else if (change == ItemVisibleHasChanged) {
        update(); // hidden: to let go of what was drawn
        updateShown();
    }
    QQuickItem::itemChange(change, value);
}

QString LiveVideo::whyNoEglImage() const
{
    if (!m_eglImages)
        return QStringLiteral("EGL images are switched off");
    if (window()->rendererInterface()->graphicsApi() != QSGRendererInterface::OpenGL)
        return QStringLiteral("the scene graph does not draw with OpenGL");
    QString obstacle = EglImageTexture::whyNot(QOpenGLContext::currentContext());
    if (!obstacle.isEmpty())
        return obstacle;
    if (EglImageNode::shaderFailed())
        return QStringLiteral("the shader for EGL images could not be built, see the log");
    return StoreFrame::of(m_frame).session == m_failedSession ? m_eglImageFailure : QString();
}

// The image is the only way to the pixels.
LiveVideo::Choice LiveVideo::chooseBorrowed() const
{
    if (m_frameGeneration != m_hooks->generation())
        return {NoPath, QStringLiteral("the source starts anew")};
    const QString obstacle = whyNoEglImage();
    if (obstacle.isEmpty())
        return {EglImage, QString()};
    return {NoPath, QStringLiteral("the source's frames are in the GPU only, and %1").arg(obstacle), true};
}

LiveVideo::Choice LiveVideo::choosePath() const
{
    if (!m_image.isNull())
        return {Converted, QStringLiteral("images were asked for")};
    if (!m_frame.isValid())
        return {NoPath, QStringLiteral("there is no picture yet")};
    if (EglImageTexture::isBorrowed(m_frame))
        return chooseBorrowed();
    QString whyMapped;
    if (EglImageTexture::isCandidate(m_frame)) {
        whyMapped = whyNoEglImage();
        if (whyMapped.isEmpty())
            return {EglImage, QString()};
    } else if (m_frame.handleType() == QAbstractVideoBuffer::NoHandle) {
        whyMapped = StoreFrame::of(m_frame).noDmabufReason;
    }
    if (!zevqml::hasReadablePlanes(m_frame)) {
        return {NoPath,
                !m_hookError.isEmpty() ? m_hookError
                : !whyMapped.isEmpty() ? whyMapped
                                       : QStringLiteral("the frame has neither an image nor planes"),
                true};
    }
    if (!zevqml::isPlanarYuv(m_frame.pixelFormat())) // also the picture for a source that gives none
        return {Converted, m_hookError.isEmpty() ? QStringLiteral("the frame is RGB") : m_hookError};

    if (window()->rendererInterface()->graphicsApi() != QSGRendererInterface::OpenGL)
        return {Converted, QStringLiteral("the scene graph does not draw with OpenGL")};
    const QString obstacle = zevqml::YuvTextures::whyNot(QOpenGLContext::currentContext(), m_frame.size());
    if (!obstacle.isEmpty())
        return {Converted, obstacle};
    if (YuvNode::shaderFailed())
        return {Converted, QStringLiteral("the shader could not be built, see the log")};
    if (m_mappingFailed)
        return {Converted, QStringLiteral("the planes could not be uploaded")};
    return {Mapped, whyMapped};
}

QSGNode *LiveVideo::updatePaintNode(QSGNode *oldNode, UpdatePaintNodeData *)
{
    if (!oldNode || !isVisible()) {
        delete oldNode;
        oldNode = nullptr;
        m_nodePath = NoPath;
        m_isNodeBlack = false;
        if (!isVisible())
            return nullptr;
    }
    if (m_videoState == NoSignal && m_noSignalPolicy == Black)
        return updateBlackNode(oldNode);
    if (m_isNodeBlack) {
        delete oldNode;
        oldNode = nullptr;
        m_isNodeBlack = false;
    }
    if (m_nodePath == Mapped && static_cast<YuvNode *>(oldNode)->failed())
        m_mappingFailed = true;
    Choice choice = choosePath();
    if (choice.path == EglImage) {
        const bool isOldUsed = m_nodePath == EglImage;
        QSGNode *node = updateEglImageNode(isOldUsed ? oldNode : nullptr, &choice);
        if (choice.path == EglImage) {
            if (!isOldUsed)
                delete oldNode;
            m_nodePath = EglImage;
            return node;
        }
    }
    if (oldNode && m_nodePath != choice.path) {
        delete oldNode;
        oldNode = nullptr;
    }
    m_nodePath = choice.path;
    switch (choice.path) {
    case Mapped:
        return updateYuvNode(oldNode, choice);
    case Converted:
        return updateImageNode(oldNode, choice);
    case NoPath:
    case EglImage:
        break;
    }
    reportPath(choice);
    return nullptr;
}

QSGNode *LiveVideo::updateBlackNode(QSGNode *oldNode)
{
    auto *node = static_cast<QSGRectangleNode *>(m_isNodeBlack ? oldNode : nullptr);
    if (!node) {
        delete oldNode;
        node = window()->createRectangleNode();
        node->setColor(Qt::black);
    }
    m_isNodeBlack = true;
    m_nodePath = NoPath;
    node->setRect(boundingRect());
    reportPath({NoPath, QString()});
    return node;
}

// When the frame cannot be imported, `choice` becomes the next best path and the old node stays as it is.
QSGNode *LiveVideo::updateEglImageNode(QSGNode *oldNode, Choice *choice)
{
    auto *node = static_cast<EglImageNode *>(oldNode);
    const bool fresh = !node;
    const auto shown = fresh ? std::make_shared<zevqml::ShownFrame>() : m_shownFrame;
    if (fresh)
        node = new EglImageNode(shown);
    if ((fresh || m_nodeSerial != m_serial) && !node->show(m_frame, zevqml::frameColors(m_frame))) {
        if (fresh)
            delete node;
        // A borrowed image may just have gone: the next frame's is tried all the same.
        m_eglImageFailure = EglImageTexture::whyRefused();
        m_failedSession = StoreFrame::of(m_frame).session;
        *choice = choosePath();
        if (EglImageTexture::isBorrowed(m_frame))
            m_eglImageFailure.clear();
        return oldNode;
    }
    m_shownFrame = shown;
    m_nodeSerial = m_serial;
    node->setGeometry(geometryOf(m_fillMode, size(), m_frame.size()));
    reportPath(*choice);
    if (fresh)
        lookAgain();
    return node;
}

QSGNode *LiveVideo::updateYuvNode(QSGNode *oldNode, const Choice &choice)
{
    auto *node = static_cast<YuvNode *>(oldNode);
    if (node && node->format() != m_frame.pixelFormat()) {
        delete node;
        node = nullptr;
    }
    const bool fresh = !node;
    if (fresh)
        node = new YuvNode(m_frame.pixelFormat());
    if (fresh || m_nodeSerial != m_serial) {
        node->setFrame(m_frame, zevqml::frameColors(m_frame));
        m_nodeSerial = m_serial;
    }
    node->setGeometry(geometryOf(m_fillMode, size(), m_frame.size()));
    reportPath(choice);
    if (fresh)
        lookAgain();
    return node;
}

// Whether a node's shader can be built, and planes be read, shows when it is drawn. The next frame may be
// long in coming, so the path is chosen once more without one.
void LiveVideo::lookAgain()
{
    QMetaObject::invokeMethod(
        this, [this] { update(); }, Qt::QueuedConnection);
}

QSGNode *LiveVideo::updateImageNode(QSGNode *oldNode, const Choice &choice)
{
    auto *node = static_cast<QSGImageNode *>(oldNode);
    const bool fresh = !node;
    if (fresh || m_nodeSerial != m_serial) {
        const QImage image =
            m_image.isNull() ? zevqml::frameToImage(m_frame, zevqml::frameColors(m_frame)) : m_image;
        QSGTexture *texture = image.isNull() ? nullptr : window()->createTextureFromImage(image);
        if (!texture) {
            delete node;
            m_nodePath = NoPath;
            reportPath({NoPath, QStringLiteral("the frame could not be converted"), true});
            return nullptr;
        }
        if (fresh) {
            node = window()->createImageNode();
            node->setOwnsTexture(true);
            node->setFiltering(QSGTexture::Linear);
        }
        node->setTexture(texture);
        m_nodeSerial = m_serial;
    }
    const zevqml::FillGeometry geometry = geometryOf(m_fillMode, size(), m_videoSize);
    const QSizeF pixels = node->texture()->textureSize();
    node->setRect(geometry.target);
    node->setSourceRect(QRectF(geometry.source.x() * pixels.width(), geometry.source.y() * pixels.height(),
                               geometry.source.width() * pixels.width(),
                               geometry.source.height() * pixels.height()));
    reportPath(choice);
    return node;
}

void LiveVideo::reportPath(const Choice &choice)
{
    if (choice.path == m_reported.path && choice.reason == m_reported.reason)
        return;
    m_reported = choice;
    // The properties belong to the GUI thread, and so do those who are told of their change.
    QMetaObject::invokeMethod(
        this, [this, choice] { setPath(choice); }, Qt::QueuedConnection);
}

void LiveVideo::setPath(const Choice &choice)
{
    if (choice.path == m_framePath && choice.reason == m_framePathReason)
        return;
    m_framePath = choice.path;
    m_framePathReason = choice.reason;
    m_pathProblem = choice.isProblem ? choice.reason : QString();
    if (m_liveSource) {
        const auto paths = QMetaEnum::fromType<FramePath>();
        m_liveSource->setFramePath(QString::fromLatin1(paths.valueToKey(m_framePath)).toLower(),
                                   m_framePathReason);
    }
    emit framePathChanged();
    updateProblem();
}

void LiveVideo::updateProblem()
{
    const QString problem = m_hookError.isEmpty() ? m_pathProblem : m_hookError;
    if (problem == m_problem)
        return;
    m_problem = problem;
    emit problemChanged();
}
