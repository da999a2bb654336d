// What `zevshm info` tells of a store whose every figure is known, and `zevshm snapshot` of a given time.
#include "zevshm_driver.h"
#include "zevshm_media.h"

#include <shm/shm_writer.h>

#include <zevshm-pattern/blockcode.h>

#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <list>

using namespace driver;

namespace {

class ZevshmInfo : public testing::Test
{
protected:
    ~ZevshmInfo() override { shm_writer_close(writer); }
    void open(uint32_t historyFrames)
    {
        shm_writer_params_t params;
        shm_writer_params_init(&params);
        params.name = "cam";
        params.width = 64;
        params.height = 64;
        params.pixel_format = SHM_PIXEL_FORMAT_NV12;
        params.history_frames = historyFrames;
        shm_error_t error{};
        ASSERT_EQ(shm_writer_open(&params, &writer, &error), 0) << error.message;
    }
    // Zero, or what shm_writer_acquire() says.
    int publish(int64_t timestamp)
    {
        shm_writer_frame_t frame;
        const int rc = shm_writer_acquire(writer, &frame);
        return rc == 0 ? shm_writer_publish(writer, &frame, timestamp) : rc;
    }
    static QJsonObject info()
    {
        const Result result = run({"info", "cam", "--json"});
        EXPECT_EQ(result.code, 0) << result.errors;
        return QJsonDocument::fromJson(QByteArray::fromStdString(result.output)).object();
    }
    static std::string text()
    {
        const Result result = run({"info", "cam"});
        EXPECT_EQ(result.code, 0) << result.errors;
        return result.output;
    }

    StoreDirectory stores;
    shm_writer_t *writer = nullptr;
    const int64_t start = std::chrono::duration_cast<std::chrono::microseconds>(
                              std::chrono::system_clock::now().time_since_epoch())
                              .count() -
                          10000000;
};

} // namespace

TEST_F(ZevshmInfo, theIntervalAndTheJitterAreThoseOfTheTimestamps)
{
    open(80);
    for (int i = 0; i < 65; ++i)
        ASSERT_EQ(publish(start + i * 40000), 0);
    QJsonObject video = info()["video"].toObject();
    EXPECT_EQ(video["frameIntervalUs"].toInt(-1), 40000);
    EXPECT_EQ(video["jitterUs"].toInt(-1), 0);
    EXPECT_FALSE(video["rateDeclared"].toBool(true));
    EXPECT_NEAR(video["rate"].toDouble(), 25.0, 0.001);
    // In turn early, in time and late by 4 ms: the median distance is 4 ms, times 1.4826.
    for (int i = 65; i < 65 + 66; ++i)
        ASSERT_EQ(publish(start + i * 40000 + (i % 3 - 1) * 4000), 0);
    video = info()["video"].toObject();
    EXPECT_NEAR(video["frameIntervalUs"].toDouble(), 40000, 20);
    EXPECT_NEAR(video["jitterUs"].toDouble(), 5930, 200); // less what the line takes up
    EXPECT_EQ(video["framesPublished"].toInt(), 131);
    EXPECT_EQ(video["newestTimestamp"].toDouble(), double(start + 130 * 40000)); // 130 % 3 is 1
    EXPECT_NE(text().find("jitter 5."), std::string::npos) << text();
}

TEST_F(ZevshmInfo, howTheFramesOfACameraComeIntoTheStore)
{
    open(4);
    EXPECT_EQ(info()["video"].toObject()["capture"].toString(), "none");
    EXPECT_EQ(text().find("  capture "), std::string::npos) << text();
    const struct
    {
        int capture;
        const char *name;
        const char *line;
    } ways[] = {{SHM_CAPTURE_COPIED, "copied", "  capture   one copy, from the driver's buffers\n"},
                {SHM_CAPTURE_DMABUF, "dmabuf", "  capture   straight into the store (DMABUF)\n"},
                {SHM_CAPTURE_USERPTR, "userptr", "  capture   straight into the store (USERPTR)\n"}};
    for (const auto &way : ways) {
        ASSERT_EQ(shm_writer_set_capture(writer, way.capture), 0);
        EXPECT_EQ(info()["video"].toObject()["capture"].toString(), way.name);
        EXPECT_NE(text().find(way.line), std::string::npos) << text();
    }
}

TEST_F(ZevshmInfo, locksAreCounted)
{
    open(4);
    const Reader reader = openStore("cam");
    ASSERT_TRUE(reader);
    EXPECT_EQ(info()["locksHeld"].toInt(-1), 0);
    EXPECT_EQ(info()["readers"].toInt(-1), 1);
    std::list<Frame> held;
    for (int i = 1; i <= 3; ++i) {
        ASSERT_EQ(publish(start + i * 40000), 0);
        ASSERT_TRUE(held.emplace_back(reader.get()));
        EXPECT_EQ(info()["locksHeld"].toInt(-1), i);
    }
    EXPECT_NE(text().find("  readers   1, holding 3 frames\n"), std::string::npos) << text();
    held.pop_front();
    EXPECT_EQ(info()["locksHeld"].toInt(-1), 2);
    held.clear();
    EXPECT_EQ(info()["locksHeld"].toInt(-1), 0);
}

// New slots are made as soon as there are few, but not as fast as frames are published here.
TEST_F(ZevshmInfo, droppedFramesAreCounted)
{
    open(4);
    const Reader reader = openStore("cam");
    ASSERT_TRUE(reader);
    EXPECT_EQ(info()["video"].toObject()["framesDropped"].toInt(-1), 0);
    int64_t timestamp = start;
    int published = 0;
    int dropped = 0;
    for (int round = 0; round < 100 && dropped < 3; ++round) {
        std::list<Frame> held;
        for (int i = 0; i < 24; ++i) {
            const int rc = publish(timestamp += 1000);
            ASSERT_TRUE(rc == 0 || rc == -EAGAIN) << rc;
            rc == 0 ? ++published : ++dropped;
            held.emplace_back(reader.get());
        }
    }
    EXPECT_GT(dropped, 0);
    const QJsonObject video = info()["video"].toObject();
    EXPECT_EQ(video["framesDropped"].toInt(-1), dropped);
    EXPECT_EQ(video["framesPublished"].toInt(-1), published);
    const std::string told =
        std::to_string(published) + " published, " + std::to_string(dropped) + " dropped without a free slot";
    EXPECT_NE(text().find(told), std::string::npos) << text();
}

TEST_F(ZevshmInfo, aSnapshotOfAGivenTimeIsTheFrameOfThatTime)
{
    const Zevshm publisher(
        {"publish", "pattern", "test:", "--size", "640x480", "--no-audio", "--history", "150"});
    const Reader reader = openStore("pattern");
    ASSERT_TRUE(waitForFrames(reader.get(), 30)) << publisher.errors();
    long long stamps[SHM_FRAMES_MAX];
    const int count = shm_reader_get_video_timestamps(reader.get(), stamps, SHM_FRAMES_MAX);
    ASSERT_GE(count, 20);
    // The frame's own time, and one nearer to it than to the next.
    for (const auto &[wanted, index] :
         {std::pair(stamps[10], 10), std::pair(stamps[15] + 15000, 15), std::pair(stamps[18] - 15000, 18)}) {
        const std::string png = stores.file("then.png");
        const Result result = run({"snapshot", "pattern", png, "--at", std::to_string(wanted)});
        ASSERT_EQ(result.code, 0) << result.errors;
        EXPECT_EQ(result.errors, "");
        const std::vector<uint8_t> rgb = decodeFirstFrame(png, zevshm::Matrix::Bt601);
        ASSERT_EQ(rgb.size(), 640u * 480 * 3);
        const auto code = zevshm::decodeBlockCode(rgb.data() + 1, 640 * 3, 640, 480, 3);
        ASSERT_TRUE(code);
        EXPECT_EQ(code->timestampUs, stamps[index]) << index;
    }
}
