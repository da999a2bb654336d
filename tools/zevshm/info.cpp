// zevshm info
#include "commands.h"
#include "hostclock.h"
#include "report.h"

#include <chrono>
#include <cstdio>
#include <thread>

namespace zevshm {

namespace {

const std::vector<OptionSpec> specs = {
    {"--json", "", "as a JSON object"},
    {"--help", "", "show this"},
};

} // namespace

int infoCommand(const std::vector<std::string> &words)
{
    const Options options("info", specs, {"NAME"}, words);
    if (options.has("--help")) {
        std::printf(
            "Usage: zevshm info [options] NAME\n\n"
            "Shows what the frame store NAME carries and how it is doing. This command is not counted "
            "as a\nreader.\n\n"
            "Options:\n%s\n"
            "Examples:\n  zevshm info cam1\n  zevshm info cam1 --json\n",
            describeOptions(specs).c_str());
        return ExitOk;
    }
    const std::string name = options.positional()[0];
    const ReaderPtr reader = openStore(name);
    std::this_thread::sleep_for(std::chrono::milliseconds(readerCountMs));
    const StoreReport report = readReport(reader.get(), name);
    if (options.has("--json")) {
        JsonWriter json;
        writeJson(json, report);
        std::puts(json.text().c_str());
    } else {
        std::fputs(describe(report, wallUs()).c_str(), stdout);
    }
    return ExitOk;
}

} // namespace zevshm
