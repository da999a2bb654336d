#include "viewerwindow.h"

#include "livevideo.h"
#include "qmltypes.h"
#include "viewer.h"

#include <QMetaEnum>
#include <QQmlError>
#include <QQuickItem>
#include <QQuickView>
#include <QScreen>
#include <QTimer>

ViewerWindow::ViewerWindow(Viewer *viewer, const Options &options, QObject *parent)
    : QObject(parent), m_viewer(viewer)
{
    zevqml::registerStaticQmlTypes();
    m_view = std::make_unique<QQuickView>();
    m_view->setTitle(QStringLiteral("%1 - zevqt-viewer").arg(options.video.toString()));
    m_view->setResizeMode(QQuickView::SizeRootObjectToView);
    m_view->setColor(Qt::black);
    m_view->resize(options.windowSize);
    m_view->setInitialProperties({{QStringLiteral("viewer"), QVariant::fromValue<QObject *>(viewer)},
                                  {QStringLiteral("statistics"), options.statistics}});
    m_view->setSource(QUrl(QStringLiteral("qrc:/viewer/viewer.qml")));
    QQuickItem *root = m_view->rootObject();
    m_video = root ? root->findChild<LiveVideo *>(QStringLiteral("video")) : nullptr;
    if (!m_video) {
        const QList<QQmlError> errors = m_view->errors();
        m_error =
            errors.isEmpty() ? QStringLiteral("the scene has no video item") : errors.first().toString();
        return;
    }
    m_video->setFillMode(options.fill == Options::Fill::Stretch ? LiveVideo::Stretch
                         : options.fill == Options::Fill::Crop  ? LiveVideo::PreserveAspectCrop
                                                                : LiveVideo::PreserveAspectFit);
    m_video->setEglImages(options.framePath != Options::FramePath::Mapped);
    m_wantsEglImages = options.framePath == Options::FramePath::Egl;
    connect(m_video, &LiveVideo::framePathChanged, this, &ViewerWindow::updateFramePath);
    // Signals of a QML object have names only.
    connect(root, SIGNAL(quitRequested()), this, SIGNAL(closed()));
    connect(root, SIGNAL(fullscreenToggled()), this, SLOT(toggleFullscreen()));
    connect(m_view.get(), &QWindow::visibilityChanged, this, [this](QWindow::Visibility visibility) {
        if (visibility == QWindow::Hidden)
            emit closed();
    });

    // Images are asked for in the size they are shown in; a window being dragged changes it all the time.
    auto *settle = new QTimer(this);
    settle->setSingleShot(true);
    settle->setInterval(200);
    connect(settle, &QTimer::timeout, this, &ViewerWindow::updateImageSize);
    connect(m_video, &QQuickItem::widthChanged, settle, qOverload<>(&QTimer::start));
    connect(m_video, &QQuickItem::heightChanged, settle, qOverload<>(&QTimer::start));

    m_view->show();
    if (options.fullscreen)
        toggleFullscreen();
    m_view->requestActivate(); // without a window manager the keys would go nowhere
    updateImageSize();
}

ViewerWindow::~ViewerWindow() = default;

QImage ViewerWindow::pictureOnScreen() const
{
    const bool isShown = m_view->isExposed() && m_video->framePath() == LiveVideo::EglImage;
    return isShown ? m_view->grabWindow() : QImage();
}

void ViewerWindow::toggleFullscreen()
{
    // The geometry is set as well, for displays without a window manager, where nobody else would.
    if (m_view->visibility() == QWindow::FullScreen) {
        m_view->showNormal();
        m_view->setGeometry(m_normalGeometry);
    } else {
        m_normalGeometry = m_view->geometry();
        m_view->setGeometry(m_view->screen()->geometry());
        m_view->showFullScreen();
    }
}

void ViewerWindow::updateImageSize()
{
    m_viewer->setImageSize((m_video->size() * m_view->effectiveDevicePixelRatio()).toSize());
}

void ViewerWindow::updateFramePath()
{
    const auto paths = QMetaEnum::fromType<LiveVideo::FramePath>();
    m_viewer->setFramePath(QString::fromLatin1(paths.valueToKey(m_video->framePath())).toLower(),
                           m_video->framePathReason());
    // The no-signal picture is none of the source's frames.
    const bool isOtherwise =
        m_video->videoState() != LiveVideo::NoSignal &&
        (m_video->framePath() == LiveVideo::Mapped || m_video->framePath() == LiveVideo::Converted);
    if (!m_wantsEglImages || !isOtherwise || m_saidReason == m_video->framePathReason())
        return;
    m_saidReason = m_video->framePathReason();
    qWarning("frames are not imported into the GPU: %s", qPrintable(m_saidReason));
}
