// What zevshmsrc reads: a store's frames as buffers over its memory, or its samples. No element, no pads.
#ifndef ZEVGST_STORESOURCE_H
#define ZEVGST_STORESOURCE_H

#include <gst/audio/audio.h>
#include <gst/video/video.h>
#include <shm/shm_reader.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

namespace zevgst {

// A reader's connection. Lives until the last of its frames has been given back: elements may hold buffers
// longer than the store lasts.
struct Connection
{
    explicit Connection(shm_reader_t *r) : reader(r) {}
    ~Connection() { shm_reader_close(reader); }
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    shm_reader_t *const reader;
    std::atomic<int> locked{0};
};

// Threads: one at a time; the buffers may be freed by any.
class StoreSource
{
public:
    enum class Result {
        Buffer,
        Nothing, // yet; this took a few milliseconds at most
        Gone,    // no store of that name is alive; asking again looks for one
        Failed   // error() says why, for a person
    };
    enum class Media { Video, Audio };

    void configure(const std::string &store, Media media, int stream);
    void close();
    // The newest is next, whatever was last.
    void skipToNewest();

    // The next frame, or the next 10 ms of sound. `timestampUs` on the wall clock, of the buffer's begin. The
    // first after a gap, and the first of another store, has the flag DISCONT.
    Result next(GstBuffer **buffer, int64_t *timestampUs);

    // Whether the format is another than at the last call: then caps() are to be told first.
    bool takeFormatChange();
    GstCaps *caps() const; // the caller's
    bool hasFormat() const { return m_session != 0; }
    // Whether downstream understands planes that lie elsewhere than the format has them by default.
    void setVideoMetaSupported(bool supported) { m_metaSupported = supported; }
    GstClockTime bufferDuration() const { return m_duration; } // of the last buffer; none: not known
    const std::string &error() const { return m_error; }

private:
    Result open();
    void setVideoFormat(const shm_reader_format_t &format);
    void setAudioFormat(const shm_reader_format_t &format);
    Result nextFrame(GstBuffer **buffer, int64_t *timestampUs);
    Result nextSamples(GstBuffer **buffer, int64_t *timestampUs);
    GstBuffer *wrap(const shm_video_frame_t &frame);
    GstBuffer *copy(const shm_video_frame_t &frame) const;

    std::string m_store;
    Media m_media = Media::Video;
    int m_stream = 0;
    bool m_metaSupported = false;

    std::shared_ptr<Connection> m_connection;
    shm_store_info_t m_storeInfo = {};
    uint64_t m_session = 0; // of the writer that was read last
    int m_locksMax = 1;     // frames that may be under way downstream without a copy
    GstClockTime m_duration = GST_CLOCK_TIME_NONE;
    bool m_formatChanged = false;
    bool m_discont = true;
    std::string m_error;

    GstVideoInfo m_video = {};
    uint64_t m_generation = 0; // of the last frame
    int64_t m_frameUs = 0;     // its timestamp

    GstAudioInfo m_audio = {};
    int64_t m_anchorUs = 0;     // of the first sample of this run; 0: not started
    int64_t m_anchorFrames = 0; // delivered since
};

} // namespace zevgst

#endif
