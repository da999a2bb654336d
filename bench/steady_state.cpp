// What locking and unlocking a frame must not do in steady state: call the system, fault, allocate, or touch
// a page of a frame. Prints what was counted and fails when it is not nothing. Also a test: the counts do not
// depend on load.
//
// Exit status: 0, 1 when a count is not what it must be, 77 when the machine does not let system calls be
// counted.
#include "counting_allocator.h"
#include "store.h"
#include "syscall_counter.h"

#include <chrono>
#include <cinttypes>
#include <condition_variable>
#include <csignal>
#include <map>
#include <memory>
#include <mutex>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr int rounds = 1000000;
constexpr int64_t livenessUs = 10000;
constexpr long callsALook = 1; // poll

int64_t monotonicUs()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * int64_t(1000000) + now.tv_nsec / 1000;
}

// Newest and nearest in turn.
void lockAndUnlock(shm_reader_t *reader, int count, int64_t near)
{
    shm_video_frame_t frame = {};
    for (int i = 0; i < count; ++i) {
        frame.timestamp = near;
        if (shm_reader_lock_video(reader, &frame, i % 2 ? SHM_VIDEO_NEWEST : SHM_VIDEO_NEAREST) != 0)
            bench::fail("no frame to lock");
        shm_reader_unlock_video(reader, &frame);
    }
}

// Publishes all the while, as a camera does.
class Camera
{
public:
    explicit Camera(bench::Writer &store) : writer(store), thread([this] { run(); }) {}
    ~Camera()
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            ending = true;
        }
        wake.notify_all();
        thread.join();
    }
    Camera(const Camera &) = delete;
    Camera &operator=(const Camera &) = delete;

private:
    void run()
    {
        std::unique_lock<std::mutex> lock(mutex);
        while (!wake.wait_for(lock, std::chrono::milliseconds(20), [this] { return ending; }))
            writer.publish();
    }
    bench::Writer &writer;
    std::mutex mutex;
    std::condition_variable wake;
    bool ending = false;
    std::thread thread;
};

long minorFaults()
{
    rusage usage;
    getrusage(RUSAGE_THREAD, &usage);
    return usage.ru_minflt;
}

bool checkFaultsAndAllocations(const std::string &name, bench::Writer &writer)
{
    bench::Reader reader(name);
    Camera camera(writer);
    lockAndUnlock(reader.get(), 1000, writer.newest());
    const long faultsBefore = minorFaults();
    const bench::Allocations before = bench::allocations();
    lockAndUnlock(reader.get(), rounds, writer.newest());
    const bench::Allocations after = bench::allocations();
    const long faults = minorFaults() - faultsBefore;
    std::printf("lock + unlock, %d times: minor faults %ld, allocations %" PRIu64 ", frees %" PRIu64 "\n",
                rounds, faults, after.count - before.count, after.frees - before.frees);
    return faults == 0 && after.count == before.count && after.frees == before.frees;
}

// 0: checked and right; 1: wrong; 77: cannot be counted here.
int checkSyscalls(const std::string &name, bench::Writer &writer)
{
    const std::optional<bench::SyscallCount> clock =
        bench::countSyscalls([] { monotonicUs(); }, [] { monotonicUs(); });
    if (!clock) {
        std::printf("system calls: not counted, ptrace is not allowed here\n");
        return 77;
    }
    if (clock->total() != 0) {
        std::printf("system calls: not counted, reading the clock is one on this machine\n");
        return 77;
    }
    // The counter itself: two calls are two.
    const std::optional<bench::SyscallCount> two = bench::countSyscalls([] {}, [] { getppid(), getppid(); });
    if (!two || two->total() != 2) {
        std::printf("system calls: the counter counts %ld for 2\n", two ? two->total() : -1);
        return 1;
    }
    Camera camera(writer);
    // The child tells how long its loop took, for the looks at the connection that it is allowed.
    auto *elapsedUs = static_cast<int64_t *>(
        mmap(nullptr, sizeof(int64_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    std::unique_ptr<bench::Reader> reader;
    const std::optional<bench::SyscallCount> calls = bench::countSyscalls(
        [&] {
            reader = std::make_unique<bench::Reader>(name);
            lockAndUnlock(reader->get(), 1000, writer.newest());
        },
        [&] {
            const int64_t start = monotonicUs();
            lockAndUnlock(reader->get(), rounds, writer.newest());
            *elapsedUs = monotonicUs() - start;
        });
    const long looks = static_cast<long>(*elapsedUs / livenessUs + 1) * callsALook;
    munmap(elapsedUs, sizeof(int64_t));
    std::printf(
        "lock + unlock, %d times: system calls %s; looks at the connection that its time allows: %ld\n",
        rounds, calls->text().c_str(), looks);
    return calls->total() <= looks ? 0 : 1;
}

// Publishing, for information: nobody waits, so nobody is woken.
void showWriterSyscalls()
{
    std::unique_ptr<bench::Writer> writer;
    const std::optional<bench::SyscallCount> calls = bench::countSyscalls(
        [&] {
            writer = std::make_unique<bench::Writer>("steady-writer", 64, 64, 8);
            for (int i = 0; i < 100; ++i)
                writer->publish();
        },
        [&] {
            for (int i = 0; i < 10000; ++i)
                writer->publish();
        });
    if (calls)
        std::printf("acquire + publish, 10000 times: system calls %s\n", calls->text().c_str());
}

// With every page of every frame made inaccessible, in the writer's mapping and in the reader's, publishing
// and locking go on: what they cost cannot depend on the size of a frame. Runs in a child, since a touch ends
// the process.
int childWithoutPayload(bool touch)
{
    constexpr int width = 1920;
    constexpr int height = 1080;
    bench::Writer writer("steady-payload", width, height, 8);
    bench::Reader reader("steady-payload");
    shm_store_info_t info = {};
    info.size = sizeof info;
    shm_reader_get_info(reader.get(), &info);
    std::map<uint8_t *, bool> slots; // by first plane
    for (int i = 0; i < 4 * info.slot_count; ++i) {
        slots[writer.publish()] = true;
        shm_video_frame_t frame = {};
        if (shm_reader_lock_video(reader.get(), &frame, SHM_VIDEO_NEWEST) != 0)
            return 2;
        slots[frame.planes[0]] = true;
        shm_reader_unlock_video(reader.get(), &frame);
    }
    // All of the writer's slots and all of the reader's.
    if (slots.size() != 2 * static_cast<size_t>(info.slot_count))
        return 3;
    for (const auto &[plane, seen] : slots) {
        if (mprotect(plane, width * height, PROT_NONE) != 0)
            return 4;
    }
    for (int i = 0; i < 1000; ++i) {
        writer.publish();
        lockAndUnlock(reader.get(), 4, writer.newest());
    }
    if (touch) {
        shm_video_frame_t frame = {};
        if (shm_reader_lock_video(reader.get(), &frame, SHM_VIDEO_NEWEST) != 0)
            return 2;
        return *static_cast<volatile uint8_t *>(frame.planes[0]) == 0 ? 5 : 6; // not reached
    }
    return 0;
}

bool checkPayload()
{
    int status[2];
    for (const bool touch : {false, true}) {
        std::fflush(nullptr);
        const pid_t child = fork();
        if (child == 0) {
            const rlimit none = {0, 0};
            setrlimit(RLIMIT_CORE, &none);
            _exit(childWithoutPayload(touch));
        }
        waitpid(child, &status[touch], 0);
    }
    const bool untouched = WIFEXITED(status[0]) && WEXITSTATUS(status[0]) == 0;
    const bool noticed = WIFSIGNALED(status[1]) && WTERMSIG(status[1]) == SIGSEGV;
    std::printf(
        "publish + lock with inaccessible frames: %s (status 0x%x); a deliberate touch is %s (0x%x)\n",
        untouched ? "no page touched" : "FAILED", status[0], noticed ? "noticed" : "NOT NOTICED", status[1]);
    return untouched && noticed;
}

} // namespace

int main()
{
    bench::StoreDirectory directory;
    const bool payload = checkPayload(); // first: it forks, and this process has no thread yet
    bench::Writer writer("steady", 640, 480, 16);
    for (int i = 0; i < 32; ++i)
        writer.publish();
    showWriterSyscalls();
    const bool quiet = checkFaultsAndAllocations("steady", writer);
    const int syscalls = checkSyscalls("steady", writer);
    if (!payload || !quiet || syscalls == 1)
        return 1;
    return syscalls;
}
