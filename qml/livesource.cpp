#include "livesource.h"

#include "camera.h"
#include "livestream.h"

#include <zevqt-mm/mediaprovider.h>

#include <QFile>
#include <QGuiApplication>
#include <QImageReader>
#include <QScreen>
#include <QtQml>

#include <chrono>
#include <stdexcept>

namespace {

constexpr int retryMs = 2000;   // of a camera that cannot be opened
constexpr int leavingMs = 1500; // less: at the next attempt it is over

double screenRate()
{
    const QScreen *screen = QGuiApplication::primaryScreen();
    // Screens that cannot tell say 0 or something close to it.
    return screen && screen->refreshRate() >= 10.0 ? screen->refreshRate() : 0.0;
}

/* As QFile takes it; empty for none. */
QString pathOf(const QUrl &url)
{
    if (url.scheme() == QLatin1String("qrc"))
        return QLatin1Char(':') + url.path(QUrl::FullyDecoded);
    return url.isLocalFile() ? url.toLocalFile() : url.toString();
}

} // namespace

LiveSource::LiveSource(QObject *parent) : QObject(parent)
{
    m_retry.setSingleShot(true);
    m_retry.setInterval(retryMs);
    connect(&m_retry, &QTimer::timeout, this, &LiveSource::update);
}

// While this is still whole: who shows the stream asks for it when it goes, and finds none.
LiveSource::~LiveSource()
{
    m_stream.reset();
}

void LiveSource::setVideo(const QUrl &url)
{
    if (url == m_video)
        return;
    m_video = url;
    m_isStreamOld = true;
    scheduleUpdate();
    emit videoChanged();
}

void LiveSource::setAudio(const QUrl &url)
{
    if (url == m_audio)
        return;
    m_audio = url;
    m_isStreamOld = true;
    scheduleUpdate();
    emit audioChanged();
}

void LiveSource::setRunning(bool on)
{
    if (on == m_isRunning)
        return;
    m_isRunning = on;
    scheduleUpdate();
    emit runningChanged();
}

void LiveSource::setFrameRate(double rate)
{
    if (rate == m_frameRate)
        return;
    if (!(rate >= 0.0 && rate <= 1000.0)) {
        qmlWarning(this) << "frameRate is 0 (the source's own) to 1000 pictures a second, not " << rate;
        return;
    }
    m_frameRate = rate;
    if (m_stream)
        m_stream->setFrameRate(rate);
    emit frameRateChanged();
}

void LiveSource::setNoSignalImage(const QUrl &url)
{
    if (url == m_noSignalImage)
        return;
    QImageReader reader(pathOf(url));
    if (!url.isEmpty() && !reader.canRead())
        qmlWarning(this) << "cannot read the picture " << url.toString() << ": " << reader.errorString()
                         << "; set noSignalImage to a picture that is there, as PNG or JPEG, or to none";
    m_noSignalImage = url;
    if (url.isEmpty()) { // a provider that had one keeps it
        m_isStreamOld = true;
        scheduleUpdate();
    }
    applyNoSignal();
    emit noSignalImageChanged();
}

void LiveSource::setNoSignalDelay(int seconds)
{
    if (seconds == m_noSignalDelay)
        return;
    if (seconds < 0) {
        qmlWarning(this) << "noSignalDelay is a number of seconds, not " << seconds;
        return;
    }
    m_noSignalDelay = seconds;
    applyNoSignal();
    emit noSignalDelayChanged();
}

LiveStatistics LiveSource::statistics() const
{
    return m_stream ? m_stream->statistics() : LiveStatistics();
}

MediaProvider *LiveSource::provider() const
{
    return m_stream ? m_stream->provider() : nullptr;
}

void LiveSource::setShown(const QObject *item, bool isShown)
{
    const bool wasWanted = isWanted();
    if (isShown)
        m_shownBy.insert(item);
    else
        m_shownBy.remove(item);
    if (isWanted() != wasWanted)
        scheduleUpdate();
}

void LiveSource::setFramePath(const QString &path, const QString &reason)
{
    if (m_stream)
        m_stream->setFramePath(path, reason);
}

void LiveSource::componentComplete()
{
    m_isComplete = true;
    update();
}

// Several properties are often set one after the other, and each alone may name what is not meant.
void LiveSource::scheduleUpdate()
{
    if (m_isUpdatePending)
        return;
    m_isUpdatePending = true;
    QMetaObject::invokeMethod(
        this,
        [this] {
            m_isUpdatePending = false;
            update();
        },
        Qt::QueuedConnection);
}

void LiveSource::update()
{
    if (!m_isComplete)
        return;
    m_retry.stop();
    if (m_isStreamOld) {
        m_isStreamOld = false;
        m_refusal.clear();
        m_isRefusalFinal = false;
        dropStream();
    }
    const bool isCamera = m_video.scheme() == QLatin1String("v4l");
    const bool isNamed = !m_video.isEmpty() || !m_audio.isEmpty();
    // A store is not touched before it is asked for something; a camera is opened at once.
    if (!m_stream && isNamed && !m_isRefusalFinal && (isWanted() || !isCamera))
        makeStream();
    if (m_stream && isCamera && !isWanted())
        dropStream();
    if (m_stream && isWanted() != m_stream->isRunning()) {
        if (isWanted())
            startWaiting();
        m_stream->setRunning(isWanted());
        if (!isWanted())
            emit stopped();
    }
    follow();
}

void LiveSource::dropStream()
{
    if (!m_stream)
        return;
    if (m_stream->camera())
        m_leaving = m_stream->provider()->getVideoSource();
    std::unique_ptr<LiveStream> old = std::move(m_stream);
    emit providerChanged(); // whoever draws lets go first
    old.reset();
    // What has images in the GPU goes with the next synchronization of the window that shows them.
    if (const auto leaving = m_leaving.toStrongRef()) {
        m_leavingLimit.setRemainingTime(leavingMs);
        connect(leaving.data(), &QObject::destroyed, this, &LiveSource::scheduleUpdate);
    }
    if (!m_videoSize.isEmpty()) {
        m_videoSize = QSize(0, 0);
        emit videoSizeChanged();
    }
    emit statisticsChanged();
}

// Until then it would be busy.
bool LiveSource::isCameraLeaving() const
{
    return !m_leaving.isNull() && !m_leavingLimit.hasExpired();
}

void LiveSource::makeStream()
{
    if (m_video.scheme() == QLatin1String("v4l") && isCameraLeaving()) {
        m_refusal.clear();
        m_retry.start();
        return;
    }
    LiveStream::Wishes wishes;
    wishes.video = m_video;
    wishes.audio = m_audio;
    wishes.frameRate = m_frameRate;
    wishes.screenRate = screenRate();
    wishes.remedies = {
        QStringLiteral("set LiveSource.video to one with pictures, and LiveSource.audio to this one"),
        QStringLiteral("set LiveSource.audio to another one, or to none")};
    m_refusal.clear();
    try {
        m_stream = std::make_unique<LiveStream>(wishes);
    } catch (const std::logic_error &error) {
        m_isRefusalFinal = true;
        m_refusal =
            QStringLiteral("%1: %2 (a store is named shm:///NAME, a capture device v4l:///dev/videoN)")
                .arg((m_video.isEmpty() ? m_audio : m_video).toString(), QString::fromUtf8(error.what()));
        return;
    } catch (const std::exception &error) { // a capture device says why it cannot be used, and may come
        m_refusal = QString::fromUtf8(error.what());
        m_retry.start();
        return;
    }
    connect(m_stream.get(), &LiveStream::stateChanged, this, &LiveSource::follow);
    connect(m_stream.get(), &LiveStream::troubleChanged, this, &LiveSource::follow);
    connect(m_stream.get(), &LiveStream::soundTroubleChanged, this, &LiveSource::follow);
    connect(m_stream.get(), &LiveStream::looked, this, &LiveSource::statisticsChanged);
    connect(m_stream->provider(), &MediaProvider::videoReady, this, &LiveSource::follow);
    emit providerChanged();
}

// The provider's delay counts from when it is set to another one.
void LiveSource::startWaiting()
{
    m_stream->provider()->setNoSignalImage(pathOf(m_noSignalImage),
                                           std::chrono::seconds(qint64(m_noSignalDelay) + 1));
    applyNoSignal();
}

void LiveSource::applyNoSignal()
{
    if (m_stream)
        m_stream->provider()->setNoSignalImage(pathOf(m_noSignalImage),
                                               std::chrono::seconds(m_noSignalDelay));
}

void LiveSource::follow()
{
    QString error = m_refusal;
    State state = m_isRefusalFinal || (m_video.isEmpty() && m_audio.isEmpty()) ? NoSource : Waiting;
    if (m_stream && m_stream->isRunning()) {
        error = m_stream->trouble();
        switch (m_stream->state()) {
        case LiveStream::State::Waiting:
            state = Waiting;
            break;
        case LiveStream::State::Live:
            state = Live;
            break;
        case LiveStream::State::Idle:
            state = Idle;
            break;
        case LiveStream::State::NoSignal:
            state = NoSignal;
            break;
        }
    }
    if (m_stream && error.isEmpty())
        error = m_stream->soundTrouble(); // may be heard without being seen
    const QSize size = m_stream ? m_stream->size() : QSize(0, 0);
    if (size != m_videoSize) {
        m_videoSize = size;
        emit videoSizeChanged();
    }
    setErrorString(error);
    setState(state);
}

void LiveSource::setState(State state)
{
    if (state == m_state)
        return;
    m_state = state;
    emit stateChanged();
}

void LiveSource::setErrorString(const QString &text)
{
    if (text == m_errorString)
        return;
    m_errorString = text;
    emit errorStringChanged();
}
