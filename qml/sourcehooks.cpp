#include "sourcehooks.h"

#include <zevqt-mm/eglimagecontext.h>
#include <zevqt-mm/mediasourcebase.h>

#include <QCoreApplication>
#include <QMutex>
#include <QMutexLocker>
#include <QOpenGLContext>
#include <QQuickWindow>
#include <QRunnable>
#include <QThread>

#include <atomic>
#include <exception>
#include <iterator>
#include <map>
#include <optional>

namespace zevqml {

namespace {

QString whyNoEgl()
{
    if (!QOpenGLContext::currentContext())
        return QStringLiteral("the scene graph does not draw with OpenGL");
    if (!zevgl::EGLImageContext::currentContext().display)
        return QStringLiteral("the window's OpenGL does not come through EGL; on X11, set "
                              "QT_XCB_GL_INTEGRATION=xcb_egl");
    return {};
}

} // namespace

/* What all who show a source have in common. */
class SourceHooks::Resources
{
public:
    /* Of this source; made by the first one who asks. */
    static std::shared_ptr<Resources> of(const MediaSourceBase *source)
    {
        static QMutex mutex;
        static std::map<const MediaSourceBase *, std::weak_ptr<Resources>> all;
        const QMutexLocker lock(&mutex);
        for (auto entry = all.begin(); entry != all.end();)
            entry = entry->second.expired() ? all.erase(entry) : std::next(entry);
        std::weak_ptr<Resources> &known = all[source];
        std::shared_ptr<Resources> result = known.lock();
        if (!result)
            known = result = std::make_shared<Resources>();
        return result;
    }

    QMutex mutex;  // held while a hook runs
    int users = 0; // by the mutex: who has called doBeforeGLSynchronizing() and not given up
    std::atomic<quint64> generation{0};
    std::atomic<int> settling{0}; // releases that the window's thread has not heard of yet
};

/*
 * What the render thread uses. It is shared with the connections, so that a signal that is being delivered
 * while the window's thread detaches still finds it.
 */
struct SourceHooks::Hooked
{
    explicit Hooked(const QSharedPointer<MediaSourceBase> &hookedSource)
        : source(hookedSource), resources(Resources::of(hookedSource.data()))
    {}

    // Often in the render thread, where the source must not go.
    ~Hooked()
    {
        giveUp();
        drop();
    }

    // The source; for one that nobody will prepare any more.
    void drop()
    {
        QCoreApplication *const application = QCoreApplication::instance();
        if (source && application && QThread::currentThread() != source->thread()) {
            QMetaObject::invokeMethod(
                application, [owner = std::move(source)] {}, Qt::QueuedConnection);
        }
        source.reset();
    }

    // It has resources that it alone can release, or shares some.
    bool hasResources() const
    {
        const QMutexLocker lock(&resources->mutex);
        return isUser;
    }

    // Without a release: the scene graph that could do it is gone, or another window's now.
    void giveUp()
    {
        const QMutexLocker lock(&resources->mutex);
        if (isUser)
            --resources->users;
        isUser = false;
    }

    struct Failure
    {
        QString message;
        QString hint;
    };

    // True when the hook was called and did not throw.
    template <typename Hook>
    bool call(Hook hook, std::optional<Failure> *failure)
    {
        if (isBroken)
            return false;
        try {
            ((*source).*hook)();
            return true;
        } catch (const std::exception &error) {
            isBroken = true;
            *failure = {QString::fromUtf8(error.what()), whyNoEgl()};
            return false;
        }
    }

    // These report with the mutex free: whoever hears of it may be led to any of them again.
    template <typename Report>
    bool prepare(Report report)
    {
        std::optional<Failure> failure;
        bool isPrepared = false;
        {
            const QMutexLocker lock(&resources->mutex);
            if (!isUser)
                ++resources->users;
            isUser = true; // also of what a hook that throws has made until then
            isPrepared = call(&MediaSourceBase::doBeforeGLSynchronizing, &failure);
        }
        if (isPrepared)
            told.clear();
        tell(failure, report);
        return isPrepared;
    }

    template <typename Report>
    void finish(Report report)
    {
        std::optional<Failure> failure;
        {
            const QMutexLocker lock(&resources->mutex);
            call(&MediaSourceBase::doAfterGLSynchronizing, &failure);
        }
        tell(failure, report);
    }

    template <typename Report>
    void release(Report report)
    {
        std::optional<Failure> failure;
        {
            const QMutexLocker lock(&resources->mutex);
            if (!isUser)
                return;
            isUser = false;
            if (--resources->users > 0)
                return;
            const bool isKnown = isBroken; // and told already
            isBroken = false;
            ++resources->generation;
            ++resources->settling;
            call(&MediaSourceBase::releaseGLResources, &failure);
            if (isKnown)
                failure.reset();
            isBroken = false; // a new scene graph is a new attempt
            // Behind all frames that were queued before.
            QMetaObject::invokeMethod(
                QCoreApplication::instance(), [common = resources, owner = source] { --common->settling; },
                Qt::QueuedConnection);
        }
        tell(failure, report);
    }

    // A window that is hidden and shown over and over has nothing new to tell.
    template <typename Report>
    void tell(const std::optional<Failure> &failure, Report report)
    {
        if (!failure || failure->message == told)
            return;
        told = failure->message;
        report(failure->message, failure->hint);
    }

    QSharedPointer<MediaSourceBase> source; // null when it was dropped
    const std::shared_ptr<Resources> resources;
    bool isUser = false;    // by the resources' mutex
    bool isBroken = false;  // the render thread only
    bool hasFailed = false; // likewise: said and not taken back
    QString told;           // likewise: what was said last; empty: nothing that still holds
    // After it was detached: of the window that may stop drawing before it synchronizes once more.
    QMetaObject::Connection stopping;
};

namespace {

// In the thread that draws a window, where that is not to be drawn for now: its context is current there, but
// nobody promises it.
class UnseenContext
{
public:
    explicit UnseenContext(QQuickWindow *window)
        : m_context(window->openglContext()), m_before(QOpenGLContext::currentContext()),
          m_surfaceBefore(m_before ? m_before->surface() : nullptr)
    {
        if (!m_context || m_context->thread() != QThread::currentThread())
            return;
        m_isSwitched = m_context != m_before && m_context->makeCurrent(window);
        m_isCurrent = m_isSwitched || m_context == m_before;
    }
    ~UnseenContext()
    {
        if (!m_isSwitched)
            return;
        if (m_before)
            m_before->makeCurrent(m_surfaceBefore);
        else
            m_context->doneCurrent();
    }
    UnseenContext(const UnseenContext &) = delete;
    UnseenContext &operator=(const UnseenContext &) = delete;

    bool isCurrent() const { return m_isCurrent; }

private:
    QOpenGLContext *const m_context;
    QOpenGLContext *const m_before;
    QSurface *const m_surfaceBefore;
    bool m_isSwitched = false;
    bool m_isCurrent = false;
};

void warn(const QString &message, const QString &)
{
    qWarning("LiveVideo: the source cannot release what it has in the GPU: %s", qPrintable(message));
}

} // namespace

/* Releases in the render thread, at the next synchronization or at the window's end. */
class SourceHooks::Release : public QRunnable
{
public:
    explicit Release(std::shared_ptr<Hooked> toRelease) : hooked(std::move(toRelease)) {}
    void run() override
    {
        QObject::disconnect(hooked->stopping);
        hooked->release(warn);
        hooked->drop();
    }

private:
    const std::shared_ptr<Hooked> hooked;
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
    m_hooked = std::make_shared<Hooked>(source);

    // The signals are emitted in the render thread: receivers in the window's thread get them queued.
    const auto hooked = m_hooked;
    const auto report = [this, hooked](const QString &message, const QString &hint) {
        hooked->hasFailed = true;
        emit failed(message, hint);
    };
    connect(
        window, &QQuickWindow::beforeSynchronizing, this,
        [this, hooked, report] {
            if (hooked->prepare(report) && hooked->hasFailed) {
                hooked->hasFailed = false;
                emit recovered();
            }
        },
        Qt::DirectConnection);
    connect(
        window, &QQuickWindow::afterSynchronizing, this, [hooked, report] { hooked->finish(report); },
        Qt::DirectConnection);
    connect(
        window, &QQuickWindow::sceneGraphInvalidated, this, [hooked, report] { hooked->release(report); },
        Qt::DirectConnection);
    // A hidden window may not synchronize for hours, and a camera would go on for nobody.
    connect(
        window, &QQuickWindow::sceneGraphAboutToStop, this,
        [this, window, hooked, report] {
            const UnseenContext context(window);
            hooked->release(report);
            emit released();
        },
        Qt::DirectConnection);
    // Render loops with one context for all windows do not tell when one of several goes.
    connect(window, &QObject::destroyed, this, [hooked] { hooked->giveUp(); });
}

void SourceHooks::detach()
{
    if (m_window) {
        disconnect(m_window, nullptr, this, nullptr);
        if (m_hooked && m_hooked->hasResources())
            releaseSoon(m_window, m_hooked);
    }
    m_window = nullptr;
    m_hooked.reset();
}

// At the next synchronization, or as soon as it is certain that there will be none for now.
void SourceHooks::releaseSoon(QQuickWindow *window, const std::shared_ptr<Hooked> &hooked)
{
    if (!window->isExposed() && window->handle()) {
        // Render loops without a thread of their own do not tell when a window is minimized.
        const UnseenContext context(window);
        if (context.isCurrent()) {
            hooked->release(warn);
            return;
        }
    }
    hooked->stopping = connect(
        window, &QQuickWindow::sceneGraphAboutToStop, window,
        [window, hooked] {
            // NOLINTNEXTLINE(performance-unnecessary-copy-initialization): the connection's own goes with it
            const auto last = hooked;
            const UnseenContext context(window);
            QObject::disconnect(last->stopping);
            last->release(warn);
            last->drop();
        },
        Qt::DirectConnection);
    window->scheduleRenderJob(new Release(hooked), QQuickWindow::BeforeSynchronizingStage);
    window->update();
}

quint64 SourceHooks::generation() const
{
    return m_hooked ? m_hooked->resources->generation.load() : 0;
}

bool SourceHooks::areFramesStale() const
{
    return m_hooked && m_hooked->resources->settling > 0;
}

} // namespace zevqml
