// Writes what a store carries into a file, through FFmpeg.
#ifndef ZEVSHM_MEDIAWRITER_H
#define ZEVSHM_MEDIAWRITER_H

#include "encoders.h"
#include "storecapture.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace zevshm {

// Usage: construct (finds container and encoders), open() with the first picture, write() items in the order
// in which they were captured, finish().
// Threads: one at a time.
// Units: timestamps are the store's; `originUs` becomes time 0 of the output.
// Errors: Failure: ExitUsage for containers and encoders that do not go together, ExitOutput when nothing can
// be written or an encoder fails. After one finish() may still complete what came before.
class MediaWriter
{
public:
    struct Settings
    {
        std::string target;    // file or receiver as its user knows it
        std::string part;      // where it is written to: a file, or a URL when live
        std::string container; // FFmpeg's name of it; empty: by the target's ending
        EncoderChoice video;   // no name: what suits the container
        EncoderChoice sound;
        // To somebody who watches now: encoded without delay, with a key frame every two seconds, and sound
        // is not waited for.
        bool live = false;
        std::map<std::string, std::string> outputOptions; // of the protocol and the container
        AVIOInterruptCB interrupt = {nullptr, nullptr};   // ends what waits for a network
    };
    struct Format
    {
        bool video = false;
        bool sound = false;
        std::optional<Ratio> rate;
        int sampleRate = 0;
        int channels = 0;
        int streams = 0; // of sound
    };

    MediaWriter(const Settings &settings, const Format &format);
    ~MediaWriter();
    MediaWriter(const MediaWriter &) = delete;
    MediaWriter &operator=(const MediaWriter &) = delete;

    // `first` is null without video. Sound begins at `startUs` of the output's time.
    void open(const AVFrame *first, int64_t originUs, int64_t startUs = 0);
    void write(CapturedItem &item);
    // Completes the output: everything has been written when this returns. Once, also when it throws.
    void finish();

    int64_t bytes() const;
    int64_t packetBytes() const { return m_packetBytes; }
    int64_t originUs() const { return m_originUs; }
    // Of the end of the sound that has come, in the output's time; 0 without sound.
    int64_t soundEndUs() const { return m_sounds.empty() ? 0 : m_sounds[0]->endUs(); }

private:
    void chooseContainer();
    void chooseEncoders();
    void chooseX264Options();
    bool takes(AVCodecID codec) const;
    void openOutput(AVDictionary **options);
    int64_t soundLagUs() const;
    AVStream *addStream(const AVCodecContext *encoder);
    PacketSink sink(const AVCodecContext *encoder, int index);
    void check(int code) const;

    Settings m_settings;
    const Format m_format;
    OutputPtr m_output;
    int64_t m_originUs = 0;
    int64_t m_packetBytes = 0;
    bool m_hasEditLists = false; // a track may begin before time 0
    std::unique_ptr<VideoEncoder> m_video;
    std::vector<std::unique_ptr<SoundEncoder>> m_sounds;
};

} // namespace zevshm

#endif
