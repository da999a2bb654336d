// DMA-buf export with another device than the kernel's: what is asked of it and when, and what is said when
// it refuses.
#include "clock.h"
#include "handshake_check.h"
#include "messages.h"
#include "writer.h"

#include <shm/shm_reader.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/memfd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#ifndef F_SEAL_FUTURE_WRITE
#define F_SEAL_FUTURE_WRITE 0x0010
#endif

using namespace shm;

namespace {

// Exports a memfd as a second descriptor of itself, and notes what it is asked.
class FakeDevice : public DmabufDevice
{
public:
    int exportMemfd(int memfd, uint64_t, UniqueFd *dmabuf) override
    {
        const std::lock_guard<std::mutex> lock(mutex);
        sealsAtExport.push_back(fcntl(memfd, F_GET_SEALS));
        if (exportResult != 0 && sealsAtExport.size() > exportsBefore)
            return exportResult;
        dmabuf->reset(fcntl(memfd, F_DUPFD_CLOEXEC, 0));
        memfds.push_back(memfd);
        return 0;
    }
    int allocate(const char *heap, uint64_t, UniqueFd *) override
    {
        heaps.push_back(heap);
        return allocateResult;
    }
    bool isIdle(int dmabuf) override
    {
        events += 'i';
        return !allBusy && dmabuf != busy;
    }
    void beginWrite(int dmabuf) override
    {
        events += 'b';
        written = dmabuf;
    }
    void endWrite(int dmabuf) override
    {
        events += 'e';
        EXPECT_EQ(dmabuf, written);
    }
    void takeDeviceWrites(int dmabuf) override
    {
        events += 'd';
        taken.push_back(dmabuf);
    }

    int exportResult = 0;
    size_t exportsBefore = 0; // that it does not refuse
    int allocateResult = -ENOMEM;
    bool allBusy = false;
    int busy = -1;

    std::mutex mutex;
    std::vector<int> sealsAtExport;
    std::vector<int> memfds;
    std::vector<std::string> heaps;
    std::string events; // of the publishing thread
    int written = -1;
    std::vector<int> taken; // of devices' writes
};

class ShmDmabuf : public testing::Test
{
protected:
    void SetUp() override
    {
        char path[] = "/tmp/zevdmuXXXXXX";
        ASSERT_NE(mkdtemp(path), nullptr);
        folder = path;
        setenv("ZEV_SHM_DIR", path, 1);
        shm_writer_params_init(&params);
        params.name = "cam";
        params.directory = folder.c_str();
        params.width = 64;
        params.height = 32;
        params.pixel_format = SHM_PIXEL_FORMAT_NV12;
        params.history_frames = 2;
        params.spare_frames = 4;
        params.memory = "udmabuf";
    }

    void TearDown() override
    {
        shm_writer_close(writer);
        std::filesystem::remove_all(folder);
    }

    int open() { return openWriter(&params, clock, &writer, &error, device); }

    shm_writer_stats_t stats() const
    {
        shm_writer_stats_t now = {};
        now.size = sizeof now;
        EXPECT_EQ(shm_writer_get_stats(writer, &now), 0);
        return now;
    }

    std::string folder;
    SystemClock clock;
    FakeDevice device;
    shm_writer_params_t params = {};
    shm_error_t error = {};
    shm_writer_t *writer = nullptr;
};

TEST_F(ShmDmabuf, WritesAreBracketed)
{
    ASSERT_EQ(open(), 0) << error.message;
    EXPECT_STREQ(stats().memory, "udmabuf");
    EXPECT_STREQ(stats().dmabuf, "yes");
    shm_writer_frame_t frame = {};
    ASSERT_EQ(shm_writer_acquire(writer, &frame), 0);
    EXPECT_EQ(device.events, "ib");
    EXPECT_EQ(frame.memory_fd, device.written) << "a device that fills the slot imports the DMA-buf";
    ASSERT_EQ(shm_writer_publish(writer, &frame, 1000), 0);
    EXPECT_EQ(device.events, "ibe");

    device.events.clear();
    ASSERT_EQ(shm_writer_acquire(writer, &frame), 0);
    shm_writer_abandon(writer, &frame);
    EXPECT_EQ(device.events, "ibe");

    device.events.clear();
    const std::vector<uint8_t> pixels(64 * 32, 7);
    const uint8_t *const planes[4] = {pixels.data(), pixels.data(), nullptr, nullptr};
    const int32_t strides[4] = {64, 64, 0, 0};
    ASSERT_EQ(shm_writer_publish_video(writer, planes, strides, 2000), 0);
    EXPECT_EQ(device.events, "ibe");

    // Refused for its timestamp: nothing is written, and what was begun is ended.
    device.events.clear();
    EXPECT_EQ(shm_writer_publish_video(writer, planes, strides, 2000), -EEXIST);
    EXPECT_EQ(device.events, "");
    ASSERT_EQ(shm_writer_acquire(writer, &frame), 0);
    EXPECT_EQ(shm_writer_publish(writer, &frame, 2000), -EEXIST);
    EXPECT_EQ(device.events, "ibe");
}

// The processor's caches have nothing of what a device writes: to bracket that as the processor's would write
// them over it. What they have of the frame before is forgotten, when the device is done and before anybody
// reads.
TEST_F(ShmDmabuf, ADevicesWritesAreNotBracketed)
{
    params.lent_frames = 3;
    ASSERT_EQ(open(), 0) << error.message;
    shm_writer_frame_t first = {}, second = {}, own = {};
    ASSERT_EQ(shm_writer_acquire_for_device(writer, &first), 0);
    ASSERT_EQ(shm_writer_acquire_for_device(writer, &second), 0);
    EXPECT_EQ(device.events, "ii") << "a device that still reads is waited for all the same";
    ASSERT_EQ(shm_writer_acquire(writer, &own), 0);
    EXPECT_EQ(device.events, "iiib");
    const std::vector<int> dmabufs = {second.memory_fd, first.memory_fd};
    ASSERT_EQ(shm_writer_publish(writer, &second, 1000), 0);
    EXPECT_EQ(device.events, "iiibd");
    shm_writer_abandon(writer, &first);
    EXPECT_EQ(device.events, "iiibdd");
    EXPECT_EQ(device.taken, dmabufs);
    ASSERT_EQ(shm_writer_publish(writer, &own, 2000), 0);
    EXPECT_EQ(device.events, "iiibdde");
}

TEST_F(ShmDmabuf, PlainMemoryCostsNoCalls)
{
    params.memory = "memfd";
    ASSERT_EQ(open(), 0) << error.message;
    shm_writer_frame_t frame = {};
    ASSERT_EQ(shm_writer_acquire(writer, &frame), 0);
    ASSERT_EQ(shm_writer_publish(writer, &frame, 1000), 0);
    EXPECT_EQ(device.events, "");
    EXPECT_TRUE(device.sealsAtExport.empty());
}

TEST_F(ShmDmabuf, ASlotThatADeviceStillReadsIsPassedOver)
{
    ASSERT_EQ(open(), 0) << error.message;
    shm_writer_frame_t frame = {};
    ASSERT_EQ(shm_writer_acquire(writer, &frame), 0);
    const int slot = frame.slot;
    device.busy = frame.memory_fd;
    shm_writer_abandon(writer, &frame);
    for (int i = 1; i <= 20; ++i) {
        ASSERT_EQ(shm_writer_acquire(writer, &frame), 0);
        EXPECT_NE(frame.slot, slot);
        ASSERT_EQ(shm_writer_publish(writer, &frame, i * 1000), 0);
    }
    device.busy = -1;
    std::set<int> used;
    for (int i = 21; i <= 40; ++i) {
        ASSERT_EQ(shm_writer_acquire(writer, &frame), 0);
        used.insert(frame.slot);
        ASSERT_EQ(shm_writer_publish(writer, &frame, i * 1000), 0);
    }
    EXPECT_EQ(used.count(slot), 1u) << "it is used again once the device is done";
}

TEST_F(ShmDmabuf, WithAllSlotsReadTheFrameIsDroppedAndNobodyWaits)
{
    ASSERT_EQ(open(), 0) << error.message;
    device.allBusy = true;
    shm_writer_frame_t frame = {};
    EXPECT_EQ(shm_writer_acquire(writer, &frame), -EAGAIN);
    EXPECT_EQ(device.events.find('b'), std::string::npos);
    EXPECT_EQ(stats().frames_dropped, 1u);
}

TEST_F(ShmDmabuf, ExportComesBeforeTheSealsThatForbidIt)
{
    params.flags = SHM_WRITER_SEALED;
    ASSERT_EQ(open(), 0) << error.message;
    ASSERT_EQ(device.sealsAtExport.size(), 6u);
    const int sealExec = 0x20; // set by newer kernels for memory that is never executable
    for (const int seals : device.sealsAtExport) {
        EXPECT_NE(seals & F_SEAL_SHRINK, 0);
        EXPECT_EQ(seals & (F_SEAL_WRITE | F_SEAL_FUTURE_WRITE), 0);
    }
    for (const int memfd : device.memfds)
        EXPECT_EQ(fcntl(memfd, F_GET_SEALS) & ~sealExec,
                  F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_FUTURE_WRITE | F_SEAL_SEAL);
}

struct Refusal
{
    int code;
    const char *text;
};

class Refused : public ShmDmabuf, public testing::WithParamInterface<Refusal>
{};

TEST_P(Refused, FramesAreThereWithoutAndTheReasonIsReadable)
{
    device.exportResult = GetParam().code;
    ASSERT_EQ(open(), 0) << error.message;
    EXPECT_EQ(device.sealsAtExport.size(), 1u) << "asked once, not for every slot";
    EXPECT_STREQ(stats().memory, "memfd");
    EXPECT_STREQ(stats().dmabuf, GetParam().text);
    shm_writer_frame_t frame = {};
    ASSERT_EQ(shm_writer_acquire(writer, &frame), 0);
    frame.planes[0][0] = 77;
    ASSERT_EQ(shm_writer_publish(writer, &frame, 1000), 0);

    shm_reader_t *reader = shm_reader_open("cam", 2000);
    ASSERT_NE(reader, nullptr);
    EXPECT_EQ(shm_reader_open_dmabuf_fd(reader), -ENOTSUP);
    shm_store_info_t info = {};
    info.size = sizeof info;
    EXPECT_EQ(shm_reader_get_info(reader, &info), 0);
    EXPECT_STREQ(info.dmabuf, GetParam().text);
    EXPECT_STREQ(info.memory, "memfd");
    shm_video_frame_t locked = {};
    ASSERT_EQ(shm_reader_lock_video(reader, &locked, SHM_VIDEO_NEWEST), 0);
    EXPECT_EQ(shm_reader_get_dmabuf_fd(reader), -1);
    EXPECT_EQ(locked.planes[0][0], 77);
    shm_reader_close(reader);
}

INSTANTIATE_TEST_SUITE_P(
    Reasons, Refused,
    testing::Values(
        Refusal{-ENOENT,
                "no: this kernel has no /dev/udmabuf; load the module udmabuf or enable CONFIG_UDMABUF"},
        Refusal{-EACCES, "no: the publisher may not open /dev/udmabuf; give its user access to it"},
        Refusal{-EINVAL, "no: udmabuf refuses frames of 12288 bytes; raise its parameter size_limit_mb"},
        Refusal{-EMFILE, "no: /dev/udmabuf does not export frames: Too many open files"}));

// A store whose frames take one way to the screen now and another then is worse than one without.
TEST_F(ShmDmabuf, ARefusalBeforeAnybodyReadsIsOneOfAllFrames)
{
    device.exportsBefore = 3;
    device.exportResult = -EMFILE;
    ASSERT_EQ(open(), 0) << error.message;
    EXPECT_EQ(device.sealsAtExport.size(), 4u) << "asked no more";
    EXPECT_STREQ(stats().memory, "memfd");
    EXPECT_STREQ(stats().dmabuf, "no: /dev/udmabuf does not export frames: Too many open files");
    for (int i = 1; i <= 12; ++i) {
        shm_writer_frame_t frame = {};
        ASSERT_EQ(shm_writer_acquire(writer, &frame), 0);
        ASSERT_EQ(shm_writer_publish(writer, &frame, i * 1000), 0);
    }
    EXPECT_EQ(device.events, "") << "some slot has kept its DMA-buf";
    shm_reader_t *reader = shm_reader_open("cam", 2000);
    ASSERT_NE(reader, nullptr);
    EXPECT_EQ(shm_reader_open_dmabuf_fd(reader), -ENOTSUP);
    shm_reader_close(reader);
}

// Memory that is added because readers pin frames: better without a DMA-buf than not at all.
TEST_F(ShmDmabuf, ARefusalOfMemoryThatIsAddedIsToldForAsLongAsItServes)
{
    const auto told = [] {
        shm_reader_t *fresh = shm_reader_open("cam", 2000);
        shm_store_info_t info = {};
        info.size = sizeof info;
        const std::string text = shm_reader_get_info(fresh, &info) == 0 ? info.dmabuf : "no info";
        shm_reader_close(fresh);
        return text;
    };
    ASSERT_EQ(open(), 0) << error.message;
    EXPECT_EQ(told(), "yes");
    {
        const std::lock_guard<std::mutex> lock(device.mutex);
        device.exportResult = -EMFILE;
    }
    shm_reader_t *reader = shm_reader_open("cam", 2000);
    ASSERT_NE(reader, nullptr);
    std::vector<shm_video_frame_t> kept;
    int64_t timestamp = 0;
    const auto publish = [&] {
        shm_writer_frame_t frame = {};
        timestamp += 1000;
        return shm_writer_acquire(writer, &frame) == 0 && shm_writer_publish(writer, &frame, timestamp) == 0;
    };
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    const auto isInTime = [&limit] { return std::chrono::steady_clock::now() < limit; };
    while (stats().slots_replaced == 0 && isInTime()) {
        shm_video_frame_t frame = {};
        if (publish() && kept.size() < 5 && shm_reader_lock_video(reader, &frame, SHM_VIDEO_NEWEST) == 0)
            kept.push_back(frame);
        std::this_thread::yield();
    }
    const std::string reason = "yes, but not for memory that was added: /dev/udmabuf does not export frames: "
                               "Too many open files";
    EXPECT_EQ(stats().dmabuf, reason);
    EXPECT_STREQ(stats().memory, "udmabuf");
    EXPECT_EQ(told(), reason);
    // The memory serves all the same.
    bool isServing = false;
    while (!isServing && isInTime()) {
        shm_video_frame_t frame = {};
        if (publish() && shm_reader_lock_video(reader, &frame, SHM_VIDEO_NEWEST) == 0) {
            isServing = frame.slot >= 6;
            shm_reader_unlock_video(reader, &frame);
        }
    }
    EXPECT_TRUE(isServing);

    for (shm_video_frame_t &frame : kept)
        shm_reader_unlock_video(reader, &frame);
    while (std::string(stats().dmabuf) != "yes" && isInTime()) { // given back as frames come
        publish();
        std::this_thread::yield();
    }
    EXPECT_STREQ(stats().dmabuf, "yes");
    EXPECT_EQ(told(), "yes");
    shm_reader_close(reader);
}

TEST(ShmDmabufTexts, AllFitTheirFields)
{
    shm_store_info_t info;
    for (const int code : {-ENOENT, -EACCES, -EINVAL, -EMFILE, -ENOMEM})
        EXPECT_LT(lateExportFailure(code, kSlotBytesMax).size(), sizeof info.dmabuf) << code;
    EXPECT_LT(std::string("dma-heap:").size() + kHeapNameMax, sizeof info.memory);
    EXPECT_TRUE(saysExported("yes"));
    EXPECT_TRUE(saysExported(lateExportFailure(-ENOMEM, 4096).c_str()));
    EXPECT_FALSE(saysExported(exportFailure(-ENOMEM, 4096).c_str()));
    EXPECT_FALSE(saysExported("yesterday"));
}

TEST_F(ShmDmabuf, AHeapIsAskedByNameAndItsRefusalIsTold)
{
    device.allocateResult = -EACCES;
    for (const char *heap : {"reserved", "linux,cma", "reserved@80000000", "one-of-22-characters-x"}) {
        device.heaps.clear();
        const std::string memory = std::string("dma-heap:") + heap;
        params.memory = memory.c_str();
        EXPECT_EQ(open(), -EACCES) << heap;
        EXPECT_EQ(device.heaps, std::vector<std::string>{heap});
        EXPECT_EQ(error.message, std::string("store \"cam\": this user may not open /dev/dma_heap/") + heap +
                                     "; give it access, or choose the memory kind memfd");
    }
}

TEST_F(ShmDmabuf, KindsThatCannotBeAreRefused)
{
    const struct
    {
        const char *memory;
        unsigned flags;
        const char *text;
    } cases[] = {
        {"", 0, "memory kind \"\" is unknown: memfd, udmabuf, dma-heap:NAME and huge exist"},
        {"dmabuf", 0, "memory kind \"dmabuf\" is unknown: memfd, udmabuf, dma-heap:NAME and huge exist"},
        {"dma-heap:", 0,
         "memory kind \"dma-heap:\" is unknown: memfd, udmabuf, dma-heap:NAME and huge exist"},
        {"dma-heap:../sda", 0,
         "memory kind \"dma-heap:../sda\" is unknown: memfd, udmabuf, dma-heap:NAME and huge exist"},
        {"dma-heap:a/b", 0,
         "memory kind \"dma-heap:a/b\" is unknown: memfd, udmabuf, dma-heap:NAME and huge exist"},
        {"dma-heap:a b", 0,
         "memory kind \"dma-heap:a b\" is unknown: memfd, udmabuf, dma-heap:NAME and huge exist"},
        {"dma-heap:a-name-of-23-characters", 0,
         "DMA heap name \"a-name-of-23-characters\" is too long: 22 characters at most; have the device tree "
         "name it shorter, or choose another heap"},
        {"dma-heap:bad/and-of-23-character", 0,
         "DMA heap name \"bad/and-of-23-character\" is too long: 22 characters at most; have the device tree "
         "name it shorter, or choose another heap"},
        {"udmabuf", SHM_WRITER_HUGE_PAGES, "frames cannot lie in huge pages and in udmabuf: choose one"},
        {"dma-heap:system", SHM_WRITER_SEALED,
         "memory of a DMA heap cannot be sealed: choose the memory kind memfd"},
    };
    for (const auto &refused : cases) {
        params.memory = refused.memory;
        params.flags = refused.flags;
        EXPECT_EQ(open(), -EINVAL) << refused.memory;
        EXPECT_STREQ(error.message, refused.text);
    }
    EXPECT_TRUE(device.heaps.empty());
}

// The fake hands out memfds as DMA-bufs, like a hostile writer would: memory that it could cut off under a
// driver.
TEST_F(ShmDmabuf, AReaderRefusesWhatIsNoDmabuf)
{
    ASSERT_EQ(open(), 0) << error.message;
    shm_reader_t *reader = shm_reader_open("cam", 2000);
    ASSERT_NE(reader, nullptr);
    EXPECT_EQ(shm_reader_is_ready(reader), 1);
    EXPECT_EQ(shm_reader_open_dmabuf_fd(reader), -ENODEV);
    EXPECT_EQ(shm_reader_is_ready(reader), 0);
    EXPECT_EQ(shm_reader_get_dmabuf_fd(reader), -1);
    shm_reader_close(reader);
}

TEST(ShmDmabufList, IsCheckedBeforeItIsUsed)
{
    auto good = makeMessage<DmabufsMessage>(kDmabufs);
    good.count = 2;
    good.complete = 1;
    good.entries[0] = {3, 1};
    good.entries[1] = {4, 1};
    DmabufsMessage checked;
    const char *why = "";
    const auto check = [&](const DmabufsMessage &message, size_t fds) {
        return checkDmabufs(&message, sizeof message, fds, 8, &checked, &why);
    };
    EXPECT_EQ(check(good, 2), 0);
    EXPECT_EQ(check(good, 1), -EPROTO);
    EXPECT_STREQ(why, "the list of DMA-bufs came with the wrong number of descriptors");
    EXPECT_EQ(checkDmabufs(&good, sizeof good - 1, 2, 8, &checked, &why), -EPROTO);
    EXPECT_STREQ(why, "the list of DMA-bufs has the wrong size");

    DmabufsMessage bad = good;
    bad.header.type = kSlots;
    EXPECT_EQ(check(bad, 2), -EPROTO);
    EXPECT_STREQ(why, "the list of DMA-bufs has a wrong header");
    bad = good;
    bad.entries[1].slot = 8;
    EXPECT_EQ(check(bad, 2), -EPROTO);
    EXPECT_STREQ(why, "a slot with a DMA-buf is out of range");
    bad = good;
    bad.entries[1].memoryGeneration = 0;
    EXPECT_EQ(check(bad, 2), -EPROTO);
    bad = good;
    bad.entries[1].slot = 3;
    EXPECT_EQ(check(bad, 2), -EPROTO);
    EXPECT_STREQ(why, "a slot with a DMA-buf is listed twice");
    bad = good;
    bad.count = kSlotsPerMessage + 1;
    EXPECT_EQ(check(bad, kSlotsPerMessage + 1), -EPROTO);
    EXPECT_STREQ(why, "the list of DMA-bufs has a wrong count");
    bad = good;
    bad.count = 0;
    EXPECT_EQ(check(bad, 0), 0) << "there are none";
    bad.complete = 0;
    EXPECT_EQ(check(bad, 0), -EPROTO);
}

} // namespace
