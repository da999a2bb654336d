// Writers and readers of one store in several processes: what is noticed and what is left when one of them
// closes, stops, forks or is killed.
#include "../unit/shm_testing.h"

#include <sys/mman.h>
#include <sys/resource.h>

#include <algorithm>
#include <memory>

using namespace testing_shm;

namespace {

class ShmProcesses : public ::testing::Test
{
protected:
    StoreDirectory directory;
};

// A writer in a child that has published frames 1000, 2000, ... `frames` * 1000 with the value of their
// number.
std::unique_ptr<Child> writerChild(const char *name, int frames)
{
    auto child = std::make_unique<Child>([name, frames](Child &self) {
        Writer writer = openWriter(smallVideo(name));
        if (!writer)
            return 1;
        for (int i = 1; i <= frames; ++i)
            publishFrame(writer.get(), i * 1000, static_cast<uint8_t>(i));
        self.tell();
        self.hear();
        return 0;
    });
    EXPECT_EQ(child->hear(), 'x');
    return child;
}

TEST_F(ShmProcesses, ASecondPublisherIsTurnedAway)
{
    const auto other = writerChild("a", 1);
    shm_error_t error = {};
    shm_writer_params_t params = smallVideo("a");
    shm_writer_t *writer = nullptr;
    EXPECT_EQ(shm_writer_open(&params, &writer, &error), -EADDRINUSE);
    EXPECT_EQ(writer, nullptr);
    EXPECT_NE(std::string(error.message).find("already published"), std::string::npos) << error.message;
    // And within one process.
    Writer first = openWriter(smallVideo("b"));
    params.name = "b";
    EXPECT_EQ(shm_writer_open(&params, &writer, &error), -EADDRINUSE);
    EXPECT_NE(std::string(error.message).find("already published"), std::string::npos) << error.message;
    first.reset();
    EXPECT_EQ(shm_writer_open(&params, &writer, &error), 0);
    shm_writer_close(writer);
}

TEST_F(ShmProcesses, AKilledWriterIsNoticedAndReplaced)
{
    auto first = writerChild("a", 3);
    Reader reader = openReader("a");
    ASSERT_TRUE(reader);
    shm_video_frame_t frame;
    ASSERT_EQ(lockFrame(reader.get(), &frame, SHM_VIDEO_NEWEST), 0);
    EXPECT_EQ(shm_reader_is_ready(reader.get()), 1);
    first->kill9();
    EXPECT_TRUE(eventually([&] { return shm_reader_is_ready(reader.get()) == 0; }));
    shm_video_status_t status;
    shm_reader_get_video_status(reader.get(), &status);
    EXPECT_EQ(status.live, 0);
    EXPECT_EQ(status.newest_timestamp, 0);
    shm_video_frame_t none;
    EXPECT_EQ(lockFrame(reader.get(), &none, SHM_VIDEO_NEWEST), -ENODEV);
    shm_error_t error = {};
    EXPECT_FALSE(openReader("a", &error));
    EXPECT_EQ(error.code, -ECONNREFUSED) << error.message;

    // The stale socket is no obstacle, and what was locked before stays as it is.
    auto second = writerChild("a", 5);
    Reader again = openReader("a");
    ASSERT_TRUE(again);
    shm_video_frame_t newer;
    ASSERT_EQ(lockFrame(again.get(), &newer, SHM_VIDEO_NEWEST), 0);
    EXPECT_EQ(newer.planes[0][0], 5);
    EXPECT_NE(newer.session, frame.session);
    EXPECT_EQ(frame.planes[0][0], 3);
    shm_reader_unlock_video(reader.get(), &frame);
    EXPECT_EQ(frame.planes[0], nullptr);
}

TEST_F(ShmProcesses, AWriterThatClosesIsSeenAsGoneAndLeavesNothing)
{
    Writer writer = openWriter(smallVideo("a"));
    publishFrame(writer.get(), 1000, 9);
    Reader reader = openReader("a");
    shm_video_frame_t frame;
    ASSERT_EQ(lockFrame(reader.get(), &frame, SHM_VIDEO_NEWEST), 0);
    writer.reset();
    EXPECT_EQ(shm_reader_is_ready(reader.get()), 0);
    EXPECT_EQ(frame.planes[0][10], 9);
    EXPECT_TRUE(directory.files().empty());
    shm_error_t error = {};
    EXPECT_FALSE(openReader("a", &error));
    EXPECT_EQ(error.code, -ENOENT);
}

TEST_F(ShmProcesses, AStoppedWriterCountsAsGoneUntilItMoves)
{
    auto child = writerChild("a", 1);
    Reader reader = openReader("a");
    ASSERT_TRUE(reader);
    kill(child->pid(), SIGSTOP);
    EXPECT_TRUE(eventually([&] { return shm_reader_is_ready(reader.get()) == 0; }));
    kill(child->pid(), SIGCONT);
    EXPECT_TRUE(eventually([&] { return shm_reader_is_ready(reader.get()) == 1; }));
}

TEST_F(ShmProcesses, AnUnansweredHandshakeIsKeptAndLookedAtWithoutWaiting)
{
    auto child = writerChild("a", 1);
    kill(child->pid(), SIGSTOP);
    int status = 0;
    waitpid(child->pid(), &status, WUNTRACED);
    const size_t before = openDescriptors();
    shm_error_t error = {};
    EXPECT_FALSE(openReader("a", &error, 0, 50));
    EXPECT_EQ(error.code, -ETIMEDOUT) << error.message;
    EXPECT_NE(std::string(error.message).find("continue it or start it again"), std::string::npos)
        << error.message;
    const size_t kept = openDescriptors();
    EXPECT_GT(kept, before);
    // With an hour to wait, this would not come back if it waited; and nothing piles up.
    for (int i = 0; i < 20; ++i)
        EXPECT_FALSE(openReader("a", &error, 0, 3600 * 1000));
    EXPECT_EQ(openDescriptors(), kept);
    kill(child->pid(), SIGCONT);
    Reader reader;
    EXPECT_TRUE(eventually([&] { return (reader = openReader("a", &error, 0, 0)) != nullptr; }))
        << error.message;
    EXPECT_EQ(shm_reader_is_ready(reader.get()), 1);
}

TEST_F(ShmProcesses, AKeptHandshakeDoesNotHideTheNextWriter)
{
    auto child = writerChild("a", 1);
    kill(child->pid(), SIGSTOP);
    waitpid(child->pid(), nullptr, WUNTRACED);
    EXPECT_FALSE(openReader("a", nullptr, 0, 20));
    child->kill9();
    auto next = writerChild("a", 4);
    Reader reader = openReader("a");
    ASSERT_TRUE(reader);
    shm_video_frame_t frame;
    EXPECT_EQ(lockFrame(reader.get(), &frame, SHM_VIDEO_NEWEST), 0);
    EXPECT_EQ(frame.planes[0][0], 4);
}

TEST_F(ShmProcesses, AChildThatOutlivesItsWriterDoesNotKeepItAlive)
{
    // The child's child has copies of the listening socket, the lock file and every connection.
    pid_t *grandchild =
        static_cast<pid_t *>(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    auto child = std::make_unique<Child>([grandchild](Child &self) {
        Writer writer = openWriter(smallVideo("a"));
        publishFrame(writer.get(), 1000, 1);
        self.tell();
        self.hear(); // until a reader is connected
        const pid_t copy = fork();
        if (copy == 0) {
            pause();
            _exit(0);
        }
        *grandchild = copy;
        self.tell();
        self.hear();
        return 0;
    });
    child->hear();
    Reader reader = openReader("a");
    ASSERT_TRUE(reader);
    child->tell();
    child->hear();
    child->kill9();
    EXPECT_TRUE(eventually([&] { return shm_reader_is_ready(reader.get()) == 0; }));
    shm_error_t error = {};
    EXPECT_FALSE(openReader("a", &error, 0, 60000));
    EXPECT_EQ(error.code, -ECONNREFUSED) << error.message;
    Writer next = openWriter(smallVideo("a"), &error);
    EXPECT_TRUE(next) << error.message;
    EXPECT_TRUE(openReader("a"));
    ASSERT_GT(*grandchild, 0);
    kill(*grandchild, SIGKILL);
    munmap(grandchild, 4096);
}

TEST_F(ShmProcesses, HandlesDoNothingInAForkedChild)
{
    auto source = writerChild("a", 2);
    Reader reader = openReader("a");
    shm_video_frame_t frame;
    ASSERT_EQ(lockFrame(reader.get(), &frame, SHM_VIDEO_NEWEST), 0);
    Writer writer = openWriter(smallVideo("b"));
    publishFrame(writer.get(), 1000, 1);
    Child child([&](Child &) {
        shm_video_frame_t other = {};
        if (shm_reader_is_ready(reader.get()) != 0 ||
            lockFrame(reader.get(), &other, SHM_VIDEO_NEWEST) != -ENODEV)
            return 1;
        shm_video_frame_t copy = frame;
        shm_reader_unlock_video(reader.get(), &copy);
        shm_reader_close(reader.release());
        if (publishFrame(writer.get(), 2000, 2) != -EINVAL)
            return 2;
        shm_writer_close(writer.release());
        // A child may have handles of its own.
        Reader own = openReader("a");
        if (!own || lockFrame(own.get(), &other, SHM_VIDEO_NEWEST) != 0 || other.planes[0][0] != 2)
            return 3;
        return 0;
    });
    EXPECT_EQ(child.exitCode(), 0);
    // Nothing of it reached the parent's handles.
    EXPECT_EQ(shm_reader_is_ready(reader.get()), 1);
    EXPECT_EQ(frame.planes[0][0], 2);
    EXPECT_TRUE(eventually([&] { return infoOf(reader.get()).locks_held == 1; }));
    EXPECT_EQ(publishFrame(writer.get(), 2000, 2), 0);
    EXPECT_TRUE(openReader("b"));
}

TEST_F(ShmProcesses, KilledReadersLeakNoSlot)
{
    Writer writer;
    std::vector<std::unique_ptr<Child>> readers;
    for (int i = 0; i < 3; ++i) {
        readers.push_back(std::make_unique<Child>([](Child &self) {
            self.hear(); // the store is there
            Reader reader = openReader("a");
            shm_video_frame_t frames[6];
            for (int k = 0; k < 6; ++k) {
                if (lockFrame(reader.get(), &frames[k], SHM_VIDEO_EXACT, (k + 1) * 1000) != 0)
                    self.tell('!');
            }
            self.tell();
            self.hear();
            return 0;
        }));
    }
    writer = openWriter(smallVideo("a"));
    for (int i = 1; i <= 8; ++i)
        publishFrame(writer.get(), i * 1000, 0);
    for (auto &reader : readers) {
        reader->tell();
        EXPECT_EQ(reader->hear(), 'x');
    }
    EXPECT_TRUE(eventually([&] { return statsOf(writer.get()).locks_held == 18; }));
    for (auto &reader : readers)
        reader->kill9();
    EXPECT_TRUE(eventually(
        [&] { return statsOf(writer.get()).locks_held == 0 && statsOf(writer.get()).readers == 0; }));
    for (int i = 9; i < 60; ++i)
        ASSERT_EQ(publishFrame(writer.get(), i * 1000, 0), 0);
    EXPECT_EQ(statsOf(writer.get()).frames_dropped, 0u);
}

TEST_F(ShmProcesses, DescriptorsAndMappingsReturnToTheStart)
{
    // Warm: what the first use of anything allocates for good.
    {
        Writer writer = openWriter(smallVideo("a"));
        openReader("a");
    }
    const size_t descriptors = openDescriptors();
    const size_t mappings = shmMappings();
    {
        Writer writer = openWriter(smallVideo("a"));
        publishFrame(writer.get(), 1000, 1);
        std::vector<Reader> readers;
        for (int i = 0; i < 10; ++i) {
            readers.push_back(openReader("a"));
            shm_video_frame_t frame;
            ASSERT_EQ(lockFrame(readers.back().get(), &frame, SHM_VIDEO_NEWEST), 0);
        }
        EXPECT_GT(shmMappings(), mappings);
        // The readers alone: the writer lets go of all that was theirs.
        const size_t withReaders = openDescriptors();
        readers.clear();
        ASSERT_TRUE(eventually([&] { return statsOf(writer.get()).readers == 0; }));
        EXPECT_TRUE(eventually([&] { return openDescriptors() == withReaders - 10 * 4; }));
    }
    EXPECT_EQ(openDescriptors(), descriptors);
    EXPECT_EQ(shmMappings(), mappings);
}

TEST_F(ShmProcesses, SixtyFourReadersFitInAProcessWithTheUsualLimit)
{
    Child source([](Child &self) {
        std::vector<Writer> writers;
        for (int i = 0; i < 64; ++i) {
            shm_writer_params_t params = smallVideo(("s" + std::to_string(i)).c_str());
            const std::string name = "s" + std::to_string(i);
            params.name = name.c_str();
            writers.push_back(openWriter(params));
            if (!writers.back())
                return 1;
            publishFrame(writers.back().get(), 1000, static_cast<uint8_t>(i));
        }
        self.tell();
        self.hear();
        return 0;
    });
    ASSERT_EQ(source.hear(), 'x');
    rlimit before = {};
    getrlimit(RLIMIT_NOFILE, &before);
    rlimit usual = before;
    usual.rlim_cur = std::min<rlim_t>(1024, before.rlim_max);
    setrlimit(RLIMIT_NOFILE, &usual);
    std::vector<Reader> readers;
    for (int i = 0; i < 64; ++i) {
        shm_error_t error = {};
        readers.push_back(openReader(("s" + std::to_string(i)).c_str(), &error));
        ASSERT_TRUE(readers.back()) << i << ": " << error.message;
        shm_video_frame_t frame;
        ASSERT_EQ(lockFrame(readers.back().get(), &frame, SHM_VIDEO_NEWEST), 0);
        ASSERT_EQ(frame.planes[0][0], i);
    }
    EXPECT_LT(openDescriptors(), 300u);
    readers.clear();
    setrlimit(RLIMIT_NOFILE, &before);
}

} // namespace
