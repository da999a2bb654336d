// The C interface of readers.
#include "clock.h"
#include "error.h"
#include "pending_handshakes.h"
#include "process_id.h"
#include "reader.h"
#include "rendezvous.h"

#include <climits>
#include <cstring>
#include <memory>

using namespace shm;

namespace {

// One store in one directory. Returns 0 with `*reader` set or a negative errno with `error` filled.
int openIn(const std::string &directory, const std::string &name, int timeoutMs, uint32_t maxLocks,
           shm_reader **reader, shm_error_t *error)
{
    SocketFile file;
    const int there = socketFile(directory, name, &file);
    if (there != 0) {
        const int searchable = checkSearchable(directory, error);
        if (searchable != 0)
            return searchable;
    }
    if (there == -ENOENT) {
        return fail(error, ENOENT, "no store \"%s\" in %s: start its writer", name.c_str(),
                    directory.c_str());
    }
    // A kept handshake is only looked at. One that has ended meanwhile is followed by a fresh start.
    std::unique_ptr<Handshake> handshake = takePendingHandshake(directory, name, file);
    int result = -ENOENT;
    if (handshake)
        result = handshake->advance(0, error);
    if (!handshake || (result != 0 && result != -ETIMEDOUT)) {
        const int64_t deadline = monotonicUs() + int64_t{timeoutMs} * 1000;
        handshake = std::make_unique<Handshake>();
        result = handshake->begin(directory, name, timeoutMs, maxLocks, error);
        if (result != 0)
            return result;
        result = handshake->advance(deadline, error);
    }
    if (result == 0)
        *reader = new shm_reader(handshake->take(), maxLocks, timeoutMs);
    else if (result == -ETIMEDOUT)
        keepPendingHandshake(directory, name, std::move(handshake));
    return result;
}

int openAnywhere(const char *name, const shm_reader_options_t &options, shm_reader **reader,
                 shm_error_t *error)
{
    const int result = shm_check_name(name, error);
    if (result != 0)
        return result;
    if (options.max_locks < 0 || options.max_locks > static_cast<int32_t>(kLocksMax)) {
        return fail(error, EINVAL, "%d locked frames are out of range: 1 to %u, or 0 for %u",
                    options.max_locks, kLocksMax, kDefaultLocks);
    }
    const uint32_t maxLocks =
        options.max_locks == 0 ? kDefaultLocks : static_cast<uint32_t>(options.max_locks);
    const int timeoutMs = options.timeout_ms > 0 ? options.timeout_ms : 0;
    int first = 0;
    shm_error_t firstError = {};
    for (const std::string &directory : readerDirectories()) {
        shm_error_t here = {};
        const int code = openIn(directory, name, timeoutMs, maxLocks, reader, &here);
        if (code == 0)
            return 0;
        // Of several reasons the one of a store that is there says more than that of one that is not.
        if (first == 0 || (first == -ENOENT && code != -ENOENT)) {
            first = code;
            firstError = here;
        }
        // A dead writer's socket must not hide a store that lives further on.
        if (code != -ENOENT && code != -ECONNREFUSED)
            break;
    }
    if (error != nullptr)
        *error = firstError;
    return first;
}

} // namespace

shm_reader_t *shm_reader_open_with(const char *name, const shm_reader_options_t *options, shm_error_t *error)
{
    if (error != nullptr)
        *error = shm_error_t{};
    shm_reader_options_t chosen = {};
    if (options != nullptr)
        std::memcpy(&chosen, options, options->size < sizeof chosen ? options->size : sizeof chosen);
    else
        chosen.timeout_ms = 100;
    shm_reader_t *reader = nullptr;
    const int result = guarded(error, [&] { return openAnywhere(name, chosen, &reader, error); });
    if (result != 0)
        errno = -result;
    return reader;
}

shm_reader_t *shm_reader_open(const char *name, int timeout_ms)
{
    shm_reader_options_t options = {};
    options.size = sizeof options;
    options.timeout_ms = timeout_ms;
    return shm_reader_open_with(name, &options, nullptr);
}

void shm_reader_close(shm_reader_t *reader)
{
    delete reader;
}

int shm_reader_get_format(shm_reader_t *reader, shm_reader_format_t *format)
{
    if (format == nullptr)
        return -EINVAL;
    *format = shm_reader_format_t{};
    if (reader == nullptr)
        return -EINVAL;
    if (!reader->mine())
        return -ENODEV;
    reader->format(format);
    return 0;
}

int shm_reader_is_ready(shm_reader_t *reader)
{
    return reader != nullptr && reader->live(shm_reader::Look::Now) ? 1 : 0;
}

int shm_reader_set_fps(shm_reader_t *reader, unsigned int numerator, unsigned int denominator)
{
    if (reader == nullptr)
        return -EINVAL;
    return reader->live() ? reader->setWish(numerator, denominator) : -ENODEV;
}

int shm_reader_open_dmabuf_fd(shm_reader_t *reader)
{
    if (reader == nullptr)
        return -EINVAL;
    return reader->live() ? guarded(nullptr, [reader] { return reader->openDmabufs(); }) : -ENODEV;
}

int shm_reader_get_dmabuf_fd(shm_reader_t *reader)
{
    return reader != nullptr && reader->mine() ? reader->dmabuf() : -1;
}

int shm_reader_get_video_status(shm_reader_t *reader, shm_video_status_t *status)
{
    if (status == nullptr)
        return -EINVAL;
    *status = shm_video_status_t{};
    if (reader == nullptr)
        return -EINVAL;
    if (reader->live())
        reader->videoStatus(status);
    return 0;
}

int shm_reader_get_video_timestamps(shm_reader_t *reader, long long *timestamps, int capacity)
{
    if (reader == nullptr || capacity < 0 || (timestamps == nullptr && capacity > 0))
        return -EINVAL;
    return reader->live() ? reader->timestamps(timestamps, capacity) : -ENODEV;
}

int shm_reader_lock_video(shm_reader_t *reader, shm_video_frame_t *frame, shm_video_lookup_mode_t mode)
{
    if (frame == nullptr)
        return -EINVAL;
    frame->planes[0] = nullptr;
    if (reader == nullptr || static_cast<unsigned>(mode) > SHM_VIDEO_EXACT)
        return -EINVAL;
    return reader->live() ? reader->lock(frame, mode) : -ENODEV;
}

void shm_reader_unlock_video(shm_reader_t *reader, shm_video_frame_t *frame)
{
    if (reader != nullptr && frame != nullptr)
        reader->unlock(frame);
}

int shm_reader_get_audio_status(shm_reader_t *reader, int stream, shm_audio_status_t *status)
{
    if (status == nullptr)
        return -EINVAL;
    *status = shm_audio_status_t{};
    if (reader == nullptr)
        return -EINVAL;
    if (!reader->live())
        return -ENODEV;
    if (!reader->hasAudio())
        return -ENOENT;
    reader->audioStatus(stream, status);
    return 0;
}

int64_t shm_reader_query_audio2(shm_reader_t *reader, int stream, void *destination, unsigned long count_a,
                                unsigned long count_b, int64_t start_timestamp, int channel)
{
    if (reader == nullptr)
        return -EINVAL;
    if (!reader->live())
        return -ENODEV;
    if (!reader->hasAudio())
        return -ENOENT;
    if (count_a == 0 || count_b == 0)
        return 0;
    if (destination == nullptr)
        return -EINVAL;
    return reader->queryAudio(stream, destination, count_a, count_b, start_timestamp, channel);
}

int shm_reader_get_info(shm_reader_t *reader, shm_store_info_t *info)
{
    if (reader == nullptr || info == nullptr || info->size < sizeof info->size)
        return -EINVAL;
    if (!reader->mine())
        return -ENODEV;
    reader->info(info, reader->live(shm_reader::Look::Now));
    return 0;
}

int shm_reader_wait_video(shm_reader_t *reader, uint64_t after, int timeout_ms)
{
    if (reader == nullptr)
        return -EINVAL;
    return reader->live() ? reader->waitVideo(after, timeout_ms > 0 ? timeout_ms : 0) : -ENODEV;
}
