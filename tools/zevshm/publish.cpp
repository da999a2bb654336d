// zevshm publish
#include "camera.h"
#include "camerapublisher.h"
#include "commands.h"
#include "failure.h"
#include "ffmpeg.h"
#include "mediainput.h"
#include "messages.h"
#include "publisher.h"
#include "testinput.h"
#include "wakeups.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <random>

namespace zevshm {

namespace {

const std::vector<OptionSpec> specs = {
    {"--loop", "", "start over at the end of a file, without a gap; other inputs go on as they are"},
    {"--fps", "RATE", "frames a second: of a test input (25), or repeat and leave out frames of a medium"},
    {"--size", "WxH", "size of the frames: of a test input (1280x720), or scale a medium"},
    {"--format", "FORMAT", "yuv420p (usual), yvu420p or nv12"},
    {"--matrix", "MATRIX", "of a test input: bt601 or bt709 (usual: bt601 up to 576 lines, else bt709)"},
    {"--keep-range", "", "keep the range of a medium's samples instead of making them full range"},
    {"--copy", "",
     "of a camera: copy each frame, full range and as --format and --size say, not straight as it comes"},
    {"--no-video", "", "publish sound only"},
    {"--no-audio", "", "publish pictures only"},
    {"--audio-rate", "HZ", "samples a second (a medium's own, or 48000)"},
    {"--audio-channels", "N", "1 to 8 (a medium's own, or 2)"},
    {"--history", "N", "frames that the store keeps, 1 to 200 (usual: 0.75 s, at least 8)"},
    {"--group", "GROUP", "let members of this group read"},
    {"--sealed", "", "let no reader write into frames, not even this user's"},
    {"--memory", "KIND",
     "where frames lie: memfd (usual); udmabuf, for readers that import them into a GPU; dma-heap:NAME; "
     "huge"},
    {"--dmabuf-others", "", "readers of other users may import, and so write, frames too"},
    {"--latency", "MS", "of network streams: time that hides the network's jitter (100)"},
    {"--av-offset", "MS", "of test:avsync: the beep comes this much after the flash"},
    {"--jitter", "MS", "fault: frames come up to this much later, timestamps too"},
    {"--ppm", "N", "fault: the input's clock runs this many millionths fast"},
    {"--drop", "PERCENT", "fault: leave out frames at random"},
    {"--stall", "AFTER,FOR", "fault: after so many seconds publish nothing for so many seconds"},
    {"--clock-step", "AFTER,MS",
     "fault: after so many seconds shift timestamps; back: the store is opened anew"},
    {"--seed", "N", "makes --jitter and --drop repeatable (1)"},
    {"--verbose", "", "also show what FFmpeg has to say"},
    {"--help", "", "show this"},
};

void printHelp()
{
    std::printf(
        "Usage: zevshm publish [options] NAME INPUT\n\n"
        "Publishes INPUT as the frame store NAME until it ends or Ctrl-C is pressed.\n\n"
        "INPUT is a file, a URL (rtsp://, srt://, udp://, http://, ...), - for standard input, or\n"
        "  test:         moving picture with frame number, time and block code; a tone for every channel\n"
        "  test:avsync   a flash and a beep at every full second of the wall clock\n"
        "  test:bars     saturated color bars\n"
        "  v4l2:DEVICE   a camera: v4l2:/dev/video0, at the size and rate that it is set to; NV12 straight "
        "into\n"
        "                the store where its driver can\n\n"
        "Options:\n%s\n"
        "Timestamps are wall-clock time. A frame is published at its timestamp; sound in blocks of 10 ms, "
        "each\n"
        "when its last sample is due. A network stream that drops is opened again while the store stays.\n\n"
        "Examples:\n"
        "  zevshm publish cam1 test:\n"
        "  zevshm publish cam1 movie.mp4 --loop\n"
        "  zevshm publish door rtsp://camera.local/stream --format nv12\n"
        "  ffmpeg -i movie.mp4 -f matroska - | zevshm publish cam1 -\n"
        "  zevshm publish desk v4l2:/dev/video0\n"
        "  zevshm publish shaky test: --jitter 20 --drop 5 --seed 7\n",
        describeOptions(specs).c_str());
}

struct PublishPlan
{
    std::string input;
    StoreSettings store;
    Publisher::Settings publisher;
    MediaInput::Settings media;
    TestInput::Settings test;
    std::optional<CameraPublisher::Settings> camera; // may be published without FFmpeg
    bool isTest = false;
};

constexpr int64_t cameraLatencyUs = 20000; // there is no network whose jitter is to be hidden

int64_t millisecondsToUs(double milliseconds)
{
    return static_cast<int64_t>(std::llround(milliseconds * 1000));
}

FaultPlan parseFaults(const Options &options)
{
    FaultPlan plan;
    plan.jitterUs = millisecondsToUs(options.number("--jitter", 0, 10000).value_or(0));
    plan.ppm = options.number("--ppm", -100000, 100000).value_or(0);
    plan.dropPercent = options.number("--drop", 0, 100).value_or(0);
    if (const auto stall = options.pair("--stall")) {
        if (stall->second < 0)
            throw Failure(ExitUsage,
                          "publish: --stall cannot last less than nothing; give AFTER,FOR in seconds");
        plan.stallAfterUs = millisecondsToUs(stall->first * 1000);
        plan.stallForUs = millisecondsToUs(stall->second * 1000);
    }
    if (const auto step = options.pair("--clock-step")) {
        plan.stepAfterUs = millisecondsToUs(step->first * 1000);
        plan.stepByUs = millisecondsToUs(step->second);
    }
    plan.seed = static_cast<uint64_t>(options.integer("--seed", 0, INT64_MAX).value_or(1));
    return plan;
}

constexpr const char *faultOptions[] = {"--jitter", "--ppm", "--drop", "--stall", "--clock-step"};

// An option that would change nothing is not what was meant.
void checkCameraOptions(const Options &options)
{
    const auto refuse = [](const std::string &what) { throw Failure(ExitUsage, "publish: " + what); };
    const std::pair<const char *, const char *> without[] = {
        {"--loop", "a camera has no end, leave it out"},
        {"--latency", "a camera comes through no network, leave it out"},
        {"--no-video", "a camera has no sound that could be left, leave it out"},
        {"--audio-rate", "a camera has no sound, publish its microphone as a store of its own"},
        {"--audio-channels", "a camera has no sound, publish its microphone as a store of its own"},
        {"--av-offset", "it is for test:avsync, leave it out"}};
    for (const auto &[name, why] : without) {
        if (options.has(name))
            refuse(std::string(name) + " does not go with a camera: " + why);
    }
    if (!options.has("--copy"))
        return;
    std::vector<const char *> copying = {"--fps"};
    copying.insert(copying.end(), std::begin(faultOptions), std::end(faultOptions));
    for (const char *name : copying) {
        if (options.has(name))
            refuse("--copy does not go with " + std::string(name) +
                   ", which has each frame copied in any case; leave --copy out");
    }
}

// What a camera that offers NV12 is published like without FFmpeg; nothing with what only FFmpeg's way has.
std::optional<CameraPublisher::Settings> cameraSettings(const Options &options, const PublishPlan &plan)
{
    const auto isGiven = [&options](const char *name) { return options.has(name); };
    if (isGiven("--fps") || std::any_of(std::begin(faultOptions), std::end(faultOptions), isGiven))
        return std::nullopt;
    CameraPublisher::Settings settings;
    settings.device = plan.input.substr(plan.input.find(':') + 1);
    settings.pixelFormat = plan.store.pixelFormat;
    settings.size = plan.publisher.size;
    settings.keepRange = plan.publisher.keepRange;
    for (const char *name : {"--copy", "--size"}) {
        if (options.has(name))
            settings.obstacle = std::string(name) + " is given";
    }
    if (options.text("--format") && settings.pixelFormat != SHM_PIXEL_FORMAT_NV12)
        settings.obstacle = "--format " + *options.text("--format") + " is given";
    return settings;
}

PatternKind parseKind(const std::string &input)
{
    const std::string kind = input.substr(std::strlen("test:"));
    if (kind.empty())
        return PatternKind::Moving;
    if (kind == "avsync")
        return PatternKind::AvSync;
    if (kind == "bars")
        return PatternKind::Bars;
    throw Failure(ExitUsage,
                  "publish: there is no test input '" + input + "', give test:, test:avsync or test:bars");
}

PublishPlan makePlan(const Options &options)
{
    PublishPlan plan;
    plan.store.name = options.positional()[0];
    plan.input = options.positional()[1];
    checkStoreName(plan.store.name);
    plan.isTest = plan.input.rfind("test:", 0) == 0;
    if (isCameraInput(plan.input) && plan.input.back() == ':')
        throw Failure(ExitUsage, "publish: '" + plan.input + "' names no device; give v4l2:/dev/video0");
    if (isCameraInput(plan.input))
        checkCameraOptions(options);
    if (plan.isTest && options.has("--copy"))
        throw Failure(ExitUsage, "publish: --copy is for cameras; leave it out");

    const std::string format = options.choice("--format", {"yuv420p", "yvu420p", "nv12"}).value_or("yuv420p");
    plan.store.pixelFormat = format == "nv12"      ? SHM_PIXEL_FORMAT_NV12
                             : format == "yvu420p" ? SHM_PIXEL_FORMAT_YVU420P
                                                   : SHM_PIXEL_FORMAT_YUV420P;
    plan.store.historyFrames =
        static_cast<uint32_t>(options.integer("--history", 1, SHM_FRAMES_MAX).value_or(0));
    plan.store.group = options.text("--group").value_or("");
    plan.store.sealed = options.has("--sealed");
    plan.store.memory = options.text("--memory").value_or("");
    plan.store.dmabufOthers = options.has("--dmabuf-others");

    const bool withVideo = !options.has("--no-video");
    const bool withAudio = !options.has("--no-audio");
    if (!withVideo && !withAudio)
        throw Failure(ExitUsage,
                      "publish: --no-video and --no-audio leave nothing to publish; give one of them");
    const auto size = options.size("--size", SHM_DIMENSION_MAX);
    const auto rate = options.rate("--fps");
    const auto sampleRate = options.integer("--audio-rate", 1000, 384000);
    const auto channels = options.integer("--audio-channels", 1, SHM_CHANNELS_MAX);
    const auto matrix = options.choice("--matrix", {"bt601", "bt709"});
    const auto latency = options.number("--latency", 0, 10000);
    const auto beepOffset = options.number("--av-offset", -500, 500);

    plan.publisher.faults = parseFaults(options);
    plan.publisher.size = size;
    plan.publisher.keepRange = options.has("--keep-range");
    if (plan.isTest) {
        plan.test.kind = parseKind(plan.input);
        if (size)
            std::tie(plan.test.width, plan.test.height) = *size;
        plan.test.rate = rate.value_or(Ratio{25, 1});
        plan.test.matrix =
            matrix ? (*matrix == "bt601" ? Matrix::Bt601 : Matrix::Bt709) : matrixForHeight(plan.test.height);
        plan.test.audio.sampleRate = static_cast<int>(sampleRate.value_or(48000));
        plan.test.audio.channels = static_cast<int>(channels.value_or(2));
        plan.test.withVideo = withVideo;
        plan.test.withAudio = withAudio;
        plan.test.beepOffsetUs = millisecondsToUs(beepOffset.value_or(0));
        return plan;
    }
    if (matrix)
        throw Failure(ExitUsage,
                      "publish: --matrix is for test inputs, a medium keeps its own; leave it out");
    plan.media.input = plan.input;
    plan.media.loop = options.has("--loop");
    plan.media.withVideo = withVideo;
    plan.media.withAudio = withAudio;
    plan.media.rate = rate;
    if (sampleRate)
        plan.media.sampleRate = static_cast<int>(*sampleRate);
    if (channels)
        plan.media.channels = static_cast<int>(*channels);
    plan.media.scaled = size.has_value();
    if (isCameraInput(plan.input))
        plan.media.latencyUs = cameraLatencyUs;
    if (latency)
        plan.media.latencyUs = millisecondsToUs(*latency);
    if (isCameraInput(plan.input))
        plan.camera = cameraSettings(options, plan);
    else if (options.has("--copy"))
        throw Failure(ExitUsage, "publish: --copy is for cameras; leave it out");
    return plan;
}

std::string progressLine(const std::string &name, const Publisher::Counters &counters,
                         const shm_writer_stats_t &stats, double framesPerSecond)
{
    const unsigned long long dropped = counters.noSlot + counters.refused + counters.withheld;
    char line[200];
    std::snprintf(line, sizeof line, "%s: %llu frames, %.1f fps, %llu dropped, %llu late, %d reader%s",
                  name.c_str(), static_cast<unsigned long long>(counters.frames), framesPerSecond, dropped,
                  static_cast<unsigned long long>(counters.late), stats.readers,
                  stats.readers == 1 ? "" : "s");
    return line;
}

template <class AnyPublisher>
void watch(const Wakeups &wakeups, const AnyPublisher &publisher, StoreWriter &store, const std::string &name)
{
    constexpr int progressMs = 500;
    int64_t lastUs = monotonicUs();
    uint64_t lastFrames = 0;
    double rate = 0;
    while (!publisher.finished()) {
        if (wakeups.wait(progressMs))
            return;
        const Publisher::Counters counters = publisher.counters();
        const int64_t nowUs = monotonicUs();
        if (nowUs - lastUs >= 1000000) {
            rate =
                static_cast<double>(counters.frames - lastFrames) * 1e6 / static_cast<double>(nowUs - lastUs);
            lastUs = nowUs;
            lastFrames = counters.frames;
        }
        store.reportExport();
        showProgress(progressLine(name, counters, store.stats(), rate));
    }
}

std::string describe(const InputFormat &format, int pixelFormat)
{
    std::string text;
    if (format.video) {
        text = std::to_string(format.video->width) + "x" + std::to_string(format.video->height) + " " +
               shm_pixel_format_name(pixelFormat) + " " + shm_matrix_name(format.video->color.matrix) + " " +
               shm_range_name(format.video->color.range);
        if (format.video->rate) {
            char rate[32];
            std::snprintf(rate, sizeof rate, " %.6g fps",
                          static_cast<double>(format.video->rate->numerator) /
                              format.video->rate->denominator);
            text += rate;
        }
    }
    if (format.audio)
        text += (text.empty() ? "" : ", ") + std::to_string(format.audio->sampleRate) + " Hz " +
                std::to_string(format.audio->channels) + " channels";
    return text;
}

// Whether it was published; a camera that offers no NV12 is not.
bool publishCamera(const PublishPlan &plan, const Wakeups &wakeups, SharedClock &clock)
{
    StoreWriter store(plan.store);
    CameraPublisher publisher(*plan.camera, store, clock);
    if (!publisher.open())
        return false;
    say(plan.store.name + ": " + describe(store.format(), store.pixelFormat()) + ", " + publisher.way());
    publisher.run([&wakeups] { wakeups.wake(); });
    watch(wakeups, publisher, store, plan.store.name);
    endProgress();
    publisher.stop();
    publisher.join();
    return true;
}

} // namespace

int publishCommand(const std::vector<std::string> &words)
{
    const Options options("publish", specs, {"NAME", "INPUT"}, words);
    if (options.has("--help")) {
        printHelp();
        return ExitOk;
    }
    const bool verbose = options.has("--verbose");
    setVerbose(verbose);
    av_log_set_level(verbose ? AV_LOG_INFO : AV_LOG_QUIET);
    PublishPlan plan = makePlan(options);

    const Wakeups wakeups;
    StopToken stopToken;
    SharedClock clock(plan.publisher.faults.ppm);
    if (plan.camera && publishCamera(plan, wakeups, clock))
        return ExitOk;
    std::unique_ptr<Input> input;
    if (plan.isTest)
        input = std::make_unique<TestInput>(plan.test, stopToken);
    else
        input = std::make_unique<MediaInput>(plan.media, clock, stopToken);

    // Opening may wait for a network or a pipe: the signals have to be heard meanwhile.
    std::optional<InputFormat> format;
    std::exception_ptr failure;
    std::atomic<bool> opened{false};
    std::thread opener([&] {
        try {
            input->start();
            format = input->waitForFormat();
        } catch (...) {
            failure = std::current_exception();
        }
        opened = true;
        wakeups.wake();
    });
    while (!opened) {
        if (wakeups.wait(-1))
            stopToken.stop();
    }
    opener.join();
    if (stopToken.stopped())
        return ExitOk;
    if (failure)
        std::rethrow_exception(failure);

    StoreWriter store(plan.store);
    if (isCameraInput(plan.input))
        store.setCapture(SHM_CAPTURE_COPIED);
    store.open(Publisher::storeFormat(*format, plan.publisher));
    input->prepare();
    if (plan.isTest)
        plan.publisher.firstWallUs = TestInput::alignedStart(wallUs() + 50000, plan.test.rate);
    Publisher publisher(*input, store, clock, stopToken, plan.publisher);
    if (isCameraInput(plan.input))
        say(plan.store.name + ": " + describe(store.format(), plan.store.pixelFormat) +
            ", each frame written into the store from the driver's buffer: one copy, because " +
            (plan.camera ? "the camera offers no NV12" : "--fps or a fault is asked for"));
    sayVerbose(plan.store.name + ": " + describe(store.format(), plan.store.pixelFormat));
    publisher.run([&wakeups] { wakeups.wake(); });
    watch(wakeups, publisher, store, plan.store.name);
    endProgress();
    stopToken.stop();
    publisher.join();
    input->stop();
    return ExitOk;
}

} // namespace zevshm
