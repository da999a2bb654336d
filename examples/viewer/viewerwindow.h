#pragma once

#include "options.h"

#include <QImage>
#include <QObject>
#include <QRect>

#include <memory>

QT_BEGIN_NAMESPACE
class QQuickView;
QT_END_NAMESPACE
class LiveVideo;
class Viewer;

/*
 * The viewer's window: the scene of viewer.qml, keys, full screen.
 *
 * Threads: GUI thread. Ownership: owns the window, borrows the viewer, which outlives it.
 */
class ViewerWindow : public QObject
{
    Q_OBJECT

public:
    ViewerWindow(Viewer *viewer, const Options &options, QObject *parent = nullptr);
    ~ViewerWindow() override;

    /* Empty, or why there is nothing to show. */
    QString error() const { return m_error; }

    /* The window as it shows a frame that only the GPU can read. Null when it does not. */
    QImage pictureOnScreen() const;

signals:
    void closed();

private slots:
    void toggleFullscreen();

private:
    void updateImageSize();
    void updateFramePath();

    Viewer *const m_viewer;
    std::unique_ptr<QQuickView> m_view;
    LiveVideo *m_video = nullptr;  // in the view
    bool m_wantsEglImages = false; // said when it cannot be
    QString m_saidReason;          // what was said last of that
    QRect m_normalGeometry;        // before full screen
    QString m_error;
};
