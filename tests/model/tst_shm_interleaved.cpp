// The library's own publisher, reader and list of readers, interleaved access by access (interleaver.h).
//
// A run has a publisher, a reader that locks with two threads that give back for it, a second reader that
// joins, takes frames by the history and is killed somewhere, and the service thread's part of listing and
// unmapping. Some thousand runs without a fault have to find nothing; with each fault put in, some run has to
// find it. Seeds are fixed, so a run that finds something is found again: --seed=N --runs=1.
#include "../unit/shm_connection.h"
#include "interleaver.h"
#include "publisher.h"
#include "reader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <optional>

using namespace shm;

namespace {

uint64_t firstSeed = 1;
uint64_t runs = 3000;

constexpr uint32_t kSlots = 3; // a history of one and two spare
constexpr uint64_t kTorn = UINT64_MAX;

enum class Fault {
    None,
    W1Release,     // gen[s] = 0 may wait in the store buffer
    R1Release,     // so may the lock word
    W4Relaxed,     // gen[s] = g' may overtake the pixels
    R2Unseen,      // the reader takes gen[s] to be what it was
    PlainExchange, // the compare-exchange of an unlock is a load and a store
    HeldRelaxed,   // the entry of a reader's own list is free before the word in its page
    ListedLate,    // the reader has its page before it is listed
    NoGrace        // the page of a reader that has gone is unmapped at once
};

class FixedClock final : public ClockSource
{
public:
    ClockReading read() const override { return {1000000, 1000000}; }
};

struct Totals
{
    uint64_t locks = 0;
    uint64_t byHistory = 0;
    uint64_t refused = 0; // the frame had gone when the lock came
    uint64_t dropped = 0;
    uint64_t published = 0;
    uint64_t killed = 0;
    uint64_t unmapped = 0;
    uint64_t accesses = 0;
};

// The memory of a store and of two readers, used again by every run.
class Scene
{
public:
    Scene()
    {
        shm_writer_params_t params{};
        params.size = sizeof params;
        params.name = "interleaved";
        params.width = 64;
        params.height = 16;
        params.pixel_format = SHM_PIXEL_FORMAT_NV12;
        params.history_frames = 1;
        params.spare_frames = 2;
        shm_error_t error{};
        if (makePolicy(params, &store.policy, &error) != 0 || store.create(&error) != 0) {
            std::fprintf(stderr, "%s\n", error.message);
            std::abort();
        }
        for (SharedMemory &page : pages)
            createSharedMemory(&page, "shm-control", sizeof(ControlPage), kMemfd, sealsForShared());
    }

    ControlPage *page(size_t reader) { return reinterpret_cast<ControlPage *>(pages[reader].mapping.data()); }

    StoreConnection connect(size_t reader) { return testing_shm::connectTo(store, pages[reader]); }

    void reset()
    {
        for (uint32_t s = 0; s < store.policy.slotCapacity; ++s)
            store.index.generations[s].value.store(0);
        for (uint32_t i = 0; i < store.index.ring; ++i)
            store.index.history[i].generation.store(0);
        store.index.head->newest.value.store(0);
        store.index.head->first.value.store(1);
        store.index.head->dropped.store(0);
        for (uint32_t s = 0; s < kSlots; ++s)
            store.slots[s].owner.store(SlotOwner::Ready);
        for (size_t i = 0; i < 2; ++i) {
            for (Atomic<uint64_t> &word : page(i)->locks)
                word.store(0);
        }
    }

    Store store;
    SharedMemory pages[2];
};

// A run that ends in a failure leaves it half-way through something: the next one gets a fresh one.
std::unique_ptr<Scene> shared;
Scene &scene()
{
    if (!shared)
        shared = std::make_unique<Scene>();
    return *shared;
}

Atomic<uint64_t> &pixel(uint8_t *plane)
{
    return *reinterpret_cast<Atomic<uint64_t> *>(plane);
}

class Run
{
public:
    Run(uint64_t seed, Fault fault, Totals *totals) : m_fault(fault), m_threads(seed), m_totals(totals)
    {
        m_scene.reset();
        for (size_t i = 0; i < 2; ++i) {
            StoreConnection connection = m_scene.connect(i);
            m_words[i] = connection.control.data() + offsetof(ControlPage, locks);
            m_readers[i].emplace(std::move(connection), i == 0 ? 2u : 1u, 0);
        }
        m_threads.setFaults({[this](const void *address, uint64_t value, std::memory_order order) {
                                 return weaken(address, value, order);
                             },
                             [this](const void *address, int thread) { checkMapped(address, thread); },
                             fault == Fault::PlainExchange});
    }

    std::string go()
    {
        const int listed = m_scene.store.readers.add(m_scene.page(0), 2);
        m_publisher = m_threads.add([this] { publish(); });
        m_threads.add([this] { lockAndHandOver(); });
        for (int i = 0; i < 2; ++i)
            m_threads.add([this] { giveBack(); });
        m_second = m_threads.add([this] { readByHistory(); });
        m_threads.add([this] { serveSecond(); });
        m_threads.run();
        m_scene.store.readers.remove(listed);
        if (m_secondListed >= 0)
            m_scene.store.readers.remove(m_secondListed);
        if (m_threads.failure().empty()) {
            for (uint32_t i = 0; i < 2; ++i) {
                if (m_scene.page(0)->locks[i].load() != 0)
                    return "a lock was given back and its word is not free";
            }
            if (m_readers[0]->freeWord() != 0)
                return "a lock was given back and its entry is not free";
        }
        m_totals->accesses += m_threads.accesses();
        return m_threads.failure();
    }

private:
    bool isGeneration(const void *address) const
    {
        const auto *first = reinterpret_cast<const uint8_t *>(m_scene.store.index.generations);
        const auto *at = static_cast<const uint8_t *>(address);
        return at >= first && at < first + kSlots * sizeof(SlotGeneration);
    }
    bool isLockWord(const void *address) const
    {
        const auto *at = static_cast<const uint8_t *>(address);
        return std::any_of(m_words, m_words + 2,
                           [at](const uint8_t *words) { return at >= words && at < words + 8 * kLocksMax; });
    }

    std::memory_order weaken(const void *address, uint64_t value, std::memory_order order) const
    {
        switch (m_fault) {
        case Fault::W1Release:
            return isGeneration(address) && value == 0 ? std::memory_order_release : order;
        case Fault::W4Relaxed:
            return isGeneration(address) && value != 0 ? std::memory_order_relaxed : order;
        case Fault::R1Release:
            return isLockWord(address) && value != 0 ? std::memory_order_release : order;
        case Fault::HeldRelaxed:
            return order == std::memory_order_release && m_threads.current() != m_publisher && value == 0 &&
                           !isLockWord(address)
                       ? std::memory_order_relaxed
                       : order;
        default:
            return order;
        }
    }

    void checkMapped(const void *address, int thread)
    {
        if (!m_unmapped || thread != m_publisher)
            return;
        const auto *page = reinterpret_cast<const uint8_t *>(m_scene.page(1));
        const auto *at = static_cast<const uint8_t *>(address);
        if (at >= page && at < page + kPage)
            m_threads.fail("the publisher looks at a page that is unmapped");
    }

    void publish()
    {
        Publisher publisher(m_scene.store, m_clock);
        for (int n = 0; n < 10; ++n) {
            shm_writer_frame_t frame;
            if (publisher.acquire(&frame, Publisher::Filler::Processor) != 0) {
                ++m_totals->dropped;
                continue;
            }
            const uint64_t generation = ++m_generation;
            for (int p = 0; p < 2; ++p)
                pixel(frame.planes[p]).store(kTorn, std::memory_order_relaxed);
            for (int p = 0; p < 2; ++p)
                pixel(frame.planes[p]).store(generation, std::memory_order_relaxed);
            publisher.publish(&frame, static_cast<int64_t>(generation) * 1000);
            ++m_totals->published;
        }
    }

    void verify(const shm_video_frame_t &frame)
    {
        for (int p = 0; p < 2; ++p) {
            if (pixel(frame.planes[p]).load(std::memory_order_relaxed) != frame.generation)
                m_threads.fail("a locked frame is torn");
        }
        if (frame.timestamp != static_cast<int64_t>(frame.generation) * 1000)
            m_threads.fail("a locked frame is described as another");
    }

    // Any slot that shows a generation: more than the history lets applications do.
    bool lockAny(shm_reader &reader, shm_video_frame_t *frame)
    {
        const uint32_t slot = static_cast<uint32_t>(m_threads.random() % kSlots);
        const uint64_t generation = reader.index().generations[slot].value.load(std::memory_order_relaxed);
        const uint32_t word = reader.freeWord();
        if (generation == 0 || word == kLocksMax)
            return false;
        auto attempt = reader.tryLock(generation, slot, word, frame);
        if (attempt != shm_reader::Attempt::Locked) {
            ++m_totals->refused;
            if (m_fault != Fault::R2Unseen)
                return false;
            // As if R2 had been answered before: the word is there, the frame is taken to be.
            *frame = shm_video_frame_t{};
            frame->generation = generation;
            frame->timestamp = static_cast<int64_t>(generation) * 1000;
            for (uint32_t p = 0; p < 2; ++p) {
                frame->planes[p] = m_scene.store.slots[slot].memory.mapping.data() +
                                   m_scene.store.policy.frame.planes[p].offset;
            }
            verify(*frame);
            return false;
        }
        ++m_totals->locks;
        return true;
    }

    void lockAndHandOver()
    {
        int locks = 0;
        while (locks < 12 && !m_threads.ended(m_publisher)) {
            shm_video_frame_t frame{};
            if (!lockAny(*m_readers[0], &frame)) {
                m_threads.pause();
                continue;
            }
            ++locks;
            verify(frame);
            // Whoever gets the frame sees everything that was stored before.
            m_threads.drain();
            m_handed.push_back(frame);
        }
        m_allHanded = true;
    }

    void giveBack()
    {
        while (true) {
            m_threads.waitUntil([this] { return !m_handed.empty() || m_allHanded; });
            if (m_handed.empty())
                return;
            shm_video_frame_t frame = m_handed.front();
            m_handed.pop_front();
            verify(frame);
            m_readers[0]->unlock(&frame);
            if (frame.planes[0] != nullptr)
                m_threads.fail("a lock that is given back is not found");
        }
    }

    void readByHistory()
    {
        m_threads.waitUntil([this] { return m_sent; });
        int locks = 0;
        while (locks < 6 && !m_threads.ended(m_publisher)) {
            shm_video_frame_t frame{};
            bool locked = false;
            if (m_threads.random() % 2 == 0) {
                locked = lockAny(*m_readers[1], &frame);
            } else {
                locked = m_readers[1]->lock(&frame, SHM_VIDEO_NEWEST) == 0;
                m_totals->byHistory += locked ? 1 : 0;
            }
            if (!locked) {
                m_threads.pause();
                continue;
            }
            ++locks;
            verify(frame);
            verify(frame);
            m_readers[1]->unlock(&frame);
        }
    }

    void serveSecond()
    {
        ReaderList &list = m_scene.store.readers;
        if (m_fault == Fault::ListedLate) {
            m_sent = true;
            // As long as the reader takes to map what it was sent.
            for (uint64_t i = m_threads.random() % 200; i > 0; --i)
                m_threads.pause();
            m_secondListed = list.add(m_scene.page(1), 1);
        } else {
            m_secondListed = list.add(m_scene.page(1), 1);
            m_sent = true;
        }
        const uint64_t patience = m_threads.random() % 1000;
        for (uint64_t i = 0; i < patience && !m_threads.ended(m_second); ++i)
            m_threads.pause();
        if (!m_threads.ended(m_second)) {
            m_threads.kill(m_second);
            ++m_totals->killed;
        }
        const uint64_t number = list.remove(m_secondListed);
        m_secondListed = -1;
        if (m_fault != Fault::NoGrace)
            m_threads.waitUntil([&] { return list.drained(number); });
        m_unmapped = true;
        ++m_totals->unmapped;
    }

    const Fault m_fault;
    Scene &m_scene = scene();
    FixedClock m_clock;
    const uint8_t *m_words[2] = {nullptr, nullptr};
    std::optional<shm_reader> m_readers[2];
    Interleaver m_threads;
    Totals *m_totals;
    int m_publisher = -1;
    int m_second = -1;
    uint64_t m_generation = 0;
    std::deque<shm_video_frame_t> m_handed;
    bool m_allHanded = false;
    bool m_sent = false;
    bool m_unmapped = false;
    int m_secondListed = -1;
};

// The first run that finds something: its seed and what; 0 when none does.
uint64_t search(Fault fault, std::string *what, Totals *totals)
{
    for (uint64_t seed = firstSeed; seed < firstSeed + runs; ++seed) {
        {
            Run run(seed, fault, totals);
            *what = run.go();
        }
        if (!what->empty()) {
            shared.reset();
            return seed;
        }
    }
    return 0;
}

TEST(ShmInterleaved, NoOrderOfAccessesTearsOrLeaks)
{
    Totals totals;
    std::string what;
    const uint64_t seed = search(Fault::None, &what, &totals);
    EXPECT_EQ(0u, seed) << what;
    std::printf(
        "%llu runs, %llu accesses: %llu published, %llu dropped; %llu locks (%llu by the history), %llu "
        "refused; %llu readers killed, %llu pages unmapped\n",
        (unsigned long long)runs, (unsigned long long)totals.accesses, (unsigned long long)totals.published,
        (unsigned long long)totals.dropped, (unsigned long long)totals.locks,
        (unsigned long long)totals.byHistory, (unsigned long long)totals.refused,
        (unsigned long long)totals.killed, (unsigned long long)totals.unmapped);
    // Where nothing happens, nothing goes wrong.
    EXPECT_GT(totals.locks, runs);
    EXPECT_GT(totals.byHistory, runs / 10);
    EXPECT_GT(totals.refused, runs / 100);
    EXPECT_GT(totals.dropped, 0u);
    EXPECT_GT(totals.killed, runs / 10);
    EXPECT_EQ(totals.unmapped, runs);
}

struct NamedFault
{
    const char *name;
    Fault fault;
    const char *finding;
};

class ShmFaults : public ::testing::TestWithParam<NamedFault>
{};

TEST_P(ShmFaults, AreFound)
{
    Totals totals;
    std::string what;
    const uint64_t seed = search(GetParam().fault, &what, &totals);
    ASSERT_NE(0u, seed) << "not in " << runs << " runs";
    std::printf("seed %llu: %s\n", (unsigned long long)seed, what.c_str());
    EXPECT_NE(std::string::npos, what.find(GetParam().finding)) << what;
}

std::string nameOf(const ::testing::TestParamInfo<NamedFault> &parameter)
{
    return parameter.param.name;
}

INSTANTIATE_TEST_SUITE_P(Every, ShmFaults,
                         ::testing::Values(NamedFault{"W1Release", Fault::W1Release, "torn"},
                                           NamedFault{"R1Release", Fault::R1Release, "torn"},
                                           NamedFault{"W4Relaxed", Fault::W4Relaxed, "a locked frame"},
                                           NamedFault{"R2Unseen", Fault::R2Unseen, "torn"},
                                           NamedFault{"PlainExchange", Fault::PlainExchange, "lock"},
                                           NamedFault{"HeldRelaxed", Fault::HeldRelaxed, "torn"},
                                           NamedFault{"ListedLate", Fault::ListedLate, "torn"},
                                           NamedFault{"NoGrace", Fault::NoGrace, "unmapped"}),
                         nameOf);

} // namespace

int main(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    for (int i = 1; i < argc; ++i) {
        if (std::strncmp(argv[i], "--seed=", 7) == 0)
            firstSeed = std::strtoull(argv[i] + 7, nullptr, 10);
        else if (std::strncmp(argv[i], "--runs=", 7) == 0)
            runs = std::strtoull(argv[i] + 7, nullptr, 10);
    }
    return RUN_ALL_TESTS();
}
