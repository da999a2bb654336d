// Lock words and how the writer looks at them, on pages that a test fills.
#include "reader_list.h"

#include <gtest/gtest.h>

#include <memory>

using namespace shm;

namespace {

struct Page
{
    alignas(kPage) ControlPage page{};

    void name(uint32_t word, uint64_t generation, uint32_t slot)
    {
        page.locks[word].store(lockWord(generation, slot));
    }
};

} // namespace

TEST(ShmLockWords, NameASlotForEveryGeneration)
{
    for (const uint64_t generation : {uint64_t{1}, uint64_t{77}, kLockGenerationMax}) {
        for (const uint32_t slot : {0u, 1u, kSlotCapacityMax - 1}) {
            EXPECT_NE(0u, lockWord(generation, slot));
            EXPECT_EQ(slot, slotOfLock(lockWord(generation, slot)));
        }
    }
    EXPECT_NE(lockWord(5, 1), lockWord(5, 2));
    EXPECT_NE(lockWord(5, 1), lockWord(6, 1));
}

TEST(ShmLockWords, TheSameFrameTwiceIsTwoLocksOfOneSlot)
{
    auto page = std::make_unique<Page>();
    page->name(0, 9, 3);
    page->name(5, 9, 3);
    page->name(2, 10, 4);
    SlotSet slots;
    EXPECT_EQ(3u, collectLocks(page->page, 8, &slots));
    EXPECT_EQ(2u, slots.count());
    EXPECT_TRUE(slots[3] && slots[4]);
}

// A hostile reader may write anything; it counts for no more than it was granted.
TEST(ShmLockWords, AnythingInAPageStaysWithinBounds)
{
    auto page = std::make_unique<Page>();
    for (uint32_t i = 0; i < kLocksMax; ++i)
        page->page.locks[i].store(~uint64_t{i});
    SlotSet slots;
    EXPECT_EQ(8u, collectLocks(page->page, 8, &slots));
    EXPECT_EQ(8u, slots.count());
    EXPECT_EQ(kLocksMax, collectLocks(page->page, kLocksMax, &slots));
    EXPECT_EQ(kLocksMax, slots.count());
}

TEST(ShmLockWords, TheWriterSeesEveryListedReader)
{
    ReaderList list;
    auto first = std::make_unique<Page>();
    auto second = std::make_unique<Page>();
    const int one = list.add(&first->page, 2);
    const int two = list.add(&second->page, kLocksMax);
    first->name(1, 1, 7);
    first->name(2, 1, 8); // beyond its two
    second->name(63, 1, 511);
    {
        ReaderList::Scan scan(list);
        EXPECT_TRUE(scan.locked(7));
        EXPECT_FALSE(scan.locked(8));
        EXPECT_TRUE(scan.locked(511));
    }
    list.remove(one);
    {
        ReaderList::Scan scan(list);
        EXPECT_FALSE(scan.locked(7));
        EXPECT_TRUE(scan.locked(511));
    }
    list.remove(two);
    ReaderList::Scan scan(list);
    EXPECT_FALSE(scan.locked(511));
}

// What was read for one slot says nothing good of the next: each that is taken gets a look of its own, after
// its generation was set to 0.
TEST(ShmLockWords, ASlotThatIsLockedBetweenTwoLooksIsNotFree)
{
    ReaderList list;
    auto page = std::make_unique<Page>();
    list.add(&page->page, 8);
    page->name(0, 1, 10);
    ReaderList::Scan scan(list);
    EXPECT_TRUE(scan.locked(10));
    page->name(1, 2, 11);
    EXPECT_TRUE(scan.locked(11));
    EXPECT_FALSE(scan.locked(12));
}

// A reader that names in every look the slot that is tried would otherwise keep the publisher for as many
// looks as there are slots.
TEST(ShmLockWords, TheSearchEndsAfterABoundedNumberOfLooks)
{
    ReaderList list;
    auto page = std::make_unique<Page>();
    list.add(&page->page, 8);
    ReaderList::Scan scan(list);
    uint32_t slot = 0;
    for (; slot < 16; ++slot) {
        page->name(0, 1, slot);
        EXPECT_TRUE(scan.locked(slot));
    }
    page->page.locks[0].store(0);
    EXPECT_TRUE(scan.locked(slot)) << "passed over without a look";
    ReaderList::Scan next(list);
    EXPECT_FALSE(next.locked(slot));
}

TEST(ShmLockWords, APageIsInUseAsLongAsALookThatMayHaveFoundIt)
{
    ReaderList list;
    auto page = std::make_unique<Page>();
    const int index = list.add(&page->page, 8);
    uint64_t number = 0;
    {
        const ReaderList::Scan scan(list);
        number = list.remove(index);
        EXPECT_FALSE(list.drained(number));
    }
    EXPECT_TRUE(list.drained(number));
}
