#include "demuxer.h"

#include "cadence.h"
#include "failure.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace zevshm {

namespace {

constexpr int64_t openTimeoutUs = 10000000;
constexpr int64_t readTimeoutUs = 5000000;
constexpr int64_t analyzeLiveUs = 2000000;
constexpr int64_t jumpUs = 10000000; // a file whose decoding times jump this far was joined from pieces
constexpr AVRational microseconds{1, 1000000};

std::string schemeOf(const std::string &input)
{
    const size_t end = input.find("://");
    return end == std::string::npos ? std::string() : input.substr(0, end);
}

template <size_t n>
bool isOneOf(const std::string &text, const std::array<const char *, n> &list)
{
    return std::find(list.begin(), list.end(), text) != list.end();
}

std::string withoutCredentials(const std::string &url)
{
    const size_t start = url.find("://");
    if (start == std::string::npos)
        return url;
    const size_t authority = start + 3;
    const size_t end = url.find_first_of("/?#", authority);
    const size_t at = url.rfind('@', end);
    if (at == std::string::npos || at < authority)
        return url;
    return url.substr(0, authority) + url.substr(at + 1);
}

} // namespace

InputName::InputName(const std::string &input) : url(input), display(withoutCredentials(input))
{
    struct stat status
    {};
    if (input == "-") {
        display = "standard input";
        // A file behind standard input can be searched and looped like any other.
        if (fstat(STDIN_FILENO, &status) == 0 && S_ISREG(status.st_mode)) {
            url = "file:/dev/fd/0";
            return;
        }
        url.clear();
        isPipe = true;
        return;
    }
    if (isCameraInput(input)) {
        url = display = input.substr(input.find(':') + 1);
        isCamera = isLive = isNetwork = true;
        return;
    }
    const std::string scheme = schemeOf(input);
    isLive = isOneOf<8>(scheme, {"rtsp", "rtsps", "rtp", "udp", "srt", "rtmp", "rtmps", "tcp"});
    isNetwork = isLive || isOneOf<2>(scheme, {"http", "https"});
    if (scheme.empty() && stat(input.c_str(), &status) == 0 && S_ISFIFO(status.st_mode)) {
        url.clear();
        pipePath = input;
        isPipe = true;
    }
}

Demuxer::Demuxer(const InputName &name, Wishes wishes, const StopToken &stopToken)
    : m_name(name), m_wishes(wishes), m_stopToken(stopToken), m_packet(av_packet_alloc())
{}

Demuxer::~Demuxer()
{
    m_format.reset(); // before the pipe it reads from
    m_pipe.reset();
    if (m_pipeFd >= 0 && m_pipeFd != STDIN_FILENO)
        ::close(m_pipeFd);
}

int Demuxer::interrupted(void *self)
{
    const auto *demuxer = static_cast<Demuxer *>(self);
    return demuxer->m_stopToken.stopped() || monotonicUs() > demuxer->m_deadlineUs;
}

void Demuxer::open()
{
    const AVInputFormat *camera = nullptr;
    if (m_name.isCamera) {
        m_camera = stateOfCamera(m_name.url);
        if (m_camera.multiplanar)
            throw Failure(ExitInput,
                          m_name.display +
                              ": has the multi-planar interface, of which NV12 can be published, without "
                              "--fps and faults; 'v4l2-ctl -d " +
                              m_name.display + " --list-formats' lists what it offers");
        camera = cameraDemuxer();
    }
    AVFormatContext *format = avformat_alloc_context();
    if (!format || !m_packet)
        throw Failure(ExitResources, m_name.display + ": no memory to open it; end other programs");
    format->interrupt_callback = {&Demuxer::interrupted, this};
    m_deadlineUs = m_name.isNetwork ? monotonicUs() + openTimeoutUs : INT64_MAX;
    if (m_name.isPipe) {
        m_pipeFd = m_name.pipePath.empty()
                       ? STDIN_FILENO
                       : ::open(m_name.pipePath.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        if (m_pipeFd < 0) {
            const int error = errno;
            avformat_free_context(format);
            throw Failure(ExitInput, m_name.display + ": cannot be read (" + std::strerror(error) +
                                         "); check the path and its permissions");
        }
        m_pipe = std::make_unique<PipeReader>(m_pipeFd, m_stopToken);
        format->pb = m_pipe->context();
    }
    AVDictionary *options = nullptr;
    if (m_name.url.rfind("rtsp", 0) == 0)
        av_dict_set(&options, "rtsp_transport", "tcp", 0); // lost UDP packets tear pictures
    if (m_name.isNetwork && !m_name.isLive) {
        av_dict_set(&options, "reconnect", "1", 0);
        av_dict_set(&options, "reconnect_streamed", "1", 0);
        av_dict_set(&options, "reconnect_delay_max", "8", 0);
    }
    if (camera) {
        // A driver that delivers nothing would not hear that we are to end.
        format->flags |= AVFMT_FLAG_NONBLOCK;
        m_lastPacketUs = monotonicUs();
    }
    int rc = avformat_open_input(&format, m_name.url.c_str(), camera, &options);
    av_dict_free(&options);
    m_format.reset(rc < 0 ? nullptr : format);
    if (rc < 0)
        refuse(rc);
    if (m_name.isCamera)
        m_camera = stateOfOpenCamera(m_name.url, m_camera);

    m_live = m_name.isLive;
    if (m_live)
        m_format->max_analyze_duration = analyzeLiveUs;
    rc = avformat_find_stream_info(m_format.get(), nullptr);
    if (rc < 0)
        throw Failure(ExitMedia, m_name.display + ": holds no streams that can be read (" + avError(rc) +
                                     "); check it with 'ffprobe'");
    if (m_name.isNetwork && m_format->duration == AV_NOPTS_VALUE)
        m_live = true;

    if (m_wishes.video)
        openDecoder(m_video, AVMEDIA_TYPE_VIDEO);
    if (m_wishes.audio)
        openDecoder(m_audio, AVMEDIA_TYPE_AUDIO);
    if (!hasVideo() && !hasAudio())
        throw Failure(ExitMedia, m_name.display + ": has no " +
                                     (m_wishes.video && m_wishes.audio ? "video or audio"
                                      : m_wishes.video                 ? "video"
                                                                       : "audio") +
                                     " that can be decoded; check it with 'ffprobe'");
    for (unsigned i = 0; i < m_format->nb_streams; ++i) {
        AVStream *stream = m_format->streams[i];
        if (stream != m_video.stream && stream != m_audio.stream)
            stream->discard = AVDISCARD_ALL;
    }
}

// Says why the input cannot be opened.
void Demuxer::refuse(int rc) const
{
    if (m_name.isCamera)
        throw Failure(ExitInput, m_name.display + ": " + cameraProblem(rc, m_name.display));
    if (rc == AVERROR_INVALIDDATA || rc == AVERROR_DEMUXER_NOT_FOUND ||
        (rc == AVERROR_EOF && !m_name.isNetwork))
        throw Failure(ExitMedia, m_name.display + ": is damaged or no media at all (" + avError(rc) + "); " +
                                     (m_name.isPipe ? "check what is written into it: it takes a format that "
                                                      "can be read from its start, such as Matroska"
                                                    : "check it with 'ffprobe'"));
    if (rc == AVERROR_PROTOCOL_NOT_FOUND)
        throw Failure(ExitInput, m_name.display + ": cannot be opened (" + avError(rc) +
                                     "); use a protocol that 'ffmpeg -protocols' lists");
    if (rc == AVERROR_EXIT && m_name.isNetwork)
        throw Failure(ExitInput,
                      m_name.display + ": does not answer; check the address and that it is sending");
    throw Failure(ExitInput,
                  m_name.display + ": cannot be opened (" + avError(rc) + "); check the " +
                      (m_name.isNetwork ? "address and that it is sending" : "path and its permissions"));
}

bool Demuxer::openDecoder(Decoder &decoder, AVMediaType type)
{
    const AVCodec *codec = nullptr;
    const int index = av_find_best_stream(m_format.get(), type, -1, -1, &codec, 0);
    if (index < 0 || !codec)
        return false;
    AVStream *stream = m_format->streams[index];
    if (stream->disposition & AV_DISPOSITION_ATTACHED_PIC)
        return false; // the cover of a record is no video
    AvPtr<AVCodecContext> context(avcodec_alloc_context3(codec));
    if (!context || avcodec_parameters_to_context(context.get(), stream->codecpar) < 0)
        return false;
    context->pkt_timebase = stream->time_base;
    context->thread_count = static_cast<int>(std::clamp(std::thread::hardware_concurrency(), 1u, 8u));
    // Frame threads hold back a frame each, which a file does not feel and a live stream does.
    context->thread_type = m_live ? FF_THREAD_SLICE : FF_THREAD_FRAME | FF_THREAD_SLICE;
    if (avcodec_open2(context.get(), codec, nullptr) < 0)
        return false;
    decoder.stream = stream;
    decoder.codec = std::move(context);
    return true;
}

std::optional<Ratio> Demuxer::rate() const
{
    if (!hasVideo())
        return std::nullopt;
    const AVRational rate = av_guess_frame_rate(m_format.get(), m_video.stream, nullptr);
    const double perSecond = rate.num > 0 && rate.den > 0 ? av_q2d(rate) : 0;
    if (perSecond < 0.01 || perSecond > 1000)
        return std::nullopt;
    return Ratio{rate.num, rate.den};
}

double Demuxer::videoTickUs() const
{
    return hasVideo() ? 1e6 * av_q2d(m_video.stream->time_base) : 0;
}

AudioFormat Demuxer::audioFormat() const
{
    if (!hasAudio())
        return {};
    return {m_audio.codec->sample_rate, m_audio.codec->ch_layout.nb_channels};
}

std::optional<Turn> Demuxer::turn() const
{
    const int32_t *matrix = hasVideo() ? displayMatrix(m_video.stream) : nullptr;
    if (!matrix)
        return Turn::None;
    // Mirrored: the upper left quarter of the matrix turns right-handed into left-handed.
    const double handedness =
        static_cast<double>(matrix[0]) * matrix[4] - static_cast<double>(matrix[1]) * matrix[3];
    return handedness < 0 ? std::nullopt : turnFor(av_display_rotation_get(matrix));
}

double Demuxer::pixelAspect(const AVFrame &frame) const
{
    // Reads the frame only, without saying so.
    const AVRational aspect =
        av_guess_sample_aspect_ratio(m_format.get(), m_video.stream, const_cast<AVFrame *>(&frame));
    return aspect.num > 0 && aspect.den > 0 ? av_q2d(aspect) : 1;
}

std::optional<int64_t> Demuxer::videoStartUs() const
{
    if (!hasVideo() || m_video.stream->start_time == AV_NOPTS_VALUE)
        return std::nullopt;
    return av_rescale_q(m_video.stream->start_time, m_video.stream->time_base, microseconds);
}

void Demuxer::correctJump(Decoder &decoder, AVPacket &packet)
{
    if (m_live || packet.dts == AV_NOPTS_VALUE)
        return;
    const AVRational base = decoder.stream->time_base;
    const int64_t dtsUs = av_rescale_q(packet.dts, base, microseconds) + m_jumpUs;
    if (decoder.lastDtsUs != INT64_MIN) {
        const int64_t delta = dtsUs - decoder.lastDtsUs;
        if (delta > jumpUs || delta < -jumpUs)
            m_jumpUs += av_rescale_q(std::max<int64_t>(packet.duration, 0), base, microseconds) - delta;
    }
    decoder.lastDtsUs = av_rescale_q(packet.dts, base, microseconds) + m_jumpUs;
}

Demuxer::Result Demuxer::step(const Sink &sink)
{
    if (m_drained)
        return Result::End;
    m_deadlineUs = m_name.isNetwork ? monotonicUs() + readTimeoutUs : INT64_MAX;
    const int rc = av_read_frame(m_format.get(), m_packet.get());
    if (rc == AVERROR(EAGAIN))
        return m_name.isCamera ? waitForCamera() : Result::Again;
    m_lastPacketUs = monotonicUs();
    if (m_name.isCamera && rc >= 0 && m_packet->size == 0) { // a decoder would take it for the end
        ++m_damaged;
        av_packet_unref(m_packet.get());
        return Result::Again;
    }
    if (rc == AVERROR_INVALIDDATA && m_name.isCamera) { // a frame that is not whole
        ++m_damaged;
        return Result::Again;
    }
    if (rc < 0) {
        m_lastError = rc == AVERROR_EXIT ? "nothing came for 5 s" : avError(rc);
        // What the decoders still hold belongs to the input's end.
        if (hasVideo())
            decode(m_video, nullptr, sink);
        if (hasAudio())
            decode(m_audio, nullptr, sink);
        m_drained = true;
        return rc == AVERROR_EOF ? Result::End : Result::Failed;
    }
    for (Decoder *decoder : {&m_video, &m_audio}) {
        if (decoder->stream && m_packet->stream_index == decoder->stream->index) {
            if (m_packet->flags & AV_PKT_FLAG_CORRUPT)
                ++m_damaged;
            correctJump(*decoder, *m_packet);
            decode(*decoder, m_packet.get(), sink);
        }
    }
    av_packet_unref(m_packet.get());
    return Result::Again;
}

// Nothing is there yet. FFmpeg does not tell what to poll.
Demuxer::Result Demuxer::waitForCamera()
{
    if (monotonicUs() - m_lastPacketUs > readTimeoutUs) {
        m_lastError = "nothing came for 5 s";
        return Result::Failed;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    return Result::Again;
}

void Demuxer::decode(Decoder &decoder, const AVPacket *packet, const Sink &sink)
{
    const int sent = avcodec_send_packet(decoder.codec.get(), packet);
    if (sent < 0 && sent != AVERROR_EOF) {
        ++m_damaged;
        return;
    }
    for (;;) {
        AvPtr<AVFrame> frame(av_frame_alloc());
        if (!frame)
            return;
        const int got = avcodec_receive_frame(decoder.codec.get(), frame.get());
        if (got == AVERROR(EAGAIN) || got == AVERROR_EOF)
            return;
        if (got < 0) {
            ++m_damaged;
            return;
        }
        if (frame->flags & AV_FRAME_FLAG_CORRUPT || frame->decode_error_flags)
            ++m_damaged;
        handOut(decoder, std::move(frame), sink);
    }
}

void Demuxer::handOut(Decoder &decoder, AvPtr<AVFrame> frame, const Sink &sink)
{
    const bool isVideo = &decoder == &m_video;
    int64_t ptsUs;
    if (frame->best_effort_timestamp != AV_NOPTS_VALUE)
        ptsUs =
            av_rescale_q(frame->best_effort_timestamp, decoder.stream->time_base, microseconds) + m_jumpUs;
    else
        ptsUs = decoder.lastUs == INT64_MIN ? 0 : decoder.lastUs + decoder.durationUs;
    if (isVideo) {
        const auto known = rate();
        decoder.durationUs = known ? intervalUs(*known) : 40000;
    } else {
        decoder.durationUs =
            frame->sample_rate > 0 ? av_rescale(frame->nb_samples, 1000000, frame->sample_rate) : 0;
    }
    decoder.lastUs = ptsUs;
    if (isVideo && m_name.isCamera) { // FFmpeg does not ask the driver
        if (frame->colorspace == AVCOL_SPC_UNSPECIFIED)
            frame->colorspace = colorSpaceOf(m_camera.encoding);
        if (frame->color_range == AVCOL_RANGE_UNSPECIFIED)
            frame->color_range = colorRangeOf(m_camera.fullRange);
    }
    if (isVideo)
        sink.video(std::move(frame), ptsUs);
    else
        sink.audio(*frame, ptsUs);
}

bool Demuxer::rewind()
{
    const int64_t start = m_format->start_time == AV_NOPTS_VALUE ? 0 : m_format->start_time;
    if (m_name.isPipe || av_seek_frame(m_format.get(), -1, start, AVSEEK_FLAG_BACKWARD) < 0)
        return false;
    for (Decoder *decoder : {&m_video, &m_audio}) {
        if (decoder->codec)
            avcodec_flush_buffers(decoder->codec.get());
        decoder->lastUs = decoder->lastDtsUs = INT64_MIN;
    }
    m_jumpUs = 0;
    m_drained = false;
    return true;
}

} // namespace zevshm
