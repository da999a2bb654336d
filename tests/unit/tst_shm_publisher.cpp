// Slots that the publishing thread gives up.
#include "publisher.h"

#include <gtest/gtest.h>

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

} // namespace
