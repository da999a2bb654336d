#include "dmapublisher.h"

#include "testpicture.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// To the process that was put aside: what to start, or, with `ended`, which one to end. It answers with a
// process, -1 for none.
struct Order
{
    pid_t ended;
    int pixelFormat;
    shm_matrix matrix;
    shm_range range;
    char memory[64];
    char directory[256];
};

int orders = -1;

int64_t wallClockUs()
{
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// Publishes until it is killed, or the one that started it is.
[[noreturn]] void publish(const Order &order, int started)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const TestPicture picture(order.matrix, order.range);
    shm_writer_params_t params;
    shm_writer_params_init(&params);
    params.name = "picture";
    params.directory = order.directory;
    params.memory = order.memory;
    params.width = TestPicture::width;
    params.height = TestPicture::height;
    params.pixel_format = order.pixelFormat;
    params.color.matrix = order.matrix;
    params.color.range = order.range;
    params.history_frames = 8;
    shm_writer_t *writer = nullptr;
    shm_error_t error = {};
    if (shm_writer_open(&params, &writer, &error) != 0) {
        std::fprintf(stderr, "%s\n", error.message);
        _exit(1);
    }
    for (bool isFirst = true;; isFirst = false) {
        shm_writer_frame_t frame = {};
        if (shm_writer_acquire(writer, &frame) == 0) {
            shm_video_frame_t record = {};
            for (int plane = 0; plane < 4; ++plane) {
                record.strides[plane] = frame.strides[plane];
                record.plane_offsets[plane] = frame.plane_offsets[plane];
            }
            picture.write(order.pixelFormat, record, frame.planes[0] - frame.plane_offsets[0]);
            shm_writer_publish(writer, &frame, wallClockUs());
        }
        if (isFirst && write(started, "p", 1) != 1)
            _exit(1);
        poll(nullptr, 0, 20); // the frame period
    }
}

pid_t startOne(const Order &order)
{
    int started[2];
    if (pipe(started) != 0)
        return -1;
    pid_t child = fork();
    if (child == 0)
        publish(order, started[1]);
    close(started[1]);
    char word = 0;
    if (child > 0 && read(started[0], &word, 1) != 1) { // it ended instead
        waitpid(child, nullptr, 0);
        child = -1;
    }
    close(started[0]);
    return child;
}

[[noreturn]] void serve(int socket)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    Order order;
    while (recv(socket, &order, sizeof order, 0) == sizeof order) {
        pid_t answer = order.ended;
        if (order.ended > 0) {
            kill(order.ended, SIGKILL);
            waitpid(order.ended, nullptr, 0);
        } else {
            answer = startOne(order);
        }
        if (send(socket, &answer, sizeof answer, MSG_NOSIGNAL) != sizeof answer)
            break;
    }
    _exit(0);
}

pid_t give(const Order &order)
{
    pid_t answer = -1;
    if (send(orders, &order, sizeof order, MSG_NOSIGNAL) != sizeof order ||
        recv(orders, &answer, sizeof answer, 0) != sizeof answer)
        return -1;
    return answer;
}

} // namespace

bool DmaPublisher::prepare()
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
        return false;
    const pid_t child = fork();
    if (child == 0) {
        close(ends[0]);
        serve(ends[1]);
    }
    close(ends[1]);
    orders = ends[0];
    return child > 0;
}

bool DmaPublisher::start(const DmaPublication &publication)
{
    Order order = {};
    order.pixelFormat = publication.pixelFormat;
    order.matrix = publication.matrix;
    order.range = publication.range;
    const char *directory = std::getenv("ZEV_SHM_DIR");
    std::snprintf(order.memory, sizeof order.memory, "%s", publication.memory.constData());
    std::snprintf(order.directory, sizeof order.directory, "%s", directory ? directory : "");
    process = give(order);
    return process > 0;
}

void DmaPublisher::kill()
{
    if (process <= 0)
        return;
    Order order = {};
    order.ended = process;
    give(order);
    process = -1;
}
