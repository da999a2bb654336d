// The table of `zevshm top`: what is shown in how much room.
#ifndef ZEVSHM_TOPTABLE_H
#define ZEVSHM_TOPTABLE_H

#include "json.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zevshm {

// A store at one instant, and what it did since the instant before.
struct TopRow
{
    std::string name;
    std::string state = "live"; // or "dead", "silent", "no access", "starting": then the rest is not known
    std::string carries;        // in words
    bool hasVideo = false;
    std::optional<double> rate;         // frames published a second; nothing until it has been measured
    double declaredRate = 0;            // frames a second, or what the timestamps say; 0: not known
    int64_t jitterUs = 0;               // of the timestamps
    std::optional<int64_t> ageUs;       // of the newest frame or sample against the wall clock
    int readers = 0;                    // without this program
    int locksHeld = 0;                  // frames
    uint64_t dropped = 0;               // frames, since the writer started: no free slot
    uint64_t refused = 0;               // frames, since the writer started: out of order
    std::optional<double> bytesASecond; // of pixels and samples
    uint64_t totalBytes = 0;            // of shared memory
};

// The difference of two readings of a counter as a rate; nothing when the writer or the clock began anew.
std::optional<double> ratePerSecond(uint64_t before, uint64_t now, int64_t elapsedUs);

// Lines without line ends, none wider than `width` columns and not more than `height` of them; where the room
// is small, the less important columns and the last rows are left out, and a line says how many rows. 0: as
// much room as it takes. The first line has the columns' names.
std::vector<std::string> layOutTable(const std::vector<TopRow> &rows, int width, int height);

// An object for each, in an array; members are listed in the man page.
void writeJson(JsonWriter &json, const std::vector<TopRow> &rows);

} // namespace zevshm

#endif
