// A reader's handle.
//
// Steady state of lock and unlock: two locked instructions (one each), a dozen loads and a look at the
// kernel's coarse clock; no system call, no allocation. Every 10 ms one poll() of the socket.
//
// Threads: one at a time, but for unlock, which may run in any thread beside any other call: it touches only
// the lock words, here and in the control page, whose addresses never change.
#ifndef SHM_READER_INTERNAL_H
#define SHM_READER_INTERNAL_H

#include "audio_ring.h"
#include "clock.h"
#include "handshake.h"
#include "layout.h"
#include "process_id.h"

#include <shm/shm_reader.h>

#include <array>
#include <vector>

struct shm_reader
{
public:
    shm_reader(shm::StoreConnection connection, uint32_t maxLocks, int timeoutMs);
    ~shm_reader();
    shm_reader(const shm_reader &) = delete;
    shm_reader &operator=(const shm_reader &) = delete;

    // The writer lives, as far as was known at most 10 ms ago; `now`: as far as is known.
    enum class Look { Recent, Now };
    bool live(Look look = Look::Recent)
    {
        if (m_gone || !mine())
            return false;
        const int64_t now = shm::coarseUs();
        if (look == Look::Now || now - m_lastPollUs >= kPollUs || isEnded())
            return lookNow(now);
        return isBeating(now);
    }
    bool mine() const { return m_process == shm::knownProcessId(); }

    void format(shm_reader_format_t *format) const;
    void info(shm_store_info_t *info, bool isLive);
    int setWish(uint32_t numerator, uint32_t denominator);

    // DMA-bufs; reader_dmabufs.cpp.
    int openDmabufs();
    int dmabuf() const;

    void videoStatus(shm_video_status_t *status) const;
    int timestamps(long long *timestamps, int capacity) const;
    int lock(shm_video_frame_t *frame, shm_video_lookup_mode_t mode);
    void unlock(shm_video_frame_t *frame);
    // Number of a lock word that is free, kLocksMax when this handle holds what it may.
    uint32_t freeWord() const;
    // The frame `generation` in `slot`, whatever the history says, into lock word `entry`, which is free.
    // What lock() ends in, and what a test calls to meet the writer where it reuses a slot.
    enum class Attempt { Locked, Retry, NoFrame };
    Attempt tryLock(uint64_t generation, uint32_t slot, uint32_t entry, shm_video_frame_t *frame);
    const shm::IndexView &index() const { return m_index; }
    int waitVideo(uint64_t after, int timeoutMs);
    bool hasVideo() const { return m_connection.layout.slotCapacity != 0; }

    bool hasAudio() const { return !m_audio.empty(); }
    void audioStatus(int stream, shm_audio_status_t *status);
    int64_t queryAudio(int stream, void *destination, uint64_t items, uint64_t itemFrames, int64_t start,
                       int channel);

private:
    static constexpr int64_t kPollUs = 10000;

    // The writer has said so, in one way or the other.
    bool isEnded() const
    {
        return m_index.head->state.value.load(std::memory_order_acquire) != shm::kStoreOpen ||
               m_control->revoked.value.load(std::memory_order_relaxed) != 0;
    }
    // A writer that is stopped counts as gone until it moves again. In unsigned arithmetic: the heartbeat may
    // be anything, and one from the future is no sign of life either.
    bool isBeating(int64_t nowUs) const
    {
        const int64_t beat = m_index.head->heartbeat.value.load(std::memory_order_relaxed);
        const uint64_t age =
            static_cast<uint64_t>(nowUs) - static_cast<uint64_t>(beat) + static_cast<uint64_t>(shm::kStaleUs);
        return age <= 2 * static_cast<uint64_t>(shm::kStaleUs);
    }
    bool lookNow(int64_t nowUs);
    void describe(uint32_t slot, uint64_t generation, shm_video_frame_t *frame) const;
    bool describeSlot(uint32_t slot, uint32_t memoryGeneration);
    bool pollConnection();
    bool receive();
    int awaitDmabufs();
    bool lockedHere(uint32_t slot) const;
    bool giveBack(uint64_t word);

    // Immutable.
    const uint64_t m_process;
    const uint32_t m_maxLocks;
    shm_video_frame_t m_describedAll{}; // what the records of all frames have in common
    const int m_timeoutMs;              // for an answer of the writer
    shm::IndexView m_index;
    shm::ControlPage *m_control = nullptr;

    // Atomic. What this handle holds, word by word as the control page tells it; 0 = free. Never read back
    // from the page: a hostile writer could otherwise make us forget a frame that somebody looks at, and then
    // have its memory unmapped. Filled by the locking thread alone.
    std::array<shm::Atomic<uint64_t>, shm::kLocksMax> m_held{};

    // One thread at a time.
    shm::StoreConnection m_connection;
    // Of each slot, with the memory that it was made for; 0: none. A lock copies one and adds little: every
    // store counts, since the next locked instruction waits for all of them.
    struct alignas(64) Described
    {
        shm_video_frame_t record;
    };
    std::vector<Described> m_described;
    std::vector<shm::AudioRingReader> m_audio;
    int64_t m_lastPollUs = 0; // coarse clock
    bool m_gone = false;
    bool m_wantsDmabufs = false;
    bool m_dmabufsComplete = false;
    const char *m_dmabufTrouble = nullptr; // why there are none although the writer has them
    uint64_t m_lookupHint = 0;             // of findFrame()
    uint32_t m_lastSlot = UINT32_MAX;      // of the last lock, and the memory it was in
    uint32_t m_lastMemory = 0;
};

#endif
