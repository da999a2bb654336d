// Slots that the publishing thread gives up, and a reader that is told of fresh ones.
#include "messages.h"
#include "publisher.h"
#include "shm_connection.h"

#include <gtest/gtest.h>

#include <sys/socket.h>

#include <cerrno>
#include <memory>

using namespace shm;

namespace {

class ShmPublisher : public testing::Test
{
protected:
    void SetUp() override
    {
        shm_writer_params_t params{};
        params.size = sizeof params;
        params.name = "publisher";
        params.width = 64;
        params.height = 16;
        params.pixel_format = SHM_PIXEL_FORMAT_NV12;
        params.history_frames = 2;
        params.spare_frames = 2;
        shm_error_t error{};
        ASSERT_EQ(makePolicy(params, &store.policy, &error), 0) << error.message;
        ASSERT_EQ(store.create(&error), 0) << error.message;
        publisher = std::make_unique<Publisher>(store, clock);
    }

    void publish(int frames)
    {
        for (int i = 0; i < frames; ++i) {
            shm_writer_frame_t frame;
            ASSERT_EQ(publisher->acquire(&frame, Publisher::Filler::Processor), 0);
            ASSERT_EQ(publisher->publish(&frame, timestamp += 40000), 0);
        }
    }
    void addSlot(uint32_t slot)
    {
        ASSERT_EQ(store.createSlot(slot), 0);
        store.slots[slot].owner.store(SlotOwner::Ready);
        store.readySlots.fetch_add(1);
    }
    int returned() const
    {
        int count = 0;
        for (uint32_t s = 0; s < store.policy.slotCapacity; ++s)
            count += store.slots[s].owner.load() == SlotOwner::Returned ? 1 : 0;
        return count;
    }

    Store store;
    const SystemClock clock;
    std::unique_ptr<Publisher> publisher;
    int64_t timestamp = SystemClock().read().wallUs;
};

// As the service thread leaves it when a slot is given up between its count and its word.
TEST_F(ShmPublisher, keepsTheOriginalNumberWhateverIsSaidToBeTooMuch)
{
    store.surplusSlots.store(1);
    publish(20);
    EXPECT_EQ(returned(), 0);
}

TEST_F(ShmPublisher, givesUpWhatWasAdded)
{
    ASSERT_EQ(store.policy.slotCount, 4u);
    addSlot(4);
    addSlot(5);
    publish(1);
    store.surplusSlots.store(1);
    publish(20);
    EXPECT_EQ(returned(), 1);
    store.surplusSlots.store(2);
    publish(20);
    EXPECT_EQ(returned(), 2);
}

// The message of fresh memory is taken when a frame in it is met. One that is wrong does not come again, so
// that the reader would be without that slot for good: it has to connect anew.
TEST_F(ShmPublisher, aReaderThatIsToldNonsenseOfFreshMemoryIsAtItsEnd)
{
    SharedMemory control;
    ASSERT_EQ(createSharedMemory(&control, "shm-control", sizeof(ControlPage), kMemfd, sealsForShared()), 0);
    for (const bool isNonsense : {false, true}) {
        StoreConnection connection = testing_shm::connectTo(store, control);
        int sockets[2] = {-1, -1};
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sockets), 0);
        connection.socket.reset(sockets[0]);
        const UniqueFd writer(sockets[1]);
        shm_reader reader(std::move(connection), 4, 1000);
        ASSERT_NO_FATAL_FAILURE(publish(1));
        for (uint32_t s = 0; s < store.policy.slotCapacity; ++s) // from now on all memory is unknown to it
            ++store.slots[s].memoryGeneration, store.index.metas[s].memoryGeneration.fetch_add(1);
        ASSERT_NO_FATAL_FAILURE(publish(1));
        ASSERT_TRUE(reader.live(shm_reader::Look::Now));
        shm_video_frame_t frame = {};
        EXPECT_EQ(reader.lock(&frame, SHM_VIDEO_NEWEST), -ENOENT);
        EXPECT_TRUE(reader.live(shm_reader::Look::Now)) << "the message may be on its way";

        auto message = makeMessage<SlotsMessage>(kSlots);
        std::vector<int> fds;
        for (uint32_t s = 0; s < store.policy.slotCount; ++s) {
            message.entries[message.count++] = {isNonsense ? 1u << 20 : s, store.slots[s].memoryGeneration};
            fds.push_back(store.slots[s].memory.fd.get());
        }
        ASSERT_EQ(sendMessage(writer.get(), &message, sizeof message, fds.data(), fds.size()), 0);
        EXPECT_EQ(reader.lock(&frame, SHM_VIDEO_NEWEST), isNonsense ? -ENOENT : 0);
        EXPECT_EQ(reader.live(), !isNonsense);
        if (!isNonsense)
            reader.unlock(&frame);
    }
}

// Records are prepared for each slot with the addresses of its memory. A writer that sends other memory, or
// takes it away, and goes on speaking of it by the same number must not have a reader look where it was.
TEST_F(ShmPublisher, aReaderForgetsWhereASlotWasWhateverTheWriterCallsWhatItSends)
{
    SharedMemory control;
    ASSERT_EQ(createSharedMemory(&control, "shm-control", sizeof(ControlPage), kMemfd, sealsForShared()), 0);
    for (const bool isReplaced : {true, false}) {
        StoreConnection connection = testing_shm::connectTo(store, control);
        int sockets[2] = {-1, -1};
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sockets), 0);
        connection.socket.reset(sockets[0]);
        const UniqueFd writer(sockets[1]);
        shm_reader reader(std::move(connection), 4, 1000);
        ASSERT_NO_FATAL_FAILURE(publish(1));
        shm_video_frame_t frame = {};
        ASSERT_EQ(reader.lock(&frame, SHM_VIDEO_NEWEST), 0);
        const uint8_t *const former = frame.planes[0];
        const uint32_t slot = frame.slot;
        reader.unlock(&frame);

        SharedMemory fresh;
        ASSERT_EQ(createSharedMemory(&fresh, "shm-frame", store.policy.slotBytes, kMemfd, sealsForShared()),
                  0);
        fresh.mapping.data()[0] = 77;
        auto message = makeMessage<SlotsMessage>(kSlots);
        message.count = 1;
        message.entries[0] = {slot, isReplaced ? store.slots[slot].memoryGeneration : 0};
        const int fd = fresh.fd.get();
        ASSERT_EQ(sendMessage(writer.get(), &message, sizeof message, &fd, isReplaced ? 1 : 0), 0);
        ASSERT_TRUE(reader.live(shm_reader::Look::Now));

        ASSERT_EQ(reader.lock(&frame, SHM_VIDEO_NEWEST), isReplaced ? 0 : -ENOENT);
        if (isReplaced) {
            ASSERT_NE(frame.planes[0], former) << "nothing is mapped there any more";
            EXPECT_EQ(frame.planes[0][0], 77);
            reader.unlock(&frame);
        }
    }
}

} // namespace
