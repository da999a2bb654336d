// zevshm relay
#include "commands.h"
#include "messages.h"
#include "recorder.h"
#include "relayer.h"
#include "report.h"
#include "wakeups.h"

#include <atomic>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <exception>
#include <thread>

namespace zevshm {

namespace {

const std::vector<OptionSpec> specs = {
    {"--seconds", "N", "end after so many seconds (usual: at Ctrl-C)"},
    {"--wait", "SECONDS", "how long to wait for a store, then for a receiver, that is not there yet (0)"},
    {"--return", "SECONDS", "how long to wait for the writer when it has gone (usual: without end)"},
    {"--no-video", "", "relay sound only"},
    {"--no-audio", "", "relay pictures only"},
    {"--format", "NAME", "container, as FFmpeg calls it (usual: what suits the URL)"},
    {"--output-options", "K=V:K=V", "for container and protocol: rtsp_transport=tcp"},
    {"--video-codec", "ENCODER", "as FFmpeg calls it (usual: libx264 where the container takes it)"},
    {"--video-options", "K=V:K=V", "for the encoder (libx264: preset=veryfast:crf=23; b=2M limits the rate)"},
    {"--audio-codec", "ENCODER", "as FFmpeg calls it (usual: aac where the container takes it)"},
    {"--verbose", "", "also show what FFmpeg has to say"},
    {"--help", "", "show this"},
};

void printHelp()
{
    std::printf("Usage: zevshm relay [options] NAME URL\n\n"
                "Sends the store NAME, video and sound, to a media server or another machine until Ctrl-C is "
                "pressed or\n"
                "--seconds are over. URL is rtsp://, rtmp://, srt://, udp://, tcp://, or another output of "
                "FFmpeg, or a file.\n\n"
                "Options:\n%s\n"
                "What the receiver takes too slowly is dropped, never delayed. An output that fails is "
                "connected again;\n"
                "when the writer comes back, with another format or not, the output is opened anew. "
                "'zevshm publish' is\n"
                "the way back into a store.\n\n"
                "Examples:\n"
                "  zevshm relay cam1 rtsp://server.local/cam1\n"
                "  zevshm relay cam1 'srt://server.local:9000?mode=caller' --video-options b=2M\n"
                "  zevshm relay cam1 'udp://192.0.2.7:5000?pkt_size=1316' --wait 60\n"
                "  zevshm relay cam1 rtmp://server.local/live/key --format flv\n",
                describeOptions(specs).c_str());
}

Relayer::Settings makeSettings(const Options &options)
{
    Relayer::Settings settings;
    settings.name = options.positional()[0];
    settings.url = options.positional()[1];
    checkStoreName(settings.name);
    if (const auto seconds = options.number("--seconds", 0.001, 1e7))
        settings.lengthUs = std::llround(*seconds * 1e6);
    if (const auto wait = options.number("--wait", 0, 1e7))
        settings.waitUs = std::llround(*wait * 1e6);
    if (const auto wait = options.number("--return", 0, 1e7))
        settings.returnWaitUs = std::llround(*wait * 1e6);
    settings.withVideo = !options.has("--no-video");
    settings.withAudio = !options.has("--no-audio");
    if (!settings.withVideo && !settings.withAudio)
        throw Failure(ExitUsage, "relay: --no-video and --no-audio leave nothing to relay; give one of them");
    settings.container = options.text("--format").value_or("");
    settings.video.name = options.text("--video-codec").value_or("");
    settings.sound.name = options.text("--audio-codec").value_or("");
    if (const auto text = options.text("--video-options"))
        settings.video.options = parseEncoderOptions("relay", "--video-options", *text);
    if (const auto text = options.text("--output-options"))
        settings.outputOptions = parseEncoderOptions("relay", "--output-options", *text);
    return settings;
}

} // namespace

int relayCommand(const std::vector<std::string> &words)
{
    const Options options("relay", specs, {"NAME", "URL"}, words);
    if (options.has("--help")) {
        printHelp();
        return ExitOk;
    }
    setVerbose(options.has("--verbose"));
    av_log_set_level(options.has("--verbose") ? AV_LOG_INFO : AV_LOG_QUIET);
    std::signal(SIGPIPE, SIG_IGN); // a receiver that has gone is an error of write()
    const Relayer::Settings settings = makeSettings(options);
    const Wakeups wakeups;
    Relayer relayer(settings);
    relayer.check();

    std::exception_ptr failure;
    std::atomic<bool> ended{false};
    std::thread thread([&] {
        try {
            relayer.run();
        } catch (...) {
            failure = std::current_exception();
        }
        ended = true;
        wakeups.wake();
    });
    constexpr int progressMs = 500;
    while (!ended) {
        if (wakeups.wait(progressMs))
            relayer.stop();
        else if (!ended) // cppcheck-suppress identicalInnerCondition ; the thread above sets it meanwhile
            showProgress(relayer.progressLine());
        relayer.reportDrops(false);
    }
    thread.join();
    relayer.reportDrops(true);
    endProgress();
    const Relayer::Totals totals = relayer.totals();
    if (totals.connections > 0)
        std::printf("%s to %s: %llu frames, %s, %s, %llu dropped, %llu not sent, connected %llu times\n",
                    settings.name.c_str(), shownUrl(settings.url).c_str(),
                    static_cast<unsigned long long>(totals.frames), durationText(totals.lengthUs).c_str(),
                    byteText(static_cast<uint64_t>(totals.bytes)).c_str(),
                    static_cast<unsigned long long>(totals.dropped),
                    static_cast<unsigned long long>(totals.unsent),
                    static_cast<unsigned long long>(totals.connections));
    if (failure) {
        std::fflush(stdout);
        std::rethrow_exception(failure);
    }
    return ExitOk;
}

} // namespace zevshm
