#include "interleaver.h"

#include <algorithm>

namespace {

constexpr size_t kStackBytes = 256 * 1024;
constexpr size_t kBuffer = 6; // stores that may wait

} // namespace

Interleaver::Interleaver(uint64_t seed) : m_random(seed)
{
    steps::memory = this;
}

Interleaver::~Interleaver()
{
    steps::memory = nullptr;
}

int Interleaver::add(std::function<void()> body)
{
    auto thread = std::make_unique<Thread>();
    thread->stack.resize(kStackBytes);
    thread->body = std::move(body);
    getcontext(&thread->context);
    thread->context.uc_stack.ss_sp = thread->stack.data();
    thread->context.uc_stack.ss_size = thread->stack.size();
    thread->context.uc_link = &m_scheduler;
    const auto address = reinterpret_cast<uintptr_t>(this);
    makecontext(&thread->context, reinterpret_cast<void (*)()>(&Interleaver::enter), 2,
                static_cast<unsigned>(address >> 32), static_cast<unsigned>(address));
    m_threads.push_back(std::move(thread));
    return static_cast<int>(m_threads.size()) - 1;
}

void Interleaver::enter(unsigned high, unsigned low)
{
    auto *self = reinterpret_cast<Interleaver *>(static_cast<uintptr_t>(high) << 32 | low);
    Thread &thread = *self->m_threads[static_cast<size_t>(self->m_current)];
    thread.body();
    thread.ended = true;
}

void Interleaver::resume(int thread)
{
    m_current = thread;
    swapcontext(&m_scheduler, &m_threads[static_cast<size_t>(thread)]->context);
    m_current = -1;
}

void Interleaver::pause()
{
    if (m_current >= 0)
        swapcontext(&m_threads[static_cast<size_t>(m_current)]->context, &m_scheduler);
}

void Interleaver::run()
{
    // Few switches find what many hide, and the reverse: every run has its own measure, also for stores that
    // arrive.
    const uint64_t stay = 1 + m_random() % 16;
    const uint64_t linger = 1 + m_random() % 32;
    int last = -1;
    std::vector<int> alive;
    while (m_failure.empty()) {
        alive.clear();
        for (size_t i = 0; i < m_threads.size(); ++i) {
            if (!m_threads[i]->ended)
                alive.push_back(static_cast<int>(i));
        }
        if (alive.empty())
            break;
        if (m_random() % linger == 0)
            arriveAny();
        const bool lastAlive = last >= 0 && !m_threads[static_cast<size_t>(last)]->ended;
        if (!lastAlive || m_random() % stay == 0)
            last = alive[m_random() % alive.size()];
        resume(last);
    }
    for (const auto &thread : m_threads) {
        while (!thread->buffer.empty())
            arrive(*thread, 0);
    }
}

void Interleaver::kill(int thread)
{
    m_threads[static_cast<size_t>(thread)]->ended = true;
}

bool Interleaver::ended(int thread) const
{
    return m_threads[static_cast<size_t>(thread)]->ended;
}

void Interleaver::fail(const std::string &why)
{
    if (m_failure.empty())
        m_failure = why;
    pause(); // for good
}

bool Interleaver::mayArrive(const Thread &thread, size_t entry) const
{
    if (entry == 0)
        return true;
    const Waiting &waiting = thread.buffer[entry];
    return !waiting.release &&
           std::none_of(thread.buffer.begin(), thread.buffer.begin() + static_cast<std::ptrdiff_t>(entry),
                        [&](const Waiting &other) { return other.cell.address == waiting.cell.address; });
}

void Interleaver::arrive(Thread &thread, size_t entry)
{
    const Waiting waiting = thread.buffer[entry];
    thread.buffer.erase(thread.buffer.begin() + static_cast<std::ptrdiff_t>(entry));
    waiting.cell.write(const_cast<void *>(waiting.cell.address), waiting.value);
}

void Interleaver::arriveAny()
{
    Thread &thread = *m_threads[m_random() % m_threads.size()];
    if (thread.buffer.empty())
        return;
    const size_t entry = m_random() % thread.buffer.size();
    if (mayArrive(thread, entry))
        arrive(thread, entry);
}

uint64_t Interleaver::load(const steps::Cell &cell)
{
    if (m_current < 0)
        return cell.read(cell.address);
    pause();
    ++m_accesses;
    if (m_faults.beforeLoad)
        m_faults.beforeLoad(cell.address, m_current);
    const auto &buffer = m_threads[static_cast<size_t>(m_current)]->buffer;
    for (auto it = buffer.rbegin(); it != buffer.rend(); ++it) {
        if (it->cell.address == cell.address)
            return it->value;
    }
    return cell.read(cell.address);
}

void Interleaver::store(const steps::Cell &cell, uint64_t value, std::memory_order order)
{
    if (m_current < 0) {
        cell.write(const_cast<void *>(cell.address), value);
        return;
    }
    pause();
    ++m_accesses;
    if (m_faults.weaken)
        order = m_faults.weaken(cell.address, value, order);
    Thread &thread = *m_threads[static_cast<size_t>(m_current)];
    if (order == std::memory_order_seq_cst) {
        while (!thread.buffer.empty())
            arrive(thread, 0);
        cell.write(const_cast<void *>(cell.address), value);
        return;
    }
    if (thread.buffer.size() == kBuffer)
        arrive(thread, 0);
    thread.buffer.push_back({cell, value, order == std::memory_order_release});
}

void Interleaver::drain()
{
    if (m_current < 0)
        return;
    pause();
    ++m_accesses;
    Thread &thread = *m_threads[static_cast<size_t>(m_current)];
    while (!thread.buffer.empty())
        arrive(thread, 0);
}
