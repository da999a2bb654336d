#include "sound.h"

#include "wallclock.h"

#include <zevqt-mm/audioplayer.h>
#include <zevqt-mm/mediasource.h>

#include <QLibrary>
#include <QTimer>

#include <algorithm>

namespace {

constexpr int checkIntervalMs = 100;
constexpr qint64 maxDelayUs = Sound::delayUs + 100000;
constexpr qint64 clockStepMs = 1000; // the player's own limit

void ignoreAlsa(const char *, int, const char *, int, const char *, ...) {}

} // namespace

Sound::Sound(QSharedPointer<MediaSourceBase> source, const Options &options, QObject *parent)
    : QObject(parent), m_holder(source), m_source(qobject_cast<MediaSource *>(source.data())),
      m_device(options.audioDevice), m_volume(options.volume), m_isMuted(options.mute)
{
    m_isWanted = m_source && m_device != QLatin1String("none");
    m_monotonic.start();
    if (!m_isWanted)
        return;
    m_player = AudioPlayer::getInstance();
    m_player->setDelay(delayUs);
    m_player->setMaxDelay(maxDelayUs);
    m_player->setVolume(m_volume);
    m_player->setMuted(m_isMuted);
    connect(m_player, &AudioPlayer::audioPlayed, this, [this] { emit heard(wallClockUs()); });
    connect(m_player, &AudioPlayer::playerStopped, this, &Sound::onStopped);
    auto *timer = new QTimer(this);
    timer->setInterval(checkIntervalMs);
    connect(timer, &QTimer::timeout, this, &Sound::check);
    auto *sampling = new QTimer(this);
    sampling->setTimerType(Qt::PreciseTimer);
    sampling->setInterval(AudioPlaybackAge::sampleIntervalMs);
    connect(sampling, &QTimer::timeout, this,
            [this] { m_age.sample(wallClockUs(), m_player->getDevicePosition()); });
}

Sound::~Sound()
{
    stop();
    if (m_player)
        AudioPlayer::teardown();
}

void Sound::start(double fps)
{
    m_fps = fps;
    for (QTimer *timer : findChildren<QTimer *>())
        timer->start();
}

void Sound::stop()
{
    for (QTimer *timer : findChildren<QTimer *>())
        timer->stop();
    if (!m_player || m_isStopping)
        return;
    m_isStopping = true;
    m_player->stop();
    m_isStopping = false;
    m_hasStarted = false;
    m_age.begin();
}

void Sound::check()
{
    if (m_isStopping)
        return; // Qt's backend handles events while it opens and closes
    // Before there is audio there is nothing to play, and the device's format would be a guess.
    if (m_starts == 0 && !m_source->getAudioFormat().isValid())
        return;
    const qint64 now = m_monotonic.nsecsElapsed() / 1000;
    if (followDevice()) {
        m_watch.begin(now);
        tryStart();
        return;
    }
    const qint64 newest = newestAudio();
    const bool isActive = m_player->isActive();
    if (!m_watch.check(now, isActive, m_player->getReadPosition(), newest, m_player->getReserve())) {
        const qint64 wallNow = wallClockUs();
        if (isActive && m_age.isKnown(wallNow) && newest > 0)
            m_delay = newest - (wallNow - m_age.age());
        return;
    }
    if (isActive && m_hasStarted)
        complain(whyStartedAgain());
    m_watch.begin(now); // a failure counts as an attempt too
    tryStart();
}

bool Sound::tryStart()
{
    m_isStopping = true; // selecting stops what there was
    const bool isSelected = selectDevice();
    const bool isStarted = isSelected && m_player->start(m_source, m_fps);
    m_isStopping = false;
    m_age.begin();
    m_hasStarted = isStarted;
    if (isSelected && !isStarted)
        complain(
            QStringLiteral("there is no sound: the audio device cannot be opened; the picture goes on, and "
                           "so do the attempts"));
    if (!isStarted) {
        emit changed();
        return false;
    }
    m_clock.start();
    ++m_starts;
    m_rate = m_player->sampleRate();
    m_said.clear();
    emit started();
    emit changed();
    return true;
}

bool Sound::selectDevice()
{
    const QStringList names = deviceNames();
    const bool isDefault = m_device == QLatin1String("default");
    const QString name = isDefault ? QAudioDeviceInfo::defaultOutputDevice().deviceName() : m_device;
    if (names.isEmpty() || (isDefault && name.isEmpty())) {
        complain(QStringLiteral("there is no sound: no audio device was found; the picture goes on "
                                "(--audio-device none keeps this quiet)"));
        return false;
    }
    if (!names.contains(name)) {
        complain(QStringLiteral("there is no sound: no audio device has the name '%1'; the picture goes on "
                                "(--list-audio-devices prints the names)")
                     .arg(name));
        return false;
    }
    if (!m_player->setDevice(isDefault ? m_device : name) || !m_player->enabled())
        return false;
    m_playedOn = name;
    const auto devices = QAudioDeviceInfo::availableDevices(QAudio::AudioOutput);
    for (const QAudioDeviceInfo &device : devices)
        if (device.deviceName() == name)
            m_deviceInfo = device;
    return true;
}

// Without asking all systems for all their devices, which takes a tenth of a second.
bool Sound::isDeviceThere() const
{
    return m_deviceInfo.isNull() || m_deviceInfo.preferredFormat().isValid();
}

// A sound server plays on another device when one is taken away, and does not say so. True when it is back.
bool Sound::followDevice()
{
    const bool isThere = isDeviceThere();
    if (!isThere && !m_isDeviceGone)
        complain(
            QStringLiteral("the audio device %1 is gone; the picture goes on, and the sound returns with "
                           "it (until then the sound server may play it elsewhere)")
                .arg(m_playedOn));
    const bool isBack = isThere && m_isDeviceGone;
    m_isDeviceGone = !isThere;
    return isBack;
}

void Sound::onStopped()
{
    m_age.begin();
    if (!m_isStopping && m_hasStarted)
        complain(whyStopped());
    m_hasStarted = m_hasStarted && m_isStopping;
    emit changed();
}

QString Sound::whyStartedAgain() const
{
    switch (m_watch.reason()) {
    case AudioPlaybackWatch::SourceBack:
        return QStringLiteral("the source of the sound was away and is back: starting the sound again");
    case AudioPlaybackWatch::Dry:
        return QStringLiteral("the sound has run dry (the clock of its source is slower than the device's): "
                              "starting it again");
    default:
        return QStringLiteral("%1 takes no more sound: starting it again").arg(m_playedOn);
    }
}

QString Sound::whyStopped()
{
    const qint64 shiftMs = m_clock.check();
    if (std::abs(shiftMs) > clockStepMs)
        return QStringLiteral("the sound stopped: the clock was set by %1 s; starting it again")
            .arg(double(shiftMs) / 1000.0, 0, 'f', 1);
    if (!isDeviceThere() || !deviceNames().contains(m_playedOn))
        return QStringLiteral(
                   "the sound stopped: the audio device %1 is gone; the picture goes on, and the sound "
                   "does when there is a device")
            .arg(m_playedOn);
    return QStringLiteral("the sound stopped: the audio device %1 failed; starting it again").arg(m_playedOn);
}

// The same once, until there was sound again: attempts go on in the background.
void Sound::complain(const QString &text)
{
    if (m_said == text)
        return;
    m_said = text;
    emit problem(text);
}

qint64 Sound::newestAudio() const
{
    return m_source->getAudioLastTimestamp();
}

void Sound::setVolume(double volume)
{
    m_volume = std::clamp(volume, 0.0, 1.0);
    if (m_player)
        m_player->setVolume(m_volume);
    emit changed();
}

void Sound::setMuted(bool muted)
{
    m_isMuted = muted;
    if (m_player)
        m_player->setMuted(muted);
    emit changed();
}

QString Sound::text() const
{
    if (!m_isWanted)
        return {};
    if (m_isMuted)
        return QStringLiteral("muted");
    const QString volume = QStringLiteral("%1 %").arg(qRound(100.0 * m_volume));
    return m_hasStarted || m_starts == 0 ? volume : QStringLiteral("no sound");
}

Sound::Figures Sound::figures() const
{
    Figures result;
    result.isWanted = m_isWanted;
    if (!m_isWanted)
        return result;
    result.isPlaying = m_player->isActive();
    result.device = m_starts > 0 ? m_playedOn : QString();
    result.rate = m_rate;
    result.delayUs = m_delay;
    result.silenceEpisodes = m_player->getGaps().episodes;
    result.silenceUs = m_player->getGaps().silence;
    result.jumps = m_player->getGaps().jumps;
    result.starts = m_starts;
    result.problem = m_said;
    return result;
}

QStringList Sound::deviceNames()
{
    QStringList names;
    const auto devices = QAudioDeviceInfo::availableDevices(QAudio::AudioOutput);
    for (const QAudioDeviceInfo &device : devices) // without a sound server, the default one has no name
        if (!device.deviceName().isEmpty() && !names.contains(device.deviceName()))
            names << device.deviceName();
    return names;
}

void Sound::silenceLibraries()
{
    using Handler = void (*)(const char *, int, const char *, int, const char *, ...);
    QLibrary alsa(QStringLiteral("asound"), 2); // loaded by Qt's plugin, or nobody
    if (!alsa.load())
        return;
    const auto setHandler = reinterpret_cast<int (*)(Handler)>(alsa.resolve("snd_lib_error_set_handler"));
    if (setHandler)
        setHandler(ignoreAlsa);
}
