// A store to measure on: a writer and a reader of it in this process, in a directory that nobody else sees.
#ifndef BENCH_STORE_H
#define BENCH_STORE_H

#include <shm/shm_reader.h>
#include <shm/shm_writer.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <string>

namespace bench {

[[noreturn]] inline void fail(const std::string &what)
{
    std::fprintf(stderr, "%s\n", what.c_str());
    std::exit(1);
}

// The stores of this process live here; removed at the end.
class StoreDirectory
{
public:
    StoreDirectory()
    {
        char name[] = "/tmp/zevbenchXXXXXX";
        if (!mkdtemp(name))
            fail("cannot create a directory below /tmp");
        path = name;
        setenv("ZEV_SHM_DIR", name, 1);
    }
    ~StoreDirectory() { std::filesystem::remove_all(path); }
    StoreDirectory(const StoreDirectory &) = delete;
    StoreDirectory &operator=(const StoreDirectory &) = delete;

private:
    std::string path;
};

inline int64_t wallClockUs()
{
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec * int64_t(1000000) + now.tv_nsec / 1000;
}

class Writer
{
public:
    Writer(const std::string &name, int width, int height, uint32_t history,
           int pixelFormat = SHM_PIXEL_FORMAT_YUV420P)
    {
        shm_writer_params_t params;
        shm_writer_params_init(&params);
        params.name = name.c_str();
        params.width = width;
        params.height = height;
        params.pixel_format = pixelFormat;
        params.rate_numerator = 50;
        params.rate_denominator = 1;
        params.history_frames = history;
        shm_error_t error = {};
        if (shm_writer_open(&params, &handle, &error) != 0)
            fail(error.message);
    }
    ~Writer() { shm_writer_close(handle); }
    Writer(const Writer &) = delete;
    Writer &operator=(const Writer &) = delete;

    shm_writer_t *get() const { return handle; }

    // Publishes what happens to be in the slot, an interval after the frame before. Returns where it lies.
    uint8_t *publish()
    {
        shm_writer_frame_t frame = {};
        timestamp += 20000;
        if (shm_writer_acquire(handle, &frame) != 0)
            fail("no free slot");
        uint8_t *const pixels = frame.planes[0];
        if (shm_writer_publish(handle, &frame, timestamp) != 0)
            fail("cannot publish a frame");
        return pixels;
    }
    int64_t newest() const { return timestamp; }

private:
    shm_writer_t *handle = nullptr;
    int64_t timestamp = wallClockUs();
};

class Reader
{
public:
    explicit Reader(const std::string &name)
    {
        shm_reader_options_t options = {};
        options.size = sizeof options;
        options.timeout_ms = 5000;
        shm_error_t error = {};
        handle = shm_reader_open_with(name.c_str(), &options, &error);
        if (!handle)
            fail(error.message);
    }
    ~Reader() { shm_reader_close(handle); }
    Reader(const Reader &) = delete;
    Reader &operator=(const Reader &) = delete;

    shm_reader_t *get() const { return handle; }

private:
    shm_reader_t *handle = nullptr;
};

} // namespace bench

#endif
