// zevshm: the command-line tool for frame stores.
#include "commands.h"
#include "failure.h"
#include "messages.h"

#include <csignal>
#include <cstdio>
#include <map>
#include <new>

namespace {

using namespace zevshm;

void printHelp()
{
    std::fputs(
        "Usage: zevshm COMMAND [options]\n\n"
        "Publishes live video and sound into frame stores, and looks at them.\n\n"
        "Commands:\n"
        "  publish NAME INPUT       publish a file, a stream, a pipe or a test picture\n"
        "  list                     show the stores that can be read from here\n"
        "  top                      show all stores and how they are doing, live\n"
        "  info NAME                show what a store carries and how it is doing\n"
        "  snapshot NAME FILE.png   write a frame as a picture\n"
        "  record NAME FILE         record video and sound\n"
        "  relay NAME URL           send video and sound to a media server or another machine\n"
        "  dump NAME DIR            write all that a store holds as pictures and sound\n\n"
        "Every command has --help (-h). --version shows the version.\n\n"
        "Stores are looked for in $ZEV_SHM_DIR alone when that is set, else in $XDG_RUNTIME_DIR/zev-shm and\n"
        "/run/zev-shm.\n\n"
        "Exit codes:\n"
        "   0  done\n"
        "   1  anything that has no code of its own\n"
        "   2  unknown command or option, or a value out of range\n"
        "   3  not a store name\n"
        "   4  no such store, or its writer is dead or does not answer\n"
        "   5  another process publishes this name\n"
        "   6  the store directory is missing or not accessible\n"
        "   7  too little memory or too few descriptors\n"
        "   8  the input is missing, unreadable or unreachable\n"
        "   9  the input holds nothing that can be decoded\n"
        "  10  the output cannot be written or reached\n"
        "  11  the store holds no such frame, or nothing of what was asked for\n\n"
        "Examples:\n"
        "  zevshm publish cam1 test:\n"
        "  zevshm publish cam1 movie.mp4 --loop\n"
        "  zevshm list\n"
        "  zevshm top\n"
        "  zevshm info cam1 --json\n"
        "  zevshm snapshot cam1 cam1.png\n"
        "  zevshm record cam1 minute.mkv --seconds 60\n"
        "  zevshm relay cam1 rtsp://server.local/cam1\n"
        "  zevshm dump cam1 glitch --last 200\n",
        stdout);
}

int run(const std::vector<std::string> &words)
{
    static const std::map<std::string, int (*)(const std::vector<std::string> &)> commands = {
        {"publish", publishCommand},   {"list", listCommand},     {"info", infoCommand},
        {"snapshot", snapshotCommand}, {"record", recordCommand}, {"dump", dumpCommand},
        {"top", topCommand},           {"relay", relayCommand},
    };
    std::string known;
    for (const auto &command : commands)
        known += (known.empty() ? "" : ", ") + command.first;
    if (words.empty())
        throw Failure(ExitUsage, "a command is missing, give one of " + known + "; see 'zevshm --help'");
    if (words[0] == "--help" || words[0] == "-h" || words[0] == "help") {
        printHelp();
        return ExitOk;
    }
    if (words[0] == "--version") {
        std::printf("zevshm %s\n", ZEVSHM_VERSION);
        return ExitOk;
    }
    const auto command = commands.find(words[0]);
    if (command == commands.end())
        throw Failure(ExitUsage,
                      (words[0][0] == '-' ? "unknown option '" + words[0] + "', the command comes first"
                                          : "unknown command '" + words[0] + "'") +
                          ", give one of " + known + "; see 'zevshm --help'");
    return command->second({words.begin() + 1, words.end()});
}

} // namespace

int main(int argc, char **argv)
{
    std::signal(SIGXFSZ, SIG_IGN); // a file beyond `ulimit -f` is an error of write()
    try {
        const int code = run({argv + 1, argv + argc});
        // What could not be written was not done (a full disk, a closed pipe).
        if (std::fflush(stdout) != 0)
            throw Failure(ExitOutput, "standard output: cannot be written; check where it goes");
        return code;
    } catch (const Failure &failure) {
        say(failure.what());
        return failure.code();
    } catch (const std::bad_alloc &) {
        say("out of memory; end other programs or publish smaller frames");
        return ExitResources;
    } catch (const std::exception &error) {
        say(std::string(error.what()) + "; this is unexpected, please report it");
        return ExitInternal;
    }
}
