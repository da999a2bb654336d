// The audio ring in plain memory: anchors, gaps, overlaps, rounding, wrapping.
#include "audio_ring.h"
#include "layout.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <vector>

using namespace shm;

namespace {

class ShmAudioRing : public ::testing::Test
{
protected:
    void SetUp() override { make(1000, 2); }
    void make(uint32_t rate, uint32_t channels)
    {
        format.sampleRate = rate;
        format.channels = channels;
        format.history = 2000;
        format.capacity = audioCapacity(format.history);
        const size_t bytes = audioLayout(format.capacity, channels, 1).bytes;
        memory.reset(static_cast<uint8_t *>(std::aligned_alloc(4096, bytes)));
        std::fill_n(memory.get(), bytes, uint8_t{0});
        writer = AudioRingWriter(memory.get(), format);
        reader = AudioRingReader(memory.get(), format);
    }
    // `frames` audio frames whose first channel counts on from the last call.
    void publish(uint32_t frames, int64_t timestamp)
    {
        std::vector<int16_t> samples(size_t{frames} * format.channels);
        for (uint32_t i = 0; i < frames; ++i) {
            ++counter;
            for (uint32_t c = 0; c < format.channels; ++c)
                samples[i * format.channels + c] =
                    static_cast<int16_t>(counter + static_cast<int>(c) * 10000);
        }
        clock.monotonicUs += 1000;
        clock.wallUs += 1000;
        writer.publish(samples.data(), frames, timestamp, clock);
    }
    std::vector<int16_t> read(int64_t timestamp, uint64_t frames, int channel = 0)
    {
        std::vector<int16_t> samples(frames * format.channels, -1);
        const uint64_t n = reader.read(samples.data(), frames, timestamp, channel, 1);
        samples.resize(n * (channel < 0 ? format.channels : 1));
        return samples;
    }
    std::vector<int16_t> counting(int from, int to)
    {
        std::vector<int16_t> samples;
        for (int i = from; i <= to; ++i)
            samples.push_back(static_cast<int16_t>(i));
        return samples;
    }

    struct Free
    {
        void operator()(uint8_t *p) const { std::free(p); }
    };
    std::unique_ptr<uint8_t, Free> memory;
    AudioFormat format;
    AudioRingWriter writer;
    AudioRingReader reader;
    ClockReading clock{1, 1};
    int counter = 0;
};

TEST_F(ShmAudioRing, IsSilentAtFirst)
{
    EXPECT_EQ(reader.status().held, 0u);
    EXPECT_TRUE(read(0, 10).empty());
}

TEST_F(ShmAudioRing, DeliversFromTheNearestSample)
{
    publish(100, 1000000); // 1 ms a sample
    EXPECT_EQ(read(1000000, 3), counting(1, 3));
    EXPECT_EQ(read(1010000, 3), counting(11, 13));
    EXPECT_EQ(read(1010499, 1), counting(11, 11));
    EXPECT_EQ(read(1010500, 1), counting(12, 12));
    // What there is, from inside; nothing from outside.
    EXPECT_EQ(read(1098000, 10), counting(99, 100));
    EXPECT_TRUE(read(1100000, 10).empty());
    EXPECT_TRUE(read(999000, 10).empty());
    const AudioRingReader::Status status = reader.status();
    EXPECT_EQ(status.held, 100u);
    EXPECT_EQ(status.oldestTimestamp, 1000000);
    EXPECT_EQ(status.endTimestamp, 1100000);
}

TEST_F(ShmAudioRing, KeepsTheHistoryThroughManyTurns)
{
    for (int i = 0; i < 100; ++i)
        publish(300, 1000000 + i * 300000);
    const AudioRingReader::Status status = reader.status();
    EXPECT_EQ(status.held, 2000u);
    EXPECT_EQ(status.published, 30000u);
    EXPECT_EQ(status.endTimestamp, 31000000);
    EXPECT_EQ(status.oldestTimestamp, 29000000);
    EXPECT_EQ(read(29000000, 2000), counting(28001, 30000));
    EXPECT_TRUE(read(28900000, 1).empty());
}

TEST_F(ShmAudioRing, WhatStatusToldIsStillThereAMomentLater)
{
    publish(2000, 0);
    publish(100, 2000000);
    const int64_t oldest = reader.status().oldestTimestamp;
    EXPECT_EQ(oldest, 100000);
    publish(100, 2100000);
    EXPECT_EQ(read(oldest, 1), counting(101, 101));
}

TEST_F(ShmAudioRing, AGapBecomesSilence)
{
    publish(100, 1000000);
    publish(50, 1200000);
    EXPECT_EQ(reader.status().held, 250u);
    EXPECT_EQ(reader.status().endTimestamp, 1250000);
    const std::vector<int16_t> around = read(1098000, 104);
    EXPECT_EQ(around[0], 99);
    EXPECT_EQ(around[1], 100);
    EXPECT_EQ(around[2], 0);
    EXPECT_EQ(around[101], 0);
    EXPECT_EQ(around[102], 101);
    EXPECT_EQ(read(1200000, 1), counting(101, 101));
}

TEST_F(ShmAudioRing, ALongGapFillsTheRingWithSilenceAndNothingOlderIsHeld)
{
    publish(100, 1000000);
    publish(50, 600000000);
    const AudioRingReader::Status status = reader.status();
    EXPECT_EQ(status.held, 2000u);
    EXPECT_EQ(status.endTimestamp, 600050000);
    EXPECT_EQ(status.oldestTimestamp, 598050000);
    EXPECT_EQ(read(599000000, 1), std::vector<int16_t>{0});
    EXPECT_EQ(read(600000000, 50), counting(101, 150));
    EXPECT_TRUE(read(1050000, 1).empty());
    EXPECT_TRUE(read(300000000, 1).empty());
}

TEST_F(ShmAudioRing, AnOverlapIsTrimmed)
{
    publish(100, 1000000);
    publish(50, 1080000); // 20 of it are there already
    EXPECT_EQ(reader.status().held, 130u);
    EXPECT_EQ(read(1099000, 2), (std::vector<int16_t>{100, 121}));
    publish(10, 1000000); // all of it
    EXPECT_EQ(reader.status().held, 130u);
    EXPECT_EQ(reader.status().endTimestamp, 1130000);
}

TEST_F(ShmAudioRing, LessThanHalfASampleIsContinuous)
{
    publish(100, 1000000);
    publish(100, 1100499);
    publish(100, 1199501);
    EXPECT_EQ(reader.status().held, 300u);
    EXPECT_EQ(reader.status().endTimestamp, 1300000);
}

TEST_F(ShmAudioRing, RoundingDoesNotAddUp)
{
    make(44100, 1);
    // 441 samples are 10 ms; the stamps are truncated to microseconds.
    for (int64_t i = 0; i < 3000; ++i)
        publish(441, 5000000 + i * 441 * 1000000 / 44100);
    EXPECT_EQ(reader.status().endTimestamp, 5000000 + 3000 * 10000);
    EXPECT_EQ(reader.status().published, 3000u * 441);
}

TEST_F(ShmAudioRing, AStepBackOfTheWallClockStartsAnew)
{
    publish(100, int64_t{7200} * 1000000);
    clock.wallUs -= int64_t{3600} * 1000000;
    publish(50, int64_t{3600} * 1000000);
    const AudioRingReader::Status status = reader.status();
    EXPECT_EQ(status.held, 50u);
    EXPECT_EQ(status.oldestTimestamp, int64_t{3600} * 1000000);
    EXPECT_EQ(read(int64_t{3600} * 1000000, 50), counting(101, 150));
    EXPECT_TRUE(read(int64_t{7200} * 1000000, 1).empty());
}

TEST_F(ShmAudioRing, ChannelsAreSelectedAndCopied)
{
    publish(10, 0);
    EXPECT_EQ(read(0, 1, 1), (std::vector<int16_t>{10001}));
    EXPECT_EQ(read(0, 1, -1), (std::vector<int16_t>{1, 10001}));
    int16_t samples[4] = {};
    EXPECT_EQ(reader.read(samples, 2, 0, 1, 2), 2u);
    EXPECT_EQ(samples[0], 10001);
    EXPECT_EQ(samples[1], 10001);
    EXPECT_EQ(samples[2], 10002);
}

TEST_F(ShmAudioRing, MoreGapsThanAnchorsLoseOnlyTheOldest)
{
    int64_t t = 0;
    for (int i = 0; i < 100; ++i, t += 20000)
        publish(10, t);
    const AudioRingReader::Status status = reader.status();
    EXPECT_EQ(status.endTimestamp, t - 10000);
    EXPECT_EQ(read(t - 20000, 10), counting(991, 1000));
    EXPECT_EQ(status.oldestTimestamp, t - 63 * 20000);
}

TEST_F(ShmAudioRing, SamplesThatAreBeingOverwrittenAreNotDelivered)
{
    for (int i = 0; i < 4; ++i)
        publish(1000, i * 1000000);
    auto *head = reinterpret_cast<AudioHead *>(memory.get());
    // The writer has announced another 1000 and stands in the middle of them.
    head->intent.value.store(5000);
    EXPECT_TRUE(read(1900000, 1).empty());
    EXPECT_EQ(read(2000000, 1), counting(2001, 2001));
}

// A start without samples is a start nevertheless, and so is the next one at the same sample.
TEST_F(ShmAudioRing, OfTwoStartsWithoutSamplesBetweenTheLaterCounts)
{
    publish(0, 50 * 1000000);
    clock.wallUs -= 10 * 1000000;
    publish(500, 40 * 1000000);
    EXPECT_EQ(40 * 1000000, reader.status().oldestTimestamp);
    EXPECT_EQ(40 * 1000000 + 500000, reader.status().endTimestamp);
    EXPECT_EQ(counting(1, 500), read(40 * 1000000, 500));
}

TEST_F(ShmAudioRing, HostileAnchorsDoNoHarm)
{
    auto *head = reinterpret_cast<AudioHead *>(memory.get());
    publish(500, 1000000);
    publish(500, 3000000);
    for (const int64_t timestamp : {INT64_MIN, int64_t{-1}, INT64_MAX}) {
        for (AudioAnchor &anchor : head->anchors) {
            if (anchor.sample.load() != 0)
                anchor.timestamp.store(timestamp);
        }
        for (const int64_t asked : {INT64_MIN, int64_t{0}, int64_t{3000000}, int64_t{1} << 62, INT64_MAX})
            EXPECT_LE(read(asked, 100).size(), 100u);
        EXPECT_LE(reader.status().held, format.capacity);
    }
}

TEST_F(ShmAudioRing, HostileCountersDoNoHarm)
{
    auto *head = reinterpret_cast<AudioHead *>(memory.get());
    publish(100, 0);
    for (const uint64_t end : {uint64_t{0}, uint64_t{1} << 63, UINT64_MAX}) {
        for (const uint64_t intent : {uint64_t{0}, end, UINT64_MAX}) {
            for (const uint64_t anchors : {uint64_t{0}, uint64_t{5}, UINT64_MAX}) {
                head->end.value.store(end);
                head->intent.value.store(intent);
                head->anchorCount.value.store(anchors);
                EXPECT_LE(reader.status().held, format.capacity);
                EXPECT_LE(read(0, 100).size(), 100u);
                EXPECT_LE(read(INT64_MAX, 100).size(), 100u);
                EXPECT_LE(read(INT64_MIN, 100).size(), 100u);
            }
        }
    }
}

} // namespace
