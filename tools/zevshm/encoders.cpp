#include "encoders.h"

#include "color.h"
#include "failure.h"

extern "C" {
#include <libavutil/pixdesc.h>
}

#include <algorithm>
#include <new>

namespace zevshm {

namespace {

constexpr int channelsMost = 8; // of a store at most

class Dictionary
{
public:
    explicit Dictionary(const std::map<std::string, std::string> &entries)
    {
        for (const auto &[key, value] : entries)
            av_dict_set(&m_entries, key.c_str(), value.c_str(), 0);
    }
    ~Dictionary() { av_dict_free(&m_entries); }
    Dictionary(const Dictionary &) = delete;
    Dictionary &operator=(const Dictionary &) = delete;

    AVDictionary **entries() { return &m_entries; }
    const char *firstKey() const
    {
        const AVDictionaryEntry *entry = av_dict_get(m_entries, "", nullptr, AV_DICT_IGNORE_SUFFIX);
        return entry ? entry->key : nullptr;
    }

private:
    AVDictionary *m_entries = nullptr;
};

AvPtr<AVCodecContext> makeContext(const EncoderChoice &choice, AVMediaType type)
{
    checkEncoder(choice.name, type);
    AvPtr<AVCodecContext> context(avcodec_alloc_context3(avcodec_find_encoder_by_name(choice.name.c_str())));
    if (!context)
        throw std::bad_alloc();
    return context;
}

void openContext(AVCodecContext &context, const AVCodec *codec, const EncoderChoice &choice,
                 const std::string &what, const std::string &remedy)
{
    Dictionary options(choice.options);
    const int rc = avcodec_open2(&context, codec, options.entries());
    if (rc < 0)
        throw Failure(ExitUsage, "the encoder " + choice.name + " does not take " + what + " (" +
                                     avError(rc) + "); " + remedy);
    if (const char *key = options.firstKey())
        throw Failure(ExitUsage, "the encoder " + choice.name + " has no option '" + key +
                                     "'; see 'ffmpeg -h encoder=" + choice.name + "'");
}

[[noreturn]] void failEncoding(const AVCodecContext &encoder, int code)
{
    if (code == AVERROR(ENOMEM))
        throw std::bad_alloc();
    throw Failure(ExitInternal,
                  "the encoder " + std::string(encoder.codec->name) + " failed (" + avError(code) +
                      "); try another " +
                      (encoder.codec_type == AVMEDIA_TYPE_VIDEO ? "--video-codec" : "--audio-codec"));
}

[[noreturn]] void failConversion(const std::string &why)
{
    throw Failure(ExitInternal, "sound cannot be converted for the encoder" + why +
                                    "; try --audio-codec pcm_s16le, or --no-audio");
}

void receive(AVCodecContext &encoder, const PacketSink &sink)
{
    const AvPtr<AVPacket> packet(av_packet_alloc());
    if (!packet)
        throw std::bad_alloc();
    for (;;) {
        const int rc = avcodec_receive_packet(&encoder, packet.get());
        if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF)
            return;
        if (rc < 0)
            failEncoding(encoder, rc);
        sink(packet.get());
        av_packet_unref(packet.get());
    }
}

void send(AVCodecContext &encoder, const AVFrame *frame, const PacketSink &sink)
{
    const int rc = avcodec_send_frame(&encoder, frame);
    if (rc < 0 && rc != AVERROR_EOF)
        failEncoding(encoder, rc);
    receive(encoder, sink);
}

template <typename T>
bool isListed(const T *list, T end, T value)
{
    for (; list && *list != end; ++list) {
        if (*list == value)
            return true;
    }
    return list == nullptr;
}

AVPixelFormat chooseFormat(const AVCodec *codec, AVPixelFormat source)
{
    if (isListed(pixelFormatsOf(codec), AV_PIX_FMT_NONE, source))
        return source;
    return avcodec_find_best_pix_fmt_of_list(pixelFormatsOf(codec), source, 0, nullptr);
}

} // namespace

void checkEncoder(const std::string &name, AVMediaType type)
{
    const AVCodec *codec = avcodec_find_encoder_by_name(name.c_str());
    if (!codec || codec->type != type)
        throw Failure(ExitUsage, "this FFmpeg has no " +
                                     std::string(type == AVMEDIA_TYPE_VIDEO ? "video" : "audio") +
                                     " encoder '" + name + "'; 'ffmpeg -encoders' lists them");
}

std::map<std::string, std::string> parseEncoderOptions(const std::string &command, const std::string &option,
                                                       const std::string &text)
{
    std::map<std::string, std::string> options;
    AVDictionary *entries = nullptr;
    const int rc = av_dict_parse_string(&entries, text.c_str(), "=", ":", 0);
    const AVDictionaryEntry *entry = nullptr;
    while ((entry = av_dict_get(entries, "", entry, AV_DICT_IGNORE_SUFFIX)))
        options[entry->key] = entry->value;
    av_dict_free(&entries);
    if (rc < 0 || options.empty())
        throw Failure(ExitUsage, command + ": '" + text + "' is no value for " + option +
                                     ", give KEY=VALUE:KEY=VALUE; see 'zevshm " + command + " --help'");
    return options;
}

VideoEncoder::VideoEncoder(const EncoderChoice &choice, const AVFrame &first, std::optional<Ratio> rate,
                           bool globalHeader)
    : m_encoder(makeContext(choice, AVMEDIA_TYPE_VIDEO))
{
    const AVCodec *const codec = m_encoder->codec;
    m_encoder->width = first.width;
    m_encoder->height = first.height;
    m_encoder->pix_fmt = chooseFormat(codec, static_cast<AVPixelFormat>(first.format));
    m_encoder->time_base = {1, 1000000}; // the store's timestamps as they are
    if (rate)
        m_encoder->framerate = {rate->numerator, rate->denominator};
    m_encoder->sample_aspect_ratio = {1, 1};
    m_encoder->color_range = first.color_range;
    m_encoder->colorspace = first.colorspace;
    m_encoder->color_primaries = first.color_primaries;
    m_encoder->color_trc = first.color_trc;
    m_encoder->chroma_sample_location = first.chroma_location;
    m_encoder->thread_count = 0; // as many as there are processors
    if (globalHeader)
        m_encoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    const std::string what =
        "pictures of " + std::to_string(first.width) + "x" + std::to_string(first.height);
    openContext(*m_encoder, codec, choice, what,
                first.width % 2 || first.height % 2 ? "odd sizes need --video-codec ffv1"
                                                    : "try --video-codec libx264 or ffv1");
}

AvPtr<AVFrame> VideoEncoder::convert(const AVFrame &picture)
{
    if (!m_scaler) {
        const auto source = static_cast<AVPixelFormat>(picture.format);
        m_scaler.reset(sws_getContext(picture.width, picture.height, source, picture.width, picture.height,
                                      m_encoder->pix_fmt, SWS_BICUBIC | SWS_ACCURATE_RND, nullptr, nullptr,
                                      nullptr));
        if (!m_scaler)
            throw std::bad_alloc();
        // Samples stay as they are: no other range, no other matrix.
        const int full = picture.color_range != AVCOL_RANGE_MPEG;
        const int *coefficients = sws_getCoefficients(SWS_CS_DEFAULT);
        sws_setColorspaceDetails(m_scaler.get(), coefficients, full, coefficients, full, 0, 1 << 16, 1 << 16);
    }
    AvPtr<AVFrame> converted(av_frame_alloc());
    if (!converted)
        throw std::bad_alloc();
    converted->width = picture.width;
    converted->height = picture.height;
    converted->format = m_encoder->pix_fmt;
    if (av_frame_get_buffer(converted.get(), 0) < 0)
        throw std::bad_alloc();
    av_frame_copy_props(converted.get(), &picture);
    sws_scale(m_scaler.get(), picture.data, picture.linesize, 0, picture.height, converted->data,
              converted->linesize);
    return converted;
}

void VideoEncoder::encode(AVFrame &picture, int64_t us, const PacketSink &sink)
{
    if (picture.format == m_encoder->pix_fmt) {
        picture.pts = us;
        send(*m_encoder, &picture, sink);
        return;
    }
    const AvPtr<AVFrame> converted = convert(picture);
    converted->pts = us;
    send(*m_encoder, converted.get(), sink);
}

void VideoEncoder::flush(const PacketSink &sink)
{
    send(*m_encoder, nullptr, sink);
}

SoundEncoder::SoundEncoder(const EncoderChoice &choice, int sampleRate, int channels, bool globalHeader,
                           int64_t startUs)
    : m_sampleRate(sampleRate), m_channels(channels), m_encoder(makeContext(choice, AVMEDIA_TYPE_AUDIO)),
      m_come(av_rescale(startUs, sampleRate, 1000000))
{
    const AVCodec *const codec = m_encoder->codec;
    m_encoder->sample_fmt = isListed(sampleFormatsOf(codec), AV_SAMPLE_FMT_NONE, AV_SAMPLE_FMT_S16)
                                ? AV_SAMPLE_FMT_S16
                                : sampleFormatsOf(codec)[0];
    m_encoder->sample_rate = isListed(sampleRatesOf(codec), 0, sampleRate) ? sampleRate : 48000;
    m_encoder->time_base = {1, m_encoder->sample_rate};
    m_handed = av_rescale(startUs, m_encoder->sample_rate, 1000000);
    av_channel_layout_default(&m_encoder->ch_layout, channels);
    m_encoder->bit_rate = int64_t{96000} * channels; // of lossy encoders
    m_encoder->strict_std_compliance = FF_COMPLIANCE_EXPERIMENTAL;
    if (globalHeader)
        m_encoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    openContext(*m_encoder, codec, choice,
                std::to_string(sampleRate) + " Hz with " + std::to_string(channels) + " channels",
                "try --audio-codec pcm_s16le (in .mkv or .mov)");

    SwrContext *resampler = nullptr;
    int rc =
        swr_alloc_set_opts2(&resampler, &m_encoder->ch_layout, m_encoder->sample_fmt, m_encoder->sample_rate,
                            &m_encoder->ch_layout, AV_SAMPLE_FMT_S16, sampleRate, 0, nullptr);
    m_resampler.reset(resampler);
    if (rc >= 0)
        rc = swr_init(resampler);
    if (rc < 0)
        failConversion(" (" + avError(rc) + ")");
    m_waiting.reset(av_audio_fifo_alloc(m_encoder->sample_fmt, channels, m_encoder->sample_rate));
    if (!m_waiting)
        throw std::bad_alloc();
    m_blockFrames = m_encoder->frame_size > 0 ? m_encoder->frame_size : m_encoder->sample_rate / 50;
}

int64_t SoundEncoder::endUs() const
{
    return av_rescale(m_come, 1000000, m_sampleRate);
}

void SoundEncoder::encode(const int16_t *samples, int frames, int64_t us, const PacketSink &sink)
{
    // Rounding moves a timestamp by a sample at most: that is no gap.
    const int64_t at = av_rescale(us, m_sampleRate, 1000000);
    const int64_t shift = at - m_come;
    if (shift > 1) {
        append(nullptr, shift, sink);
    } else if (shift < -1) {
        const int64_t twice = std::min<int64_t>(-shift, frames);
        samples += twice * m_channels;
        frames -= static_cast<int>(twice);
    }
    append(samples, frames, sink);
}

void SoundEncoder::keepUp(int64_t us, const PacketSink &sink)
{
    if (us > endUs())
        append(nullptr, (us - endUs()) * m_sampleRate / 1000000, sink);
}

void SoundEncoder::append(const int16_t *samples, int64_t frames, const PacketSink &sink)
{
    const std::vector<int16_t> silence(samples ? 0 : static_cast<size_t>(m_sampleRate * m_channels));
    m_come += frames;
    while (frames > 0) {
        const int piece = static_cast<int>(std::min<int64_t>(frames, m_sampleRate));
        convert(samples ? samples : silence.data(), piece);
        while (av_audio_fifo_size(m_waiting.get()) >= m_blockFrames)
            drain(m_blockFrames, sink);
        if (samples)
            samples += static_cast<ptrdiff_t>(piece) * m_channels;
        frames -= piece;
    }
}

// Null takes out what the resampler still holds.
void SoundEncoder::convert(const int16_t *samples, int frames)
{
    const int room = swr_get_out_samples(m_resampler.get(), frames);
    if (room <= 0)
        return;
    uint8_t *planes[channelsMost] = {};
    if (av_samples_alloc(planes, nullptr, m_channels, room, m_encoder->sample_fmt, 0) < 0)
        throw std::bad_alloc();
    const auto *in = reinterpret_cast<const uint8_t *>(samples);
    const int got = swr_convert(m_resampler.get(), planes, room, samples ? &in : nullptr, frames);
    const bool isKept =
        got >= 0 && av_audio_fifo_write(m_waiting.get(), reinterpret_cast<void **>(planes), got) == got;
    av_freep(&planes[0]);
    if (!isKept)
        failConversion("");
}

void SoundEncoder::drain(int frames, const PacketSink &sink)
{
    const AvPtr<AVFrame> block(av_frame_alloc());
    if (!block)
        throw std::bad_alloc();
    block->nb_samples = frames;
    block->format = m_encoder->sample_fmt;
    block->sample_rate = m_encoder->sample_rate;
    av_channel_layout_copy(&block->ch_layout, &m_encoder->ch_layout);
    if (av_frame_get_buffer(block.get(), 0) < 0)
        throw std::bad_alloc();
    av_audio_fifo_read(m_waiting.get(), reinterpret_cast<void **>(block->extended_data), frames);
    block->pts = m_handed;
    m_handed += frames;
    send(*m_encoder, block.get(), sink);
}

void SoundEncoder::flush(const PacketSink &sink)
{
    if (m_encoder->sample_rate != m_sampleRate)
        convert(nullptr, 0);
    for (int left; (left = av_audio_fifo_size(m_waiting.get())) > 0;)
        drain(std::min(left, m_blockFrames), sink);
    send(*m_encoder, nullptr, sink);
}

} // namespace zevshm
