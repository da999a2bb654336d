// Capture into memory that somebody else provides: who has which memory, and what stands against each way.
#include "fake_frametaker.h"
#include "fake_v4l2.h"
#include "memorystream.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <random>
#include <set>

using namespace zevmm::v4l2;

namespace {

constexpr std::int64_t second = 1000000;
using Change = MemoryCapture::Change;

class Memory : public testing::Test
{
protected:
    ~Memory() override
    {
        stream.reset();
        EXPECT_EQ(kernel.openDescriptors.size(), 0u);
        EXPECT_EQ(kernel.mapped.size(), 0u);
        EXPECT_TRUE(kernel.violations.empty()) << kernel.violations.front();
    }

    void makeMultiplanar()
    {
        kernel.driver.multiplanar = true;
        kernel.driver.formats = {V4L2_PIX_FMT_NV12, V4L2_PIX_FMT_NV12M};
    }
    void begin(MemoryWay way, const FrameLayout &layout = fake::Taker::layout)
    {
        taker.isPainted = way != MemoryWay::DmaBuf;
        stream->setup();
        std::string why;
        ASSERT_TRUE(stream->start(way, layout, taker, &why)) << why;
    }
    std::string refusal(MemoryWay way, const FrameLayout &layout = fake::Taker::layout)
    {
        std::string why;
        stream->setup();
        EXPECT_FALSE(stream->start(way, layout, taker, &why));
        EXPECT_TRUE(taker.lent.empty()) << "it was refused, and all is given back";
        return why;
    }
    bool fillAndStep(std::uint32_t flags = 0)
    {
        kernel.clock += second / 25;
        const bool filled = kernel.fill(flags);
        change = stream->step(filled ? POLLIN : short(0));
        return filled;
    }
    void advance(std::int64_t microseconds, short events = 0)
    {
        kernel.clock += microseconds;
        change = stream->step(events);
    }

    // Other memory, at the same address.
    void renew(unsigned int number)
    {
        auto &content = taker.contents[number];
        content.assign(content.size(), 0xee);
        kernel.replaceMemory(content.data(), content.size());
        ++taker.generations[number];
    }

    fake::Kernel kernel;
    fake::Taker taker;
    Change change = Change::None;
    std::unique_ptr<MemoryStream> stream = std::make_unique<MemoryStream>("/dev/video0", kernel);
};

} // namespace

class Ways : public Memory, public testing::WithParamInterface<std::tuple<MemoryWay, bool>>
{};

TEST_P(Ways, everyFrameIsTakenOnceAndWhole)
{
    const auto [way, isMultiplanar] = GetParam();
    if (isMultiplanar)
        makeMultiplanar();
    begin(way);
    for (std::uint32_t i = 1; i <= 100; ++i) {
        ASSERT_TRUE(fillAndStep()) << i;
        ASSERT_EQ(taker.frames, int(i));
        EXPECT_EQ(taker.sequence, i);
        EXPECT_EQ(taker.timestamp, kernel.clock);
        EXPECT_EQ(kernel.queuedCount(), 4u);
        EXPECT_EQ(taker.lent.size(), way == MemoryWay::Mapped ? 0u : 4u);
    }
    EXPECT_EQ(stream->statistics().captured, 100u);
    EXPECT_EQ(stream->statistics().delivered, 100u);
    EXPECT_EQ(stream->statistics().skipped, 0u);
    EXPECT_EQ(stream->statistics().lastSequence, 100u);
    EXPECT_EQ(kernel.relocations, 0) << "memory that comes again goes to the buffer that it was in";
    stream->stop();
    EXPECT_TRUE(taker.lent.empty());
    EXPECT_TRUE(kernel.openDescriptors.empty());
}

TEST_P(Ways, startsAgainAfterStop)
{
    const auto [way, isMultiplanar] = GetParam();
    if (isMultiplanar)
        makeMultiplanar();
    for (int i = 1; i <= 20; ++i) {
        begin(way);
        ASSERT_TRUE(fillAndStep());
        ASSERT_EQ(taker.frames, i);
        stream->stop();
    }
}

INSTANTIATE_TEST_SUITE_P(All, Ways,
                         testing::Combine(testing::Values(MemoryWay::Address, MemoryWay::DmaBuf,
                                                          MemoryWay::Mapped),
                                          testing::Bool()));

TEST_F(Memory, twoMemoriesMayLieApartAndOneMayNot)
{
    const FrameLayout apart{64, 4096, 8192};
    fake::Taker roomy;
    for (auto &content : roomy.contents)
        content.resize(apart.bytes);
    stream->setup();
    std::string why;
    EXPECT_FALSE(stream->start(MemoryWay::Address, apart, roomy, &why));
    EXPECT_EQ(why, "the driver puts the chroma plane at byte 2304, not 4096");
    makeMultiplanar();
    stream->setup();
    ASSERT_TRUE(stream->start(MemoryWay::Address, apart, roomy, &why)) << why;
    ASSERT_TRUE(fillAndStep());
    EXPECT_EQ(roomy.frames, 1);
    stream->stop();
}

TEST_F(Memory, longerLinesAreAskedFor)
{
    const FrameLayout wide{256, 256 * 36, 256 * (36 + 18)};
    fake::Taker roomy;
    for (auto &content : roomy.contents)
        content.resize(wide.bytes);
    stream->setup();
    EXPECT_EQ(stream->format().strideBytes, 64u);
    std::string why;
    ASSERT_TRUE(stream->start(MemoryWay::Address, wide, roomy, &why)) << why;
    EXPECT_EQ(stream->format().strideBytes, 256u);
    for (int i = 0; i < 10; ++i)
        ASSERT_TRUE(fillAndStep());
    EXPECT_EQ(roomy.frames, 10);
    stream->stop();
}

TEST_F(Memory, whatStandsAgainstAWayIsTold)
{
    kernel.driver.takesAddresses = false;
    EXPECT_EQ(refusal(MemoryWay::Address), "the driver takes no memory by address (VIDIOC_REQBUFS)");
    kernel.driver.takesDmabufs = false;
    EXPECT_EQ(refusal(MemoryWay::DmaBuf), "the driver takes no memory by DMA-buf (VIDIOC_REQBUFS)");
    kernel.driver.takesAddresses = true;
    kernel.driver.takesStrides = false;
    EXPECT_EQ(refusal(MemoryWay::Address, {256, 256 * 36, 256 * 54}),
              "the driver makes lines of 64 bytes, not of 256");
    kernel.driver.sizeimage = 5000;
    EXPECT_EQ(refusal(MemoryWay::Address), "the driver wants 5000 bytes where there are 3456");
    kernel.driver.sizeimage = 0;
    taker.isFull = true;
    EXPECT_EQ(refusal(MemoryWay::Address), "there is no memory to lend");
    taker.isFull = false;
    kernel.fault = {-1, VIDIOC_QBUF, EFAULT, true};
    EXPECT_EQ(refusal(MemoryWay::Address), "VIDIOC_QBUF failed: Bad address");
    kernel.fault = {-1, VIDIOC_STREAMON, ENOSPC, true};
    EXPECT_EQ(refusal(MemoryWay::Address), "VIDIOC_STREAMON failed: No space left on device");
    kernel.fault = {-1, fake::mapCall, ENOMEM, true};
    EXPECT_EQ(refusal(MemoryWay::Mapped), "mmap of a buffer failed: Cannot allocate memory");
    kernel.fault = {};
    // And after all that another way is still open.
    begin(MemoryWay::Mapped);
    EXPECT_TRUE(fillAndStep());
    stream->stop();
}

TEST_F(Memory, aDmaBufForEachPlaneIsNotToBeHad)
{
    kernel.driver.multiplanar = true;
    kernel.driver.formats = {V4L2_PIX_FMT_NV12M};
    EXPECT_EQ(refusal(MemoryWay::DmaBuf), "the driver wants a DMA-buf for each plane");
}

TEST_F(Memory, withoutOtherMemoryTheFrameIsDroppedAndTheDriverKeepsIts)
{
    begin(MemoryWay::Address);
    ASSERT_TRUE(fillAndStep());
    taker.isFull = true;
    for (int i = 0; i < 50; ++i) {
        ASSERT_TRUE(fillAndStep()) << "the driver has run dry";
        ASSERT_EQ(kernel.queuedCount(), 4u);
    }
    EXPECT_EQ(taker.frames, 1);
    EXPECT_EQ(stream->statistics().skipped, 50u);
    taker.isFull = false;
    ASSERT_TRUE(fillAndStep());
    EXPECT_EQ(taker.frames, 2);
    EXPECT_EQ(taker.sequence, 52u);
    stream->stop();
}

TEST_F(Memory, aDamagedFrameIsNotTaken)
{
    begin(MemoryWay::Address);
    ASSERT_TRUE(fillAndStep(V4L2_BUF_FLAG_ERROR));
    EXPECT_EQ(taker.frames, 0);
    EXPECT_EQ(stream->statistics().damaged, 1u);
    EXPECT_EQ(kernel.queuedCount(), 4u);
    kernel.fill(0, 1); // a byte is missing
    advance(1000, POLLIN);
    EXPECT_EQ(stream->statistics().damaged, 2u);
    ASSERT_TRUE(fillAndStep());
    EXPECT_EQ(taker.frames, 1);
    stream->stop();
}

TEST_F(Memory, aStallIsEndedByStreamingAnewWithTheMemoryThatIsLent)
{
    begin(MemoryWay::Address);
    ASSERT_TRUE(fillAndStep());
    const auto before = kernel.foreign();
    advance(2 * second);
    EXPECT_EQ(stream->statistics().restarts, 1u);
    EXPECT_NE(stream->trouble().find("delivers no frames"), std::string::npos) << stream->trouble();
    EXPECT_EQ(kernel.foreign(), before);
    ASSERT_TRUE(fillAndStep());
    EXPECT_EQ(taker.frames, 2);
    EXPECT_EQ(stream->trouble(), "");
    stream->stop();
}

TEST_P(Ways, aDeviceThatGoesIsUsedAgainWhenItIsBack)
{
    const auto [way, isMultiplanar] = GetParam();
    if (isMultiplanar)
        makeMultiplanar();
    begin(way);
    ASSERT_TRUE(fillAndStep());
    kernel.unplug();
    advance(1000, POLLERR | POLLHUP);
    EXPECT_NE(stream->trouble().find("the device has gone"), std::string::npos) << stream->trouble();
    EXPECT_EQ(stream->descriptor(), -1);
    for (int i = 0; i < 10; ++i)
        advance(second);
    EXPECT_EQ(change, Change::None);
    kernel.plugIn();
    advance(second);
    EXPECT_EQ(change, Change::None);
    ASSERT_TRUE(fillAndStep());
    EXPECT_EQ(taker.frames, 2);
    EXPECT_EQ(stream->statistics().returns, 1u);
    EXPECT_EQ(stream->trouble(), "");
    stream->stop();
}

// Frames are looked at where they should be: in memory that came to an address where other memory was.
TEST_P(Ways, otherMemoryAtAnAddressThatIsKnownIsWrittenAllTheSame)
{
    const auto [way, isMultiplanar] = GetParam();
    if (isMultiplanar)
        makeMultiplanar();
    taker.historyLength = 0; // what a buffer had last is soon to be had again
    std::mt19937 random(1);
    for (const unsigned int most : {32u, 10u, 5u, 4u}) {
        kernel.driver.mostBuffers = most;
        begin(way);
        for (int i = 0; i < 200; ++i) {
            std::shuffle(taker.free.begin(), taker.free.end(), random);
            if (i % 3 == 0)
                renew(taker.free.front());
            ASSERT_TRUE(fillAndStep());
            ASSERT_FALSE(HasFailure()) << most << " buffers, frame " << i;
        }
        EXPECT_EQ(stream->statistics().skipped, 0u);
        EXPECT_EQ(stream->statistics().restarts, 0u);
        stream->stop();
    }
    EXPECT_EQ(taker.frames, 800);
}

// The only free buffer is one that the kernel would take to have the memory already: better one frame less in
// the queue.
TEST_F(Memory, memoryThatNoBufferCanTakeGoesBackAtOnce)
{
    kernel.driver.mostBuffers = 4;
    begin(MemoryWay::Address);
    taker.historyLength = 2;
    const unsigned int only = taker.free.front();
    const std::deque<unsigned int> others(taker.free.begin() + 1, taker.free.end());
    taker.free = {only};
    // Its memory is refused and goes back, the driver is made to stream anew, and at the same address there
    // is other memory when the next is lent.
    kernel.fault = {-1, VIDIOC_QBUF, EIO, false};
    taker.onReturned = [this, only] { renew(only); };
    ASSERT_TRUE(fillAndStep());
    EXPECT_EQ(taker.frames, 1);
    EXPECT_EQ(stream->statistics().restarts, 1u);
    EXPECT_EQ(taker.returnedCount, 2);
    EXPECT_EQ(kernel.queuedCount(), 3u);
    taker.free.insert(taker.free.end(), others.begin(), others.end());
    taker.free.push_back(only);
    taker.free.pop_front();
    advance(1000);
    EXPECT_EQ(kernel.queuedCount(), 4u);
    for (int i = 0; i < 30; ++i)
        ASSERT_TRUE(fillAndStep());
    EXPECT_EQ(taker.frames, 31);
    stream->stop();
}

TEST_P(Ways, memoryThatTheDriverRefusesLaterIsGivenBackAndOtherMemoryServes)
{
    const auto [way, isMultiplanar] = GetParam();
    if (way == MemoryWay::Mapped)
        return; // there is none
    if (isMultiplanar)
        makeMultiplanar();
    begin(way);
    for (int i = 0; i < 20; ++i)
        ASSERT_TRUE(fillAndStep());
    const unsigned int number = taker.free[1];
    kernel.refusedPlace = way == MemoryWay::Address
                              ? reinterpret_cast<std::uintptr_t>(taker.contents[number].data())
                              : std::uintptr_t{1000} + number;
    const int before = taker.frames;
    for (int i = 0; i < 40; ++i) {
        fillAndStep();
        advance(second / 2); // for the pause before a restart
    }
    EXPECT_GE(taker.frames, before + 30);
    EXPECT_GE(taker.returnedCount, 1);
    EXPECT_EQ(taker.lent.count(number), 0u);
    EXPECT_EQ(stream->statistics().returns, 0u) << "the device is not even closed";
    kernel.refusedPlace = 0;

    // And when the device comes back and takes none of what it had.
    const unsigned int had = taker.lent.begin()->first;
    kernel.unplug();
    advance(1000, POLLERR | POLLHUP);
    kernel.refusedPlace = way == MemoryWay::Address
                              ? reinterpret_cast<std::uintptr_t>(taker.contents[had].data())
                              : std::uintptr_t{1000} + had;
    kernel.plugIn();
    for (int i = 0; i < 3; ++i)
        advance(second / 2);
    EXPECT_EQ(taker.lent.count(had), 0u);
    const int after = taker.frames;
    ASSERT_TRUE(fillAndStep());
    EXPECT_EQ(taker.frames, after + 1);
    stream->stop();
}

TEST_F(Memory, aDeviceThatReturnsDifferentIsTold)
{
    begin(MemoryWay::Address);
    ASSERT_TRUE(fillAndStep());
    kernel.unplug();
    advance(1000, POLLERR | POLLHUP);
    kernel.driver.colorspace = V4L2_COLORSPACE_REC709;
    kernel.plugIn();
    advance(second);
    EXPECT_EQ(change, Change::Format);
    EXPECT_EQ(stream->trouble(), "/dev/video0: the device is back with another format");
    advance(second);
    EXPECT_EQ(change, Change::None) << "it is said once";
    stream->stop();
    EXPECT_TRUE(taker.lent.empty());
    begin(MemoryWay::Address);
    EXPECT_EQ(stream->format().encoding, ColorEncoding::Bt709);
    ASSERT_TRUE(fillAndStep());
    EXPECT_EQ(taker.frames, 2);
    stream->stop();
}

TEST_F(Memory, anotherSizeIsAnotherFormat)
{
    begin(MemoryWay::Address);
    kernel.unplug();
    advance(1000, POLLERR | POLLHUP);
    kernel.driver.width = kernel.driver.stride = 128;
    kernel.plugIn();
    advance(second);
    EXPECT_EQ(change, Change::Format);
    stream->stop();
}

TEST_F(Memory, whatTheTakerThrowsIsPassedOnAndNothingIsLost)
{
    for (const MemoryWay way : {MemoryWay::Address, MemoryWay::Mapped}) {
        taker.throwsAt = taker.frames + 3;
        begin(way);
        ASSERT_TRUE(fillAndStep());
        ASSERT_TRUE(fillAndStep());
        EXPECT_THROW(fillAndStep(), std::runtime_error);
        EXPECT_EQ(kernel.queuedCount(), 4u);
        ASSERT_TRUE(fillAndStep());
        EXPECT_EQ(taker.frames, taker.throwsAt + 1);
        stream->stop();
    }
}

TEST_F(Memory, aDriverThatWantsMoreHasMore)
{
    kernel.driver.leastBuffers = 7;
    begin(MemoryWay::Address);
    EXPECT_EQ(stream->queueLength(), 8u);
    EXPECT_EQ(kernel.queuedCount(), 8u);
    ASSERT_TRUE(fillAndStep());
    stream->stop();
}

TEST_F(Memory, fewBuffersAreEnough)
{
    kernel.driver.mostBuffers = 4;
    begin(MemoryWay::Address);
    for (int i = 1; i <= 30; ++i) {
        ASSERT_TRUE(fillAndStep());
        ASSERT_EQ(taker.frames, i);
    }
    stream->stop();
    kernel.driver.mostBuffers = 3;
    EXPECT_EQ(refusal(MemoryWay::Address), "the driver answers VIDIOC_REQBUFS with 3 buffers, 4 are needed");
}

TEST_F(Memory, aBufferThatTheDriverDoesNotHaveIsNotBelieved)
{
    begin(MemoryWay::Address);
    kernel.forgedIndex = 31;
    ASSERT_TRUE(fillAndStep());
    EXPECT_EQ(taker.frames, 0);
    kernel.forgedIndex = -1;
    advance(1000);
    ASSERT_TRUE(fillAndStep());
    EXPECT_EQ(taker.frames, 1);
    EXPECT_EQ(stream->statistics().restarts, 1u);
    stream->stop();
}

TEST_F(Memory, misuseIsALogicError)
{
    std::string why;
    EXPECT_THROW(stream->start(MemoryWay::Address, fake::Taker::layout, taker, &why), std::logic_error);
    begin(MemoryWay::Address);
    EXPECT_THROW(stream->setup(), std::logic_error);
    EXPECT_THROW(stream->start(MemoryWay::Address, fake::Taker::layout, taker, &why), std::logic_error);
    stream->stop();
    EXPECT_THROW(stream->start(MemoryWay::Address, FrameLayout{64, 4096, 4096}, taker, &why),
                 std::invalid_argument);
    stream->stop();
    EXPECT_EQ(stream->run(0, -1), Change::None);
}
