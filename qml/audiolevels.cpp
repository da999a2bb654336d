#include "audiolevels.h"

#include "livestream.h"

#include <zevqt-mm/audiolevel.h>
#include <zevqt-mm/mediasourcebase.h>

#include <QAudioBuffer>

namespace {

constexpr int tickMs = 40;
constexpr qint64 pauseMs = 200; // without sound; then the meters fall by themselves

} // namespace

AudioLevels::AudioLevels(QObject *parent) : QAbstractListModel(parent)
{
    m_clock.start();
    m_sinceSound.start();
    m_ticks.setInterval(tickMs);
    connect(&m_ticks, &QTimer::timeout, this, &AudioLevels::onTick);
}

void AudioLevels::setSource(LiveSource *source)
{
    if (source == m_source)
        return;
    if (m_source)
        disconnect(m_source, nullptr, this, nullptr);
    m_source = source;
    if (source) {
        connect(source, &LiveSource::providerChanged, this, &AudioLevels::attach);
        connect(source, &QObject::destroyed, this, &AudioLevels::attach);
    }
    attach();
    emit sourceChanged();
}

void AudioLevels::setActive(bool on)
{
    if (on == m_isActive)
        return;
    m_isActive = on;
    attach();
    emit activeChanged();
}

void AudioLevels::attach()
{
    disconnect(m_audio);
    if (const LiveStream *stream = m_isActive && m_source ? m_source->stream() : nullptr) {
        m_audio = connect(stream, &LiveStream::audioReady, this, &AudioLevels::onAudio);
        m_ticks.start();
        return;
    }
    m_ticks.stop();
    if (count() == 0)
        return;
    beginResetModel();
    m_meter = LevelMeter();
    endResetModel();
    emit countChanged();
}

void AudioLevels::onAudio(const QAudioBuffer &buffer)
{
    if (!buffer.isValid())
        return;
    m_sinceSound.start();
    update(getRmsMaxDecibels(buffer));
}

void AudioLevels::onTick()
{
    const LiveStream *stream = m_source ? m_source->stream() : nullptr;
    if (stream && !stream->isTicking() && m_source->running())
        stream->soundSource()->requestAudio(0);
    if (m_sinceSound.hasExpired(pauseMs) && count() > 0)
        update({});
}

void AudioLevels::update(const QVector<AudioLevel> &levels)
{
    const int before = count();
    const qint64 now = m_clock.nsecsElapsed() / 1000;
    LevelMeter next = m_meter;
    next.update(now, levels);
    if (next.channels().size() != before) { // others, or forgotten
        beginResetModel();
        m_meter = next;
        endResetModel();
        emit countChanged();
        return;
    }
    m_meter = next;
    if (before > 0)
        emit dataChanged(index(0), index(before - 1));
}

int AudioLevels::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : count();
}

QVariant AudioLevels::data(const QModelIndex &index, int role) const
{
    if (!index.isValid() || index.row() >= count())
        return {};
    const LevelMeter::Channel &channel = m_meter.channels().at(index.row());
    switch (role) {
    case RmsRole:
        return channel.rms;
    case PeakRole:
        return channel.peak;
    case HoldRole:
        return channel.hold;
    default:
        return {};
    }
}

QHash<int, QByteArray> AudioLevels::roleNames() const
{
    return {{RmsRole, "rms"}, {PeakRole, "peak"}, {HoldRole, "hold"}};
}
