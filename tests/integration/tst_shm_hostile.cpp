// Peers that keep to nothing. Whatever one side writes, sends or keeps back: the other does not crash, hang
// or grow, and those beside it are not disturbed.
#include "../unit/shm_testing.h"
#include "messages.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <array>
#include <random>

using namespace testing_shm;
using namespace shm;

namespace {

class ShmHostile : public ::testing::Test
{
protected:
    StoreDirectory directory;
};

struct Area
{
    uint8_t *begin = nullptr;
    size_t bytes = 0;
};

// What this process has mapped writable of a kind of the store's memory.
std::vector<Area> writableMemory(const char *label)
{
    std::vector<Area> areas;
    std::ifstream maps("/proc/self/maps");
    std::string line;
    while (std::getline(maps, line)) {
        unsigned long long begin = 0;
        unsigned long long end = 0;
        char rights[5] = {};
        if (line.find(label) != std::string::npos &&
            std::sscanf(line.c_str(), "%llx-%llx %4s", &begin, &end, rights) == 3 && rights[1] == 'w')
            areas.push_back({reinterpret_cast<uint8_t *>(begin), static_cast<size_t>(end - begin)});
    }
    return areas;
}

// Values that arithmetic trips over, small ones, and any.
uint64_t nastyValue(std::mt19937_64 &random)
{
    switch (random() % 4) {
    case 0:
        return random();
    case 1:
        return random() % 64;
    case 2:
        return uint64_t{1} << random() % 64;
    default:
        return ~uint64_t{0} - random() % 64;
    }
}

// Writes into this process's own memory by way of the kernel: what the library has unmapped meanwhile is an
// error there and not the end of the attack, and to the thread sanitizer, which would end it too, it is no
// race.
class Attacker
{
public:
    Attacker() : m_memory(open("/proc/self/mem", O_RDWR | O_CLOEXEC))
    {
        if (!m_memory)
            std::abort();
    }
    template <class Value>
    bool write(const uint8_t *address, Value value)
    {
        return pwrite(m_memory.get(), &value, sizeof value,
                      static_cast<off_t>(reinterpret_cast<uintptr_t>(address))) == sizeof value;
    }
    // False when nothing of it arrived.
    bool scribble(const std::vector<Area> &areas, std::mt19937_64 &random)
    {
        bool written = false;
        for (const Area &area : areas) {
            // Heads and tables lie at the front; of the samples a little is enough.
            const size_t count = std::min<size_t>(area.bytes, 64 * 1024) / sizeof(uint64_t);
            for (int i = 0; i < 64; ++i)
                written |= write(area.begin + random() % count * sizeof(uint64_t), nastyValue(random));
        }
        return written;
    }

private:
    UniqueFd m_memory;
};

bool isRunning(pid_t child)
{
    siginfo_t info = {};
    return waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == 0;
}

// Everything that a reader can be asked; what it answers must be possible.
void useEverything(shm_reader_t *reader, std::mt19937_64 &random)
{
    shm_video_frame_t frame = {};
    frame.timestamp = static_cast<int64_t>(nastyValue(random));
    if (shm_reader_lock_video(reader, &frame, static_cast<shm_video_lookup_mode_t>(random() % 5)) == 0) {
        ASSERT_EQ(frame.width, 64);
        ASSERT_EQ(frame.height, 48);
        ASSERT_EQ(frame.strides[0], 256);
        // A touch outside of the slot's memory ends the process.
        const volatile uint8_t first = frame.planes[0][0];
        const volatile uint8_t last = frame.planes[1][256 * 24 - 1];
        static_cast<void>(first + last);
        shm_reader_unlock_video(reader, &frame);
        ASSERT_EQ(frame.planes[0], nullptr);
    }
    std::array<long long, 10> timestamps;
    timestamps.fill(-7);
    ASSERT_LE(shm_reader_get_video_timestamps(reader, timestamps.data(), 8), 8);
    ASSERT_EQ(timestamps[8], -7);
    shm_video_status_t status = {};
    shm_reader_get_video_status(reader, &status);
    shm_audio_status_t audio = {};
    shm_reader_get_audio_status(reader, static_cast<int>(random() % 4), &audio);
    std::vector<int16_t> samples(size_t{500} * 2 + 1, 77);
    const int64_t start =
        random() % 2 == 0 ? audio.oldest_timestamp : static_cast<int64_t>(nastyValue(random));
    ASSERT_LE(shm_reader_query_audio2(reader, 0, samples.data(), 500, 1, start, -1), 500);
    ASSERT_EQ(samples.back(), 77);
    shm_reader_set_fps(reader, 25, 1);
    infoOf(reader);
    shm_reader_is_ready(reader);
    shm_reader_wait_video(reader, static_cast<uint64_t>(-1), 0);
}

TEST_F(ShmHostile, AWayOfCaptureThatNobodyKnowsIsNone)
{
    const Writer writer = openWriter(smallVideo("s"));
    const Reader reader = openReader("s");
    ASSERT_TRUE(reader);
    const std::vector<Area> index = writableMemory("memfd:shm-index");
    ASSERT_EQ(index.size(), 1u);
    auto &capture = reinterpret_cast<IndexHead *>(index.front().begin)->capture;
    capture.store(SHM_CAPTURE_USERPTR, std::memory_order_relaxed);
    EXPECT_EQ(infoOf(reader.get()).capture, SHM_CAPTURE_USERPTR);
    for (const uint32_t unknown : {uint32_t{SHM_CAPTURE_USERPTR + 1}, UINT32_MAX}) {
        capture.store(unknown, std::memory_order_relaxed);
        EXPECT_EQ(infoOf(reader.get()).capture, SHM_CAPTURE_NONE);
        EXPECT_STREQ(shm_capture_name(infoOf(reader.get()).capture), "none");
    }
}

TEST_F(ShmHostile, AWriterThatScribblesOverIndexAudioAndControlPages)
{
    Child writer([](Child &self) {
        shm_writer_params_t params = smallVideo("s");
        params.sample_rate = 48000;
        params.channels = 2;
        Writer opened = openWriter(params);
        for (int i = 1; i <= 8; ++i)
            publishFrame(opened.get(), i * 1000, 1);
        const std::vector<int16_t> samples(960 * 2, 3);
        shm_writer_publish_audio(opened.get(), 0, samples.data(), 960, 1000000);
        self.tell();
        self.hear(); // until somebody reads
        std::mt19937_64 random(7);
        Attacker attacker;
        const std::vector<Area> index = writableMemory("memfd:shm-index");
        const std::vector<Area> audio = writableMemory("memfd:shm-audio");
        if (index.empty() || audio.empty() || writableMemory("memfd:shm-control").empty())
            return 1;
        const uint8_t *head = index[0].begin;
        uint64_t session = 0;
        std::memcpy(&session, head, sizeof session);
        self.tell();
        while (true) {
            // Every reader brings a page of its own.
            const std::vector<Area> control = writableMemory("memfd:shm-control");
            for (int i = 0; i < 100; ++i) {
                if (!attacker.scribble(index, random) || !attacker.scribble(audio, random))
                    return 2;
                attacker.scribble(control, random);
                // What ends the connection is put right again, so that there is something to attack.
                attacker.write(head, session);
                attacker.write(head + 128, uint32_t{1});
                attacker.write(head + 64,
                               static_cast<int64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                                        std::chrono::steady_clock::now().time_since_epoch())
                                                        .count()));
                for (const Area &page : control)
                    attacker.write(page.begin, uint32_t{0});
            }
        }
        return 0;
    });
    ASSERT_EQ(writer.hear(), 'x');
    Reader reader = openReader("s");
    ASSERT_TRUE(reader);
    writer.tell();
    ASSERT_EQ(writer.hear(), 'x');
    const size_t descriptors = openDescriptors();
    std::mt19937_64 random(1);
    int opened = 0;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    const int rounds = 20000; // instrumented ones take ten times as long
#else
    const int rounds = 60000;
#endif
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (int i = 0; i < rounds || opened < 100; ++i) {
        ASSERT_TRUE(std::chrono::steady_clock::now() < deadline)
            << i << " rounds, opened again " << opened << " times";
        useEverything(reader.get(), random);
        if (HasFatalFailure())
            return;
        // `state` and `revoked` end a handle for good whenever it meets them.
        if (shm_reader_is_ready(reader.get()) == 0) {
            Reader next = openReader("s", nullptr, 0, 1000);
            if (next) {
                reader = std::move(next);
                ++opened;
            }
        }
    }
    EXPECT_LE(openDescriptors(), descriptors + 8);
    EXPECT_TRUE(isRunning(writer.pid())) << "the attack has ended by itself";
    std::printf("opened again %d times\n", opened);
}

// A socket in the writer's place that answers a handshake with anything.
class FakeWriter
{
public:
    explicit FakeWriter(const std::string &path)
    {
        m_socket = UniqueFd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        unlink(path.c_str());
        if (bind(m_socket.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
            listen(m_socket.get(), 16) != 0)
            std::abort();
    }
    UniqueFd accept() { return UniqueFd(::accept4(m_socket.get(), nullptr, nullptr, SOCK_CLOEXEC)); }

private:
    UniqueFd m_socket;
};

void sendWith(int socket, const std::vector<uint8_t> &bytes, const std::vector<int> &fds)
{
    sendMessage(socket, bytes.data(), bytes.size(), fds.data(), fds.size());
}

// The messages of a right handshake, with their descriptors: taken from a real writer.
struct Recorded
{
    std::vector<std::vector<uint8_t>> bytes;
    std::vector<std::vector<UniqueFd>> fds;
};

Recorded recordHandshake(const std::string &path)
{
    UniqueFd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    EXPECT_EQ(0, connect(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address));
    auto hello = makeMessage<HelloMessage>(kHello);
    hello.maxLocks = 8;
    sendMessage(fd.get(), &hello, sizeof hello, nullptr, 0);
    Recorded recorded;
    Message message;
    while (true) {
        int result = 0;
        if (!eventually([&] { return (result = receiveMessage(fd.get(), &message)) != -EAGAIN; }) ||
            result != 0)
            break;
        const auto *bytes = reinterpret_cast<const uint8_t *>(message.bytes);
        recorded.bytes.emplace_back(bytes, bytes + message.length);
        recorded.fds.push_back(std::move(message.fds));
        message.fds.clear();
        if (message.header().type == kReady)
            break;
    }
    return recorded;
}

TEST_F(ShmHostile, AWriterWhoseHandshakeIsWrongSomewhere)
{
    const Writer real = openWriter(smallVideo("real"));
    const Recorded recorded = recordHandshake(directory.path() + "/real");
    ASSERT_GE(recorded.bytes.size(), 3u);
    FakeWriter fake(directory.path() + "/fake");
    const size_t descriptors = openDescriptors();
    const size_t mappings = shmMappings();
    int refused = 0;
    int taken = 0;
    std::mt19937_64 random(3);
    for (int i = 0; i < 400; ++i) {
        std::thread server([&] {
            const UniqueFd peer = fake.accept();
            for (size_t m = 0; m < recorded.bytes.size(); ++m) {
                std::vector<uint8_t> bytes = recorded.bytes[m];
                std::vector<int> fds;
                for (const UniqueFd &fd : recorded.fds[m])
                    fds.push_back(fd.get());
                // The first round is right.
                switch (i == 0 ? 99 : random() % 12) {
                case 0:
                    bytes[random() % bytes.size()] ^= static_cast<uint8_t>(1u << random() % 8);
                    break;
                case 1: {
                    const uint64_t value = nastyValue(random);
                    std::memcpy(&bytes[random() % (bytes.size() - 8)], &value, 8);
                    break;
                }
                case 2:
                    bytes.resize(random() % bytes.size());
                    break;
                case 3:
                    if (!fds.empty())
                        fds.pop_back();
                    break;
                case 4:
                    fds.push_back(fds.empty() ? 0 : fds.front());
                    break;
                case 5: // the same memory twice, or in another's place
                    if (fds.size() > 1)
                        fds[random() % fds.size()] = fds[random() % fds.size()];
                    break;
                case 6: // no memory at all
                    if (!fds.empty())
                        fds[random() % fds.size()] = peer.get();
                    break;
                case 7:
                    sendWith(peer.get(), bytes, fds); // twice
                    break;
                default:
                    break;
                }
                sendWith(peer.get(), bytes, fds);
            }
            // Hangs up at once, or lets the reader find out.
        });
        shm_error_t error = {};
        const Reader reader =
            openReader("fake", &error, 0, 20000); // the next round needs the server that hung up
        server.join();
        if (reader)
            ++taken;
        else
            ++refused;
        if (!reader) {
            EXPECT_NE(error.code, 0);
            const std::string message = error.message;
            EXPECT_TRUE(message.find("start its writer again") != std::string::npos ||
                        message.find("start it again") != std::string::npos ||
                        message.find("try again") != std::string::npos)
                << message;
        }
    }
    std::printf("%d handshakes taken, %d refused\n", taken, refused);
    EXPECT_GT(taken, 0);
    EXPECT_GT(refused, 100);
    EXPECT_LE(shmMappings(), mappings);
    // One handshake that was not answered to its end may be kept.
    EXPECT_LE(openDescriptors(), descriptors + 2);
}

TEST_F(ShmHostile, ReadersThatDoAllTheyCanDisturbNobody)
{
    const std::string path = directory.path() + "/s";
    // Raw, without the library: says hello and never listens.
    const auto connectRaw = [path] {
        UniqueFd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        return connect(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 ? std::move(fd)
                                                                                              : UniqueFd();
    };
    std::vector<std::unique_ptr<Child>> hostile;
    // Writes anything into its control page.
    hostile.push_back(std::make_unique<Child>([](Child &self) {
        self.hear();
        std::mt19937_64 random(5);
        Attacker attacker;
        while (true) {
            const Reader reader = openReader("s", nullptr, 64);
            const std::vector<Area> control = writableMemory("memfd:shm-control");
            for (int i = 0; reader && i < 20000; ++i) {
                if (!attacker.scribble(control, random))
                    return 1;
                if (i == 0)
                    self.tell();
            }
        }
        return 0;
    }));
    // Holds every frame it can get.
    hostile.push_back(std::make_unique<Child>([](Child &self) {
        self.hear();
        while (true) {
            const Reader reader = openReader("s", nullptr, 64);
            self.tell();
            shm_video_frame_t frame;
            uint64_t newest = 0;
            while (reader && shm_reader_is_ready(reader.get()) != 0) {
                if (lockFrame(reader.get(), &frame, SHM_VIDEO_NEWEST) != 0)
                    continue;
                if (frame.generation == newest)
                    shm_reader_unlock_video(reader.get(), &frame);
                else
                    newest = frame.generation;
            }
        }
        return 0;
    }));
    // Connects, says hello, never reads; a hundred at a time.
    hostile.push_back(std::make_unique<Child>([connectRaw](Child &self) {
        self.hear();
        while (true) {
            std::vector<UniqueFd> sockets;
            for (int i = 0; i < 100; ++i) {
                sockets.push_back(connectRaw());
                auto hello = makeMessage<HelloMessage>(kHello);
                hello.maxLocks = UINT32_MAX;
                if (sockets.back())
                    sendMessage(sockets.back().get(), &hello, sizeof hello, nullptr, 0);
            }
            self.tell();
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return 0;
    }));
    // Floods: right messages at the wrong time, wrong ones, and descriptors with them.
    hostile.push_back(std::make_unique<Child>([connectRaw](Child &self) {
        self.hear();
        std::mt19937_64 random(9);
        while (true) {
            const UniqueFd fd = connectRaw();
            self.tell();
            for (int i = 0; fd && i < 200; ++i) {
                std::array<uint8_t, 352> bytes;
                for (uint8_t &byte : bytes)
                    byte = static_cast<uint8_t>(random());
                auto hello = makeMessage<HelloMessage>(random() % 2 == 0 ? kHello : kWantDmabufs);
                const int fds[3] = {0, 1, fd.get()};
                if (random() % 2 == 0)
                    sendMessage(fd.get(), &hello, sizeof hello, fds, random() % 4);
                else
                    sendMessage(fd.get(), bytes.data(), random() % bytes.size(), fds, random() % 4);
            }
        }
        return 0;
    }));

    const Writer writer = openWriter(smallVideo("s"));
    ASSERT_TRUE(writer);
    const Reader good = openReader("s");
    ASSERT_TRUE(good);
    const uint64_t bytes = statsOf(writer.get()).total_bytes;
    const size_t descriptors = openDescriptors();
    for (auto &child : hostile)
        child->tell();
    for (auto &child : hostile)
        ASSERT_EQ(child->hear(), 'x');

    uint64_t locked = 0;
    uint64_t mostBytes = 0;
    int64_t t = 0;
    // As long as it takes: the one that pins is cut off a few times, and the good one reads all the while.
    ASSERT_TRUE(eventually(
        [&] {
            t += 1000;
            const int result = publishFrame(writer.get(), t, static_cast<uint8_t>(t / 1000));
            shm_video_frame_t frame;
            if (result == 0 && lockFrame(good.get(), &frame, SHM_VIDEO_NEWEST) == 0) {
                EXPECT_EQ(frame.planes[0][0], static_cast<uint8_t>(frame.timestamp / 1000));
                EXPECT_EQ(frame.planes[1][256 * 24 - 1], static_cast<uint8_t>(frame.timestamp / 1000));
                shm_reader_unlock_video(good.get(), &frame);
                ++locked;
            }
            mostBytes = std::max(mostBytes, statsOf(writer.get()).total_bytes);
            return locked > 500 && statsOf(writer.get()).readers_disconnected >= 3;
        },
        std::chrono::seconds(90)))
        << locked << " locks, " << statsOf(writer.get()).readers_disconnected << " cut off";
    for (size_t i = 0; i < hostile.size(); ++i)
        EXPECT_TRUE(isRunning(hostile[i]->pid())) << "attack " << i << " has ended by itself";
    EXPECT_EQ(shm_reader_is_ready(good.get()), 1);
    EXPECT_LE(mostBytes, 2 * bytes + 4096);
    for (auto &child : hostile)
        child->kill9();
    // All that was theirs is given back.
    EXPECT_TRUE(eventually([&] {
        t += 1000;
        publishFrame(writer.get(), t, 1);
        return statsOf(writer.get()).readers == 1 && openDescriptors() <= descriptors &&
               statsOf(writer.get()).total_bytes == bytes;
    })) << statsOf(writer.get()).readers
        << " readers, " << openDescriptors() << " of " << descriptors << " descriptors";
    std::printf("%llu locks, %llu readers cut off, at most %llu of %llu bytes\n", (unsigned long long)locked,
                (unsigned long long)statsOf(writer.get()).readers_disconnected, (unsigned long long)mostBytes,
                (unsigned long long)bytes);
}

} // namespace

int main(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
