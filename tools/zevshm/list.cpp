// zevshm list
#include "commands.h"
#include "report.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>

namespace zevshm {

namespace {

const std::vector<OptionSpec> specs = {
    {"--json", "", "as a JSON array"},
    {"--help", "", "show this"},
};

struct Entry
{
    std::string name;
    std::string directory;
    ReaderPtr reader{};
    shm_error_t error{};
};

struct Row
{
    std::string name, state, readers, carries;
};

void writeDead(JsonWriter &json, const Entry &entry, const std::string &why)
{
    json.beginObject().member("name", entry.name).member("directory", entry.directory).member("live", false);
    json.member("reason", why).endObject();
}

} // namespace

int listCommand(const std::vector<std::string> &words)
{
    const Options options("list", specs, {}, words);
    if (options.has("--help")) {
        std::printf("Usage: zevshm list [options]\n\n"
                    "Shows the frame stores that can be read from here. Stores are looked for in "
                    "$ZEV_SHM_DIR alone when\n"
                    "that is set, else in $XDG_RUNTIME_DIR/zev-shm and /run/zev-shm.\n\n"
                    "Options:\n%s\n"
                    "Examples:\n  zevshm list\n  zevshm list --json\n",
                    describeOptions(specs).c_str());
        return ExitOk;
    }
    std::vector<Entry> entries;
    for (const StoreEntry &found : listStores())
        entries.push_back({found.name, found.directory, {}, {}});

    for (Entry &entry : entries)
        entry.reader = tryOpenStore(entry.name, entry.error);
    if (!entries.empty())
        std::this_thread::sleep_for(std::chrono::milliseconds(readerCountMs));

    JsonWriter json;
    json.beginArray();
    std::vector<Row> rows = {{"NAME", "STATE", "READERS", "CARRIES"}};
    for (const Entry &entry : entries) {
        try {
            if (!entry.reader)
                throw Failure(ExitNoStore, entry.error.message);
            const StoreReport report = readReport(entry.reader.get(), entry.name);
            writeJson(json, report);
            // This command is a reader itself.
            rows.push_back(
                {entry.name, "live", std::to_string(std::max(report.info.readers - 1, 0)), summary(report)});
        } catch (const Failure &failure) {
            writeDead(json, entry, failure.what());
            rows.push_back({entry.name, stateOf(entry.error.code), "-", "-"});
        }
    }
    json.endArray();
    if (options.has("--json")) {
        std::puts(json.text().c_str());
        return ExitOk;
    }
    if (entries.empty()) {
        std::puts("No stores. Publish one with 'zevshm publish NAME test:'.");
        return ExitOk;
    }
    size_t nameWidth = 0;
    for (const Row &row : rows)
        nameWidth = std::max(nameWidth, row.name.size());
    for (const Row &row : rows)
        std::printf("%-*s  %-9s  %-7s  %s\n", static_cast<int>(nameWidth), row.name.c_str(),
                    row.state.c_str(), row.readers.c_str(), row.carries.c_str());
    return ExitOk;
}

} // namespace zevshm
