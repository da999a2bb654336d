#include "pending_handshakes.h"

#include "process_id.h"

#include <map>
#include <mutex>

namespace shm {
namespace {

// One a name; names of stores that come and go must not pile up.
constexpr size_t kKept = 64;

struct Kept
{
    std::mutex mutex;
    uint64_t owner = processId();
    std::map<std::string, std::unique_ptr<Handshake>> byPath;
};

Kept &kept()
{
    // Never destroyed: a thread may still open a store while the program ends.
    static auto *const instance = new Kept;
    return *instance;
}

} // namespace

std::unique_ptr<Handshake> takePendingHandshake(const std::string &directory, const std::string &name,
                                                const SocketFile &file)
{
    Kept &all = kept();
    const std::lock_guard<std::mutex> guard(all.mutex);
    if (all.owner != processId()) {
        // A forked child has copies of its parent's connections; the answers on them are the parent's.
        all.owner = processId();
        all.byPath.clear();
    }
    const auto found = all.byPath.find(directory + "/" + name);
    if (found == all.byPath.end())
        return nullptr;
    std::unique_ptr<Handshake> handshake = std::move(found->second);
    all.byPath.erase(found);
    return handshake->file() == file ? std::move(handshake) : nullptr;
}

void keepPendingHandshake(const std::string &directory, const std::string &name,
                          std::unique_ptr<Handshake> handshake)
{
    Kept &all = kept();
    const std::lock_guard<std::mutex> guard(all.mutex);
    if (all.owner != processId()) {
        all.owner = processId();
        all.byPath.clear();
    }
    if (all.byPath.size() >= kKept)
        all.byPath.erase(all.byPath.begin());
    all.byPath[directory + "/" + name] = std::move(handshake);
}

} // namespace shm
