// Kills writers and readers at every named step (SHM_STEP in platform/shm/src), and looks at what is left.
//
// A writer that dies somewhere: the next one of that name starts without an error, with another size and
// format; everybody who read before reads again; no frame is torn, those that were held stay whole. A reader
// that dies somewhere: the writer takes all its locks back, and all memory that was added for it. In between
// the living ones are stopped and forked with everything they have open; what they have open and mapped does
// not grow.
//
//   shm_faults [--minutes N] [--strict]
//
// Once through every step, or as often as fits into N minutes, with up to 16 readers. --strict also holds
// what was measured to what is promised for a quiet machine: death noticed within 20 ms (99 of 100), readers
// back within 1 s.
#include "../unit/store_directory.h"
#include "shm_processes.h"
#include "steps.h"

#include <shm/shm_reader.h>
#include <shm/shm_writer.h>

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace shm_processes;

namespace {

constexpr int kReadersMax = 16;
constexpr int kLocks = 8;

struct ReaderState
{
    std::atomic<uint64_t> incarnation; // of the writer whose frame was locked last
    std::atomic<int64_t> goneUs;       // when a writer was last found gone
    std::atomic<int64_t> backUs;       // when a frame was locked after that
    std::atomic<uint64_t> locks;
    std::atomic<uint32_t> descriptors; // after a re-open
    std::atomic<uint32_t> mappings;
};

struct Shared
{
    std::atomic<uint64_t> torn;
    std::atomic<uint64_t> survived;
    std::atomic<uint64_t> published;
    std::atomic<uint64_t>
        blocked; // times that the publishing thread gave up its processor while it published
    std::atomic<uint64_t> cutOff;
    std::atomic<int32_t> holder; // a child that lives on with everything its parent had open
    std::atomic<int32_t> writerReaders;
    std::atomic<int32_t> writerLocks;
    std::atomic<int32_t> writerSlots;
    std::atomic<uint64_t> statistics;
    ReaderState readers[kReadersMax];
};
Shared *shared = nullptr;

struct Format
{
    int width, height, pixelFormat, sampleRate;
};
constexpr Format kFormats[] = {{256, 16, SHM_PIXEL_FORMAT_NV12, 0},
                               {640, 360, SHM_PIXEL_FORMAT_YUV420P, 48000},
                               {65, 49, SHM_PIXEL_FORMAT_YVU420P, 0},
                               {1, 1, SHM_PIXEL_FORMAT_NV12, 8000}};
constexpr int kHistory = 4;
constexpr int kSpare = 3;

// Which step of which process kills it, and how often it is passed before.
const char *fatalStep = nullptr;
std::atomic<int> passes{0};
void dieAtStep(const char *name)
{
    if (std::strcmp(name, fatalStep) == 0 && passes.fetch_sub(1) == 0)
        kill(getpid(), SIGKILL);
}

// Every row of every plane carries the incarnation and the generation in each of its lines.
uint64_t stampOf(uint64_t incarnation, uint64_t generation)
{
    return incarnation << 32 | static_cast<uint32_t>(generation);
}

size_t planeBytes(const int32_t strides[4], int height, int plane)
{
    return static_cast<size_t>(strides[plane]) * static_cast<size_t>(plane == 0 ? height : (height + 1) / 2);
}

void fillPlane(uint8_t *plane, size_t bytes, uint64_t stamp)
{
    auto *words = reinterpret_cast<uint64_t *>(plane);
    std::fill(words, words + bytes / sizeof(uint64_t), stamp);
}

bool wholeFrame(const shm_video_frame_t &frame)
{
    uint64_t stamp = 0;
    std::memcpy(&stamp, frame.planes[0], sizeof stamp);
    uint64_t wrong = static_cast<uint32_t>(stamp) ^ static_cast<uint32_t>(frame.generation);
    for (int p = 0; p < 4 && frame.planes[p] != nullptr; ++p) {
        const auto *words = reinterpret_cast<const volatile uint64_t *>(frame.planes[p]);
        const size_t count = planeBytes(frame.strides, frame.height, p) / sizeof(uint64_t);
        for (size_t i = 0; i < count; i += 8)
            wrong |= words[i] ^ stamp;
    }
    return wrong == 0;
}

uint64_t incarnationOf(const shm_video_frame_t &frame)
{
    uint64_t stamp = 0;
    std::memcpy(&stamp, frame.planes[0], sizeof stamp);
    return stamp >> 32;
}

// Leaves a child behind that does nothing, with copies of every descriptor; for a minute at most.
void leaveHolder()
{
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, 0);
        alarm(60);
        while (true)
            pause();
    }
    shared->holder.store(child);
}

void endHolder()
{
    const pid_t holder = shared->holder.exchange(0);
    if (holder > 0)
        kill(holder, SIGKILL);
}

void tellStatistics(shm_writer_t *writer)
{
    shm_writer_stats_t stats = {};
    stats.size = sizeof stats;
    shm_writer_get_stats(writer, &stats);
    shared->writerReaders.store(stats.readers);
    shared->writerLocks.store(stats.locks_held);
    shared->writerSlots.store(stats.slot_count);
    shared->cutOff.store(stats.readers_disconnected);
    shared->statistics.fetch_add(1);
}

[[noreturn]] void runWriter(uint64_t incarnation, const char *dieAt, int after)
{
    if (dieAt != nullptr) {
        fatalStep = dieAt;
        passes.store(after);
        steps::stepHook = dieAtStep;
    }
    const Format &format = kFormats[incarnation % std::size(kFormats)];
    shm_writer_params_t params;
    shm_writer_params_init(&params);
    params.name = "faults";
    params.width = format.width;
    params.height = format.height;
    params.pixel_format = format.pixelFormat;
    params.sample_rate = format.sampleRate;
    params.channels = format.sampleRate != 0 ? 2 : 0;
    params.history_frames = kHistory;
    params.spare_frames = kSpare;
    // Every step of closing is passed before the store that stays.
    for (int life = 0;; ++life) {
        shm_writer_t *writer = nullptr;
        shm_error_t error = {};
        if (shm_writer_open(&params, &writer, &error) != 0) {
            std::fprintf(stderr, "writer: %s\n", error.message);
            _exit(2);
        }
        if (life == 0) {
            shm_writer_close(writer);
            continue;
        }
        bool forked = false;
        std::vector<int16_t> samples(960, static_cast<int16_t>(incarnation));
        uint64_t generation = 0;
        for (int64_t n = 1;; ++n) {
            rusage before = {};
            getrusage(RUSAGE_THREAD, &before);
            shm_writer_frame_t frame = {};
            if (shm_writer_acquire(writer, &frame) == 0) {
                for (int p = 0; p < 4 && frame.planes[p] != nullptr; ++p)
                    fillPlane(frame.planes[p], planeBytes(frame.strides, frame.height, p),
                              stampOf(incarnation, generation + 1));
                if (shm_writer_publish(writer, &frame, n * 1000) == 0) {
                    ++generation;
                    shared->published.fetch_add(1);
                }
            }
            if (format.sampleRate != 0)
                shm_writer_publish_audio(writer, 0, samples.data(), 480, n * 60000);
            rusage after2 = {};
            getrusage(RUSAGE_THREAD, &after2);
            shared->blocked.fetch_add(static_cast<uint64_t>(after2.ru_nvcsw - before.ru_nvcsw));
            if (n % 8 == 0)
                tellStatistics(writer);
            // With readers connected, so that their sockets are inherited too.
            if (!forked && incarnation % 2 == 0 && shared->writerReaders.load() > 0 && n > 16) {
                leaveHolder();
                forked = true;
            }
            pauseUs(500);
        }
    }
}

uint32_t countDescriptors()
{
    uint32_t count = 0;
    for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator("/proc/self/fd"))
        ++count;
    return count;
}

uint32_t countMappings()
{
    std::ifstream maps("/proc/self/maps");
    std::string line;
    uint32_t count = 0;
    while (std::getline(maps, line))
        count += line.find("memfd:shm-") != std::string::npos ? 1 : 0;
    return count;
}

// One thread locks, two look again and give back.
class Hands
{
public:
    explicit Hands(shm_reader_t *reader) : m_reader(reader)
    {
        for (std::thread &thread : m_threads)
            thread = std::thread([this] { giveBack(); });
    }
    ~Hands()
    {
        m_end.store(true);
        for (std::thread &thread : m_threads)
            thread.join();
        for (shm_video_frame_t &frame : m_frames)
            release(&frame);
    }
    void take(const shm_video_frame_t &frame)
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        m_frames.push_back(frame);
    }

private:
    void giveBack()
    {
        while (!m_end.load()) {
            shm_video_frame_t frame = {};
            {
                const std::lock_guard<std::mutex> guard(m_mutex);
                if (!m_frames.empty()) {
                    frame = m_frames.front();
                    m_frames.pop_front();
                }
            }
            if (frame.planes[0] != nullptr)
                release(&frame);
            else
                pauseUs(200);
        }
    }
    void release(shm_video_frame_t *frame)
    {
        if (!wholeFrame(*frame))
            shared->torn.fetch_add(1);
        shm_reader_unlock_video(m_reader, frame);
    }

    shm_reader_t *m_reader;
    std::mutex m_mutex;
    std::deque<shm_video_frame_t> m_frames;
    std::atomic<bool> m_end{false};
    std::thread m_threads[2];
};

// Ticks every 2 ms, until the writer has gone.
void readUntilGone(shm_reader_t *reader, ReaderState &state, bool pins, std::mt19937 &random)
{
    std::vector<shm_video_frame_t> pinned;
    bool counted = false;
    {
        Hands hands(reader);
        while (true) {
            shm_video_frame_t frame = {};
            const int result = shm_reader_lock_video(reader, &frame, SHM_VIDEO_NEWEST);
            if (result == -ENODEV)
                break;
            if (result == 0) {
                if (!wholeFrame(frame))
                    shared->torn.fetch_add(1);
                state.locks.fetch_add(1);
                if (state.incarnation.exchange(incarnationOf(frame)) != incarnationOf(frame))
                    state.backUs.store(nowUs());
                if (!counted) {
                    counted = true;
                    state.mappings.store(countMappings());
                    state.descriptors.store(countDescriptors());
                }
                // The first reader keeps a frame for as long as its writer lives, and longer.
                if (pins || (&state == shared->readers && pinned.empty()))
                    pinned.push_back(frame);
                else if (random() % 4 == 0)
                    hands.take(frame);
                else
                    shm_reader_unlock_video(reader, &frame);
            }
            pauseUs(2000);
        }
        state.goneUs.store(nowUs());
    }
    for (shm_video_frame_t &frame : pinned) {
        if (!wholeFrame(frame))
            shared->torn.fetch_add(1);
        shared->survived.fetch_add(1);
        shm_reader_unlock_video(reader, &frame);
    }
}

[[noreturn]] void runReader(int index, bool pins, const char *dieAt, int after)
{
    if (dieAt != nullptr) {
        fatalStep = dieAt;
        passes.store(after);
        steps::stepHook = dieAtStep;
    }
    std::mt19937 random(static_cast<unsigned>(index));
    shm_reader_options_t options = {};
    options.size = sizeof options;
    options.timeout_ms = 100;
    options.max_locks = pins ? 64 : kLocks;
    while (true) {
        shm_reader_t *reader = shm_reader_open_with("faults", &options, nullptr);
        if (reader == nullptr) {
            pauseUs(2000);
            continue;
        }
        if (dieAt != nullptr && std::strncmp(dieAt, "open", 4) != 0)
            leaveHolder();
        readUntilGone(reader, shared->readers[index], pins, random);
        shm_reader_close(reader);
    }
}

#define CHECK(condition, about)                                                                              \
    do {                                                                                                     \
        if (!(condition)) {                                                                                  \
            std::fprintf(stderr, "%s:%d: failed: %s (%s)\n", __FILE__, __LINE__, #condition, about);         \
            return false;                                                                                    \
        }                                                                                                    \
    } while (false)

const char *const kWriterSteps[] = {"start: name locked",       "start: allocated",
                                    "start: socket bound",      "start: visible",
                                    "close: out of sight",      "close: lock file removed",
                                    "serve: control page made", "serve: listed",
                                    "serve: welcomed",          "serve: slots sent",
                                    "serve: off the list",      "publish: slot closed",
                                    "publish: slot chosen",     "publish: described",
                                    "publish: readable",        "publish: history entry open",
                                    "publish: in the history",  "publish: newest",
                                    "supply: fresh memory",     "supply: readers told",
                                    "supply: reader revoked",   "supply: slots poisoned",
                                    "supply: memory freed"};

const char *const kReaderSteps[] = {"open: connected", "open: said hello", "open: welcomed",
                                    "open: complete",  "lock: named",      "lock: described",
                                    "lock: held",      "unlock: taken",    "unlock: word free"};

class Faults
{
public:
    explicit Faults(int readers) : m_count(readers) {}
    ~Faults() { stopAll(); }

    void stopAll()
    {
        killAndReap(&m_writer);
        killAndReap(&m_pinner);
        killAndReap(&m_victim);
        endHolder();
        for (pid_t &reader : m_readers)
            killAndReap(&reader);
    }

    bool start()
    {
        m_readers.assign(static_cast<size_t>(m_count), -1);
        for (int i = 0; i < m_count; ++i)
            m_readers[static_cast<size_t>(i)] = spawn([i] { runReader(i, false, nullptr, 0); });
        return restartWriter("start");
    }

    // A writer that lives, of another size and format; all readers read it.
    bool restartWriter(const char *about)
    {
        const uint64_t mine = ++m_incarnation;
        m_writer = spawn([mine] { runWriter(mine, nullptr, 0); });
        CHECK(waitFor([&] { return allRead(mine); }), about);
        endHolder(); // of the one before: nobody has taken it for a writer
        CHECK(shared->torn.load() == 0, about);
        return true;
    }

    bool allRead(uint64_t incarnation) const
    {
        for (int i = 0; i < m_count; ++i) {
            if (shared->readers[i].incarnation.load() != incarnation)
                return false;
        }
        return true;
    }

    // What was there is killed where it likes, or by us; the next one dies at `step`; then one that lives.
    bool killWriterAt(const char *step, int after)
    {
        killAndReap(&m_writer);
        const uint64_t mine = ++m_incarnation;
        m_writer = spawn([mine, step, after] { runWriter(mine, step, after); });
        // One that pins all it may makes the writer add memory and cut it off. It comes and goes, so that
        // readers are also taken off the list and memory is given back.
        const bool needsPins =
            std::strncmp(step, "supply", 6) == 0 || std::strcmp(step, "serve: off the list") == 0;
        int status = 0;
        int64_t nextChange = 0;
        const bool died = waitFor([&] {
            if (needsPins && nowUs() > nextChange) {
                if (m_pinner > 0)
                    killAndReap(&m_pinner);
                else
                    m_pinner = spawn([] { runReader(kReadersMax - 1, true, nullptr, 0); });
                nextChange = nowUs() + 700000;
            }
            return waitpid(m_writer, &status, WNOHANG) == m_writer;
        });
        killAndReap(&m_pinner);
        CHECK(died, step); // else the step was never reached
        m_writer = -1;
        CHECK(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL, step);
        ++kills;
        return restartWriter(step);
    }

    bool killReaderAt(const char *step, int after)
    {
        m_victim = spawn([step, after] { runReader(kReadersMax - 1, false, step, after); });
        int status = 0;
        CHECK(waitFor([&] { return waitpid(m_victim, &status, WNOHANG) == m_victim; }), step);
        m_victim = -1;
        CHECK(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL, step);
        ++kills;
        const uint64_t seen = shared->statistics.load();
        CHECK(waitFor([&] {
                  return shared->statistics.load() > seen + 1 && shared->writerReaders.load() == m_count;
              }),
              step);
        CHECK(shared->torn.load() == 0, step);
        endHolder(); // nor for a reader
        return true;
    }

    // Without readers: every lock is back, and every slot that was added.
    bool nothingLeaked()
    {
        for (pid_t &reader : m_readers)
            killAndReap(&reader);
        CHECK(waitFor([] {
                  return shared->writerReaders.load() == 0 && shared->writerLocks.load() == 0 &&
                         shared->writerSlots.load() == kHistory + kSpare;
              }),
              "locks and slots come back");
        return true;
    }

    // Stopped readers, with frames in their hands, cost the writer nothing.
    bool stopReaders()
    {
        for (const pid_t reader : m_readers)
            kill(reader, SIGSTOP);
        const uint64_t before = shared->published.load();
        const uint64_t blocked = shared->blocked.load();
        CHECK(waitFor([&] { return shared->published.load() > before + 200; }), "readers are stopped");
        blockedWhileStopped += shared->blocked.load() - blocked;
        for (const pid_t reader : m_readers)
            kill(reader, SIGCONT);
        return true;
    }

    // The time from the kill to the first look that says so, and to the first frame of the next writer.
    bool measureDeath(int times)
    {
        for (int i = 0; i < times; ++i) {
            const int64_t killed = nowUs();
            killAndReap(&m_writer);
            CHECK(waitFor([&] {
                      return std::all_of(shared->readers, shared->readers + m_count,
                                         [killed](const ReaderState &r) { return r.goneUs.load() > killed; });
                  }),
                  "death is noticed");
            for (int r = 0; r < m_count; ++r)
                noticedUs.push_back(shared->readers[r].goneUs.load() - killed);
            const int64_t started = nowUs();
            if (!restartWriter("restart"))
                return false;
            for (int r = 0; r < m_count; ++r)
                backUs.push_back(shared->readers[r].backUs.load() - started);
            ++kills;
        }
        return true;
    }

    // Whoever is left alive has the same open and mapped as at the first look, format for format.
    bool flat()
    {
        const auto format = m_incarnation % std::size(kFormats);
        for (int i = 0; i < m_count; ++i) {
            const uint32_t descriptors = shared->readers[i].descriptors.load();
            const uint32_t mappings = shared->readers[i].mappings.load();
            uint32_t &first = m_first[i][format];
            if (first == 0)
                first = descriptors;
            // The service thread may be adding slots just now: at most twice as many.
            CHECK(descriptors <= first + 2, "descriptors grow");
            CHECK(mappings <= 2 * (kHistory + kSpare) + 3, "mappings grow");
        }
        return true;
    }

    int kills = 0;
    uint64_t blockedWhileStopped = 0;
    std::vector<int64_t> noticedUs;
    std::vector<int64_t> backUs;

private:
    int m_count;
    uint64_t m_incarnation = 0;
    pid_t m_writer = -1;
    pid_t m_pinner = -1;
    pid_t m_victim = -1;
    std::vector<pid_t> m_readers;
    uint32_t m_first[kReadersMax][std::size(kFormats)] = {};
};

int64_t percentile(std::vector<int64_t> values, int percent)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    return values[(values.size() - 1) * static_cast<size_t>(percent) / 100];
}

struct Measured
{
    int kills = 0;
    uint64_t blocked = 0;
    std::vector<int64_t> noticedUs;
    std::vector<int64_t> backUs;
};

bool once(int readers, int after, Measured *measured)
{
    Faults faults(readers);
    bool good = faults.start();
    for (size_t i = 0; good && i < std::size(kWriterSteps); ++i)
        good = faults.killWriterAt(kWriterSteps[i],
                                   std::strncmp(kWriterSteps[i], "publish", 7) == 0 ? after : 0) &&
               faults.flat();
    for (size_t i = 0; good && i < std::size(kReaderSteps); ++i)
        good =
            faults.killReaderAt(kReaderSteps[i], std::strncmp(kReaderSteps[i], "open", 4) == 0 ? 0 : after);
    good = good && faults.stopReaders() && faults.measureDeath(10) && faults.nothingLeaked();
    measured->kills += faults.kills;
    measured->blocked += faults.blockedWhileStopped;
    measured->noticedUs.insert(measured->noticedUs.end(), faults.noticedUs.begin(), faults.noticedUs.end());
    measured->backUs.insert(measured->backUs.end(), faults.backUs.begin(), faults.backUs.end());
    return good && shared->torn.load() == 0;
}

} // namespace

int main(int argc, char **argv)
{
    double minutes = 0;
    bool strict = false;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--minutes") == 0 && i + 1 < argc)
            minutes = std::atof(argv[++i]);
        else if (std::strcmp(argv[i], "--strict") == 0)
            strict = true;
        else {
            std::fprintf(stderr, "usage: shm_faults [--minutes N] [--strict]\n");
            return 2;
        }
    }
    const testing_shm::StoreDirectory directory;
    shared = sharedWithChildren<Shared>();

    const int64_t start = nowUs();
    const auto end = start + static_cast<int64_t>(minutes * 60e6);
    std::mt19937 random(1);
    Measured measured;
    int rounds = 0;
    bool good = true;
    do {
        const int readers = rounds == 0 ? 2 : 1 + static_cast<int>(random() % (kReadersMax - 1));
        const int after = rounds == 0 ? 20 : static_cast<int>(random() % 200);
        good = once(readers, after, &measured);
        ++rounds;
    } while (good && nowUs() < end);

    uint64_t locks = 0;
    for (const ReaderState &reader : shared->readers)
        locks += reader.locks.load();
    const int64_t noticed = percentile(measured.noticedUs, 99);
    const int64_t back = percentile(measured.backUs, 100);
    std::printf(
        "%.1f s: %d rounds, %d processes killed at a step; %llu frames published, %llu locks, %llu torn, "
        "%llu "
        "outlived their writer; the publishing thread gave way %llu times while readers were stopped\n"
        "death noticed within %.1f ms (median), %.1f ms (99 %%); frames again %.1f ms after the next "
        "writer's "
        "start (median), %.1f ms (longest); readers tick every 2 ms\n",
        static_cast<double>(nowUs() - start) / 1e6, rounds, measured.kills,
        (unsigned long long)shared->published.load(), (unsigned long long)locks,
        (unsigned long long)shared->torn.load(), (unsigned long long)shared->survived.load(),
        (unsigned long long)measured.blocked, static_cast<double>(percentile(measured.noticedUs, 50)) / 1e3,
        static_cast<double>(noticed) / 1e3, static_cast<double>(percentile(measured.backUs, 50)) / 1e3,
        static_cast<double>(back) / 1e3);
    if (good && shared->survived.load() == 0) {
        std::fprintf(stderr, "no frame was held when its writer died: the run proves too little\n");
        good = false;
    }
    if (good && measured.blocked != 0) {
        std::fprintf(stderr, "publishing waited for something\n");
        good = false;
    }
    if (good && strict && (noticed > 20000 || back > 1000000)) {
        std::fprintf(stderr, "slower than promised\n");
        good = false;
    }
    return good ? 0 : 1;
}
