// FFmpeg's objects with owners, and its errors in words.
#ifndef ZEVSHM_FFMPEG_H
#define ZEVSHM_FFMPEG_H

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/avutil.h>
#include <libavutil/display.h>
#include <libavutil/frame.h>
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

#include <cstdint>
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
    void operator()(AVAudioFifo *fifo) const { av_audio_fifo_free(fifo); }
};
struct OutputDelete // of a context made by avformat_alloc_output_context2()
{
    void operator()(AVFormatContext *format) const
    {
        if (format->pb && !(format->oformat->flags & AVFMT_NOFILE))
            avio_closep(&format->pb);
        avformat_free_context(format);
    }
};
using OutputPtr = std::unique_ptr<AVFormatContext, OutputDelete>;
template <typename T>
using AvPtr = std::unique_ptr<T, AvDelete>;

inline std::string avError(int code)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return text;
}

// How a stream's pictures lie: nine numbers, as libavutil/display.h explains. Null: as they are to be shown.
inline const int32_t *displayMatrix(const AVStream *stream)
{
#if LIBAVFORMAT_VERSION_INT >= AV_VERSION_INT(60, 15, 100)
    const AVPacketSideData *data = av_packet_side_data_get(
        stream->codecpar->coded_side_data, stream->codecpar->nb_coded_side_data, AV_PKT_DATA_DISPLAYMATRIX);
    return data && data->size >= 9 * sizeof(int32_t) ? reinterpret_cast<const int32_t *>(data->data)
                                                     : nullptr;
#else
    size_t size = 0;
    const uint8_t *data = av_stream_get_side_data(stream, AV_PKT_DATA_DISPLAYMATRIX, &size);
    return data && size >= 9 * sizeof(int32_t) ? reinterpret_cast<const int32_t *>(data) : nullptr;
#endif
}

// What an encoder takes: lists that end in -1 (formats) or 0 (rates); null: everything.
#if LIBAVCODEC_VERSION_INT >= AV_VERSION_INT(61, 13, 100)
inline const void *supportedBy(const AVCodec *codec, AVCodecConfig config)
{
    const void *list = nullptr;
    avcodec_get_supported_config(nullptr, codec, config, 0, &list, nullptr);
    return list;
}
inline const AVPixelFormat *pixelFormatsOf(const AVCodec *codec)
{
    return static_cast<const AVPixelFormat *>(supportedBy(codec, AV_CODEC_CONFIG_PIX_FORMAT));
}
inline const AVSampleFormat *sampleFormatsOf(const AVCodec *codec)
{
    return static_cast<const AVSampleFormat *>(supportedBy(codec, AV_CODEC_CONFIG_SAMPLE_FORMAT));
}
inline const int *sampleRatesOf(const AVCodec *codec)
{
    return static_cast<const int *>(supportedBy(codec, AV_CODEC_CONFIG_SAMPLE_RATE));
}
#else
inline const AVPixelFormat *pixelFormatsOf(const AVCodec *codec)
{
    return codec->pix_fmts;
}
inline const AVSampleFormat *sampleFormatsOf(const AVCodec *codec)
{
    return codec->sample_fmts;
}
inline const int *sampleRatesOf(const AVCodec *codec)
{
    return codec->supported_samplerates;
}
#endif

inline bool isInterlaced(const AVFrame &frame)
{
#ifdef AV_FRAME_FLAG_INTERLACED
    return (frame.flags & AV_FRAME_FLAG_INTERLACED) != 0;
#else
    return frame.interlaced_frame != 0;
#endif
}

} // namespace zevshm

#endif
