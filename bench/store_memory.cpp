// What a store costs in memory: as shm_reader_get_info tells it, and as the kernel does.
//
// The kernel's figures are those of /proc/self/smaps: resident pages of the store's memory objects, told
// apart by inode, in the writer and in a reader in another process; and the reader's own, anonymous pages,
// which a copy of the frames would have to lie in. Fails when a figure is outside its bound.
#include "store.h"

#include <algorithm>
#include <cinttypes>
#include <fstream>
#include <map>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr uint64_t mebibyte = 1024 * 1024;

struct Mapped
{
    std::map<uint64_t, uint64_t> sharedBytes; // resident, by inode of a memfd
    uint64_t anonymousBytes = 0;              // resident, of the process alone

    uint64_t sharedTotal() const
    {
        uint64_t sum = 0;
        for (const auto &[inode, bytes] : sharedBytes)
            sum += bytes;
        return sum;
    }
};

Mapped mappedHere()
{
    Mapped mapped;
    std::ifstream smaps("/proc/self/smaps");
    std::string line;
    uint64_t inode = 0;
    while (std::getline(smaps, line)) {
        std::istringstream words(line);
        std::string first;
        words >> first;
        if (first.find('-') != std::string::npos && first.back() != ':') {
            std::string permissions, offset, device, path;
            uint64_t number = 0;
            words >> permissions >> offset >> device >> number >> path;
            inode = path.rfind("/memfd:", 0) == 0 ? number : 0;
        } else if (first == "Rss:" && inode != 0) {
            uint64_t kib = 0;
            words >> kib;
            mapped.sharedBytes[inode] = std::max(mapped.sharedBytes[inode], kib * 1024);
        } else if (first == "Anonymous:") {
            uint64_t kib = 0;
            words >> kib;
            mapped.anonymousBytes += kib * 1024;
        }
    }
    return mapped;
}

bool expect(bool fine, const char *what, double value, const char *unit)
{
    std::printf("  %-66s %10.3f %s  %s\n", what, value, unit, fine ? "within" : "OUTSIDE");
    return fine;
}

double mib(uint64_t bytes)
{
    return static_cast<double>(bytes) / mebibyte;
}

// In a process of its own: opens, locks every frame there is and reads every byte.
int readerProcess(const char *name, int result)
{
    const Mapped before = mappedHere();
    bench::Reader reader(name);
    shm_store_info_t info = {};
    info.size = sizeof info;
    if (shm_reader_get_info(reader.get(), &info) != 0)
        return 1;
    std::vector<long long> timestamps(static_cast<size_t>(info.slot_count));
    const int count = shm_reader_get_video_timestamps(reader.get(), timestamps.data(), info.slot_count);
    shm_reader_format_t format = {};
    shm_reader_get_format(reader.get(), &format);
    volatile unsigned sum = 0; // so that the bytes are read
    uint64_t planeBytes = 0;
    for (int i = 0; i < count; ++i) {
        planeBytes = 0;
        shm_video_frame_t frame = {};
        frame.timestamp = timestamps[static_cast<size_t>(i)];
        if (shm_reader_lock_video(reader.get(), &frame, SHM_VIDEO_EXACT) != 0)
            return 1;
        for (int plane = 0; plane < 3; ++plane) {
            const int rows = plane ? (format.height + 1) / 2 : format.height;
            planeBytes += static_cast<uint64_t>(rows) * static_cast<uint64_t>(frame.strides[plane]);
            for (int64_t byte = 0; byte < int64_t(rows) * frame.strides[plane]; ++byte)
                sum = sum + frame.planes[plane][byte];
        }
        shm_reader_unlock_video(reader.get(), &frame);
    }
    const Mapped after = mappedHere();
    const uint64_t figures[4] = {after.sharedTotal(), after.anonymousBytes - before.anonymousBytes,
                                 static_cast<uint64_t>(count), planeBytes};
    return write(result, figures, sizeof figures) == sizeof figures ? 0 : 1;
}

bool measure(int width, int height, uint32_t history)
{
    const std::string name = "memory-" + std::to_string(height) + "-" + std::to_string(history);
    int channel[2];
    if (pipe(channel) != 0)
        bench::fail("no pipe");
    bench::Writer writer(name, width, height, history);
    for (uint32_t i = 0; i < 2 * history; ++i)
        writer.publish();
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0)
        _exit(readerProcess(name.c_str(), channel[1]));
    close(channel[1]);
    uint64_t figures[4] = {};
    const bool answered = read(channel[0], figures, sizeof figures) == sizeof figures;
    close(channel[0]);
    int status = 0;
    waitpid(child, &status, 0);
    if (!answered || status != 0)
        bench::fail("the reading process failed");

    bench::Reader reader(name);
    shm_store_info_t info = {};
    info.size = sizeof info;
    shm_reader_get_info(reader.get(), &info);
    const uint64_t slotBytes = static_cast<uint64_t>(info.slot_count) * info.slot_bytes;
    shm_writer_stats_t stats = {};
    stats.size = sizeof stats;
    shm_writer_get_stats(writer.get(), &stats);
    const uint64_t kernel = mappedHere().sharedTotal();
    const uint64_t frames = figures[2];
    std::printf("%dx%d, %d slots of %.3f MiB, %" PRIu64 " frames held\n", width, height, info.slot_count,
                mib(info.slot_bytes), frames);
    bool fine = expect(frames >= history, "frames that the reader found", static_cast<double>(frames), "");
    // Every plane begins on a page.
    fine &= expect(info.slot_bytes >= figures[3] && info.slot_bytes <= figures[3] + 3 * 4096,
                   "told: slot size beyond strides times rows", mib(info.slot_bytes - figures[3]), "MiB");
    fine &= expect(info.total_bytes >= slotBytes && info.total_bytes - slotBytes < mebibyte,
                   "told: all memory beyond slots times slot size", mib(info.total_bytes - slotBytes), "MiB");
    // Two control pages: those of the readers here and, until the writer has noticed its end, there.
    fine &= expect(kernel >= slotBytes && kernel - slotBytes < mebibyte,
                   "kernel: resident in the writer beyond slots times slot size",
                   mib(kernel) - mib(slotBytes), "MiB");
    fine &= expect(figures[0] >= frames * figures[3] && figures[0] <= kernel + mebibyte,
                   "kernel: resident in a reader, of that same memory", mib(figures[0]), "MiB");
    fine &= expect(figures[1] < mebibyte, "kernel: the reader's own memory after reading every frame",
                   mib(figures[1]), "MiB");
    return fine;
}

} // namespace

int main()
{
    bench::StoreDirectory directory;
    bool fine = measure(640, 480, 8);
    fine &= measure(1920, 1080, 8);
    fine &= measure(1920, 1080, 37);
    return fine ? 0 : 1;
}
