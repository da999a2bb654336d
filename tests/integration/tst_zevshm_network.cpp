// Network streams: they come, drop and come back while the store stays.
#include "rtspserver.h"
#include "streamsender.h"
#include "zevshm_driver.h"
#include "zevshm_media.h"

#include "ffmpeg.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <csignal>
#include <fstream>
#include <iterator>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace driver;

namespace {

class ZevshmNetwork : public testing::Test
{
protected:
    StoreDirectory stores;
    std::string media()
    {
        const std::string path = stores.file("media.mkv");
        EXPECT_TRUE(writeMedia(path, {}));
        return path;
    }
};

// A port that nobody has at the moment.
std::string freePort(int type)
{
    const int probe = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(probe, reinterpret_cast<sockaddr *>(&address), sizeof address);
    getsockname(probe, reinterpret_cast<sockaddr *>(&address), &length);
    close(probe);
    return std::to_string(ntohs(address.sin_port));
}

// Waits until the store is there, which takes what is sent.
Reader openStoreOf(StreamSender &sender)
{
    Reader reader;
    waitFor([&] {
        sender.keepSending();
        reader.reset(shm_reader_open("cam", 200));
        return reader != nullptr;
    });
    return reader;
}

// A publisher of something that may not be there yet: started again until the store is.
Reader publishUntilThere(std::unique_ptr<Zevshm> &publisher, const std::string &url)
{
    Reader reader;
    waitFor([&] {
        if (!publisher || !publisher->running())
            publisher = std::make_unique<Zevshm>(std::vector<std::string>{"publish", "cam", url});
        reader.reset(shm_reader_open("cam", 200));
        return reader != nullptr;
    });
    return reader;
}

bool says(const Zevshm &publisher, const char *text)
{
    return publisher.errors().find(text) != std::string::npos;
}

double rateOf(const shm_store_info_t &info)
{
    return info.rate_denominator ? static_cast<double>(info.rate_numerator) / info.rate_denominator : 0;
}

} // namespace

TEST_F(ZevshmNetwork, networkStreamComesBackWhileTheStoreStays)
{
    // A sender that listens, sends for a while, dies and comes back: FFmpeg's own TCP.
    const std::string path = media();
    const std::string url = "tcp://127.0.0.1:" + freePort(SOCK_STREAM);
    std::atomic<bool> over{false};
    std::atomic<int> connections{0};
    std::thread sender([&] {
        std::ifstream file(path, std::ios::binary);
        std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(file)), {});
        while (!over) {
            AVIOContext *out = nullptr;
            AVDictionary *options = nullptr;
            av_dict_set(&options, "listen", "1", 0);
            av_dict_set(&options, "listen_timeout", "500", 0);
            if (avio_open2(&out, url.c_str(), AVIO_FLAG_WRITE, nullptr, &options) >= 0) {
                ++connections;
                avio_write(out, bytes.data(), static_cast<int>(bytes.size()));
                avio_closep(&out);
            }
            av_dict_free(&options);
        }
    });
    std::unique_ptr<Zevshm> publisher;
    Reader reader;
    EXPECT_TRUE(waitFor([&] {
        if (!publisher || !publisher->running())
            publisher = std::make_unique<Zevshm>(std::vector<std::string>{"publish", "cam", url});
        reader.reset(shm_reader_open("cam", 200));
        return reader != nullptr;
    })) << (publisher ? publisher->errors() : "");
    if (reader) {
        const uint64_t session = storeInfo(reader.get()).session;
        EXPECT_TRUE(waitFor([&] { return publisher->errors().find("connected again") != std::string::npos; }))
            << publisher->errors();
        const uint64_t published = storeInfo(reader.get()).frames_published;
        EXPECT_TRUE(waitForFrames(reader.get(), published + 5));
        EXPECT_EQ(storeInfo(reader.get()).session, session);
        EXPECT_GE(connections, 2);
        publisher->signal(SIGTERM);
        EXPECT_EQ(publisher->wait(), 0);
    }
    over = true;
    sender.join();
}

TEST_F(ZevshmNetwork, datagramsComeBackAfterASilence)
{
    const std::string url = "udp://127.0.0.1:" + freePort(SOCK_DGRAM);
    Zevshm publisher({"publish", "cam", url});
    auto sender = std::make_unique<StreamSender>(url);
    if (!sender->keepSending())
        GTEST_SKIP() << "there is no program 'ffmpeg' to send with";
    const Reader reader = openStoreOf(*sender);
    ASSERT_TRUE(reader) << publisher.errors();
    EXPECT_TRUE(waitForFrames(reader.get(), 5));
    sender.reset();
    EXPECT_TRUE(waitFor([&] { return publisher.errors().find("dropped (") != std::string::npos; }));
    sender = std::make_unique<StreamSender>(url);
    EXPECT_TRUE(waitFor([&] {
        sender->keepSending();
        return publisher.errors().find("connected again") != std::string::npos;
    })) << publisher.errors();
    EXPECT_TRUE(waitForFrames(reader.get(), storeInfo(reader.get()).frames_published + 5));
}

TEST_F(ZevshmNetwork, latencyHoldsANetworksFramesBack)
{
    const std::string url = "udp://127.0.0.1:" + freePort(SOCK_DGRAM);
    Zevshm publisher({"publish", "cam", url, "--latency", "5000"});
    const auto wallUs = [] {
        return std::chrono::duration_cast<std::chrono::microseconds>(
                   std::chrono::system_clock::now().time_since_epoch())
            .count();
    };
    const int64_t startUs = wallUs();
    StreamSender sender(url);
    if (!sender.keepSending())
        GTEST_SKIP() << "there is no program 'ffmpeg' to send with";
    const Reader reader = openStoreOf(sender);
    ASSERT_TRUE(reader) << publisher.errors();
    ASSERT_TRUE(waitForFrames(reader.get(), 1));
    shm_video_status_t status{};
    ASSERT_EQ(shm_reader_get_video_status(reader.get(), &status), 0);
    EXPECT_GE(status.oldest_timestamp, startUs + 5000000);
}

TEST_F(ZevshmNetwork, aStreamThatComesBackFasterIsDeclaredSo)
{
    const std::string url = "udp://127.0.0.1:" + freePort(SOCK_DGRAM);
    Zevshm publisher({"publish", "cam", url});
    auto sender = std::make_unique<StreamSender>(url);
    if (!sender->keepSending())
        GTEST_SKIP() << "there is no program 'ffmpeg' to send with";
    Reader reader = openStoreOf(*sender);
    ASSERT_TRUE(reader) << publisher.errors();
    EXPECT_DOUBLE_EQ(rateOf(storeInfo(reader.get())), 25);
    sender.reset();
    EXPECT_TRUE(waitFor([&] { return says(publisher, "dropped ("); }));
    sender = std::make_unique<StreamSender>(url, 50);
    EXPECT_TRUE(waitFor([&] {
        sender->keepSending();
        reader.reset(shm_reader_open("cam", 200));
        return reader && rateOf(storeInfo(reader.get())) == 50;
    })) << publisher.errors();
    EXPECT_TRUE(says(publisher, "50 fps; the store is opened anew")) << publisher.errors();
    EXPECT_TRUE(reader && waitForFrames(reader.get(), 5));
}

TEST_F(ZevshmNetwork, srtComesAndComesBack)
{
    const std::string port = freePort(SOCK_DGRAM);
    auto sender = std::make_unique<StreamSender>("srt://127.0.0.1:" + port + "?mode=listener");
    if (!sender->keepSending())
        GTEST_SKIP() << "there is no program 'ffmpeg' to send with";
    std::unique_ptr<Zevshm> publisher;
    const Reader reader = publishUntilThere(publisher, "srt://127.0.0.1:" + port);
    if (!reader && says(*publisher, "Protocol not found"))
        GTEST_SKIP() << "this FFmpeg was built without SRT";
    ASSERT_TRUE(reader) << publisher->errors();
    EXPECT_TRUE(waitForFrames(reader.get(), 5));
    const uint64_t session = storeInfo(reader.get()).session;
    sender.reset();
    EXPECT_TRUE(waitFor([&] { return says(*publisher, "dropped ("); })) << publisher->errors();
    sender = std::make_unique<StreamSender>("srt://127.0.0.1:" + port + "?mode=listener");
    EXPECT_TRUE(waitFor([&] {
        sender->keepSending();
        return says(*publisher, "connected again");
    })) << publisher->errors();
    EXPECT_TRUE(waitForFrames(reader.get(), storeInfo(reader.get()).frames_published + 5));
    EXPECT_EQ(storeInfo(reader.get()).session, session);
    publisher->signal(SIGTERM);
    EXPECT_EQ(publisher->wait(), 0);
}

TEST_F(ZevshmNetwork, rtspComesAndComesBack)
{
    const std::string path = stores.file("stream.ts");
    constexpr int seconds = 10;
    if (!runFfmpeg({"-f", "lavfi", "-i", "testsrc2=s=320x240:r=25", "-t", std::to_string(seconds), "-c:v",
                    "mpeg2video", "-g", "5", "-b:v", "800k", "-f", "mpegts", path}))
        GTEST_SKIP() << "there is no program 'ffmpeg' to make a stream with";
    std::ifstream file(path, std::ios::binary);
    RtspServer server({std::istreambuf_iterator<char>(file), {}}, seconds, 5);
    Zevshm publisher({"publish", "cam", server.url()});
    const Reader reader = openStore("cam");
    ASSERT_TRUE(reader) << publisher.errors();
    EXPECT_TRUE(waitForFrames(reader.get(), 20)) << publisher.errors();
    const shm_store_info_t before = storeInfo(reader.get());
    EXPECT_EQ(before.rate_numerator, 25u * before.rate_denominator);
    // The camera drops every connection.
    EXPECT_TRUE(waitFor([&] { return says(publisher, "connected again"); })) << publisher.errors();
    EXPECT_TRUE(waitForFrames(reader.get(), storeInfo(reader.get()).frames_published + 20));
    EXPECT_GE(server.plays(), 2);
    EXPECT_EQ(storeInfo(reader.get()).session, before.session);
    publisher.signal(SIGTERM);
    EXPECT_EQ(publisher.wait(), 0);
}
