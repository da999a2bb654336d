// Which of the captured frames waits for the reader, which it has been lent, and which go back to the driver.
#ifndef ZEVMM_MAILBOX_H
#define ZEVMM_MAILBOX_H

#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

namespace zevmm {
namespace v4l2 {

struct CapturedFrame
{
    std::uint64_t generation = 0; // of which opening of the device its buffer is
    unsigned int index = 0;
    std::uint32_t sequence = 0;
    std::int64_t timestamp = 0; // CLOCK_MONOTONIC, microseconds, 0 unknown
};

// One newest frame between the thread that captures and the one that reads, without a driver, a clock or a
// lock.
//
//     put     1  2  3        4           5        6
//     take             3           4        5           6
//     done             -           -           3           4
//
// put() answers 1 and 2 at once, done() what two newer ones have followed: these go back to the driver.
// Indexes are those of the current generation; frames of an earlier one go back to nobody.
class Mailbox
{
public:
    // The driver's buffers are now those of this generation; what waits is forgotten, what is lent stays
    // lent.
    void beginGeneration(std::uint64_t newGeneration);
    // A newer frame. The index that it replaces, for the driver.
    std::optional<unsigned int> put(const CapturedFrame &frame);
    bool hasFrame() const { return waiting.has_value(); }
    // Lends the newest.
    std::optional<CapturedFrame> take();
    // The reader is through with take()'s frame being new. The index that can go back.
    std::optional<unsigned int> done();
    // Streaming starts anew: nothing waits any more. Whether each of `count` buffers may go to the driver.
    std::vector<bool> restart(unsigned int count);
    // Everything is back, also what is lent.
    void clear();

private:
    std::uint64_t generation = 0;
    std::optional<CapturedFrame> waiting;
    std::deque<CapturedFrame> lent; // oldest first; at most two but between take() and done()
};

} // namespace v4l2
} // namespace zevmm

#endif
