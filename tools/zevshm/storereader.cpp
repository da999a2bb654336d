#include "storereader.h"

#include "commands.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace zevshm {

ExitCode exitCodeForReader(int negativeErrno)
{
    switch (-negativeErrno) {
    case EINVAL:
        return ExitBadName;
    case ENOENT:
    case ECONNREFUSED:
    case ETIMEDOUT:
    case ENODEV:
    case EPROTO:
        return ExitNoStore;
    case EACCES:
    case EPERM:
    case ENOTDIR:
        return ExitDirectory;
    case EMFILE:
    case ENFILE:
    case ENOMEM:
        return ExitResources;
    default:
        return ExitInternal;
    }
}

void checkStoreName(const std::string &name)
{
    shm_error_t error{};
    if (shm_check_name(name.c_str(), &error) < 0)
        throw Failure(ExitBadName, error.message);
}

ReaderPtr tryOpenStore(const std::string &name, shm_error_t &error, int timeoutMs)
{
    shm_reader_options_t options{};
    options.size = sizeof options;
    options.timeout_ms = timeoutMs;
    return ReaderPtr(shm_reader_open_with(name.c_str(), &options, &error));
}

bool isChosenDirectoryMissing()
{
    const char *directory = std::getenv("ZEV_SHM_DIR");
    return directory && *directory && shm_list_stores(nullptr, nullptr) == -ENOENT;
}

std::vector<StoreEntry> listStores()
{
    std::vector<StoreEntry> entries;
    const int found = shm_list_stores(
        [](void *context, const char *name, const char *directory) {
            static_cast<std::vector<StoreEntry> *>(context)->push_back({name, directory});
        },
        &entries);
    if (found < 0 && (found != -ENOENT || isChosenDirectoryMissing())) {
        const char *directory = std::getenv("ZEV_SHM_DIR");
        throw Failure(found == -ENOENT ? ExitDirectory : exitCodeForReader(found),
                      std::string(directory && *directory ? directory : "the store directories") +
                          ": cannot be read (" + std::strerror(-found) +
                          "); check $ZEV_SHM_DIR and the permissions");
    }
    return entries;
}

std::string stateOf(int negativeErrno)
{
    return negativeErrno == -EACCES ? "no access" : negativeErrno == -ETIMEDOUT ? "silent" : "dead";
}

ReaderPtr openStore(const std::string &name)
{
    checkStoreName(name);
    shm_error_t error{};
    ReaderPtr reader = tryOpenStore(name, error);
    if (!reader)
        throw Failure(isChosenDirectoryMissing() ? ExitDirectory : exitCodeForReader(error.code),
                      error.message[0] ? std::string(error.message)
                                       : name + ": cannot be opened (" + std::strerror(-error.code) +
                                             "); see 'zevshm list'");
    return reader;
}

StoreReport readReport(shm_reader_t *reader, const std::string &name)
{
    StoreReport report;
    report.name = name;
    shm_reader_get_format(reader, &report.format);
    report.info.size = sizeof report.info;
    const int rc = shm_reader_get_info(reader, &report.info);
    if (rc < 0 || !report.info.live)
        throw Failure(ExitNoStore, name + ": its writer has just gone; start it again");
    report.info.readers = std::max(report.info.readers - 1, 0);
    if (report.format.has_video) {
        report.timestamps.resize(SHM_FRAMES_MAX);
        const int held = shm_reader_get_video_timestamps(reader, report.timestamps.data(), SHM_FRAMES_MAX);
        report.timestamps.resize(static_cast<size_t>(held > 0 ? held : 0));
    }
    for (int stream = 0; report.format.has_audio && stream < report.info.audio_streams; ++stream) {
        shm_audio_status_t status{};
        shm_reader_get_audio_status(reader, stream, &status);
        report.audio.push_back(status);
    }
    return report;
}

std::optional<Ratio> rateOf(const shm_store_info_t &info)
{
    if (info.rate_numerator && info.rate_denominator && info.rate_numerator <= INT32_MAX &&
        info.rate_denominator <= INT32_MAX)
        return Ratio{static_cast<int>(info.rate_numerator), static_cast<int>(info.rate_denominator)};
    if (info.frame_interval_us > 0)
        return Ratio{1000000, static_cast<int>(std::min<int64_t>(info.frame_interval_us, INT32_MAX))};
    return std::nullopt;
}

ReaderPtr waitForStore(const std::string &name, int64_t waitUs, StopToken &stopToken)
{
    constexpr int64_t lookAgainUs = 20000;
    const int64_t startedUs = monotonicUs();
    for (;;) {
        shm_error_t error{};
        ReaderPtr reader = tryOpenStore(name, error);
        if (reader)
            return reader;
        const ExitCode code = exitCodeForReader(error.code);
        if (code != ExitNoStore)
            throw Failure(code, error.message);
        const int64_t nowUs = monotonicUs();
        const int64_t leftUs = waitUs - (nowUs - startedUs);
        if (leftUs <= 0 || !stopToken.waitUntil(nowUs + std::min(lookAgainUs, leftUs)))
            return nullptr;
    }
}

double framesPerSecond(const shm_store_info_t &info)
{
    if (info.rate_numerator && info.rate_denominator)
        return static_cast<double>(info.rate_numerator) / info.rate_denominator;
    return info.frame_interval_us > 0 ? 1e6 / static_cast<double>(info.frame_interval_us) : 0;
}

} // namespace zevshm
