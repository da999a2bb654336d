#include "sound.h"

#include "wallclock.h"

#include <zevqt-mm/audioplayer.h>
#include <zevqt-mm/mediasource.h>

#include <QLibrary>
#include <QScopedValueRollback>
#include <QTimer>

#include <algorithm>
#include <cstdlib>

namespace {

constexpr int checkIntervalMs = 100;
constexpr qint64 slackUs = 100000;   // how much farther behind it may fall
constexpr qint64 clockStepMs = 1000; // the player's own limit
constexpr qint64 stopReasonMs = 300;
constexpr char soundServerRealm[] = "default"; // what Qt calls PulseAudio's devices

void ignoreAlsa(const char *, int, const char *, int, const char *, ...) {}

// A sound server that converts the rate keeps up to a period to itself and does not tell, so that nobody
// knows when it is heard. The player's own resampler tells what it keeps. Elsewhere the source's rate is
// best.
int rateFor(const QAudioDeviceInfo &device)
{
    const int rate =
        device.realm() == QLatin1String(soundServerRealm) ? device.preferredFormat().sampleRate() : -1;
    return rate > 0 ? rate : -1;
}

} // namespace

Sound::Sound(const QSharedPointer<MediaSourceBase> &source, const Wishes &wishes, QObject *parent)
    : QObject(parent), m_holder(source), m_source(qobject_cast<MediaSource *>(source.data())),
      m_device(wishes.device), m_remedies(wishes.remedies), m_volume(wishes.volume), m_isMuted(wishes.isMuted)
{
    m_isWanted = m_source && m_device != QLatin1String("none");
    m_monotonic.start();
    if (!m_isWanted)
        return;
    m_player = AudioPlayer::getInstance();
    m_player->setDelay(wishes.delayUs);
    m_player->setMaxDelay(wishes.delayUs + slackUs);
    m_watch.setDelay(std::max(wishes.delayUs, usualDelayUs));
    m_player->setVolume(m_volume);
    m_player->setMuted(m_isMuted);
    connect(m_player, &AudioPlayer::audioPlayed, this, [this](qint64 reported) {
        const qint64 now = wallClockUs();
        m_heardUs = whatIsHeard(now, reported);
        emit heard(now);
    });
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

void Sound::setReportRate(double fps)
{
    m_fps = fps;
    if (m_player)
        m_player->setReportRate(fps);
}

// The player's report counts silence as sound, so that it may be of the future. The next sample for the
// device is not heard before those that the device has.
qint64 Sound::whatIsHeard(qint64 now, qint64 reported) const
{
    if (m_age.isKnown(now))
        return now - m_age.age();
    const qint64 next = m_player->getDevicePosition();
    return next > 0 ? std::min(reported, next) : reported;
}

bool Sound::isBusy() const
{
    return m_isStopping || m_telling > 0 || (m_player && m_player->isEmitting());
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
    const QScopedValueRollback<int> telling(m_telling, m_telling + 1);
    if (m_isStopping)
        return; // Qt's backend handles events while it opens and closes
    const qint64 now = m_monotonic.nsecsElapsed() / 1000;
    // Before there is audio there is nothing to play, and the device's format would be a guess.
    if (m_starts == 0 && (newestAudio() == 0 || !m_source->getAudioFormat().isValid())) {
        m_watch.check(now, false, 0, 0, -1);
        return;
    }
    sayWhyStopped();
    if (m_isStopUntold)
        return; // what it is told next depends on it
    if (followDevice()) {
        m_watch.begin(now);
        tryStart();
        return;
    }
    const qint64 newest = newestAudio();
    const bool isActive = !m_player->isStopped(); // a moment without sound is no stop
    if (!m_watch.check(now, isActive, m_player->getReadPosition(), newest, m_player->getReserve())) {
        const qint64 wallNow = wallClockUs();
        if (isActive && m_age.isKnown(wallNow) && newest > 0)
            m_delay = newest - (wallNow - m_age.age());
        return;
    }
    if (isActive && m_hasStarted && !m_isDeviceGone) // or more was told
        complain(whyStartedAgain());
    m_watch.begin(now); // a failure counts as an attempt too
    tryStart();
}

bool Sound::tryStart()
{
    const QScopedValueRollback<int> telling(m_telling, m_telling + 1);
    m_isStopping = true; // selecting stops what there was
    const bool isSelected = selectDevice();
    const bool isStarted = isSelected && m_player->start(m_source, m_fps);
    m_isStopping = false;
    m_age.begin();
    m_hasStarted = isStarted;
    if (isSelected && !isStarted)
        sayWhyNotStarted();
    if (!isStarted) {
        emit changed();
        return false;
    }
    m_clock.start();
    ++m_starts;
    m_rate = m_player->sampleRate();
    m_said.clear();
    m_isDeviceGone = false;
    emit started();
    emit changed();
    return true;
}

bool Sound::selectDevice()
{
    const bool isSelected = m_player->setDevice(m_device) && m_player->enabled();
    const QString name = m_player->selectedDevice().deviceName();
    if (isSelected && !name.isEmpty()) {
        m_playedOn = name;
        m_deviceInfo = m_player->selectedDevice();
        m_player->setFixedSampleRate(rateFor(m_deviceInfo));
        return true;
    }
    if (!isSelected && m_player->failure() == AudioPlayer::ServerSilent)
        sayServerSilent(); // whoever lists the devices would wait for it
    else if (m_starts > 0)
        sayDeviceGone(); // it was there before
    else if (m_device == QLatin1String("default") || deviceNames().isEmpty())
        complain(QStringLiteral("there is no sound: no audio device was found; the picture goes on, and the "
                                "sound begins when there is one (%1)")
                     .arg(m_remedies.noDevices));
    else
        complain(QStringLiteral("there is no sound: no audio device has the name '%1'; the picture goes on "
                                "(%2)")
                     .arg(m_device, m_remedies.noSuchDevice));
    return false;
}

void Sound::sayWhyNotStarted()
{
    const QAudioFormat format = m_player->playedFormat();
    const QString asked = QStringLiteral("%1 Hz, %2 channels, %3 bits %4")
                              .arg(format.sampleRate())
                              .arg(format.channelCount())
                              .arg(format.sampleSize())
                              .arg(format.sampleType() == QAudioFormat::Float         ? "float"
                                   : format.sampleType() == QAudioFormat::UnSignedInt ? "unsigned"
                                                                                      : "signed");
    switch (m_player->failure()) {
    case AudioPlayer::DeviceGone:
        sayDeviceGone();
        break;
    case AudioPlayer::FormatRefused:
        complain(QStringLiteral("there is no sound: the audio device %1 takes %2, which the sound cannot be "
                                "converted to; the picture goes on (%3)")
                     .arg(m_playedOn, asked, m_remedies.otherFormat));
        break;
    case AudioPlayer::ServerSilent:
        sayServerSilent();
        break;
    default:
        complain(QStringLiteral("there is no sound: the audio device %1 cannot be opened for %2; the picture "
                                "goes on, and so do the attempts")
                     .arg(m_playedOn, asked));
    }
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
        sayDeviceGone();
    const bool isBack = isThere && m_isDeviceGone;
    m_isDeviceGone = !isThere;
    return isBack;
}

// The same, whoever notices it first: the output that stops, the list of devices, the attempt to start.
void Sound::sayDeviceGone()
{
    complain(QStringLiteral("the audio device %1 is gone; the picture goes on, and the sound returns with "
                            "it (until then the sound server may play it elsewhere)")
                 .arg(m_playedOn));
}

void Sound::sayServerSilent()
{
    complain(QStringLiteral("there is no sound: the sound server (PulseAudio) does not answer; the picture "
                            "goes on, and the sound begins when it does (continue or restart the server)"));
}

void Sound::onStopped()
{
    const QScopedValueRollback<int> telling(m_telling, m_telling + 1);
    m_age.begin();
    m_heardUs = 0;
    if (!m_isStopping && m_hasStarted) {
        m_stopShiftMs = m_clock.check();
        m_isStopUntold = true;
        m_stoppedAt = m_monotonic.elapsed();
    }
    m_hasStarted = m_hasStarted && m_isStopping;
    emit changed();
}

// A device that is taken away stops its output a moment before it leaves the list.
void Sound::sayWhyStopped()
{
    if (!m_isStopUntold || m_monotonic.elapsed() - m_stoppedAt < stopReasonMs)
        return;
    m_isStopUntold = false;
    if (std::abs(m_stopShiftMs) > clockStepMs)
        complain(QStringLiteral("the sound stopped: the clock was set by %1 s; starting it again")
                     .arg(double(m_stopShiftMs) / 1000.0, 0, 'f', 1));
    else if (!isDeviceThere() || !deviceNames().contains(m_playedOn))
        sayDeviceGone();
    else
        complain(QStringLiteral("the sound stopped: the audio device %1 failed; starting it again")
                     .arg(m_playedOn));
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
    const QScopedValueRollback<int> telling(m_telling, m_telling + 1);
    m_volume = std::clamp(volume, 0.0, 1.0);
    if (m_player)
        m_player->setVolume(m_volume);
    emit changed();
}

void Sound::setMuted(bool muted)
{
    const QScopedValueRollback<int> telling(m_telling, m_telling + 1);
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
    result.isPlaying = !m_player->isStopped(); // also when it has no sound for a moment
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
    return AudioPlayer::deviceNames();
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
