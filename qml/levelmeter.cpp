#include "levelmeter.h"

#include <algorithm>

namespace {

constexpr double floorDb = -120.0;
constexpr double fallDbPerS = 40.0;
constexpr double holdFallDbPerS = 20.0;
constexpr qint64 holdUs = 1500000;
constexpr qint64 forgetUs = 10000000; // a source without sound for so long has no meter

} // namespace

void LevelMeter::update(qint64 now, const QVector<AudioLevel> &levels)
{
    const double passed = m_updated == 0 ? 0.0 : double(std::max<qint64>(0, now - m_updated)) / 1e6;
    m_updated = now;
    if (!levels.isEmpty()) {
        m_received = now;
        if (levels.size() != m_channels.size()) {
            m_channels.fill({floorDb, floorDb, floorDb}, levels.size());
            m_held.fill(now, levels.size());
        }
    } else if (now - m_received > forgetUs) {
        m_channels.clear();
        m_held.clear();
    }
    for (int i = 0; i < m_channels.size(); ++i) {
        Channel &channel = m_channels[i];
        const double rms = levels.isEmpty() ? floorDb : std::max(floorDb, double(levels[i].rms));
        const double peak = levels.isEmpty() ? floorDb : std::max(floorDb, double(levels[i].max));
        channel.rms = std::max(rms, channel.rms - fallDbPerS * passed);
        channel.peak = std::max(peak, channel.peak - fallDbPerS * passed);
        if (peak >= channel.hold) {
            channel.hold = peak;
            m_held[i] = now;
        } else if (now - m_held[i] > holdUs) {
            channel.hold = std::max(channel.peak, channel.hold - holdFallDbPerS * passed);
        }
    }
}
