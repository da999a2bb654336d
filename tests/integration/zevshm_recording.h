// What is in a recording, as FFmpeg decodes it.
#ifndef ZEVSHM_RECORDING_H
#define ZEVSHM_RECORDING_H

#include <zevshm-pattern/blockcode.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace driver {

struct Recording
{
    struct Picture
    {
        int64_t us = 0; // in the recording's time
        int width = 0;
        int height = 0;
        bool isFullRange = false;
        std::optional<zevshm::BlockCode> code;
        double luma = 0; // mean of the upper half, 0 to 255
    };
    std::vector<Picture> pictures;

    int sampleRate = 0;
    int channels = 0;
    int64_t soundUs = 0;          // of the first sample
    std::vector<int16_t> samples; // interleaved
    int tracks = 0;               // of sound; the samples are of the first

    int64_t originUs = 0; // the store's timestamp that it says for time 0; 0: it says none

    // Where the pictures become bright, and where the sound starts after silence.
    std::vector<int64_t> flashes() const;
    std::vector<int64_t> beeps() const;
};

// Nothing when it cannot be opened or decoded to its end.
std::optional<Recording> readRecording(const std::string &path);

} // namespace driver

#endif
