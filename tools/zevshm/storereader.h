// A store that is looked at.
#ifndef ZEVSHM_STOREREADER_H
#define ZEVSHM_STOREREADER_H

#include "failure.h"
#include "hostclock.h"
#include "options.h"

#include <shm/shm_reader.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace zevshm {

struct ReaderClose
{
    void operator()(shm_reader_t *reader) const { shm_reader_close(reader); }
};
using ReaderPtr = std::unique_ptr<shm_reader_t, ReaderClose>;

// Which exit code an error of the store's library means.
ExitCode exitCodeForReader(int negativeErrno);

// True when the directory that ZEV_SHM_DIR names is not there. No directory at all, with none named, is what
// a machine looks like on which nobody has published yet.
bool isChosenDirectoryMissing();

// Connects to a store; Failure when that is not possible.
ReaderPtr openStore(const std::string &name);

// The writer counts its readers every 100 ms: wait this long after opening, and the count has this reader in
// it.
constexpr int readerCountMs = 150;

// Everything that `list` and `info` show, read once; this reader is not counted. The exposed values belong
// together as well as a live store allows.
struct StoreReport
{
    std::string name;
    shm_reader_format_t format{};
    shm_store_info_t info{};
    std::vector<long long> timestamps;
    std::vector<shm_audio_status_t> audio; // of every stream
};
StoreReport readReport(shm_reader_t *reader, const std::string &name);

// Frames a second, declared or estimated; 0 when not known.
double framesPerSecond(const shm_store_info_t &info);

// Of the same as a fraction, for encoders.
std::optional<Ratio> rateOf(const shm_store_info_t &info);

// Connects, but does not fail: an empty pointer and why.
ReaderPtr tryOpenStore(const std::string &name, shm_error_t &error, int timeoutMs = 1000);

// Waits for a store that is not there. Null when stopped, or when it has not come in time; Failure when it is
// there and may not be read.
ReaderPtr waitForStore(const std::string &name, int64_t waitUs, StopToken &stopToken);

struct StoreEntry
{
    std::string name;
    std::string directory;
};
// The stores that can be seen from here; Failure (ExitDirectory) when nothing can be seen.
std::vector<StoreEntry> listStores();
// "dead", "silent" or "no access": of a store that could not be opened.
std::string stateOf(int negativeErrno);

} // namespace zevshm

#endif
