#include "picturefollower.h"

#include <algorithm>
#include <cstdlib>

namespace {

constexpr qint64 secondUs = 1000000;
constexpr qint64 offForUs = 3 * secondUs;
constexpr qint64 movesApartUs = 10 * secondUs;
constexpr qint64 leftAloneUs = 10000; // besides half an interval
constexpr int marginFrames = 2;

} // namespace

bool PictureFollower::update(qint64 now, qint64 soundAge, const Store &store)
{
    if (store.interval <= 1000 || soundAge <= 0)
        return false;
    // The timeline rounds down, so the oldest frame that it can come to is asked for at half an interval
    // more.
    const qint64 oldest = store.newestAge + store.historySpan - marginFrames * store.interval;
    const qint64 shown = std::max<qint64>(std::min(soundAge, oldest), 1);
    m_shortfall = soundAge - shown;
    const qint64 wanted = shown + store.interval / 2;

    if (!m_isNew) {
        const bool isOff = std::abs(wanted - m_target) > store.interval / 2 + leftAloneUs;
        if (!isOff)
            m_offSince = 0;
        else if (m_offSince == 0)
            m_offSince = now;
        if (!isOff || now - m_offSince < offForUs || now - m_told < movesApartUs)
            return false;
    }
    m_isNew = false;
    m_offSince = 0;
    m_target = wanted;
    m_told = now;
    return true;
}
