// A store whose every frame and sample is known, and that goes on only when it is told to.
#ifndef ZEVSHM_OWNSTORE_H
#define ZEVSHM_OWNSTORE_H

#include <shm/shm_writer.h>

#include <zevshm-pattern/testpattern.h>
#include <zevshm-pattern/tones.h>

#include <string>

namespace driver {

// Published by the test's process: 25 frames a second by their timestamps, at whatever pace; with every frame
// its 40 ms of 48 kHz stereo sound. The pictures are the moving test picture in BT.601, full range.
class OwnStore
{
public:
    static constexpr int64_t intervalUs = 40000;
    static constexpr int sampleRate = 48000;
    static constexpr int samplesAFrame = sampleRate / 25;

    struct Plan
    {
        bool video = true;
        int audioStreams = 1; // 0: no sound; stream n is the main one divided by n + 1
        int pixelFormat = SHM_PIXEL_FORMAT_YUV420P;
    };
    OwnStore(const std::string &name, int width, int height) : OwnStore(name, width, height, Plan()) {}
    OwnStore(const std::string &name, int width, int height, const Plan &plan);
    ~OwnStore();
    OwnStore(const OwnStore &) = delete;
    OwnStore &operator=(const OwnStore &) = delete;

    // The next frame and the sound that belongs to it.
    void publish();
    // The same so often, at the pace of a camera that is in no hurry.
    void publish(int frames, int paceMs = 10);
    // The next timestamps come so much later.
    void skip(int64_t us) { m_nowUs += us; }
    // Frames alone from now on.
    void stopSound() { m_plan.audioStreams = 0; }

    int number() const { return m_number; }   // of the next frame
    int64_t nowUs() const { return m_nowUs; } // its timestamp
    shm_writer_stats_t stats() const;

private:
    Plan m_plan;
    zevshm::TestPattern m_pattern;
    zevshm::ToneGenerator m_tones;
    shm_writer_t *m_writer = nullptr;
    int64_t m_nowUs = 0;
    int m_number = 0;
};

} // namespace driver

#endif
