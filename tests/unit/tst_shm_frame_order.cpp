// Ascending timestamps, and the wall clock's steps.
#include "frame_order.h"

#include <gtest/gtest.h>

using namespace shm;
using Verdict = FrameOrder::Verdict;

namespace {

// A stream that stamps its frames from the wall clock.
struct Source
{
    FrameOrder order;
    int64_t monotonic = 1000000;
    int64_t offset = int64_t{1700000000} * 1000000;

    Verdict frame(int64_t advance, int64_t stampLag = 0)
    {
        monotonic += advance;
        const int64_t wall = monotonic + offset;
        const Verdict verdict = order.judge(wall - stampLag, {wall, monotonic});
        if (verdict != Verdict::Refuse)
            order.accepted(wall - stampLag, verdict);
        return verdict;
    }
};

TEST(ShmFrameOrder, RefusesWhatIsNotLater)
{
    Source source;
    EXPECT_EQ(source.frame(40000), Verdict::Accept);
    EXPECT_EQ(source.frame(40000), Verdict::Accept);
    EXPECT_EQ(source.frame(40000, 40000), Verdict::Refuse);
    EXPECT_EQ(source.frame(0, 90000), Verdict::Refuse);
    EXPECT_EQ(source.frame(40000), Verdict::Accept);
}

TEST(ShmFrameOrder, AStepBackStartsAnew)
{
    Source source;
    source.frame(40000);
    source.offset -= int64_t{3600} * 1000000;
    EXPECT_EQ(source.frame(40000), Verdict::Restart);
    EXPECT_EQ(source.frame(40000), Verdict::Accept);
    // It is used up.
    EXPECT_EQ(source.frame(40000, 100000), Verdict::Refuse);
}

TEST(ShmFrameOrder, FramesCapturedBeforeTheStepComeFirst)
{
    Source source;
    source.frame(40000);
    source.offset -= 500000;
    // Still stamped on the old time.
    EXPECT_EQ(source.frame(40000, -500000), Verdict::Accept);
    EXPECT_EQ(source.frame(40000, -500000), Verdict::Accept);
    EXPECT_EQ(source.frame(40000), Verdict::Restart);
}

TEST(ShmFrameOrder, AStepForwardIsNothingSpecial)
{
    Source source;
    source.frame(40000);
    source.offset += int64_t{3600} * 1000000;
    EXPECT_EQ(source.frame(40000), Verdict::Accept);
    EXPECT_EQ(source.frame(40000, 41000), Verdict::Refuse);
}

TEST(ShmFrameOrder, SlewingIsNoStep)
{
    Source source;
    source.frame(40000);
    for (int i = 0; i < 1000; ++i) {
        source.offset -= 20; // 500 parts in a million
        EXPECT_EQ(source.frame(40000), Verdict::Accept);
    }
    EXPECT_EQ(source.frame(40000, 100000), Verdict::Refuse);
}

TEST(ShmFrameOrder, AStepLongAgoExcusesNothing)
{
    Source source;
    source.frame(40000);
    source.offset -= 10000; // less than an interval: the next frame is later all the same
    EXPECT_EQ(source.frame(40000), Verdict::Accept);
    for (int i = 0; i < 300; ++i)
        EXPECT_EQ(source.frame(40000), Verdict::Accept);
    EXPECT_EQ(source.frame(40000, 100000), Verdict::Refuse);
}

} // namespace
