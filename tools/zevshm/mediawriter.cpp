#include "mediawriter.h"

#include "failure.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <exception>
#include <new>

namespace zevshm {

namespace {

// How far sound may be behind the picture before it counts as missing. A store's sound is due when it has
// been heard, so it comes with its picture.
constexpr int64_t recordedSoundLagUs = 2000000;
constexpr int64_t liveSoundLagUs = 300000;

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

int64_t MediaWriter::soundLagUs() const
{
    return m_settings.live ? liveSoundLagUs : recordedSoundLagUs;
}

bool MediaWriter::takes(AVCodecID codec) const
{
    const int answer = avformat_query_codec(m_output->oformat, codec, FF_COMPLIANCE_NORMAL);
    // What streams over RTP does not tell.
    return answer == 1 || (m_settings.live && answer == AVERROR_PATCHWELCOME);
}

void MediaWriter::chooseContainer()
{
    AVFormatContext *output = nullptr;
    const char *container = m_settings.container.empty() ? nullptr : m_settings.container.c_str();
    const std::string &name = m_settings.live ? m_settings.part : m_settings.target;
    avformat_alloc_output_context2(&output, nullptr, container, name.c_str());
    m_output.reset(output);
    if (!m_output)
        throw Failure(ExitUsage, container
                                     ? "this FFmpeg has no container '" + m_settings.container +
                                           "'; 'ffmpeg -muxers' lists them"
                                     : m_settings.target + ": no container has names of this kind; " +
                                           (m_settings.live ? "give --format, such as mpegts"
                                                            : "name it .mkv or .mp4, or give --container"));
    m_output->interrupt_callback = m_settings.interrupt;
    const std::string muxerName = m_output->oformat->name;
    m_hasEditLists = muxerName == "mp4" || muxerName == "mov" || muxerName == "ipod";
    const AVOutputFormat *muxer = m_output->oformat;
    if (m_format.video && muxer->video_codec == AV_CODEC_ID_NONE)
        throw Failure(ExitUsage, std::string(muxer->name) + " holds no pictures; give --no-video or another "
                                                            "container, such as .mkv");
    if (m_format.sound && muxer->audio_codec == AV_CODEC_ID_NONE)
        throw Failure(ExitUsage, std::string(muxer->name) + " holds no sound; give --no-audio or another "
                                                            "container, such as .mkv");
    const bool isEven =
        muxerName == "avi" || muxerName == "mxf" || muxerName == "gxf" || (muxer->flags & AVFMT_NOTIMESTAMPS);
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
    const bool takesH264 = takes(AV_CODEC_ID_H264);
    if (m_format.video && m_settings.video.name.empty()) {
        if (takesH264 && avcodec_find_encoder_by_name("libx264")) {
            m_settings.video.name = "libx264";
            chooseX264Options();
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
        const AVCodecID id = takesH264 && takes(AV_CODEC_ID_AAC) ? AV_CODEC_ID_AAC : muxer->audio_codec;
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

void MediaWriter::chooseX264Options()
{
    auto &options = m_settings.video.options;
    options.emplace("preset", "veryfast");
    if (!m_settings.live) {
        options.emplace("crf", "18");
        return;
    }
    options.emplace("tune", "zerolatency");
    if (options.count("b") == 0)
        options.emplace("crf", "23");
    // Who comes later sees nothing before a key frame.
    constexpr int keyFrameSeconds = 2;
    const int64_t interval =
        m_format.rate ? av_rescale(keyFrameSeconds, m_format.rate->numerator, m_format.rate->denominator)
                      : 50;
    options.emplace("g", std::to_string(std::max<int64_t>(interval, 1)));
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
                         : m_settings.live ? "check the address, and that somebody receives there"
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

void MediaWriter::openOutput(AVDictionary **options)
{
    for (const auto &[key, value] : m_settings.outputOptions)
        av_dict_set(options, key.c_str(), value.c_str(), 0);
    if (m_output->oformat->flags & AVFMT_NOFILE)
        return; // it connects by itself
    // With its protocol said, a file may have any name.
    const std::string url = m_settings.live ? m_settings.part : "file:" + m_settings.part;
    check(avio_open2(&m_output->pb, url.c_str(), AVIO_FLAG_WRITE, &m_settings.interrupt, options));
}

void MediaWriter::open(const AVFrame *first, int64_t originUs, int64_t startUs)
{
    m_originUs = originUs;
    const bool globalHeader = (m_output->oformat->flags & AVFMT_GLOBALHEADER) != 0;
    if (m_format.video) {
        m_video = std::make_unique<VideoEncoder>(m_settings.video, *first, m_format.rate, globalHeader);
        addStream(m_video->context());
    }
    for (int i = 0; m_format.sound && i < m_format.streams; ++i) {
        m_sounds.push_back(std::make_unique<SoundEncoder>(m_settings.sound, m_format.sampleRate,
                                                          m_format.channels, globalHeader, startUs));
        addStream(m_sounds.back()->context());
    }
    av_dict_set(&m_output->metadata, "creation_time", iso8601(originUs).c_str(), 0);
    av_dict_set(&m_output->metadata, "STORE_TIMESTAMP", std::to_string(originUs).c_str(), 0);
    m_output->max_interleave_delta = soundLagUs() + 1000000;

    AVDictionary *options = nullptr;
    const std::unique_ptr<AVDictionary *, void (*)(AVDictionary **)> owner(&options, av_dict_free);
    openOutput(&options);
    if (m_hasEditLists)
        av_dict_set(&options, "movflags", "use_metadata_tags", 0); // or they would drop ours
    m_output->flags |= AVFMT_FLAG_FLUSH_PACKETS; // a recording that is killed has what came before, too
    const int rc = avformat_write_header(m_output.get(), &options);
    if (const AVDictionaryEntry *entry = av_dict_get(options, "", nullptr, AV_DICT_IGNORE_SUFFIX);
        rc >= 0 && entry)
        throw Failure(ExitUsage, "neither " + std::string(m_output->oformat->name) +
                                     " nor its protocol has an option '" + entry->key +
                                     "'; see 'ffmpeg -h muxer=" + m_output->oformat->name + "'");
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
        m_packetBytes += packet->size;
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
            m_sounds[i]->keepUp(us - soundLagUs(),
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
