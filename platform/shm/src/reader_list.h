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

#include "protocol.h"

#include <array>
#include <atomic>

namespace shm {

class ReaderList
{
public:
    // Index of the listed page, -1 when the list is full.
    int add(ControlPage *page)
    {
        for (uint32_t i = 0; i < kReadersMax; ++i) {
            if (m_pages[i].load(std::memory_order_relaxed) != nullptr)
                continue;
            if (i >= m_high.load(std::memory_order_relaxed))
                m_high.store(i + 1, std::memory_order_seq_cst);
            m_pages[i].store(page, std::memory_order_seq_cst);
            return static_cast<int>(i);
        }
        return -1;
    }

    // The page may be unmapped once drained() says so of the returned number.
    uint64_t remove(int index)
    {
        m_pages[static_cast<size_t>(index)].store(nullptr, std::memory_order_seq_cst);
        return m_scans.load(std::memory_order_seq_cst);
    }

    bool drained(uint64_t number) const
    {
        return number % 2 == 0 || m_scans.load(std::memory_order_seq_cst) != number;
    }

    // Locks of one slot by all readers; the service thread's view, for counting.
    ControlPage *page(int index) const
    {
        return m_pages[static_cast<size_t>(index)].load(std::memory_order_acquire);
    }

    // One look of the publishing thread.
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

        // W2 of protocol.h.
        bool locked(uint32_t slot) const
        {
            const uint32_t high = m_list.m_high.load(std::memory_order_seq_cst);
            for (uint32_t i = 0; i < high; ++i) {
                const ControlPage *page = m_list.m_pages[i].load(std::memory_order_seq_cst);
                if (page != nullptr && page->locks[slot].load(std::memory_order_seq_cst) != 0)
                    return true;
            }
            return false;
        }

        bool anyWaiting() const
        {
            const uint32_t high = m_list.m_high.load(std::memory_order_seq_cst);
            for (uint32_t i = 0; i < high; ++i) {
                const ControlPage *page = m_list.m_pages[i].load(std::memory_order_seq_cst);
                if (page != nullptr && page->waiting.value.load(std::memory_order_seq_cst) != 0)
                    return true;
            }
            return false;
        }

    private:
        ReaderList &m_list;
    };

private:
    std::array<std::atomic<ControlPage *>, kReadersMax> m_pages{};
    std::atomic<uint32_t> m_high{0};
    std::atomic<uint64_t> m_scans{0}; // odd while a scan is under way
};

} // namespace shm

#endif
