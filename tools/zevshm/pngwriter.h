// Frames of a store as PNG files.
#ifndef ZEVSHM_PNGWRITER_H
#define ZEVSHM_PNGWRITER_H

#include <shm/shm_reader.h>

#include <cstdint>
#include <string>
#include <vector>

namespace zevshm {

// Full-range RGB, three bytes a pixel, rows without padding, from a locked frame; matrix and range as given.
// Failure (ExitResources) without memory.
std::vector<uint8_t> toRgb(const shm_video_frame_t &frame, int pixelFormat, const shm_color_t &color);

// The bytes of a PNG file. Failure (ExitInternal) when FFmpeg has no PNG encoder.
std::vector<uint8_t> encodePng(const std::vector<uint8_t> &rgb, int width, int height);

// Whether writeFile() can be expected to do it: Failure for the name of another kind of file (ExitUsage) and
// for a place that cannot be written (ExitOutput). Creates nothing.
void checkPngPath(const std::string &path);

// "-" is standard output. Failure (ExitOutput); a file that could not be completed is removed.
void writeFile(const std::string &path, const std::vector<uint8_t> &bytes);

} // namespace zevshm

#endif
