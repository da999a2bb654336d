// Cost of locking and unlocking a frame, as a ratio to a bare pair of atomic additions, by history length and
// mode. Rounds of everything alternate and the least of each is taken, so that a loaded machine disturbs all
// alike.
#include <shm/shm_reader.h>
#include <shm/shm_writer.h>

#include <sys/resource.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

constexpr int kLoops = 20000;
constexpr int kRounds = 300;

double nowNs()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

double barePair()
{
    static std::atomic<uint32_t> counter{0};
    const double start = nowNs();
    for (int i = 0; i < kLoops; ++i) {
        counter.fetch_add(1, std::memory_order_seq_cst);
        counter.fetch_sub(1, std::memory_order_release);
    }
    return (nowNs() - start) / kLoops;
}

double lockPair(shm_reader_t *reader, shm_video_lookup_mode_t mode, int64_t newest, int history)
{
    // All over the history, off the frames' own times; worked out beforehand, since a division would be
    // measured too.
    static int64_t asked[kLoops];
    for (int i = 0; i < kLoops; ++i)
        asked[i] = newest - (i * 7 % history) * 20000 + 3000;
    shm_video_frame_t frame = {};
    const double start = nowNs();
    for (int i = 0; i < kLoops; ++i) {
        frame.timestamp = asked[i];
        if (shm_reader_lock_video(reader, &frame, mode) != 0)
            std::abort();
        shm_reader_unlock_video(reader, &frame);
    }
    return (nowNs() - start) / kLoops;
}

void measure(int history, int size)
{
    shm_writer_params_t params;
    shm_writer_params_init(&params);
    params.name = "bench";
    params.width = params.height = size;
    params.pixel_format = SHM_PIXEL_FORMAT_NV12;
    params.history_frames = static_cast<uint32_t>(history);
    shm_writer_t *writer = nullptr;
    shm_error_t error = {};
    if (shm_writer_open(&params, &writer, &error) != 0) {
        std::fprintf(stderr, "%s\n", error.message);
        std::exit(1);
    }
    int64_t newest = 0;
    for (int i = 1; i <= history + 10; ++i) {
        shm_writer_frame_t frame = {};
        if (shm_writer_acquire(writer, &frame) != 0 ||
            shm_writer_publish(writer, &frame, newest = i * 20000) != 0)
            std::exit(1);
    }
    shm_reader_t *reader = shm_reader_open("bench", 10000);
    if (reader == nullptr)
        std::exit(1);
    double bare = 1e9;
    double byNewest = 1e9;
    double byTime = 1e9;
    lockPair(reader, SHM_VIDEO_NEAREST, newest, history);
    rusage before = {};
    getrusage(RUSAGE_SELF, &before);
    for (int round = 0; round < kRounds; ++round) {
        bare = std::min(bare, barePair());
        byNewest = std::min(byNewest, lockPair(reader, SHM_VIDEO_NEWEST, newest, history));
        byTime = std::min(byTime, lockPair(reader, SHM_VIDEO_NEAREST, newest, history));
    }
    rusage after = {};
    getrusage(RUSAGE_SELF, &after);
    std::printf(
        "history %3d, %4d x %4d: bare pair %.1f ns, newest %.1f ns (%.2f x), nearest %.1f ns (%.2f x), "
        "%ld minor faults\n",
        history, size, size, bare, byNewest, byNewest / bare, byTime, byTime / bare,
        after.ru_minflt - before.ru_minflt);
    shm_reader_close(reader);
    shm_writer_close(writer);
}

} // namespace

int main()
{
    std::string directory = "/tmp/zev-bench-XXXXXX";
    if (mkdtemp(directory.data()) == nullptr)
        return 1;
    setenv("ZEV_SHM_DIR", directory.c_str(), 1);
    for (const int history : {8, 45, 200})
        measure(history, 64);
    measure(8, 2048);
    std::filesystem::remove_all(directory);
    return 0;
}
