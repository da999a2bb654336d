// The capture's own thread: frames come by themselves, stop() waits for it, nobody steps on anybody.
#include "../waiting.h"
#include "capture.h"
#include "fake_v4l2.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <thread>

using namespace zevmm::v4l2;

namespace {

constexpr std::chrono::seconds limit(60); // of what takes milliseconds

class Captures : public testing::Test
{
protected:
    Captures()
    {
        fake::Egl::reset();
        kernel.hasRealClock = true;
    }
    ~Captures() override
    {
        capture.reset();
        EXPECT_EQ(kernel.openDescriptors.size(), 0u);
        EXPECT_TRUE(kernel.violations.empty()) << kernel.violations.front();
    }
    void begin()
    {
        capture->setup();
        capture->createImages(fake::Egl::display(), fake::Egl::create);
        capture->start();
    }
    void end()
    {
        capture->stop();
        capture->destroyImages(fake::Egl::display(), fake::Egl::destroy);
    }
    bool isReady() const { return capture->stream().isFrameReady(); }

    fake::Kernel kernel;
    std::unique_ptr<Capture> capture = std::make_unique<Capture>("/dev/video0", kernel);
};

} // namespace

TEST_F(Captures, framesComeByThemselves)
{
    begin();
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(kernel.fill());
        ASSERT_TRUE(waitFor([&] { return isReady(); }));
        void *image = nullptr;
        capture->readFrame([&](void *delivered) { image = delivered; });
        EXPECT_NE(image, nullptr);
        // The thread gives back what two newer ones followed without waiting for another frame.
        ASSERT_TRUE(waitFor([&] {
            const std::lock_guard<std::recursive_mutex> lock(kernel.mutex);
            return kernel.queuedCount() >= 4;
        }));
    }
    end();
    EXPECT_EQ(fake::Egl::alive(), 0);
}

TEST_F(Captures, theThreadBearsTheDevicesName)
{
    class Named : public fake::Kernel
    {
    public:
        int poll(pollfd *descriptors, unsigned int count, int timeoutMs) override
        {
            char text[16] = {};
            pthread_getname_np(pthread_self(), text, sizeof text);
            if (std::string(text) == "V4L video0")
                isNamed = true;
            return Kernel::poll(descriptors, count, std::min(timeoutMs, 1));
        }
        std::atomic<bool> isNamed{false};
    };
    Named named;
    named.hasRealClock = true;
    Capture other("/dev/video0", named);
    other.setup();
    other.createImages(fake::Egl::display(), fake::Egl::create);
    other.start();
    EXPECT_TRUE(waitFor([&] { return named.isNamed.load(); }));
    other.destroyImages(fake::Egl::display(), fake::Egl::destroy);
}

TEST_F(Captures, aDeviceGoesAndReturns)
{
    begin();
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(waitFor([&] { return kernel.fill(); }));
        ASSERT_TRUE(waitFor([&] { return isReady(); }));
        capture->readFrame([](void *) {});
        kernel.unplug();
        ASSERT_TRUE(waitFor([&] { return !capture->stream().trouble().empty(); }));
        kernel.plugIn();
        ASSERT_TRUE(waitFor([&] { return capture->stream().statistics().returns == std::uint64_t(i) + 1; }));
    }
    end();
}

TEST_F(Captures, stopEndsAWaitAtOnce)
{
    for (int i = 0; i < 100; ++i) {
        begin();
        const auto begun = std::chrono::steady_clock::now();
        end();
        EXPECT_LT(std::chrono::steady_clock::now() - begun, limit);
    }
    capture->stop();
}

TEST_F(Captures, aPollThatFailsDoesNotEndIt)
{
    class Failing : public fake::Kernel
    {
    public:
        int poll(pollfd *descriptors, unsigned int count, int timeoutMs) override
        {
            if (failures > 0)
                return --failures % 2 == 0 ? -EINTR : -ENOMEM;
            return Kernel::poll(descriptors, count, timeoutMs);
        }
        std::atomic<int> failures{10};
    };
    Failing failing;
    failing.hasRealClock = true;
    Capture other("/dev/video0", failing);
    other.setup();
    other.createImages(fake::Egl::display(), fake::Egl::create);
    other.start();
    ASSERT_TRUE(failing.fill());
    EXPECT_TRUE(waitFor([&] { return other.stream().isFrameReady(); }));
    other.destroyImages(fake::Egl::display(), fake::Egl::destroy);
}

TEST_F(Captures, everythingAtOnce)
{
    capture->setup();
    std::atomic<bool> ends{false};
    std::atomic<int> reads{0};
    std::thread driver([&] {
        while (!ends) {
            kernel.fill();
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    });
    std::thread reader([&] {
        while (!ends) {
            if (capture->stream().isFrameReady())
                capture->readFrame([&](void *) { ++reads; });
            capture->stream().format();
            capture->stream().statistics();
            capture->stream().trouble();
        }
    });
    std::thread cable([&] {
        while (!ends) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            kernel.unplug();
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            kernel.plugIn();
        }
    });
    int starts = 0;
    const bool enough = waitFor([&] {
        capture->createImages(fake::Egl::display(), fake::Egl::create);
        capture->start();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        end();
        return ++starts >= 100 && reads >= 50;
    });
    ends = true;
    driver.join();
    reader.join();
    cable.join();
    EXPECT_TRUE(enough) << starts << " starts, " << reads << " frames";
    EXPECT_EQ(fake::Egl::alive(), 0);
}
