// zevshm dump
#include "color.h"
#include "commands.h"
#include "dumpfolder.h"
#include "hostclock.h"
#include "json.h"
#include "messages.h"
#include "pngwriter.h"
#include "storecapture.h"
#include "wakeups.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace zevshm {

namespace {

const std::vector<OptionSpec> specs = {
    {"--last", "MS", "only what is not older than this against the newest (usual: all that is held)"},
    {"--format", "FORMAT",
     "of the frames: png (usual), a file each, or y4m, one file with samples as they are"},
    {"--no-video", "", "sound only"},
    {"--no-audio", "", "pictures only"},
    {"--help", "", "show this"},
};

void printHelp()
{
    std::printf("Usage: zevshm dump [options] NAME DIR\n\n"
                "Writes what the store NAME still holds into the folder DIR, which is made or has to be "
                "empty:\n"
                "frame-0001.png and so on, or frames.y4m; sound-0.wav for every stream; and at the end "
                "timestamps.json,\n"
                "which says what is of which time.\n\n"
                "Options:\n%s\n"
                "Examples:\n  zevshm dump cam1 glitch\n  zevshm dump cam1 glitch --last 200\n"
                "  zevshm dump cam1 glitch --format y4m --no-audio\n",
                describeOptions(specs).c_str());
}

struct Held // copied out of the store
{
    struct Frame
    {
        int64_t timestampUs = 0;
        uint64_t generation = 0;
        AvPtr<AVFrame> picture;
    };
    struct Sound
    {
        int64_t timestampUs = 0; // of the first sample
        std::vector<int16_t> samples;
    };
    shm_reader_format_t format{};
    shm_store_info_t info{};
    int64_t takenUs = 0; // wall clock
    std::vector<Frame> frames;
    uint64_t missed = 0; // frames that were overwritten before they were reached
    std::vector<Sound> sounds;
};

// Timestamps are whatever another process has written: what they ask for is bounded by what is held.
Held::Sound copySound(shm_reader_t *reader, const std::string &name, int stream,
                      const shm_reader_format_t &format, int64_t notBeforeUs)
{
    Held::Sound sound;
    shm_audio_status_t status{};
    if (shm_reader_get_audio_status(reader, stream, &status) < 0 || status.frames == 0)
        return sound;
    sound.timestampUs = std::max<int64_t>(status.oldest_timestamp, notBeforeUs);
    if (status.newest_timestamp <= sound.timestampUs) {
        say(name + ": the sound of stream " + std::to_string(stream) +
            " is left out, because its newest is older than what is asked for: it has stopped, or its "
            "timestamps went back; see 'zevshm info " +
            name + "'");
        return sound;
    }
    const uint64_t lengthUs =
        static_cast<uint64_t>(status.newest_timestamp) - static_cast<uint64_t>(sound.timestampUs);
    const auto rate = static_cast<uint64_t>(format.sample_rate);
    const auto frames = static_cast<size_t>(std::min<uint64_t>(
        lengthUs / 1000000 * rate + lengthUs % 1000000 * rate / 1000000 + 1, status.frames));
    sound.samples.resize(frames * static_cast<size_t>(format.channels));
    const int64_t got =
        shm_reader_query_audio2(reader, stream, sound.samples.data(), frames, 1, sound.timestampUs, -1);
    sound.samples.resize(static_cast<size_t>(std::max<int64_t>(got, 0)) *
                         static_cast<size_t>(format.channels));
    return sound;
}

void copyFrames(shm_reader_t *reader, Held &held, const std::vector<long long> &timestamps)
{
    const FramePool pool = makeFramePool(held.format);
    for (const long long timestamp : timestamps) {
        shm_video_frame_t frame{};
        frame.timestamp = timestamp;
        if (shm_reader_lock_video(reader, &frame, SHM_VIDEO_EXACT) < 0) {
            ++held.missed;
            continue;
        }
        Held::Frame copy;
        copy.timestampUs = frame.timestamp;
        copy.generation = frame.generation;
        copy.picture = copyFrame(frame, held.format.pixel_format, held.info.color, pool.get());
        shm_reader_unlock_video(reader, &frame);
        held.frames.push_back(std::move(copy));
    }
}

// Nothing is written before everything is copied: what is held now is gone in a second.
Held copyHeld(shm_reader_t *reader, const std::string &name, int64_t lastUs, bool withVideo, bool withAudio)
{
    Held held;
    shm_reader_get_format(reader, &held.format);
    held.info.size = sizeof held.info;
    shm_reader_get_info(reader, &held.info);
    held.takenUs = wallUs();
    withVideo = withVideo && held.format.has_video;
    withAudio = withAudio && held.format.has_audio;

    std::vector<long long> timestamps(SHM_FRAMES_MAX);
    const int count =
        withVideo ? shm_reader_get_video_timestamps(reader, timestamps.data(), SHM_FRAMES_MAX) : 0;
    timestamps.resize(static_cast<size_t>(std::max(count, 0)));
    int64_t newestUs = timestamps.empty() ? 0 : timestamps.back();
    if (timestamps.empty() && withAudio) {
        shm_audio_status_t status{};
        shm_reader_get_audio_status(reader, 0, &status);
        newestUs = status.newest_timestamp;
    }
    const int64_t notBeforeUs = newestUs > lastUs ? newestUs - lastUs : 0;
    timestamps.erase(std::remove_if(timestamps.begin(), timestamps.end(),
                                    [&](long long timestamp) { return timestamp < notBeforeUs; }),
                     timestamps.end());

    const int streams = withAudio ? std::clamp(held.info.audio_streams, 1, int{SHM_STREAMS_MAX}) : 0;
    for (int stream = 0; stream < streams; ++stream)
        held.sounds.push_back(copySound(reader, name, stream, held.format, notBeforeUs));
    if (!timestamps.empty())
        copyFrames(reader, held, timestamps);
    return held;
}

std::string numberedName(const char *before, size_t number, const char *after)
{
    char name[64];
    std::snprintf(name, sizeof name, "%s%04zu%s", before, number, after);
    return name;
}

void writePictures(DumpFolder &folder, const Held &held, bool asY4m, JsonWriter &json)
{
    json.key("video").beginObject();
    json.member("width", held.format.width).member("height", held.format.height);
    json.member("pixelFormat", shm_pixel_format_name(held.format.pixel_format));
    json.member("matrix", shm_matrix_name(held.info.color.matrix))
        .member("range", shm_range_name(held.info.color.range))
        .member("transfer", shm_transfer_name(held.info.color.transfer))
        .member("siting", shm_siting_name(held.info.color.siting));
    json.member("frameIntervalUs", held.info.frame_interval_us).member("missed", held.missed);
    json.key("frames").beginArray();
    const std::string allName = "frames.y4m";
    if (asY4m && !held.frames.empty()) {
        const Y4mStream stream{held.format.width, held.format.height, held.info};
        std::vector<const AVFrame *> pictures;
        for (const Held::Frame &frame : held.frames)
            pictures.push_back(frame.picture.get());
        folder.writeY4m(allName, stream, pictures);
    }
    for (size_t i = 0; i < held.frames.size(); ++i) {
        const Held::Frame &frame = held.frames[i];
        const std::string name = asY4m ? allName : numberedName("frame-", i + 1, ".png");
        if (!asY4m)
            folder.writePicture(name, *frame.picture, held.format.pixel_format, held.info.color);
        json.beginObject();
        json.member("file", name).member("index", static_cast<uint64_t>(asY4m ? i : 0));
        json.member("timestamp", frame.timestampUs).member("generation", frame.generation);
        json.endObject();
    }
    json.endArray().endObject();
}

void writeSounds(DumpFolder &folder, const Held &held, JsonWriter &json)
{
    json.key("audio").beginObject();
    json.member("sampleRate", held.format.sample_rate).member("channels", held.format.channels);
    json.key("streams").beginArray();
    for (size_t i = 0; i < held.sounds.size(); ++i) {
        const Held::Sound &sound = held.sounds[i];
        const auto frames = static_cast<int64_t>(sound.samples.size()) / held.format.channels;
        json.beginObject();
        if (frames > 0) {
            const std::string name = "sound-" + std::to_string(i) + ".wav";
            folder.writeWav(name, sound.samples, held.format.sample_rate, held.format.channels);
            json.member("file", name);
        } else {
            json.key("file").null();
        }
        json.member("frames", frames).member("timestamp", sound.timestampUs);
        json.endObject();
    }
    json.endArray().endObject();
}

} // namespace

int dumpCommand(const std::vector<std::string> &words)
{
    const Options options("dump", specs, {"NAME", "DIR"}, words);
    if (options.has("--help")) {
        printHelp();
        return ExitOk;
    }
    av_log_set_level(AV_LOG_QUIET);
    const std::string &name = options.positional()[0];
    checkStoreName(name);
    const auto last = options.number("--last", 0, 1e6);
    const bool asY4m = options.choice("--format", {"png", "y4m"}).value_or("png") == "y4m";
    const bool withVideo = !options.has("--no-video");
    const bool withAudio = !options.has("--no-audio");
    if (!withVideo && !withAudio)
        throw Failure(ExitUsage, "dump: --no-video and --no-audio leave nothing to dump; give one of them");
    const Wakeups wakeups;
    DumpFolder folder(options.positional()[1], [&wakeups] {
        if (wakeups.wait(0))
            throw Failure(ExitInternal,
                          "dump: was ended by a signal; nothing of the dump is left, start it again");
    });
    const ReaderPtr reader = openStore(name);
    const int64_t lastUs = last ? std::llround(*last * 1000) : INT64_MAX;
    const Held held = copyHeld(reader.get(), name, lastUs, withVideo, withAudio);
    const bool hasSound = std::any_of(held.sounds.begin(), held.sounds.end(),
                                      [](const Held::Sound &sound) { return !sound.samples.empty(); });
    if (held.frames.empty() && !hasSound)
        throw Failure(ExitNoFrame,
                      name + ": holds nothing of what is asked for; see 'zevshm info " + name + "'");

    folder.make();
    JsonWriter json;
    json.beginObject();
    json.member("name", name).member("session", std::to_string(held.info.session));
    json.member("takenTimestamp", held.takenUs);
    if (withVideo && held.format.has_video)
        writePictures(folder, held, asY4m, json);
    else
        json.key("video").null();
    if (held.sounds.empty())
        json.key("audio").null();
    else
        writeSounds(folder, held, json);
    json.endObject();
    folder.writeText("timestamps.json", json.text() + "\n");
    folder.keep();
    return ExitOk;
}

} // namespace zevshm
