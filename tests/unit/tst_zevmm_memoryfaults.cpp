// Every call to the kernel failing, once and for good, while frames are captured into somebody else's memory.
#include "fake_frametaker.h"
#include "fake_v4l2.h"
#include "memorystream.h"

#include <cerrno>
#include <memory>

using namespace zevmm::v4l2;

namespace {

constexpr std::int64_t second = 1000000;
constexpr int allErrors[] = {EIO,    ENODEV, EINTR,  EAGAIN, ENOMEM,    EBUSY, EINVAL,
                             EFAULT, EACCES, ENOTTY, EPIPE,  ETIMEDOUT, ENXIO, EBADF};

struct Life
{
    Life(MemoryWay wanted, bool isMultiplanar) : way(wanted)
    {
        taker.isPainted = way != MemoryWay::DmaBuf;
        kernel.driver.multiplanar = isMultiplanar;
        if (isMultiplanar)
            kernel.driver.formats = {V4L2_PIX_FMT_NV12, V4L2_PIX_FMT_NV12M};
    }

    bool setUp()
    {
        try {
            stream->setup();
            return true;
        } catch (const std::system_error &error) {
            ++refusals;
            EXPECT_EQ(std::string(error.what()).rfind("/dev/video0: ", 0), 0u) << error.what();
            EXPECT_GT(error.code().value(), 0);
            return false;
        }
    }
    bool start()
    {
        std::string why;
        if (stream->start(way, fake::Taker::layout, taker, &why))
            return true;
        ++refusals;
        EXPECT_NE(why, "");
        EXPECT_TRUE(taker.lent.empty());
        return false;
    }
    void step(std::int64_t after, short events = 0)
    {
        kernel.clock += after;
        const bool filled = kernel.fill();
        note(stream->step(filled ? short(events | POLLIN) : events));
    }
    void note(MemoryCapture::Change change) { isChanged |= change == MemoryCapture::Change::Format; }
    void some(int count, std::int64_t interval)
    {
        const int before = taker.frames;
        for (int i = 0; i < count; ++i)
            step(interval);
        hasFrames = taker.frames > before;
    }

    void live()
    {
        for (int attempts = 0; attempts < 3 && !isSetUp; ++attempts)
            isSetUp = setUp();
        for (int attempts = 0; attempts < 3 && isSetUp && !isStarted; ++attempts)
            isStarted = start();
        if (isStarted) {
            some(8, second / 10);
            for (int i = 0; i < 3; ++i) { // a stall
                kernel.clock += second / 2;
                note(stream->step(0));
            }
            some(4, second / 10);
            kernel.unplug();
            note(stream->step(POLLERR | POLLHUP));
            kernel.clock += second;
            note(stream->step(0));
            kernel.plugIn();
            some(6, second / 10);
            callsWithFaults = kernel.calls;
            some(40, second / 4); // long enough for every pause between attempts
        }
        hasTrouble = !stream->trouble().empty();
        stream->stop();
        EXPECT_TRUE(taker.lent.empty());
    }
    void check()
    {
        stream.reset();
        EXPECT_EQ(kernel.openDescriptors.size(), 0u);
        EXPECT_EQ(kernel.mapped.size(), 0u);
        EXPECT_TRUE(kernel.violations.empty()) << kernel.violations.front();
    }

    const MemoryWay way;
    fake::Kernel kernel;
    fake::Taker taker;
    std::unique_ptr<MemoryStream> stream = std::make_unique<MemoryStream>("/dev/video0", kernel);
    int callsWithFaults = 0; // all but those of the time that is left for recovering
    int refusals = 0;
    bool isSetUp = false;
    bool isStarted = false;
    bool hasFrames = false; // at the end
    bool hasTrouble = false;
    bool isChanged = false;
};

} // namespace

class MemoryFaults : public testing::TestWithParam<std::tuple<MemoryWay, bool>>
{
protected:
    int callsOfALife()
    {
        Life sound(std::get<0>(GetParam()), std::get<1>(GetParam()));
        sound.live();
        EXPECT_TRUE(sound.hasFrames);
        EXPECT_EQ(sound.refusals, 0);
        const int calls = sound.callsWithFaults;
        sound.check();
        return calls;
    }
    static std::string told(int call, int error)
    {
        return "call " + std::to_string(call) + ", " + std::to_string(error);
    }
};

TEST_P(MemoryFaults, oneFailureIsOutlived)
{
    const int calls = callsOfALife();
    ASSERT_GT(calls, 60);
    for (int call = 0; call < calls; ++call) {
        for (const int error : allErrors) {
            SCOPED_TRACE(told(call, error));
            Life tested(std::get<0>(GetParam()), std::get<1>(GetParam()));
            tested.kernel.fault = {call, 0, error, false};
            tested.live();
            EXPECT_TRUE(tested.isSetUp);
            EXPECT_TRUE(tested.isStarted);
            // A driver that says, when it is back, that it has NV12 in two memories only is taken at its
            // word.
            const bool mayChange =
                error == EINVAL && tested.way == MemoryWay::DmaBuf && std::get<1>(GetParam());
            EXPECT_TRUE(tested.hasFrames || (mayChange && tested.isChanged));
            EXPECT_EQ(tested.hasTrouble, tested.isChanged);
            EXPECT_TRUE(mayChange || !tested.isChanged) << "an error is no other format";
            EXPECT_LE(tested.refusals, error == EINTR ? 0 : 1);
            tested.check();
            if (testing::Test::HasFailure())
                return;
        }
    }
}

TEST_P(MemoryFaults, aFailureForGoodIsTold)
{
    const int calls = callsOfALife();
    for (int call = 0; call < calls; ++call) {
        for (const int error : allErrors) {
            SCOPED_TRACE(told(call, error));
            Life tested(std::get<0>(GetParam()), std::get<1>(GetParam()));
            tested.kernel.fault = {call, 0, error, true};
            tested.live();
            EXPECT_TRUE(tested.hasFrames || tested.hasTrouble || tested.refusals > 0);
            EXPECT_FALSE(tested.hasFrames && tested.hasTrouble);
            tested.check();
            if (testing::Test::HasFailure())
                return;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(All, MemoryFaults,
                         testing::Combine(testing::Values(MemoryWay::Address, MemoryWay::DmaBuf,
                                                          MemoryWay::Mapped),
                                          testing::Bool()));
