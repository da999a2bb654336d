// Runs several threads of control in one, one access of shared memory at a time, in an order that a seed
// decides.
//
// Every access of an shm::Atomic by a thread pauses it; then the seed says which thread goes on, or which
// waiting store arrives in memory. Stores wait as tests/model/memory.pml has it: those to one cell arrive in
// order, relaxed ones may overtake others, a release store arrives after all before it, a sequentially
// consistent one at once and after all before it. Loads are done in order: what only a missing acquire lets
// happen is not found.
//
// Threads: bound to one. A thread of control may be killed between any two accesses; what it stored still
// arrives.
#ifndef SHM_INTERLEAVER_H
#define SHM_INTERLEAVER_H

#include "steps.h"

#include <ucontext.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

class Interleaver : public steps::Memory
{
public:
    // A store may be made weaker than it was asked for, a load be answered with something else: that is how
    // faults are put in without touching the code.
    struct Faults
    {
        std::function<std::memory_order(const void *address, uint64_t value, std::memory_order)> weaken;
        std::function<void(const void *address, int thread)> beforeLoad;
        bool splitExchange = false;
    };

    explicit Interleaver(uint64_t seed);
    ~Interleaver() override;

    void setFaults(Faults faults) { m_faults = std::move(faults); }
    // Returns its number.
    int add(std::function<void()> body);
    // Until all have ended or were killed, or fail() was called.
    void run();

    // Inside a thread of control.
    int current() const { return m_current; }
    void pause();
    template <class Condition>
    void waitUntil(Condition &&condition)
    {
        while (!condition())
            pause();
    }
    void kill(int thread);
    bool ended(int thread) const;
    uint64_t random() { return m_random(); }
    void fail(const std::string &why);

    const std::string &failure() const { return m_failure; }
    uint64_t accesses() const { return m_accesses; }

    uint64_t load(const steps::Cell &cell) override;
    void store(const steps::Cell &cell, uint64_t value, std::memory_order order) override;
    void drain() override;
    bool splitExchange() override { return m_current >= 0 && m_faults.splitExchange; }

private:
    struct Waiting
    {
        steps::Cell cell;
        uint64_t value;
        bool release;
    };
    struct Thread
    {
        ucontext_t context{};
        std::vector<uint8_t> stack;
        std::function<void()> body;
        std::deque<Waiting> buffer;
        bool ended = false;
    };

    static void enter(unsigned high, unsigned low);
    void resume(int thread);
    void arrive(Thread &thread, size_t entry);
    bool mayArrive(const Thread &thread, size_t entry) const;
    void arriveAny();

    std::mt19937_64 m_random;
    Faults m_faults;
    std::vector<std::unique_ptr<Thread>> m_threads;
    ucontext_t m_scheduler{};
    int m_current = -1;
    uint64_t m_accesses = 0;
    std::string m_failure;
};

#endif
