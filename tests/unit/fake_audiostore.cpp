#include "fake_audiostore.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

struct shm_reader
{
    int channel;
};

namespace {

FakeAudioStore &fake()
{
    return FakeAudioStore::instance();
}

} // namespace

FakeAudioStore &FakeAudioStore::instance()
{
    static FakeAudioStore store;
    return store;
}

void FakeAudioStore::reset()
{
    exists = true;
    hasAudio = true;
    sampleRate = 48000;
    channels = 2;
    newest = 1000000000;
    oldest = newest - 2000000;
    deliverAtMost = -1;
    fillsSamples = true;
    isRecording = true;
    queries.clear();
    formatQueries = 0;
    statusQueries = 0;
}

void FakeAudioStore::pass(int64_t us)
{
    oldest += us;
    newest += us;
}

// Different for neighbors and channels, and never 0, so that silence shows.
int16_t FakeAudioStore::sample(int64_t index, int channel)
{
    return static_cast<int16_t>(1 + (index % 16000) + 16001 * (channel % 2) * (channel < 2 ? 1 : -1));
}

int64_t FakeAudioStore::indexOf(int64_t timestamp) const
{
    return (timestamp * sampleRate + 500000) / 1000000;
}

extern "C" {

shm_reader_t *shm_reader_open(const char *, int)
{
    if (!fake().exists)
        return nullptr;
    ++fake().openHandles;
    return new shm_reader{0};
}

void shm_reader_close(shm_reader_t *reader)
{
    if (!reader)
        return;
    --fake().openHandles;
    delete reader;
}

int shm_reader_get_format(shm_reader_t *, shm_reader_format_t *format)
{
    ++fake().formatQueries;
    *format = {};
    format->valid = 1;
    format->has_audio = fake().hasAudio;
    format->sample_rate = fake().sampleRate;
    format->channels = fake().channels;
    return 0;
}

int shm_reader_is_ready(shm_reader_t *)
{
    return fake().exists;
}

int shm_reader_set_fps(shm_reader_t *, unsigned int, unsigned int)
{
    return 0;
}

int shm_reader_open_dmabuf_fd(shm_reader_t *)
{
    return -ENODEV;
}

int shm_reader_get_dmabuf_fd(shm_reader_t *)
{
    return -1;
}

int shm_reader_get_info(shm_reader_t *, shm_store_info_t *)
{
    return -ENODEV;
}

int shm_reader_get_video_status(shm_reader_t *, shm_video_status_t *status)
{
    *status = {};
    return -ENODEV;
}

int shm_reader_get_video_timestamps(shm_reader_t *, long long *, int)
{
    return 0;
}

int shm_reader_lock_video(shm_reader_t *, shm_video_frame_t *, shm_video_lookup_mode_t)
{
    return -ENOENT;
}

void shm_reader_unlock_video(shm_reader_t *, shm_video_frame_t *) {}

int shm_reader_get_audio_status(shm_reader_t *, int, shm_audio_status_t *status)
{
    ++fake().statusQueries;
    *status = {};
    status->frames = static_cast<uint32_t>(fake().indexOf(fake().newest) - fake().indexOf(fake().oldest));
    status->oldest_timestamp = fake().oldest;
    status->newest_timestamp = fake().newest;
    return 0;
}

int64_t shm_reader_query_audio2(shm_reader_t *, int stream, void *destination, unsigned long count_a,
                                unsigned long count_b, int64_t start_timestamp, int)
{
    FakeAudioStore &store = fake();
    const int64_t asked = static_cast<int64_t>(count_a * count_b);
    const int64_t first = store.indexOf(start_timestamp);
    int64_t frames = 0;
    if (first >= store.indexOf(store.oldest))
        frames = std::clamp<int64_t>(store.indexOf(store.newest) - first, 0, asked);
    if (store.deliverAtMost >= 0)
        frames = std::min(frames, store.deliverAtMost);
    auto *bytes = static_cast<char *>(destination); // a reader of single bytes may have any alignment
    for (int64_t i = 0; store.fillsSamples && i < frames; ++i) {
        for (int channel = 0; channel < store.channels; ++channel) {
            const int16_t value = FakeAudioStore::sample(first + i, channel);
            std::memcpy(bytes, &value, sizeof value);
            bytes += sizeof value;
        }
    }
    if (store.isRecording)
        store.queries.push_back({stream, count_a * count_b, start_timestamp, frames});
    return count_b == 1 ? frames : frames / static_cast<int64_t>(count_b);
}

} // extern "C"
