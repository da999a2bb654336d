// The inputs "test:", "test:avsync" and "test:bars".
#ifndef ZEVSHM_TESTINPUT_H
#define ZEVSHM_TESTINPUT_H

#include "hostclock.h"
#include "input.h"

#include <zevshm-pattern/testpattern.h>
#include <zevshm-pattern/tones.h>

namespace zevshm {

class TestInput : public Input
{
public:
    struct Settings
    {
        PatternKind kind = PatternKind::Moving;
        int width = 1280;
        int height = 720;
        Ratio rate{25, 1};
        Matrix matrix = Matrix::Bt709;
        AudioFormat audio{48000, 2};
        bool withVideo = true;
        bool withAudio = true;
        int64_t beepOffsetUs = 0; // of the beep against the flash
    };
    TestInput(const Settings &settings, const StopToken &stopToken);

    // The instant at or after `wallUs` at which frame 0 lies, so that frames lie on whole seconds.
    static int64_t alignedStart(int64_t wallInstantUs, Ratio rate);

    void start() override {}
    std::optional<InputFormat> waitForFormat() override;
    void stop() override {}
    void prepare() override;
    bool isLive() const override { return true; }
    bool anchorsClock() const override { return false; }
    bool nextVideo(VideoItem &item) override;
    bool nextAudio(AudioBlock &block) override;
    void fillVideo(const shm_writer_frame_t &slot, int pixelFormat, const VideoFormat &store,
                   const VideoItem &item, uint64_t frameNumber, int64_t labelUs) override;
    void fillAudio(AudioBlock &block, int64_t labelUs) override;

private:
    VideoFormat videoFormat() const;

    const Settings m_settings;
    const StopToken &m_stopToken;
    std::optional<TestPattern> m_pattern; // video thread, from prepare() on
    ToneGenerator m_tones;
    int64_t m_nextFrame = 0;   // video thread
    int64_t m_nextSample = 0;  // audio thread
    int64_t m_blockSample = 0; // audio thread
};

} // namespace zevshm

#endif
