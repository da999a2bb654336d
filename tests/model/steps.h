// The library's atomics with a way in for tests, and its named steps (platform/shm/src/atomic.h).
//
// Every access of an Atomic<T> asks `accessHook` first and goes through `bufferHook` when there are any;
// without them it is the access itself. Every SHM_STEP calls `stepHook`. Set them before the threads start
// that use the library.
#ifndef SHM_STEPS_H
#define SHM_STEPS_H

#include <atomic>
#include <cstdint>

namespace steps {

// What a store buffer has to know of a cell to carry a store to it later.
struct Cell
{
    const void *address;
    void (*write)(void *address, uint64_t value);
    uint64_t (*read)(const void *address);
};

// A processor's view of memory.
class Memory
{
public:
    virtual ~Memory() = default;
    virtual uint64_t load(const Cell &cell) = 0;
    virtual void store(const Cell &cell, uint64_t value, std::memory_order order) = 0;
    // Before a read-modify-write: what waits has to arrive.
    virtual void drain() = 0;
    // Between the read and the write of a compare-exchange; true to do it as two accesses, which is a fault.
    virtual bool splitExchange() = 0;
};

extern Memory *memory;                     // null: the machine's own
extern void (*stepHook)(const char *name); // null: nothing

inline void step(const char *name)
{
    if (stepHook != nullptr)
        stepHook(name);
}

} // namespace steps

#define SHM_STEP(name) steps::step(name)

namespace shm {

// Has the size and layout of std::atomic<T>, and those of its operations that the library uses.
template <class T>
class Atomic
{
public:
    Atomic() = default;
    constexpr Atomic(T value) : m_value(value) {}
    Atomic(const Atomic &) = delete;
    Atomic &operator=(const Atomic &) = delete;

    T load(std::memory_order order = std::memory_order_seq_cst) const
    {
        if (steps::memory == nullptr)
            return m_value.load(order);
        return static_cast<T>(steps::memory->load(cell()));
    }
    void store(T value, std::memory_order order = std::memory_order_seq_cst)
    {
        if (steps::memory == nullptr)
            m_value.store(value, order);
        else
            steps::memory->store(cell(), static_cast<uint64_t>(value), order);
    }
    T exchange(T value, std::memory_order order = std::memory_order_seq_cst)
    {
        drain();
        return m_value.exchange(value, order);
    }
    T fetch_add(T value, std::memory_order order = std::memory_order_seq_cst)
    {
        drain();
        return m_value.fetch_add(value, order);
    }
    bool compare_exchange_strong(T &expected, T desired, std::memory_order success)
    {
        if (steps::memory != nullptr && steps::memory->splitExchange()) {
            const T found = load();
            if (found == expected) {
                store(desired);
                return true;
            }
            expected = found;
            return false;
        }
        drain();
        return m_value.compare_exchange_strong(expected, desired, success);
    }
    // The order on failure follows from the one on success.
    bool compare_exchange_strong(T &expected, T desired, std::memory_order success, std::memory_order)
    {
        return compare_exchange_strong(expected, desired, success);
    }

private:
    static void drain()
    {
        if (steps::memory != nullptr)
            steps::memory->drain();
    }
    static void write(void *address, uint64_t value)
    {
        static_cast<Atomic *>(address)->m_value.store(static_cast<T>(value), std::memory_order_seq_cst);
    }
    static uint64_t read(const void *address)
    {
        return static_cast<uint64_t>(static_cast<const Atomic *>(address)->m_value.load());
    }
    steps::Cell cell() const { return {this, &write, &read}; }

    std::atomic<T> m_value;
};

} // namespace shm

#endif
