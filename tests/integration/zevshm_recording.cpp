#include "zevshm_recording.h"

#include "ffmpeg.h"

#include <algorithm>
#include <cstdlib>

namespace driver {

using namespace zevshm;

namespace {

struct Track
{
    int index = -1;
    AvPtr<AVCodecContext> decoder;
};

std::optional<Track> openTrack(AVFormatContext *format, AVMediaType type)
{
    const AVCodec *codec = nullptr;
    Track track;
    track.index = av_find_best_stream(format, type, -1, -1, &codec, 0);
    if (track.index < 0)
        return std::nullopt;
    track.decoder.reset(avcodec_alloc_context3(codec));
    avcodec_parameters_to_context(track.decoder.get(), format->streams[track.index]->codecpar);
    track.decoder->pkt_timebase = format->streams[track.index]->time_base;
    if (avcodec_open2(track.decoder.get(), codec, nullptr) < 0)
        return std::nullopt;
    return track;
}

void addPicture(Recording &recording, const AVFrame &frame, int64_t us)
{
    Recording::Picture picture;
    picture.us = us;
    picture.width = frame.width;
    picture.height = frame.height;
    picture.isFullRange = frame.color_range == AVCOL_RANGE_JPEG;
    picture.code = decodeBlockCode(frame.data[0], frame.linesize[0], frame.width, frame.height,
                                   frame.format == AV_PIX_FMT_RGB24 ? 3 : 1);
    for (int y = 0; y < frame.height / 2; ++y) {
        for (int x = 0; x < frame.width; ++x)
            picture.luma += frame.data[0][y * frame.linesize[0] + x];
    }
    picture.luma /= static_cast<double>(frame.height / 2) * frame.width;
    recording.pictures.push_back(picture);
}

void addSound(Recording &recording, const AVFrame &frame, int64_t us)
{
    recording.sampleRate = frame.sample_rate;
    recording.channels = frame.ch_layout.nb_channels;
    if (recording.samples.empty())
        recording.soundUs = us;
    const bool isPlanar = av_sample_fmt_is_planar(static_cast<AVSampleFormat>(frame.format)) != 0;
    for (int i = 0; i < frame.nb_samples; ++i) {
        for (int c = 0; c < recording.channels; ++c) {
            const uint8_t *plane = frame.extended_data[isPlanar ? c : 0];
            const int at = isPlanar ? i : i * recording.channels + c;
            const bool isFloat = frame.format == AV_SAMPLE_FMT_FLTP || frame.format == AV_SAMPLE_FMT_FLT;
            recording.samples.push_back(
                isFloat ? static_cast<int16_t>(reinterpret_cast<const float *>(plane)[at] * 32767)
                        : reinterpret_cast<const int16_t *>(plane)[at]);
        }
    }
}

bool decode(Recording &recording, const Track &track, const AVStream *stream, const AVPacket *packet)
{
    if (avcodec_send_packet(track.decoder.get(), packet) < 0)
        return false;
    const AvPtr<AVFrame> frame(av_frame_alloc());
    int rc = 0;
    while ((rc = avcodec_receive_frame(track.decoder.get(), frame.get())) == 0) {
        const int64_t us = av_rescale_q(frame->best_effort_timestamp, stream->time_base, {1, 1000000});
        stream->codecpar->codec_type == AVMEDIA_TYPE_VIDEO ? addPicture(recording, *frame, us)
                                                           : addSound(recording, *frame, us);
    }
    return rc == AVERROR(EAGAIN) || rc == AVERROR_EOF;
}

} // namespace

std::optional<Recording> readRecording(const std::string &path)
{
    av_log_set_level(AV_LOG_QUIET);
    AVFormatContext *opened = nullptr;
    if (avformat_open_input(&opened, ("file:" + path).c_str(), nullptr, nullptr) < 0)
        return std::nullopt;
    const AvPtr<AVFormatContext> format(opened);
    if (avformat_find_stream_info(opened, nullptr) < 0)
        return std::nullopt;
    Recording recording;
    const AVDictionaryEntry *origin = av_dict_get(opened->metadata, "STORE_TIMESTAMP", nullptr, 0);
    recording.originUs = origin ? std::atoll(origin->value) : 0;
    for (unsigned i = 0; i < opened->nb_streams; ++i)
        recording.tracks += opened->streams[i]->codecpar->codec_type == AVMEDIA_TYPE_AUDIO ? 1 : 0;
    const auto video = openTrack(opened, AVMEDIA_TYPE_VIDEO);
    const auto sound = openTrack(opened, AVMEDIA_TYPE_AUDIO);
    const AvPtr<AVPacket> packet(av_packet_alloc());
    bool isGood = video || sound;
    int rc = 0;
    for (; (rc = av_read_frame(opened, packet.get())) == 0; av_packet_unref(packet.get())) {
        for (const auto *track : {&video, &sound}) {
            if (*track && packet->stream_index == (*track)->index)
                isGood =
                    decode(recording, **track, opened->streams[packet->stream_index], packet.get()) && isGood;
        }
    }
    for (const auto *track : {&video, &sound}) {
        if (*track)
            isGood = decode(recording, **track, opened->streams[(*track)->index], nullptr) && isGood;
    }
    return isGood && rc == AVERROR_EOF ? std::optional<Recording>(std::move(recording)) : std::nullopt;
}

std::vector<int64_t> Recording::flashes() const
{
    std::vector<int64_t> found;
    if (pictures.empty())
        return found;
    const auto [darkest, brightest] = std::minmax_element(
        pictures.begin(), pictures.end(), [](const Picture &a, const Picture &b) { return a.luma < b.luma; });
    const double middle = (darkest->luma + brightest->luma) / 2;
    for (size_t i = 1; i < pictures.size() && brightest->luma - darkest->luma > 20; ++i) {
        if (pictures[i].luma > middle && pictures[i - 1].luma < middle)
            found.push_back(pictures[i].us);
    }
    return found;
}

std::vector<int64_t> Recording::beeps() const
{
    std::vector<int64_t> found;
    constexpr int loud = 3000;
    const auto stride = static_cast<size_t>(channels);
    const size_t silence = static_cast<size_t>(sampleRate) / 20; // of 50 ms at least
    size_t quiet = 0;
    for (size_t i = 0; i * stride < samples.size(); ++i) {
        const bool isLoud = std::abs(samples[i * stride]) > loud;
        if (isLoud && quiet >= silence)
            found.push_back(soundUs + static_cast<int64_t>(i) * 1000000 / sampleRate);
        quiet = isLoud ? 0 : quiet + 1;
    }
    return found;
}

} // namespace driver
