// One store in one process: what a program sees through the public interface.
#include "../unit/shm_testing.h"

#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <map>

using namespace testing_shm;

namespace {

class ShmStore : public ::testing::Test
{
protected:
    StoreDirectory directory;
};

TEST_F(ShmStore, DeliversFramesAndTheirDescription)
{
    shm_writer_params_t params = smallVideo("a");
    params.rate_numerator = 25;
    params.rate_denominator = 1;
    Writer writer = openWriter(params);
    ASSERT_TRUE(writer);
    ASSERT_EQ(publishFrame(writer.get(), 40000, 7), 0);
    Reader reader = openReader("a");
    ASSERT_TRUE(reader);

    shm_reader_format_t format;
    ASSERT_EQ(shm_reader_get_format(reader.get(), &format), 0);
    EXPECT_NE(format.valid, 0);
    EXPECT_NE(format.has_video, 0);
    EXPECT_EQ(format.width, 64);
    EXPECT_EQ(format.height, 48);
    EXPECT_EQ(format.frame_count, 8);
    EXPECT_EQ(format.pixel_format, SHM_PIXEL_FORMAT_NV12);
    EXPECT_EQ(format.has_audio, 0);

    shm_video_frame_t frame;
    ASSERT_EQ(lockFrame(reader.get(), &frame, SHM_VIDEO_NEWEST), 0);
    EXPECT_EQ(frame.width, 64);
    EXPECT_EQ(frame.height, 48);
    EXPECT_EQ(frame.timestamp, 40000);
    EXPECT_EQ(frame.planes[0][63], 7);
    EXPECT_EQ(frame.planes[1][0], 7);
    EXPECT_EQ(frame.planes[2], nullptr);
    EXPECT_EQ(frame.strides[0], 256);
    EXPECT_EQ(frame.strides[2], 0);
    EXPECT_EQ(frame.plane_offsets[1] % 4096, 0);
    EXPECT_EQ(frame.matrix, SHM_MATRIX_BT709);
    EXPECT_EQ(frame.range, SHM_RANGE_FULL);
    EXPECT_EQ(shm_reader_get_dmabuf_fd(reader.get()), -1);
    EXPECT_LT(shm_reader_open_dmabuf_fd(reader.get()), 0);
    shm_reader_unlock_video(reader.get(), &frame);
    EXPECT_EQ(frame.planes[0], nullptr);

    shm_video_status_t status;
    ASSERT_EQ(shm_reader_get_video_status(reader.get(), &status), 0);
    EXPECT_NE(status.live, 0);
    EXPECT_EQ(status.frames_held, 1);
    EXPECT_EQ(status.newest_timestamp, 40000);
    EXPECT_EQ(status.frame_interval_us, 40000);
    EXPECT_EQ(status.frames_published, 1u);
}

TEST_F(ShmStore, KeepsAtLeastTheAdvertisedHistory)
{
    Writer writer = openWriter(smallVideo("a"));
    Reader reader = openReader("a");
    ASSERT_TRUE(reader);
    for (int i = 1; i <= 100; ++i) {
        ASSERT_EQ(publishFrame(writer.get(), i * 1000, static_cast<uint8_t>(i)), 0);
        long long timestamps[8];
        const int held = shm_reader_get_video_timestamps(reader.get(), timestamps, 8);
        ASSERT_EQ(held, std::min(i, 8));
        for (int k = 0; k < held; ++k)
            ASSERT_EQ(timestamps[k], (i - held + 1 + k) * 1000);
        shm_video_frame_t frame;
        ASSERT_EQ(lockFrame(reader.get(), &frame, SHM_VIDEO_EXACT, timestamps[0]), 0);
        ASSERT_EQ(frame.planes[0][0], static_cast<uint8_t>(timestamps[0] / 1000));
        shm_reader_unlock_video(reader.get(), &frame);
    }
}

TEST_F(ShmStore, RefusesFramesThatAreNotLater)
{
    Writer writer = openWriter(smallVideo("a"));
    EXPECT_EQ(publishFrame(writer.get(), 1000, 1), 0);
    EXPECT_EQ(publishFrame(writer.get(), 1000, 2), -EEXIST);
    EXPECT_EQ(publishFrame(writer.get(), 999, 3), -EEXIST);
    EXPECT_EQ(publishFrame(writer.get(), 1001, 4), 0);
    EXPECT_EQ(statsOf(writer.get()).frames_refused, 2u);
    EXPECT_EQ(statsOf(writer.get()).frames_published, 2u);
}

TEST_F(ShmStore, LimitsTheLocksOfAReader)
{
    Writer writer = openWriter(smallVideo("a"));
    for (int i = 1; i <= 8; ++i)
        publishFrame(writer.get(), i * 1000, 0);
    Reader reader = openReader("a", nullptr, 3);
    shm_video_frame_t frames[4];
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(lockFrame(reader.get(), &frames[i], SHM_VIDEO_EXACT, (i + 1) * 1000), 0);
    EXPECT_EQ(lockFrame(reader.get(), &frames[3], SHM_VIDEO_NEWEST), -EBUSY);
    EXPECT_EQ(frames[3].planes[0], nullptr);
    shm_reader_unlock_video(reader.get(), &frames[1]);
    EXPECT_EQ(lockFrame(reader.get(), &frames[3], SHM_VIDEO_NEWEST), 0);
}

TEST_F(ShmStore, ASecondUnlockDoesNothing)
{
    Writer writer = openWriter(smallVideo("a"));
    publishFrame(writer.get(), 1000, 1);
    Reader reader = openReader("a", nullptr, 1);
    shm_video_frame_t frame;
    ASSERT_EQ(lockFrame(reader.get(), &frame, SHM_VIDEO_NEWEST), 0);
    shm_video_frame_t copy = frame;
    shm_reader_unlock_video(reader.get(), &frame);
    shm_reader_unlock_video(reader.get(), &frame);
    shm_reader_unlock_video(reader.get(), &copy);
    ASSERT_TRUE(eventually([&] { return statsOf(writer.get()).locks_held == 0; }));
    // The counter has not gone below zero either: the slot can be locked and counted as before.
    ASSERT_EQ(lockFrame(reader.get(), &frame, SHM_VIDEO_NEWEST), 0);
    EXPECT_TRUE(eventually([&] { return statsOf(writer.get()).locks_held == 1; }));
}

TEST_F(ShmStore, TheSameFrameLockedTwiceIsUnlockedTwice)
{
    const Writer writer = openWriter(smallVideo("s"));
    ASSERT_EQ(0, publishFrame(writer.get(), 1000, 1));
    const Reader reader = openReader("s", nullptr, 2);
    shm_video_frame_t first;
    shm_video_frame_t second;
    shm_video_frame_t third;
    ASSERT_EQ(0, lockFrame(reader.get(), &first, SHM_VIDEO_NEWEST));
    ASSERT_EQ(0, lockFrame(reader.get(), &second, SHM_VIDEO_NEWEST));
    EXPECT_EQ(-EBUSY, lockFrame(reader.get(), &third, SHM_VIDEO_NEWEST));
    EXPECT_TRUE(eventually([&] { return statsOf(writer.get()).locks_held == 2; }));
    shm_reader_unlock_video(reader.get(), &first);
    EXPECT_TRUE(eventually([&] { return statsOf(writer.get()).locks_held == 1; }));
    // The second lock alone keeps the frame, however often the writer comes round.
    for (int i = 0; i < 60; ++i)
        publishFrame(writer.get(), 2000 + i, 2);
    EXPECT_EQ(1, second.planes[0][0]);
    shm_reader_unlock_video(reader.get(), &second);
    EXPECT_TRUE(eventually([&] { return statsOf(writer.get()).locks_held == 0; }));
}

// The writer can write a reader's control page. What the reader holds it knows by itself.
TEST_F(ShmStore, AWriterThatClearsLockWordsMakesNoReaderForget)
{
    const Writer writer = openWriter(smallVideo("s"));
    ASSERT_EQ(0, publishFrame(writer.get(), 1000, 1));
    const Reader reader = openReader("s", nullptr, 2);
    shm_video_frame_t first;
    shm_video_frame_t second;
    shm_video_frame_t third;
    ASSERT_EQ(0, lockFrame(reader.get(), &first, SHM_VIDEO_NEWEST));
    ASSERT_EQ(0, lockFrame(reader.get(), &second, SHM_VIDEO_NEWEST));
    std::ifstream maps("/proc/self/maps");
    std::string line;
    int cleared = 0;
    while (std::getline(maps, line)) {
        if (line.find("memfd:shm-control") == std::string::npos)
            continue;
        std::memset(reinterpret_cast<uint8_t *>(std::stoull(line, nullptr, 16)) + 1024, 0, 3072);
        ++cleared;
    }
    ASSERT_EQ(2, cleared);
    EXPECT_EQ(-EBUSY, lockFrame(reader.get(), &third, SHM_VIDEO_NEWEST));
    shm_reader_unlock_video(reader.get(), &first);
    shm_reader_unlock_video(reader.get(), &second);
    EXPECT_EQ(nullptr, first.planes[0]);
    EXPECT_EQ(nullptr, second.planes[0]);
}

TEST_F(ShmStore, AFileThatIsNoSocketIsNotOverwritten)
{
    const std::string path = directory.path() + "/s";
    std::ofstream(path) << "precious";
    shm_error_t error = {};
    EXPECT_FALSE(openWriter(smallVideo("s"), &error));
    EXPECT_EQ(-EEXIST, error.code);
    EXPECT_NE(nullptr, std::strstr(error.message, path.c_str())) << error.message;
    std::string text;
    std::ifstream(path) >> text;
    EXPECT_EQ("precious", text);
}

TEST_F(ShmStore, UnlockRunsInAnyThread)
{
    Writer writer = openWriter(smallVideo("a"));
    Reader reader = openReader("a");
    for (int i = 1; i <= 500; ++i) {
        ASSERT_EQ(publishFrame(writer.get(), i * 1000, static_cast<uint8_t>(i)), 0);
        shm_video_frame_t frame;
        ASSERT_EQ(lockFrame(reader.get(), &frame, SHM_VIDEO_NEWEST), 0);
        std::thread other([&reader, frame]() mutable { shm_reader_unlock_video(reader.get(), &frame); });
        shm_video_frame_t mine;
        EXPECT_EQ(lockFrame(reader.get(), &mine, SHM_VIDEO_NEWEST), 0);
        shm_reader_unlock_video(reader.get(), &mine);
        other.join();
    }
    EXPECT_TRUE(eventually([&] { return statsOf(writer.get()).locks_held == 0; }));
}

TEST_F(ShmStore, PinnedSlotsAreReplacedByFreshMemoryAndTheOldStaysValid)
{
    Writer writer = openWriter(smallVideo("a"));
    Reader pinner = openReader("a", nullptr, 64);
    Reader watcher = openReader("a");
    std::vector<shm_video_frame_t> pinned;
    int64_t t = 0;
    // Pins more than the spare slots, one after the other, at the pace of the service thread.
    for (int i = 0; i < 8; ++i) {
        ASSERT_TRUE(eventually([&] {
            t += 1000;
            return publishFrame(writer.get(), t, static_cast<uint8_t>(i + 1)) == 0;
        }));
        shm_video_frame_t frame;
        ASSERT_EQ(lockFrame(pinner.get(), &frame, SHM_VIDEO_NEWEST), 0);
        pinned.push_back(frame);
        for (int k = 0; k < 9; ++k) {
            ASSERT_TRUE(eventually([&] {
                t += 1000;
                return publishFrame(writer.get(), t, 200) == 0;
            }));
        }
    }
    EXPECT_GT(statsOf(writer.get()).slots_replaced, 0u);
    EXPECT_EQ(statsOf(writer.get()).readers_disconnected, 0u);
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(pinned[static_cast<size_t>(i)].planes[0][100], i + 1);
    // The other reader follows into the fresh memory, with the whole history.
    shm_video_frame_t frame;
    EXPECT_TRUE(eventually([&] {
        shm_reader_is_ready(watcher.get());
        return lockFrame(watcher.get(), &frame, SHM_VIDEO_NEWEST) == 0;
    }));
    EXPECT_EQ(frame.planes[0][0], 200);
    shm_reader_unlock_video(watcher.get(), &frame);
    shm_video_status_t status;
    shm_reader_get_video_status(watcher.get(), &status);
    EXPECT_EQ(status.frames_held, 8);
    // Let go, and the memory is given back.
    for (shm_video_frame_t &held : pinned)
        shm_reader_unlock_video(pinner.get(), &held);
    EXPECT_TRUE(eventually([&] {
        t += 1000;
        publishFrame(writer.get(), t, 1);
        return statsOf(writer.get()).slot_count == 12;
    }));
}

TEST_F(ShmStore, AtTheCapTheWorstPinnerIsCutOffAndKeepsWhatItHolds)
{
    Writer writer = openWriter(smallVideo("a"));
    Reader pinner = openReader("a", nullptr, 64);
    Reader modest = openReader("a");
    publishFrame(writer.get(), 1000, 77);
    shm_video_frame_t kept;
    ASSERT_EQ(lockFrame(modest.get(), &kept, SHM_VIDEO_NEWEST), 0);
    int64_t t = 1000;
    std::vector<shm_video_frame_t> pinned;
    std::vector<uint8_t> values;
    ASSERT_TRUE(eventually([&] {
        t += 1000;
        const auto value = static_cast<uint8_t>(t / 1000 % 100);
        if (publishFrame(writer.get(), t, value) == 0) {
            shm_video_frame_t frame;
            if (lockFrame(pinner.get(), &frame, SHM_VIDEO_NEWEST) == 0) {
                pinned.push_back(frame);
                values.push_back(value);
            }
        }
        return statsOf(writer.get()).readers_disconnected > 0;
    }));
    EXPECT_EQ(statsOf(writer.get()).readers_disconnected, 1u);
    EXPECT_EQ(shm_reader_is_ready(pinner.get()), 0);
    EXPECT_EQ(shm_reader_is_ready(modest.get()), 1);
    // The writer goes on; not a byte changes in what the other still looks at.
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(eventually([&] {
            t += 1000;
            return publishFrame(writer.get(), t, 255) == 0;
        }));
    }
    for (size_t i = 0; i < pinned.size(); ++i)
        ASSERT_EQ(pinned[i].planes[0][64], values[i]) << i;
    EXPECT_EQ(kept.planes[0][0], 77);
    EXPECT_LE(statsOf(writer.get()).slot_count, 24);
}

TEST_F(ShmStore, TellsTheHighestWish)
{
    Writer writer = openWriter(smallVideo("a"));
    Reader slow = openReader("a");
    Reader fast = openReader("a");
    Reader any = openReader("a");
    EXPECT_EQ(shm_reader_set_fps(slow.get(), 25, 1), 0);
    EXPECT_EQ(shm_reader_set_fps(fast.get(), 30000, 1001), 0);
    EXPECT_EQ(shm_reader_set_fps(any.get(), 1, 1), 0);
    EXPECT_TRUE(eventually([&] {
        return statsOf(writer.get()).wished_numerator == 30000 &&
               statsOf(writer.get()).wished_denominator == 1001;
    }));
    EXPECT_EQ(infoOf(any.get()).wished_numerator, 30000u);
    fast.reset();
    slow.reset();
    EXPECT_TRUE(eventually([&] { return statsOf(writer.get()).wished_numerator == 0; }));
}

TEST_F(ShmStore, WakesWhoWaitsForAFrame)
{
    Writer writer = openWriter(smallVideo("a"));
    Reader reader = openReader("a");
    EXPECT_EQ(shm_reader_wait_video(reader.get(), 0, 1), -ETIMEDOUT);
    std::thread publisher([&] { publishFrame(writer.get(), 1000, 1); });
    EXPECT_EQ(shm_reader_wait_video(reader.get(), 0, 30000), 0);
    publisher.join();
    EXPECT_EQ(shm_reader_wait_video(reader.get(), 0, 0), 0);
    EXPECT_EQ(shm_reader_wait_video(reader.get(), 1, 1), -ETIMEDOUT);
    std::thread closer([&] { writer.reset(); });
    EXPECT_EQ(shm_reader_wait_video(reader.get(), 1, 30000), -ENODEV);
    closer.join();
}

TEST_F(ShmStore, ListsStoresInAlphabeticalOrder)
{
    Writer b = openWriter(smallVideo("b"));
    Writer a = openWriter(smallVideo("a.1"));
    Writer audio = openWriter(smallAudio("C-3"));
    std::ofstream(directory.path() + "/no-socket") << "x";
    std::vector<std::string> names;
    const int count = shm_list_stores(
        [](void *context, const char *name, const char *) {
            static_cast<std::vector<std::string> *>(context)->push_back(name);
        },
        &names);
    EXPECT_EQ(count, 3);
    EXPECT_EQ(names, (std::vector<std::string>{"C-3", "a.1", "b"}));
    setenv("ZEV_SHM_DIR", "/nonexistent/zev", 1);
    EXPECT_EQ(shm_list_stores(nullptr, nullptr), -ENOENT);
}

TEST_F(ShmStore, MissingAndUnwritableDirectoriesAreNamed)
{
    shm_error_t error = {};
    shm_writer_params_t params = smallVideo("a");
    const std::string missing = directory.path() + "/missing";
    params.directory = missing.c_str();
    EXPECT_FALSE(openWriter(params, &error));
    EXPECT_EQ(error.code, -ENOENT);
    EXPECT_NE(std::string(error.message).find(missing), std::string::npos) << error.message;

    const std::string file = directory.path() + "/file";
    std::ofstream(file) << "x";
    params.directory = file.c_str();
    EXPECT_FALSE(openWriter(params, &error));
    EXPECT_EQ(error.code, -ENOTDIR);

    // As a user without rights; root may write anywhere.
    const std::string closed = directory.path() + "/closed";
    std::filesystem::create_directory(closed);
    chmod(closed.c_str(), 0555);
    chmod(directory.path().c_str(), 0755);
    Child user([&closed](Child &) {
        if (getuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0))
            return 77;
        shm_writer_params_t mine = smallVideo("a");
        mine.directory = closed.c_str();
        shm_error_t why = {};
        shm_writer_t *writer = nullptr;
        if (shm_writer_open(&mine, &writer, &why) != -EACCES)
            return 1;
        return std::string(why.message).find(closed) != std::string::npos ? 0 : 2;
    });
    EXPECT_EQ(user.exitCode(), 0);
}

TEST_F(ShmStore, ALongDirectoryNameIsNoObstacle)
{
    std::string path = directory.path();
    for (int i = 0; i < 4; ++i) {
        path += "/" + std::string(40, 'd');
        std::filesystem::create_directory(path);
    }
    setenv("ZEV_SHM_DIR", path.c_str(), 1);
    shm_error_t error = {};
    Writer writer = openWriter(smallVideo("a"), &error);
    ASSERT_TRUE(writer) << error.message;
    EXPECT_TRUE(openReader("a", &error)) << error.message;
}

TEST_F(ShmStore, SameUserMayWriteFramesUnlessTheyAreSealed)
{
    Writer open = openWriter(smallVideo("open"));
    shm_writer_params_t params = smallVideo("sealed");
    params.flags = SHM_WRITER_SEALED;
    Writer sealedWriter = openWriter(params);
    publishFrame(open.get(), 1000, 1);
    publishFrame(sealedWriter.get(), 1000, 1);

    Reader writes = openReader("open");
    Reader sees = openReader("open");
    shm_video_frame_t frame;
    shm_video_frame_t seen;
    ASSERT_EQ(lockFrame(writes.get(), &frame, SHM_VIDEO_NEWEST), 0);
    ASSERT_EQ(lockFrame(sees.get(), &seen, SHM_VIDEO_NEWEST), 0);
    frame.planes[0][0] = 99;
    EXPECT_EQ(seen.planes[0][0], 99);
    EXPECT_EQ(infoOf(writes.get()).sealed, 0);

    Reader cannot = openReader("sealed");
    EXPECT_NE(infoOf(cannot.get()).sealed, 0);
    ASSERT_EQ(lockFrame(cannot.get(), &frame, SHM_VIDEO_NEWEST), 0);
    auto *page = reinterpret_cast<void *>(reinterpret_cast<uintptr_t>(frame.planes[0]) & ~uintptr_t{4095});
    EXPECT_NE(mprotect(page, 4096, PROT_READ | PROT_WRITE), 0);
}

TEST_F(ShmStore, MoreMemoryThanThereIsIsRefusedInAdvance)
{
    shm_writer_params_t params = smallVideo("a");
    params.width = 16384;
    params.height = 16384;
    params.history_frames = 200;
    shm_error_t error = {};
    EXPECT_FALSE(openWriter(params, &error));
    EXPECT_EQ(error.code, -ENOMEM) << error.message;
    EXPECT_NE(std::string(error.message).find("needs 8"), std::string::npos) << error.message;
    EXPECT_NE(std::string(error.message).find("available"), std::string::npos) << error.message;
    EXPECT_TRUE(directory.files().empty());

    params = smallVideo("a");
    params.flags = SHM_WRITER_HUGE_PAGES;
    params.history_frames = 200;
    params.width = params.height = 8192;
    EXPECT_FALSE(openWriter(params, &error));
    EXPECT_EQ(error.code, -ENOMEM) << error.message;
    EXPECT_NE(std::string(error.message).find("huge"), std::string::npos) << error.message;
}

TEST_F(ShmStore, DeliversAudioOfAllStreamsAndFallsBackToTheFirst)
{
    shm_writer_params_t params = smallAudio("a");
    params.audio_streams = 2;
    Writer writer = openWriter(params);
    Reader reader = openReader("a");
    shm_audio_status_t status;
    // Live but silent so far: a success with nothing.
    EXPECT_EQ(shm_reader_get_audio_status(reader.get(), 0, &status), 0);
    EXPECT_EQ(status.frames, 0u);
    std::vector<int16_t> first(960 * 2, 11);
    std::vector<int16_t> second(960 * 2, 22);
    EXPECT_EQ(shm_writer_publish_audio(writer.get(), 0, first.data(), 960, 1000000), 0);
    EXPECT_EQ(shm_writer_publish_audio(writer.get(), 1, second.data(), 960, 1000000), 0);
    EXPECT_EQ(shm_writer_publish_audio(writer.get(), 2, second.data(), 960, 1000000), -EINVAL);
    for (const auto &[stream, value] : std::map<int, int>{{0, 11}, {1, 22}, {2, 11}, {-1, 11}}) {
        EXPECT_EQ(shm_reader_get_audio_status(reader.get(), stream, &status), 0);
        EXPECT_EQ(status.frames, 960u);
        EXPECT_EQ(status.oldest_timestamp, 1000000);
        EXPECT_EQ(status.newest_timestamp, 1020000);
        int16_t samples[960 * 2] = {};
        EXPECT_EQ(shm_reader_query_audio2(reader.get(), stream, samples, 1, 960, 1000000, -1), 1);
        EXPECT_EQ(samples[0], value);
        EXPECT_EQ(samples[1919], value);
    }
    // No video here: a status without frames, no frame to lock.
    shm_video_status_t video;
    EXPECT_EQ(shm_reader_get_video_status(reader.get(), &video), 0);
    EXPECT_NE(video.live, 0);
    shm_video_frame_t frame;
    EXPECT_EQ(lockFrame(reader.get(), &frame, SHM_VIDEO_NEWEST), -ENOENT);
    writer.reset();
    EXPECT_LT(shm_reader_get_audio_status(reader.get(), 0, &status), 0);
    EXPECT_EQ(status.frames, 0u);
    EXPECT_LT(shm_reader_query_audio2(reader.get(), 0, first.data(), 1, 1, 1000000, -1), 0);
}

TEST_F(ShmStore, AChannelIsDeliveredAsTheReadingLibraryExpectsIt)
{
    const auto publish = [](shm_writer_t *writer) {
        std::vector<int16_t> samples;
        for (int16_t i = 0; i < 100; ++i)
            samples.insert(samples.end(),
                           {i, static_cast<int16_t>(1000 + i), static_cast<int16_t>(2000 + i)});
        shm_writer_publish_audio(writer, 0, samples.data(), 100, 1000000);
    };
    Writer alone = openWriter(smallAudio("alone", 3));
    publish(alone.get());
    Reader reader = openReader("alone");
    int16_t samples[300] = {};
    samples[100] = -1;
    EXPECT_EQ(shm_reader_query_audio2(reader.get(), 0, samples, 100, 1, 1000000, 2), 100);
    EXPECT_EQ(samples[0], 2000);
    EXPECT_EQ(samples[99], 2099);
    EXPECT_EQ(samples[100], -1); // one channel, not a sample more
    EXPECT_LT(shm_reader_query_audio2(reader.get(), 0, samples, 100, 1, 1000000, 3), 0);

    shm_writer_params_t params = smallVideo("both");
    params.sample_rate = 48000;
    params.channels = 3;
    Writer both = openWriter(params);
    publish(both.get());
    Reader second = openReader("both");
    EXPECT_EQ(shm_reader_query_audio2(second.get(), 0, samples, 100, 1, 1000000, 1), 100);
    for (int c = 0; c < 3; ++c) {
        EXPECT_EQ(samples[c], 1000);
        EXPECT_EQ(samples[297 + c], 1099);
    }
    EXPECT_EQ(shm_reader_query_audio2(second.get(), 0, samples, 100, 1, 1000000, -1), 100);
    EXPECT_EQ(samples[1], 1000);
    EXPECT_EQ(samples[2], 2000);
}

TEST_F(ShmStore, TellsEverythingAToolShows)
{
    shm_writer_params_t params = smallVideo("a");
    params.sample_rate = 48000;
    params.channels = 2;
    params.rate_numerator = 50;
    params.rate_denominator = 1;
    Writer writer = openWriter(params);
    publishFrame(writer.get(), 1000, 1);
    Reader reader = openReader("a");
    shm_video_frame_t frame;
    ASSERT_EQ(lockFrame(reader.get(), &frame, SHM_VIDEO_NEWEST), 0);
    EXPECT_TRUE(eventually([&] { return infoOf(reader.get()).locks_held == 1; }));
    const shm_store_info_t info = infoOf(reader.get());
    EXPECT_NE(info.live, 0);
    EXPECT_EQ(info.session, frame.session);
    EXPECT_EQ(info.writer_pid, getpid());
    EXPECT_EQ(info.readers, 1);
    EXPECT_EQ(info.capture, SHM_CAPTURE_NONE);
    EXPECT_EQ(info.slot_count, 12);
    EXPECT_EQ(info.slot_bytes % 4096, 0u);
    EXPECT_EQ(info.frames_published, 1u);
    EXPECT_EQ(info.rate_numerator, 50u);
    EXPECT_EQ(info.frame_interval_us, 20000);
    EXPECT_EQ(info.color.matrix, SHM_MATRIX_BT709);
    EXPECT_EQ(info.audio_streams, 1);
    EXPECT_GE(info.audio_history_us, 2000000);
    EXPECT_STREQ(info.memory, "memfd");
    EXPECT_STREQ(info.directory, directory.path().c_str());
    EXPECT_STRNE(info.dmabuf, "");
    EXPECT_STRNE(info.dmabuf, "yes");
    EXPECT_EQ(info.total_bytes, statsOf(writer.get()).total_bytes);

    EXPECT_EQ(shm_writer_set_capture(writer.get(), SHM_CAPTURE_DMABUF), 0);
    EXPECT_EQ(infoOf(reader.get()).capture, SHM_CAPTURE_DMABUF);
    EXPECT_EQ(shm_writer_set_capture(writer.get(), SHM_CAPTURE_USERPTR + 1), -EINVAL);
    EXPECT_EQ(shm_writer_set_capture(writer.get(), -1), -EINVAL);
    EXPECT_EQ(shm_writer_set_capture(nullptr, SHM_CAPTURE_COPIED), -EINVAL);
    EXPECT_EQ(infoOf(reader.get()).capture, SHM_CAPTURE_DMABUF);
}

TEST_F(ShmStore, NonsenseArgumentsAreRefused)
{
    shm_error_t error = {};
    for (const char *name : {"", ".hidden", "../up", "a/b", "a b", "\xc3\xa4"}) {
        EXPECT_FALSE(openReader(name, &error));
        EXPECT_EQ(error.code, -EINVAL) << name;
        shm_writer_params_t params = smallVideo(name);
        EXPECT_FALSE(openWriter(params, &error));
        EXPECT_EQ(error.code, -EINVAL) << name;
    }
    EXPECT_EQ(shm_reader_open(nullptr, 100), nullptr);
    EXPECT_EQ(errno, EINVAL);
    shm_reader_close(nullptr);
    shm_writer_close(nullptr);
    EXPECT_EQ(shm_reader_is_ready(nullptr), 0);
    EXPECT_EQ(shm_reader_get_dmabuf_fd(nullptr), -1);
    Writer writer = openWriter(smallVideo("a"));
    Reader reader = openReader("a");
    shm_video_frame_t frame;
    EXPECT_EQ(lockFrame(reader.get(), &frame, static_cast<shm_video_lookup_mode_t>(5)), -EINVAL);
    EXPECT_EQ(lockFrame(reader.get(), &frame, SHM_VIDEO_NEWEST), -ENOENT);
    EXPECT_EQ(publishFrame(writer.get(), INT64_MAX, 1), -EINVAL);
    shm_writer_frame_t filling = {};
    EXPECT_EQ(shm_writer_acquire(writer.get(), &filling), 0);
    shm_writer_frame_t second = {};
    EXPECT_EQ(shm_writer_acquire(writer.get(), &second), -EBUSY);
    shm_writer_abandon(writer.get(), &filling);
    EXPECT_EQ(shm_writer_publish(writer.get(), &filling, 5000), -EINVAL);
    EXPECT_EQ(publishFrame(writer.get(), 5000, 1), 0);
}

} // namespace
