#pragma once

#include <QObject>
#include <QPointer>
#include <QSharedPointer>

#include <memory>

QT_BEGIN_NAMESPACE
class QQuickWindow;
QT_END_NAMESPACE
class MediaSourceBase;

namespace zevqml {

/*
 * Calls a source's GL hooks in a window's render thread: before and after every synchronization, and when the
 * window is not drawn any more, the scene graph's resources go or nobody shows the source any more. Sources
 * whose frames live in the GPU need them; to others they are empty calls. A window that is drawn again
 * prepares the source again.
 *
 * Several items, also of several windows, may show one source: its resources are released with the last one.
 * Frames that borrow an image of the source are worth nothing after that, and some may still be on their way
 * to the window's thread: generation() is another from then on, and areFramesStale() holds until they are
 * through.
 *
 * Threads: attach() and detach() in the window's thread; the hooks run in the render thread, most of them
 * while the window's thread waits for it; generation() and areFramesStale() in either. Hooks of one source
 * never run at the same time. Ownership: shares the source while attached, and until its resources are
 * released; borrows the window. Errors: a hook that throws is not called again until the window is drawn
 * again after it was hidden, or its scene graph was made anew; failed() tells it with the exception's text
 * and, if OpenGL is the reason, a hint in words, and does not repeat itself until the source was prepared.
 */
class SourceHooks : public QObject
{
    Q_OBJECT

public:
    explicit SourceHooks(QObject *parent = nullptr);
    ~SourceHooks() override;

    /* Replaces what was attached before. A null window or source only detaches. */
    void attach(QQuickWindow *window, const QSharedPointer<MediaSourceBase> &source);
    void detach();

    /* Of the source's GL resources: how often they were released. 0 while nothing is attached. */
    quint64 generation() const;
    /* Frames that are handed out now may borrow images that are gone. */
    bool areFramesStale() const;

Q_SIGNALS:
    void failed(const QString &message, const QString &hint);
    /* After failed(), the hooks work again. */
    void recovered();
    /* The window has stopped drawing; what it shows of the source's is worth nothing any more. */
    void released();

private:
    class Resources;
    struct Hooked;
    class Release;
    static void releaseSoon(QQuickWindow *window, const std::shared_ptr<Hooked> &hooked);

    std::shared_ptr<Hooked> m_hooked;
    QPointer<QQuickWindow> m_window;
};

} // namespace zevqml
