#include "cadence.h"

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <vector>

using namespace zevshm;

TEST(Cadence, frameStartsDoNotAccumulateRounding)
{
    const Ratio rate{30000, 1001};
    EXPECT_EQ(frameStartUs(0, rate), 0);
    EXPECT_EQ(frameStartUs(1, rate), 33367);
    EXPECT_EQ(frameStartUs(30000, rate), 1001000000);
    EXPECT_EQ(intervalUs({25, 1}), 40000);
}

TEST(Cadence, millisecondContainersBecomeEven)
{
    const Ratio rate{30000, 1001};
    CadenceSnap snap(rate, 1000);
    for (int frame = 0; frame < 10000; ++frame) {
        const int64_t ptsUs = 1000 * std::llround(frame * 1001.0 / 30);
        EXPECT_EQ(snap.snap(ptsUs + 7000), 7000 + frameStartUs(frame, rate)) << frame;
    }
}

TEST(Cadence, variableRatesAreLeftAlone)
{
    CadenceSnap snap(Ratio{25, 1}, 1000);
    EXPECT_EQ(snap.snap(0), 0);
    EXPECT_EQ(snap.snap(40400), 40000);
    EXPECT_EQ(snap.snap(95000), 95000);
    CadenceSnap unknown(std::nullopt, 1000);
    EXPECT_EQ(unknown.snap(40400), 40400);
}

namespace {

// Which source frame fills every place.
std::map<int64_t, int> fill(Ratio from, Ratio to, int frames)
{
    RateConversion conversion(to);
    std::map<int64_t, int> places;
    for (int frame = 0; frame < frames; ++frame) {
        const RateConversion::Places p = conversion.accept(frameStartUs(frame, from));
        for (int64_t place = p.first; place < p.own; ++place)
            EXPECT_TRUE(places.emplace(place, frame - 1).second) << "filled twice";
        if (p.take) {
            EXPECT_TRUE(places.emplace(p.own, frame).second) << "filled twice";
        }
    }
    return places;
}

} // namespace

TEST(Cadence, rateConversionFillsEveryPlaceOnce)
{
    for (const auto &[from, to] : {std::pair<Ratio, Ratio>{{25, 1}, {50, 1}},
                                   {{25, 1}, {30, 1}},
                                   {{60, 1}, {25, 1}},
                                   {{30000, 1001}, {25, 1}},
                                   {{25, 2}, {60, 1}}}) {
        const auto places = fill(from, to, 500);
        int64_t expected = 0;
        for (const auto &[place, frame] : places) {
            EXPECT_EQ(place, expected++);
            // No farther from the place's time than the longer of the two intervals.
            const double distance =
                std::abs(static_cast<double>(frameStartUs(place, to) - frameStartUs(frame, from)));
            EXPECT_LE(distance, static_cast<double>(std::max(intervalUs(from), intervalUs(to))));
        }
    }
}
