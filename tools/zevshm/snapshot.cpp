// zevshm snapshot
#include "color.h"
#include "commands.h"
#include "ffmpeg.h"
#include "pngwriter.h"
#include "storereader.h"

#include <cstdio>

namespace zevshm {

namespace {

constexpr int firstFrameMs = 2000;

const std::vector<OptionSpec> specs = {
    {"--at", "TIMESTAMP", "the frame nearest to this (microseconds since 1970), instead of the newest"},
    {"--help", "", "show this"},
};

// Gives the frame back whatever happens.
class LockedFrame
{
public:
    LockedFrame(shm_reader_t *reader, int64_t timestamp, shm_video_lookup_mode_t mode) : m_reader(reader)
    {
        m_frame.timestamp = timestamp;
        m_result = shm_reader_lock_video(reader, &m_frame, mode);
    }
    ~LockedFrame() { shm_reader_unlock_video(m_reader, &m_frame); }
    LockedFrame(const LockedFrame &) = delete;
    LockedFrame &operator=(const LockedFrame &) = delete;

    explicit operator bool() const { return m_result == 0; }
    const shm_video_frame_t &operator*() const { return m_frame; }
    const shm_video_frame_t *operator->() const { return &m_frame; }

private:
    shm_reader_t *m_reader;
    shm_video_frame_t m_frame{};
    int m_result;
};

std::string heldText(shm_reader_t *reader)
{
    shm_video_status_t status{};
    if (shm_reader_get_video_status(reader, &status) < 0 || status.frames_held == 0)
        return "it holds none yet";
    return "it holds " + std::to_string(status.oldest_timestamp) + " to " +
           std::to_string(status.newest_timestamp);
}

} // namespace

int snapshotCommand(const std::vector<std::string> &words)
{
    const Options options("snapshot", specs, {"NAME", "FILE.png"}, words);
    if (options.has("--help")) {
        std::printf("Usage: zevshm snapshot [options] NAME FILE.png\n\n"
                    "Writes a frame of the store NAME as a PNG file, with the colors that the store's matrix "
                    "and range\n"
                    "say; FILE.png may be - for standard output.\n\n"
                    "Options:\n%s\n"
                    "Examples:\n  zevshm snapshot cam1 cam1.png\n  zevshm snapshot cam1 - | display\n"
                    "  zevshm snapshot cam1 then.png --at 1767225600000000\n",
                    describeOptions(specs).c_str());
        return ExitOk;
    }
    av_log_set_level(AV_LOG_QUIET);
    const std::string &name = options.positional()[0];
    const auto at = options.integer("--at", 1, INT64_MAX);
    checkStoreName(name);
    checkPngPath(options.positional()[1]);
    const ReaderPtr reader = openStore(name);
    shm_reader_format_t format{};
    if (shm_reader_get_format(reader.get(), &format) < 0 || !format.has_video)
        throw Failure(ExitNoFrame, name + ": carries no video; see 'zevshm info " + name + "'");
    shm_reader_wait_video(reader.get(), 0, firstFrameMs);

    const LockedFrame frame(reader.get(), at.value_or(0), at ? SHM_VIDEO_NEAREST : SHM_VIDEO_NEWEST);
    if (!frame)
        throw Failure(ExitNoFrame, name + ": has no frame " +
                                       (at ? "near " + std::to_string(*at) : "to show") + ", " +
                                       heldText(reader.get()) + "; " +
                                       (at ? "ask for a time in there" : "wait until it publishes"));
    shm_store_info_t info{};
    info.size = sizeof info;
    shm_reader_get_info(reader.get(), &info);
    shm_color_t color = info.color;
    if (frame->matrix)
        color.matrix = frame->matrix;
    if (frame->range)
        color.range = frame->range;
    if (color.matrix == SHM_MATRIX_UNKNOWN)
        color.matrix = static_cast<uint8_t>(defaultMatrix(frame->height));
    const std::vector<uint8_t> rgb = toRgb(*frame, format.pixel_format, color);
    writeFile(options.positional()[1], encodePng(rgb, frame->width, frame->height));
    return ExitOk;
}

} // namespace zevshm
