// Which frame waits, which are lent, which go back to the driver.
#include "mailbox.h"

#include <gtest/gtest.h>

using namespace zevmm::v4l2;

namespace {

CapturedFrame frame(unsigned int index, std::uint64_t generation = 1)
{
    CapturedFrame result;
    result.generation = generation;
    result.index = index;
    return result;
}

class Mailboxes : public testing::Test
{
protected:
    Mailboxes() { mailbox.beginGeneration(1); }
    std::optional<unsigned int> deliver(unsigned int index, std::uint64_t generation = 1)
    {
        EXPECT_EQ(mailbox.put(frame(index, generation)), std::nullopt);
        EXPECT_EQ(mailbox.take()->index, index);
        return mailbox.done();
    }

    Mailbox mailbox;
};

} // namespace

TEST_F(Mailboxes, isEmptyAtFirst)
{
    EXPECT_FALSE(mailbox.hasFrame());
    EXPECT_EQ(mailbox.take(), std::nullopt);
    EXPECT_EQ(mailbox.done(), std::nullopt);
}

TEST_F(Mailboxes, keepsTheNewestAndAnswersWhatItReplaces)
{
    EXPECT_EQ(mailbox.put(frame(0)), std::nullopt);
    EXPECT_EQ(mailbox.put(frame(1)), 0u);
    EXPECT_EQ(mailbox.put(frame(2)), 1u);
    EXPECT_TRUE(mailbox.hasFrame());
    EXPECT_EQ(mailbox.take()->index, 2u);
    EXPECT_FALSE(mailbox.hasFrame());
    EXPECT_EQ(mailbox.take(), std::nullopt);
}

TEST_F(Mailboxes, getsAFrameBackWhenTwoNewerOnesAreDelivered)
{
    EXPECT_EQ(deliver(0), std::nullopt);
    EXPECT_EQ(deliver(1), std::nullopt);
    EXPECT_EQ(deliver(2), 0u);
    EXPECT_EQ(deliver(3), 1u);
    EXPECT_EQ(deliver(0), 2u);
}

TEST_F(Mailboxes, keepsAllThreeWhileTheNewestIsBeingHandedOut)
{
    deliver(0);
    deliver(1);
    mailbox.put(frame(2));
    mailbox.take();
    EXPECT_EQ(mailbox.restart(4), (std::vector<bool>{false, false, false, true}));
    EXPECT_EQ(mailbox.done(), 0u);
    EXPECT_EQ(mailbox.restart(4), (std::vector<bool>{true, false, false, true}));
}

TEST_F(Mailboxes, aRestartForgetsWhatWaitsButNotWhatIsLent)
{
    deliver(1);
    mailbox.put(frame(2));
    EXPECT_EQ(mailbox.restart(3), (std::vector<bool>{true, false, true}));
    EXPECT_FALSE(mailbox.hasFrame());
    EXPECT_EQ(deliver(0), std::nullopt);
    EXPECT_EQ(deliver(2), 1u);
}

TEST_F(Mailboxes, framesOfAnEarlierGenerationGoBackToNobody)
{
    deliver(0);
    deliver(1);
    mailbox.put(frame(2));
    mailbox.beginGeneration(2);
    EXPECT_FALSE(mailbox.hasFrame());
    EXPECT_EQ(mailbox.restart(4), (std::vector<bool>{true, true, true, true}));
    EXPECT_EQ(deliver(0, 2), std::nullopt); // 0 of the first goes: to nobody
    EXPECT_EQ(deliver(1, 2), std::nullopt);
    EXPECT_EQ(deliver(2, 2), 0u);
}

TEST_F(Mailboxes, clearTakesEverythingBack)
{
    deliver(0);
    deliver(1);
    mailbox.put(frame(2));
    mailbox.clear();
    EXPECT_FALSE(mailbox.hasFrame());
    EXPECT_EQ(mailbox.restart(3), (std::vector<bool>{true, true, true}));
    EXPECT_EQ(mailbox.done(), std::nullopt);
}

TEST_F(Mailboxes, clearDuringAHandOutIsHarmless)
{
    deliver(0);
    deliver(1);
    mailbox.put(frame(2));
    mailbox.take();
    mailbox.clear();
    EXPECT_EQ(mailbox.done(), std::nullopt);
}
