#include "sourcehooks.h"

#include <zevqt-mm/mediasourcebase.h>

#include <QQuickWindow>

namespace zevqml {

/*
 * What the render thread uses. It is shared with the connections, so that a signal that is being delivered
 * while the window's thread detaches still finds it.
 */
struct SourceHooks::Hooked
{
    QSharedPointer<MediaSourceBase> source;
    bool broken = false; // the render thread only

    template <typename Hook, typename Report>
    void call(Hook hook, Report report)
    {
        if (broken)
            return;
        try {
            ((*source).*hook)();
        } catch (const std::exception &error) {
            broken = true;
            report(QString::fromUtf8(error.what()));
        }
    }
};

SourceHooks::SourceHooks(QObject *parent) : QObject(parent) {}

SourceHooks::~SourceHooks()
{
    detach();
}

void SourceHooks::attach(QQuickWindow *window, const QSharedPointer<MediaSourceBase> &source)
{
    detach();
    if (!window || !source)
        return;
    m_window = window;
    m_hooked = std::make_shared<Hooked>();
    m_hooked->source = source;

    // failed() is emitted in the render thread: receivers in the window's thread get it queued.
    const auto report = [this](const QString &message) { emit failed(message); };
    const auto hooked = m_hooked;
    connect(
        window, &QQuickWindow::beforeSynchronizing, this,
        [hooked, report] { hooked->call(&MediaSourceBase::doBeforeGLSynchronizing, report); },
        Qt::DirectConnection);
    connect(
        window, &QQuickWindow::afterSynchronizing, this,
        [hooked, report] { hooked->call(&MediaSourceBase::doAfterGLSynchronizing, report); },
        Qt::DirectConnection);
    connect(
        window, &QQuickWindow::sceneGraphInvalidated, this,
        [hooked, report] { hooked->call(&MediaSourceBase::releaseGLResources, report); },
        Qt::DirectConnection);
}

void SourceHooks::detach()
{
    if (m_window)
        disconnect(m_window, nullptr, this, nullptr);
    m_window = nullptr;
    m_hooked.reset();
}

} // namespace zevqml
