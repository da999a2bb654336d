/* Reads a store as a small application would, and prints a line for every frame: "frame WIDTHxHEIGHT". With a
 * writer gone it opens the store again until there is one. Two frames are held locked at any time, as of a
 * picture on a screen and the next one. For compare.py, which looks at what arrives when. */
#include <shm/shm_reader.h>

#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

static void pause_ms(long ms)
{
    const struct timespec time = {ms / 1000, ms % 1000 * 1000000};
    nanosleep(&time, NULL);
}

static void read_until_gone(shm_reader_t *reader)
{
    shm_video_frame_t held[2];
    memset(held, 0, sizeof held);
    uint64_t generation = 0;
    for (int i = 0;; i = 1 - i) {
        int result = shm_reader_wait_video(reader, generation, 1000);
        if (result == -ETIMEDOUT)
            continue;
        if (result != 0)
            break;
        shm_reader_unlock_video(reader, &held[i]);
        memset(&held[i], 0, sizeof held[i]);
        result = shm_reader_lock_video(reader, &held[i], SHM_VIDEO_NEWEST);
        if (result == 0) {
            generation = held[i].generation;
            printf("frame %dx%d\n", held[i].width, held[i].height);
            fflush(stdout);
        } else if (result == -ENODEV) {
            break;
        } else {
            pause_ms(1);
        }
    }
    shm_reader_unlock_video(reader, &held[0]);
    shm_reader_unlock_video(reader, &held[1]);
}

int main(int argc, char **argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: frame_lines NAME\n");
        return 2;
    }
    for (;;) {
        shm_reader_t *reader = shm_reader_open(argv[1], 1000);
        if (reader == NULL) {
            pause_ms(20);
            continue;
        }
        read_until_gone(reader);
        shm_reader_close(reader);
    }
}
