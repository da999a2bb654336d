#include "viewer.h"

#include "frameimage.h"
#include "frameplanes.h"
#include "imagerequests.h"
#include "sourcecheck.h"
#include "wallclock.h"

#include <zevqt-mm/mediaprovider.h>
#include <zevqt-mm/mediasource.h>
#include <zevqt-mm/storeframe.h>
#include <zevqt-mm/videotimeline.h>

#include <QAudioBuffer>
#include <QTimer>

#include <chrono>

namespace {

constexpr long long rateCheckUs = 500000;
constexpr int storeOpenMs = 100;
constexpr qint64 cameraPauseUs = 500000; // without a frame; most ticks between two have none
constexpr qint64 cameraPauseIntervals = 5;
constexpr qint64 followCheckUs = 200000;
constexpr qint64 followSettledUs = 500000; // the timeline has taken over what it was told
constexpr std::chrono::seconds noSignalDelay{5};

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
    return url.scheme() == QLatin1String("v4l");
}

QString colorsName(const QVideoFrame &frame)
{
    using zevqml::YuvColors;
    const YuvColors stated = zevqml::frameColors(frame);
    const YuvColors used = zevqml::resolve(stated, frame.size());
    QString text = used.matrix == YuvColors::Matrix::Bt601    ? QStringLiteral("BT.601")
                   : used.matrix == YuvColors::Matrix::Bt2020 ? QStringLiteral("BT.2020")
                                                              : QStringLiteral("BT.709");
    text += used.range == YuvColors::Range::Limited ? QStringLiteral(" limited") : QStringLiteral(" full");
    return stated == used ? text : text + QStringLiteral(" (assumed)");
}

} // namespace

Viewer::Viewer(const Options &options, double screenRate, QObject *parent)
    : QObject(parent), m_options(options), m_screenRate(screenRate),
      // With audio of its own a provider would ask for video alone, which a camera does not answer.
      m_provider(new MediaProvider(options.video, isCamera(options.video) ? QUrl() : options.audio)),
      m_camera(Camera::of(m_provider->getVideoSource())), m_rate(screenRate)
{
    m_provider->setNoSignalImage(options.noSignal.isEmpty() ? QStringLiteral(":/viewer/nosignal.png")
                                                            : options.noSignal,
                                 noSignalDelay);
    setTickRate(options.fps > 0.0 ? options.fps : m_camera ? m_camera->tickRate(screenRate) : m_tickRate);

    connect(m_provider.get(), &MediaProvider::videoReady, this, &Viewer::onVideo);
    connect(m_provider.get(), &MediaProvider::imageReady, this, &Viewer::onImage);
    connect(m_provider.get(), &MediaProvider::videoIdle, this, &Viewer::onIdle);
    m_monotonic.start();
    m_sound = std::make_unique<Sound>(soundSource(), options);
    connect(m_sound.get(), &Sound::started, this, [this] { m_follower.soundStarted(); });
    connect(m_sound.get(), &Sound::heard, this, &Viewer::onHeard);

    // The provider does not tell of every empty answer (images have no idle signal), so they are counted
    // where they are made: in the tick thread.
    const auto count = [this](bool valid) {
        if (valid) {
            m_seen = true;
            ++m_answered;
        } else
            ++(m_seen ? m_emptyAfter : m_emptyBefore);
    };
    const auto source = m_provider->getVideoSource();
    connect(
        source.data(), &MediaSourceBase::videoReady, this,
        [count](const QVideoFrame &frame) { count(frame.isValid()); }, Qt::DirectConnection);
    connect(
        source.data(), &MediaSourceBase::imageReady, this,
        [count](const QImage &image) { count(!image.isNull()); }, Qt::DirectConnection);

    if (options.frames == Options::Frames::Image) {
        m_imageRequests = std::make_unique<ImageRequests>(m_provider.get());
        // Queued behind the provider's own handler, which has said by then when it is no signal.
        connect(
            source.data(), &MediaSourceBase::imageReady, this,
            [this](const QImage &image) {
                if (image.isNull() && m_state == State::Live)
                    onInterruption(State::Idle);
            },
            Qt::QueuedConnection);
    } else {
        m_provider->enableVideoFrames();
    }
    if (m_besideCamera) // after the above, which takes all connections of the ticks away
        connect(
            m_provider->getTimeline(), &VideoTimeline::tick, m_besideCamera.data(),
            [audio = m_besideCamera.data()] { audio->requestAudio(0); }, Qt::DirectConnection);

    auto *refresh = new QTimer(this);
    connect(refresh, &QTimer::timeout, this, &Viewer::refreshStatistics);
    refresh->start(500);
}

Viewer::~Viewer()
{
    stop();
    // Qt's sound backend handles events while it closes: pictures may still come here, so that everything
    // that they go to has to be there.
    m_sound.reset();
    disconnect(m_provider.get(), nullptr, this, nullptr);
}

// Where there is sound, and who gives it to the meters.
QSharedPointer<MediaSourceBase> Viewer::soundSource()
{
    if (!m_camera || m_options.audio.isEmpty()) {
        connect(m_provider.get(), &MediaProvider::audioReady, this, &Viewer::onAudio);
        // Without a store of its own, sound comes from where the picture comes from.
        return m_provider->getAudioSource() ? m_provider->getAudioSource() : m_provider->getVideoSource();
    }
    m_besideCamera.reset(new MediaSource(m_options.audio.path(QUrl::FullyDecoded).mid(1), storeOpenMs));
    connect(m_besideCamera.data(), &MediaSourceBase::audioReady, this, &Viewer::onAudio);
    return m_besideCamera;
}

QObject *Viewer::providerObject() const
{
    return m_provider.get();
}

void Viewer::start()
{
    m_provider->setRunning(true);
    m_sound->start(m_tickRate);
}

void Viewer::stop()
{
    m_sound->stop();
    m_provider->setRunning(false);
}

void Viewer::setImageSize(const QSize &size)
{
    m_imageSize = size;
    if (m_options.frames == Options::Frames::Image && !size.isEmpty())
        m_provider->setRequestedFrameSize(size);
}

void Viewer::setFramePath(const QString &path, const QString &reason)
{
    // The no-signal picture takes another path; what is told is that of the source's frames. Of a picture
    // that has become idle too: nothing is told again when the next one comes.
    if (m_state == State::Waiting || m_state == State::NoSignal)
        return;
    m_framePath = path;
    m_framePathReason = reason;
}

void Viewer::onVideo(const QVideoFrame &frame)
{
    if (!frame.isValid())
        return onInterruption(State::NoSignal); // the picture that stands in could not be read
    if (StoreFrame::of(frame).planeCount == 0 && frame.handleType() == QAbstractVideoBuffer::NoHandle &&
        !zevqml::isPlanarYuv(frame.pixelFormat()))
        return onInterruption(State::NoSignal);
    m_lastFrame = frame;
    onPicture(m_camera ? m_camera->lastCapturedAt(wallClockUs()) : frame.startTime());
}

void Viewer::onImage(const QImage &image)
{
    // The converter writes the frame's time into its images; the no-signal picture has none.
    bool timed = false;
    const long long timestamp = image.text(QStringLiteral("pts")).toLongLong(&timed);
    if (!timed)
        return onInterruption(State::NoSignal);
    m_lastImage = image;
    onPicture(timestamp);
}

void Viewer::onPicture(long long timestamp)
{
    m_state = State::Live;
    m_missing.clear();
    const long long now = wallClockUs();
    m_lastPicture = monotonicUs();
    const auto status = m_provider->getVideoSource()->getVideoStatus();
    const long long interval = m_camera ? m_camera->frameIntervalUs() : status.frameInterval;
    m_statistics.handedOut(now, timestamp, status.timestamps, interval);
    const AudioPlaybackAge &heard = m_sound->heardAge();
    if (m_follower.hasTarget() && heard.isKnown(now)) {
        m_follower.handedOut(monotonicUs(), now - timestamp);
        if (monotonicUs() - m_followed > followSettledUs)
            m_offsets.add(timestamp - (now - heard.age()));
    }

    if (now - m_rateChecked < rateCheckUs && now >= m_rateChecked)
        return;
    m_rateChecked = now;
    updateTickRate(interval);
    if (m_imageSize.isEmpty() && m_options.frames == Options::Frames::Image) {
        const QSize size = m_provider->getVideoFrameSize();
        if (!size.isEmpty())
            m_provider->setRequestedFrameSize(size);
    }
}

// The levels are those of the sound that belongs to the picture, also where nothing plays it.
void Viewer::onAudio(const QAudioBuffer &buffer)
{
    if (buffer.isValid())
        ++m_audioBuffers;
    m_meter.update(monotonicUs(), getRmsMaxDecibels(buffer));
    emit levelsChanged();
}

void Viewer::onHeard(qint64 now)
{
    const AudioPlaybackAge &heard = m_sound->heardAge();
    if (!heard.isKnown(now) || m_camera) // a camera has no older frames to wait with
        return;
    VideoTimeline *timeline = m_provider->getTimeline();
    if (monotonicUs() >= m_followDue) {
        m_followDue = monotonicUs() + followCheckUs;
        const auto status = m_provider->getVideoSource()->getVideoStatus();
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
void Viewer::onIdle()
{
    if (m_camera && monotonicUs() - m_lastPicture <
                        qMax(cameraPauseUs, cameraPauseIntervals * m_camera->frameIntervalUs()))
        return;
    onInterruption(State::Idle);
}

void Viewer::onInterruption(State state)
{
    m_state = state;
    if (state == State::Idle)
        m_statistics.idle();
    else
        m_statistics.noSignal();
}

void Viewer::setTickRate(double rate)
{
    m_tickRate = rate;
    m_statistics.setTickIntervalUs(1e6 / rate);
    m_provider->setFrameRate(rate);
}

void Viewer::updateTickRate(long long sourceIntervalUs)
{
    if (m_options.fps > 0.0)
        return;
    const double rate = m_camera ? m_camera->tickRate(m_screenRate) : m_rate.update(sourceIntervalUs);
    if (rate > 0.0 && rate != m_tickRate)
        setTickRate(rate);
}

void Viewer::refreshStatistics()
{
    if (m_provider->running()) {
        checkSource();
        checkReadPoint();
    }
    emit statisticsChanged();
    if (m_state != State::Live && !m_meter.channels().isEmpty())
        onAudio(QAudioBuffer()); // a source that is gone sends nothing any more, and its meter is to fall
}

// A source that is waited for may be missing for good: whoever waits is told what for.
void Viewer::checkSource()
{
    if (m_state == State::Live || (m_state == State::Idle && !m_camera) || m_checks++ % 2 != 0)
        return;
    const QString missing = m_camera ? m_camera->trouble() : whyNoPicture(m_options.video);
    if (missing == m_missing)
        return;
    m_missing = missing;
    if (!missing.isEmpty())
        emit problem(missing + QStringLiteral(" (waiting)"));
}

void Viewer::checkReadPoint()
{
    const auto status = m_provider->getVideoSource()->getVideoStatus();
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

ViewerFigures Viewer::figures() const
{
    ViewerFigures result;
    result.frames = m_statistics.figures(wallClockUs());
    result.invalid = m_emptyAfter;
    result.invalidBeforeFirst = m_emptyBefore;
    result.withheld = m_imageRequests ? m_imageRequests->withheld() : 0;
    result.audioBuffers = m_audioBuffers;
    result.tickRate = m_tickRate;
    result.pixelFormat = QStringLiteral("none");
    result.framePath = QStringLiteral("none");
    if (!m_lastImage.isNull()) {
        result.size = m_lastImage.size();
        result.pixelFormat =
            m_lastImage.format() == QImage::Format_RGB16 ? QStringLiteral("rgb16") : QStringLiteral("argb32");
        result.framePath = QStringLiteral("image");
    } else if (m_lastFrame.isValid()) {
        result.size = m_lastFrame.size();
        result.pixelFormat = pixelFormatName(m_lastFrame.pixelFormat());
        result.framePath =
            zevqml::hasReadablePlanes(m_lastFrame) ? QStringLiteral("mapped") : QStringLiteral("gpu");
        if (!m_framePath.isEmpty())
            result.framePath = m_framePath;
    }
    result.framePathReason = m_framePathReason;
    result.sound = m_sound->figures();
    result.offsets = m_offsets.count();
    result.offsetP50Ms = m_offsets.medianMs();
    result.offsetP95Ms = m_offsets.sizePercentileMs(0.95);
    result.historyShortUs = m_follower.shortfall();
    if (m_camera) {
        result.camera = m_camera->statistics();
        result.cameraTrouble = m_camera->trouble();
    }
    return result;
}

QVariantList Viewer::levels() const
{
    QVariantList result;
    for (const LevelMeter::Channel &channel : m_meter.channels())
        result << QVariant(QVariantList{channel.rms, channel.peak, channel.hold});
    return result;
}

QString Viewer::stateText() const
{
    switch (m_state) {
    case State::Waiting:
        break;
    case State::Live:
        return QStringLiteral("live");
    case State::Idle:
        return QStringLiteral("idle");
    case State::NoSignal:
        return QStringLiteral("no signal");
    }
    return QStringLiteral("waiting");
}

QString Viewer::cameraTrouble() const
{
    return m_camera ? m_missing : QString();
}

QString Viewer::statisticsText() const
{
    const ViewerFigures now = figures();
    const FrameStatistics::Figures &f = now.frames;
    const auto fixed = [](double value, int digits) { return QString::number(value, 'f', digits); };

    QStringList lines;
    lines << m_options.video.toString() + QStringLiteral("   ") + stateText();
    if (!m_missing.isEmpty())
        lines << m_missing;
    if (now.size.isValid()) {
        lines << QStringLiteral("%1 × %2  %3")
                     .arg(now.size.width())
                     .arg(now.size.height())
                     .arg(now.pixelFormat);
        if (m_lastFrame.isValid())
            lines.last() +=
                QStringLiteral("  ") + (m_camera ? m_camera->colorsName() : colorsName(m_lastFrame));
    }
    lines << QStringLiteral("shown %1 fps   ticks %2").arg(fixed(f.recentFps, 2), fixed(now.tickRate, 2));
    if (f.sourceIntervalUs > 1000)
        lines.last() += QStringLiteral("   source %1").arg(fixed(1e6 / double(f.sourceIntervalUs), 2));
    lines << QStringLiteral("frames %1   repeated %2   skipped %3")
                 .arg(f.frames)
                 .arg(f.repeated)
                 .arg(f.skipped);
    lines
        << QStringLiteral("invalid %1   idle %2   no signal %3").arg(now.invalid).arg(f.idle).arg(f.noSignal);
    lines << QStringLiteral("latency %1 ms   p95 %2   max %3")
                 .arg(fixed(f.latencyP50Ms, 1), fixed(f.latencyP95Ms, 1), fixed(f.latencyMaxMs, 1));
    QString reason = now.framePathReason;
    if (reason.startsWith(QLatin1String("no: "))) // a store's answer to whether it has DMA-bufs
        reason.remove(0, 4);
    lines << QStringLiteral("path %1").arg(now.framePath);
    if (!reason.isEmpty())
        lines.last() += QStringLiteral(": ") + reason;
    if (now.camera)
        lines << QStringLiteral("camera %1   replaced %2   damaged %3   restarts %4   returns %5")
                     .arg(now.camera->captured)
                     .arg(now.camera->skipped)
                     .arg(now.camera->damaged)
                     .arg(now.camera->restarts)
                     .arg(now.camera->returns);
    lines << soundText(now);
    return lines.join(QLatin1Char('\n'));
}

QStringList Viewer::soundText(const ViewerFigures &now) const
{
    const Sound::Figures &sound = now.sound;
    QStringList lines;
    if (!sound.isWanted)
        return lines;
    const auto ms = [](qint64 us) { return QString::number(double(us) / 1000.0, 'f', 0); };
    if (sound.starts == 0)
        return {sound.problem.isEmpty() ? QStringLiteral("no sound")
                                        : QStringLiteral("no sound: no audio device")};
    lines << QStringLiteral("sound %1 Hz  %2%3")
                 .arg(sound.rate)
                 .arg(sound.isPlaying ? QString() : QStringLiteral("STOPPED "), sound.device.left(40));
    lines << QStringLiteral("delay %1 ms   silence %2 ms   restarts %3")
                 .arg(sound.delayUs >= 0 ? ms(sound.delayUs) : QStringLiteral("?"), ms(sound.silenceUs))
                 .arg(sound.starts - 1);
    if (now.offsets > 0)
        lines << QStringLiteral("picture against sound %1 ms   p95 %2")
                     .arg(QString::number(now.offsetP50Ms, 'f', 1), QString::number(now.offsetP95Ms, 'f', 1));
    if (now.historyShortUs > 0)
        lines << QStringLiteral("history too short: the sound is %1 ms late").arg(ms(now.historyShortUs));
    return lines;
}

QImage Viewer::snapshot() const
{
    if (!m_lastImage.isNull())
        return m_lastImage;
    return zevqml::frameToImage(m_lastFrame, zevqml::frameColors(m_lastFrame));
}
