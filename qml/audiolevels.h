#pragma once

#include "levelmeter.h"
#include "livesource.h" // complete, for the property

#include <QAbstractListModel>
#include <QElapsedTimer>
#include <QPointer>
#include <QQmlParserStatus>
#include <QTimer>

QT_BEGIN_NAMESPACE
class QAudioBuffer;
QT_END_NAMESPACE

/*
 * The levels of a source's sound for meters, a row for each channel: RMS and peak as the eye can follow them,
 * and the highest peak held.
 *
 *     AudioLevels { id: levels; source: camera }
 *     Repeater { model: levels; Rectangle { height: 2 * (60 + model.rms) } }
 *
 * They are those of the source, 25 times a second and more: muted, without a device, and with no LiveAudio at
 * all they are the same. While the picture is shown they come with it; else, as long as the source runs and
 * `active` is set, this model asks for the sound alone. Set `active` to the visibility of the meter: what is
 * hidden need not be measured.
 *
 * Roles: rms, peak, hold (decibels relative to full scale, -120 for silence).
 * Threads: the GUI thread. Ownership: borrows the source. Errors: none; without sound there are no rows.
 */
class AudioLevels : public QAbstractListModel
{
    Q_OBJECT
    Q_PROPERTY(LiveSource *source READ source WRITE setSource NOTIFY sourceChanged)
    Q_PROPERTY(bool active READ active WRITE setActive NOTIFY activeChanged)
    Q_PROPERTY(int count READ count NOTIFY countChanged)

public:
    enum Role { RmsRole = Qt::UserRole, PeakRole, HoldRole };

    explicit AudioLevels(QObject *parent = nullptr);

    LiveSource *source() const { return m_source.data(); }
    void setSource(LiveSource *source);
    bool active() const { return m_isActive; }
    void setActive(bool on);
    /* Channels. */
    int count() const { return m_meter.channels().size(); }

    int rowCount(const QModelIndex &parent = QModelIndex()) const override;
    QVariant data(const QModelIndex &index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;

Q_SIGNALS:
    void sourceChanged();
    void activeChanged();
    void countChanged();

private:
    void attach();
    void onAudio(const QAudioBuffer &buffer);
    void onTick();
    void update(const QVector<AudioLevel> &levels);

    QPointer<LiveSource> m_source;
    QMetaObject::Connection m_audio;
    bool m_isActive = true;
    LevelMeter m_meter;
    QElapsedTimer m_clock;
    QElapsedTimer m_sinceSound;
    QTimer m_ticks;
};
