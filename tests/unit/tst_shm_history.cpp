// Finding frames by time, on an index that the test writes.
#include "history.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <vector>

using namespace shm;

namespace {

class ShmHistory : public ::testing::Test
{
protected:
    static constexpr uint32_t kFrames = 10;
    static constexpr uint32_t kSlots = 16;

    void SetUp() override
    {
        const uint32_t ring = historyRing(kFrames);
        const size_t bytes = indexLayout(kSlots, ring).bytes;
        memory.reset(static_cast<uint8_t *>(std::aligned_alloc(4096, bytes)));
        std::fill_n(memory.get(), bytes, uint8_t{0});
        index = indexView(memory.get(), kSlots, ring, kFrames);
        index.head->first.value.store(1);
    }
    void publish(int64_t timestamp)
    {
        const uint64_t generation = index.head->newest.value.load() + 1;
        HistoryEntry &entry = index.history[generation & (index.ring - 1)];
        entry.timestamp.store(timestamp);
        entry.slot.store(static_cast<uint32_t>(generation % kSlots));
        entry.generation.store(generation);
        index.head->newest.value.store(generation);
    }
    // Timestamp of what is found, or -1, wherever a search before may have ended.
    int64_t find(shm_video_lookup_mode_t mode, int64_t timestamp, int64_t intervalUs = 0) const
    {
        const int64_t found = findFrom(0, mode, timestamp, intervalUs);
        const uint64_t newest = index.head->newest.value.load();
        for (uint64_t hint = 1; hint <= newest + 2; ++hint)
            EXPECT_EQ(findFrom(hint, mode, timestamp, intervalUs), found) << timestamp << " hint " << hint;
        EXPECT_EQ(findFrom(UINT64_MAX, mode, timestamp, intervalUs), found) << timestamp;
        return found;
    }
    int64_t findFrom(uint64_t hint, shm_video_lookup_mode_t mode, int64_t timestamp, int64_t intervalUs) const
    {
        FoundFrame frame;
        const Lookup result = findFrame(index, mode, timestamp, nearestLimitUs(intervalUs), &hint, &frame);
        EXPECT_NE(result, Lookup::Moved);
        return result == Lookup::Found ? frame.timestamp : -1;
    }
    Lookup lookup(shm_video_lookup_mode_t mode, int64_t timestamp, uint64_t hint = 0) const
    {
        FoundFrame frame;
        return findFrame(index, mode, timestamp, nearestLimitUs(0), &hint, &frame);
    }

    struct Free
    {
        void operator()(uint8_t *p) const { std::free(p); }
    };
    std::unique_ptr<uint8_t, Free> memory;
    IndexView index;
};

TEST_F(ShmHistory, AnEmptyOneHasNothing)
{
    for (int mode = 0; mode <= 4; ++mode)
        EXPECT_EQ(find(static_cast<shm_video_lookup_mode_t>(mode), 1000), -1);
    long long timestamps[4];
    EXPECT_EQ(historyTimestamps(index, timestamps, 4), 0);
}

TEST_F(ShmHistory, EveryModeChoosesAsItSays)
{
    for (int64_t t = 1000; t <= 5000; t += 1000)
        publish(t);
    const struct
    {
        int64_t asked;
        int64_t nearest, newest, before, after, exact;
    } cases[] = {{2000, 2000, 5000, 2000, 2000, 2000}, {2400, 2000, 5000, 2000, 3000, -1},
                 {2500, 2000, 5000, 2000, 3000, -1},   {2501, 3000, 5000, 2000, 3000, -1},
                 {0, 1000, 5000, -1, 1000, -1},        {1000, 1000, 5000, 1000, 1000, 1000},
                 {5000, 5000, 5000, 5000, 5000, 5000}, {9000, 5000, 5000, 5000, -1, -1}};
    for (const auto &one : cases) {
        EXPECT_EQ(find(SHM_VIDEO_NEAREST, one.asked), one.nearest) << one.asked;
        EXPECT_EQ(find(SHM_VIDEO_NEWEST, one.asked), one.newest) << one.asked;
        EXPECT_EQ(find(SHM_VIDEO_AT_OR_BEFORE, one.asked), one.before) << one.asked;
        EXPECT_EQ(find(SHM_VIDEO_AT_OR_AFTER, one.asked), one.after) << one.asked;
        EXPECT_EQ(find(SHM_VIDEO_EXACT, one.asked), one.exact) << one.asked;
    }
}

TEST_F(ShmHistory, NearestFindsNothingBeyondItsLimit)
{
    publish(100000000);
    const int64_t t = 100000000;
    // max(1 s, 3 intervals), 10 s while the interval is not known.
    EXPECT_EQ(find(SHM_VIDEO_NEAREST, t + 1000000, 40000), t);
    EXPECT_EQ(find(SHM_VIDEO_NEAREST, t + 1000001, 40000), -1);
    EXPECT_EQ(find(SHM_VIDEO_NEAREST, t - 1000001, 40000), -1);
    EXPECT_EQ(find(SHM_VIDEO_NEAREST, t + 3000000, 1000000), t);
    EXPECT_EQ(find(SHM_VIDEO_NEAREST, t + 3000001, 1000000), -1);
    EXPECT_EQ(find(SHM_VIDEO_NEAREST, t + 10000000, 0), t);
    EXPECT_EQ(find(SHM_VIDEO_NEAREST, t + 10000001, 0), -1);
    // The other modes know no limit.
    EXPECT_EQ(find(SHM_VIDEO_AT_OR_BEFORE, t + 3600000000, 40000), t);
    EXPECT_EQ(find(SHM_VIDEO_NEWEST, 0, 40000), t);
}

TEST_F(ShmHistory, ShowsTheAdvertisedCountAndNoMore)
{
    for (int64_t t = 1; t <= 100; ++t)
        publish(t * 1000);
    EXPECT_EQ(find(SHM_VIDEO_AT_OR_AFTER, 0), 91000);
    long long timestamps[20];
    ASSERT_EQ(historyTimestamps(index, timestamps, 20), 10);
    EXPECT_EQ(timestamps[0], 91000);
    EXPECT_EQ(timestamps[9], 100000);
    ASSERT_EQ(historyTimestamps(index, timestamps, 3), 3);
    EXPECT_EQ(timestamps[0], 98000);
    EXPECT_EQ(historyTimestamps(index, timestamps, 0), 0);
}

TEST_F(ShmHistory, ARestartHidesWhatWasBefore)
{
    for (int64_t t = 1; t <= 5; ++t)
        publish(t * 1000000);
    index.head->first.value.store(6);
    // Between the two stores of the writer.
    EXPECT_EQ(lookup(SHM_VIDEO_NEWEST, 0), Lookup::Moved);
    publish(500);
    EXPECT_EQ(find(SHM_VIDEO_AT_OR_AFTER, 0), 500);
    EXPECT_EQ(find(SHM_VIDEO_AT_OR_BEFORE, 9000000), 500);
    long long timestamps[10];
    EXPECT_EQ(historyTimestamps(index, timestamps, 10), 1);
}

TEST_F(ShmHistory, UnevenStreamsAreSearchedRightToo)
{
    // Every choice against a plain walk, for paces that mislead a guess.
    const std::vector<std::vector<int64_t>> streams = {{0, 1, 2, 3, 4, 5, 6, 7, 8, 1000000},
                                                       {0, 999991, 999992, 999993, 999994, 999995, 1000000},
                                                       {0, 1, 10, 100, 1000, 10000, 100000, 1000000},
                                                       {5, 7},
                                                       {5}};
    for (const std::vector<int64_t> &stream : streams) {
        SetUp();
        for (const int64_t t : stream)
            publish(t);
        for (const int64_t t : stream) {
            for (const int64_t asked : {t - 1, t, t + 1}) {
                int64_t before = -1;
                int64_t after = -1;
                for (const int64_t one : stream) {
                    before = one <= asked ? one : before;
                    after = after < 0 && one >= asked ? one : after;
                }
                EXPECT_EQ(find(SHM_VIDEO_AT_OR_BEFORE, asked), before);
                EXPECT_EQ(find(SHM_VIDEO_AT_OR_AFTER, asked), after);
                EXPECT_EQ(find(SHM_VIDEO_EXACT, asked), before == after ? before : -1);
            }
        }
    }
}

TEST_F(ShmHistory, AnOverwrittenEntryIsNeverTakenForAFrame)
{
    for (int64_t t = 1; t <= 10; ++t)
        publish(t * 1000);
    for (uint64_t g = 1; g <= 10; ++g)
        index.history[g & (index.ring - 1)].generation.store(g + index.ring);
    for (int mode = 0; mode <= 4; ++mode) {
        for (uint64_t hint = 0; hint <= 11; ++hint)
            EXPECT_EQ(lookup(static_cast<shm_video_lookup_mode_t>(mode), 5000, hint), Lookup::Moved);
    }
}

TEST_F(ShmHistory, HostileTimestampsDoNoHarm)
{
    publish(INT64_MIN);
    publish(INT64_MAX);
    for (int mode = 0; mode <= 4; ++mode) {
        for (const int64_t t : {INT64_MIN, int64_t{0}, INT64_MAX})
            find(static_cast<shm_video_lookup_mode_t>(mode), t, INT64_MAX);
    }
    EXPECT_EQ(find(SHM_VIDEO_EXACT, INT64_MAX), INT64_MAX);
}

} // namespace
