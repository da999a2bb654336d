#include "dumpfolder.h"

#include "color.h"
#include "failure.h"
#include "pngwriter.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace zevshm {

namespace {

struct FileClose
{
    void operator()(std::FILE *file) const { std::fclose(file); }
};

void putLittleEndian(std::vector<uint8_t> &bytes, uint32_t value, int count)
{
    for (int i = 0; i < count; ++i)
        bytes.push_back(static_cast<uint8_t>(value >> 8 * i));
}

void putText(std::vector<uint8_t> &bytes, const char *text)
{
    bytes.insert(bytes.end(), text, text + std::strlen(text));
}

std::string y4mHeader(const Y4mStream &stream)
{
    // 0:0 is "not known".
    uint32_t numerator = stream.info.rate_numerator;
    uint32_t denominator = stream.info.rate_denominator;
    if (numerator == 0 && stream.info.frame_interval_us > 0) {
        numerator = 1000000;
        denominator = static_cast<uint32_t>(stream.info.frame_interval_us);
    }
    const uint8_t siting = stream.info.color.siting;
    const char *chroma = siting == SHM_SITING_CENTER ? "420jpeg"
                         : siting == SHM_SITING_LEFT ? "420mpeg2"
                                                     : "420";
    return "YUV4MPEG2 W" + std::to_string(stream.width) + " H" + std::to_string(stream.height) + " F" +
           std::to_string(numerator) + ":" + std::to_string(denominator) + " Ip A1:1 C" + chroma +
           (stream.info.color.range == SHM_RANGE_LIMITED ? " XCOLORRANGE=LIMITED\n" : " XCOLORRANGE=FULL\n");
}

} // namespace

DumpFolder::DumpFolder(const std::string &path, std::function<void()> check)
    : m_path(path), m_check(std::move(check))
{
    struct stat status
    {};
    if (stat(path.c_str(), &status) == 0) {
        if (!S_ISDIR(status.st_mode))
            throw Failure(ExitOutput, path + ": is not a folder; name a new one");
        std::error_code error;
        const std::filesystem::directory_iterator entries(path, error);
        if (error || access(path.c_str(), W_OK | X_OK) != 0)
            throw Failure(ExitOutput, path + ": cannot be written (" +
                                          std::strerror(error ? error.value() : errno) +
                                          "); check its permissions");
        if (entries != std::filesystem::directory_iterator())
            throw Failure(ExitOutput, path + ": is not empty; name a new folder");
        return;
    }
    const std::string parent = std::filesystem::path(path + "/..").lexically_normal().string();
    if (access(parent.c_str(), W_OK | X_OK) != 0)
        throw Failure(ExitOutput, path + ": cannot be created (" + std::strerror(errno) +
                                      "); check the path and its permissions");
}

DumpFolder::~DumpFolder()
{
    for (const std::string &file : m_written)
        unlink(file.c_str());
    if (m_isOurs)
        rmdir(m_path.c_str());
}

void DumpFolder::make()
{
    if (mkdir(m_path.c_str(), 0777) == 0)
        m_isOurs = true;
    else if (errno != EEXIST)
        throw Failure(ExitOutput, m_path + ": cannot be created (" + std::strerror(errno) +
                                      "); check the path and its permissions");
}

void DumpFolder::write(const std::string &name, const std::function<void(const Put &)> &content)
{
    m_check();
    const std::string path = m_path + "/" + name;
    std::unique_ptr<std::FILE, FileClose> file(std::fopen(path.c_str(), "wbxe"));
    if (!file)
        throw Failure(ExitOutput, path + ": cannot be created (" + std::strerror(errno) +
                                      "); check the permissions and the free space");
    m_written.push_back(path);
    int error = 0;
    const auto note = [&error](bool isGood) {
        if (!isGood && error == 0)
            error = errno;
    };
    content([&](const void *data, size_t bytes) {
        note(error != 0 || std::fwrite(data, 1, bytes, file.get()) == bytes);
    });
    note(std::fflush(file.get()) == 0);
    note(std::fclose(file.release()) == 0);
    if (error != 0)
        throw Failure(ExitOutput, path + ": cannot be written (" + std::strerror(error) +
                                      "); check the free space; nothing of the dump is left");
}

void DumpFolder::writeText(const std::string &name, const std::string &text)
{
    write(name, [&](const Put &put) { put(text.data(), text.size()); });
}

void DumpFolder::writePicture(const std::string &name, const AVFrame &picture, int pixelFormat,
                              const shm_color_t &color)
{
    shm_video_frame_t frame{};
    frame.width = picture.width;
    frame.height = picture.height;
    for (int i = 0; i < 3; ++i) {
        frame.planes[i] = picture.data[i];
        frame.strides[i] = picture.linesize[i];
    }
    shm_color_t known = color;
    if (known.matrix == SHM_MATRIX_UNKNOWN)
        known.matrix = static_cast<uint8_t>(defaultMatrix(picture.height));
    const std::vector<uint8_t> png =
        encodePng(toRgb(frame, pixelFormat, known), picture.width, picture.height);
    write(name, [&](const Put &put) { put(png.data(), png.size()); });
}

void DumpFolder::writeY4m(const std::string &name, const Y4mStream &stream,
                          const std::vector<const AVFrame *> &pictures)
{
    const int chromaWidth = (stream.width + 1) / 2;
    const int chromaHeight = (stream.height + 1) / 2;
    write(name, [&](const Put &put) {
        const std::string header = y4mHeader(stream);
        put(header.data(), header.size());
        std::vector<uint8_t> row(static_cast<size_t>(chromaWidth));
        for (const AVFrame *picture : pictures) {
            m_check();
            put("FRAME\n", 6);
            for (int y = 0; y < stream.height; ++y)
                put(picture->data[0] + std::ptrdiff_t{picture->linesize[0]} * y,
                    static_cast<size_t>(stream.width));
            const bool isNv12 = picture->format == AV_PIX_FMT_NV12;
            for (int plane = 0; plane < 2; ++plane) {
                const int from = isNv12 ? 1 : 1 + plane;
                for (int y = 0; y < chromaHeight; ++y) {
                    const uint8_t *samples =
                        picture->data[from] + std::ptrdiff_t{picture->linesize[from]} * y;
                    for (int x = 0; x < chromaWidth; ++x)
                        row[static_cast<size_t>(x)] = isNv12 ? samples[2 * x + plane] : samples[x];
                    put(row.data(), row.size());
                }
            }
        }
    });
}

void DumpFolder::writeWav(const std::string &name, const std::vector<int16_t> &samples, int sampleRate,
                          int channels)
{
    const auto dataBytes = static_cast<uint32_t>(samples.size() * sizeof(int16_t));
    const auto frameBytes = static_cast<uint32_t>(channels) * 2;
    std::vector<uint8_t> bytes;
    putText(bytes, "RIFF");
    putLittleEndian(bytes, 36 + dataBytes, 4);
    putText(bytes, "WAVEfmt ");
    putLittleEndian(bytes, 16, 4);
    putLittleEndian(bytes, 1, 2); // PCM
    putLittleEndian(bytes, static_cast<uint32_t>(channels), 2);
    putLittleEndian(bytes, static_cast<uint32_t>(sampleRate), 4);
    putLittleEndian(bytes, static_cast<uint32_t>(sampleRate) * frameBytes, 4);
    putLittleEndian(bytes, frameBytes, 2);
    putLittleEndian(bytes, 16, 2);
    putText(bytes, "data");
    putLittleEndian(bytes, dataBytes, 4);
    for (const int16_t sample : samples)
        putLittleEndian(bytes, static_cast<uint16_t>(sample), 2);
    write(name, [&](const Put &put) { put(bytes.data(), bytes.size()); });
}

} // namespace zevshm
