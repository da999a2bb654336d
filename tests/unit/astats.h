#ifndef ZEV_TESTS_ASTATS_H
#define ZEV_TESTS_ASTATS_H

#include <cstdint>
#include <string>
#include <vector>

/*! What the ffmpeg program's astats filter says about samples, in decibels, one value per channel. */
struct AstatsLevels
{
    std::vector<double> rms;
    std::vector<double> peak;
};

/*! Of interleaved samples. No values when the program cannot be run. */
AstatsLevels astatsOf(const std::vector<std::int16_t> &samples, int channels, int rate);
/*! Of a sound file, as ffmpeg reads it. */
AstatsLevels astatsOf(const std::string &path);

#endif
