// Reading audio.
#include "error.h"
#include "process_id.h"
#include "reader.h"

#include <algorithm>
#include <climits>

using namespace shm;

namespace {

// An index that the writer does not publish reads stream 0.
size_t existingStream(int stream, size_t count)
{
    return stream >= 0 && static_cast<size_t>(stream) < count ? static_cast<size_t>(stream) : 0;
}

} // namespace

void shm_reader::audioStatus(int stream, shm_audio_status_t *status)
{
    const AudioRingReader::Status now = m_audio[existingStream(stream, m_audio.size())].status();
    status->frames = static_cast<uint32_t>(now.held);
    status->frames_published = now.published;
    status->oldest_timestamp = now.oldestTimestamp;
    status->newest_timestamp = now.endTimestamp;
}

int64_t shm_reader::queryAudio(int stream, void *destination, uint64_t items, uint64_t itemFrames,
                               int64_t start, int channel)
{
    const WelcomeMessage &layout = m_connection.layout;
    if (channel >= 0 && static_cast<uint32_t>(channel) >= layout.channels)
        return -EINVAL;
    AudioRingReader &ring = m_audio[existingStream(stream, m_audio.size())];
    // More than the ring holds is never delivered, so the product need not fit.
    const uint64_t wanted = items > layout.audioCapacity / itemFrames
                                ? layout.audioCapacity / itemFrames * itemFrames
                                : items * itemFrames;
    if (wanted == 0)
        return 0;
    const uint32_t copies = hasVideo() ? layout.channels : 1;
    auto *samples = static_cast<int16_t *>(destination);
    return static_cast<int64_t>(ring.read(samples, wanted, start, channel < 0 ? -1 : channel, copies) /
                                itemFrames);
}
