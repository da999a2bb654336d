// Every call to the kernel failing, once and for good, with every errno that drivers give.
#include "zevmm_testing.h"

#include <cerrno>
#include <functional>
#include <memory>

using namespace zevmm::v4l2;

namespace {

constexpr std::int64_t second = 1000000;
constexpr int allErrors[] = {EIO,    ENODEV, EINTR, EAGAIN,    ENOMEM, EBUSY, EINVAL,
                             EACCES, ENOTTY, EPIPE, ETIMEDOUT, ENXIO,  EBADF};

// The life of a capture, with everything that it asks of the kernel; what it came to.
struct Life
{
    explicit Life(bool isMultiplanar)
    {
        fake::Egl::reset();
        kernel.driver.multiplanar = isMultiplanar;
        if (isMultiplanar)
            kernel.driver.formats = {V4L2_PIX_FMT_NV12M};
    }

    bool attempt(const std::function<void()> &call)
    {
        try {
            call();
            return true;
        } catch (const std::system_error &error) {
            ++exceptions;
            EXPECT_EQ(std::string(error.what()).rfind("/dev/video0: ", 0), 0u) << error.what();
            EXPECT_NE(std::string(error.what()).find("; "), std::string::npos) << error.what();
            EXPECT_GT(error.code().value(), 0);
        }
        return false;
    }

    // Frames for a while, with a stall and an unplugging. Whether one was delivered at the end.
    bool frames()
    {
        bool delivered = false;
        const auto some = [&](int count, std::int64_t interval = second / 10) {
            delivered = false;
            for (int i = 0; i < count; ++i) {
                kernel.clock += interval;
                const bool filled = kernel.fill();
                stream->step(filled ? POLLIN : short(0));
                stream->readFrame([&](void *) { delivered = true; });
            }
        };
        some(8);
        for (int i = 0; i < 3; ++i) { // a stall
            kernel.clock += second / 2;
            stream->step(0);
        }
        some(4);
        kernel.unplug();
        stream->step(POLLERR | POLLHUP);
        kernel.clock += second;
        stream->step(0);
        kernel.plugIn();
        some(6);
        callsWithFaults = kernel.calls;
        some(40, second / 4); // long enough for every pause between attempts
        return delivered;
    }

    void live()
    {
        for (int attempts = 0; attempts < 2 && !isSetUp; ++attempts)
            isSetUp = attempt([&] { stream->setup(); });
        if (!isSetUp)
            return;
        stream->createImages(fake::Egl::display(), fake::Egl::create);
        for (int attempts = 0; attempts < 2 && !isStarted; ++attempts)
            isStarted = attempt([&] { stream->start(); });
        if (isStarted)
            endsWithFrames = frames();
        hasTrouble = !stream->trouble().empty();
        stream->stop();
        stream->destroyImages(fake::Egl::display(), fake::Egl::destroy);
        EXPECT_EQ(fake::Egl::alive(), 0);
    }

    void check()
    {
        stream.reset();
        EXPECT_EQ(kernel.openDescriptors.size(), 0u);
        EXPECT_TRUE(kernel.violations.empty()) << kernel.violations.front();
        EXPECT_EQ(fake::Egl::wrongDestructions(), 0);
    }

    fake::Kernel kernel;
    std::unique_ptr<Stream> stream = std::make_unique<Stream>("/dev/video0", kernel, [] {});
    int callsWithFaults = 0; // all but those of the time that is left for recovering
    int exceptions = 0;
    bool isSetUp = false;
    bool isStarted = false;
    bool endsWithFrames = false;
    bool hasTrouble = false;
};

} // namespace

class Faults : public testing::TestWithParam<bool>
{
protected:
    // Calls to the kernel in a life without faults, up to its last phase.
    int callsOfALife()
    {
        Life life(GetParam());
        life.live();
        EXPECT_TRUE(life.endsWithFrames);
        EXPECT_EQ(life.exceptions, 0);
        const int calls = life.callsWithFaults;
        life.check();
        return calls;
    }
    // The fault of one call in a life, told when something fails.
    static std::string told(int call, int error)
    {
        return "call " + std::to_string(call) + ", " + std::to_string(error);
    }
};

TEST_P(Faults, oneFailureIsOutlived)
{
    const int calls = callsOfALife();
    ASSERT_GT(calls, 80);
    for (int call = 0; call < calls; ++call) {
        for (const int error : allErrors) {
            SCOPED_TRACE(told(call, error));
            Life life(GetParam());
            life.kernel.fault = {call, 0, error, false};
            life.live();
            EXPECT_TRUE(life.isSetUp);
            EXPECT_TRUE(life.isStarted);
            EXPECT_TRUE(life.endsWithFrames);
            EXPECT_FALSE(life.hasTrouble);
            EXPECT_LE(life.exceptions, error == EINTR ? 0 : 1);
            life.check();
            if (testing::Test::HasFailure())
                return;
        }
    }
}

TEST_P(Faults, aFailureForGoodIsTold)
{
    const int calls = callsOfALife();
    for (int call = 0; call < calls; ++call) {
        for (const int error : allErrors) {
            SCOPED_TRACE(told(call, error));
            Life life(GetParam());
            life.kernel.fault = {call, 0, error, true};
            life.live();
            EXPECT_TRUE(life.endsWithFrames || life.hasTrouble || life.exceptions > 0);
            EXPECT_FALSE(life.endsWithFrames && life.hasTrouble);
            life.check();
            if (testing::Test::HasFailure())
                return;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Both, Faults, testing::Bool(), [](const testing::TestParamInfo<bool> &tested) {
    return std::string(tested.param ? "Multiplanar" : "Singleplanar");
});
