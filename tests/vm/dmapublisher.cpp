#include "dmapublisher.h"

#include "testpicture.h"

#include <QtCore/QCoreApplication>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <poll.h>
#include <unistd.h>

namespace {

const char publisherWord[] = "--publish";

int64_t wallClockUs()
{
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

} // namespace

bool DmaPublisher::start(const DmaPublication &publication)
{
    process.setProcessChannelMode(QProcess::SeparateChannels);
    process.start(QCoreApplication::applicationFilePath(),
                  {QString::fromLatin1(publisherWord), QString::fromLatin1(publication.memory),
                   QString::number(publication.pixelFormat), QString::number(publication.matrix),
                   QString::number(publication.range)});
    return process.waitForStarted(60000) && process.waitForReadyRead(60000) &&
           process.readAllStandardOutput().startsWith("published");
}

void DmaPublisher::stop()
{
    if (process.state() == QProcess::NotRunning)
        return;
    process.kill();
    process.waitForFinished(60000);
}

bool DmaPublisher::isPublisher(int argc, char **argv)
{
    return argc == 6 && std::strcmp(argv[1], publisherWord) == 0;
}

// Publishes until it is killed, or its parent is gone.
int DmaPublisher::run(char **argv)
{
    const int pixelFormat = std::atoi(argv[3]);
    const TestPicture picture(static_cast<shm_matrix>(std::atoi(argv[4])),
                              static_cast<shm_range>(std::atoi(argv[5])));
    shm_writer_params_t params;
    shm_writer_params_init(&params);
    params.name = "picture";
    params.memory = argv[2];
    params.width = TestPicture::width;
    params.height = TestPicture::height;
    params.pixel_format = pixelFormat;
    params.color.matrix = static_cast<uint8_t>(std::atoi(argv[4]));
    params.color.range = static_cast<uint8_t>(std::atoi(argv[5]));
    params.history_frames = 8;
    shm_writer_t *writer = nullptr;
    shm_error_t error = {};
    if (shm_writer_open(&params, &writer, &error) != 0) {
        std::fprintf(stderr, "%s\n", error.message);
        return 1;
    }
    const pid_t parent = getppid();
    for (bool isFirst = true; getppid() == parent; isFirst = false) {
        shm_writer_frame_t frame = {};
        if (shm_writer_acquire(writer, &frame) == 0) {
            shm_video_frame_t record = {};
            for (int plane = 0; plane < 4; ++plane) {
                record.strides[plane] = frame.strides[plane];
                record.plane_offsets[plane] = frame.plane_offsets[plane];
            }
            picture.write(pixelFormat, record, frame.planes[0] - frame.plane_offsets[0]);
            shm_writer_publish(writer, &frame, wallClockUs());
        }
        if (isFirst) {
            std::puts("published");
            std::fflush(stdout);
        }
        poll(nullptr, 0, 20); // the frame period
    }
    shm_writer_close(writer);
    return 0;
}
