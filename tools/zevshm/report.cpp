#include "report.h"

#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <ctime>

namespace zevshm {

namespace {

__attribute__((format(printf, 1, 2))) std::string print(const char *format, ...)
{
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    return text;
}

int64_t historySpanUs(const StoreReport &report)
{
    return report.timestamps.empty() ? 0 : report.timestamps.back() - report.timestamps.front();
}

double milliseconds(int64_t us)
{
    return static_cast<double>(us) / 1000;
}

std::string rateText(const shm_store_info_t &info)
{
    if (info.rate_numerator && info.rate_denominator)
        return print("%.6g fps declared (%u/%u)", framesPerSecond(info), info.rate_numerator,
                     info.rate_denominator);
    if (info.frame_interval_us > 0)
        return print("%.3f fps estimated", framesPerSecond(info));
    return "not known yet";
}

std::string captureText(int capture)
{
    switch (capture) {
    case SHM_CAPTURE_DMABUF:
        return "straight into the store (DMABUF)";
    case SHM_CAPTURE_USERPTR:
        return "straight into the store (USERPTR)";
    default:
        return "one copy, from the driver's buffers";
    }
}

} // namespace

std::string byteText(uint64_t bytes)
{
    const double mebibytes = static_cast<double>(bytes) / (1024 * 1024);
    return mebibytes >= 1024 ? print("%.2f GiB", mebibytes / 1024)
           : mebibytes >= 1  ? print("%.1f MiB", mebibytes)
                             : print("%.1f KiB", static_cast<double>(bytes) / 1024);
}

std::string timeText(int64_t wallInstantUs)
{
    const time_t seconds = static_cast<time_t>(wallInstantUs / 1000000);
    tm local{};
    char text[40] = "?";
    if (localtime_r(&seconds, &local))
        std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    return text + print(".%03d", static_cast<int>(wallInstantUs / 1000 % 1000));
}

std::string summary(const StoreReport &report)
{
    std::string text;
    if (report.format.has_video) {
        text = print("%dx%d %s", report.format.width, report.format.height,
                     shm_pixel_format_name(report.format.pixel_format));
        if (framesPerSecond(report.info) > 0)
            text += print(" %.5g fps", framesPerSecond(report.info));
    }
    if (report.format.has_audio)
        text += print("%s%d Hz x %d", text.empty() ? "" : ", ", report.format.sample_rate,
                      report.format.channels);
    return text;
}

std::string describe(const StoreReport &report, int64_t nowUs)
{
    const shm_store_info_t &info = report.info;
    std::string text;
    text += print("Store %s in %s\n", report.name.c_str(), info.directory);
    text += print("  writer    process %d since %s, session %" PRIx64 "\n", info.writer_pid,
                  timeText(info.started_timestamp).c_str(), info.session);
    if (report.format.has_video) {
        text += print("  video     %dx%d %s\n", report.format.width, report.format.height,
                      shm_pixel_format_name(report.format.pixel_format));
        text += print("  color     matrix %s, range %s, transfer %s, siting %s\n",
                      shm_matrix_name(info.color.matrix), shm_range_name(info.color.range),
                      shm_transfer_name(info.color.transfer), shm_siting_name(info.color.siting));
        text += print("  rate      %s, interval %.3f ms, jitter %.3f ms\n", rateText(info).c_str(),
                      milliseconds(info.frame_interval_us), milliseconds(info.jitter_us));
        text += print("  history   %zu frames over %.3f s, at least %d are kept\n", report.timestamps.size(),
                      static_cast<double>(historySpanUs(report)) / 1e6, report.format.frame_count);
        if (!report.timestamps.empty())
            text += print("  newest    %lld (%s), %.1f ms ago\n", report.timestamps.back(),
                          timeText(report.timestamps.back()).c_str(),
                          milliseconds(nowUs - report.timestamps.back()));
        text += print("  frames    %" PRIu64 " published, %" PRIu64 " dropped without a free slot, %" PRIu64
                      " refused\n",
                      info.frames_published, info.frames_dropped, info.frames_refused);
    }
    if (report.format.has_audio) {
        text += print("  audio     %d Hz, %d channel%s, %d stream%s\n", report.format.sample_rate,
                      report.format.channels, report.format.channels == 1 ? "" : "s", info.audio_streams,
                      info.audio_streams == 1 ? "" : "s");
        for (size_t i = 0; i < report.audio.size(); ++i)
            text +=
                print("  stream %zu  %.3f s held, newest %.1f ms ago\n", i,
                      static_cast<double>(report.audio[i].frames) / report.format.sample_rate,
                      report.audio[i].frames ? milliseconds(nowUs - report.audio[i].newest_timestamp) : 0.0);
    }
    text += print("  readers   %d, holding %d frames", info.readers, info.locks_held);
    if (info.wished_numerator && info.wished_denominator)
        text +=
            print(", wish %.5g fps", static_cast<double>(info.wished_numerator) / info.wished_denominator);
    text += print("\n  memory    %s", byteText(info.total_bytes).c_str());
    if (report.format.has_video)
        text +=
            print(" (%d slots of %s), %s", info.slot_count, byteText(info.slot_bytes).c_str(), info.memory);
    text += print("%s\n", info.sealed ? ", sealed" : "");
    if (report.format.has_video)
        text += print("  DMA-buf   %s\n", info.dmabuf);
    if (report.format.has_video && info.capture != SHM_CAPTURE_NONE)
        text += print("  capture   %s\n", captureText(info.capture).c_str());
    return text;
}

void writeJson(JsonWriter &json, const StoreReport &report)
{
    const shm_store_info_t &info = report.info;
    json.beginObject();
    json.member("name", report.name).member("directory", info.directory).member("live", info.live != 0);
    json.member("writerPid", info.writer_pid).member("session", std::to_string(info.session));
    json.member("startedTimestamp", info.started_timestamp).member("readers", info.readers);
    json.member("locksHeld", info.locks_held)
        .member("slots", info.slot_count)
        .member("slotBytes", info.slot_bytes);
    json.member("totalBytes", info.total_bytes)
        .member("memory", info.memory)
        .member("sealed", info.sealed != 0);
    if (report.format.has_video) {
        json.key("video").beginObject();
        json.member("width", report.format.width).member("height", report.format.height);
        json.member("pixelFormat", shm_pixel_format_name(report.format.pixel_format));
        json.member("matrix", shm_matrix_name(info.color.matrix))
            .member("range", shm_range_name(info.color.range));
        json.member("transfer", shm_transfer_name(info.color.transfer));
        json.member("siting", shm_siting_name(info.color.siting));
        json.member("rate", framesPerSecond(info)).member("rateDeclared", info.rate_numerator != 0);
        json.member("rateNumerator", info.rate_numerator).member("rateDenominator", info.rate_denominator);
        json.member("frameIntervalUs", info.frame_interval_us).member("jitterUs", info.jitter_us);
        json.member("historyFrames", static_cast<int>(report.timestamps.size()));
        json.member("historyMinimum", report.format.frame_count)
            .member("historySpanUs", historySpanUs(report));
        json.member("oldestTimestamp", info.oldest_timestamp)
            .member("newestTimestamp", info.newest_timestamp);
        json.member("framesPublished", info.frames_published).member("framesDropped", info.frames_dropped);
        json.member("framesRefused", info.frames_refused);
        json.member("wishedRate", info.wished_denominator
                                      ? static_cast<double>(info.wished_numerator) / info.wished_denominator
                                      : 0.0);
        json.member("dmabuf", info.dmabuf).member("capture", shm_capture_name(info.capture));
        json.endObject();
    } else {
        json.key("video").null();
    }
    if (report.format.has_audio) {
        json.key("audio").beginObject();
        json.member("sampleRate", report.format.sample_rate).member("channels", report.format.channels);
        json.member("historyUs", info.audio_history_us);
        json.key("streams").beginArray();
        for (const shm_audio_status_t &status : report.audio) {
            json.beginObject();
            json.member("frames", status.frames).member("framesPublished", status.frames_published);
            json.member("oldestTimestamp", status.oldest_timestamp)
                .member("newestTimestamp", status.newest_timestamp);
            json.endObject();
        }
        json.endArray().endObject();
    } else {
        json.key("audio").null();
    }
    json.endObject();
}

} // namespace zevshm
