// A store sent on over a network, and back into a store; receivers and writers that go and come back.
#include "zevshm_driver.h"
#include "zevshm_recording.h"

#include <zevshm-pattern/blockcode.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <csignal>
#include <fstream>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace driver;

namespace {

// A TCP port of this machine that nobody else has. It listens when it is told to, takes one sender at a time
// and keeps what comes in a file.
class Receiver
{
public:
    explicit Receiver(std::string file) : m_file(std::move(file))
    {
        m_listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int small = 16384;
        setsockopt(m_listener, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        bind(m_listener, reinterpret_cast<sockaddr *>(&address), sizeof address);
        getsockname(m_listener, reinterpret_cast<sockaddr *>(&address), &length);
        m_url = "tcp://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    }
    ~Receiver()
    {
        m_isOver = true;
        if (m_thread.joinable())
            m_thread.join();
        close(m_listener);
    }
    Receiver(const Receiver &) = delete;
    Receiver &operator=(const Receiver &) = delete;

    const std::string &url() const { return m_url; }
    void listen()
    {
        ::listen(m_listener, 4);
        m_thread = std::thread([this] { run(); });
    }
    void pause(bool isPaused) { m_isPaused = isPaused; }
    void hangUp() { m_isToHangUp = true; } // on the sender that is there, or the next
    int senders() const { return m_senders; }
    int64_t bytes() const { return m_bytes; }
    bool hasEnd() const { return m_hasEnd; } // the last sender has closed its side

private:
    static bool isReady(int fd)
    {
        pollfd poller{fd, POLLIN, 0};
        return poll(&poller, 1, 20) > 0;
    }
    void run()
    {
        std::ofstream file(m_file, std::ios::binary);
        while (!m_isOver) {
            if (!isReady(m_listener))
                continue;
            const int sender = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
            ++m_senders;
            m_hasEnd = false;
            char buffer[65536];
            while (!m_isOver && !m_isToHangUp.exchange(false)) {
                if (m_isPaused) {
                    poll(nullptr, 0, 5);
                    continue;
                }
                if (!isReady(sender))
                    continue;
                const ssize_t got = read(sender, buffer, sizeof buffer);
                if (got <= 0) {
                    m_hasEnd = true;
                    break;
                }
                file.write(buffer, got);
                file.flush();
                m_bytes += got;
            }
            close(sender);
        }
    }

    const std::string m_file;
    std::string m_url;
    int m_listener = -1;
    std::atomic<bool> m_isOver{false};
    std::atomic<bool> m_isPaused{false};
    std::atomic<bool> m_isToHangUp{false};
    std::atomic<bool> m_hasEnd{false};
    std::atomic<int> m_senders{0};
    std::atomic<int64_t> m_bytes{0};
    std::thread m_thread;
};

std::string freeUdpUrl()
{
    const int probe = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(probe, reinterpret_cast<sockaddr *>(&address), sizeof address);
    getsockname(probe, reinterpret_cast<sockaddr *>(&address), &length);
    close(probe);
    return "udp://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "?pkt_size=1316";
}

class ZevshmRelay : public testing::Test
{
protected:
    StoreDirectory stores;

    std::unique_ptr<Zevshm> publishTest(const std::string &size = "320x240")
    {
        auto publisher =
            std::make_unique<Zevshm>(std::vector<std::string>{"publish", "cam", "test:", "--size", size});
        EXPECT_TRUE(openStore("cam"));
        return publisher;
    }
};

bool says(const Zevshm &process, const std::string &text)
{
    return process.errors().find(text) != std::string::npos;
}

std::vector<Recording::Picture> coded(const std::string &path)
{
    std::vector<Recording::Picture> pictures;
    if (const auto recording = readRecording(path)) {
        for (const Recording::Picture &picture : recording->pictures) {
            if (picture.code)
                pictures.push_back(picture);
        }
    }
    return pictures;
}

// Every picture has its time: that of the store, less that of the first.
void expectTimes(const std::vector<Recording::Picture> &pictures)
{
    for (const Recording::Picture &picture : pictures) {
        const int64_t since = picture.code->timestampUs - pictures.front().code->timestampUs;
        ASSERT_NEAR(static_cast<double>(picture.us - pictures.front().us), static_cast<double>(since),
                    1000); // Matroska counts milliseconds
    }
}

} // namespace

TEST_F(ZevshmRelay, framesAndSoundComeBackOverUdp)
{
    const auto publisher = publishTest();
    const std::string url = freeUdpUrl();
    Zevshm back({"publish", "back", url});
    Zevshm relay({"relay", "cam", url});
    const Reader reader = openStore("back");
    ASSERT_TRUE(reader) << back.errors() << relay.errors();

    uint32_t number = 0;
    int64_t label = 0;
    int64_t timestamp = 0;
    int inARow = 0;
    EXPECT_TRUE(waitFor([&] {
        const Frame frame(reader.get(), timestamp + 1, SHM_VIDEO_AT_OR_AFTER);
        if (!frame)
            return false;
        const auto code =
            zevshm::decodeBlockCode(frame->planes[0], frame->strides[0], frame->width, frame->height);
        const bool follows = code && code->frameNumber == number + 1 && code->timestampUs == label + 40000 &&
                             std::abs(frame->timestamp - timestamp - 40000) < 1000;
        inARow = follows ? inARow + 1 : 0;
        number = code ? code->frameNumber : 0;
        label = code ? code->timestampUs : 0;
        timestamp = frame->timestamp;
        return inARow >= 25;
    })) << inARow
        << " frames in a row";
    // It has been on its way for as long as the labels say, and no longer.
    EXPECT_GT(timestamp, label);
    EXPECT_LT(timestamp, label + 5000000);

    shm_audio_status_t sound{};
    ASSERT_EQ(shm_reader_get_audio_status(reader.get(), 0, &sound), 0);
    std::vector<int16_t> samples(4800 * 2);
    ASSERT_GT(shm_reader_query_audio2(reader.get(), 0, samples.data(), 4800, 1,
                                      sound.newest_timestamp - 200000, -1),
              4000);
    EXPECT_GT(*std::max_element(samples.begin(), samples.end()), 1000);

    relay.signal(SIGTERM);
    EXPECT_EQ(relay.wait(), 0) << relay.errors();
    EXPECT_EQ(relay.output().find("cam to " + url + ": "), 0u) << relay.output();
}

TEST_F(ZevshmRelay, aWriterThatIsKilledMayComeBackWithAnotherSize)
{
    auto publisher = publishTest();
    const std::string url = freeUdpUrl();
    Zevshm back({"publish", "back", url});
    Zevshm relay({"relay", "cam", url});
    Reader reader = openStore("back");
    ASSERT_TRUE(reader) << back.errors() << relay.errors();
    publisher->signal(SIGKILL);
    EXPECT_EQ(publisher->wait(), 128 + SIGKILL);
    EXPECT_TRUE(waitFor([&] { return says(relay, "cam: its writer has gone; waiting for it"); }));
    publisher = publishTest("640x480");
    EXPECT_TRUE(waitFor([&] {
        reader.reset(shm_reader_open("back", 200));
        shm_reader_format_t format{};
        return reader && shm_reader_get_format(reader.get(), &format) == 0 && format.width == 640;
    })) << back.errors()
        << relay.errors();
    ASSERT_TRUE(reader && waitForFrames(reader.get(), 10));
    const Frame frame(reader.get());
    ASSERT_TRUE(frame);
    EXPECT_TRUE(zevshm::decodeBlockCode(frame->planes[0], frame->strides[0], frame->width, frame->height));
    EXPECT_TRUE(relay.running());
    EXPECT_TRUE(says(relay, "cam: connected again to " + url)) << relay.errors();
}

TEST_F(ZevshmRelay, aReceiverThatHangsUpIsConnectedAgain)
{
    const auto publisher = publishTest();
    Receiver receiver(stores.file("received.ts"));
    receiver.listen();
    Zevshm relay({"relay", "cam", receiver.url()});
    EXPECT_TRUE(waitFor([&] { return receiver.bytes() > 20000; })) << relay.errors();
    receiver.hangUp();
    EXPECT_TRUE(waitFor([&] { return receiver.senders() == 2; })) << relay.errors();
    EXPECT_TRUE(says(relay, receiver.url() + ": cannot be written (")) << relay.errors();
    EXPECT_TRUE(waitFor([&] { return says(relay, "cam: connected again to " + receiver.url()); }));
    const int64_t before = receiver.bytes();
    EXPECT_TRUE(waitFor([&] { return receiver.bytes() > before + 20000; })) << relay.errors();
    relay.signal(SIGTERM);
    EXPECT_EQ(relay.wait(), 0);
    EXPECT_NE(relay.output().find(", connected 2 times\n"), std::string::npos) << relay.output();
}

TEST_F(ZevshmRelay, aReceiverIsWaitedFor)
{
    const auto publisher = publishTest();
    Receiver receiver(stores.file("received.ts"));
    Zevshm relay({"relay", "cam", receiver.url(), "--wait", "60"});
    EXPECT_TRUE(waitFor([&] { return says(relay, "; trying again"); }));
    receiver.listen();
    EXPECT_TRUE(waitFor([&] { return receiver.bytes() > 20000; })) << relay.errors();
    relay.signal(SIGINT);
    EXPECT_EQ(relay.wait(), 0);
    EXPECT_NE(relay.output().find(", connected 1 times\n"), std::string::npos) << relay.output();
}

TEST_F(ZevshmRelay, aSlowReceiverCostsFramesAndNotTheStore)
{
    const auto publisher = publishTest("640x480");
    const std::string file = stores.file("received.mkv");
    {
        Receiver receiver(file);
        receiver.listen();
        // Lossless: megabytes a second.
        Zevshm relay({"relay", "cam", receiver.url(), "--format", "matroska", "--video-codec", "ffvhuff",
                      "--no-audio"});
        EXPECT_TRUE(waitFor([&] { return receiver.bytes() > 500000; })) << relay.errors();
        receiver.pause(true);
        EXPECT_TRUE(waitFor([&] { return says(relay, " frames dropped, because "); })) << relay.errors();
        receiver.pause(false);
        const int64_t before = receiver.bytes();
        EXPECT_TRUE(waitFor([&] { return receiver.bytes() > before + 5000000; })) << relay.errors();
        relay.signal(SIGTERM);
        EXPECT_EQ(relay.wait(), 0);
        EXPECT_EQ(relay.output().find(" 0 dropped, "), std::string::npos) << relay.output();
        EXPECT_NE(relay.output().find(", connected 1 times\n"), std::string::npos) << relay.output();
        EXPECT_TRUE(waitFor([&] { return receiver.hasEnd(); }));
    }
    const auto pictures = coded(file);
    ASSERT_GT(pictures.size(), 20u);
    expectTimes(pictures);
    uint32_t widest = 0;
    for (size_t i = 1; i < pictures.size(); ++i)
        widest = std::max(widest, pictures[i].code->frameNumber - pictures[i - 1].code->frameNumber);
    EXPECT_GT(widest, 1u); // dropped, not delayed
    EXPECT_EQ(storeInfo(openStore("cam").get()).frames_dropped, 0u);
}

TEST_F(ZevshmRelay, aReceiverThatTakesNothingDoesNotHoldUpTheEnd)
{
    const auto publisher = publishTest("640x480");
    Receiver receiver(stores.file("received.ts"));
    receiver.pause(true);
    receiver.listen();
    Zevshm relay({"relay", "cam", receiver.url(), "--format", "matroska", "--video-codec", "ffvhuff"});
    EXPECT_TRUE(waitFor([&] { return says(relay, " frames dropped, because "); })) << relay.errors();
    relay.signal(SIGTERM);
    EXPECT_EQ(relay.wait(), 0) << relay.errors();
}

TEST_F(ZevshmRelay, aFileIsFollowedByAnother)
{
    auto publisher = publishTest();
    const std::string file = stores.file("film.ts");
    Zevshm relay({"relay", "cam", file});
    const auto grows = [&](const std::string &path) {
        std::ifstream stream(path, std::ios::binary | std::ios::ate);
        return stream && stream.tellg() > 50000;
    };
    EXPECT_TRUE(waitFor([&] { return grows(file); })) << relay.errors();
    publisher->signal(SIGKILL);
    publisher->wait();
    publisher = publishTest();
    const std::string next = stores.file("film-2.ts");
    EXPECT_TRUE(waitFor([&] { return grows(next); })) << relay.errors();
    relay.signal(SIGHUP);
    EXPECT_EQ(relay.wait(), 0);
    const auto first = coded(file);
    const auto second = coded(next);
    ASSERT_GT(first.size(), 5u);
    ASSERT_GT(second.size(), 5u);
    expectTimes(first);
    expectTimes(second);
    EXPECT_LT(first.back().code->timestampUs, second.front().code->timestampUs);
    // Time goes on from one to the other as it did in the store.
    EXPECT_NEAR(static_cast<double>(second.front().us - first.front().us),
                static_cast<double>(second.front().code->timestampUs - first.front().code->timestampUs),
                100000);
}

TEST_F(ZevshmRelay, endsAfterItsSeconds)
{
    const auto publisher = publishTest();
    const Result result = run({"relay", "cam", stores.file("film.mkv"), "--seconds", "3", "--no-audio"});
    EXPECT_EQ(result.code, 0) << result.errors;
    const auto pictures = coded(stores.file("film.mkv"));
    ASSERT_GT(pictures.size(), 5u);
    EXPECT_LT(pictures.back().us - pictures.front().us, 3500000);
}

TEST_F(ZevshmRelay, endsWhenTheWriterDoesNotReturn)
{
    const auto publisher = publishTest();
    Zevshm relay({"relay", "cam", stores.file("film.ts"), "--return", "0.1"});
    EXPECT_TRUE(waitFor([&] { return access(stores.file("film.ts").c_str(), F_OK) == 0; }));
    publisher->signal(SIGTERM);
    EXPECT_EQ(relay.wait(), 0);
    EXPECT_TRUE(says(relay, "cam: its writer has gone; the relay ends")) << relay.errors();
}

TEST_F(ZevshmRelay, whatCannotBeReachedIsNamedWithoutItsPassword)
{
    const auto publisher = publishTest();
    const Receiver nobody(stores.file("received.ts")); // has the port, and does not listen
    const Result refused = run({"relay", "cam", nobody.url()});
    EXPECT_EQ(refused.code, 10);
    EXPECT_EQ(refused.errors, "zevshm: " + nobody.url() +
                                  ": cannot be written (Connection refused); check the address, and that "
                                  "somebody receives there\n");
    const std::string address = nobody.url().substr(6);
    const Result rtsp = run({"relay", "cam", "rtsp://me:secret@" + address + "/cam"});
    EXPECT_EQ(rtsp.code, 10);
    EXPECT_EQ(rtsp.errors.find("zevshm: rtsp://***@" + address + "/cam: cannot be written ("), 0u)
        << rtsp.errors;
    EXPECT_EQ(rtsp.errors.find("secret"), std::string::npos);
}

TEST_F(ZevshmRelay, refusesWhatCannotBeDone)
{
    EXPECT_EQ(run({"relay", "cam", "udp://127.0.0.1:9"}).code, 4); // no such store
    const auto publisher = publishTest();
    const auto refused = [](const std::vector<std::string> &words, int code, const std::string &text) {
        std::vector<std::string> all = {"relay", "cam"};
        all.insert(all.end(), words.begin(), words.end());
        const Result result = run(all);
        EXPECT_EQ(result.code, code) << result.errors;
        EXPECT_NE(result.errors.find(text), std::string::npos) << result.errors;
    };
    refused({"carrier-pigeon://loft"}, 2, "this FFmpeg knows no protocol 'carrier-pigeon'");
    refused({stores.file("film")}, 2, "give --format, such as mpegts");
    refused({"udp://127.0.0.1:9", "--format", "parchment"}, 2, "this FFmpeg has no container 'parchment'");
    refused({"udp://127.0.0.1:9", "--no-video", "--no-audio"}, 2, "leave nothing to relay");
    refused({"udp://127.0.0.1:9", "--video-codec", "brush"}, 2, "no video encoder 'brush'");
    refused({"udp://127.0.0.1:9", "--output-options", "wings=2"}, 2, "has an option 'wings'");
    refused({stores.path()}, 2, "no container has names of this kind");
    std::ofstream(stores.file("there.ts")) << "x";
    refused({stores.file("there.ts")}, 10, "is there already; choose another name");
    refused({stores.file("no/film.ts")}, 10, "cannot be written (No such file or directory)");
}
