#ifndef ZEVGST_SINKCOUNTS_H
#define ZEVGST_SINKCOUNTS_H

#include <atomic>
#include <cstdint>

namespace zevgst {

// Frames of a zevshmsink. Any thread.
struct SinkCounts
{
    std::atomic<uint64_t> published{0};
    std::atomic<uint64_t> copied{0};    // of the published: those that did not come in a slot
    std::atomic<uint64_t> converted{0}; // of the copied: those whose range was made full
    std::atomic<uint64_t> dropped{0};   // no slot free, no store yet, or not later than the one before
};

} // namespace zevgst

#endif
