#include "astats.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

namespace {

AstatsLevels astats(const std::string &input)
{
    const std::string command =
        "ffmpeg -hide_banner -nostdin " + input +
        " -af astats=measure_overall=none:measure_perchannel=RMS_level+Peak_level -f null - 2>&1";
    AstatsLevels levels;
    if (FILE *pipe = popen(command.c_str(), "r")) {
        char line[1024];
        while (std::fgets(line, sizeof line, pipe)) {
            if (const char *rms = std::strstr(line, "RMS level dB:"))
                levels.rms.push_back(std::atof(rms + std::strlen("RMS level dB:")));
            if (const char *peak = std::strstr(line, "Peak level dB:"))
                levels.peak.push_back(std::atof(peak + std::strlen("Peak level dB:")));
        }
        EXPECT_EQ(pclose(pipe), 0);
    }
    return levels;
}

} // namespace

AstatsLevels astatsOf(const std::vector<std::int16_t> &samples, int channels, int rate)
{
    char path[] = "/tmp/zev-astats-XXXXXX";
    const int fd = mkstemp(path);
    EXPECT_GE(fd, 0);
    const std::size_t bytes = samples.size() * sizeof(std::int16_t);
    EXPECT_EQ(write(fd, samples.data(), bytes), static_cast<ssize_t>(bytes));
    close(fd);
    const AstatsLevels levels =
        astats("-f s16le -ar " + std::to_string(rate) + " -ac " + std::to_string(channels) + " -i " + path);
    unlink(path);
    return levels;
}

AstatsLevels astatsOf(const std::string &path)
{
    return astats("-i '" + path + "'");
}
