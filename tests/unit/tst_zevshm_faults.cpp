#include "faults.h"

#include <gtest/gtest.h>

#include <set>

using namespace zevshm;

TEST(Faults, noneByDefault)
{
    const Faults faults{FaultPlan{}};
    for (uint64_t frame = 0; frame < 1000; ++frame) {
        const Faults::Verdict verdict = faults.video(frame, static_cast<int64_t>(frame) * 40000);
        EXPECT_FALSE(verdict.withheld);
        EXPECT_EQ(verdict.delayUs, 0);
        EXPECT_EQ(verdict.labelShiftUs, 0);
    }
}

TEST(Faults, jitterSpreadsOverItsWholeRange)
{
    FaultPlan plan;
    plan.jitterUs = 20000;
    const Faults faults{plan};
    int64_t sum = 0;
    int64_t least = INT64_MAX;
    int64_t most = 0;
    for (uint64_t frame = 0; frame < 10000; ++frame) {
        const int64_t delayUs = faults.video(frame, 0).delayUs;
        sum += delayUs;
        least = std::min(least, delayUs);
        most = std::max(most, delayUs);
    }
    EXPECT_GE(least, 0);
    EXPECT_LT(least, 200);
    EXPECT_LT(most, 20000);
    EXPECT_GT(most, 19800);
    EXPECT_NEAR(static_cast<double>(sum) / 10000, 10000, 300);
    EXPECT_EQ(faults.audio(0).delayUs, 0);
}

TEST(Faults, dropsTheWantedShareOfVideoAndNoSound)
{
    FaultPlan plan;
    plan.dropPercent = 10;
    const Faults faults{plan};
    int dropped = 0;
    for (uint64_t frame = 0; frame < 10000; ++frame)
        dropped += faults.video(frame, 0).withheld;
    EXPECT_NEAR(dropped, 1000, 100);
    EXPECT_FALSE(faults.audio(0).withheld);
    plan.dropPercent = 100;
    EXPECT_TRUE(Faults{plan}.video(3, 0).withheld);
}

TEST(Faults, seedRepeatsAndChangesTheChoices)
{
    FaultPlan plan;
    plan.jitterUs = 20000;
    plan.dropPercent = 50;
    plan.seed = 7;
    const Faults once{plan};
    const Faults again{plan};
    plan.seed = 8;
    const Faults other{plan};
    plan.seed = 7;
    plan.dropPercent = 0;
    const Faults withoutDrops{plan};
    int differences = 0;
    for (uint64_t frame = 0; frame < 1000; ++frame) {
        EXPECT_EQ(once.video(frame, 0).withheld, again.video(frame, 0).withheld);
        EXPECT_EQ(once.video(frame, 0).delayUs, again.video(frame, 0).delayUs);
        EXPECT_EQ(once.video(frame, 0).delayUs, withoutDrops.video(frame, 0).delayUs);
        differences += once.video(frame, 0).delayUs != other.video(frame, 0).delayUs;
    }
    EXPECT_GT(differences, 990);
}

TEST(Faults, stallWithholdsEverythingForItsTime)
{
    FaultPlan plan;
    plan.stallAfterUs = 2000000;
    plan.stallForUs = 3000000;
    const Faults faults{plan};
    const struct
    {
        int64_t elapsedUs;
        bool withheld;
    } cases[] = {{0, false}, {1999999, false}, {2000000, true}, {4999999, true}, {5000000, false}};
    for (const auto &c : cases) {
        EXPECT_EQ(faults.video(1, c.elapsedUs).withheld, c.withheld) << c.elapsedUs;
        EXPECT_EQ(faults.audio(c.elapsedUs).withheld, c.withheld) << c.elapsedUs;
    }
}

TEST(Faults, clockStepShiftsLabelsFromItsTimeOn)
{
    FaultPlan plan;
    plan.stepAfterUs = 1000000;
    plan.stepByUs = -250000;
    const Faults faults{plan};
    EXPECT_EQ(faults.video(1, 999999).labelShiftUs, 0);
    EXPECT_EQ(faults.video(1, 1000000).labelShiftUs, -250000);
    EXPECT_EQ(faults.audio(1000000).labelShiftUs, -250000);
    EXPECT_EQ(faults.video(1, 1000000).delayUs, 0);
}
