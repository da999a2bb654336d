// What a reader does about DMA-bufs that are not as announced: real ones of the kernel in the virtual
// machine, stand-ins in the fast tier. The writer's library is made to ask the device for others than it was
// told to.
#include "clock.h"
#include "dmabuf.h"
#include "writer.h"

#include <shm/shm_reader.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>

using namespace shm;

namespace {

constexpr uint64_t kPageBytes = 4096;

// The system's, of sizes that are off.
class OffDevice : public DmabufDevice
{
public:
    int exportMemfd(int memfd, uint64_t bytes, UniqueFd *dmabuf) override
    {
        if (exportsBefore > 0) {
            --exportsBefore;
            return systemDmabufDevice().exportMemfd(memfd, bytes, dmabuf);
        }
        // A stand-in's size is its memfd's, so that has to be of the wrong size itself.
        const UniqueFd other(memfd_create("other", MFD_CLOEXEC | MFD_ALLOW_SEALING));
        if (ftruncate(other.get(), static_cast<off_t>(bytes + offBytes)) != 0 ||
            fcntl(other.get(), F_ADD_SEALS, F_SEAL_SHRINK) != 0)
            return -errno;
        return systemDmabufDevice().exportMemfd(other.get(), bytes + offBytes, dmabuf);
    }
    int allocate(const char *heap, uint64_t bytes, UniqueFd *dmabuf) override
    {
        return systemDmabufDevice().allocate(heap, bytes + offBytes, dmabuf);
    }
    bool isIdle(int dmabuf) override { return systemDmabufDevice().isIdle(dmabuf); }
    void beginWrite(int dmabuf) override { systemDmabufDevice().beginWrite(dmabuf); }
    void endWrite(int dmabuf) override { systemDmabufDevice().endWrite(dmabuf); }
    void takeDeviceWrites(int dmabuf) override { systemDmabufDevice().takeDeviceWrites(dmabuf); }

    uint64_t offBytes = 0; // added; wraps to take away
    int exportsBefore = 0; // that are as they should be
};

class DmabufGuards : public testing::Test
{
protected:
    void SetUp() override
    {
        char path[] = "/tmp/zevdmagXXXXXX";
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
    void openAndPublish()
    {
        shm_error_t error = {};
        ASSERT_EQ(openWriter(&params, clock, &writer, &error, device), 0) << error.message;
        shm_writer_frame_t frame = {};
        ASSERT_EQ(shm_writer_acquire(writer, &frame), 0);
        frame.planes[0][0] = 77;
        ASSERT_EQ(shm_writer_publish(writer, &frame, 1000), 0);
    }

    std::string folder;
    SystemClock clock;
    OffDevice device;
    shm_writer_params_t params = {};
    shm_writer_t *writer = nullptr;
};

TEST_F(DmabufGuards, ACheckTellsWhatIsWrong)
{
    const UniqueFd memory(memfd_create("frame", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    ASSERT_EQ(ftruncate(memory.get(), 2 * kPageBytes), 0);
    ASSERT_EQ(fcntl(memory.get(), F_ADD_SEALS, F_SEAL_SHRINK), 0);
    UniqueFd dmabuf;
    ASSERT_EQ(systemDmabufDevice().exportMemfd(memory.get(), 2 * kPageBytes, &dmabuf), 0);
    uint64_t inode = 0;
    const char *why = "";
    EXPECT_EQ(checkDmabuf(dmabuf.get(), 2 * kPageBytes, &inode, &why), 0) << why;
    EXPECT_NE(inode, 0u);
    EXPECT_EQ(checkDmabuf(dmabuf.get(), 3 * kPageBytes, &inode, &why), -EPROTO) << "short";
    EXPECT_STREQ(why, "a DMA-buf is not of the announced size");
    EXPECT_EQ(checkDmabuf(dmabuf.get(), kPageBytes, &inode, &why), -EPROTO) << "long";
    EXPECT_STREQ(why, "a DMA-buf is not of the announced size");
    EXPECT_EQ(checkDmabuf(memory.get(), 2 * kPageBytes, &inode, &why), -EPROTO);
    EXPECT_STREQ(why, "a descriptor is no DMA-buf");
    EXPECT_EQ(checkDmabuf(-1, 2 * kPageBytes, &inode, &why), -EPROTO);
    EXPECT_STREQ(why, "a descriptor cannot be examined");
}

struct Size
{
    const char *name;
    uint64_t offBytes;
    int exportsBefore;
    bool isTaken;
};

class Exported : public DmabufGuards, public testing::WithParamInterface<Size>
{};

// A driver that is told of planes beyond the memory's end would fault; the reader leaves such a writer.
TEST_P(Exported, IsTakenOfTheAnnouncedSizeOnly)
{
    device.offBytes = GetParam().offBytes;
    device.exportsBefore = GetParam().exportsBefore;
    openAndPublish();
    shm_reader_t *reader = shm_reader_open("cam", 5000);
    ASSERT_NE(reader, nullptr);
    shm_video_frame_t frame = {};
    ASSERT_EQ(shm_reader_lock_video(reader, &frame, SHM_VIDEO_NEWEST), 0);
    EXPECT_EQ(shm_reader_open_dmabuf_fd(reader), GetParam().isTaken ? 0 : -ENODEV);
    EXPECT_EQ(shm_reader_is_ready(reader), GetParam().isTaken ? 1 : 0);
    EXPECT_EQ(shm_reader_get_dmabuf_fd(reader) >= 0, GetParam().isTaken || GetParam().exportsBefore > 0);
    EXPECT_EQ(frame.planes[0][0], 77) << "what was locked stays";
    shm_reader_unlock_video(reader, &frame);
    shm_reader_close(reader);
}

INSTANTIATE_TEST_SUITE_P(Sizes, Exported,
                         testing::Values(Size{"AsAnnounced", 0, 0, true},
                                         Size{"APageLess", -kPageBytes, 0, false},
                                         Size{"APageMore", kPageBytes, 0, false},
                                         Size{"APageLessLater", -kPageBytes, 3, false}),
                         [](const auto &row) { return std::string(row.param.name); });

TEST_F(DmabufGuards, AHeapsMemoryIsMappedOfTheAnnouncedSizeOnly)
{
    params.memory = "dma-heap:system";
    device.offBytes = kPageBytes; // the writer's own mapping would fail with less
    openAndPublish();
    shm_error_t error = {};
    shm_reader_options_t options = {};
    options.size = sizeof options;
    options.timeout_ms = 5000;
    shm_reader_t *reader = shm_reader_open_with("cam", &options, &error);
    EXPECT_EQ(reader, nullptr);
    EXPECT_NE(std::string(error.message).find("a DMA-buf is not of the announced size"), std::string::npos)
        << error.message;
    shm_reader_close(reader);
}

} // namespace
