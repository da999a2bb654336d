// A camera as a store: the publisher over a driver in memory, real stores, real readers.
#include "camera.h"
#include "camerapublisher.h"
#include "failure.h"
#include "fake_v4l2.h"

#include <shm/shm_reader.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <sys/inotify.h>
#include <unistd.h>

using namespace zevshm;

namespace {

fake::Kernel *theKernel = nullptr;

bool waitFor(const std::function<bool()> &condition)
{
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > limit)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

struct CloseReader
{
    void operator()(shm_reader_t *reader) const { shm_reader_close(reader); }
};
using ReaderPtr = std::unique_ptr<shm_reader_t, CloseReader>;

class CameraStore : public testing::Test
{
protected:
    CameraStore()
    {
        std::string name = (std::filesystem::temp_directory_path() / "camera-XXXXXX").string();
        EXPECT_NE(mkdtemp(name.data()), nullptr);
        folder = name;
        setenv("ZEV_SHM_DIR", folder.c_str(), 1);
        notified = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
        // Also what is removed, since the kernel makes one of events that follow each other.
        EXPECT_GE(inotify_add_watch(notified, folder.c_str(), IN_MOVED_TO | IN_DELETE), 0);
        theKernel = &kernel;
        kernel.hasRealClock = true;
        kernel.driver.width = 512;
        kernel.driver.height = 16; // lines of 512 bytes end on a page, where the store's chroma plane begins
        kernel.driver.stride = 512;
        kernel.driver.quantization = V4L2_QUANTIZATION_FULL_RANGE; // a copy is then the same bytes
        settings.device = "/dev/video0";
        storeSettings.name = "cam";
    }
    ~CameraStore() override
    {
        end();
        EXPECT_TRUE(kernel.openDescriptors.empty());
        EXPECT_TRUE(kernel.violations.empty()) << kernel.violations.front();
        close(notified);
        std::filesystem::remove_all(folder);
    }

    bool open()
    {
        store = std::make_unique<StoreWriter>(storeSettings);
        publisher = std::make_unique<CameraPublisher>(settings, *store, clock);
        return publisher->open();
    }
    void run()
    {
        publisher->run([] {});
    }
    void end()
    {
        if (publisher) {
            publisher->stop();
            publisher->join();
        }
        publisher.reset();
        store.reset();
    }
    // Has the driver fill a buffer, and waits until that frame is published.
    bool publishOne()
    {
        const uint64_t before = publisher->counters().frames;
        if (!waitFor([this] { return kernel.fill(); }))
            return false;
        return waitFor([this, before] { return publisher->counters().frames > before; });
    }
    // The newest frame; its number, as the driver painted it into every line, or -1.
    int newestNumber(shm_reader_t *reader)
    {
        shm_video_frame_t frame = {};
        if (shm_reader_lock_video(reader, &frame, SHM_VIDEO_NEWEST) != 0)
            return -1;
        const int number = frame.planes[0][0];
        for (int row = 0; row < frame.height; ++row)
            EXPECT_EQ(frame.planes[0][row * frame.strides[0]], number) << row;
        shm_reader_unlock_video(reader, &frame);
        return number;
    }
    ReaderPtr openReader()
    {
        ReaderPtr reader;
        EXPECT_TRUE(waitFor([&reader] {
            reader.reset(shm_reader_open("cam", 1000));
            return reader != nullptr;
        }));
        return reader;
    }
    static shm_store_info_t infoOf(shm_reader_t *reader)
    {
        shm_store_info_t info = {};
        info.size = sizeof info;
        EXPECT_EQ(shm_reader_get_info(reader, &info), 0);
        return info;
    }
    unsigned int queuedBuffers()
    {
        const std::lock_guard<std::recursive_mutex> lock(kernel.mutex);
        return kernel.queuedCount();
    }
    // How often a store was put in its place since the last call.
    int timesOpened()
    {
        alignas(inotify_event) char events[4096];
        int times = 0;
        for (ssize_t length = 0; (length = read(notified, events, sizeof events)) > 0;) {
            for (ssize_t at = 0; at < length;) {
                const auto *event = reinterpret_cast<const inotify_event *>(events + at);
                times +=
                    (event->mask & IN_MOVED_TO) != 0 && std::string(event->name).rfind("cam", 0) == 0 ? 1 : 0;
                at += static_cast<ssize_t>(sizeof *event + event->len);
            }
        }
        return times;
    }

    std::filesystem::path folder;
    int notified = -1;
    fake::Kernel kernel;
    StoreSettings storeSettings;
    CameraPublisher::Settings settings;
    SharedClock clock{0};
    std::unique_ptr<StoreWriter> store;
    std::unique_ptr<CameraPublisher> publisher;
};

} // namespace

zevmm::v4l2::System &zevmm::v4l2::kernelSystem()
{
    return *theKernel;
}

TEST_F(CameraStore, theDriverWritesIntoItsSlots)
{
    ASSERT_TRUE(open());
    EXPECT_EQ(publisher->way(), "captured straight into the store (USERPTR)");
    EXPECT_EQ(timesOpened(), 1);
    run();
    const ReaderPtr reader = openReader();
    EXPECT_EQ(infoOf(reader.get()).capture, SHM_CAPTURE_USERPTR);
    EXPECT_EQ(infoOf(reader.get()).color.range, SHM_RANGE_FULL);
    for (int number = 1; number <= 60; ++number) {
        ASSERT_TRUE(publishOne());
        EXPECT_EQ(newestNumber(reader.get()), number);
    }
    EXPECT_EQ(publisher->counters().noSlot, 0u);
    // Every slot comes with the number that it had, so that its memory stays in the driver's buffer it was
    // in.
    EXPECT_EQ(kernel.relocations, 0);
}

TEST_F(CameraStore, aLayoutThatIsNotTheStoresIsCopiedAndTheStoreOpenedOnce)
{
    kernel.driver.height = 18; // whose luma ends amidst a page
    ASSERT_TRUE(open());
    EXPECT_EQ(
        publisher->way(),
        "each frame written into the store from the driver's buffer: one copy, because USERPTR: the driver "
        "puts the chroma plane at byte 9216, not 12288");
    EXPECT_EQ(timesOpened(), 1);
    EXPECT_EQ(store->pixelFormat(), SHM_PIXEL_FORMAT_YUV420P);
    run();
    const ReaderPtr reader = openReader();
    EXPECT_EQ(infoOf(reader.get()).capture, SHM_CAPTURE_COPIED);
    for (int number = 1; number <= 3; ++number) {
        ASSERT_TRUE(publishOne());
        EXPECT_EQ(newestNumber(reader.get()), number);
    }
}

TEST_F(CameraStore, aDriverThatTakesNoAddressesIsCopiedAndTheStoreOpenedOnce)
{
    kernel.driver.takesAddresses = false;
    ASSERT_TRUE(open());
    EXPECT_NE(publisher->way().find("one copy, because USERPTR: the driver takes no memory by address"),
              std::string::npos)
        << publisher->way();
    EXPECT_EQ(timesOpened(), 1);
    run();
    ASSERT_TRUE(publishOne());
}

// Which only shows when it is given some: the store is there by then.
TEST_F(CameraStore, aDriverThatRefusesTheMemoryIsCopied)
{
    kernel.fault = {-1, VIDIOC_QBUF, EFAULT, false};
    ASSERT_TRUE(open());
    EXPECT_NE(publisher->way().find("one copy, because USERPTR: VIDIOC_QBUF failed: Bad address"),
              std::string::npos)
        << publisher->way();
    EXPECT_EQ(publisher->counters().noSlot, 0u);
    run();
    const ReaderPtr reader = openReader();
    EXPECT_EQ(infoOf(reader.get()).capture, SHM_CAPTURE_COPIED);
    ASSERT_TRUE(publishOne());
    EXPECT_EQ(newestNumber(reader.get()), 1);
}

TEST_F(CameraStore, whatIsAskedForAsACopyIsOne)
{
    settings.obstacle = "--copy is given";
    ASSERT_TRUE(open());
    EXPECT_EQ(
        publisher->way(),
        "each frame written into the store from the driver's buffer: one copy, because --copy is given");
    EXPECT_EQ(timesOpened(), 1);
    run();
    ASSERT_TRUE(publishOne());
}

TEST_F(CameraStore, memoryThatWasToBeExportedAndIsNotIsGivenByAddress)
{
    if (access("/dev/udmabuf", F_OK) == 0)
        GTEST_SKIP() << "this kernel exports memory";
    storeSettings.memory = "udmabuf";
    ASSERT_TRUE(open());
    EXPECT_EQ(publisher->way(),
              "captured straight into the store (USERPTR), not DMABUF: the store's frames have none");
    EXPECT_EQ(publisher->counters().noSlot, 0u);
    EXPECT_EQ(timesOpened(), 1);
    run();
    const ReaderPtr reader = openReader();
    EXPECT_EQ(infoOf(reader.get()).capture, SHM_CAPTURE_USERPTR);
    ASSERT_TRUE(publishOne());
}

TEST_F(CameraStore, oneWithoutNv12IsLeftToOthers)
{
    kernel.driver.formats = {V4L2_PIX_FMT_YUYV};
    EXPECT_FALSE(open());
    EXPECT_TRUE(kernel.openDescriptors.empty());
    EXPECT_EQ(timesOpened(), 0);
}

TEST_F(CameraStore, oneThatCannotBeUsedIsNamedWithTheRemedy)
{
    kernel.openError = EACCES;
    try {
        open();
        ADD_FAILURE() << "no failure";
    } catch (const Failure &failure) {
        EXPECT_EQ(failure.code(), ExitInput);
        EXPECT_EQ(std::string(failure.what())
                      .rfind("/dev/video0: open failed: Permission denied; join the group", 0),
                  0u)
            << failure.what();
    }
    EXPECT_EQ(timesOpened(), 0);
}

TEST_F(CameraStore, oneThatDoesNotStreamIsNamedAndNoStoreIsSeen)
{
    settings.obstacle = "--copy is given";
    kernel.driver.startError = EIO;
    try {
        open();
        FAIL();
    } catch (const Failure &failure) {
        EXPECT_STREQ(failure.what(),
                     "/dev/video0: does not stream (VIDIOC_STREAMON failed: Input/output error); 'v4l2-ctl "
                     "-d /dev/video0 --all' and the kernel's log (dmesg) may say more");
    }
    EXPECT_EQ(timesOpened(), 0);
}

TEST_F(CameraStore, withoutAStoreTheCameraIsLeft)
{
    settings.obstacle = "--copy is given";
    storeSettings.memory = "nonsense";
    EXPECT_THROW(open(), Failure);
    EXPECT_TRUE(kernel.openDescriptors.empty());
}

// Readers that hold frames have the store make fresh memory, and then others go without.
TEST_F(CameraStore, slotsThatReadersHoldAreReplacedOrFramesLeftOutAndTheDriverNeverRunsDry)
{
    storeSettings.historyFrames = 1;
    ASSERT_TRUE(open());
    run();
    const unsigned int queued = queuedBuffers();
    std::vector<ReaderPtr> readers;
    std::vector<std::vector<shm_video_frame_t>> held;
    std::vector<int> numbers;
    // More than the store has at first.
    uint64_t filled = 0;
    for (int i = 0; i < 3; ++i) {
        readers.push_back(openReader());
        held.emplace_back();
        for (int frames = 0; frames < 8; ++frames) {
            ASSERT_TRUE(waitFor([this] { return kernel.fill(); }));
            ++filled;
            ASSERT_TRUE(waitFor([&] {
                const Publisher::Counters now = publisher->counters();
                return now.frames + now.noSlot == filled && queuedBuffers() == queued;
            }));
            shm_video_frame_t frame = {};
            if (shm_reader_lock_video(readers.back().get(), &frame, SHM_VIDEO_NEWEST) != 0)
                continue;
            held.back().push_back(frame);
            numbers.push_back(frame.planes[0][0]);
        }
    }
    EXPECT_GT(publisher->counters().noSlot + store->stats().slots_replaced, 0u);
    // Nothing was written into what is held.
    size_t index = 0;
    for (const auto &frames : held) {
        for (const shm_video_frame_t &frame : frames) {
            for (int row = 0; row < frame.height; ++row)
                ASSERT_EQ(frame.planes[0][row * frame.strides[0]], numbers[index]);
            ++index;
        }
    }
    EXPECT_GT(index, 8u);
    for (size_t i = 0; i < held.size(); ++i) {
        for (shm_video_frame_t &frame : held[i])
            shm_reader_unlock_video(readers[i].get(), &frame);
    }
    ASSERT_TRUE(publishOne());
}

TEST_F(CameraStore, oneThatReturnsDifferentHasTheStoreOpenedAnew)
{
    ASSERT_TRUE(open());
    run();
    ASSERT_TRUE(publishOne());
    {
        const ReaderPtr reader = openReader();
        kernel.unplug();
        EXPECT_TRUE(waitFor([this] {
            const std::lock_guard<std::recursive_mutex> lock(kernel.mutex);
            return kernel.openDescriptors.empty();
        }));
        EXPECT_TRUE(shm_reader_is_ready(reader.get())) << "the store stays meanwhile";
    }
    {
        const std::lock_guard<std::recursive_mutex> lock(kernel.mutex);
        kernel.driver.height = 18;
    }
    timesOpened();
    kernel.plugIn();
    EXPECT_TRUE(waitFor([this] { return timesOpened() == 1; }));
    ASSERT_TRUE(publishOne());
    const ReaderPtr reader = openReader();
    const shm_store_info_t info = infoOf(reader.get());
    EXPECT_EQ(info.capture, SHM_CAPTURE_COPIED);
    shm_reader_format_t format = {};
    shm_reader_get_format(reader.get(), &format);
    EXPECT_EQ(format.height, 18);
}

// FFmpeg has it open by then.
TEST_F(CameraStore, whatADriverForOneUserSaidBeforeItWasOpenedHolds)
{
    kernel.driver.colorspace = V4L2_COLORSPACE_REC709;
    const auto before = stateOfCamera("/dev/video0");
    kernel.driver.colorspace = V4L2_COLORSPACE_SMPTE170M;
    kernel.driver.quantization = V4L2_QUANTIZATION_LIM_RANGE;
    auto now = stateOfOpenCamera("/dev/video0", before);
    EXPECT_EQ(now.encoding, zevmm::v4l2::ColorEncoding::Bt601);
    EXPECT_FALSE(now.fullRange);
    kernel.openError = EBUSY;
    EXPECT_THROW(stateOfCamera("/dev/video0"), Failure);
    now = stateOfOpenCamera("/dev/video0", before);
    EXPECT_EQ(now.encoding, zevmm::v4l2::ColorEncoding::Bt709);
    EXPECT_TRUE(now.fullRange);
}

TEST(CameraSlots, freshMemoryOfASlotHasANumberOfItsOwn)
{
    uint8_t bytes[1];
    shm_writer_frame_t slot = {};
    slot.planes[0] = bytes;
    slot.memory_fd = 7;
    slot.slot = 300;
    slot.memory_generation = 1;
    const auto memory = CameraPublisher::memoryOf(slot);
    EXPECT_EQ(memory.address, bytes);
    EXPECT_EQ(memory.dmabuf, 7);
    EXPECT_EQ(CameraPublisher::slotOf(memory), 300u);
    EXPECT_EQ(CameraPublisher::memoryOf(slot).id, memory.id);
    slot.memory_generation = 2;
    EXPECT_NE(CameraPublisher::memoryOf(slot).id, memory.id);
    EXPECT_EQ(CameraPublisher::slotOf(CameraPublisher::memoryOf(slot)), 300u);
    slot.memory_generation = 1;
    slot.slot = 0;
    EXPECT_NE(CameraPublisher::memoryOf(slot).id, memory.id);
    slot.memory_generation = UINT32_MAX;
    slot.slot = 511;
    EXPECT_EQ(CameraPublisher::slotOf(CameraPublisher::memoryOf(slot)), 511u);
}
