#include "livestream.h"

#include "camera.h"
#include "frameplanes.h"
#include "imagerequests.h"
#include "sound.h"
#include "sourcecheck.h"
#include "wallclock.h"

#include <zevqt-mm/mediaprovider.h>
#include <zevqt-mm/mediasource.h>
#include <zevqt-mm/videotimeline.h>

#include <QAudioBuffer>

namespace {

constexpr int lookIntervalMs = 500;
constexpr long long rateCheckUs = 500000;
constexpr qint64 cameraPauseUs = 500000; // without a frame; most ticks between two have none
constexpr qint64 cameraPauseIntervals = 5;
constexpr qint64 followCheckUs = 200000;
constexpr qint64 followSettledUs = 500000; // the timeline has taken over what it was told

QString pixelFormatName(QVideoFrame::PixelFormat format)
{
    switch (format) {
    case QVideoFrame::Format_YUV420P:
        return QStringLiteral("yuv420p");
    case QVideoFrame::Format_NV12:
        return QStringLiteral("nv12");
    default:
        return QStringLiteral("format %1").arg(int(format));
    }
}

bool isCamera(const QUrl &url)
{
    return url.scheme() == QLatin1String("v4l") && !url.path(QUrl::FullyDecoded).isEmpty();
}

// A camera beside whose pictures there is sound of a store. With audio of its own a provider would ask for
// video alone, which a camera does not answer.
bool hasSoundBeside(const QUrl &video, const QUrl &audio)
{
    return isCamera(video) && !audio.isEmpty() &&
           audio.path(QUrl::FullyDecoded) !=
               video.path(QUrl::FullyDecoded); // the same name is the same source
}

// That of such a camera; null: none. Another provider makes it, which refuses what any other would.
QSharedPointer<MediaSourceBase> soundBeside(const QUrl &video, const QUrl &audio)
{
    return hasSoundBeside(video, audio) ? MediaProvider(QUrl(), audio).getAudioSource()
                                        : QSharedPointer<MediaSourceBase>();
}

} // namespace

LiveStream::LiveStream(const Wishes &wishes, QObject *parent)
    : QObject(parent), m_wishes(wishes), m_wishedRate(wishes.frameRate),
      m_soundSource(soundBeside(wishes.video, wishes.audio)),
      m_provider(new MediaProvider(wishes.video, m_soundSource ? QUrl() : wishes.audio)),
      m_source(m_provider->getVideoSource()), m_camera(Camera::of(m_source)), m_rate(wishes.screenRate)
{
    m_monotonic.start();
    m_looks.setInterval(lookIntervalMs);
    connect(&m_looks, &QTimer::timeout, this, &LiveStream::look);
    setFrameRate(m_wishedRate);

    connect(m_provider.get(), &MediaProvider::videoReady, this, &LiveStream::onVideo);
    connect(m_provider.get(), &MediaProvider::imageReady, this, &LiveStream::onImage);
    connect(m_provider.get(), &MediaProvider::videoIdle, this, &LiveStream::onIdle);
    if (m_source)
        countAnswers();
    if (wishes.images && m_source) {
        m_imageRequests = std::make_unique<ImageRequests>(m_provider.get());
        // Queued behind the provider's own handler, which has said by then when it is no signal.
        connect(
            m_source.data(), &MediaSourceBase::imageReady, this,
            [this](const QImage &image) {
                if (image.isNull() && m_state == State::Live)
                    onInterruption(State::Idle);
            },
            Qt::QueuedConnection);
    } else {
        m_provider->enableVideoFrames();
    }
    connectSound(); // after the above, which takes all connections of the ticks away
}

LiveStream::~LiveStream()
{
    m_provider->setRunning(false);
    disconnect(m_provider.get(), nullptr, this, nullptr);
}

// The provider does not tell of every empty answer (images have no idle signal), so they are counted where
// they are made: in the tick thread.
void LiveStream::countAnswers()
{
    const auto count = [this](bool valid) {
        if (valid) {
            m_seen = true;
            ++m_answered;
        } else
            ++(m_seen ? m_emptyAfter : m_emptyBefore);
    };
    connect(
        m_source.data(), &MediaSourceBase::videoReady, this,
        [count](const QVideoFrame &frame) { count(frame.isValid()); }, Qt::DirectConnection);
    connect(
        m_source.data(), &MediaSourceBase::imageReady, this,
        [count](const QImage &image) { count(!image.isNull()); }, Qt::DirectConnection);
}

void LiveStream::connectSound()
{
    if (!m_soundSource) {
        connect(m_provider.get(), &MediaProvider::audioReady, this, &LiveStream::onAudio);
        m_soundSource = m_provider->getAudioSource() ? m_provider->getAudioSource() : m_source;
        return;
    }
    connect(m_soundSource.data(), &MediaSourceBase::audioReady, this, &LiveStream::onAudio);
    connect(
        m_provider->getTimeline(), &VideoTimeline::tick, m_soundSource.data(),
        [beside = m_soundSource.data()] { beside->requestAudio(0); }, Qt::DirectConnection);
}

void LiveStream::setRunning(bool on)
{
    if (on == m_isRunning)
        return;
    m_isRunning = on;
    m_isPaused = !on;
    m_statistics.paused();
    if (on) {
        setTrouble(QString());
        setState(State::Waiting);
    }
    updateLooks();
    m_provider->setRunning(on);
}

void LiveStream::setFrameRate(double rate)
{
    m_wishedRate = rate;
    if (rate > 0.0)
        setTickRate(rate);
    else if (m_camera)
        setTickRate(m_camera->tickRate(m_wishes.screenRate));
    else
        setTickRate(m_rate.rate() > 0.0 ? m_rate.rate() : m_tickRate);
}

void LiveStream::setImageSize(const QSize &size)
{
    m_imageSize = size;
    if (m_wishes.images && m_source && !size.isEmpty())
        m_provider->setRequestedFrameSize(size);
}

void LiveStream::setSound(const Sound *sound)
{
    if (m_sound)
        disconnect(m_sound, nullptr, this, nullptr);
    m_sound = sound;
    updateLooks();
    if (!sound)
        return;
    connect(sound, &Sound::started, this, [this] { m_follower.soundStarted(); });
    connect(sound, &Sound::heard, this, &LiveStream::onHeard);
}

void LiveStream::setFramePath(const QString &path, const QString &reason)
{
    // The no-signal picture takes another path; what is told is that of the source's frames. Of a picture
    // that has become idle too: nothing is told again when the next one comes.
    if (m_state == State::Waiting || m_state == State::NoSignal)
        return;
    m_framePath = path;
    m_framePathReason = reason;
}

void LiveStream::onVideo(const QVideoFrame &frame)
{
    if (m_isPaused)
        return;
    if (zevqml::isStandIn(frame))
        return onInterruption(State::NoSignal);
    m_size = frame.size();
    m_pixelFormat = pixelFormatName(frame.pixelFormat());
    m_ownPath = zevqml::hasReadablePlanes(frame) ? QStringLiteral("mapped") : QStringLiteral("gpu");
    onPicture(m_camera ? m_camera->lastCapturedAt(wallClockUs()) : frame.startTime());
}

void LiveStream::onImage(const QImage &image)
{
    if (m_isPaused)
        return;
    // The converter writes the frame's time into its images; the no-signal picture has none.
    bool timed = false;
    const long long timestamp = image.text(QStringLiteral("pts")).toLongLong(&timed);
    if (!timed)
        return onInterruption(State::NoSignal);
    m_size = image.size();
    m_pixelFormat =
        image.format() == QImage::Format_RGB16 ? QStringLiteral("rgb16") : QStringLiteral("argb32");
    m_ownPath = QStringLiteral("image");
    onPicture(timestamp);
}

void LiveStream::onPicture(long long timestamp)
{
    const long long now = wallClockUs();
    m_lastPicture = monotonicUs();
    const auto status = m_source->getVideoStatus();
    const long long interval = m_camera ? m_camera->frameIntervalUs() : status.frameInterval;
    m_jitterUs = status.jitter;
    m_statistics.handedOut(now, timestamp, status.timestamps, interval);
    if (m_sound && m_follower.hasTarget() && m_sound->heardAge().isKnown(now)) {
        m_follower.handedOut(monotonicUs(), now - timestamp);
        if (monotonicUs() - m_followed > followSettledUs)
            m_offsets.add(timestamp - (now - m_sound->heardAge().age()));
    }
    setTrouble(QString());
    setState(State::Live);

    if (now - m_rateChecked < rateCheckUs && now >= m_rateChecked)
        return;
    m_rateChecked = now;
    updateTickRate(interval);
    if (m_imageSize.isEmpty() && m_wishes.images) {
        const QSize size = m_provider->getVideoFrameSize();
        if (!size.isEmpty())
            m_provider->setRequestedFrameSize(size);
    }
}

void LiveStream::onAudio(const QAudioBuffer &buffer)
{
    if (buffer.isValid())
        ++m_audioBuffers;
    emit audioReady(buffer);
}

void LiveStream::onHeard(qint64 now)
{
    const AudioPlaybackAge &heard = m_sound->heardAge();
    if (!heard.isKnown(now) || !m_source || m_camera) // a camera has no older frames to wait with
        return;
    VideoTimeline *timeline = m_provider->getTimeline();
    if (monotonicUs() >= m_followDue) {
        m_followDue = monotonicUs() + followCheckUs;
        const auto status = m_source->getVideoStatus();
        const PictureFollower::Store store =
            status.timestamps.isEmpty()
                ? PictureFollower::Store{0, 0, 0}
                : PictureFollower::Store{now - status.timestamps.last(),
                                         status.timestamps.last() - status.timestamps.first(),
                                         status.frameInterval};
        if (m_follower.update(monotonicUs(), heard.age(), store)) {
            m_followed = monotonicUs();
            timeline->stop();
            if (m_provider->running())
                timeline->start();
        }
    }
    // Only the first one after a stop counts, whoever stopped it.
    if (m_follower.hasTarget())
        timeline->adjustReadPosition(wallClockUs() - m_follower.target());
}

// A camera has nothing for most ticks: what counts is that a while has passed.
void LiveStream::onIdle()
{
    if (m_isPaused)
        return;
    if (m_camera && monotonicUs() - m_lastPicture <
                        qMax(cameraPauseUs, cameraPauseIntervals * m_camera->frameIntervalUs()))
        return;
    onInterruption(State::Idle);
}

void LiveStream::onInterruption(State state)
{
    if (state == State::Idle)
        m_statistics.idle();
    else
        m_statistics.noSignal();
    if (state == State::NoSignal || m_state != State::Waiting)
        setState(state);
}

void LiveStream::setState(State state)
{
    if (state == m_state)
        return;
    m_state = state;
    emit stateChanged();
}

void LiveStream::setTrouble(const QString &text)
{
    if (text == m_trouble)
        return;
    m_trouble = text;
    emit troubleChanged();
}

void LiveStream::setSoundTrouble(const QString &text)
{
    if (text == m_soundTrouble)
        return;
    m_soundTrouble = text;
    emit soundTroubleChanged();
}

void LiveStream::setTickRate(double rate)
{
    m_tickRate = rate;
    m_statistics.setTickIntervalUs(1e6 / rate);
    m_provider->setFrameRate(rate);
    emit tickRateChanged();
}

void LiveStream::updateTickRate(long long sourceIntervalUs)
{
    if (m_wishedRate > 0.0)
        return;
    const double rate = m_camera ? m_camera->tickRate(m_wishes.screenRate) : m_rate.update(sourceIntervalUs);
    if (rate > 0.0 && rate != m_tickRate)
        setTickRate(rate);
}

// Sound is played, and may be missing, while the picture is not seen.
void LiveStream::updateLooks()
{
    if (m_isRunning || m_sound) {
        if (!m_looks.isActive())
            m_looks.start();
        return;
    }
    m_looks.stop();
    m_newestSound = 0;
    setSoundTrouble(QString());
}

void LiveStream::look()
{
    if (m_source && m_isRunning) {
        checkSource();
        checkReadPoint();
    }
    checkSound();
    emit looked();
}

// A source that is waited for may be missing for good: whoever waits is told what for.
void LiveStream::checkSource()
{
    if (m_state == State::Live || m_checks++ % 2 != 0)
        return;
    setTrouble(m_camera ? m_camera->trouble() : whyNoPicture(m_wishes.video, m_wishes.remedies));
}

// Of sound that nobody named, none may be meant.
void LiveStream::checkSound()
{
    auto *source = qobject_cast<MediaSource *>(m_soundSource.data());
    if (m_wishes.audio.isEmpty() || !source)
        return;
    const qint64 newest = source->getAudioLastTimestamp();
    const bool goesOn = newest != m_newestSound && newest > 0;
    m_newestSound = newest;
    if (goesOn)
        setSoundTrouble(QString());
    else if (m_soundChecks++ % 2 == 0)
        setSoundTrouble(whyNoSound(m_wishes.audio, m_wishes.remedies));
}

void LiveStream::checkReadPoint()
{
    const auto status = m_source->getVideoStatus();
    const qint64 newest = status.timestamps.isEmpty() ? 0 : status.timestamps.last();
    if (!m_readPoint.look(m_answered, m_emptyBefore + m_emptyAfter, newest))
        return;
    // Only a report after a stop makes the timeline compute its read offset anew; that of the newest frame
    // asks for no more delay than usual.
    VideoTimeline *timeline = m_provider->getTimeline();
    timeline->stop();
    timeline->adjustReadPosition(newest);
    timeline->start();
}

LiveStatistics LiveStream::statistics() const
{
    const FrameStatistics::Figures figures = m_statistics.figures(wallClockUs());
    LiveStatistics result;
    result.sourceIntervalUs = figures.sourceIntervalUs;
    result.sourceRate = figures.sourceIntervalUs > 1000 ? 1e6 / double(figures.sourceIntervalUs) : 0.0;
    result.shownRate = figures.recentFps;
    result.meanRate = figures.fps;
    result.tickRate = m_tickRate;
    result.frames = figures.frames;
    result.distinct = figures.distinct;
    result.repeated = figures.repeated;
    result.skipped = figures.skipped;
    result.lapped = figures.lapped;
    result.backward = figures.backward;
    result.unanswered = m_emptyAfter;
    result.unansweredBeforeFirst = m_emptyBefore;
    result.idle = figures.idle;
    result.noSignal = figures.noSignal;
    result.ageP50Ms = figures.latencyP50Ms;
    result.ageP95Ms = figures.latencyP95Ms;
    result.ageP99Ms = figures.latencyP99Ms;
    result.ageMaxMs = figures.latencyMaxMs;
    result.jitterMs = double(m_jitterUs) / 1000.0;
    result.avOffsets = m_offsets.count();
    if (result.avOffsets > 0) {
        result.avOffsetMs = m_offsets.medianMs();
        result.avOffsetP95Ms = m_offsets.sizePercentileMs(0.95);
    }
    if (m_sound) {
        const Sound::Figures sound = m_sound->figures();
        result.audioUnderruns = sound.silenceEpisodes;
        result.audioSilenceMs = double(sound.silenceUs) / 1000.0;
    }
    if (const auto *store = qobject_cast<const MediaSource *>(m_source.data()))
        result.locksHeld = store->getHeldFrames();
    if (m_ownPath.isEmpty())
        return result;
    result.size = m_size;
    result.pixelFormat = m_pixelFormat;
    // Images are converted before anybody draws them.
    result.framePath = m_framePath.isEmpty() || m_wishes.images ? m_ownPath : m_framePath;
    result.framePathReason = m_framePathReason;
    return result;
}

quint64 LiveStream::withheldImages() const
{
    return m_imageRequests ? m_imageRequests->withheld() : 0;
}
