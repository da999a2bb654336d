// FFmpeg's objects with owners, and its errors in words.
#ifndef ZEVSHM_FFMPEG_H
#define ZEVSHM_FFMPEG_H

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/avutil.h>
#include <libavutil/frame.h>
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

#include <memory>
#include <string>

namespace zevshm {

struct AvDelete
{
    void operator()(AVFrame *frame) const { av_frame_free(&frame); }
    void operator()(AVPacket *packet) const { av_packet_free(&packet); }
    void operator()(AVCodecContext *codec) const { avcodec_free_context(&codec); }
    void operator()(AVFormatContext *format) const { avformat_close_input(&format); }
    void operator()(SwsContext *scaler) const { sws_freeContext(scaler); }
    void operator()(SwrContext *resampler) const { swr_free(&resampler); }
};
template <typename T>
using AvPtr = std::unique_ptr<T, AvDelete>;

inline std::string avError(int code)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return text;
}

} // namespace zevshm

#endif
