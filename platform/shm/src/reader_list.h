// The readers whose locks the writer respects.
//
// The service thread adds and removes control pages; the publishing thread looks at all of them for every
// slot that it wants to fill, without a lock. A page that was removed may still be under the publishing
// thread's eyes, so it is unmapped only when no look that could have found it is under way (Scan counts
// them).
//
// Threads: add, remove and drained belong to the service thread; Scan and what it offers to the publishing
// thread.
#ifndef SHM_READER_LIST_H
#define SHM_READER_LIST_H

#include "lock_words.h"

#include <array>

namespace shm {

class ReaderList
{
public:
    // Lists a page of whose lock words the first `words` are used. Returns its index, -1 when the list is
    // full.
    int add(ControlPage *page, uint32_t words)
    {
        for (uint32_t i = 0; i < kReadersMax; ++i) {
            if (m_pages[i].load(std::memory_order_relaxed) != 0)
                continue;
            if (i >= m_high.load(std::memory_order_relaxed))
                m_high.store(i + 1, std::memory_order_seq_cst);
            m_pages[i].store(reinterpret_cast<uintptr_t>(page) | words, std::memory_order_seq_cst);
            return static_cast<int>(i);
        }
        return -1;
    }

    // The page may be unmapped once drained() says so of the returned number.
    uint64_t remove(int index)
    {
        m_pages[static_cast<size_t>(index)].store(0, std::memory_order_seq_cst);
        return m_scans.load(std::memory_order_seq_cst);
    }

    bool drained(uint64_t number) const
    {
        return number % 2 == 0 || m_scans.load(std::memory_order_seq_cst) != number;
    }

    // The publishing thread's eyes for the search of one slot.
    class Scan
    {
    public:
        explicit Scan(ReaderList &list) : m_list(list)
        {
            list.m_scans.fetch_add(1, std::memory_order_seq_cst);
        }
        ~Scan() { m_list.m_scans.fetch_add(1, std::memory_order_seq_cst); }
        Scan(const Scan &) = delete;
        Scan &operator=(const Scan &) = delete;

        // Whether a reader locks `slot`, whose generation was set to 0 just now. What an earlier look found
        // locked is passed over without another, so that slots which are pinned for long cost one look
        // together. A hostile reader may name in each look the very slot that is tried; that ends after
        // kLooks.
        bool locked(uint32_t slot)
        {
            if (m_locked[slot] || m_looks == kLooks)
                return true;
            ++m_looks;
            forEachPage([this](const ControlPage &page, uint32_t words) {
                collectLocks(page, words, &m_locked);
                return false;
            });
            return m_locked[slot];
        }

        bool anyWaiting() const
        {
            return forEachPage([](const ControlPage &page, uint32_t) {
                return page.waiting.value.load(std::memory_order_seq_cst) != 0;
            });
        }

    private:
        static constexpr int kLooks = 16;

        // Until `visit` answers true; whether one did.
        template <class Visit>
        bool forEachPage(Visit &&visit) const
        {
            const uint32_t high = m_list.m_high.load(std::memory_order_seq_cst);
            for (uint32_t i = 0; i < high; ++i) {
                const uintptr_t entry = m_list.m_pages[i].load(std::memory_order_seq_cst);
                // An address whose low bits count the words in use, so that both are read at once.
                // NOLINTNEXTLINE(performance-no-int-to-ptr)
                const auto *page = reinterpret_cast<const ControlPage *>(entry & ~kWordsMask);
                if (page != nullptr && visit(*page, static_cast<uint32_t>(entry & kWordsMask)))
                    return true;
            }
            return false;
        }

        ReaderList &m_list;
        SlotSet m_locked;
        int m_looks = 0;
    };

private:
    // Address and number of lock words in one, so that both are always of the same page. Pages are mapped,
    // hence aligned.
    static constexpr uintptr_t kWordsMask = kPage - 1;
    static_assert(kLocksMax < kPage);

    std::array<Atomic<uintptr_t>, kReadersMax> m_pages{};
    Atomic<uint32_t> m_high{0};
    Atomic<uint64_t> m_scans{0}; // odd while a scan is under way
};

} // namespace shm

#endif
