#include "mediawriter.h"

#include "failure.h"

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <exception>
#include <new>

namespace zevshm {

namespace {

// How far sound may be behind the picture before it counts as missing. A store's sound is due when it has
// been heard, so it comes with its picture.
constexpr int64_t soundLagUs = 2000000;

bool takes(const AVOutputFormat *container, AVCodecID codec)
{
    return avformat_query_codec(container, codec, FF_COMPLIANCE_NORMAL) == 1;
}

std::string iso8601(int64_t us)
{
    const time_t seconds = static_cast<time_t>(us / 1000000);
    tm utc{};
    char text[40] = "";
    if (gmtime_r(&seconds, &utc))
        std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
    char fraction[16];
    std::snprintf(fraction, sizeof fraction, ".%06dZ", static_cast<int>(us % 1000000));
    return text + std::string(fraction);
}

} // namespace

MediaWriter::MediaWriter(const Settings &settings, const Format &format)
    : m_settings(settings), m_format(format)
{
    chooseContainer();
    chooseEncoders();
}

MediaWriter::~MediaWriter() = default;

void MediaWriter::chooseContainer()
{
    AVFormatContext *output = nullptr;
    const char *container = m_settings.container.empty() ? nullptr : m_settings.container.c_str();
    avformat_alloc_output_context2(&output, nullptr, container, m_settings.target.c_str());
    m_output.reset(output);
    if (!m_output)
        throw Failure(ExitUsage, container ? "this FFmpeg has no container '" + m_settings.container +
                                                 "'; 'ffmpeg -muxers' lists them"
                                           : m_settings.target + ": no container has names of this kind; "
                                                                 "name it .mkv or .mp4, or give --container");
    const std::string name = m_output->oformat->name;
    m_hasEditLists = name == "mp4" || name == "mov" || name == "ipod";
    const AVOutputFormat *muxer = m_output->oformat;
    if (m_format.video && muxer->video_codec == AV_CODEC_ID_NONE)
        throw Failure(ExitUsage, std::string(muxer->name) + " holds no pictures; give --no-video or another "
                                                            "container, such as .mkv");
    if (m_format.sound && muxer->audio_codec == AV_CODEC_ID_NONE)
        throw Failure(ExitUsage, std::string(muxer->name) + " holds no sound; give --no-audio or another "
                                                            "container, such as .mkv");
    const bool isEven =
        name == "avi" || name == "mxf" || name == "gxf" || (muxer->flags & AVFMT_NOTIMESTAMPS);
    if (m_format.video && isEven)
        throw Failure(ExitUsage, std::string(muxer->name) + " does not keep the time of every frame; use "
                                                            "another container, such as .mkv, .mp4 or .mov");
}

void MediaWriter::chooseEncoders()
{
    const AVOutputFormat *muxer = m_output->oformat;
    for (const auto &[choice, type] : {std::pair(&m_settings.video, AVMEDIA_TYPE_VIDEO),
                                       std::pair(&m_settings.sound, AVMEDIA_TYPE_AUDIO)}) {
        if (!choice->name.empty())
            checkEncoder(choice->name, type);
    }
    const bool takesH264 = takes(muxer, AV_CODEC_ID_H264);
    if (m_format.video && m_settings.video.name.empty()) {
        if (takesH264 && avcodec_find_encoder_by_name("libx264")) {
            m_settings.video.name = "libx264";
            auto &options = m_settings.video.options;
            options.emplace("preset", "veryfast");
            options.emplace("crf", "18");
        } else {
            const AVCodec *codec = avcodec_find_encoder(muxer->video_codec);
            m_settings.video.name = codec ? codec->name : avcodec_get_name(muxer->video_codec);
            if (m_settings.video.name.rfind("libvpx", 0) == 0) {
                auto &options = m_settings.video.options;
                options.emplace("deadline", "realtime");
                options.emplace("cpu-used", "8");
                options.emplace("crf", "20");
                options.emplace("b", "4000000");
            }
        }
    }
    if (m_format.sound && m_settings.sound.name.empty()) {
        const AVCodecID id =
            takesH264 && takes(muxer, AV_CODEC_ID_AAC) ? AV_CODEC_ID_AAC : muxer->audio_codec;
        const AVCodec *codec = avcodec_find_encoder(id);
        m_settings.sound.name = codec ? codec->name : avcodec_get_name(id);
        // The library's own encoders of these are experimental.
        for (const char *library : {"libopus", "libvorbis"}) {
            const AVCodec *better = avcodec_find_encoder_by_name(library);
            if (better && better->id == id)
                m_settings.sound.name = library;
        }
    }
}

void MediaWriter::check(int code) const
{
    const int error = code < 0 ? code : m_output->pb && m_output->pb->error < 0 ? m_output->pb->error : 0;
    if (error >= 0)
        return;
    const char *remedy = error == AVERROR(ENOSPC)  ? "make room"
                         : error == AVERROR(EFBIG) ? "raise 'ulimit -f'"
                         : error == AVERROR(EACCES) || error == AVERROR(ENOENT) || error == AVERROR(EROFS)
                             ? "check the path and its permissions"
                             : "check where it goes";
    if (error == AVERROR(ENOMEM))
        throw std::bad_alloc();
    throw Failure(ExitOutput, m_settings.target + ": cannot be written (" + avError(error) + "); " + remedy);
}

AVStream *MediaWriter::addStream(const AVCodecContext *encoder)
{
    AVStream *stream = avformat_new_stream(m_output.get(), nullptr);
    if (!stream || avcodec_parameters_from_context(stream->codecpar, encoder) < 0)
        throw std::bad_alloc();
    stream->time_base = encoder->time_base; // what the muxer should count in, where it can
    if (encoder->codec_type == AVMEDIA_TYPE_VIDEO) {
        stream->sample_aspect_ratio = encoder->sample_aspect_ratio;
        stream->avg_frame_rate = encoder->framerate;
    }
    return stream;
}

void MediaWriter::open(const AVFrame *first, int64_t originUs)
{
    m_originUs = originUs;
    const bool globalHeader = (m_output->oformat->flags & AVFMT_GLOBALHEADER) != 0;
    if (m_format.video) {
        m_video = std::make_unique<VideoEncoder>(m_settings.video, *first, m_format.rate, globalHeader);
        addStream(m_video->context());
    }
    for (int i = 0; m_format.sound && i < m_format.streams; ++i) {
        m_sounds.push_back(std::make_unique<SoundEncoder>(m_settings.sound, m_format.sampleRate,
                                                          m_format.channels, globalHeader));
        addStream(m_sounds.back()->context());
    }
    av_dict_set(&m_output->metadata, "creation_time", iso8601(originUs).c_str(), 0);
    av_dict_set(&m_output->metadata, "STORE_TIMESTAMP", std::to_string(originUs).c_str(), 0);
    m_output->max_interleave_delta = soundLagUs + 1000000;

    if (!(m_output->oformat->flags & AVFMT_NOFILE)) {
        // With its protocol said, a file may have any name.
        const std::string url = "file:" + m_settings.part;
        check(avio_open2(&m_output->pb, url.c_str(), AVIO_FLAG_WRITE, nullptr, nullptr));
    }
    AVDictionary *options = nullptr;
    if (m_hasEditLists)
        av_dict_set(&options, "movflags", "use_metadata_tags", 0); // or they would drop ours
    m_output->flags |= AVFMT_FLAG_FLUSH_PACKETS; // a recording that is killed has what came before, too
    const int rc = avformat_write_header(m_output.get(), &options);
    av_dict_free(&options);
    if (rc == AVERROR(EINVAL))
        throw Failure(ExitUsage, std::string(m_output->oformat->name) + " does not take " +
                                     (m_format.video ? m_settings.video.name : "") +
                                     (m_format.video && m_format.sound ? " and " : "") +
                                     (m_format.sound ? m_settings.sound.name : "") +
                                     "; choose other codecs or another container");
    check(rc);
}

PacketSink MediaWriter::sink(const AVCodecContext *encoder, int index)
{
    return [this, encoder, index](AVPacket *packet) {
        av_packet_rescale_ts(packet, encoder->time_base, m_output->streams[index]->time_base);
        packet->stream_index = index;
        // What an encoder of this kind starts with lies before time 0. Containers that cannot say so would
        // have everything moved instead.
        if (encoder->codec_id == AV_CODEC_ID_AAC && !m_hasEditLists && packet->pts < 0)
            return;
        check(av_interleaved_write_frame(m_output.get(), packet));
    };
}

void MediaWriter::write(CapturedItem &item)
{
    const int64_t us = item.timestampUs - m_originUs;
    const int soundsFrom = m_video ? 1 : 0;
    if (item.picture) {
        m_video->encode(*item.picture, us, sink(m_video->context(), 0));
        for (size_t i = 0; i < m_sounds.size(); ++i)
            m_sounds[i]->keepUp(us - soundLagUs,
                                sink(m_sounds[i]->context(), soundsFrom + static_cast<int>(i)));
        return;
    }
    SoundEncoder &sound = *m_sounds[static_cast<size_t>(item.stream)];
    sound.encode(item.samples.data(),
                 static_cast<int>(item.samples.size() / static_cast<size_t>(m_format.channels)), us,
                 sink(sound.context(), soundsFrom + item.stream));
}

void MediaWriter::finish()
{
    // An encoder that has failed does not take from the file what makes it playable.
    std::exception_ptr failure;
    try {
        if (m_video)
            m_video->flush(sink(m_video->context(), 0));
        for (size_t i = 0; i < m_sounds.size(); ++i)
            m_sounds[i]->flush(sink(m_sounds[i]->context(), static_cast<int>(i) + (m_video ? 1 : 0)));
    } catch (...) {
        failure = std::current_exception();
    }
    check(av_write_trailer(m_output.get()));
    if (m_output->pb)
        avio_flush(m_output->pb);
    check(0);
    if (!(m_output->oformat->flags & AVFMT_NOFILE))
        check(avio_closep(&m_output->pb));
    if (failure)
        std::rethrow_exception(failure);
}

int64_t MediaWriter::bytes() const
{
    const int64_t written = m_output->pb ? avio_tell(m_output->pb) : 0;
    return written > 0 ? written : 0;
}

} // namespace zevshm
