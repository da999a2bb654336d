// Several slots acquired at once, as a device takes them that fills them by itself.
#include "../unit/shm_testing.h"

#include <sys/stat.h>

#include <algorithm>
#include <deque>
#include <map>
#include <set>

using namespace testing_shm;

namespace {

constexpr int64_t kFrameUs = 40000;

class ShmLent : public ::testing::Test
{
protected:
    void open(uint32_t lentFrames)
    {
        shm_writer_params_t params = smallVideo("a");
        params.lent_frames = lentFrames;
        shm_error_t error = {};
        writer = openWriter(params, &error);
        ASSERT_TRUE(writer) << error.message;
    }
    // 0, or the negative errno.
    int lend()
    {
        shm_writer_frame_t frame = {};
        const int result = shm_writer_acquire_for_device(writer.get(), &frame);
        if (result == 0)
            lent.push_back(frame);
        return result;
    }
    void fill(const shm_writer_frame_t &frame, uint8_t value)
    {
        std::memset(frame.planes[0], value, static_cast<size_t>(frame.strides[0]) * 48);
        std::memset(frame.planes[1], value, static_cast<size_t>(frame.strides[1]) * 24);
    }
    // Publishes the lent slot that has waited longest.
    int publishOldest(uint8_t value)
    {
        shm_writer_frame_t frame = lent.front();
        lent.pop_front();
        fill(frame, value);
        return shm_writer_publish(writer.get(), &frame, timestamp += kFrameUs);
    }
    // What a device does with a frame: another slot first, then the filled one goes out.
    bool turn(uint8_t value)
    {
        return eventually([this] { return lend() == 0; }) && publishOldest(value) == 0;
    }

    StoreDirectory directory;
    Writer writer;
    std::deque<shm_writer_frame_t> lent;
    int64_t timestamp = 1000000;
};

TEST_F(ShmLent, AsManyAsAgreedAreLentAndComeOnTopOfTheSpareOnes)
{
    open(5);
    EXPECT_EQ(statsOf(writer.get()).slot_count, 8 + 4 + 4);
    std::set<int> slots;
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(lend(), 0) << i;
        slots.insert(lent.back().slot);
    }
    EXPECT_EQ(slots.size(), 5u);
    shm_writer_frame_t sixth = {};
    EXPECT_EQ(shm_writer_acquire(writer.get(), &sixth), -EBUSY);
    const std::vector<uint8_t> row(64 * 48, 1);
    const uint8_t *const planes[4] = {row.data(), row.data(), nullptr, nullptr};
    const int32_t strides[4] = {64, 64, 0, 0};
    EXPECT_EQ(shm_writer_publish_video(writer.get(), planes, strides, 5000), -EBUSY);
    EXPECT_EQ(statsOf(writer.get()).frames_dropped, 0u) << "nobody's readers are to blame";
    shm_writer_abandon(writer.get(), &lent[2]);
    EXPECT_EQ(lent[2].slot, -1);
    EXPECT_EQ(shm_writer_acquire(writer.get(), &sixth), 0);
}

TEST_F(ShmLent, OneAtATimeUnlessAskedFor)
{
    open(0);
    EXPECT_EQ(statsOf(writer.get()).slot_count, 8 + 4);
    EXPECT_EQ(lend(), 0);
    EXPECT_EQ(lend(), -EBUSY);
}

TEST_F(ShmLent, TheyArePublishedAndAbandonedInAnyOrder)
{
    open(4);
    for (int i = 0; i < 4; ++i)
        ASSERT_EQ(lend(), 0);
    for (size_t i = 0; i < 4; ++i)
        fill(lent[i], static_cast<uint8_t>(10 + i));
    ASSERT_EQ(shm_writer_publish(writer.get(), &lent[3], 1000), 0);
    shm_writer_abandon(writer.get(), &lent[0]);
    ASSERT_EQ(shm_writer_publish(writer.get(), &lent[1], 2000), 0);
    // Refused for its time, and given back.
    EXPECT_EQ(shm_writer_publish(writer.get(), &lent[2], 2000), -EEXIST);
    EXPECT_EQ(lent[2].slot, -1);

    Reader reader = openReader("a");
    shm_video_frame_t frame;
    ASSERT_EQ(lockFrame(reader.get(), &frame, SHM_VIDEO_NEWEST), 0);
    EXPECT_EQ(frame.timestamp, 2000);
    EXPECT_EQ(frame.planes[0][0], 11);
    shm_reader_unlock_video(reader.get(), &frame);
    ASSERT_EQ(lockFrame(reader.get(), &frame, SHM_VIDEO_EXACT, 1000), 0);
    EXPECT_EQ(frame.planes[0][0], 13);
    shm_reader_unlock_video(reader.get(), &frame);
    shm_video_status_t status;
    shm_reader_get_video_status(reader.get(), &status);
    EXPECT_EQ(status.frames_held, 2);
    lent.clear();
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(lend(), 0) << "all four are back";
}

TEST_F(ShmLent, ARecordThatIsNotAcquiredIsRefusedAndChangesNothing)
{
    open(3);
    ASSERT_EQ(lend(), 0);
    ASSERT_EQ(lend(), 0);
    shm_writer_frame_t copy = lent[0];
    ASSERT_EQ(shm_writer_publish(writer.get(), &lent[0], 1000), 0);
    EXPECT_EQ(shm_writer_publish(writer.get(), &copy, 2000), -EINVAL);
    shm_writer_abandon(writer.get(), &copy);
    for (const int slot : {-1, 1 << 20}) {
        copy.slot = slot;
        EXPECT_EQ(shm_writer_publish(writer.get(), &copy, 2000), -EINVAL);
        shm_writer_abandon(writer.get(), &copy);
    }
    EXPECT_EQ(shm_writer_publish(writer.get(), &lent[1], 2000), 0);
    EXPECT_EQ(statsOf(writer.get()).frames_published, 2u);
}

// Frame after frame with four on loan: what a reader holds is not written, what it finds is whole.
TEST_F(ShmLent, ReadersKeepWhatTheyHoldWhileADeviceGoesRound)
{
    open(5);
    Reader reader = openReader("a");
    for (int i = 0; i < 4; ++i)
        ASSERT_EQ(lend(), 0);
    std::deque<std::pair<shm_video_frame_t, uint8_t>> held;
    for (int i = 1; i <= 300; ++i) {
        const auto value = static_cast<uint8_t>(i);
        ASSERT_TRUE(turn(value));
        shm_video_frame_t frame;
        ASSERT_EQ(lockFrame(reader.get(), &frame, SHM_VIDEO_NEWEST), 0);
        EXPECT_EQ(frame.timestamp, timestamp);
        held.emplace_back(frame, value);
        for (const auto &[kept, content] : held) {
            ASSERT_EQ(kept.planes[0][70], content) << i;
            ASSERT_EQ(kept.planes[1][70], content) << i;
        }
        if (held.size() == 7) {
            shm_reader_unlock_video(reader.get(), &held.front().first);
            held.pop_front();
        }
    }
}

// Half of what may be pinned is pinned all the time: with the lent slots counted among the spare ones there
// would be too few free ones, and the service thread would make more.
TEST_F(ShmLent, WhatIsLentIsNotTakenForFreeNorForShort)
{
    open(9);
    Reader reader = openReader("a");
    for (int i = 0; i < 8; ++i)
        ASSERT_EQ(lend(), 0);
    shm_video_frame_t first, second;
    ASSERT_TRUE(turn(1));
    ASSERT_EQ(lockFrame(reader.get(), &first, SHM_VIDEO_NEWEST), 0);
    ASSERT_TRUE(turn(2));
    ASSERT_EQ(lockFrame(reader.get(), &second, SHM_VIDEO_NEWEST), 0);
    for (int i = 0; i < 200; ++i)
        ASSERT_TRUE(turn(3));
    // The service thread looks every 100 ms, and when it is woken: after this it has.
    ASSERT_TRUE(eventually([this] { return statsOf(writer.get()).locks_held == 2; }));
    EXPECT_EQ(statsOf(writer.get()).slots_replaced, 0u);
    EXPECT_EQ(statsOf(writer.get()).slot_count, 8 + 4 + 8);
    EXPECT_EQ(statsOf(writer.get()).frames_dropped, 0u);
    EXPECT_EQ(first.planes[0][0], 1);
    EXPECT_EQ(second.planes[0][0], 2);
}

// Pinned slots are replaced while others are lent, those are not touched, and what was added goes back.
TEST_F(ShmLent, FreshMemoryComesAndGoesBesideTheLentSlots)
{
    open(5);
    Reader pinner = openReader("a", nullptr, 64);
    for (int i = 0; i < 4; ++i)
        ASSERT_EQ(lend(), 0);
    const shm_writer_frame_t kept = lent.back(); // lent all the time: it stays where it is
    lent.pop_back();
    fill(kept, 99);
    std::vector<shm_video_frame_t> pinned;
    for (int i = 0; i < 6; ++i) {
        ASSERT_TRUE(turn(static_cast<uint8_t>(i + 1)));
        shm_video_frame_t frame;
        ASSERT_EQ(lockFrame(pinner.get(), &frame, SHM_VIDEO_NEWEST), 0);
        pinned.push_back(frame);
        for (int k = 0; k < 9; ++k)
            ASSERT_TRUE(turn(200));
    }
    EXPECT_GT(statsOf(writer.get()).slots_replaced, 0u);
    EXPECT_EQ(statsOf(writer.get()).readers_disconnected, 0u);
    for (size_t i = 0; i < pinned.size(); ++i)
        EXPECT_EQ(pinned[i].planes[0][100], i + 1);
    for (shm_video_frame_t &frame : pinned)
        shm_reader_unlock_video(pinner.get(), &frame);
    EXPECT_TRUE(eventually([this] {
        turn(1);
        return statsOf(writer.get()).slot_count == 8 + 4 + 4;
    }));
    EXPECT_EQ(kept.planes[0][0], 99);
    shm_writer_frame_t last = kept;
    ASSERT_EQ(shm_writer_publish(writer.get(), &last, timestamp += kFrameUs), 0);
    shm_video_frame_t frame;
    ASSERT_EQ(lockFrame(pinner.get(), &frame, SHM_VIDEO_NEWEST), 0);
    EXPECT_EQ(frame.planes[0][0], 99);
}

// A device's driver may have looked up what an address means, and has to learn that it means other memory.
TEST_F(ShmLent, FreshMemoryOfASlotIsToldFromWhatItHadBefore)
{
    open(3);
    Reader pinner = openReader("a", nullptr, 64);
    std::map<int, std::pair<uint32_t, uint64_t>> known; // by slot: the memory, by its inode
    int renewed = 0;
    for (int i = 0; i < 2; ++i)
        ASSERT_EQ(lend(), 0);
    const auto look = [&] {
        const shm_writer_frame_t &newest = lent.back();
        struct stat status = {};
        ASSERT_EQ(fstat(newest.memory_fd, &status), 0);
        ASSERT_GT(newest.memory_generation, 0u);
        const auto [slot, isNew] =
            known.try_emplace(newest.slot, newest.memory_generation, uint64_t{status.st_ino});
        const auto [generation, inode] = slot->second;
        EXPECT_EQ(generation == newest.memory_generation, inode == status.st_ino) << "slot " << newest.slot;
        EXPECT_LE(generation, newest.memory_generation);
        slot->second = {newest.memory_generation, status.st_ino};
        renewed += generation != newest.memory_generation ? 1 : 0;
        EXPECT_TRUE(isNew || generation != 0);
    };
    for (int round = 0; round < 3; ++round) {
        std::vector<shm_video_frame_t> pinned;
        for (int i = 0; i < 6; ++i) {
            ASSERT_TRUE(turn(1));
            look();
            shm_video_frame_t frame;
            ASSERT_EQ(lockFrame(pinner.get(), &frame, SHM_VIDEO_NEWEST), 0);
            pinned.push_back(frame);
            for (int k = 0; k < 9; ++k) {
                ASSERT_TRUE(turn(1));
                look();
            }
        }
        for (shm_video_frame_t &frame : pinned)
            shm_reader_unlock_video(pinner.get(), &frame);
        EXPECT_TRUE(eventually([&] {
            if (turn(1))
                look();
            return statsOf(writer.get()).slot_count == 8 + 4 + 2;
        }));
    }
    EXPECT_GT(renewed, 0);
}

// A reader that pins until it is cut off starves nobody: the device has its slots all the time, and gets
// others.
TEST_F(ShmLent, AReaderThatIsCutOffTakesNoLentSlotAlong)
{
    open(5);
    Reader pinner = openReader("a", nullptr, 64);
    for (int i = 0; i < 4; ++i)
        ASSERT_EQ(lend(), 0);
    std::vector<std::pair<shm_video_frame_t, uint8_t>> pinned;
    ASSERT_TRUE(eventually([&] {
        const auto value = static_cast<uint8_t>(pinned.size() + 1);
        if (lend() == 0 && publishOldest(value) == 0) {
            shm_video_frame_t frame;
            if (lockFrame(pinner.get(), &frame, SHM_VIDEO_NEWEST) == 0)
                pinned.emplace_back(frame, value);
        }
        return statsOf(writer.get()).readers_disconnected > 0;
    }));
    for (int i = 0; i < 100; ++i)
        ASSERT_TRUE(turn(255)) << i;
    for (const auto &[frame, value] : pinned)
        ASSERT_EQ(frame.planes[0][64], value);
    EXPECT_LE(statsOf(writer.get()).slot_count, 2 * (8 + 4 + 4));
}

TEST_F(ShmLent, WithNoFreeSlotTheFrameIsDroppedAndTheLentOnesStay)
{
    shm_writer_params_t params = smallVideo("a");
    params.lent_frames = 4;
    params.history_frames = 2;
    params.spare_frames = 2;
    writer = openWriter(params);
    ASSERT_TRUE(writer);
    // More readers than there is memory to replace: eight slots of the store's twice seven, one each.
    std::vector<Reader> readers;
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(lend(), 0);
    const uint64_t before = statsOf(writer.get()).frames_dropped;
    bool dropped = false;
    ASSERT_TRUE(eventually([&] {
        const int result = lend();
        dropped = dropped || result == -EAGAIN;
        if (result != 0)
            return dropped;
        EXPECT_EQ(publishOldest(1), 0);
        Reader reader = openReader("a", nullptr, 1);
        shm_video_frame_t frame;
        if (reader && lockFrame(reader.get(), &frame, SHM_VIDEO_NEWEST) == 0)
            readers.push_back(std::move(reader));
        return false;
    }));
    EXPECT_GT(statsOf(writer.get()).frames_dropped, before);
    EXPECT_EQ(lent.size(), 3u);
    EXPECT_EQ(publishOldest(2), 0) << "what is lent can be published all the same";
    readers.clear();
    EXPECT_TRUE(turn(3));
}

TEST_F(ShmLent, ClosingWhileSeveralAreLentLeavesNothingBehind)
{
    const size_t descriptors = openDescriptors();
    const size_t mappings = shmMappings();
    open(8);
    for (int i = 0; i < 8; ++i)
        ASSERT_EQ(lend(), 0);
    ASSERT_EQ(publishOldest(5), 0);
    Reader reader = openReader("a");
    shm_video_frame_t frame;
    ASSERT_EQ(lockFrame(reader.get(), &frame, SHM_VIDEO_NEWEST), 0);
    writer.reset();
    EXPECT_EQ(frame.planes[0][0], 5);
    EXPECT_EQ(shm_reader_is_ready(reader.get()), 0);
    reader.reset();
    EXPECT_EQ(openDescriptors(), descriptors);
    EXPECT_EQ(shmMappings(), mappings);
}

TEST_F(ShmLent, TooManyAreRefusedWithTheLimit)
{
    shm_writer_params_t params = smallVideo("a");
    params.lent_frames = SHM_LENT_MAX + 1;
    shm_error_t error = {};
    EXPECT_FALSE(openWriter(params, &error));
    EXPECT_EQ(error.code, -EINVAL);
    EXPECT_STREQ(error.message, "33 lent frames are too many: 32 at most");
    params.lent_frames = SHM_LENT_MAX;
    EXPECT_TRUE(openWriter(params));
    params.history_frames = 200;
    params.spare_frames = 26;
    EXPECT_FALSE(openWriter(params, &error));
    EXPECT_STREQ(error.message, "26 spare frames do not fit: 2 to 25 beside this history");
}

TEST_F(ShmLent, TheLayoutIsKnownBeforeThereIsAStore)
{
    shm_writer_frame_t told = {};
    int64_t bytes = 0;
    ASSERT_EQ(shm_writer_describe_frame(64, 48, SHM_PIXEL_FORMAT_NV12, &told, &bytes), 0);
    open(1);
    ASSERT_EQ(lend(), 0);
    for (int plane = 0; plane < 4; ++plane) {
        EXPECT_EQ(told.strides[plane], lent[0].strides[plane]);
        EXPECT_EQ(told.plane_offsets[plane], lent[0].plane_offsets[plane]);
        EXPECT_EQ(told.planes[plane], nullptr);
    }
    EXPECT_EQ(told.slot, -1);
    EXPECT_EQ(told.memory_fd, -1);
    Reader reader = openReader("a");
    EXPECT_EQ(static_cast<uint64_t>(bytes), infoOf(reader.get()).slot_bytes);
    EXPECT_EQ(shm_writer_describe_frame(0, 48, SHM_PIXEL_FORMAT_NV12, &told, nullptr), -EINVAL);
    EXPECT_EQ(shm_writer_describe_frame(64, 48, 9, &told, nullptr), -EINVAL);
    EXPECT_EQ(shm_writer_describe_frame(64, SHM_DIMENSION_MAX + 1, 3, &told, nullptr), -EINVAL);
    EXPECT_EQ(shm_writer_describe_frame(64, 48, SHM_PIXEL_FORMAT_NV12, nullptr, nullptr), -EINVAL);
}

} // namespace
