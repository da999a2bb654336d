/* c-publisher [NAME]: publishes a bar that wanders, and a tone of 440 Hz, as the store NAME until it is
 * ended. */
#include <shm/shm_writer.h>

#include <math.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

enum { WIDTH = 640, HEIGHT = 360, FPS = 25, RATE = 48000, SAMPLES = RATE / FPS };

static int64_t now_us(clockid_t clock)
{
    struct timespec t;
    clock_gettime(clock, &t);
    return (int64_t)t.tv_sec * 1000000 + t.tv_nsec / 1000;
}

int main(int argc, char **argv)
{
    shm_writer_params_t params;
    shm_writer_params_init(&params); /* BT.709, full range */
    params.name = argc > 1 ? argv[1] : "bar";
    params.width = WIDTH;
    params.height = HEIGHT;
    params.pixel_format = SHM_PIXEL_FORMAT_NV12;
    params.rate_numerator = FPS;
    params.rate_denominator = 1;
    params.sample_rate = RATE;
    params.channels = 1;
    shm_writer_t *writer;
    shm_error_t error;
    if (shm_writer_open(&params, &writer, &error) != 0)
        return fprintf(stderr, "%s\n", error.message), 1;

    int16_t sound[SAMPLES];
    const int64_t start = now_us(CLOCK_REALTIME), monotonic = now_us(CLOCK_MONOTONIC);
    for (int64_t n = 0;; ++n) { /* a writer that is killed leaves nothing behind */
        const int64_t due = n * 1000000 / FPS;
        while (now_us(CLOCK_MONOTONIC) < monotonic + due)
            nanosleep(&(struct timespec){0, 1000000}, NULL);
        shm_writer_frame_t frame; /* a slot of the store itself: nothing is copied */
        if (shm_writer_acquire(writer, &frame) == 0) {
            for (int y = 0; y < HEIGHT; ++y)
                memset(frame.planes[0] + y * frame.strides[0], y / 36 == n / 5 % 10 ? 235 : 60, WIDTH);
            for (int y = 0; y < HEIGHT / 2; ++y)
                memset(frame.planes[1] + y * frame.strides[1], 128, WIDTH);
            shm_writer_publish(writer, &frame, start + due);
        }
        for (int i = 0; i < SAMPLES; ++i) /* of the interval that is over */
            sound[i] = (int16_t)(8000 * sin(2 * 3.14159265 * 440 * (double)(n * SAMPLES + i) / RATE));
        shm_writer_publish_audio(writer, 0, sound, SAMPLES, start + due - 1000000 / FPS);
    }
}
