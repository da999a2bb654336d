#include "viewer.h"

#include "camera.h"
#include "frameimage.h"
#include "frameplanes.h"

#include <zevqt-mm/mediaprovider.h>

#include <QAudioBuffer>

#include <chrono>

namespace {

constexpr std::chrono::seconds noSignalDelay{5};

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

LiveStream::Wishes wishesOf(const Options &options, double screenRate)
{
    LiveStream::Wishes wishes;
    wishes.video = options.video;
    wishes.audio = options.audio;
    wishes.frameRate = options.fps;
    wishes.screenRate = screenRate;
    wishes.images = options.frames == Options::Frames::Image;
    wishes.remedies = {QStringLiteral("name one with pictures, and this one with --audio"),
                       QStringLiteral("name another one with --audio, or none")};
    return wishes;
}

Sound::Wishes soundWishesOf(const Options &options)
{
    Sound::Wishes wishes;
    wishes.device = options.audioDevice;
    wishes.volume = options.volume;
    wishes.isMuted = options.mute;
    wishes.remedies = {QStringLiteral("start the sound server; --audio-device none keeps this quiet"),
                       QStringLiteral("--list-audio-devices prints the names"),
                       QStringLiteral("--audio-device names another one")};
    return wishes;
}

} // namespace

Viewer::Viewer(const Options &options, double screenRate, QObject *parent)
    : QObject(parent), m_options(options), m_stream(new LiveStream(wishesOf(options, screenRate)))
{
    provider()->setNoSignalImage(options.noSignal.isEmpty() ? QStringLiteral(":/viewer/nosignal.png")
                                                            : options.noSignal,
                                 noSignalDelay);
    m_monotonic.start();
    m_sound = std::make_unique<Sound>(m_stream->soundSource(), soundWishesOf(options));
    m_stream->setSound(m_sound.get());

    connect(provider(), &MediaProvider::videoReady, this, &Viewer::onVideo);
    connect(provider(), &MediaProvider::imageReady, this, &Viewer::onImage);
    connect(m_stream.get(), &LiveStream::audioReady, this, &Viewer::onAudio);
    connect(m_stream.get(), &LiveStream::looked, this, &Viewer::refresh);
    connect(m_stream.get(), &LiveStream::troubleChanged, this, &Viewer::sayTrouble);
    connect(m_stream.get(), &LiveStream::stateChanged, this, &Viewer::sayTrouble);
    connect(m_stream.get(), &LiveStream::soundTroubleChanged, this, [this] {
        if (!m_stream->soundTrouble().isEmpty())
            emit problem(QStringLiteral("there is no sound: %1 (waiting)").arg(m_stream->soundTrouble()));
    });
}

Viewer::~Viewer()
{
    stop();
    // Qt's sound backend handles events while it closes: pictures may still come here, so that everything
    // that they go to has to be there.
    m_stream->setSound(nullptr);
    m_sound.reset();
    disconnect(provider(), nullptr, this, nullptr);
}

QObject *Viewer::providerObject() const
{
    return provider();
}

void Viewer::start()
{
    m_stream->setRunning(true);
    m_sound->start(m_stream->tickRate());
}

void Viewer::stop()
{
    m_sound->stop();
    m_stream->setRunning(false);
}

void Viewer::setImageSize(const QSize &size)
{
    m_stream->setImageSize(size);
}

void Viewer::setFramePath(const QString &path, const QString &reason)
{
    m_stream->setFramePath(path, reason);
}

// A publisher that is started again is not worth a line; one that stays away is. The overlay has both.
void Viewer::sayTrouble()
{
    if (m_stream->state() == LiveStream::State::Idle && !m_stream->camera())
        return;
    const QString trouble = m_stream->trouble();
    if (trouble != m_saidTrouble && !trouble.isEmpty())
        emit problem(trouble + QStringLiteral(" (waiting)"));
    m_saidTrouble = trouble;
}

void Viewer::onVideo(const QVideoFrame &frame)
{
    if (!zevqml::isStandIn(frame))
        m_lastFrame = frame;
}

void Viewer::onImage(const QImage &image)
{
    if (!image.text(QStringLiteral("pts")).isEmpty()) // the no-signal picture has no time
        m_lastImage = image;
}

// The levels are those of the sound that belongs to the picture, also where nothing plays it.
void Viewer::onAudio(const QAudioBuffer &buffer)
{
    m_meter.update(monotonicUs(), getRmsMaxDecibels(buffer));
    emit levelsChanged();
}

void Viewer::refresh()
{
    if (m_sound) // the rate of the ticks is the source's, which is not known at first
        m_sound->setReportRate(m_stream->tickRate());
    emit statisticsChanged();
    // A source that is gone sends nothing any more, and its meter is to fall.
    if (m_stream->state() != LiveStream::State::Live && !m_meter.channels().isEmpty())
        onAudio(QAudioBuffer());
}

ViewerFigures Viewer::figures() const
{
    ViewerFigures result;
    result.live = m_stream->statistics();
    result.withheld = m_stream->withheldImages();
    result.audioBuffers = m_stream->audioBuffers();
    result.sound = m_sound->figures();
    result.historyShortUs = m_stream->historyShortfall();
    if (const Camera *camera = m_stream->camera()) {
        result.camera = camera->statistics();
        result.cameraTrouble = camera->trouble();
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
    switch (m_stream->state()) {
    case LiveStream::State::Waiting:
        break;
    case LiveStream::State::Live:
        return QStringLiteral("live");
    case LiveStream::State::Idle:
        return QStringLiteral("idle");
    case LiveStream::State::NoSignal:
        return QStringLiteral("no signal");
    }
    return QStringLiteral("waiting");
}

QString Viewer::cameraTrouble() const
{
    return m_stream->camera() ? m_stream->trouble() : QString();
}

QString Viewer::statisticsText() const
{
    const ViewerFigures now = figures();
    const LiveStatistics &f = now.live;
    const auto fixed = [](double value, int digits) { return QString::number(value, 'f', digits); };

    QStringList lines;
    lines << m_options.video.toString() + QStringLiteral("   ") + stateText();
    if (!m_stream->trouble().isEmpty())
        lines << m_stream->trouble();
    if (f.size.isValid()) {
        lines << QStringLiteral("%1 × %2  %3").arg(f.size.width()).arg(f.size.height()).arg(f.pixelFormat);
        if (m_lastFrame.isValid())
            lines.last() += QStringLiteral("  ") +
                            (m_stream->camera() ? m_stream->camera()->colorsName() : colorsName(m_lastFrame));
    }
    lines << QStringLiteral("shown %1 fps   ticks %2").arg(fixed(f.shownRate, 2), fixed(f.tickRate, 2));
    if (f.sourceRate > 0.0)
        lines.last() += QStringLiteral("   source %1").arg(fixed(f.sourceRate, 2));
    lines << QStringLiteral("frames %1   repeated %2   skipped %3")
                 .arg(f.frames)
                 .arg(f.repeated)
                 .arg(f.skipped);
    lines << QStringLiteral("invalid %1   idle %2   no signal %3   lapped %4")
                 .arg(f.unanswered)
                 .arg(f.idle)
                 .arg(f.noSignal)
                 .arg(f.lapped);
    lines << QStringLiteral("latency %1 ms   p99 %2   max %3   jitter %4")
                 .arg(fixed(f.ageP50Ms, 1), fixed(f.ageP99Ms, 1), fixed(f.ageMaxMs, 1), fixed(f.jitterMs, 1));
    QString reason = f.framePathReason;
    if (reason.startsWith(QLatin1String("no: "))) // a store's answer to whether it has DMA-bufs
        reason.remove(0, 4);
    lines << QStringLiteral("path %1").arg(f.framePath);
    if (!reason.isEmpty())
        lines.last() += QStringLiteral(": ") + reason;
    if (!now.camera)
        lines << QStringLiteral("locks held %1").arg(f.locksHeld);
    else
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
    lines << QStringLiteral("delay %1 ms   silence %2 ms   gaps %3   restarts %4")
                 .arg(sound.delayUs >= 0 ? ms(sound.delayUs) : QStringLiteral("?"), ms(sound.silenceUs))
                 .arg(now.live.audioUnderruns)
                 .arg(sound.starts - 1);
    if (now.live.avOffsets > 0)
        lines << QStringLiteral("picture against sound %1 ms   p95 %2")
                     .arg(QString::number(now.live.avOffsetMs, 'f', 1),
                          QString::number(now.live.avOffsetP95Ms, 'f', 1));
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
