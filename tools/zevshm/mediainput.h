// Inputs that FFmpeg opens: files, network streams, pipes.
#ifndef ZEVSHM_MEDIAINPUT_H
#define ZEVSHM_MEDIAINPUT_H

#include "audioconverter.h"
#include "cadence.h"
#include "demuxer.h"
#include "input.h"
#include "slotconverter.h"

#include <deque>
#include <thread>

namespace zevshm {

// Reads and decodes ahead in a thread of its own, a few frames and a little sound; converts into slots in the
// publisher's video thread.
//
// Media time starts at the first video frame and goes on through loops, jumps and reconnections. A network
// stream that ends or fails is opened again, after 0.5 s at first and every 8 s at most, for as long as it
// takes; only the very first attempt is reported as a failure.
//
// Threads, Units, Errors: as Input says. start() and waitForFormat() throw what opening finds wrong.
// Cost: at most `queuedFrames` decoded pictures, and about as long a piece of sound.
class MediaInput : public Input
{
public:
    struct Settings
    {
        std::string input;
        bool loop = false;
        bool withVideo = true;
        bool withAudio = true;
        std::optional<Ratio> rate; // wanted, instead of the input's own
        std::optional<int> sampleRate;
        std::optional<int> channels;
        int64_t latencyUs = 100000; // of live inputs: hides the network's jitter
        bool scaled = false;        // to a size that was asked for
    };
    MediaInput(const Settings &settings, SharedClock &clock, StopToken &stopToken);
    ~MediaInput() override;

    void start() override;
    std::optional<InputFormat> waitForFormat() override;
    void stop() override;
    bool isLive() const override { return m_live; }
    bool anchorsClock() const override { return m_live; }
    bool nextVideo(VideoItem &item) override;
    bool nextAudio(AudioBlock &block) override;
    void fillVideo(const shm_writer_frame_t &slot, int pixelFormat, const VideoFormat &store,
                   const VideoItem &item, uint64_t frameNumber, int64_t labelUs) override;

    static constexpr size_t queuedFrames = 6;
    static constexpr size_t queuedBlocks = 30;     // 10 ms each
    static constexpr size_t mostQueuedFrames = 24; // while the other stream has nothing yet
    static constexpr size_t mostQueuedBlocks = 1000;

private:
    void run();
    bool openAgain();
    bool startOver();
    void onVideo(AvPtr<AVFrame> frame, int64_t ptsUs);
    void onAudio(const AVFrame &frame, int64_t ptsUs);
    void takeBlocks();
    int64_t mediaTime(int64_t ptsUs, bool isVideo);
    void push(int64_t mediaUs, const std::shared_ptr<AVFrame> &picture);
    void remark(const AVFrame &frame);
    void waitForRoom();
    void end(std::exception_ptr failure);

    const Settings m_settings;
    const InputName m_name;
    SharedClock &m_clock;
    StopToken &m_stopToken;
    std::thread m_thread;
    SlotConverter m_converter; // video thread of the publisher

    // Written before the thread starts.
    bool m_live = false;
    bool m_hasVideo = false;
    bool m_hasAudio = false;
    AudioFormat m_audioFormat;

    // The decoding thread's.
    std::unique_ptr<Demuxer> m_demuxer;
    std::optional<Ratio> m_rate; // of what is published
    bool m_remarked = false;
    std::optional<CadenceSnap> m_snap;
    std::optional<RateConversion> m_rateConversion;
    std::shared_ptr<AVFrame> m_previous; // for a rate higher than the input's
    std::unique_ptr<AudioConverter> m_audioConverter;
    std::optional<AudioBlocks> m_blocks;
    std::optional<int64_t> m_baseUs; // the input's time at media time m_offsetUs
    int64_t m_offsetUs = 0;
    int64_t m_passEndUs = 0; // media time at which the next pass of a loop starts
    bool m_passHasFrames = false;

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<VideoItem> m_video;  // protected by m_mutex
    std::deque<AudioBlock> m_audio; // protected by m_mutex
    bool m_ended = false;           // protected by m_mutex
    bool m_formatTaken = false;     // protected by m_mutex
    std::exception_ptr m_failure;   // protected by m_mutex
};

} // namespace zevshm

#endif
