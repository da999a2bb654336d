// Finding a frame in the history by time. Works on the index alone; knows no clock, no connection, no locks.
#ifndef SHM_HISTORY_H
#define SHM_HISTORY_H

#include "layout.h"

#include <shm/shm_reader.h>

namespace shm {

// Farther away than this is "no frame" for SHM_VIDEO_NEAREST: max(1 s, 3 intervals), 10 s without an
// interval.
int64_t nearestLimitUs(int64_t intervalUs);

struct HistoryRange
{
    uint64_t oldest = 0; // generations; oldest > newest: no frame
    uint64_t newest = 0;
    bool empty() const { return newest == 0 || oldest > newest; }
};

// The frames held now. Cost: two loads.
HistoryRange historyRange(const IndexView &index);

struct FoundFrame
{
    uint64_t generation = 0;
    uint32_t slot = 0;
    int64_t timestamp = 0;
};

// One entry; false when the history has moved past it.
bool readHistoryEntry(const IndexView &index, uint64_t generation, FoundFrame *frame);

enum class Lookup {
    Found,
    None, // no frame fits
    Moved // the writer overtook the search: ask again
};

// The frame that `mode` chooses for `timestamp`. The result is a hint until the slot is locked and its
// generation compared.
//
// `hint` is where the search before ended, 0 or anything at first: it changes the cost and never the result.
// Cost: constant for the newest and for a time that follows the one asked before, else logarithmic in the
// history.
Lookup findFrame(const IndexView &index, shm_video_lookup_mode_t mode, int64_t timestamp, int64_t limitUs,
                 uint64_t *hint, FoundFrame *found);

// Timestamps of the newest `capacity` frames, ascending. Returns how many.
int historyTimestamps(const IndexView &index, long long *timestamps, int capacity);

} // namespace shm

#endif
