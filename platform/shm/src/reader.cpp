// The handle as such: connection, liveness, and what is told about a store.
#include "reader.h"

#include "clock.h"
#include "error.h"
#include "lock_words.h"
#include "process_id.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

using namespace shm;

shm_reader::shm_reader(StoreConnection connection, uint32_t maxLocks, int timeoutMs)
    : m_process(processId()), m_maxLocks(maxLocks), m_timeoutMs(timeoutMs),
      m_connection(std::move(connection))
{
    const WelcomeMessage &layout = m_connection.layout;
    m_index =
        indexView(m_connection.index.data(), layout.slotCapacity, layout.historyRing, layout.historyFrames);
    m_control = reinterpret_cast<ControlPage *>(m_connection.control.data());
    m_lastPollUs = coarseUs();
    m_describedAll.width = static_cast<int32_t>(layout.width);
    m_describedAll.height = static_cast<int32_t>(layout.height);
    m_describedAll.session = layout.session;
    for (uint32_t p = 0; p < layout.planeCount; ++p) {
        m_describedAll.strides[p] = static_cast<int32_t>(layout.strides[p]);
        m_describedAll.plane_offsets[p] = static_cast<int64_t>(layout.offsets[p]);
    }
    m_described.resize(layout.slotCapacity);
    const AudioFormat format = {layout.sampleRate, layout.channels, layout.audioCapacity,
                                layout.audioHistory};
    for (uint32_t i = 0; i < layout.audioStreams; ++i)
        m_audio.emplace_back(m_connection.audio.data() + i * (layout.audioBytes / layout.audioStreams),
                             format);
}

shm_reader::~shm_reader()
{
    // In a forked child nothing is mapped and nothing is held; only descriptors are there to be closed.
    if (!mine())
        return;
    for (uint32_t i = 0; i < m_maxLocks; ++i)
        m_control->locks[i].store(0, std::memory_order_release);
}

bool shm_reader::lockedHere(uint32_t slot) const
{
    return std::any_of(m_held.begin(), m_held.end(), [slot](const Atomic<uint64_t> &held) {
        const uint64_t word = held.load(std::memory_order_acquire);
        return word != 0 && slotOfLock(word) == slot;
    });
}

// Takes in what the writer sent since the handshake: slots that came and went, DMA-bufs that were asked for.
bool shm_reader::receive()
{
    Message message;
    while (true) {
        const int result = receiveMessage(m_connection.socket.get(), &message);
        if (result == -EAGAIN)
            return true;
        const char *why = "";
        if (result != 0)
            return false;
        // Whatever becomes of the message: a mapping may have gone, and its number may come again.
        for (Described &described : m_described)
            described.record.memory_generation = 0;
        if (message.header().type == kDmabufs && m_wantsDmabufs) {
            if (m_connection.applyDmabufs(message, &m_dmabufsComplete, &why) != 0)
                return false;
        } else if (message.header().type != kSlots ||
                   m_connection.applySlots(
                       message, [this](uint32_t slot) { return lockedHere(slot); }, &why) != 0) {
            return false;
        }
    }
}

bool shm_reader::pollConnection()
{
    pollfd fds[2] = {{m_connection.socket.get(), POLLIN | POLLRDHUP, 0},
                     {m_connection.pidfd.get(), POLLIN, 0}};
    const int count = poll(fds, 2, 0);
    if (count <= 0)
        return true;
    if ((fds[0].revents & (POLLHUP | POLLERR | POLLRDHUP | POLLNVAL)) != 0 || (fds[1].revents & POLLIN) != 0)
        return false;
    try {
        return (fds[0].revents & POLLIN) == 0 || receive();
    } catch (const std::exception &) {
        return false; // no memory for a message: the connection cannot be kept in step
    }
}

bool shm_reader::lookNow(int64_t nowUs)
{
    if (isEnded()) {
        m_gone = true;
        return false;
    }
    m_lastPollUs = nowUs;
    if (!pollConnection()) {
        m_gone = true;
        return false;
    }
    return isBeating(nowUs);
}

void shm_reader::format(shm_reader_format_t *format) const
{
    const WelcomeMessage &layout = m_connection.layout;
    format->valid = 1;
    format->has_video = hasVideo() ? 1 : 0;
    format->width = static_cast<int32_t>(layout.width);
    format->height = static_cast<int32_t>(layout.height);
    format->frame_count = static_cast<int32_t>(layout.historyFrames);
    format->pixel_format = static_cast<int32_t>(layout.pixelFormat);
    format->has_audio = hasAudio() ? 1 : 0;
    format->sample_rate = static_cast<int32_t>(layout.sampleRate);
    format->channels = static_cast<int32_t>(layout.channels);
}

int shm_reader::setWish(uint32_t numerator, uint32_t denominator)
{
    if (numerator == 0 || denominator == 0)
        return -EINVAL;
    m_control->wish.value.store(static_cast<uint64_t>(numerator) << 32 | denominator,
                                std::memory_order_relaxed);
    return 0;
}

void shm_reader::info(shm_store_info_t *info, bool isLive)
{
    const WelcomeMessage &layout = m_connection.layout;
    const IndexHead &head = *m_index.head;
    shm_store_info_t now = {};
    now.live = isLive ? 1 : 0;
    now.session = layout.session;
    now.writer_pid = m_connection.peer.pid;
    now.readers = static_cast<int32_t>(head.readers.load(std::memory_order_relaxed));
    now.locks_held = static_cast<int32_t>(head.locksHeld.load(std::memory_order_relaxed));
    now.slot_count = static_cast<int32_t>(head.slots.load(std::memory_order_relaxed));
    now.slot_bytes = layout.slotBytes;
    now.total_bytes = head.totalBytes.load(std::memory_order_relaxed);
    now.frames_refused = head.refused.load(std::memory_order_relaxed);
    if (hasVideo()) {
        shm_video_status_t status = {};
        videoStatus(&status);
        now.frames_published = status.frames_published;
        now.frames_dropped = status.frames_dropped;
        now.oldest_timestamp = status.oldest_timestamp;
        now.newest_timestamp = status.newest_timestamp;
        now.frame_interval_us = status.frame_interval_us;
        now.jitter_us = status.jitter_us;
    }
    now.rate_numerator = layout.rateNumerator;
    now.rate_denominator = layout.rateDenominator;
    const uint64_t wish = head.wish.load(std::memory_order_relaxed);
    now.wished_numerator = static_cast<uint32_t>(wish >> 32);
    now.wished_denominator = static_cast<uint32_t>(wish);
    now.color = unpackColor(layout.color);
    now.audio_streams = static_cast<int32_t>(layout.audioStreams);
    if (hasAudio()) {
        now.audio_history_us = usForFrames(layout.audioHistory, layout.sampleRate);
        now.audio_frames_published = m_audio[0].status().published;
    }
    now.started_timestamp = layout.startedUs;
    now.sealed = (layout.flags & kSealedFrames) != 0 ? 1 : 0;
    std::snprintf(now.memory, sizeof now.memory, "%s", layout.memory);
    std::snprintf(now.dmabuf, sizeof now.dmabuf, "%s",
                  !hasVideo()                                        ? "no video"
                  : m_dmabufTrouble != nullptr && !m_dmabufsComplete ? m_dmabufTrouble
                                                                     : layout.dmabuf);
    std::snprintf(now.directory, sizeof now.directory, "%s", m_connection.directory.c_str());
    const uint32_t capture = head.capture.load(std::memory_order_relaxed);
    now.capture = capture <= SHM_CAPTURE_USERPTR ? static_cast<int32_t>(capture) : SHM_CAPTURE_NONE;
    const uint32_t size = info->size;
    now.size = size;
    std::memcpy(info, &now, std::min<size_t>(size, sizeof now));
}
