#pragma once

#include <QElapsedTimer>
#include <QImage>
#include <QPointer>
#include <QQuickItem>
#include <QSize>
#include <QVideoFrame>

#include <memory>

class LiveSource;
class MediaProvider;

namespace zevqml {
class ShownFrame;
class SourceHooks;
} // namespace zevqml

/*
 * Shows live video: of a LiveSource, the frames or images of a MediaProvider, or those handed to present()
 * and presentImage().
 *
 * Usage, in QML:
 *     LiveVideo { anchors.fill: parent; source: camera; fillMode: LiveVideo.PreserveAspectFit }
 * A LiveSource runs while an item shows it. A MediaProvider decides between frames and images
 * (enableVideoFrames(), enableImageFrames()) and runs on its own. The item calls the GL hooks of the video
 * source.
 *
 * Frames take one of these paths, readable as framePath, with the reason in framePathReason when it is not
 * the best one:
 *   EglImage   a frame whose memory is a DMA buffer is imported by EGL and drawn without a copy
 *   Mapped     the planes of a 4:2:0 frame are copied from where they lie into textures, colors are made by
 *              a shader from the frame's own matrix and range
 *   Converted  RGB frames and images; also 4:2:0 frames where the scene graph has no usable OpenGL
 *   NoPath     nothing to show, or a frame that cannot be drawn
 * A camera's frames (V4L2MediaSource) carry an EGL image that is the camera's and have no planes: for them
 * there is EglImage or NoPath. `problem` is what to tell a person: why the newest frame is not drawn, or why
 * the source cannot give frames to this window; empty when all is well.
 *
 * What is to be seen is told by videoState (`state` is an item's already):
 *   Waiting    no picture has come yet
 *   Live       the newest picture is the source's, or was handed over by present() or presentImage()
 *   Idle       the source has nothing new (a camera: for half a second and five of its intervals) or is gone;
 *              its last picture stays
 *   NoSignal   the source has had nothing new for the provider's delay; noSignalPolicy says what is shown
 * then:
 *
 *   Picture      the one that stands in for it; its last one where the provider has none
 *   HoldLast     the source's last picture stays
 *   Black        the whole item is black
 *   Transparent  nothing is drawn, what is below the item is seen
 *
 * A provider of images tells no idleness: Live is followed by NoSignal there.
 *
 * Threads: an item lives in the GUI thread like all others; present() is called there.
 * Ownership: keeps exactly the newest frame, so that one frame of the store stays locked while it is on
 * screen, and no other once the scene graph has taken it over. A hidden item keeps the newest frame, draws
 * nothing and does nothing with the frames that come; it is drawn again once it is shown. clear() lets go of
 * the frame. Of a LiveSource, which does nothing while nobody sees it, a hidden item keeps no frame either.
 * The same holds in a window that is not exposed: what was on its screen last is let go of.
 * No frame carries an EGL image when it leaves the render thread, so copies of it may go in any
 * thread. The source's GL resources are released when no item shows it any more, when the window is not drawn
 * any more, and with the scene graph; a camera's frame is not drawn again after that. The basic render loop
 * does not tell of a window that is minimized: a camera of the application's own provider goes on in there,
 * one of a LiveSource does not. Errors: none are
 * thrown; a frame that cannot be drawn leaves the item empty, with framePathReason saying why. Cost: Mapped
 * is one copy into textures per new frame, in the render thread; Converted converts 4:2:0 frames there while
 * the GUI thread waits.
 */
class LiveVideo : public QQuickItem
{
    Q_OBJECT
    Q_PROPERTY(QObject *source READ source WRITE setSource NOTIFY sourceChanged)
    Q_PROPERTY(FillMode fillMode READ fillMode WRITE setFillMode NOTIFY fillModeChanged)
    Q_PROPERTY(NoSignalPolicy noSignalPolicy READ noSignalPolicy WRITE setNoSignalPolicy NOTIFY
                   noSignalPolicyChanged)
    Q_PROPERTY(bool eglImages READ eglImages WRITE setEglImages NOTIFY eglImagesChanged)
    Q_PROPERTY(QSize videoSize READ videoSize NOTIFY videoSizeChanged)
    Q_PROPERTY(FramePath framePath READ framePath NOTIFY framePathChanged)
    Q_PROPERTY(QString framePathReason READ framePathReason NOTIFY framePathChanged)
    Q_PROPERTY(QString problem READ problem NOTIFY problemChanged)
    Q_PROPERTY(VideoState videoState READ videoState NOTIFY videoStateChanged)

public:
    enum FillMode { Stretch, PreserveAspectFit, PreserveAspectCrop };
    Q_ENUM(FillMode)
    enum NoSignalPolicy { Picture, HoldLast, Black, Transparent };
    Q_ENUM(NoSignalPolicy)
    enum FramePath { NoPath, Mapped, Converted, EglImage };
    Q_ENUM(FramePath)
    enum VideoState { Waiting, Live, Idle, NoSignal };
    Q_ENUM(VideoState)

    explicit LiveVideo(QQuickItem *parent = nullptr);
    ~LiveVideo() override;

    /* A LiveSource or a MediaProvider; anything else is refused with a warning. Borrowed: null again once it
     * is destroyed. */
    QObject *source() const;
    void setSource(QObject *source);

    FillMode fillMode() const { return m_fillMode; }
    void setFillMode(FillMode mode);

    NoSignalPolicy noSignalPolicy() const { return m_noSignalPolicy; }
    void setNoSignalPolicy(NoSignalPolicy policy);

    /* Whether frames in DMA buffers are imported (the default) or uploaded like others. */
    bool eglImages() const { return m_eglImages; }
    void setEglImages(bool enabled);

    /* Pixels of the newest picture; 0 x 0 without one. */
    QSize videoSize() const { return m_videoSize; }

    FramePath framePath() const { return m_framePath; }
    QString framePathReason() const { return m_framePathReason; }
    QString problem() const { return m_problem; }

    VideoState videoState() const { return m_videoState; }

public Q_SLOTS:
    /* An invalid frame changes nothing. */
    void present(const QVideoFrame &frame);
    /* A null image changes nothing. */
    void presentImage(const QImage &image);
    /* Shows nothing from now on and releases the frame. */
    void clear();

Q_SIGNALS:
    void sourceChanged();
    void fillModeChanged();
    void noSignalPolicyChanged();
    void eglImagesChanged();
    void videoSizeChanged();
    void framePathChanged();
    void problemChanged();
    void videoStateChanged();

protected:
    QSGNode *updatePaintNode(QSGNode *oldNode, UpdatePaintNodeData *data) override;
    void itemChange(ItemChange change, const ItemChangeData &value) override;
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    struct Choice
    {
        FramePath path;
        QString reason;
        bool isProblem = false; // there is a frame, and it is not drawn
    };
    Choice choosePath() const;
    Choice chooseBorrowed() const;
    QString whyNoEglImage() const;
    QSGNode *updateEglImageNode(QSGNode *oldNode, Choice *choice);
    QSGNode *updateBlackNode(QSGNode *oldNode);
    QSGNode *updateYuvNode(QSGNode *oldNode, const Choice &choice);
    QSGNode *updateImageNode(QSGNode *oldNode, const Choice &choice);
    void lookAgain();
    void reportPath(const Choice &choice);
    void setPath(const Choice &choice);
    void updateProblem();
    void setProvider(MediaProvider *provider);
    void updateShown();
    void watchWindow(QQuickWindow *window);
    void dropUnseen();
    bool admitStandIn();
    void dropPicture();
    void takeFromSource(const QVideoFrame &frame);
    void takeImageFromSource(const QImage &image);
    void take(const QVideoFrame &frame);
    void take(const QImage &image);
    void pictureChanged(const QSize &size);
    void setVideoState(VideoState state);
    void attachHooks();

    QPointer<MediaProvider> m_provider;
    QPointer<LiveSource> m_liveSource; // whose provider it is; null: the application's own
    QMetaObject::Connection m_windowVisibility;
    QPointer<QQuickWindow> m_watchedWindow;
    bool m_wasExposed = false; // the watched window; that of a QQuickRenderControl never is
    bool m_isShown = false;
    zevqml::SourceHooks *m_hooks; // child
    QString m_hookError;          // the GUI thread's; read by the render thread while that waits
    QString m_pathProblem;
    QString m_problem;
    FillMode m_fillMode = PreserveAspectFit;
    NoSignalPolicy m_noSignalPolicy = Picture;
    bool m_isStandIn = false; // the picture is
    bool m_eglImages = true;
    QSize m_videoSize{0, 0};
    FramePath m_framePath = NoPath;
    QString m_framePathReason;
    VideoState m_videoState = Waiting;

    // The newest picture: one of the two. The serial tells the scene graph's node whether it has it already.
    QVideoFrame m_frame;
    QElapsedTimer m_sinceFrame;
    qint64 m_intervalMs = 0;       // between the last two
    quint64 m_frameGeneration = 0; // of the source's GL resources, when the frame came
    QImage m_image;
    quint64 m_serial = 0;

    // The render thread's while it synchronizes, when the GUI thread waits.
    FramePath m_nodePath = NoPath;
    bool m_isNodeBlack = false; // then there is no path
    quint64 m_nodeSerial = 0;
    std::shared_ptr<zevqml::ShownFrame> m_shownFrame; // of the newest EglImageNode
    Choice m_reported{NoPath, QString()};
    bool m_mappingFailed = false; // until clear()
    QString m_eglImageFailure;    // until clear(), another window, or a publisher that has started anew
    quint64 m_failedSession = 0;
};
