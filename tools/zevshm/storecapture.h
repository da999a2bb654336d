// Takes everything that a store publishes, in order.
#ifndef ZEVSHM_STORECAPTURE_H
#define ZEVSHM_STORECAPTURE_H

#include "ffmpeg.h"
#include "hostclock.h"
#include "storereader.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace zevshm {

// A frame or a piece of sound.
struct CapturedItem
{
    int64_t timestampUs = 0; // of the frame or of the first sample, as the store says
    AvPtr<AVFrame> picture;  // a copy, YUV420P or NV12, with its colors; null for sound
    int stream = 0;          // of the sound
    std::vector<int16_t> samples;
};

// A frame's pixels and colors, copied out of the store. `pool` makes the memory and is replaced as needed.
AvPtr<AVFrame> copyFrame(const shm_video_frame_t &frame, int pixelFormat, const shm_color_t &color,
                         AVBufferPool *pool);
// The same without pixels: what an encoder has to know.
AvPtr<AVFrame> describeFrame(const shm_reader_format_t &format, const shm_color_t &color);
struct PoolDelete
{
    void operator()(AVBufferPool *pool) const { av_buffer_pool_uninit(&pool); }
};
using FramePool = std::unique_ptr<AVBufferPool, PoolDelete>;
FramePool makeFramePool(const shm_reader_format_t &format);

// Follows one session of a store in a thread of its own and keeps what it takes until it is fetched.
//
// A frame is locked for as long as it takes to copy it, one at a time: a writer has spare slots for more. A
// frame that this thread comes late for is still in the history; only when it comes too late for that, or
// when what was taken is not fetched and fills `queueBytes`, are frames lost, and counted; sound when it
// fills twice as much. What comes more than `queueUs` after the oldest that was not fetched is lost, too.
//
// Usage: construct, next() until done() says so, look at end().
// Threads: stop(), lost() and lostSoundUs() in any; the others in one.
// Ownership: takes the reader.
// Units: microseconds of the store's timestamps.
class StoreCapture
{
public:
    struct Settings
    {
        bool withVideo = true;
        bool withAudio = true;
        // Where to begin: frames not earlier than this; without it the newest frame. Sound begins with the
        // first frame, where there are frames, else at this.
        std::optional<int64_t> startUs;
        std::optional<int64_t> soundStartUs; // instead of at the first frame
        // Of the frame that was taken last, by a capture of the same session: what comes between that and the
        // first one here is lost. 0: there was none.
        uint64_t generation = 0;
        size_t queueBytes = 256u << 20;
        int64_t queueUs = INT64_MAX; // the same bound in time, of frames and sound
    };
    enum class End {
        Stopped,
        WriterGone,
        Failed, // out of memory
        Jumped  // timestamps went back, or on by more than sound can be silent for; resumeUs() goes on there
    };

    StoreCapture(ReaderPtr reader, const Settings &settings);
    ~StoreCapture();
    StoreCapture(const StoreCapture &) = delete;
    StoreCapture &operator=(const StoreCapture &) = delete;

    const shm_reader_format_t &format() const { return m_format; }
    const shm_store_info_t &info() const { return m_info; }
    bool hasVideo() const { return m_hasVideo; }
    bool hasAudio() const { return m_hasAudio; }

    // The next item; nothing after `timeoutMs` without one, or at the end.
    std::optional<CapturedItem> next(int timeoutMs);
    // Ended, and everything has been fetched.
    bool done() const;
    End end() const;
    // Where a capture of this store has to begin to continue this one, and the newest frame that this one
    // took.
    int64_t resumeUs() const;
    uint64_t generation() const;
    // Frames that the writer published at its very end: they went with it.
    uint64_t unseen() const;
    void stop();

    uint64_t lost() const { return m_lost; }
    int64_t lostSoundUs() const { return m_lostSoundUs; } // of all streams together

    static constexpr int64_t longestSilenceUs = 10000000;

private:
    void run();
    void waitForNews();
    bool takeVideo();
    bool takeFrame(shm_video_frame_t &frame);
    bool takeSound(int64_t nowUs);
    bool takeSound(int stream);
    bool isSteppedBack();
    bool isTooFarBehind(int64_t timestampUs) const; // with the mutex
    bool push(CapturedItem item, size_t bytes);
    void finish(End end, int64_t resumeUs);
    uint64_t publishedSinceLast() const;

    // immutable
    const ReaderPtr m_reader;
    const Settings m_settings;
    shm_reader_format_t m_format{};
    shm_store_info_t m_info{};
    FramePool m_pool;

    bool m_hasVideo = false;
    bool m_hasAudio = false;
    const int64_t m_startedUs; // monotonic

    // the capturing thread only
    uint64_t m_generation;
    std::optional<int64_t> m_lastFrameUs;
    std::optional<int64_t> m_soundFromUs;
    struct Track
    {
        bool running = false;
        int64_t runUs = 0; // timestamp of the run's first sample
        int64_t taken = 0; // audio frames since
    };
    std::vector<Track> m_tracks;

    StopToken m_stopToken;
    std::atomic<uint64_t> m_lost{0};
    std::atomic<int64_t> m_lostSoundUs{0};

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<std::pair<CapturedItem, size_t>> m_items; // protected by m_mutex, as are the next
    size_t m_queuedBytes = 0;
    bool m_ended = false;
    End m_end = End::Stopped;
    int64_t m_resumeUs = 0;
    uint64_t m_endGeneration = 0;
    uint64_t m_unseen = 0;

    std::thread m_thread; // last: it uses all of the above
};

} // namespace zevshm

#endif
