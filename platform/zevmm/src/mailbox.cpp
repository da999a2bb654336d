#include "mailbox.h"

#include <utility>

namespace zevmm {
namespace v4l2 {

void Mailbox::beginGeneration(std::uint64_t newGeneration)
{
    generation = newGeneration;
    waiting.reset();
}

std::optional<unsigned int> Mailbox::put(const CapturedFrame &frame)
{
    const auto replaced = std::exchange(waiting, frame);
    return replaced ? std::optional<unsigned int>(replaced->index) : std::nullopt;
}

std::optional<CapturedFrame> Mailbox::take()
{
    auto frame = std::exchange(waiting, std::nullopt);
    if (frame)
        lent.push_back(*frame);
    return frame;
}

std::optional<unsigned int> Mailbox::done()
{
    if (lent.size() <= 2)
        return std::nullopt;
    const CapturedFrame oldest = lent.front();
    lent.pop_front();
    return oldest.generation == generation ? std::optional<unsigned int>(oldest.index) : std::nullopt;
}

std::vector<bool> Mailbox::restart(unsigned int count)
{
    waiting.reset();
    std::vector<bool> free(count, true);
    for (const CapturedFrame &frame : lent) {
        if (frame.generation == generation && frame.index < count)
            free[frame.index] = false;
    }
    return free;
}

void Mailbox::clear()
{
    waiting.reset();
    lent.clear();
}

} // namespace v4l2
} // namespace zevmm
