// The store that one zevshmsink publishes: its pads' formats, its slots, and the writer that is made of them.
#ifndef ZEVGST_STOREFEED_H
#define ZEVGST_STOREFEED_H

#include <shm/shm_writer.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace zevgst {

struct FeedSettings
{
    std::string store;
    std::string group;
    std::string memory;
    unsigned history = 0; // frames; 0: the store's default
    bool sealed = false;
    bool keepRange = false; // as the pictures come; else made full
};

struct VideoFormat
{
    int width = 0, height = 0; // pixels
    SHM_PIXEL_FORMAT pixelFormat = SHM_PIXEL_FORMAT_NONE;
    shm_color_t color = {};
    unsigned rateNumerator = 0, rateDenominator = 1; // 0: not known

    bool operator==(const VideoFormat &other) const;
};

struct AudioFormat
{
    int sampleRate = 0;
    int channels = 0;

    bool operator==(const AudioFormat &other) const
    {
        return sampleRate == other.sampleRate && channels == other.channels;
    }
};

// How many writers of a feed are open, which is one but while a former one's slots are still under way. Any
// thread.
struct OpenCount
{
    std::mutex mutex;
    std::condition_variable changed;
    int open = 0;             // protected by mutex
    bool interrupted = false; // as before
};

// A writer with its lock. Lives until the last slot taken from it has come back: elements may hold buffers
// longer than the stream lasts.
struct OpenStore
{
    OpenStore(shm_writer_t *w, std::shared_ptr<OpenCount> c);
    ~OpenStore();
    OpenStore(const OpenStore &) = delete;
    OpenStore &operator=(const OpenStore &) = delete;

    shm_writer_t *const writer;
    std::mutex video;                // around the video calls of `writer`
    std::mutex audio;                // around the audio calls
    std::atomic<uint32_t> pooled{0}; // slots that upstream has
    const std::shared_ptr<OpenCount> count;
};

// A slot of a store, to be written into and published; given back unpublished when it goes. Any thread.
class Slot
{
public:
    // `isPooled`: handed upstream, and counted as such.
    Slot(std::shared_ptr<OpenStore> store, const shm_writer_frame_t &frame, bool isPooled);
    ~Slot();
    Slot(const Slot &) = delete;
    Slot &operator=(const Slot &) = delete;

    const shm_writer_frame_t &frame() const { return m_frame; }
    uint8_t *memory() const { return m_frame.planes[0] - m_frame.plane_offsets[0]; }
    size_t size() const; // from memory() to the end of the last plane
    bool isOf(const OpenStore *store) const { return m_store.get() == store; }
    // Wall-clock microseconds. Returns 0 or a negative errno; the slot is not to be written any more either
    // way.
    int publish(int64_t timestamp);

private:
    const std::shared_ptr<OpenStore> m_store;
    shm_writer_frame_t m_frame;
    const bool m_isPooled;
    bool m_done = false;
};

// Threads: any; every pad of the sink has one of its own.
class StoreFeed
{
public:
    enum class Kind { Video, Audio };

    void configure(const FeedSettings &settings);

    // Which formats the store waits for. The writer is opened when all of them are known, and anew when one
    // changes: readers go over to the new one by themselves.
    void expect(Kind kind);
    // There is no such pad any more: what waited for its format begins, what carried it is opened anew
    // without it. False with the reason in `error`, for a person.
    bool release(Kind kind, std::string *error);
    // As above. May wait for buffers of the former format that are under way; interrupt() ends that.
    bool setVideo(const VideoFormat &format, std::string *error);
    bool setAudio(const AudioFormat &format, std::string *error);
    void interrupt(bool interrupted);
    // The stream of that kind has ended; with the last of them the store goes.
    void end(Kind kind);

    bool keepsRange() const;
    // Null when there is no store of that format yet, or no slot to be had. Of those for upstream's pool
    // there are pooledFrames at most; beyond it buffers are of other memory and copied, for which a slot is
    // kept back.
    enum class For { Pool, Copy };
    std::shared_ptr<Slot> acquire(int width, int height, SHM_PIXEL_FORMAT pixelFormat, For use);
    // Whether `slot` belongs to the store that is open now.
    bool owns(const Slot &slot) const;
    // Interleaved signed 16-bit samples. Returns 0 or a negative errno; -ENODEV when the store is not open
    // yet.
    int publishAudio(const int16_t *samples, uint32_t frames, int64_t timestamp);

    static constexpr uint32_t pooledFrames = 8;

private:
    bool reopen(std::unique_lock<std::mutex> &lock, std::string *error); // with m_mutex held
    bool waitForFormer(std::string *error) const;
    std::shared_ptr<OpenStore> store() const;

    mutable std::mutex m_mutex; // protects what follows
    FeedSettings m_settings;
    bool m_expectVideo = false;
    bool m_expectAudio = false;
    std::optional<VideoFormat> m_video;
    std::optional<AudioFormat> m_audio;
    std::shared_ptr<OpenStore> m_store;
    uint64_t m_formats = 0; // changes of the formats: whoever comes last opens the store
    const std::shared_ptr<OpenCount> m_count = std::make_shared<OpenCount>();
};

} // namespace zevgst

#endif
