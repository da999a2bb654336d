// zevshm top
#include "commands.h"
#include "hostclock.h"
#include "report.h"
#include "topscreen.h"
#include "toptable.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <map>
#include <thread>
#include <unistd.h>

namespace zevshm {

namespace {

constexpr int openTimeoutMs = 100; // a writer that is stopped must not stop the others' figures

const std::vector<OptionSpec> specs = {
    {"--interval", "SECONDS", "between two looks, and what rates are measured over (1)"},
    {"--once", "", "print the table once, also on a terminal"},
    {"--json", "", "print it once, as a JSON array"},
    {"--help", "", "show this"},
};

void printHelp()
{
    std::printf("Usage: zevshm top [options]\n\n"
                "Shows all stores that can be read from here, and how they are doing, until q or Ctrl-C is "
                "pressed. Where\n"
                "standard output is not a terminal, the table is printed once.\n\n"
                "  FPS        frames that were published, a second\n"
                "  JITTER     how uneven the timestamps are (1.4826 x median deviation)\n"
                "  AGE        of the newest frame or sample\n"
                "  READERS    that are connected, without this one\n"
                "  LOCKS      frames that they hold now\n"
                "  DROPS      frames that found no free slot since the writer started\n"
                "  BANDWIDTH  pixels and samples that were published, a second\n\n"
                "Options:\n%s\n"
                "Examples:\n  zevshm top\n  zevshm top --interval 0.2\n  zevshm top --json\n",
                describeOptions(specs).c_str());
}

// All stores, with what they did between two looks.
class StoreWatch
{
public:
    // Connects to what is new and reads everything.
    std::vector<TopRow> look()
    {
        std::vector<StoreEntry> entries;
        try {
            entries = listStores();
        } catch (const Failure &) {
            if (!m_hasLooked)
                throw; // a folder may go and come later
        }
        m_hasLooked = true;
        std::vector<TopRow> rows;
        std::map<std::string, Watched> watched;
        for (const StoreEntry &entry : entries) {
            Watched store = std::move(m_watched[entry.name]);
            rows.push_back(look(entry.name, store));
            watched[entry.name] = std::move(store);
        }
        m_watched = std::move(watched);
        return rows;
    }

private:
    struct Watched
    {
        ReaderPtr reader;
        std::optional<int64_t> readUs; // monotonic
        uint64_t frames = 0;
        uint64_t sound = 0;
    };

    static TopRow look(const std::string &name, Watched &store)
    {
        TopRow row;
        row.name = name;
        if (store.reader && !shm_reader_is_ready(store.reader.get()))
            store = Watched();
        if (!store.reader) {
            shm_error_t error{};
            store.reader = tryOpenStore(name, error, openTimeoutMs);
            if (!store.reader) {
                row.state = stateOf(error.code);
                return row;
            }
        }
        StoreReport report;
        try {
            report = readReport(store.reader.get(), name);
        } catch (const Failure &) {
            store = Watched();
            row.state = "dead";
            return row;
        }
        describe(row, report);
        measure(row, report, store);
        return row;
    }

    static void describe(TopRow &row, const StoreReport &report)
    {
        row.carries = summary(report);
        row.hasVideo = report.format.has_video != 0;
        row.declaredRate = row.hasVideo ? framesPerSecond(report.info) : 0;
        row.jitterUs = report.info.jitter_us;
        int64_t newestUs = row.hasVideo ? report.info.newest_timestamp : 0;
        if (!row.hasVideo && !report.audio.empty())
            newestUs = report.audio[0].newest_timestamp;
        if (newestUs != 0)
            row.ageUs = std::max<int64_t>(wallUs() - newestUs, 0);
        row.readers = report.info.readers;
        row.locksHeld = report.info.locks_held;
        row.dropped = report.info.frames_dropped;
        row.refused = report.info.frames_refused;
        row.totalBytes = report.info.total_bytes;
    }

    static void measure(TopRow &row, const StoreReport &report, Watched &store)
    {
        const int64_t now = monotonicUs();
        const uint64_t sound = report.audio.empty() ? 0 : report.audio[0].frames_published;
        if (store.readUs) {
            const int64_t elapsedUs = now - *store.readUs;
            const auto frames = ratePerSecond(store.frames, report.info.frames_published, elapsedUs);
            const auto samples = ratePerSecond(store.sound, sound, elapsedUs);
            if (row.hasVideo)
                row.rate = frames;
            const double chroma = 2.0 * ((report.format.width + 1) / 2) * ((report.format.height + 1) / 2);
            const double frameBytes =
                row.hasVideo ? static_cast<double>(report.format.width) * report.format.height + chroma : 0;
            const double soundBytes = 2.0 * report.format.channels * static_cast<double>(report.audio.size());
            if (frames && samples)
                row.bytesASecond = *frames * frameBytes + *samples * soundBytes;
        }
        store.readUs = now;
        store.frames = report.info.frames_published;
        store.sound = sound;
    }

    bool m_hasLooked = false;
    std::map<std::string, Watched> m_watched;
};

int printOnce(StoreWatch &watch, int intervalMs, bool asJson)
{
    if (!watch.look().empty())
        std::this_thread::sleep_for(std::chrono::milliseconds(std::max(intervalMs, readerCountMs)));
    const std::vector<TopRow> rows = watch.look();
    if (asJson) {
        JsonWriter json;
        writeJson(json, rows);
        std::puts(json.text().c_str());
    } else if (rows.empty()) {
        std::puts("No stores. Publish one with 'zevshm publish NAME test:'.");
    } else {
        for (const std::string &line : layOutTable(rows, 0, 0))
            std::puts(line.c_str());
    }
    return ExitOk;
}

std::vector<std::string> layOut(const std::vector<TopRow> &rows, int width, int height)
{
    const std::string count =
        rows.empty() ? "No stores" : std::to_string(rows.size()) + (rows.size() == 1 ? " store" : " stores");
    std::vector<std::string> lines = {(count + ", q quits").substr(0, static_cast<size_t>(width))};
    if (height < 2)
        return lines;
    for (std::string &line : layOutTable(rows, width, height - 1))
        lines.push_back(std::move(line));
    return lines;
}

} // namespace

int topCommand(const std::vector<std::string> &words)
{
    const Options options("top", specs, {}, words);
    if (options.has("--help")) {
        printHelp();
        return ExitOk;
    }
    const int intervalMs =
        static_cast<int>(std::lround(options.number("--interval", 0.1, 3600).value_or(1) * 1000));
    StoreWatch watch;
    if (options.has("--json") || options.has("--once") || isatty(STDOUT_FILENO) != 1)
        return printOnce(watch, intervalMs, options.has("--json"));

    std::vector<TopRow> rows = watch.look(); // fails here, if at all
    TopScreen screen;
    int64_t nextUs = monotonicUs() + int64_t{std::min(intervalMs, 2 * readerCountMs)} * 1000;
    for (;;) {
        screen.show(layOut(rows, screen.width(), screen.height()));
        const int64_t leftMs = (nextUs - monotonicUs()) / 1000;
        if (screen.wait(static_cast<int>(std::max<int64_t>(leftMs, 0))) == TopScreen::Event::End)
            return ExitOk;
        if (monotonicUs() < nextUs)
            continue;
        rows = watch.look();
        nextUs = monotonicUs() + int64_t{intervalMs} * 1000;
    }
}

} // namespace zevshm
