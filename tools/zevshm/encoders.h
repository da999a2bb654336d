// FFmpeg's encoders for what a store carries.
#ifndef ZEVSHM_ENCODERS_H
#define ZEVSHM_ENCODERS_H

#include "ffmpeg.h"
#include "options.h"

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace zevshm {

struct EncoderChoice
{
    std::string name;                           // as FFmpeg calls the encoder
    std::map<std::string, std::string> options; // of the encoder or of every codec context
};

// "key=value:key=value"; Failure (ExitUsage) that names `option`.
std::map<std::string, std::string> parseEncoderOptions(const std::string &command, const std::string &option,
                                                       const std::string &text);

// Failure (ExitUsage) when this FFmpeg has no encoder of that name for that type.
void checkEncoder(const std::string &name, AVMediaType type);

using PacketSink = std::function<void(AVPacket *)>; // may take the packet's contents

// Turns captured pictures into packets. Timestamps of the packets are in timeBase().
//
// Threads: one at a time. Errors: Failure: ExitUsage for an encoder or option that is not there or does not
// take these pictures, ExitInternal when encoding fails.
class VideoEncoder
{
public:
    // `first` tells size, pixel format and colors; `rate` is a hint for the bit rate.
    VideoEncoder(const EncoderChoice &choice, const AVFrame &first, std::optional<Ratio> rate,
                 bool globalHeader);

    void encode(AVFrame &picture, int64_t us, const PacketSink &sink);
    void flush(const PacketSink &sink);

    const AVCodecContext *context() const { return m_encoder.get(); }

private:
    AvPtr<AVFrame> convert(const AVFrame &picture);

    AvPtr<AVCodecContext> m_encoder;
    AvPtr<SwsContext> m_scaler; // where the encoder does not take the store's pixel format
};

// Turns the sound of a store into packets: one unbroken stream from `startUs` on. What is missing is silence,
// what comes twice is left out.
class SoundEncoder
{
public:
    SoundEncoder(const EncoderChoice &choice, int sampleRate, int channels, bool globalHeader,
                 int64_t startUs);

    void encode(const int16_t *samples, int frames, int64_t us, const PacketSink &sink);
    // Silence up to here, where nothing has come.
    void keepUp(int64_t us, const PacketSink &sink);
    void flush(const PacketSink &sink);
    // Of the end of what has come.
    int64_t endUs() const;

    const AVCodecContext *context() const { return m_encoder.get(); }

private:
    void append(const int16_t *samples, int64_t frames, const PacketSink &sink); // null: silence
    void convert(const int16_t *samples, int frames);
    void drain(int frames, const PacketSink &sink);

    const int m_sampleRate;
    const int m_channels;
    AvPtr<AVCodecContext> m_encoder;
    AvPtr<SwrContext> m_resampler;
    AvPtr<AVAudioFifo> m_waiting; // for a whole block of the encoder's
    int m_blockFrames = 0;
    int64_t m_come = 0;   // audio frames at the store's rate, since time 0
    int64_t m_handed = 0; // audio frames at the encoder's rate, since time 0
};

} // namespace zevshm

#endif
