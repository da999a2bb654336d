#include "picturefollower.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

namespace {

constexpr qint64 secondUs = 1000000;
constexpr qint64 offForUs = 3 * secondUs;
constexpr qint64 movesApartUs = 10 * secondUs;
constexpr qint64 longestApartUs = 320 * secondUs;
constexpr qint64 settleUs = 500000;  // the timeline has taken over what it was told
constexpr qint64 leftAloneUs = 4000; // besides half an interval
constexpr std::size_t fewPictures = 5;
constexpr int marginFrames = 2;

} // namespace

void PictureFollower::handedOut(qint64 now, qint64 pictureAge)
{
    if (now - m_told > settleUs)
        m_pictures.push_back({now, pictureAge});
    while (!m_pictures.empty() && now - m_pictures.front().at > secondUs)
        m_pictures.pop_front();
}

bool PictureFollower::isOff(qint64 now, qint64 wantedAge, qint64 allowed)
{
    while (!m_pictures.empty() && now - m_pictures.front().at > secondUs)
        m_pictures.pop_front();
    if (m_pictures.size() < fewPictures)
        return false;
    std::vector<qint64> ages;
    ages.reserve(m_pictures.size());
    for (const Picture &picture : m_pictures)
        ages.push_back(picture.age);
    const auto middle = ages.begin() + std::ptrdiff_t(ages.size() / 2);
    std::nth_element(ages.begin(), middle, ages.end());
    return std::abs(*middle - wantedAge) > allowed;
}

bool PictureFollower::update(qint64 now, qint64 soundAge, const Store &store)
{
    if (store.interval <= 1000 || soundAge <= 0)
        return false;
    // The timeline rounds down, so the oldest frame that it can come to is asked for at half an interval
    // more.
    const qint64 oldest = store.newestAge + store.historySpan - marginFrames * store.interval;
    const qint64 shown = std::max<qint64>(std::min(soundAge, oldest), 1);
    m_shortfall = soundAge - shown;

    // The oldest picture comes and goes, so that being there is not the same age every time.
    const qint64 allowed = m_shortfall > 0 ? 2 * store.interval : store.interval / 2 + leftAloneUs;
    // Then the last move was right, and is no reason to wait.
    const bool hasSoundMoved = std::abs(shown - m_shownThen) > allowed;
    if (m_isNew || hasSoundMoved)
        m_apart = offForUs; // the sound's age may not have been quite settled
    if (!m_isNew) {
        if (!isOff(now, shown, allowed)) {
            m_offSince = 0;
            if (now - m_told > movesApartUs)
                m_apart = movesApartUs;
            return false;
        }
        if (m_offSince == 0)
            m_offSince = now;
        if (now - m_offSince < offForUs || now - m_told < m_apart)
            return false;
        if (!hasSoundMoved)
            m_apart = std::min(2 * m_apart, longestApartUs);
    }
    m_isNew = false;
    m_offSince = 0;
    m_shownThen = shown;
    m_target = shown + store.interval / 2;
    m_told = now;
    m_pictures.clear();
    return true;
}
