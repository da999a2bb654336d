#include "pngwriter.h"

#include "color.h"
#include "failure.h"
#include "ffmpeg.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zevshm {

std::vector<uint8_t> toRgb(const shm_video_frame_t &frame, int pixelFormat, const shm_color_t &color)
{
    const AVPixelFormat format = pixelFormat == SHM_PIXEL_FORMAT_NV12 ? AV_PIX_FMT_NV12 : AV_PIX_FMT_YUV420P;
    const AvPtr<SwsContext> scaler(
        sws_getContext(frame.width, frame.height, format, frame.width, frame.height, AV_PIX_FMT_RGB24,
                       SWS_BICUBIC | SWS_ACCURATE_RND | SWS_FULL_CHR_H_INT, nullptr, nullptr, nullptr));
    if (!scaler)
        throw Failure(ExitResources, "no memory for a color conversion; end other programs");
    sws_setColorspaceDetails(scaler.get(), swsCoefficients(color.matrix), color.range != SHM_RANGE_LIMITED,
                             sws_getCoefficients(SWS_CS_DEFAULT), 1, 0, 1 << 16, 1 << 16);
    const size_t rowBytes = 3 * static_cast<size_t>(frame.width);
    // swscale may write a little beyond the end of a row: harmless inside, room is needed after the last one.
    std::vector<uint8_t> rgb(rowBytes * static_cast<size_t>(frame.height) + 64);
    uint8_t *planes[4] = {rgb.data(), nullptr, nullptr, nullptr};
    const int strides[4] = {static_cast<int>(rowBytes), 0, 0, 0};
    sws_scale(scaler.get(), frame.planes, frame.strides, 0, frame.height, planes, strides);
    rgb.resize(rowBytes * static_cast<size_t>(frame.height));
    return rgb;
}

std::vector<uint8_t> encodePng(const std::vector<uint8_t> &rgb, int width, int height)
{
    const AVCodec *codec = avcodec_find_encoder(AV_CODEC_ID_PNG);
    const AvPtr<AVCodecContext> encoder(codec ? avcodec_alloc_context3(codec) : nullptr);
    const AvPtr<AVFrame> frame(av_frame_alloc());
    const AvPtr<AVPacket> packet(av_packet_alloc());
    if (!encoder || !frame || !packet)
        throw Failure(ExitInternal, "this FFmpeg has no PNG encoder; install a complete one");
    encoder->width = frame->width = width;
    encoder->height = frame->height = height;
    encoder->pix_fmt = AV_PIX_FMT_RGB24;
    frame->format = AV_PIX_FMT_RGB24;
    encoder->time_base = {1, 25};
    int rc = avcodec_open2(encoder.get(), codec, nullptr);
    if (rc >= 0)
        rc = av_frame_get_buffer(frame.get(), 0);
    if (rc >= 0) {
        av_image_copy_plane(frame->data[0], frame->linesize[0], rgb.data(), 3 * width, 3 * width, height);
        rc = avcodec_send_frame(encoder.get(), frame.get());
    }
    if (rc >= 0)
        rc = avcodec_receive_packet(encoder.get(), packet.get());
    if (rc < 0)
        throw Failure(ExitInternal,
                      "the picture cannot be encoded (" + avError(rc) + "); publish smaller frames");
    return {packet->data, packet->data + packet->size};
}

void checkPngPath(const std::string &path)
{
    if (path == "-")
        return;
    const std::filesystem::path file(path);
    const std::string type = file.extension().string();
    if (!type.empty() && strcasecmp(type.c_str(), ".png") != 0)
        throw Failure(ExitUsage, "snapshot: '" + path + "': pictures are PNG files only; name it '" +
                                     file.filename().replace_extension(".png").string() + "'");
    const std::string folder = file.has_parent_path() ? file.parent_path().string() : ".";
    const bool isThere = access(path.c_str(), F_OK) == 0;
    if (isThere ? access(path.c_str(), W_OK) != 0 : access(folder.c_str(), W_OK | X_OK) != 0)
        throw Failure(ExitOutput, path + ": cannot be created (" + std::strerror(errno) +
                                      "); check the path and its permissions");
}

void writeFile(const std::string &path, const std::vector<uint8_t> &bytes)
{
    const bool toOutput = path == "-";
    std::FILE *file = toOutput ? stdout : std::fopen(path.c_str(), "wbe");
    if (!file)
        throw Failure(ExitOutput, path + ": cannot be created (" + std::strerror(errno) +
                                      "); check the path and its permissions");
    errno = 0;
    bool good = std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
    good = std::fflush(file) == 0 && good;
    const int error = errno;
    if (!toOutput) {
        struct stat status
        {};
        const bool isFile = fstat(fileno(file), &status) == 0 && S_ISREG(status.st_mode);
        std::fclose(file);
        if (!good && isFile) // never a device
            unlink(path.c_str());
    }
    if (!good)
        throw Failure(ExitOutput,
                      path + ": cannot be written (" + std::strerror(error) + "); check the free space");
}

} // namespace zevshm
