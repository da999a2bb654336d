// Faults that a publisher can be told to have, so that readers can be tested against them.
#ifndef ZEVSHM_FAULTS_H
#define ZEVSHM_FAULTS_H

#include <cstdint>

namespace zevshm {

struct FaultPlan
{
    int64_t jitterUs = 0;     // video frames come up to this much later, label included
    double ppm = 0;           // the input's clock runs this much fast
    double dropPercent = 0;   // of the video frames
    int64_t stallAfterUs = 0; // from here on nothing is published
    int64_t stallForUs = 0;   // for this long; 0: no stall
    int64_t stepAfterUs = 0;  // from here on labels are shifted
    int64_t stepByUs = 0;     // by this
    uint64_t seed = 1;
};

// Decides what happens to one frame or block. Pure and repeatable: the answer depends on the plan, the
// frame's number and its media time alone, not on what was asked before; switching one fault on does not
// change another's choices.
//
// Threads: immutable, reentrant.
// Units: microseconds of media time since the start of publishing.
class Faults
{
public:
    explicit Faults(const FaultPlan &plan) : m_plan(plan) {}

    struct Verdict
    {
        bool withheld = false;    // neither acquired nor published
        int64_t delayUs = 0;      // of the publication and of the label
        int64_t labelShiftUs = 0; // of the label alone
    };

    Verdict video(uint64_t frameNumber, int64_t elapsedUs) const;
    Verdict audio(int64_t elapsedUs) const;

    const FaultPlan &plan() const { return m_plan; }

private:
    double random(uint64_t frameNumber, uint64_t purpose) const; // 0 <= x < 1

    FaultPlan m_plan;
};

} // namespace zevshm

#endif
