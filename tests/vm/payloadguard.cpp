#include "payloadguard.h"

#include <sys/mman.h>

#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdio>

namespace {

constexpr uintptr_t pageSize = 4096;
constexpr int mostMappings = 256;

struct Mapping
{
    uintptr_t begin, end;
    int protection; // as it was
};

// Written by guard() alone, read by the signal handler.
Mapping mappings[mostMappings];
std::atomic<int> mappingCount{0};
std::atomic<int> touched{0};
struct sigaction previous;

const Mapping *mappingOf(uintptr_t address)
{
    for (int i = 0; i < mappingCount.load(); ++i) {
        if (address >= mappings[i].begin && address < mappings[i].end)
            return &mappings[i];
    }
    return nullptr;
}

void onFault(int, siginfo_t *info, void *)
{
    const auto address = reinterpret_cast<uintptr_t>(info->si_addr);
    const Mapping *mapping = mappingOf(address);
    if (!mapping) {
        sigaction(SIGSEGV, &previous, nullptr); // somebody else's: it comes again, and ends the process
        return;
    }
    ++touched;
    mprotect(reinterpret_cast<void *>(address & ~(pageSize - 1)), pageSize, mapping->protection);
}

bool findMapping(uintptr_t address, Mapping *found)
{
    FILE *maps = std::fopen("/proc/self/maps", "re");
    bool isFound = false;
    char line[512];
    while (maps && !isFound && std::fgets(line, sizeof line, maps)) {
        unsigned long begin = 0, end = 0;
        char rights[5] = {};
        if (std::sscanf(line, "%lx-%lx %4s", &begin, &end, rights) != 3 || address < begin || address >= end)
            continue;
        found->begin = begin;
        found->end = end;
        found->protection =
            (rights[0] == 'r' ? PROT_READ : PROT_NONE) | (rights[1] == 'w' ? PROT_WRITE : PROT_NONE);
        isFound = true;
    }
    if (maps)
        std::fclose(maps);
    return isFound;
}

} // namespace

PayloadGuard::PayloadGuard()
{
    mappingCount = 0;
    touched = 0;
    struct sigaction action = {};
    action.sa_sigaction = onFault;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGSEGV, &action, &previous);
}

PayloadGuard::~PayloadGuard()
{
    // Mappings may be gone by now, and others in their place: only what is still inaccessible is put back.
    for (int i = 0; i < mappingCount.load(); ++i) {
        Mapping now = {};
        if (findMapping(mappings[i].begin, &now) && now.protection == PROT_NONE && now.end <= mappings[i].end)
            mprotect(reinterpret_cast<void *>(now.begin), now.end - now.begin, mappings[i].protection);
    }
    mappingCount = 0;
    sigaction(SIGSEGV, &previous, nullptr);
}

bool PayloadGuard::guard(const void *address)
{
    const auto where = reinterpret_cast<uintptr_t>(address);
    if (mappingOf(where))
        return true;
    Mapping found = {};
    const int index = mappingCount.load();
    if (index == mostMappings || !findMapping(where, &found) || found.protection == PROT_NONE)
        return false;
    mappings[index] = found;
    mappingCount = index + 1;
    return mprotect(reinterpret_cast<void *>(found.begin), found.end - found.begin, PROT_NONE) == 0;
}

int PayloadGuard::touchedPages() const
{
    return touched.load();
}

std::size_t PayloadGuard::guardedBytes() const
{
    std::size_t bytes = 0;
    for (int i = 0; i < mappingCount.load(); ++i)
        bytes += mappings[i].end - mappings[i].begin;
    return bytes;
}
