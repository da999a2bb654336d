// DMA-bufs of a store: real ones of the kernel in the virtual machine, stand-ins in the fast tier.
#include <shm/shm_reader.h>
#include <shm/shm_writer.h>

#include "udmabuflimit.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <grp.h>
#include <linux/dma-buf.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int kWidth = 320;
constexpr int kHeight = 180;

struct WriterCloser
{
    void operator()(shm_writer_t *writer) const { shm_writer_close(writer); }
};
struct ReaderCloser
{
    void operator()(shm_reader_t *reader) const { shm_reader_close(reader); }
};
using Writer = std::unique_ptr<shm_writer_t, WriterCloser>;
using Reader = std::unique_ptr<shm_reader_t, ReaderCloser>;

size_t openDescriptors()
{
    size_t count = 0;
    DIR *folder = opendir("/proc/self/fd");
    while (readdir(folder) != nullptr)
        ++count;
    closedir(folder);
    return count;
}

// Every sample of frame n: n. Frame n lies at timestamp n * 40 ms.
uint8_t sampleOf(int64_t frame)
{
    return static_cast<uint8_t>(frame);
}

class DmabufStore : public testing::Test
{
protected:
    void SetUp() override
    {
        char path[] = "/tmp/zevdmaXXXXXX";
        ASSERT_NE(mkdtemp(path), nullptr);
        folder = path;
        setenv("ZEV_SHM_DIR", path, 1);
        shm_writer_params_init(&params);
        params.name = "cam";
        params.directory = folder.c_str();
        params.width = kWidth;
        params.height = kHeight;
        params.pixel_format = SHM_PIXEL_FORMAT_NV12;
        params.history_frames = 4;
        params.spare_frames = 4;
        params.memory = "udmabuf";
    }

    void TearDown() override
    {
        writer.reset();
        std::filesystem::remove_all(folder);
    }

    void openWriter()
    {
        shm_writer_t *opened = nullptr;
        shm_error_t error = {};
        ASSERT_EQ(shm_writer_open(&params, &opened, &error), 0) << error.message;
        writer.reset(opened);
    }

    // Tries again while readers hold every slot: the writer is adding memory then.
    void publish()
    {
        ++frameNumber;
        shm_writer_frame_t frame = {};
        const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        int result = shm_writer_acquire(writer.get(), &frame);
        while (result == -EAGAIN && std::chrono::steady_clock::now() < limit) {
            std::this_thread::yield();
            result = shm_writer_acquire(writer.get(), &frame);
        }
        ASSERT_EQ(result, 0);
        for (int p = 0; p < 2; ++p)
            std::memset(frame.planes[p], sampleOf(frameNumber), planeBytes(frame.strides[p], p));
        ASSERT_EQ(shm_writer_publish(writer.get(), &frame, timestampOf(frameNumber)), 0);
    }

    static size_t planeBytes(int stride, int plane)
    {
        return static_cast<size_t>(stride) * (plane == 0 ? kHeight : kHeight / 2);
    }
    static int64_t timestampOf(int64_t frame) { return frame * 40000; }

    static Reader openReader() { return Reader(shm_reader_open("cam", 2000)); }

    static std::string dmabufText(shm_reader_t *reader)
    {
        shm_store_info_t info = {};
        info.size = sizeof info;
        return shm_reader_get_info(reader, &info) == 0 ? info.dmabuf : "no info";
    }
    static std::string memoryText(shm_reader_t *reader)
    {
        shm_store_info_t info = {};
        info.size = sizeof info;
        return shm_reader_get_info(reader, &info) == 0 ? info.memory : "no info";
    }

    // Compares the locked frame, seen through its DMA-buf, with what was published.
    static void expectContent(int dmabuf, const shm_video_frame_t &frame)
    {
        struct stat status = {};
        ASSERT_EQ(fstat(dmabuf, &status), 0);
        const auto bytes = static_cast<size_t>(status.st_size);
        void *memory = mmap(nullptr, bytes, PROT_READ, MAP_SHARED, dmabuf, 0);
        ASSERT_NE(memory, MAP_FAILED);
        dma_buf_sync sync = {};
        sync.flags = DMA_BUF_SYNC_START | DMA_BUF_SYNC_READ;
        EXPECT_EQ(ioctl(dmabuf, DMA_BUF_IOCTL_SYNC, &sync), 0);
        for (int p = 0; p < 2; ++p) {
            const size_t end = static_cast<size_t>(frame.plane_offsets[p]) + planeBytes(frame.strides[p], p);
            ASSERT_LE(end, bytes) << "plane " << p << " is not inside the exported memory";
            const auto *plane = static_cast<const uint8_t *>(memory) + frame.plane_offsets[p];
            const uint8_t wanted = sampleOf(frame.timestamp / 40000);
            EXPECT_EQ(plane[0], wanted);
            EXPECT_EQ(plane[planeBytes(frame.strides[p], p) - 1], wanted);
            EXPECT_EQ(std::memcmp(plane, frame.planes[p], planeBytes(frame.strides[p], p)), 0);
        }
        sync.flags = DMA_BUF_SYNC_END | DMA_BUF_SYNC_READ;
        EXPECT_EQ(ioctl(dmabuf, DMA_BUF_IOCTL_SYNC, &sync), 0);
        munmap(memory, bytes);
    }

    // Runs `body` in a child of another user; its answer is the exit status.
    static int asOtherUser(const std::function<int()> &body)
    {
        const pid_t child = fork();
        if (child == 0) {
            if (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0)
                _exit(100);
            _exit(body());
        }
        int status = 0;
        waitpid(child, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 101;
    }

    std::string folder;
    shm_writer_params_t params = {};
    Writer writer;
    int64_t frameNumber = 0;
};

class EveryExport : public DmabufStore, public testing::WithParamInterface<const char *>
{};

TEST_P(EveryExport, GivesOneDescriptorForASlotsMemory)
{
    params.memory = GetParam();
    openWriter();
    publish();
    Reader reader = openReader();
    ASSERT_TRUE(reader);
    EXPECT_EQ(dmabufText(reader.get()), "yes");
    EXPECT_EQ(memoryText(reader.get()), GetParam());
    ASSERT_EQ(shm_reader_open_dmabuf_fd(reader.get()), 0);
    ASSERT_EQ(shm_reader_open_dmabuf_fd(reader.get()), 0); // again: nothing new

    std::map<uint16_t, int> descriptorOf;
    for (int i = 0; i < 40; ++i) {
        publish();
        shm_video_frame_t frame = {};
        ASSERT_EQ(shm_reader_lock_video(reader.get(), &frame, SHM_VIDEO_NEWEST), 0);
        const int dmabuf = shm_reader_get_dmabuf_fd(reader.get());
        ASSERT_GE(dmabuf, 0);
        EXPECT_EQ(descriptorOf.emplace(frame.slot, dmabuf).first->second, dmabuf);
        expectContent(dmabuf, frame);
        shm_reader_unlock_video(reader.get(), &frame);
    }
    EXPECT_GE(descriptorOf.size(), 5u);
    std::set<int> distinct;
    for (const auto &entry : descriptorOf)
        distinct.insert(entry.second);
    EXPECT_EQ(distinct.size(), descriptorOf.size());
}

TEST_P(EveryExport, CostsNothingForReadersThatDoNotAsk)
{
    params.memory = GetParam();
    openWriter();
    publish();
    Reader first = openReader();
    ASSERT_TRUE(first);
    const size_t before = openDescriptors();
    Reader second = openReader();
    ASSERT_TRUE(second);
    shm_video_frame_t frame = {};
    ASSERT_EQ(shm_reader_lock_video(second.get(), &frame, SHM_VIDEO_NEWEST), 0);
    EXPECT_EQ(shm_reader_get_dmabuf_fd(second.get()), -1);
    EXPECT_EQ(frame.planes[0][0], sampleOf(1));
    shm_reader_unlock_video(second.get(), &frame);
    // The socket, the writer's end of it, and a pidfd at each end.
    EXPECT_LE(openDescriptors(), before + 4);
}

TEST_P(EveryExport, FreshMemoryComesWithFreshDescriptors)
{
    params.memory = GetParam();
    openWriter();
    Reader reader = openReader();
    ASSERT_TRUE(reader);
    ASSERT_EQ(shm_reader_open_dmabuf_fd(reader.get()), 0);
    // Frames that are kept, more than there are spare slots, make the writer add memory.
    std::vector<shm_video_frame_t> kept;
    std::set<int> descriptors;
    for (int i = 0; i < 6; ++i) {
        publish();
        shm_video_frame_t frame = {};
        ASSERT_EQ(shm_reader_lock_video(reader.get(), &frame, SHM_VIDEO_NEWEST), 0);
        kept.push_back(frame);
        // That of added memory comes a moment after it.
        const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        int dmabuf = shm_reader_get_dmabuf_fd(reader.get());
        while (dmabuf < 0 && frame.slot >= 8 && std::chrono::steady_clock::now() < limit) {
            std::this_thread::yield();
            shm_reader_is_ready(reader.get());
            dmabuf = shm_reader_get_dmabuf_fd(reader.get());
        }
        ASSERT_GE(dmabuf, 0) << "slot " << frame.slot;
        descriptors.insert(dmabuf);
        for (int k = 0; k < 4; ++k)
            publish();
    }
    bool seenFresh = false;
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!seenFresh && std::chrono::steady_clock::now() < limit) {
        publish();
        shm_video_frame_t frame = {};
        if (shm_reader_lock_video(reader.get(), &frame, SHM_VIDEO_NEWEST) != 0)
            continue;
        const int dmabuf = shm_reader_get_dmabuf_fd(reader.get());
        if (frame.slot >= 8 && dmabuf >= 0) { // beyond history and spare: added
            seenFresh = true;
            EXPECT_EQ(descriptors.count(dmabuf), 0u);
            expectContent(dmabuf, frame);
        }
        shm_reader_unlock_video(reader.get(), &frame);
    }
    EXPECT_TRUE(seenFresh);
    for (shm_video_frame_t &frame : kept)
        shm_reader_unlock_video(reader.get(), &frame);
}

TEST_P(EveryExport, NothingIsLeftAfterAHundredRestarts)
{
    params.memory = GetParam();
    size_t before = 0;
    for (int i = 0; i < 101; ++i) {
        openWriter();
        publish();
        Reader reader = openReader();
        ASSERT_TRUE(reader);
        ASSERT_EQ(shm_reader_open_dmabuf_fd(reader.get()), 0);
        shm_video_frame_t frame = {};
        ASSERT_EQ(shm_reader_lock_video(reader.get(), &frame, SHM_VIDEO_NEWEST), 0);
        ASSERT_GE(shm_reader_get_dmabuf_fd(reader.get()), 0);
        if (i % 2 == 0)
            shm_reader_unlock_video(reader.get(), &frame);
        if (i % 3 == 0)
            writer.reset(); // the reader outlives it
        reader.reset();
        writer.reset();
        if (i == 0)
            before = openDescriptors();
    }
    EXPECT_EQ(openDescriptors(), before);
}

TEST_P(EveryExport, ReadersOfOtherUsersNeedThePublishersLeave)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to become another user";
    ASSERT_EQ(chmod(folder.c_str(), 0755), 0);
    params.memory = GetParam();
    params.group = "nogroup";
    const bool isHeap = std::strncmp(GetParam(), "dma-heap", 8) == 0;
    const auto look = [] {
        Reader reader = openReader();
        if (!reader)
            return errno == EACCES ? 1 : 2;
        shm_video_frame_t frame = {};
        const int asked = shm_reader_open_dmabuf_fd(reader.get());
        if (shm_reader_lock_video(reader.get(), &frame, SHM_VIDEO_NEWEST) != 0 || frame.planes[0][0] != 1)
            return 3;
        const int dmabuf = shm_reader_get_dmabuf_fd(reader.get());
        if (asked == 0)
            return dmabuf >= 0 ? 4 : 5;
        if (dmabuf != -1 || asked != -ENOTSUP)
            return 6;
        return dmabufText(reader.get()).find("other users") != std::string::npos ? 7 : 8;
    };
    openWriter();
    publish();
    EXPECT_EQ(asOtherUser(look), isHeap ? 1 : 7); // a heap's memory cannot be had without its DMA-buf
    writer.reset();
    frameNumber = 0;
    params.flags = SHM_WRITER_DMABUF_OTHERS;
    openWriter();
    publish();
    EXPECT_EQ(asOtherUser(look), 4);
}

INSTANTIATE_TEST_SUITE_P(Memory, EveryExport, testing::Values("udmabuf", "dma-heap:system"));

TEST_F(DmabufStore, SealedFramesAreExportedBeforeTheyAreSealed)
{
    params.flags = SHM_WRITER_SEALED;
    openWriter();
    publish();
    Reader reader = openReader();
    ASSERT_TRUE(reader);
    EXPECT_EQ(dmabufText(reader.get()), "yes");
    ASSERT_EQ(shm_reader_open_dmabuf_fd(reader.get()), 0);
    shm_video_frame_t frame = {};
    ASSERT_EQ(shm_reader_lock_video(reader.get(), &frame, SHM_VIDEO_NEWEST), 0);
    ASSERT_GE(shm_reader_get_dmabuf_fd(reader.get()), 0);
    expectContent(shm_reader_get_dmabuf_fd(reader.get()), frame);
}

TEST_F(DmabufStore, PlainMemoryHasNoneAndSaysSo)
{
    params.memory = nullptr;
    openWriter();
    publish();
    Reader reader = openReader();
    ASSERT_TRUE(reader);
    EXPECT_EQ(shm_reader_open_dmabuf_fd(reader.get()), -ENOTSUP);
    EXPECT_EQ(dmabufText(reader.get()),
              "no: frames are in plain memory; publish with the memory kind udmabuf");
    shm_video_frame_t frame = {};
    ASSERT_EQ(shm_reader_lock_video(reader.get(), &frame, SHM_VIDEO_NEWEST), 0);
    EXPECT_EQ(shm_reader_get_dmabuf_fd(reader.get()), -1);
}

// A message with more descriptors than fit is cut off by the kernel, and the connection would be lost with
// it.
TEST_P(EveryExport, AProcessOutOfDescriptorsGetsNoneAndKeepsItsFrames)
{
    params.memory = GetParam();
    openWriter();
    publish();
    Reader reader = openReader();
    ASSERT_TRUE(reader);
    rlimit before = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    rlimit few = before;
    few.rlim_cur = openDescriptors() + 8;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
    const int asked = shm_reader_open_dmabuf_fd(reader.get());
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(asked, -EMFILE);
    EXPECT_EQ(dmabufText(reader.get()),
              "no: this process may not open as many descriptors; raise its limit (ulimit -n)");
    EXPECT_EQ(shm_reader_is_ready(reader.get()), 1);
    shm_video_frame_t frame = {};
    ASSERT_EQ(shm_reader_lock_video(reader.get(), &frame, SHM_VIDEO_NEWEST), 0);
    EXPECT_EQ(shm_reader_get_dmabuf_fd(reader.get()), -1);
    EXPECT_EQ(frame.planes[0][0], sampleOf(1));
    shm_reader_unlock_video(reader.get(), &frame);

    // With its limit raised it may ask again.
    EXPECT_EQ(shm_reader_open_dmabuf_fd(reader.get()), 0);
    EXPECT_EQ(dmabufText(reader.get()), "yes");
    ASSERT_EQ(shm_reader_lock_video(reader.get(), &frame, SHM_VIDEO_NEWEST), 0);
    EXPECT_GE(shm_reader_get_dmabuf_fd(reader.get()), 0);
    shm_reader_unlock_video(reader.get(), &frame);
}

// The publisher stands still when it is asked, and goes on later.
TEST_P(EveryExport, APublisherThatIsStoppedIsNotWaitedForForEver)
{
    params.memory = GetParam();
    int published[2];
    ASSERT_EQ(pipe(published), 0);
    const pid_t child = fork();
    if (child == 0) {
        shm_writer_t *own = nullptr;
        shm_error_t error = {};
        shm_writer_frame_t frame = {};
        if (shm_writer_open(&params, &own, &error) != 0 || shm_writer_acquire(own, &frame) != 0 ||
            shm_writer_publish(own, &frame, timestampOf(1)) != 0 || write(published[1], "p", 1) != 1)
            _exit(1);
        pause();
        _exit(0);
    }
    close(published[1]);
    char word = 0;
    ASSERT_EQ(read(published[0], &word, 1), 1);
    close(published[0]);
    Reader reader(shm_reader_open("cam", 300));
    ASSERT_TRUE(reader);
    kill(child, SIGSTOP);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, WUNTRACED), child);
    EXPECT_EQ(shm_reader_open_dmabuf_fd(reader.get()), -ETIMEDOUT);
    EXPECT_EQ(dmabufText(reader.get()),
              "no: the publisher did not send them in time; frames have them once it does");
    kill(child, SIGCONT);
    int dmabuf = -1;
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (dmabuf < 0 && std::chrono::steady_clock::now() < limit) {
        shm_video_frame_t frame = {};
        if (shm_reader_lock_video(reader.get(), &frame, SHM_VIDEO_NEWEST) == 0) {
            dmabuf = shm_reader_get_dmabuf_fd(reader.get());
            shm_reader_unlock_video(reader.get(), &frame);
        }
        std::this_thread::yield();
    }
    EXPECT_GE(dmabuf, 0);
    EXPECT_EQ(shm_reader_open_dmabuf_fd(reader.get()), 0);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

TEST_F(DmabufStore, FramesBeyondTheKernelsLimitAreThereWithoutAndNameIt)
{
    const UdmabufLimit limit;
    ASSERT_TRUE(limit.set(1));
    params.width = 1024;
    params.height = 512; // 0.75 MiB
    openWriter();
    publish();
    {
        Reader reader = openReader();
        ASSERT_TRUE(reader);
        EXPECT_EQ(dmabufText(reader.get()), "yes");
        EXPECT_EQ(shm_reader_open_dmabuf_fd(reader.get()), 0);
    }
    writer.reset();
    params.height = 1024; // 1.5 MiB
    frameNumber = 0;
    openWriter();
    publish();
    Reader reader = openReader();
    ASSERT_TRUE(reader);
    EXPECT_EQ(dmabufText(reader.get()),
              "no: udmabuf refuses frames of 1572864 bytes; raise its parameter size_limit_mb");
    EXPECT_EQ(memoryText(reader.get()), "memfd");
    EXPECT_EQ(shm_reader_open_dmabuf_fd(reader.get()), -ENOTSUP);
    shm_video_frame_t frame = {};
    ASSERT_EQ(shm_reader_lock_video(reader.get(), &frame, SHM_VIDEO_NEWEST), 0);
    EXPECT_EQ(shm_reader_get_dmabuf_fd(reader.get()), -1);
    EXPECT_EQ(frame.planes[1][0], sampleOf(1));
    shm_reader_unlock_video(reader.get(), &frame);
}

// The limit is lowered under a publisher that needs more memory because a reader pins frames.
TEST_F(DmabufStore, AddedMemoryThatIsNotExportedServesWithoutAndSaysWhy)
{
    const UdmabufLimit limit;
    openWriter();
    Reader reader = openReader();
    ASSERT_TRUE(reader);
    ASSERT_EQ(shm_reader_open_dmabuf_fd(reader.get()), 0);
    ASSERT_TRUE(limit.set(0));
    std::vector<shm_video_frame_t> kept;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    bool isServing = false;
    while (!isServing && std::chrono::steady_clock::now() < end) {
        publish();
        shm_video_frame_t frame = {};
        if (shm_reader_lock_video(reader.get(), &frame, SHM_VIDEO_NEWEST) != 0)
            continue;
        const int dmabuf = shm_reader_get_dmabuf_fd(reader.get());
        EXPECT_EQ(dmabuf >= 0, frame.slot < 8) << "slot " << frame.slot;
        EXPECT_EQ(frame.planes[0][0], sampleOf(frameNumber));
        isServing = frame.slot >= 8;
        if (!isServing && kept.size() < 6)
            kept.push_back(frame);
        else
            shm_reader_unlock_video(reader.get(), &frame);
    }
    EXPECT_TRUE(isServing);
    EXPECT_EQ(dmabufText(openReader().get()),
              "yes, but not for memory that was added: udmabuf refuses frames of "
              "143360 bytes; raise its parameter size_limit_mb");
    for (shm_video_frame_t &frame : kept)
        shm_reader_unlock_video(reader.get(), &frame);
}

TEST_F(DmabufStore, AHeapThatIsNotThereIsRefused)
{
    params.memory = "dma-heap:none";
    shm_writer_t *opened = nullptr;
    shm_error_t error = {};
    EXPECT_EQ(shm_writer_open(&params, &opened, &error), -ENOENT);
    EXPECT_STREQ(error.message,
                 "store \"cam\": there is no /dev/dma_heap/none; choose one that is there, or the "
                 "memory kind memfd");
}

} // namespace
