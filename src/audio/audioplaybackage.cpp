#include <zevqt-mm/audioplaybackage.h>

#include <algorithm>
#include <vector>

namespace {

const qint64 windowUs = 3000000;
const qint64 knownAfterUs = 1000000;
const qint64 forgottenAfterUs = 1000000;
const qint64 longestSampleUs = 15000; // half of it is how wrong an age can be
const qint64 leastPortionUs = 1000;   // less is rounding
const qint64 agreementUs = 20000;
const size_t leastPortions = 5;

} // namespace

void AudioPlaybackAge::begin()
{
    *this = AudioPlaybackAge();
}

void AudioPlaybackAge::sample(qint64 now, qint64 devicePosition)
{
    // A clock that was set back leaves ages of the future behind, which nothing would remove.
    if (now < lastNow)
        begin();
    const bool isTaken = devicePosition > 0 && lastPosition > 0 &&
                         devicePosition - lastPosition >= leastPortionUs && now - lastNow <= longestSampleUs;
    if (isTaken)
        portions.push_back({now, lastNow + (now - lastNow) / 2 - lastPosition});
    const size_t before = portions.size();
    while (!portions.empty() && now - portions.front().at > windowUs)
        portions.pop_front();
    if (isTaken || portions.size() != before)
        judge();
    lastNow = now;
    lastPosition = devicePosition;
}

void AudioPlaybackAge::judge()
{
    if (portions.size() < leastPortions) {
        spread = agreementUs + 1;
        return;
    }
    std::vector<qint64> ages;
    ages.reserve(portions.size());
    for (const Portion &portion : portions)
        ages.push_back(portion.age);
    const auto at = [&](size_t quarter) {
        const auto place = ages.begin() + static_cast<std::ptrdiff_t>(quarter * (ages.size() - 1) / 4);
        std::nth_element(ages.begin(), place, ages.end());
        return *place;
    };
    spread = at(3) - at(1);
    if (spread > agreementUs || portions.back().at - portions.front().at < knownAfterUs)
        return;
    told = at(2);
}

bool AudioPlaybackAge::isKnown(qint64 now) const
{
    return portions.size() >= leastPortions && spread <= agreementUs && told > 0 &&
           portions.back().at - portions.front().at >= knownAfterUs && now >= portions.back().at &&
           now - portions.back().at <= forgottenAfterUs;
}
