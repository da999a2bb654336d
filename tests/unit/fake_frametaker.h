// A store in miniature behind MemoryCapture: some memories, of which the newest frames are kept.
#ifndef FAKE_FRAMETAKER_H
#define FAKE_FRAMETAKER_H

#include <zevmm/v4l2/memorycapture.h>

#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <map>
#include <stdexcept>
#include <utility>
#include <vector>

namespace fake {

struct Taker : zevmm::v4l2::FrameTaker
{
    static constexpr zevmm::v4l2::FrameLayout layout{64, 64 * 36, 64 * (36 + 18)};

    explicit Taker(unsigned int count = 12) : contents(count, std::vector<std::uint8_t>(layout.bytes))
    {
        for (unsigned int i = 0; i < count; ++i)
            free.push_back(i);
    }
    ~Taker() override { EXPECT_TRUE(lent.empty()) << lent.size() << " memories were not given back"; }

    bool lend(zevmm::v4l2::FrameMemory *memory) override
    {
        ++lendCalls;
        if (free.empty() || isFull)
            return false;
        const unsigned int number = free.front();
        free.pop_front();
        memory->address = contents[number].data();
        memory->dmabuf = hasDmabufs ? static_cast<int>(1000 + number) : -1;
        memory->id = std::uint64_t{generations[number]} << 32 | number;
        lent[number] = *memory;
        return true;
    }
    void taken(const zevmm::v4l2::FilledFrame &frame) override
    {
        if (frame.memory.address != nullptr) {
            giveBack(frame.memory);
            kept.push_back(numberOf(frame.memory));
            if (kept.size() > historyLength) {
                free.push_back(kept.front());
                kept.pop_front();
            }
        }
        ++frames;
        sequence = frame.sequence;
        timestamp = frame.timestamp;
        if (isPainted) {
            EXPECT_EQ(frame.planes[0][0], static_cast<std::uint8_t>(frame.sequence));
            EXPECT_EQ(frame.planes[0][35 * frame.strideBytes[0]], static_cast<std::uint8_t>(frame.sequence));
            EXPECT_EQ(frame.planes[1][0], static_cast<std::uint8_t>(frame.sequence + 100));
            EXPECT_EQ(frame.planes[1][17 * frame.strideBytes[1]],
                      static_cast<std::uint8_t>(frame.sequence + 100));
        }
        if (throwsAt != 0 && frames == throwsAt)
            throw std::runtime_error("the taker has had enough");
    }
    void returned(const zevmm::v4l2::FrameMemory &memory) override
    {
        giveBack(memory);
        ++returnedCount;
        free.push_back(numberOf(memory));
        if (onReturned)
            std::exchange(onReturned, nullptr)();
    }
    void giveBack(const zevmm::v4l2::FrameMemory &memory)
    {
        const unsigned int number = numberOf(memory);
        ASSERT_EQ(lent.count(number), 1u) << "it was not lent";
        EXPECT_EQ(lent[number].address, memory.address);
        EXPECT_EQ(lent[number].id, memory.id);
        lent.erase(number);
    }
    static unsigned int numberOf(const zevmm::v4l2::FrameMemory &memory)
    {
        return static_cast<unsigned int>(memory.id & 0xffffffff);
    }

    std::vector<std::vector<std::uint8_t>> contents;
    std::map<unsigned int, std::uint32_t> generations; // rise with other memory in the place of a free one
    std::deque<unsigned int> free;
    std::deque<unsigned int> kept; // as a history keeps them
    std::map<unsigned int, zevmm::v4l2::FrameMemory> lent;
    std::size_t historyLength = 3;
    bool isFull = false;
    bool hasDmabufs = true;
    bool isPainted = true;
    int lendCalls = 0;
    int returnedCount = 0;
    std::function<void()> onReturned; // called once
    int frames = 0;
    int throwsAt = 0;
    std::uint32_t sequence = 0;
    std::int64_t timestamp = 0;
};

} // namespace fake

#endif
