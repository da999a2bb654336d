// What can be published: test inputs and everything that FFmpeg opens, behind one interface.
#ifndef ZEVSHM_INPUT_H
#define ZEVSHM_INPUT_H

#include "audioblocks.h"
#include "options.h"
#include "turn.h"

#include <shm/shm_writer.h>

#include <cmath>
#include <cstdint>
#include <memory>
#include <optional>

struct AVFrame;

namespace zevshm {

// Rates that nobody could tell apart in a year are the same: 30000/1001 and 29.97.
inline bool sameRate(const std::optional<Ratio> &a, const std::optional<Ratio> &b)
{
    if (!a || !b)
        return !a && !b;
    const double first = static_cast<double>(a->numerator) / a->denominator;
    const double second = static_cast<double>(b->numerator) / b->denominator;
    return std::abs(first - second) <= 0.0001 * first;
}

struct VideoFormat
{
    int width = 0;
    int height = 0;
    shm_color_t color{};
    std::optional<Ratio> rate; // when the input knows it

    bool operator==(const VideoFormat &other) const
    {
        return sameRate(rate, other.rate) && width == other.width && height == other.height &&
               color.matrix == other.color.matrix && color.range == other.color.range &&
               color.transfer == other.color.transfer && color.siting == other.color.siting;
    }
    bool operator!=(const VideoFormat &other) const { return !(*this == other); }
};

struct AudioFormat
{
    int sampleRate = 0;
    int channels = 0;
};

struct InputFormat
{
    std::optional<VideoFormat> video;
    std::optional<AudioFormat> audio;
};

struct VideoItem
{
    int64_t mediaUs = 0;
    VideoFormat format;
    std::shared_ptr<AVFrame> picture; // null for test inputs
    Turn turn = Turn::None;           // of the picture; `format` is that of the turned one
};

// Usage: start(), waitForFormat(), then one thread takes video and another one audio until they end; stop().
// Threads: nextVideo() and fillVideo() in one thread, nextAudio() and fillAudio() in one, stop() in any.
// Units: microseconds of media time, which starts near 0 and never jumps; labels on the wall clock.
// Errors: Failure out of start() and waitForFormat(); afterwards an input only ends.
class Input
{
public:
    virtual ~Input() = default;

    virtual void start() = 0;
    // Waits until it is known what the input carries. Empty when stopped meanwhile.
    virtual std::optional<InputFormat> waitForFormat() = 0;
    virtual void stop() = 0;
    // What the first frame would need time for; called once the store has its memory, before time starts.
    virtual void prepare() {}

    // Frames come by themselves and late ones are worthless (a test pattern, a network stream); otherwise the
    // input waits for us and keeps its place when we are late (a file).
    virtual bool isLive() const = 0;
    // The clock is anchored by the arrivals, not by the publisher.
    virtual bool anchorsClock() const = 0;

    // Waits for the next frame or block. False: ended or stopped.
    virtual bool nextVideo(VideoItem &item) = 0;
    virtual bool nextAudio(AudioBlock &block) = 0;

    // Writes the frame into a slot of the store, in the format that the store was opened with.
    virtual void fillVideo(const shm_writer_frame_t &slot, int pixelFormat, const VideoFormat &store,
                           const VideoItem &item, uint64_t frameNumber, int64_t labelUs) = 0;
    virtual void fillAudio(AudioBlock &block, int64_t labelUs)
    {
        (void)block;
        (void)labelUs;
    }
};

} // namespace zevshm

#endif
