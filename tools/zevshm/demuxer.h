// One opened media input: its streams, taken apart and decoded.
#ifndef ZEVSHM_DEMUXER_H
#define ZEVSHM_DEMUXER_H

#include "camera.h"
#include "ffmpeg.h"
#include "hostclock.h"
#include "input.h"
#include "streamio.h"

#include <functional>
#include <memory>
#include <string>

namespace zevshm {

// What kind of thing an input's name is.
struct InputName
{
    explicit InputName(const std::string &input);

    std::string url;     // for FFmpeg; empty: read from `pipePath` or standard input
    std::string display; // for messages: without user name and password
    std::string pipePath;
    bool isPipe = false;
    bool isNetwork = false; // can drop and come back
    bool isLive = false;    // is sent as it happens
    bool isCamera = false;  // a capture device of this machine; drops and comes back, too
};

// Usage: open(), then step() until it does not answer Again; rewind() starts over.
// Threads: one at a time.
// Errors: Failure out of open() (ExitInput: missing, unreadable, unreachable; ExitMedia: nothing to decode).
// Damaged packets are skipped and counted.
class Demuxer
{
public:
    struct Wishes
    {
        bool video = true;
        bool audio = true;
    };
    // Decoded frames with their timestamps in microseconds of the input's own time.
    struct Sink
    {
        std::function<void(AvPtr<AVFrame> frame, int64_t ptsUs)> video;
        std::function<void(const AVFrame &frame, int64_t ptsUs)> audio;
    };
    enum class Result { Again, End, Failed };

    Demuxer(const InputName &name, Wishes wishes, const StopToken &stopToken);
    ~Demuxer();

    void open();
    Result step(const Sink &sink);
    bool rewind();

    bool hasVideo() const { return m_video.stream != nullptr; }
    bool hasAudio() const { return m_audio.stream != nullptr; }
    std::optional<Ratio> rate() const; // of the video, when the container knows it
    double videoTickUs() const;        // what one step of the video's time base lasts
    AudioFormat audioFormat() const;
    // How the pictures have to be turned to stand upright; nothing when no quarter turn does that.
    std::optional<Turn> turn() const;
    // Width by height of a pixel of this frame; 1 when nobody says.
    double pixelAspect(const AVFrame &frame) const;
    std::optional<int64_t> videoStartUs() const;
    bool isLive() const { return m_live; }
    uint64_t damaged() const { return m_damaged; }
    const std::string &lastError() const { return m_lastError; }

private:
    struct Decoder
    {
        AVStream *stream = nullptr;
        AvPtr<AVCodecContext> codec;
        int64_t lastUs = INT64_MIN;
        int64_t lastDtsUs = INT64_MIN;
        int64_t durationUs = 0; // of the last frame
    };

    [[noreturn]] void refuse(int error) const;
    Result waitForCamera();
    bool openDecoder(Decoder &decoder, AVMediaType type);
    void correctJump(Decoder &decoder, AVPacket &packet);
    void decode(Decoder &decoder, const AVPacket *packet, const Sink &sink);
    void handOut(Decoder &decoder, AvPtr<AVFrame> frame, const Sink &sink);
    static int interrupted(void *self);

    const InputName m_name;
    const Wishes m_wishes;
    const StopToken &m_stopToken;
    int m_pipeFd = -1; // owned unless it is standard input
    std::unique_ptr<PipeReader> m_pipe;
    AvPtr<AVFormatContext> m_format;
    AvPtr<AVPacket> m_packet;
    Decoder m_video;
    Decoder m_audio;
    bool m_live = false;
    bool m_drained = false;
    int64_t m_deadlineUs = INT64_MAX;  // monotonic; a network call that lasts longer is given up
    int64_t m_lastPacketUs = 0;        // monotonic; of a camera
    zevmm::v4l2::CameraState m_camera; // as it was when it was asked last
    int64_t m_jumpUs = 0;              // added to timestamps after jumps in the input
    uint64_t m_damaged = 0;
    std::string m_lastError;
};

} // namespace zevshm

#endif
