/*
 * Preloaded into a program, shifts what it takes for the wall clock: by as many microseconds as stand in the
 * file that ZEV_TEST_CLOCK names, a native 64-bit integer that whoever tests may change at any time. The
 * machine's clock is never touched, and monotonic clocks tell what they always do.
 *
 * What waits for a moment of the wall clock inside the kernel is not shifted.
 */
#include <fcntl.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

static const int64_t *shift_us;

__attribute__((constructor)) static void map_shift(void)
{
    const char *path = getenv("ZEV_TEST_CLOCK");
    const int fd = path ? open(path, O_RDONLY | O_CLOEXEC) : -1;
    if (fd < 0)
        return;
    void *memory = mmap(NULL, sizeof *shift_us, PROT_READ, MAP_SHARED, fd, 0);
    close(fd);
    if (memory != MAP_FAILED)
        shift_us = memory;
}

__attribute__((visibility("default"))) int clock_gettime(clockid_t clock, struct timespec *now)
{
    const int result = (int)syscall(SYS_clock_gettime, clock, now);
    if (result != 0 || !shift_us || (clock != CLOCK_REALTIME && clock != CLOCK_REALTIME_COARSE))
        return result;
    const int64_t shift = __atomic_load_n(shift_us, __ATOMIC_RELAXED);
    int64_t ns = now->tv_nsec + 1000 * (shift % 1000000);
    now->tv_sec += (time_t)(shift / 1000000);
    if (ns < 0) {
        ns += 1000000000;
        --now->tv_sec;
    } else if (ns >= 1000000000) {
        ns -= 1000000000;
        ++now->tv_sec;
    }
    now->tv_nsec = (long)ns;
    return 0;
}

__attribute__((visibility("default"))) int gettimeofday(struct timeval *restrict now, void *restrict zone)
{
    struct timespec precise;
    (void)zone;
    if (clock_gettime(CLOCK_REALTIME, &precise) == 0) {
        now->tv_sec = precise.tv_sec;
        now->tv_usec = precise.tv_nsec / 1000;
    }
    return 0;
}

__attribute__((visibility("default"))) time_t time(time_t *now)
{
    struct timespec precise;
    if (clock_gettime(CLOCK_REALTIME, &precise) != 0)
        return (time_t)-1;
    if (now)
        *now = precise.tv_sec;
    return precise.tv_sec;
}
