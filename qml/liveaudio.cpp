#include "liveaudio.h"

#include "livestream.h"
#include "sound.h"

#include <QCoreApplication>
#include <QQmlEngine>

#include <algorithm>

namespace {

constexpr int laterMs = 20;

LiveAudio *theOne = nullptr;

void deleteTheOne()
{
    delete theOne;
}

Sound::Remedies remedies()
{
    return {QStringLiteral("start the sound server, or connect a device"),
            QStringLiteral("LiveAudio.devices has the names, after refreshDevices()"),
            QStringLiteral("set LiveAudio.device to another one")};
}

} // namespace

LiveAudio::LiveAudio(QObject *parent) : QObject(parent), m_delayMs(int(Sound::usualDelayUs / 1000))
{
    m_later.setSingleShot(true);
    m_later.setInterval(laterMs);
    connect(&m_later, &QTimer::timeout, this, &LiveAudio::rebuild);
}

LiveAudio::~LiveAudio()
{
    m_isRebuilding = true; // nothing is made any more
    dropSound();
    if (theOne == this)
        theOne = nullptr;
}

// There is one player in a process, whatever engines there are. It has to go before the application object.
QObject *LiveAudio::instance(QQmlEngine *, QJSEngine *)
{
    if (!theOne) {
        theOne = new LiveAudio;
        QQmlEngine::setObjectOwnership(theOne, QQmlEngine::CppOwnership);
        qAddPostRoutine(deleteTheOne);
    }
    return theOne;
}

void LiveAudio::setSource(LiveSource *source)
{
    if (source == m_source)
        return;
    if (m_source)
        disconnect(m_source, nullptr, this, nullptr);
    m_source = source;
    if (source) {
        connect(source, &LiveSource::providerChanged, this, &LiveAudio::rebuild);
        connect(source, &LiveSource::runningChanged, this, &LiveAudio::rebuild);
        connect(source, &QObject::destroyed, this, [this] {
            rebuild();
            emit sourceChanged();
        });
    }
    rebuild();
    emit sourceChanged();
}

void LiveAudio::dropSound()
{
    if (!m_sound)
        return;
    const std::unique_ptr<Sound> old = std::move(m_sound);
    disconnect(old.get(), nullptr, this, nullptr);
    if (m_stream) {
        m_stream->setSound(nullptr);
        disconnect(m_stream, nullptr, old.get(), nullptr); // it may tell something while the sound stops
    }
}

// Qt's sound backends handle events while they start and stop, and one of those may bring us here. So may a
// handler of what the sound or its player is telling.
void LiveAudio::rebuild()
{
    if (m_isRebuilding || (m_sound && m_sound->isBusy())) {
        m_later.start();
        return;
    }
    m_isRebuilding = true;
    dropSound();
    m_playedUs = 0;
    m_stream = m_source && m_source->running() ? m_source->stream() : nullptr;
    if (m_stream && m_stream->soundSource()) {
        const Sound::Wishes wishes = {m_device, m_volume, m_isMuted, qint64(m_delayMs) * 1000, remedies()};
        m_sound = std::make_unique<Sound>(m_stream->soundSource(), wishes);
        m_stream->setSound(m_sound.get());
        connect(m_sound.get(), &Sound::changed, this, &LiveAudio::followState);
        connect(m_sound.get(), &Sound::problem, this, &LiveAudio::followState);
        connect(m_sound.get(), &Sound::heard, this, [this] {
            m_playedUs = m_sound->heardUs();
            emit playedTimeChanged();
        });
        connect(m_stream, &LiveStream::tickRateChanged, m_sound.get(),
                [this] { m_sound->setReportRate(m_stream->tickRate()); });
        m_sound->start(m_stream->tickRate());
    }
    m_isRebuilding = false;
    emit stateChanged();
    emit playedTimeChanged();
}

void LiveAudio::followState()
{
    const bool isTimeLost = m_playedUs != 0 && state() != Playing;
    if (isTimeLost)
        m_playedUs = 0;
    emit stateChanged();
    if (isTimeLost)
        emit playedTimeChanged();
}

void LiveAudio::setDevice(const QString &name)
{
    const QString wanted = name.isEmpty() ? QStringLiteral("default") : name;
    if (wanted == m_device)
        return;
    m_device = wanted;
    rebuild();
    emit deviceChanged();
}

void LiveAudio::setVolume(double volume)
{
    const double limited = volume >= 0.0 ? std::min(volume, 1.0) : 0.0; // 0 for NaN, too
    if (limited == m_volume)
        return;
    m_volume = limited;
    if (m_sound)
        m_sound->setVolume(limited);
    emit volumeChanged();
}

void LiveAudio::setMuted(bool muted)
{
    if (muted == m_isMuted)
        return;
    m_isMuted = muted;
    if (m_sound)
        m_sound->setMuted(muted);
    emit mutedChanged();
}

void LiveAudio::setDelay(int milliseconds)
{
    const int limited = std::clamp(milliseconds, 0, 10000);
    if (limited == m_delayMs)
        return;
    m_delayMs = limited;
    rebuild();
    emit delayChanged();
}

LiveAudio::State LiveAudio::state() const
{
    if (!m_source || !m_source->running() || !m_sound || !m_sound->figures().isWanted)
        return Silent;
    return m_sound->figures().isPlaying ? Playing : Waiting;
}

QString LiveAudio::errorString() const
{
    return m_sound ? m_sound->figures().problem : QString();
}

double LiveAudio::playedTime() const
{
    return state() == Playing ? double(m_playedUs) / 1000.0 : 0.0;
}
