#include "zevshm_media.h"

#include "ffmpeg.h"

#include <zevshm-pattern/tones.h>

#include <algorithm>
#include <cstring>

namespace driver {

using namespace zevshm;

namespace {

struct Output
{
    ~Output()
    {
        if (format && format->pb)
            avio_closep(&format->pb);
        avformat_free_context(format);
    }
    AVFormatContext *format = nullptr;
};

bool writePackets(AVFormatContext *format, AVCodecContext *encoder, AVStream *stream, const AVFrame *frame)
{
    if (avcodec_send_frame(encoder, frame) < 0)
        return false;
    const AvPtr<AVPacket> packet(av_packet_alloc());
    while (avcodec_receive_packet(encoder, packet.get()) == 0) {
        av_packet_rescale_ts(packet.get(), encoder->time_base, stream->time_base);
        packet->stream_index = stream->index;
        if (av_interleaved_write_frame(format, packet.get()) < 0)
            return false;
    }
    return true;
}

void toLimited(AVFrame &frame)
{
    for (int plane = 0; plane < 3; ++plane) {
        const int width = plane ? (frame.width + 1) / 2 : frame.width;
        const int height = plane ? (frame.height + 1) / 2 : frame.height;
        for (int row = 0; row < height; ++row) {
            uint8_t *line = frame.data[plane] + row * frame.linesize[plane];
            for (int i = 0; i < width; ++i)
                line[i] = static_cast<uint8_t>(
                    plane ? 128 + ((line[i] - 128) * 224 + (line[i] < 128 ? -127 : 127)) / 255
                          : 16 + (line[i] * 219 + 127) / 255);
        }
    }
}

void addDisplayMatrix(AVStream *stream, const MediaPlan &plan)
{
    if (plan.turnClockwise == 0 && !plan.mirrored)
        return;
    int32_t matrix[9];
    // Unlike the getter it takes degrees clockwise.
    av_display_rotation_set(matrix, plan.turnClockwise);
    av_display_matrix_flip(matrix, plan.mirrored, 0);
#if LIBAVFORMAT_VERSION_INT >= AV_VERSION_INT(60, 15, 100)
    AVPacketSideData *data =
        av_packet_side_data_new(&stream->codecpar->coded_side_data, &stream->codecpar->nb_coded_side_data,
                                AV_PKT_DATA_DISPLAYMATRIX, sizeof matrix, 0);
    std::memcpy(data->data, matrix, sizeof matrix);
#else
    std::memcpy(av_stream_new_side_data(stream, AV_PKT_DATA_DISPLAYMATRIX, sizeof matrix), matrix,
                sizeof matrix);
#endif
}

void markInterlaced(AVFrame &frame)
{
#ifdef AV_FRAME_FLAG_INTERLACED
    frame.flags |= AV_FRAME_FLAG_INTERLACED | AV_FRAME_FLAG_TOP_FIELD_FIRST;
#else
    frame.interlaced_frame = 1;
    frame.top_field_first = 1;
#endif
}

AvPtr<AVCodecContext> makeEncoder(AVFormatContext *format, const MediaPlan &plan, bool video,
                                  AVStream **stream)
{
    const AVCodec *codec = avcodec_find_encoder(video ? AV_CODEC_ID_FFV1 : AV_CODEC_ID_PCM_S16LE);
    AvPtr<AVCodecContext> encoder(codec ? avcodec_alloc_context3(codec) : nullptr);
    if (!encoder)
        return nullptr;
    if (video) {
        encoder->width = plan.width;
        encoder->height = plan.height;
        encoder->pix_fmt = AV_PIX_FMT_YUV420P;
        encoder->time_base = {plan.rateDenominator, plan.rate};
        encoder->framerate = {plan.rate, plan.rateDenominator};
        encoder->color_range = plan.limitedRange ? AVCOL_RANGE_MPEG : AVCOL_RANGE_JPEG;
        if (plan.tagMatrix)
            encoder->colorspace = plan.matrix == Matrix::Bt601 ? AVCOL_SPC_SMPTE170M : AVCOL_SPC_BT709;
        encoder->level = 3; // says for every frame whether it is interlaced
        encoder->sample_aspect_ratio = av_d2q(plan.pixelAspect, 100);
    } else {
        encoder->sample_fmt = AV_SAMPLE_FMT_S16;
        encoder->sample_rate = 48000;
        encoder->time_base = {1, 48000};
        av_channel_layout_default(&encoder->ch_layout, 2);
    }
    if (format->oformat->flags & AVFMT_GLOBALHEADER)
        encoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    if (avcodec_open2(encoder.get(), codec, nullptr) < 0)
        return nullptr;
    *stream = avformat_new_stream(format, nullptr);
    (*stream)->time_base = encoder->time_base;
    if (video)
        (*stream)->avg_frame_rate = encoder->framerate;
    avcodec_parameters_from_context((*stream)->codecpar, encoder.get());
    if (video) {
        (*stream)->sample_aspect_ratio = encoder->sample_aspect_ratio;
        addDisplayMatrix(*stream, plan);
    }
    return encoder;
}

} // namespace

bool writeMedia(const std::string &path, const MediaPlan &plan)
{
    av_log_set_level(AV_LOG_QUIET);
    Output output;
    // Matroska says nothing of how pictures are to be turned.
    const char *container = plan.turnClockwise || plan.mirrored ? "mov" : "matroska";
    if (avformat_alloc_output_context2(&output.format, nullptr, container, path.c_str()) < 0)
        return false;
    AVStream *videoStream = nullptr;
    AVStream *audioStream = nullptr;
    const auto video = makeEncoder(output.format, plan, true, &videoStream);
    const auto audio = plan.withAudio ? makeEncoder(output.format, plan, false, &audioStream) : nullptr;
    if (!video || (plan.withAudio && !audio) ||
        avio_open(&output.format->pb, path.c_str(), AVIO_FLAG_WRITE) < 0 ||
        avformat_write_header(output.format, nullptr) < 0)
        return false;

    TestPattern pattern(plan.kind, plan.width, plan.height, plan.matrix);
    const ToneGenerator tones(48000, 2);
    const int samplesAFrame = 48000 * plan.rateDenominator / plan.rate;
    for (int i = 0; i < plan.frames; ++i) {
        const AvPtr<AVFrame> frame(av_frame_alloc());
        frame->width = plan.width;
        frame->height = plan.height;
        frame->format = AV_PIX_FMT_YUV420P;
        frame->pts = i;
        if (av_frame_get_buffer(frame.get(), 0) < 0)
            return false;
        PlaneSet planes;
        planes.width = plan.width;
        planes.height = plan.height;
        for (int plane = 0; plane < 3; ++plane) {
            planes.planes[plane] = frame->data[plane];
            planes.strides[plane] = frame->linesize[plane];
        }
        pattern.draw(planes, static_cast<uint32_t>(i),
                     static_cast<int64_t>(i) * 1000000 * plan.rateDenominator / plan.rate, 0);
        if (plan.limitedRange)
            toLimited(*frame);
        if (plan.interlaced)
            markInterlaced(*frame);
        if (!writePackets(output.format, video.get(), videoStream, frame.get()))
            return false;
        if (!audio)
            continue;
        const AvPtr<AVFrame> sound(av_frame_alloc());
        sound->nb_samples = samplesAFrame;
        sound->format = AV_SAMPLE_FMT_S16;
        sound->sample_rate = 48000;
        av_channel_layout_default(&sound->ch_layout, 2);
        sound->pts = static_cast<int64_t>(i) * samplesAFrame;
        if (av_frame_get_buffer(sound.get(), 0) < 0)
            return false;
        tones.tones(reinterpret_cast<int16_t *>(sound->data[0]), samplesAFrame, sound->pts);
        if (!writePackets(output.format, audio.get(), audioStream, sound.get()))
            return false;
    }
    writePackets(output.format, video.get(), videoStream, nullptr);
    if (audio)
        writePackets(output.format, audio.get(), audioStream, nullptr);
    return av_write_trailer(output.format) == 0;
}

std::vector<uint8_t> decodeFirstFrame(const std::string &path, Matrix matrix)
{
    AVFormatContext *opened = nullptr;
    if (avformat_open_input(&opened, path.c_str(), nullptr, nullptr) < 0)
        return {};
    const AvPtr<AVFormatContext> format(opened);
    const AVCodec *codec = nullptr;
    if (avformat_find_stream_info(opened, nullptr) < 0)
        return {};
    const int index = av_find_best_stream(opened, AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0);
    if (index < 0)
        return {};
    const AvPtr<AVCodecContext> decoder(avcodec_alloc_context3(codec));
    avcodec_parameters_to_context(decoder.get(), opened->streams[index]->codecpar);
    if (avcodec_open2(decoder.get(), codec, nullptr) < 0)
        return {};
    const AvPtr<AVPacket> packet(av_packet_alloc());
    const AvPtr<AVFrame> frame(av_frame_alloc());
    while (avcodec_receive_frame(decoder.get(), frame.get()) != 0) {
        av_packet_unref(packet.get());
        if (av_read_frame(opened, packet.get()) < 0)
            avcodec_send_packet(decoder.get(), nullptr);
        else if (packet->stream_index == index)
            avcodec_send_packet(decoder.get(), packet.get());
    }
    const int width = frame->width;
    const int height = frame->height;
    const AvPtr<SwsContext> scaler(sws_getContext(width, height, static_cast<AVPixelFormat>(frame->format),
                                                  width, height, AV_PIX_FMT_RGB24,
                                                  SWS_BICUBIC | SWS_ACCURATE_RND, nullptr, nullptr, nullptr));
    sws_setColorspaceDetails(
        scaler.get(), sws_getCoefficients(matrix == Matrix::Bt601 ? SWS_CS_ITU601 : SWS_CS_ITU709),
        frame->color_range == AVCOL_RANGE_JPEG, sws_getCoefficients(SWS_CS_DEFAULT), 1, 0, 1 << 16, 1 << 16);
    std::vector<uint8_t> rgb(static_cast<size_t>(width) * static_cast<size_t>(height) * 3 + 64);
    uint8_t *planes[4] = {rgb.data(), nullptr, nullptr, nullptr};
    const int strides[4] = {3 * width, 0, 0, 0};
    sws_scale(scaler.get(), frame->data, frame->linesize, 0, height, planes, strides);
    rgb.resize(static_cast<size_t>(width) * static_cast<size_t>(height) * 3);
    return rgb;
}

Means means(const std::vector<uint8_t> &rgb, int width, int x0, int x1, int y0, int y1)
{
    Means sum{0, 0, 0};
    for (int y = y0; y < y1; ++y) {
        for (int x = x0; x < x1; ++x) {
            const uint8_t *pixel = rgb.data() + 3 * (static_cast<size_t>(y) * static_cast<size_t>(width) +
                                                     static_cast<size_t>(x));
            sum.r += pixel[0];
            sum.g += pixel[1];
            sum.b += pixel[2];
        }
    }
    const double count = static_cast<double>(x1 - x0) * (y1 - y0);
    return {sum.r / count, sum.g / count, sum.b / count};
}

} // namespace driver
