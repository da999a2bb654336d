// The files of a dump.
#ifndef ZEVSHM_DUMPFOLDER_H
#define ZEVSHM_DUMPFOLDER_H

#include "ffmpeg.h"

#include <shm/shm_reader.h>

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace zevshm {

struct Y4mStream
{
    int width = 0;
    int height = 0;
    const shm_store_info_t &info; // rate and colors
};

// A folder that is complete, or not there.
//
// Usage: construct (checks, changes nothing), make(), write..., keep(). Without keep() what was written is
// removed again, and the folder too when make() made it. `check` is called before every file and picture;
// what it throws ends the writing. Errors: Failure (ExitOutput).
class DumpFolder
{
public:
    DumpFolder(const std::string &path, std::function<void()> check);
    ~DumpFolder();
    DumpFolder(const DumpFolder &) = delete;
    DumpFolder &operator=(const DumpFolder &) = delete;

    void make();
    void keep() { m_written.clear(), m_isOurs = false; }

    void writePicture(const std::string &name, const AVFrame &picture, int pixelFormat,
                      const shm_color_t &color);
    void writeY4m(const std::string &name, const Y4mStream &stream,
                  const std::vector<const AVFrame *> &pictures);
    // Interleaved signed 16-bit.
    void writeWav(const std::string &name, const std::vector<int16_t> &samples, int sampleRate, int channels);
    void writeText(const std::string &name, const std::string &text);

private:
    using Put = std::function<void(const void *, size_t)>;
    void write(const std::string &name, const std::function<void(const Put &)> &content);

    const std::string m_path;
    const std::function<void()> m_check;
    bool m_isOurs = false;
    std::vector<std::string> m_written;
};

} // namespace zevshm

#endif
