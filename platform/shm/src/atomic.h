// Two seams for tests of the protocol itself; in the library they are std::atomic and nothing.
//
// Atomic<T> is what threads or processes share without a lock. A test replaces it by a class that lets a
// scheduler in before every access. SHM_STEP(name) marks a point at which a process may be killed with
// something half done.
#ifndef SHM_ATOMIC_H
#define SHM_ATOMIC_H

#ifdef SHM_TEST_ATOMIC
#include SHM_TEST_ATOMIC
#else

#include <atomic>

namespace shm {

template <class T>
using Atomic = std::atomic<T>;

} // namespace shm

#define SHM_STEP(name) static_cast<void>(0)

#endif

#endif
