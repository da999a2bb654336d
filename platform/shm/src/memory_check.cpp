#include "memory_check.h"

#include "error.h"

#include <dirent.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

namespace shm {
namespace {

std::string readText(const std::string &path)
{
    std::string text;
    std::FILE *file = std::fopen(path.c_str(), "re");
    if (file == nullptr)
        return text;
    char buffer[4096];
    size_t n = 0;
    while ((n = std::fread(buffer, 1, sizeof buffer, file)) > 0 && text.size() < 65536)
        text.append(buffer, n);
    std::fclose(file);
    return text;
}

// The number after `key` in "key: 123 kB" or "key 123" lines; false when it is not there.
bool number(const std::string &text, const char *key, uint64_t *value)
{
    size_t at = 0;
    const size_t length = std::strlen(key);
    while (at < text.size()) {
        if (text.compare(at, length, key) == 0) {
            unsigned long long found = 0;
            if (std::sscanf(text.c_str() + at + length, ": %llu", &found) == 1 ||
                std::sscanf(text.c_str() + at + length, " %llu", &found) == 1) {
                *value = found;
                return true;
            }
        }
        at = text.find('\n', at);
        if (at == std::string::npos)
            return false;
        ++at;
    }
    return false;
}

uint64_t saturatingSub(uint64_t a, uint64_t b)
{
    return a > b ? a - b : 0;
}

// A limit file: a number of bytes, or "max", or a number so large that it means none.
uint64_t limitOf(const std::string &path)
{
    const std::string text = readText(path);
    unsigned long long value = 0;
    if (std::sscanf(text.c_str(), "%llu", &value) != 1 || value > (uint64_t{1} << 60))
        return kNoLimit;
    return value;
}

// What one control group leaves. File caches that can be given back do not count as used.
uint64_t groupLeaves(const std::string &folder, const char *limitFile, const char *usageFile)
{
    const uint64_t limit = limitOf(folder + "/" + limitFile);
    if (limit == kNoLimit)
        return kNoLimit;
    const uint64_t usage = limitOf(folder + "/" + usageFile);
    uint64_t cache = 0;
    number(readText(folder + "/memory.stat"), "inactive_file", &cache);
    return saturatingSub(limit, saturatingSub(usage == kNoLimit ? 0 : usage, cache));
}

// The group and all above it limit.
uint64_t groupTreeLeaves(const std::string &mount, std::string group, const char *limitFile,
                         const char *usageFile)
{
    uint64_t least = kNoLimit;
    while (true) {
        least = std::min(least, groupLeaves(mount + group, limitFile, usageFile));
        const size_t slash = group.rfind('/');
        if (slash == std::string::npos || group.size() <= 1)
            return least;
        group.erase(slash == 0 ? 1 : slash);
        if (group == "/")
            group.clear();
    }
}

uint64_t groupAvailable(const std::string &root)
{
    // Lines "hierarchy:controllers:path"; the unified hierarchy is number 0 without controllers.
    const std::string text = readText(root + "proc/self/cgroup");
    uint64_t least = kNoLimit;
    size_t at = 0;
    while (at < text.size()) {
        const size_t end = std::min(text.find('\n', at), text.size());
        const std::string line = text.substr(at, end - at);
        at = end + 1;
        const size_t first = line.find(':');
        const size_t second = first == std::string::npos ? first : line.find(':', first + 1);
        if (second == std::string::npos)
            continue;
        const std::string controllers = "," + line.substr(first + 1, second - first - 1) + ",";
        const std::string group = line.substr(second + 1);
        if (controllers == ",,") {
            least = std::min(least,
                             groupTreeLeaves(root + "sys/fs/cgroup", group, "memory.max", "memory.current"));
        } else if (controllers.find(",memory,") != std::string::npos) {
            least = std::min(least, groupTreeLeaves(root + "sys/fs/cgroup/memory", group,
                                                    "memory.limit_in_bytes", "memory.usage_in_bytes"));
        }
    }
    return least;
}

uint64_t resourceLimit(int which)
{
    rlimit limit = {};
    if (getrlimit(static_cast<__rlimit_resource>(which), &limit) != 0 || limit.rlim_cur == RLIM_INFINITY)
        return kNoLimit;
    return limit.rlim_cur;
}

uint64_t openDescriptors(const std::string &root)
{
    DIR *stream = opendir((root + "proc/self/fd").c_str());
    if (stream == nullptr)
        return 0;
    uint64_t count = 0;
    while (readdir(stream) != nullptr)
        ++count;
    closedir(stream);
    return saturatingSub(count, 3); // ".", ".." and the one just closed
}

} // namespace

MemoryFacts readMemoryFacts(const char *root)
{
    const std::string base = root;
    MemoryFacts facts;
    const std::string memory = readText(base + "proc/meminfo");
    uint64_t value = 0;
    if (number(memory, "MemAvailable", &value))
        facts.systemAvailable = value * 1024;
    uint64_t pages = 0;
    uint64_t reserved = 0;
    if (number(memory, "Hugepagesize", &value) && number(memory, "HugePages_Free", &pages)) {
        number(memory, "HugePages_Rsvd", &reserved);
        facts.hugeAvailable = saturatingSub(pages, reserved) * value * 1024;
    }
    facts.groupAvailable = groupAvailable(base);
    const uint64_t addresses = resourceLimit(RLIMIT_AS);
    if (addresses != kNoLimit) {
        uint64_t size = 0;
        if (number(readText(base + "proc/self/status"), "VmSize", &size))
            facts.addressAvailable = saturatingSub(addresses, size * 1024);
    }
    facts.fileLimit = resourceLimit(RLIMIT_FSIZE);
    facts.descriptorsAvailable = descriptorsLeft(root);
    return facts;
}

uint64_t descriptorsLeft(const char *root)
{
    const uint64_t limit = resourceLimit(RLIMIT_NOFILE);
    return limit == kNoLimit ? kNoLimit : saturatingSub(limit, openDescriptors(root));
}

int checkMemory(const MemoryNeed &need, const MemoryFacts &facts, const char *store, shm_error_t *error)
{
    const auto ull = [](uint64_t value) { return static_cast<unsigned long long>(value); };
    if (need.hugeBytes > facts.hugeAvailable) {
        return fail(
            error, ENOMEM,
            "store \"%s\" needs %llu bytes in huge pages and %llu are available: raise vm.nr_hugepages or "
            "publish without them",
            store, ull(need.hugeBytes), ull(facts.hugeAvailable));
    }
    const struct
    {
        uint64_t available;
        const char *where;
    } limits[] = {{facts.systemAvailable, "on this machine"},
                  {facts.groupAvailable, "in this control group"},
                  {facts.addressAvailable, "under this process's address space limit"}};
    for (const auto &limit : limits) {
        if (need.bytes > limit.available) {
            return fail(
                error, ENOMEM,
                "store \"%s\" needs %llu bytes and %llu are available %s: keep fewer or smaller frames",
                store, ull(need.bytes), ull(limit.available), limit.where);
        }
    }
    if (need.largestObject > facts.fileLimit) {
        return fail(
            error, EFBIG,
            "store \"%s\" needs memory objects of %llu bytes and %llu are allowed by this process's file "
            "size limit: raise it (ulimit -f)",
            store, ull(need.largestObject), ull(facts.fileLimit));
    }
    if (need.descriptors > facts.descriptorsAvailable) {
        return fail(
            error, EMFILE,
            "store \"%s\" needs %llu descriptors and %llu are available: raise the limit (ulimit -n) or keep "
            "fewer frames",
            store, ull(need.descriptors), ull(facts.descriptorsAvailable));
    }
    return 0;
}

} // namespace shm
