/* The records as a C compiler lays them out, and every public header as C. */
#include <shm/shm_reader.h>
#include <shm/shm_types.h>
#include <shm/shm_writer.h>

size_t shm_record_fact(int which);

size_t shm_record_fact(int which)
{
    switch (which) {
    case 0:
        return sizeof(shm_reader_format_t);
    case 1:
        return sizeof(shm_video_status_t);
    case 2:
        return sizeof(shm_audio_status_t);
    case 3:
        return sizeof(shm_video_frame_t);
    case 4:
        return offsetof(shm_reader_format_t, valid);
    case 5:
        return offsetof(shm_reader_format_t, has_video);
    case 6:
        return offsetof(shm_reader_format_t, width);
    case 7:
        return offsetof(shm_reader_format_t, height);
    case 8:
        return offsetof(shm_reader_format_t, frame_count);
    case 9:
        return offsetof(shm_reader_format_t, pixel_format);
    case 10:
        return offsetof(shm_reader_format_t, has_audio);
    case 11:
        return offsetof(shm_reader_format_t, sample_rate);
    case 12:
        return offsetof(shm_reader_format_t, channels);
    case 13:
        return offsetof(shm_video_status_t, live);
    case 14:
        return offsetof(shm_video_status_t, frame_interval_us);
    case 15:
        return offsetof(shm_video_status_t, jitter_us);
    case 16:
        return offsetof(shm_audio_status_t, frames);
    case 17:
        return offsetof(shm_audio_status_t, oldest_timestamp);
    case 18:
        return offsetof(shm_audio_status_t, newest_timestamp);
    case 19:
        return offsetof(shm_video_frame_t, width);
    case 20:
        return offsetof(shm_video_frame_t, height);
    case 21:
        return offsetof(shm_video_frame_t, timestamp);
    case 22:
        return offsetof(shm_video_frame_t, planes);
    case 23:
        return offsetof(shm_video_frame_t, strides);
    case 24:
        return offsetof(shm_video_frame_t, plane_offsets);
    default:
        return 0;
    }
}
