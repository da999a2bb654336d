#include "audioblocks.h"

#include <gtest/gtest.h>

#include <numeric>

using namespace zevshm;

namespace {

constexpr int rate = 48000;

// Mono samples that count up, so that every one can be told from every other.
std::vector<int16_t> counting(int first, int count)
{
    std::vector<int16_t> samples(static_cast<size_t>(count));
    std::iota(samples.begin(), samples.end(), static_cast<int16_t>(first));
    return samples;
}

std::vector<AudioBlock> all(AudioBlocks &blocks)
{
    std::vector<AudioBlock> taken;
    while (auto block = blocks.next())
        taken.push_back(std::move(*block));
    return taken;
}

} // namespace

TEST(AudioBlocks, cutsOddPortionsIntoSteadyBlocks)
{
    AudioBlocks blocks(rate, 1, 480);
    int at = 0;
    std::vector<AudioBlock> taken;
    for (const int portion : {1024, 7, 1, 2048, 441, 1359}) {
        const auto samples = counting(at, portion);
        blocks.add(samples.data(), portion, 1000000 + static_cast<int64_t>(at) * 1000000 / rate);
        at += portion;
        for (auto &block : all(blocks))
            taken.push_back(block);
    }
    ASSERT_EQ(taken.size(), static_cast<size_t>(at / 480));
    for (size_t i = 0; i < taken.size(); ++i) {
        EXPECT_EQ(taken[i].mediaUs, 1000000 + static_cast<int64_t>(i) * 10000);
        EXPECT_EQ(taken[i].frames, 480);
        EXPECT_EQ(taken[i].samples, counting(static_cast<int>(i) * 480, 480));
    }
}

TEST(AudioBlocks, ignoresTheRoundingOfContainers)
{
    AudioBlocks blocks(44100, 2, 441);
    std::vector<int16_t> portion(2 * 1024, 5);
    for (int i = 0; i < 1000; ++i) // milliseconds
        blocks.add(portion.data(), 1024, (static_cast<int64_t>(i) * 1024 * 1000 / 44100) * 1000);
    const auto taken = all(blocks);
    ASSERT_EQ(taken.size(), 1000u * 1024 / 441);
    for (size_t i = 0; i < taken.size(); ++i)
        EXPECT_EQ(taken[i].mediaUs, static_cast<int64_t>(i) * 10000);
}

TEST(AudioBlocks, gapStartsANewRunWhereTheSoundBelongs)
{
    AudioBlocks blocks(rate, 1, 480);
    const auto samples = counting(1, 700);
    blocks.add(samples.data(), 700, 0);
    blocks.add(samples.data(), 700, 500000);
    const auto taken = all(blocks);
    ASSERT_EQ(taken.size(), 3u);
    EXPECT_EQ(taken[1].mediaUs, 10000);
    EXPECT_EQ(taken[1].samples[219], 700);
    EXPECT_EQ(taken[1].samples[220], 0); // completed with silence
    EXPECT_EQ(taken[2].mediaUs, 500000);
    EXPECT_EQ(taken[2].samples[0], 1);
}

TEST(AudioBlocks, overlapIsCutOff)
{
    AudioBlocks blocks(rate, 1, 480);
    blocks.add(counting(0, 9600).data(), 9600, 0);          // 200 ms
    blocks.add(counting(20000, 4800).data(), 4800, 50000);  // wholly inside
    blocks.add(counting(10000, 9600).data(), 9600, 100000); // half inside
    const auto taken = all(blocks);
    ASSERT_EQ(taken.size(), 30u);
    EXPECT_EQ(taken[19].samples[479], 9599);
    EXPECT_EQ(taken[20].samples[0], 14800);
    EXPECT_EQ(taken[20].mediaUs, 200000);
}

TEST(AudioBlocks, flushCompletesTheLastBlock)
{
    AudioBlocks blocks(rate, 2, 480);
    const std::vector<int16_t> samples(20, 3);
    blocks.add(samples.data(), 10, 0);
    EXPECT_FALSE(blocks.next());
    blocks.flush();
    const auto taken = all(blocks);
    ASSERT_EQ(taken.size(), 1u);
    EXPECT_EQ(taken[0].samples.size(), 960u);
    EXPECT_EQ(taken[0].samples[19], 3);
    EXPECT_EQ(taken[0].samples[20], 0);
    blocks.flush();
    EXPECT_FALSE(blocks.next());
}
