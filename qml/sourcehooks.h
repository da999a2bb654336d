#pragma once

#include <QObject>
#include <QPointer>
#include <QSharedPointer>

#include <exception>
#include <memory>

QT_BEGIN_NAMESPACE
class QQuickWindow;
QT_END_NAMESPACE
class MediaSourceBase;

namespace zevqml {

/*
 * Calls a source's GL hooks in a window's render thread: before and after every synchronization, and when the
 * scene graph's resources go. Sources whose frames live in the GPU need them; to others they are empty calls.
 *
 * Threads: attach() and detach() in the window's thread; the hooks run in the render thread while the
 * window's thread waits for it. Ownership: shares the source while attached; borrows the window. Errors: a
 * hook that throws is not called again; failed() tells once, with the exception's text.
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

Q_SIGNALS:
    void failed(const QString &message);

private:
    struct Hooked;
    std::shared_ptr<Hooked> m_hooked;
    QPointer<QQuickWindow> m_window;
};

} // namespace zevqml
