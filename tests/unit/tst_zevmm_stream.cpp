// Buffers between driver and reader, stalls, errors, and devices that go and come back.
#include "zevmm_testing.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <future>
#include <new>
#include <random>
#include <stdexcept>
#include <thread>

using namespace zevmm::v4l2;

namespace {

constexpr std::int64_t second = 1000000;

std::atomic<std::size_t> allocations{0};

class Streams : public StreamTest
{};

} // namespace

// Not inlined: compilers warn of free() for what they see a new for.
[[gnu::noinline]] void *operator new(std::size_t bytes)
{
    ++allocations;
    if (void *const memory = std::malloc(bytes > 0 ? bytes : 1))
        return memory;
    throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void *memory) noexcept
{
    std::free(memory);
}

[[gnu::noinline]] void operator delete(void *memory, std::size_t) noexcept
{
    std::free(memory);
}

TEST_F(Streams, deliversNothingUntilAFrameIsThere)
{
    begin();
    step();
    EXPECT_FALSE(stream->isFrameReady());
    EXPECT_EQ(read(), nullptr);
    ASSERT_TRUE(fillAndStep());
    EXPECT_TRUE(stream->isFrameReady());
    EXPECT_NE(read(), nullptr);
    EXPECT_FALSE(stream->isFrameReady());
    EXPECT_EQ(read(), nullptr);
    end();
}

TEST_F(Streams, deliversTheNewestAndGivesTheOthersBack)
{
    begin();
    for (int i = 0; i < 4; ++i)
        kernel.fill();
    EXPECT_EQ(kernel.queuedCount(), 2u);
    step(POLLIN);
    EXPECT_EQ(kernel.queuedCount(), 5u); // all but the newest
    EXPECT_EQ(contentOf(read()), 4u);
    EXPECT_EQ(stream->statistics().captured, 4u);
    EXPECT_EQ(stream->statistics().skipped, 3u);
    EXPECT_EQ(stream->statistics().delivered, 1u);
    EXPECT_EQ(stream->statistics().lastSequence, 4u);
    EXPECT_EQ(stream->statistics().lastTimestamp, kernel.clock);
    end();
}

TEST_F(Streams, aFrameThatWaitsIsReplacedByANewerOne)
{
    begin();
    for (int i = 0; i < 20; ++i)
        ASSERT_TRUE(fillAndStep());
    EXPECT_EQ(contentOf(read()), 20u);
    EXPECT_EQ(read(), nullptr);
    end();
}

TEST_F(Streams, aDeliveredBufferIsNotWrittenUntilTwoNewerOnesAreDelivered)
{
    begin();
    std::mt19937 random(1);
    std::vector<std::pair<void *, std::uint32_t>> delivered; // image, the frame that it showed
    int reads = 0;
    for (int i = 0; i < 5000; ++i) {
        if (random() % 3 != 0) {
            ASSERT_TRUE(fillAndStep()); // the driver has always something to fill
        } else if (void *const image = read()) {
            ++reads;
            delivered.emplace_back(image, contentOf(image));
        }
        step();
        for (std::size_t back = 1; back <= 2 && back <= delivered.size(); ++back) {
            const auto &[image, content] = delivered[delivered.size() - back];
            ASSERT_EQ(contentOf(image), content) << back << " deliveries ago";
        }
    }
    EXPECT_GT(reads, 500);
    EXPECT_EQ(stream->statistics().delivered, std::uint64_t(reads));
    end();
}

TEST_F(Streams, neitherDuringTheCallbackOfTheSecond)
{
    begin();
    void *first = nullptr;
    std::uint32_t content = 0;
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(fillAndStep());
        stream->readFrame([&](void *image) {
            if (first == nullptr) {
                first = image;
                content = contentOf(image);
            }
            for (int j = 0; j < 20; ++j)
                fillAndStep();
            EXPECT_EQ(contentOf(first), content) << i;
        });
    }
    // The third has been handed out: now it may be.
    EXPECT_EQ(wakeUps, 1);
    step();
    for (int j = 0; j < 20; ++j)
        fillAndStep();
    EXPECT_NE(contentOf(first), content);
    end();
}

TEST_F(Streams, aCallbackMayThrow)
{
    begin();
    for (int i = 0; i < 10; ++i) {
        ASSERT_TRUE(fillAndStep());
        EXPECT_THROW(stream->readFrame([](void *) { throw std::runtime_error("no"); }), std::runtime_error);
        step();
    }
    EXPECT_EQ(kernel.queuedCount(), 4u);
    end();
}

TEST_F(Streams, aCallbackMayStop)
{
    begin();
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(fillAndStep());
        stream->readFrame([&](void *) {
            if (i == 2)
                end();
        });
    }
    EXPECT_FALSE(kernel.isStreaming);
    begin();
    EXPECT_EQ(kernel.queuedCount(), 6u);
    EXPECT_TRUE(fillAndStep());
    EXPECT_NE(read(), nullptr);
    end();
}

TEST_F(Streams, aCallbackThatDestroysTheImagesDoesNotWaitForItself)
{
    begin();
    ASSERT_TRUE(fillAndStep());
    const auto begun = std::chrono::steady_clock::now();
    stream->readFrame([&](void *) {
        stream->readFrame([](void *) { ADD_FAILURE() << "there is no other frame"; });
        ASSERT_TRUE(fillAndStep());
        stream->readFrame([](void *) {});
        end();
    });
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(2));
    EXPECT_EQ(fake::Egl::alive(), 0);
}

TEST_F(Streams, imagesAreNotDestroyedWhileAnotherThreadIsInACallback)
{
    begin();
    ASSERT_TRUE(fillAndStep());
    const int images = fake::Egl::alive();
    ASSERT_GT(images, 0);
    std::promise<void> inside;
    int imagesAtTheEnd = -1;
    std::thread ticks([&] {
        stream->readFrame([&](void *) {
            EXPECT_TRUE(fillAndStep());
            stream->readFrame([](void *) {}); // ends, and this one does not
            inside.set_value();
            const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(200);
            while (fake::Egl::alive() == images && std::chrono::steady_clock::now() < until)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            imagesAtTheEnd = fake::Egl::alive();
        });
    });
    inside.get_future().wait();
    end();
    EXPECT_EQ(fake::Egl::alive(), 0);
    ticks.join();
    EXPECT_EQ(imagesAtTheEnd, images);
}

TEST_F(Streams, aCallbackThatWaitsForTheImagesToGoIsNotWaitedForForEver)
{
    begin();
    ASSERT_TRUE(fillAndStep());
    std::promise<void> inside, destroyed;
    bool hasSeen = false;
    std::thread ticks([&] {
        stream->readFrame([&](void *) {
            inside.set_value();
            hasSeen = destroyed.get_future().wait_for(std::chrono::seconds(60)) == std::future_status::ready;
        });
    });
    inside.get_future().wait();
    end();
    destroyed.set_value();
    ticks.join();
    EXPECT_TRUE(hasSeen);
}

// A destructor does it, which could not tell that there is no memory.
TEST_F(Streams, returningABufferTakesNoMemory)
{
    begin();
    for (int i = 0; i < 8; ++i) {
        ASSERT_TRUE(fillAndStep());
        std::size_t before = 0;
        stream->readFrame([&](void *) { before = allocations; });
        const std::size_t after = allocations;
        EXPECT_EQ(after, before) << i;
    }
    EXPECT_GT(wakeUps, 4);
    end();
}

TEST_F(Streams, stopTakesEverythingBack)
{
    begin();
    for (int i = 0; i < 3; ++i) {
        fillAndStep();
        read();
    }
    fillAndStep();
    stream->stop();
    EXPECT_FALSE(stream->isFrameReady());
    EXPECT_EQ(read(), nullptr);
    EXPECT_FALSE(kernel.isStreaming);
    stream->stop();
    stream->start();
    EXPECT_EQ(kernel.queuedCount(), 6u);
    stream->start();
    end();
}

TEST_F(Streams, damagedFramesAreNotDelivered)
{
    begin();
    kernel.fill(V4L2_BUF_FLAG_ERROR);
    step(POLLIN);
    EXPECT_FALSE(stream->isFrameReady());
    kernel.fill(0, 1);
    step(POLLIN);
    EXPECT_FALSE(stream->isFrameReady());
    EXPECT_EQ(stream->statistics().damaged, 2u);
    EXPECT_EQ(kernel.queuedCount(), 6u);
    end();
}

TEST_F(Streams, aPictureThatDoesNotBeginAtTheBeginIsNotDelivered)
{
    kernel.driver.multiplanar = true;
    kernel.driver.formats = {V4L2_PIX_FMT_NV12M};
    begin();
    kernel.fill(0, 0, 16);
    step(POLLIN);
    EXPECT_FALSE(stream->isFrameReady());
    EXPECT_TRUE(fillAndStep());
    EXPECT_TRUE(stream->isFrameReady());
    end();
}

TEST_F(Streams, aStalledDeviceIsRestartedEverLessOften)
{
    begin();
    const std::int64_t begun = kernel.clock;
    std::vector<std::int64_t> restarts;
    std::uint64_t seen = 0;
    while (kernel.clock < begun + 40 * second) {
        advance(second / 20);
        if (stream->statistics().restarts != seen) {
            seen = stream->statistics().restarts;
            restarts.push_back((kernel.clock - begun) / second);
        }
    }
    EXPECT_EQ(restarts, (std::vector<std::int64_t>{1, 3, 7, 15, 23, 31, 39}));
    EXPECT_EQ(stream->trouble(), "/dev/video0: the device delivers no frames; it is made to stream anew");
    ASSERT_TRUE(fillAndStep());
    EXPECT_EQ(stream->trouble(), "");
    EXPECT_NE(read(), nullptr);
    // From the beginning again.
    advance(second - 1);
    EXPECT_EQ(stream->statistics().restarts, seen);
    advance(1);
    EXPECT_EQ(stream->statistics().restarts, seen + 1);
    EXPECT_EQ(fake::Egl::created(), 6);
    end();
}

TEST_F(Streams, aSlowCameraIsNoStalledOne)
{
    kernel.driver.interval = {2, 1};
    begin();
    for (int i = 0; i < 10; ++i) {
        advance(2 * second);
        ASSERT_TRUE(fillAndStep());
    }
    EXPECT_EQ(stream->statistics().restarts, 0u);
    EXPECT_EQ(stream->nextStep(), kernel.clock + 10 * second);
    advance(10 * second);
    EXPECT_EQ(stream->statistics().restarts, 1u);
    end();
}

TEST_F(Streams, nothingButDamageIsAStall)
{
    begin();
    for (int i = 0; i < 25; ++i) {
        kernel.fill(V4L2_BUF_FLAG_ERROR);
        advance(second / 20, POLLIN);
    }
    EXPECT_EQ(stream->statistics().restarts, 1u);
    end();
}

TEST_F(Streams, aRestartLeavesWhatIsLent)
{
    begin();
    fillAndStep();
    void *const first = read();
    const std::uint32_t content = contentOf(first);
    advance(second);
    EXPECT_EQ(stream->statistics().restarts, 1u);
    EXPECT_EQ(kernel.queuedCount(), 5u);
    for (int i = 0; i < 20; ++i)
        fillAndStep();
    EXPECT_EQ(contentOf(first), content);
    end();
}

TEST_F(Streams, aDeadStreamIsRestartedThoughTheDriverTellsNoError)
{
    begin();
    step(POLLERR);
    EXPECT_EQ(stream->statistics().restarts, 1u);
    EXPECT_TRUE(fillAndStep());
    EXPECT_NE(read(), nullptr);
    end();
}

TEST_F(Streams, aBufferThatTheDriverDoesNotTakeIsNotLost)
{
    begin();
    ASSERT_TRUE(fillAndStep());
    kernel.fault = {-1, VIDIOC_QBUF, EIO, false}; // of the frame that the next one replaces
    ASSERT_TRUE(fillAndStep());
    EXPECT_EQ(stream->statistics().restarts, 1u);
    EXPECT_EQ(kernel.queuedCount(), 6u);
    end();
}

TEST_F(Streams, aDriverThatErrsForEverIsNotAskedAllTheTime)
{
    begin();
    kernel.fault = {-1, VIDIOC_DQBUF, EIO, true};
    const int before = kernel.callsOf[VIDIOC_DQBUF];
    for (int i = 0; i < 30 * 20; ++i) {
        // As a driver in error would have poll() answer: at once, whenever it is asked.
        step(stream->descriptor() >= 0 ? short(POLLERR) : short(0));
        advance(second / 20);
    }
    EXPECT_LT(kernel.callsOf[VIDIOC_DQBUF] - before, 20);
    EXPECT_EQ(stream->trouble(), "/dev/video0: VIDIOC_DQBUF: Input/output error; it is made to stream anew");
    kernel.fault = {};
    advance(8 * second);
    EXPECT_TRUE(fillAndStep());
    EXPECT_NE(read(), nullptr);
    EXPECT_EQ(stream->trouble(), "");
    end();
}

TEST_F(Streams, aDriverThatNamesAForeignBufferIsRestarted)
{
    begin();
    fillAndStep();
    const auto lent = static_cast<int>(bufferOf(read()));
    for (const int forged : {77, lent}) { // one that is not there, one that the driver does not have
        kernel.forgedIndex = forged;
        kernel.fill();
        const std::uint64_t restarts = stream->statistics().restarts;
        step(POLLIN);
        EXPECT_EQ(stream->statistics().restarts, restarts + 1);
        EXPECT_FALSE(stream->isFrameReady());
        kernel.forgedIndex = -1;
        EXPECT_TRUE(fillAndStep());
        EXPECT_TRUE(stream->isFrameReady());
    }
    end();
}

TEST_F(Streams, aDeviceThatVanishesIsOpenedAgainWhenItReturns)
{
    begin();
    for (int i = 0; i < 3; ++i) {
        fillAndStep();
        read();
    }
    fillAndStep();
    kernel.unplug();
    step(POLLERR | POLLHUP);
    EXPECT_FALSE(stream->isFrameReady());
    EXPECT_EQ(stream->descriptor(), -1);
    EXPECT_EQ(stream->trouble(),
              "/dev/video0: the device has gone (VIDIOC_DQBUF: No such device); it is opened "
              "again as soon as that is possible");
    EXPECT_EQ(kernel.openDescriptors.size(), 0u); // nothing of it is kept
    EXPECT_EQ(fake::Egl::alive(), 6);             // but the images, which may be on the screen

    for (int i = 0; i < 10; ++i)
        advance(second / 10);
    EXPECT_EQ(read(), nullptr);
    kernel.plugIn();
    advance(second / 2);
    EXPECT_EQ(stream->statistics().returns, 1u);
    EXPECT_EQ(kernel.queuedCount(), 6u);
    for (int i = 0; i < 10; ++i) {
        ASSERT_TRUE(fillAndStep());
        void *const image = read();
        ASSERT_NE(image, nullptr);
        EXPECT_EQ(contentOf(image), kernel.nextSequence - 1);
    }
    EXPECT_EQ(stream->trouble(), "");
    end();
    EXPECT_EQ(fake::Egl::alive(), 0);
}

TEST_F(Streams, itIsLookedForTwiceASecond)
{
    begin();
    kernel.unplug();
    step(POLLERR);
    const int before = kernel.callsOf[fake::openCall];
    for (int i = 0; i < 100; ++i)
        advance(second / 10);
    EXPECT_EQ(kernel.callsOf[fake::openCall] - before, 20);
    EXPECT_GT(stream->nextStep(), kernel.clock);
    end();
}

TEST_F(Streams, itMayReturnWithAnotherSize)
{
    begin();
    fillAndStep();
    kernel.unplug();
    step(POLLERR);
    kernel.driver.width = kernel.driver.stride = 128;
    kernel.plugIn();
    advance(second);
    ASSERT_TRUE(fillAndStep());
    EXPECT_EQ(stream->format().width, 64u); // no frame of the new size has been delivered
    stream->readFrame([&](void *) { EXPECT_EQ(stream->format().width, 128u); });
    EXPECT_EQ(stream->format().width, 128u);
    end();
}

TEST_F(Streams, itMayReturnAsSomethingThatIsNoUse)
{
    begin();
    kernel.unplug();
    step(POLLERR);
    kernel.driver.formats = {V4L2_PIX_FMT_YUYV};
    kernel.plugIn();
    advance(second);
    EXPECT_EQ(
        stream->trouble(),
        "/dev/video0: the camera offers no NV12 (VIDIOC_S_FMT), but YUYV; publish it into a store, which "
        "converts (`zevshm publish NAME v4l2:/dev/video0`), and show that");
    kernel.driver.formats = {V4L2_PIX_FMT_NV12};
    advance(second);
    EXPECT_TRUE(fillAndStep());
    EXPECT_NE(read(), nullptr);
    end();
}

TEST_F(Streams, comingAndGoingWithoutFramesPilesUpNothing)
{
    begin();
    for (int i = 0; i < 50; ++i) {
        kernel.unplug();
        step(POLLERR);
        kernel.plugIn();
        advance(second);
    }
    EXPECT_EQ(stream->statistics().returns, 50u);
    EXPECT_EQ(fake::Egl::alive(), 6);
    end();
}

TEST_F(Streams, oldPicturesAreKeptUpToALimit)
{
    kernel.driver.bufferLength = 48u << 20;
    begin();
    for (int i = 0; i < 20 && stream->trouble().find("so often") == std::string::npos; ++i) {
        fillAndStep();
        read();
        kernel.unplug();
        step(POLLERR);
        kernel.plugIn();
        advance(second);
    }
    EXPECT_EQ(stream->trouble(),
              "/dev/video0: the device has come and gone so often that its old pictures fill 288 "
              "MiB; release the GL resources and start again");
    end();
    EXPECT_EQ(fake::Egl::alive(), 0);
    begin();
    advance(0);
    EXPECT_TRUE(fillAndStep());
    EXPECT_NE(read(), nullptr);
    end();
}

TEST_F(Streams, aDeviceThatIsGoneAtStartIsWaitedFor)
{
    setUpImages();
    kernel.unplug();
    stream->start();
    EXPECT_NE(stream->trouble(), "");
    kernel.plugIn();
    advance(second);
    EXPECT_TRUE(fillAndStep());
    EXPECT_NE(read(), nullptr);
    end();
}

TEST_F(Streams, stopAndStartWhileItIsGone)
{
    begin();
    kernel.unplug();
    step(POLLERR);
    end();
    EXPECT_EQ(stream->trouble(), "");
    EXPECT_EQ(fake::Egl::alive(), 0);
    begin(); // there are no buffers to wrap
    EXPECT_EQ(fake::Egl::alive(), 0);
    step();
    kernel.plugIn();
    advance(second);
    EXPECT_TRUE(fillAndStep());
    EXPECT_NE(read(), nullptr);
    end();
}

TEST_F(Streams, startSaysWhatTheDriverRefuses)
{
    setUpImages();
    kernel.fault = {-1, VIDIOC_STREAMON, ENOSPC, true};
    try {
        stream->start();
        ADD_FAILURE() << "no exception";
    } catch (const std::system_error &error) {
        EXPECT_EQ(error.code().value(), ENOSPC);
        EXPECT_STREQ(
            error.what(),
            "/dev/video0: VIDIOC_STREAMON failed: No space left on device; the USB bus has no bandwidth "
            "left: connect the camera to another port, or choose a smaller size");
    }
    kernel.fault = {};
    stream->start();
    EXPECT_TRUE(fillAndStep());
    EXPECT_NE(read(), nullptr);
    end();
}

TEST_F(Streams, aDriverThatDoesNotStopIsOpenedAnew)
{
    begin();
    fillAndStep();
    kernel.fault = {-1, VIDIOC_STREAMOFF, EIO, true};
    stream->stop();
    EXPECT_EQ(kernel.openDescriptors.size(), 0u);
    stream->start();
    step();
    EXPECT_TRUE(fillAndStep());
    EXPECT_NE(read(), nullptr);
    end();
    EXPECT_EQ(fake::Egl::alive(), 0);
}

TEST_F(Streams, norOneThatNeitherStartsNorStops)
{
    setUpImages();
    kernel.fault = {-1, VIDIOC_STREAMOFF, EIO, true};
    kernel.driver.startError = EPIPE;
    EXPECT_THROW(stream->start(), std::system_error);
    EXPECT_EQ(kernel.openDescriptors.size(), 0u);
    kernel.driver.startError = 0;
    stream->start();
    step();
    EXPECT_TRUE(fillAndStep());
    end();
}

TEST_F(Streams, newBuffersThatEglDoesNotTakeAreNotDelivered)
{
    begin();
    kernel.unplug();
    step(POLLERR);
    kernel.plugIn();
    advance(second);
    fake::Egl::failFrom(0);
    for (int i = 0; i < 10; ++i) {
        ASSERT_TRUE(fillAndStep());
        EXPECT_EQ(read(), nullptr);
    }
    EXPECT_EQ(stream->statistics().delivered, 0u);
    const std::string refusal = "/dev/video0: EGL makes no image of the buffers since the device came back; "
                                "release the GL resources and start again";
    EXPECT_EQ(stream->trouble(), refusal);
    ASSERT_TRUE(fillAndStep()); // a frame that came is not one that can be shown
    EXPECT_EQ(stream->trouble(), refusal);
    advance(second); // a stall is told, and what was before it when it is over
    EXPECT_NE(stream->trouble(), refusal);
    EXPECT_NE(stream->trouble(), "");
    ASSERT_TRUE(fillAndStep());
    EXPECT_EQ(stream->trouble(), refusal);

    fake::Egl::failFrom(-1);
    ASSERT_TRUE(fillAndStep());
    EXPECT_NE(read(), nullptr);
    EXPECT_EQ(stream->trouble(), "");
    end();
}

TEST_F(Streams, aRefusalOfEglEndsWithTheStream)
{
    begin();
    for (int i = 0; i < 2; ++i) {
        kernel.unplug();
        step(POLLERR);
        kernel.plugIn();
        advance(second);
        EXPECT_TRUE(fillAndStep());
        EXPECT_EQ(stream->trouble(), "") << "new buffers are a new attempt";
        fake::Egl::failFrom(0);
        EXPECT_EQ(read(), nullptr);
        EXPECT_NE(stream->trouble(), "");
    }
    stream->stop();
    EXPECT_EQ(stream->trouble(), "");
    end();
}

TEST_F(Streams, aHundredStartsLeaveNothing)
{
    begin();
    end();
    const std::size_t descriptors = kernel.openDescriptors.size();
    for (int i = 0; i < 100; ++i) {
        begin();
        ASSERT_TRUE(fillAndStep());
        ASSERT_NE(read(), nullptr);
        end();
        ASSERT_EQ(fake::Egl::alive(), 0);
    }
    EXPECT_EQ(kernel.openDescriptors.size(), descriptors);
    EXPECT_EQ(fake::Egl::created(), 606);
}

TEST_F(Streams, destructionWithoutAStopReleasesTheDevice)
{
    begin();
    fillAndStep();
    stream.reset();
    EXPECT_EQ(kernel.openDescriptors.size(), 0u);
    EXPECT_EQ(fake::Egl::alive(), 6); // only who has the display could destroy them
}
