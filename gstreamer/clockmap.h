// Where the clock of a pipeline lies on the wall clock.
#ifndef ZEVGST_CLOCKMAP_H
#define ZEVGST_CLOCKMAP_H

#include <cstdint>

namespace zevgst {

// The system's clocks are slewed alike, so the difference is taken once and changes in steps: when the wall
// clock was set, or when the pipeline's clock is another device's (a sound card's) and has run away from it.
//
// Pure: every reading is handed in. Threads: the caller serializes.
// Units: nanoseconds of the pipeline's clock, microseconds of the wall clock.
class ClockMap
{
public:
    // The two clocks, read together. Returns whether the difference was taken anew.
    bool observe(int64_t clockNs, int64_t wallUs);
    bool known() const { return m_known; }
    void reset() { m_known = false; }

    int64_t wallUs(int64_t clockNs) const;
    int64_t clockNs(int64_t wallUs) const;

    static constexpr int64_t stepUs = 5000;

private:
    bool m_known = false;
    int64_t m_offsetNs = 0; // wall clock less pipeline's clock
};

// The wall clock, in microseconds since the epoch.
int64_t wallNowUs();

} // namespace zevgst

#endif
