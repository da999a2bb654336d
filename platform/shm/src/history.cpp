#include "history.h"

#include <algorithm>

namespace shm {
namespace {

// Differences of hostile timestamps must not overflow.
uint64_t distance(int64_t a, int64_t b)
{
    return a > b ? static_cast<uint64_t>(a) - static_cast<uint64_t>(b)
                 : static_cast<uint64_t>(b) - static_cast<uint64_t>(a);
}

// The place of a time in the history: the last frame before it and the first that is not, where there is one.
struct Place
{
    bool hasBefore = false;
    bool hasAfter = false;
    FoundFrame before;
    FoundFrame after;
};

// Reads the frames on both sides of `bound`, the generation of the first that is not before the time.
bool readPlace(const IndexView &index, const HistoryRange &range, uint64_t bound, Place *place)
{
    place->hasBefore = bound > range.oldest;
    place->hasAfter = bound <= range.newest;
    return (!place->hasBefore || readHistoryEntry(index, bound - 1, &place->before)) &&
           (!place->hasAfter || readHistoryEntry(index, bound, &place->after));
}

// Whoever shows a stream asks for a time in the interval of the last one or in the one that follows it.
bool placeNear(const IndexView &index, const HistoryRange &range, int64_t timestamp, uint64_t hint,
               Place *place)
{
    if (hint <= range.oldest || hint > range.newest || !readPlace(index, range, hint, place) ||
        place->before.timestamp >= timestamp) {
        return false;
    }
    if (timestamp <= place->after.timestamp)
        return true;
    if (hint == range.newest)
        return false;
    place->before = place->after;
    return readHistoryEntry(index, hint + 1, &place->after) && timestamp <= place->after.timestamp;
}

// Smallest generation in [oldest, newest + 1] whose frame is not earlier than `timestamp`. Frames come at an
// even pace, so the first look is where an even pace puts the frame, and the next beside it: two or three
// looks whatever the history's length. Should the pace be uneven, halving bounds the rest.
Lookup lowerBound(const IndexView &index, const HistoryRange &range, int64_t timestamp, uint64_t *bound)
{
    FoundFrame oldest;
    FoundFrame newest;
    if (!readHistoryEntry(index, range.oldest, &oldest) || !readHistoryEntry(index, range.newest, &newest))
        return Lookup::Moved;
    if (timestamp <= oldest.timestamp || timestamp > newest.timestamp) {
        *bound = timestamp <= oldest.timestamp ? range.oldest : range.newest + 1;
        return Lookup::Found;
    }
    uint64_t low = range.oldest + 1;
    uint64_t high = range.newest;
    const double part = static_cast<double>(distance(timestamp, oldest.timestamp)) /
                        static_cast<double>(distance(newest.timestamp, oldest.timestamp));
    uint64_t look =
        range.oldest + static_cast<uint64_t>(part * static_cast<double>(range.newest - range.oldest));
    FoundFrame frame;
    for (int looks = 0; low < high; ++looks) {
        look = looks < 3 ? std::clamp(look, low, high - 1) : low + (high - low) / 2;
        if (!readHistoryEntry(index, look, &frame))
            return Lookup::Moved;
        if (frame.timestamp < timestamp) {
            low = look + 1;
            look = low;
        } else {
            high = look;
            look = high - 1;
        }
    }
    *bound = low;
    return Lookup::Found;
}

Lookup findNearest(const Place &place, int64_t timestamp, int64_t limitUs, FoundFrame *found)
{
    // The earlier one when both are as far: it has been on the way longer and is the likelier to be shown
    // already.
    const bool takeBefore =
        place.hasBefore && (!place.hasAfter || distance(timestamp, place.before.timestamp) <=
                                                   distance(place.after.timestamp, timestamp));
    *found = takeBefore ? place.before : place.after;
    return distance(found->timestamp, timestamp) <= static_cast<uint64_t>(limitUs) ? Lookup::Found
                                                                                   : Lookup::None;
}

} // namespace

bool readHistoryEntry(const IndexView &index, uint64_t generation, FoundFrame *frame)
{
    const HistoryEntry &entry = index.history[generation & (index.ring - 1)];
    frame->timestamp = entry.timestamp.load(std::memory_order_acquire);
    frame->slot = entry.slot.load(std::memory_order_acquire);
    frame->generation = generation;
    return entry.generation.load(std::memory_order_relaxed) == generation;
}

int64_t nearestLimitUs(int64_t intervalUs)
{
    if (intervalUs <= 0)
        return 10000000;
    // The interval comes from shared memory; an hour is longer than any that is meant.
    return std::max<int64_t>(1000000, 3 * std::min<int64_t>(intervalUs, int64_t{3600} * 1000000));
}

HistoryRange historyRange(const IndexView &index)
{
    HistoryRange range;
    range.newest = index.head->newest.value.load(std::memory_order_acquire);
    range.oldest = index.head->first.value.load(std::memory_order_acquire);
    if (range.newest > index.historyFrames)
        range.oldest = std::max<uint64_t>(range.oldest, range.newest - index.historyFrames + 1);
    range.oldest = std::max<uint64_t>(range.oldest, 1);
    return range;
}

Lookup findFrame(const IndexView &index, shm_video_lookup_mode_t mode, int64_t timestamp, int64_t limitUs,
                 uint64_t *hint, FoundFrame *found)
{
    const HistoryRange range = historyRange(index);
    if (range.newest == 0)
        return Lookup::None;
    if (range.oldest > range.newest) // the history starts anew between our two loads
        return Lookup::Moved;
    if (mode == SHM_VIDEO_NEWEST)
        return readHistoryEntry(index, range.newest, found) ? Lookup::Found : Lookup::Moved;

    Place place;
    if (!placeNear(index, range, timestamp, *hint, &place)) {
        uint64_t bound = 0;
        if (lowerBound(index, range, timestamp, &bound) == Lookup::Moved ||
            !readPlace(index, range, bound, &place))
            return Lookup::Moved;
    }
    if (place.hasAfter)
        *hint = place.after.generation;
    if (mode == SHM_VIDEO_NEAREST)
        return findNearest(place, timestamp, limitUs, found);

    const bool exact = place.hasAfter && place.after.timestamp == timestamp;
    if (mode == SHM_VIDEO_EXACT || mode == SHM_VIDEO_AT_OR_AFTER || exact) {
        *found = place.after;
        return place.hasAfter && (exact || mode == SHM_VIDEO_AT_OR_AFTER) ? Lookup::Found : Lookup::None;
    }
    *found = place.before; // SHM_VIDEO_AT_OR_BEFORE
    return place.hasBefore ? Lookup::Found : Lookup::None;
}

int historyTimestamps(const IndexView &index, long long *timestamps, int capacity)
{
    if (capacity <= 0)
        return 0;
    for (int attempt = 0; attempt < 16; ++attempt) {
        const HistoryRange range = historyRange(index);
        if (range.empty())
            return 0;
        const uint64_t held = range.newest - range.oldest + 1;
        const uint64_t count = std::min<uint64_t>(held, static_cast<uint64_t>(capacity));
        FoundFrame frame;
        uint64_t i = 0;
        for (; i < count; ++i) {
            if (!readHistoryEntry(index, range.newest - count + 1 + i, &frame))
                break;
            timestamps[i] = frame.timestamp;
        }
        if (i == count)
            return static_cast<int>(count);
    }
    return 0;
}

} // namespace shm
