// zevqt-testpublisher NAME WIDTHxHEIGHT yuv420p|nv12 FPS bt601|bt709|bt2020 full|limited [MEMORY]
//
// Publishes the test pattern into a store, at an even cadence, until SIGTERM; then prints
// "published N dropped N". Writes "ready" once the first frame is out.

#include "testpattern.h"

#include <shm/shm_writer.h>

#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

namespace {

volatile std::sig_atomic_t stopping = 0;

long long clockUs(clockid_t clock)
{
    timespec now;
    clock_gettime(clock, &now);
    return now.tv_sec * 1000000LL + now.tv_nsec / 1000;
}

void sleepUntil(long long monotonicUs)
{
    const timespec until{time_t(monotonicUs / 1000000), long(monotonicUs % 1000000 * 1000)};
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr); // interrupted: the loop looks again
}

/* Drawing takes long, copying does not: a publisher that is late teaches nothing. */
void drawFrame(const TestPattern &pattern, const shm_writer_frame_t &frame, std::vector<uint8_t> (&bars)[3],
               unsigned number)
{
    const bool first = bars[0].empty();
    if (first)
        pattern.draw(frame.planes, frame.strides, number);
    for (int i = 0; i < 3 && frame.planes[i]; ++i) {
        const std::size_t bytes =
            std::size_t(frame.strides[i]) * std::size_t(i == 0 ? pattern.height : (pattern.height + 1) / 2);
        if (first)
            bars[i].assign(frame.planes[i], frame.planes[i] + bytes);
        else
            std::memcpy(frame.planes[i], bars[i].data(), bytes);
    }
    pattern.drawNumber(frame.planes, frame.strides, number);
}

} // namespace

int main(int argc, char **argv)
{
    int width = 0;
    int height = 0;
    if (argc < 7 || argc > 8 || std::sscanf(argv[2], "%dx%d", &width, &height) != 2 ||
        std::atof(argv[4]) <= 0.0) {
        std::fputs("usage: zevqt-testpublisher NAME WxH yuv420p|nv12 FPS bt601|bt709|bt2020 full|limited "
                   "[MEMORY]\n",
                   stderr);
        return 2;
    }
    const double fps = std::atof(argv[4]);
    shm_writer_params_t params;
    shm_writer_params_init(&params);
    params.name = argv[1];
    params.width = width;
    params.height = height;
    params.pixel_format =
        std::strcmp(argv[3], "nv12") == 0 ? SHM_PIXEL_FORMAT_NV12 : SHM_PIXEL_FORMAT_YUV420P;
    params.color.matrix = uint8_t(std::strcmp(argv[5], "bt601") == 0    ? SHM_MATRIX_BT601
                                  : std::strcmp(argv[5], "bt2020") == 0 ? SHM_MATRIX_BT2020
                                                                        : SHM_MATRIX_BT709);
    params.color.range = uint8_t(std::strcmp(argv[6], "limited") == 0 ? SHM_RANGE_LIMITED : SHM_RANGE_FULL);
    params.rate_numerator = uint32_t(std::lround(fps * 1000.0));
    params.rate_denominator = 1000;
    if (argc == 8)
        params.memory = argv[7];

    shm_writer_t *writer = nullptr;
    shm_error_t error;
    if (shm_writer_open(&params, &writer, &error) != 0) {
        std::fprintf(stderr, "zevqt-testpublisher: %s\n", error.message);
        return 1;
    }
    struct sigaction action = {};
    action.sa_handler = [](int) { stopping = 1; };
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);

    const TestPattern pattern{width, height, params.pixel_format, params.color};
    std::vector<uint8_t> bars[3];
    const long long startMonotonic = clockUs(CLOCK_MONOTONIC);
    const long long startWall = clockUs(CLOCK_REALTIME);
    for (unsigned number = 0; !stopping; ++number) {
        const long long due = std::llround(number * 1e6 / fps);
        sleepUntil(startMonotonic + due);
        shm_writer_frame_t frame;
        if (stopping || shm_writer_acquire(writer, &frame) != 0)
            continue;
        drawFrame(pattern, frame, bars, number);
        shm_writer_publish(writer, &frame, startWall + due);
        if (number == 0) {
            std::puts("ready");
            std::fflush(stdout);
        }
    }
    shm_writer_stats_t stats = {};
    stats.size = sizeof stats;
    shm_writer_get_stats(writer, &stats);
    std::printf("published %llu dropped %llu\n", static_cast<unsigned long long>(stats.frames_published),
                static_cast<unsigned long long>(stats.frames_dropped));
    shm_writer_close(writer);
    return 0;
}
