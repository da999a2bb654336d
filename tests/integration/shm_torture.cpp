// Tears at the lock protocol until a frame tears, a slot leaks or the time is over.
//
// Every cache line of a frame carries the frame's stamp. One writer process publishes as fast as it can;
// reader processes lock, look at every line, hold some frames and look again. Meanwhile the writer is
// stopped, continued and killed, and readers are killed with locks in their hands.
//
// Half the readers use the library as an application does. The other half ("edge") lock the very slot that
// the writer is about to reuse, which the history hides from applications: that is where a missing ordering
// shows.
//
// What this does not prove: that no ordering is missing on a processor with a weaker memory model than the
// one it runs on; and a clean run says little on a machine with a single core.
#include "../unit/store_directory.h"
#include "reader.h"
#include "shm_processes.h"

#include <shm/shm_reader.h>
#include <shm/shm_writer.h>

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

using namespace shm_processes;

namespace {

constexpr int kWidth = 256; // a stride of this width has no padding: every line is written
constexpr int kHeight = 16;
constexpr uint32_t kHistory = 6;
constexpr uint32_t kSpare = 6;
constexpr int kReaders = 4;
constexpr int kReaderLocks = 4;

// What the processes tell each other.
struct Shared
{
    std::atomic<uint64_t> published;
    std::atomic<uint64_t> locks;
    std::atomic<uint64_t> edgeLocks;
    std::atomic<uint64_t> missed; // the frame was gone when the lock came
    std::atomic<uint64_t> torn;
    std::atomic<uint64_t> opened;
    std::atomic<uint64_t> survived; // frames looked at again after their writer had gone
    std::atomic<uint64_t> incarnation;
    std::atomic<int32_t> writerLocks; // as the writer counts them
    std::atomic<int32_t> writerReaders;
    std::atomic<int32_t> writerSlots;
    std::atomic<uint64_t> writerDropped;
    std::atomic<uint64_t> writerStatSerial;
    std::atomic<uint64_t> heldWhenKilled;
    std::atomic<int32_t> held[kReaders];
};
Shared *shared = nullptr;

void fill(uint8_t *plane, size_t bytes, uint64_t stamp)
{
    auto *words = reinterpret_cast<uint64_t *>(plane);
    for (size_t i = 0; i < bytes / sizeof(uint64_t); ++i)
        words[i] = stamp;
}

// Whether every line of the plane carries `stamp`.
bool whole(const uint8_t *plane, size_t bytes, uint64_t stamp)
{
    const auto *words = reinterpret_cast<const volatile uint64_t *>(plane);
    uint64_t wrong = 0;
    for (size_t i = 0; i < bytes / sizeof(uint64_t); i += 64 / sizeof(uint64_t))
        wrong |= words[i] ^ stamp;
    return wrong == 0;
}

bool wholeFrame(const shm_video_frame_t &frame)
{
    uint64_t stamp = 0;
    std::memcpy(&stamp, frame.planes[0], sizeof stamp);
    // The low half is the generation, so a whole frame of another generation is found as well.
    return static_cast<uint32_t>(stamp) == static_cast<uint32_t>(frame.generation) &&
           whole(frame.planes[0], size_t(frame.strides[0]) * kHeight, stamp) &&
           whole(frame.planes[1], size_t(frame.strides[1]) * kHeight / 2, stamp);
}

[[noreturn]] void runWriter(uint64_t incarnation)
{
    shm_writer_params_t params;
    shm_writer_params_init(&params);
    params.name = "torture";
    params.width = kWidth;
    params.height = kHeight;
    params.pixel_format = SHM_PIXEL_FORMAT_NV12;
    params.history_frames = kHistory;
    params.spare_frames = kSpare;
    shm_writer_t *writer = nullptr;
    shm_error_t error = {};
    if (shm_writer_open(&params, &writer, &error) != 0) {
        std::fprintf(stderr, "writer: %s\n", error.message);
        _exit(2);
    }
    const uint64_t high = incarnation << 32;
    uint64_t generation = 0;
    for (uint64_t n = 1;; ++n) {
        shm_writer_frame_t frame = {};
        if (shm_writer_acquire(writer, &frame) == 0) {
            const uint64_t stamp = high | static_cast<uint32_t>(generation + 1);
            fill(frame.planes[0], size_t(frame.strides[0]) * kHeight, stamp);
            fill(frame.planes[1], size_t(frame.strides[1]) * kHeight / 2, stamp);
            if (shm_writer_publish(writer, &frame, static_cast<int64_t>(n)) == 0) {
                ++generation;
                shared->published.fetch_add(1, std::memory_order_relaxed);
                shared->incarnation.store(incarnation, std::memory_order_relaxed);
            }
        }
        if (n % 1024 == 0) {
            shm_writer_stats_t stats = {};
            stats.size = sizeof stats;
            shm_writer_get_stats(writer, &stats);
            shared->writerLocks.store(stats.locks_held, std::memory_order_relaxed);
            shared->writerReaders.store(stats.readers, std::memory_order_relaxed);
            shared->writerSlots.store(stats.slot_count, std::memory_order_relaxed);
            shared->writerDropped.store(stats.frames_dropped, std::memory_order_relaxed);
            shared->writerStatSerial.fetch_add(1, std::memory_order_relaxed);
        }
    }
}

void countFrame(const shm_video_frame_t &frame, bool edge)
{
    (edge ? shared->edgeLocks : shared->locks).fetch_add(1, std::memory_order_relaxed);
    if (!wholeFrame(frame))
        shared->torn.fetch_add(1, std::memory_order_relaxed);
}

// Locks the slot that has waited longest, which the writer takes next.
bool lockEdge(shm_reader *reader, shm_video_frame_t *frame)
{
    const shm::IndexView &index = reader->index();
    uint64_t least = UINT64_MAX;
    uint32_t slot = 0;
    for (uint32_t s = 0; s < kHistory + kSpare; ++s) {
        const uint64_t generation = index.generations[s].value.load(std::memory_order_relaxed);
        if (generation != 0 && generation < least) {
            least = generation;
            slot = s;
        }
    }
    const uint32_t word = reader->freeWord();
    return least != UINT64_MAX && word < kReaderLocks &&
           reader->tryLock(least, slot, word, frame) == shm_reader::Attempt::Locked;
}

struct Keeper
{
    shm_reader_t *reader;
    int index;
    std::vector<shm_video_frame_t> kept;

    void release(size_t i)
    {
        if (!wholeFrame(kept[i]))
            shared->torn.fetch_add(1, std::memory_order_relaxed);
        shm_reader_unlock_video(reader, &kept[i]);
        kept.erase(kept.begin() + static_cast<std::ptrdiff_t>(i));
        shared->held[index].store(static_cast<int32_t>(kept.size()), std::memory_order_relaxed);
    }
    void keep(const shm_video_frame_t &frame)
    {
        kept.push_back(frame);
        shared->held[index].store(static_cast<int32_t>(kept.size()), std::memory_order_relaxed);
    }
};

void readUntilGone(shm_reader_t *reader, int index, bool edge, std::mt19937 &random)
{
    Keeper keeper = {reader, index, {}};
    while (true) {
        shm_video_frame_t frame = {};
        if (edge) {
            if (lockEdge(reader, &frame)) {
                countFrame(frame, true);
                shm_reader_unlock_video(reader, &frame);
            } else {
                shared->missed.fetch_add(1, std::memory_order_relaxed);
            }
            if (random() % 64 != 0)
                continue;
        }
        // The oldest as often as the newest: that is the one in danger.
        const bool oldest = random() % 2 == 0;
        frame = shm_video_frame_t{};
        const int result =
            shm_reader_lock_video(reader, &frame, oldest ? SHM_VIDEO_AT_OR_AFTER : SHM_VIDEO_NEWEST);
        if (result == 0) {
            countFrame(frame, false);
            if (keeper.kept.size() < kReaderLocks - 2 && random() % 4 == 0)
                keeper.keep(frame);
            else
                shm_reader_unlock_video(reader, &frame);
        } else if (result == -ENODEV) {
            break;
        }
        if (!keeper.kept.empty() && random() % 8 == 0)
            keeper.release(random() % keeper.kept.size());
    }
    // The writer has gone, or is stopped: what is held stays whole.
    while (!keeper.kept.empty()) {
        shared->survived.fetch_add(1, std::memory_order_relaxed);
        keeper.release(0);
    }
}

[[noreturn]] void runReader(int index, unsigned seed)
{
    std::mt19937 random(seed);
    shm_reader_options_t options = {};
    options.size = sizeof options;
    options.timeout_ms = 100;
    options.max_locks = kReaderLocks;
    while (true) {
        shm_reader_t *reader = shm_reader_open_with("torture", &options, nullptr);
        if (reader == nullptr) {
            pauseUs(500);
            continue;
        }
        shared->opened.fetch_add(1, std::memory_order_relaxed);
        readUntilGone(reader, index, index % 2 == 0, random);
        shm_reader_close(reader);
    }
}

void dwell(std::mt19937 &random, int maxUs)
{
    pauseUs(static_cast<long>(random() % static_cast<unsigned>(maxUs)));
}

struct Torture
{
    std::mt19937 random{12345};
    uint64_t incarnation = 0;
    pid_t writer = -1;
    pid_t readers[kReaders] = {-1, -1, -1, -1};
    int writerKills = 0;
    int readerKills = 0;
    int stops = 0;

    void startWriter()
    {
        const uint64_t mine = ++incarnation;
        writer = spawn([mine] { runWriter(mine); });
    }
    void startReader(int i)
    {
        const unsigned seed = random();
        shared->held[i].store(0, std::memory_order_relaxed);
        readers[i] = spawn([i, seed] { runReader(i, seed); });
    }
    void killReader(int i)
    {
        shared->heldWhenKilled.fetch_add(
            static_cast<uint64_t>(shared->held[i].load(std::memory_order_relaxed)),
            std::memory_order_relaxed);
        killAndReap(&readers[i]);
        ++readerKills;
    }
    bool writerPublishes()
    {
        const uint64_t before = shared->published.load();
        return waitFor([&] { return shared->published.load() > before + 50; });
    }
};

#define CHECK(condition)                                                                                     \
    do {                                                                                                     \
        if (!(condition)) {                                                                                  \
            std::fprintf(stderr, "%s:%d: failed: %s\n", __FILE__, __LINE__, #condition);                     \
            return false;                                                                                    \
        }                                                                                                    \
    } while (false)

// The writer and one reader at the edge, each on a core of its own: here a missing ordering shows most.
bool duel(Torture &torture, int64_t us)
{
    torture.startWriter();
    torture.startReader(0);
    CHECK(torture.writerPublishes());
    const int64_t end = nowUs() + us;
    while (nowUs() < end && shared->torn.load() == 0)
        pauseUs(1000);
    return shared->torn.load() == 0;
}

// The writer overruns all its readers, and is stopped now and then.
bool overrun(Torture &torture, int64_t us)
{
    for (int i = 1; i < kReaders; ++i)
        torture.startReader(i);
    const int64_t end = nowUs() + us;
    while (nowUs() < end) {
        dwell(torture.random, 50000);
        kill(torture.writer, SIGSTOP);
        dwell(torture.random, 5000);
        kill(torture.writer, SIGCONT);
        ++torture.stops;
    }
    CHECK(torture.writerPublishes());
    return shared->torn.load() == 0;
}

// Kills the writer at any instruction, again and again; readers go over to the next one.
bool killWriters(Torture &torture, int kills)
{
    for (int i = 0; i < kills; ++i) {
        dwell(torture.random, 20000);
        killAndReap(&torture.writer);
        ++torture.writerKills;
        torture.startWriter();
        // A new life without an error, and somebody reads it.
        CHECK(waitFor([&] { return shared->incarnation.load() == torture.incarnation; }));
        if (i % 20 == 0) {
            const uint64_t locks = shared->locks.load();
            CHECK(waitFor([&] { return shared->locks.load() > locks + 100; }));
        }
    }
    return shared->torn.load() == 0;
}

// Kills readers with locks in their hands: the writer gets every slot back.
bool killReaders(Torture &torture, int kills)
{
    for (int i = 0; i < kills; ++i) {
        dwell(torture.random, 10000);
        const int victim = static_cast<int>(torture.random() % kReaders);
        torture.killReader(victim);
        torture.startReader(victim);
        if (i % 20 == 0)
            CHECK(torture.writerPublishes());
    }
    for (int i = 0; i < kReaders; ++i)
        torture.killReader(i);
    const uint64_t serial = shared->writerStatSerial.load();
    CHECK(waitFor([&] {
        return shared->writerStatSerial.load() > serial + 1 && shared->writerReaders.load() == 0 &&
               shared->writerLocks.load() == 0;
    }));
    // No slot leaked: what was added while readers pinned others is given back too.
    CHECK(waitFor([&] { return shared->writerSlots.load() == static_cast<int32_t>(kHistory + kSpare); }));
    const uint64_t dropped = shared->writerDropped.load();
    CHECK(torture.writerPublishes());
    const uint64_t later = shared->writerStatSerial.load();
    CHECK(waitFor([&] { return shared->writerStatSerial.load() > later + 1; }));
    CHECK(shared->writerDropped.load() == dropped);
    return shared->torn.load() == 0;
}

// What the command line asks for. Without numbers of kills of its own, the scale multiplies those too.
struct Plan
{
    double scale = 1.0;
    int writerKills = -1;
    int readerKills = -1;
};

bool parseCount(const char *text, int *count)
{
    char *end = nullptr;
    const long value = std::strtol(text, &end, 10);
    *count = static_cast<int>(value);
    return end != text && *end == '\0' && value >= 0 && value <= 10000000;
}

bool parse(int argc, char **argv, Plan *plan)
{
    for (int i = 1; i < argc; ++i) {
        const bool writers = std::strcmp(argv[i], "--writer-kills") == 0;
        if (writers || std::strcmp(argv[i], "--reader-kills") == 0) {
            if (++i == argc || !parseCount(argv[i], writers ? &plan->writerKills : &plan->readerKills))
                return false;
            continue;
        }
        char *end = nullptr;
        plan->scale = std::strtod(argv[i], &end);
        if (end == argv[i] || *end != '\0' || !(plan->scale > 0))
            return false;
    }
    if (plan->writerKills < 0)
        plan->writerKills = static_cast<int>(210 * plan->scale);
    if (plan->readerKills < 0)
        plan->readerKills = static_cast<int>(200 * plan->scale);
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    Plan plan;
    if (!parse(argc, argv, &plan)) {
        std::fprintf(stderr, "usage: shm_torture [SCALE] [--writer-kills N] [--reader-kills N]\n");
        return 2;
    }
    const testing_shm::StoreDirectory directory;
    shared = sharedWithChildren<Shared>();

    Torture torture;
    const int64_t start = nowUs();
    const bool good = duel(torture, static_cast<int64_t>(6e6 * plan.scale)) &&
                      overrun(torture, static_cast<int64_t>(6e6 * plan.scale)) &&
                      killWriters(torture, plan.writerKills) && killReaders(torture, plan.readerKills);
    for (pid_t &reader : torture.readers)
        killAndReap(&reader);
    killAndReap(&torture.writer);
    std::printf(
        "%.1f s: %llu frames published, %llu locks (%llu at the edge, %llu missed), %llu torn; %d stops, "
        "%d writers killed, %d readers killed with %llu frames held, %llu opens, %llu frames outlived their "
        "writer; at the end %d slots, %d locks\n",
        static_cast<double>(nowUs() - start) / 1e6, (unsigned long long)shared->published.load(),
        (unsigned long long)(shared->locks.load() + shared->edgeLocks.load()),
        (unsigned long long)shared->edgeLocks.load(), (unsigned long long)shared->missed.load(),
        (unsigned long long)shared->torn.load(), torture.stops, torture.writerKills, torture.readerKills,
        (unsigned long long)shared->heldWhenKilled.load(), (unsigned long long)shared->opened.load(),
        (unsigned long long)shared->survived.load(), shared->writerSlots.load(), shared->writerLocks.load());
    // A run in which nothing was in danger proves nothing.
    const bool meaningful =
        shared->edgeLocks.load() > 0 && shared->missed.load() > 0 && shared->survived.load() > 0;
    if (good && !meaningful)
        std::fprintf(stderr, "nothing was in danger: the run proves nothing\n");
    return good && meaningful && shared->torn.load() == 0 ? 0 : 1;
}
