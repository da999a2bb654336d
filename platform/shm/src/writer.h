// A writer: store, publication, service thread, and what its publishing threads use.
#ifndef SHM_WRITER_H
#define SHM_WRITER_H

#include "process_id.h"
#include "publisher.h"
#include "rendezvous.h"
#include "writer_service.h"

#include <optional>

// Threads: as shm_writer.h says. Ownership: owns everything it needs; clock and device are borrowed until it
// is closed.
struct shm_writer
{
public:
    shm_writer(const shm::ClockSource &clock, shm::DmabufDevice &device);
    ~shm_writer();
    shm_writer(const shm_writer &) = delete;
    shm_writer &operator=(const shm_writer &) = delete;

    int open(const shm_writer_params_t &params, shm_error_t *error);
    // In a forked child: gives up what the child has copies of and leaves the store to its owner.
    void forget();
    bool mine() const { return m_process == shm::processId(); }

    shm::Publisher *publisher() { return m_publisher ? &*m_publisher : nullptr; }
    int publishAudio(int stream, const int16_t *samples, uint32_t frames, int64_t timestamp);
    void statistics(shm_writer_stats_t *stats) const;
    void tellCapture(uint32_t capture)
    {
        m_store.index.head->capture.store(capture, std::memory_order_relaxed);
    }

private:
    const shm::ClockSource &m_clock;
    const uint64_t m_process;
    shm::Store m_store;
    shm::Publication m_publication;
    shm::WriterService m_service;
    std::optional<shm::Publisher> m_publisher; // video thread's
    std::vector<shm::AudioRingWriter> m_audio; // audio thread's
};

namespace shm {

// shm_writer_open with another clock than the system's, or other DMA-bufs.
int openWriter(const shm_writer_params_t *params, const ClockSource &clock, shm_writer_t **writer,
               shm_error_t *error, DmabufDevice &device = systemDmabufDevice());

} // namespace shm

#endif
