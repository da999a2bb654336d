// zevshm record
#include "commands.h"
#include "mediawriter.h"
#include "messages.h"
#include "recorder.h"
#include "report.h"
#include "wakeups.h"

#include <atomic>
#include <cmath>
#include <cstdio>
#include <exception>
#include <thread>

namespace zevshm {

namespace {

const std::vector<OptionSpec> specs = {
    {"--seconds", "N", "end after so much of the store's time (usual: at Ctrl-C)"},
    {"--wait", "SECONDS",
     "how long to wait for a store that is not there yet (0); begins with its oldest frame"},
    {"--return", "SECONDS", "how long to wait for the writer when it has gone (2)"},
    {"--overwrite", "", "replace FILE when it is there"},
    {"--no-video", "", "record sound only"},
    {"--no-audio", "", "record pictures only"},
    {"--container", "NAME", "as FFmpeg calls it (usual: by the ending of FILE)"},
    {"--video-codec", "ENCODER", "as FFmpeg calls it: libx264 (usual), ffv1 (lossless), ..."},
    {"--video-options", "K=V:K=V", "for the encoder (libx264: preset=veryfast:crf=18)"},
    {"--audio-codec", "ENCODER", "as FFmpeg calls it: aac (usual), pcm_s16le (lossless), ..."},
    {"--verbose", "", "also show what FFmpeg has to say"},
    {"--help", "", "show this"},
};

void printHelp()
{
    std::printf(
        "Usage: zevshm record [options] NAME FILE\n\n"
        "Records the store NAME, video and sound, until Ctrl-C is pressed, --seconds are over or its writer "
        "has\n"
        "gone. FILE is .mkv, .mp4, .mov or another container that keeps the time of every frame.\n\n"
        "Options:\n%s\n"
        "Every frame has its timestamp of the store, less that of the first; picture and sound stay "
        "together. A\n"
        "recording is FILE.part until it is complete. What cannot go on in one file goes on in a next one, "
        "FILE-2:\n"
        "when the writer comes back, with another format or not, when timestamps go back, and, with sound, "
        "when they\n"
        "leave out more than 10 s.\n\n"
        "Examples:\n"
        "  zevshm record cam1 cam1.mkv\n"
        "  zevshm record cam1 minute.mp4 --seconds 60\n"
        "  zevshm record cam1 exact.mkv --video-codec ffv1 --audio-codec pcm_s16le\n"
        "  zevshm record cam1 all-day.mkv --wait 60 --return 3600\n",
        describeOptions(specs).c_str());
}

Recorder::Settings makeSettings(const Options &options)
{
    Recorder::Settings settings;
    settings.name = options.positional()[0];
    settings.file = options.positional()[1];
    checkStoreName(settings.name);
    if (const auto seconds = options.number("--seconds", 0.001, 1e7))
        settings.lengthUs = std::llround(*seconds * 1e6);
    if (const auto wait = options.number("--wait", 0, 1e7))
        settings.firstWaitUs = std::llround(*wait * 1e6);
    if (const auto wait = options.number("--return", 0, 1e7))
        settings.returnWaitUs = std::llround(*wait * 1e6);
    settings.overwrite = options.has("--overwrite");
    settings.withVideo = !options.has("--no-video");
    settings.withAudio = !options.has("--no-audio");
    if (!settings.withVideo && !settings.withAudio)
        throw Failure(ExitUsage,
                      "record: --no-video and --no-audio leave nothing to record; give one of them");
    settings.container = options.text("--container").value_or("");
    settings.video.name = options.text("--video-codec").value_or("");
    settings.sound.name = options.text("--audio-codec").value_or("");
    if (const auto text = options.text("--video-options"))
        settings.video.options = parseEncoderOptions("record", "--video-options", *text);
    return settings;
}

} // namespace

int recordCommand(const std::vector<std::string> &words)
{
    const Options options("record", specs, {"NAME", "FILE"}, words);
    if (options.has("--help")) {
        printHelp();
        return ExitOk;
    }
    setVerbose(options.has("--verbose"));
    av_log_set_level(options.has("--verbose") ? AV_LOG_INFO : AV_LOG_QUIET);
    const Recorder::Settings settings = makeSettings(options);
    const Wakeups wakeups;
    Recorder recorder(settings);
    recorder.checkFile();

    std::exception_ptr failure;
    std::atomic<bool> ended{false};
    std::thread thread([&] {
        try {
            recorder.run();
        } catch (...) {
            failure = std::current_exception();
        }
        ended = true;
        wakeups.wake();
    });
    constexpr int progressMs = 500;
    while (!ended) {
        if (wakeups.wait(progressMs))
            recorder.stop();
        else if (!ended) // cppcheck-suppress identicalInnerCondition ; the thread above sets it meanwhile
            showProgress(recorder.progressLine());
    }
    thread.join();
    endProgress();
    for (const Recorder::Segment &segment : recorder.segments()) {
        const std::string lostSound =
            segment.lostSoundUs > 0 ? ", " + durationText(segment.lostSoundUs) + " of sound lost" : "";
        std::printf("%s: %llu frames, %s of sound, %s, %s, %llu lost%s\n", segment.file.c_str(),
                    static_cast<unsigned long long>(segment.frames), durationText(segment.soundUs).c_str(),
                    durationText(segment.lengthUs).c_str(), byteText(segment.bytes).c_str(),
                    static_cast<unsigned long long>(segment.lost), lostSound.c_str());
    }
    if (failure) {
        std::fflush(stdout);
        std::rethrow_exception(failure);
    }
    return ExitOk;
}

} // namespace zevshm
