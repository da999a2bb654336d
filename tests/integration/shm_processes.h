// What the programs share that stop and kill processes of a store: memory that all of them see, roles in
// processes of their own, waiting by condition.
#ifndef SHM_PROCESSES_H
#define SHM_PROCESSES_H

#include "../waiting.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <new>

namespace shm_processes {

// Microseconds of the monotonic clock.
inline int64_t nowUs()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

inline void pauseUs(long us)
{
    const timespec time = {us / 1000000, us % 1000000 * 1000};
    nanosleep(&time, nullptr);
}

// An object that this process and the children that it forks from now on have in common, until they end.
template <class T>
T *sharedWithChildren()
{
    void *memory = mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        std::perror("mmap");
        std::exit(2);
    }
    return new (memory) T();
}

// A child that does `role` and ends, at the latest with this process.
template <class Role>
pid_t spawn(Role &&role)
{
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        role();
        _exit(0);
    }
    if (child < 0) {
        std::perror("fork");
        std::exit(2);
    }
    return child;
}

// If there is one; -1 afterwards.
inline void killAndReap(pid_t *child)
{
    if (*child > 0) {
        kill(*child, SIGKILL);
        waitpid(*child, nullptr, 0);
    }
    *child = -1;
}

} // namespace shm_processes

#endif
