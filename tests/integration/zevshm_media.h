// Media files for the tests of the command-line tool, made with the FFmpeg libraries.
#ifndef ZEVSHM_MEDIA_H
#define ZEVSHM_MEDIA_H

#include <zevshm-pattern/testpattern.h>

#include <cstdint>
#include <string>
#include <vector>

namespace driver {

struct MediaPlan
{
    int width = 320;
    int height = 240;
    int frames = 25;
    int rate = 25;
    int rateDenominator = 1;
    zevshm::PatternKind kind = zevshm::PatternKind::Moving;
    zevshm::Matrix matrix = zevshm::Matrix::Bt601;
    bool tagMatrix = true; // say the matrix in the file
    bool limitedRange = true;
    bool withAudio = true;
    bool interlaced = false;
    double pixelAspect = 1; // width by height of a pixel
    int turnClockwise = 0;  // degrees that a player has to turn the pictures by
    bool mirrored = false;  // that a player has to mirror them, too
};

// Writes a Matroska file, or a QuickTime one for pictures to be turned: lossless video, 48 kHz stereo tones.
// True when it is complete.
bool writeMedia(const std::string &path, const MediaPlan &plan);

// The first frame of a file as FFmpeg decodes and converts it by itself: full-range RGB, 3 bytes a pixel.
std::vector<uint8_t> decodeFirstFrame(const std::string &path, zevshm::Matrix matrix);

// Means of R, G and B over a part of an RGB picture.
struct Means
{
    double r, g, b;
};
Means means(const std::vector<uint8_t> &rgb, int width, int x0, int x1, int y0, int y1);

} // namespace driver

#endif
