// Test inputs, faults and life cycle, seen through a reader.
#include "zevshm_driver.h"

#include <zevshm-pattern/blockcode.h>
#include <zevshm-pattern/testpattern.h>
#include <zevshm-pattern/tones.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <grp.h>
#include <map>
#include <set>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace driver;
using namespace zevshm;

namespace {

class ZevshmPublish : public testing::Test
{
protected:
    StoreDirectory stores;
};

int64_t wallNow()
{
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

QJsonObject info(const std::string &name)
{
    const Result result = run({"info", name, "--json"});
    EXPECT_EQ(result.code, 0) << result.errors;
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(result.output), &error);
    EXPECT_EQ(error.error, QJsonParseError::NoError) << result.output;
    return document.object();
}

std::optional<BlockCode> code(const Frame &frame)
{
    return decodeBlockCode(frame->planes[0], frame->strides[0], frame->width, frame->height);
}

// A whole second of a store's past with 200 ms of sound and picture around it; 0 when none came.
int64_t wholeSecond(shm_reader_t *reader)
{
    int64_t second = 0;
    const bool came = waitFor([&] {
        shm_audio_status_t audio{};
        shm_video_status_t video{};
        shm_reader_get_audio_status(reader, 0, &audio);
        shm_reader_get_video_status(reader, &video);
        if (video.frames_held < 2 || audio.frames == 0)
            return false;
        second = (std::max(audio.oldest_timestamp, video.oldest_timestamp) / 1000000 + 1) * 1000000;
        return std::max(audio.oldest_timestamp, video.oldest_timestamp) < second - 100000 &&
               std::min(audio.newest_timestamp, video.newest_timestamp) > second + 200000;
    });
    return came ? second : 0;
}

// How many samples after `startUs` the first sound is; 9600 when there is none within 200 ms at 48 kHz.
size_t soundOnset(shm_reader_t *reader, int64_t startUs)
{
    std::vector<int16_t> samples(2 * 9600);
    EXPECT_EQ(shm_reader_query_audio2(reader, 0, samples.data(), 1, 9600, startUs, -1), 1);
    size_t onset = 0;
    while (onset < 9600 && samples[2 * onset] == 0)
        ++onset;
    return onset;
}

} // namespace

TEST_F(ZevshmPublish, framesCarryTheirNumberAndTheirTimestamp)
{
    for (const char *format : {"yuv420p", "yvu420p", "nv12"}) {
        Zevshm publisher({"publish", "cam", "test:", "--size", "322x242", "--fps", "50", "--format", format});
        const Reader reader = openStore("cam");
        ASSERT_TRUE(reader);
        ASSERT_TRUE(waitForFrames(reader.get(), 3));
        int64_t lastNumber = -1;
        int64_t lastTimestamp = 0;
        int seen = 0;
        EXPECT_TRUE(waitFor([&] {
            const Frame frame(reader.get());
            if (!frame || frame->timestamp == lastTimestamp)
                return false;
            const auto read = code(frame);
            EXPECT_TRUE(read) << format;
            if (!read)
                return true;
            EXPECT_EQ(read->timestampUs, frame->timestamp);
            EXPECT_GT(read->frameNumber, lastNumber);
            if (lastNumber >= 0) {
                EXPECT_EQ(frame->timestamp - lastTimestamp, (read->frameNumber - lastNumber) * 20000)
                    << "an even cadence";
            }
            lastNumber = read->frameNumber;
            lastTimestamp = frame->timestamp;
            return ++seen >= 30;
        }));
        publisher.signal(SIGINT);
        EXPECT_EQ(publisher.wait(), 0);
        EXPECT_EQ(publisher.errors(), "");
        EXPECT_EQ(shm_reader_is_ready(reader.get()), 0);
        EXPECT_FALSE(stores.hasSocket("cam"));
    }
}

TEST_F(ZevshmPublish, startsWithoutAGap)
{
    // What the first frame needs time for may not cost the next ones. A busy machine may be late by itself.
    constexpr uint32_t wanted = 10;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    // Instrumented, a picture of full size takes longer to draw and to read than it is shown: there is no gap
    // to start without.
    const char *size = "640x360";
#else
    const char *size = "1920x1080";
#endif
    uint32_t inARow = 0;
    for (int attempt = 0; attempt < 5 && inARow < wanted; ++attempt) {
        Zevshm publisher(
            {"publish", "cam", "test:", "--size", size, "--fps", "60", "--history", "20", "--no-audio"});
        const Reader reader = openStore("cam");
        ASSERT_TRUE(reader);
        ASSERT_TRUE(waitForFrames(reader.get(), wanted));
        long long stamps[SHM_FRAMES_MAX];
        const int held = shm_reader_get_video_timestamps(reader.get(), stamps, SHM_FRAMES_MAX);
        inARow = 0;
        for (int i = 0; i < held; ++i) {
            const Frame frame(reader.get(), stamps[i], SHM_VIDEO_EXACT);
            const auto read = frame ? code(frame) : std::nullopt;
            if (!read || read->frameNumber != inARow)
                break;
            ++inARow;
        }
    }
    EXPECT_GE(inARow, wanted);
}

TEST_F(ZevshmPublish, publishesInRealTimeOnTheWallClock)
{
    Zevshm publisher({"publish", "cam", "test:", "--size", "320x240", "--fps", "25"});
    const Reader reader = openStore("cam");
    ASSERT_TRUE(waitForFrames(reader.get(), 5));
    const auto start = std::chrono::steady_clock::now();
    const uint64_t first = storeInfo(reader.get()).frames_published;
    ASSERT_TRUE(waitForFrames(reader.get(), first + 50));
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    // Two seconds; a starved machine may take longer, but nothing may make it shorter.
    EXPECT_GT(seconds, 1.7);
    EXPECT_LT(seconds, 10);
    const shm_store_info_t status = storeInfo(reader.get());
    EXPECT_LE(status.newest_timestamp, wallNow()) << "published before its time";
    EXPECT_GT(status.newest_timestamp, wallNow() - 5000000);
    EXPECT_EQ(status.newest_timestamp % 40000, 0) << "frames lie on whole seconds";
    EXPECT_EQ(status.frame_interval_us, 40000);

    shm_audio_status_t audio{};
    ASSERT_EQ(shm_reader_get_audio_status(reader.get(), 0, &audio), 0);
    EXPECT_LE(audio.newest_timestamp, wallNow()) << "sound ahead of its time";
}

TEST_F(ZevshmPublish, everyChannelHasItsTone)
{
    Zevshm publisher(
        {"publish", "cam", "test:", "--no-video", "--audio-channels", "3", "--audio-rate", "48000"});
    const Reader reader = openStore("cam");
    ASSERT_TRUE(reader);
    shm_audio_status_t status{};
    ASSERT_TRUE(waitFor([&] {
        return shm_reader_get_audio_status(reader.get(), 0, &status) == 0 && status.frames >= 30000;
    }));
    std::vector<int16_t> samples(3 * 24000);
    ASSERT_EQ(shm_reader_query_audio2(reader.get(), 0, samples.data(), 1, 24000,
                                      status.newest_timestamp - 550000, -1),
              1);
    for (int channel = 0; channel < 3; ++channel) {
        int crossings = 0;
        for (size_t i = 1; i < 24000; ++i)
            crossings += samples[3 * i + static_cast<size_t>(channel)] >= 0 &&
                         samples[3 * (i - 1) + static_cast<size_t>(channel)] < 0;
        EXPECT_NEAR(crossings, ToneGenerator::toneHz(channel) / 2, 1) << channel;
    }
}

TEST_F(ZevshmPublish, flashAndBeepAreOnTheWholeSecond)
{
    Zevshm publisher(
        {"publish", "cam", "test:avsync", "--size", "320x240", "--fps", "25", "--history", "60"});
    const Reader reader = openStore("cam");
    ASSERT_TRUE(reader);
    const int64_t second = wholeSecond(reader.get());
    ASSERT_NE(second, 0);
    EXPECT_NEAR(static_cast<double>(soundOnset(reader.get(), second - 100000)), 4800, 1);

    const auto stage = [](const Frame &frame) {
        return frame->planes[0][frame->height / 4 * frame->strides[0] + 3];
    };
    const Frame before(reader.get(), second - 40000, SHM_VIDEO_EXACT);
    const Frame at(reader.get(), second, SHM_VIDEO_EXACT);
    const Frame last(reader.get(), second + 80000, SHM_VIDEO_EXACT);
    const Frame after(reader.get(), second + 120000, SHM_VIDEO_EXACT);
    ASSERT_TRUE(before && at && last && after);
    EXPECT_LT(stage(before), 100);
    EXPECT_GT(stage(at), 240);
    EXPECT_GT(stage(last), 240);
    EXPECT_LT(stage(after), 100);
}

TEST_F(ZevshmPublish, beepComesAfterTheFlashByTheOffset)
{
    Zevshm publisher(
        {"publish", "cam", "test:avsync", "--size", "320x240", "--history", "60", "--av-offset", "30"});
    const Reader reader = openStore("cam");
    ASSERT_TRUE(reader);
    const int64_t second = wholeSecond(reader.get());
    ASSERT_NE(second, 0);
    EXPECT_NEAR(static_cast<double>(soundOnset(reader.get(), second - 100000)), 4800 + 30 * 48, 1);
}

TEST_F(ZevshmPublish, groupMayReadAndNobodyElse)
{
    const struct group *own = getgrgid(getgid());
    ASSERT_NE(own, nullptr);
    const std::string groupName = own->gr_name;
    ASSERT_EQ(chmod(stores.path().c_str(), 0755), 0);
    Zevshm publisher({"publish", "cam", "test:", "--size", "320x240", "--group", groupName});
    ASSERT_TRUE(openStore("cam"));
    struct stat status
    {};
    ASSERT_EQ(stat(stores.file("cam").c_str(), &status), 0);
    EXPECT_EQ(status.st_gid, getgid());
    EXPECT_EQ(status.st_mode & 0777, 0660u);
    if (getuid() != 0)
        GTEST_SKIP() << "only root can become another member of the group";

    const auto infoAs = [](const std::vector<gid_t> &groups) {
        const pid_t child = fork();
        if (child == 0) {
            if (setgroups(groups.size(), groups.data()) != 0 || setgid(65534) != 0 || setuid(65534) != 0)
                _exit(77);
            _exit(run({"info", "cam"}).code);
        }
        int code = 0;
        EXPECT_EQ(waitpid(child, &code, 0), child);
        return WIFEXITED(code) ? WEXITSTATUS(code) : -1;
    };
    EXPECT_EQ(infoAs({getgid()}), 0);
    EXPECT_EQ(infoAs({}), 6);
}

TEST_F(ZevshmPublish, terminalShowsProgressOnOneLine)
{
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(terminal, 0);
    ASSERT_EQ(grantpt(terminal), 0);
    ASSERT_EQ(unlockpt(terminal), 0);
    const int side = open(ptsname(terminal), O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(side, 0);
    Zevshm publisher({"publish", "cam", "test:", "--size", "320x240"}, -1, side);
    const Reader reader = openStore("cam");
    EXPECT_TRUE(reader);
    std::string shown;
    const auto shows = [&](const char *text) {
        return waitFor([&] {
            char bytes[512];
            ssize_t count;
            while ((count = read(terminal, bytes, sizeof bytes)) > 0)
                shown.append(bytes, static_cast<size_t>(count));
            return shown.find(text) != std::string::npos;
        });
    };
    EXPECT_TRUE(shows("fps, 0 dropped, ")) << shown;
    EXPECT_TRUE(shows("late, 1 reader\r\x1b[K")) << shown;
    EXPECT_EQ(shown.find('\n'), std::string::npos) << shown;
    publisher.signal(SIGINT);
    EXPECT_EQ(publisher.wait(), 0);
    EXPECT_TRUE(shows("\n")) << shown; // the shell's prompt has a line of its own
    close(side);
    close(terminal);
}

TEST_F(ZevshmPublish, saysWhatItPublishesOnlyWhenAsked)
{
    for (const bool verbose : {false, true}) {
        std::vector<std::string> arguments = {"publish", "cam", "test:", "--size", "320x240"};
        if (verbose)
            arguments.emplace_back("--verbose");
        Zevshm publisher(arguments);
        const Reader reader = openStore("cam");
        ASSERT_TRUE(reader);
        EXPECT_TRUE(waitForFrames(reader.get(), 2));
        publisher.signal(SIGTERM);
        EXPECT_EQ(publisher.wait(), 0);
        EXPECT_EQ(publisher.errors(),
                  verbose ? "zevshm: cam: 320x240 yuv420p bt601 full 25 fps, 48000 Hz 2 channels\n" : "");
    }
}

TEST_F(ZevshmPublish, recordsFormatAndColor)
{
    const struct
    {
        std::vector<std::string> options;
        int matrix;
        int format;
    } cases[] = {{{"--size", "640x480"}, SHM_MATRIX_BT601, SHM_PIXEL_FORMAT_YUV420P},
                 {{"--size", "1280x720", "--format", "nv12"}, SHM_MATRIX_BT709, SHM_PIXEL_FORMAT_NV12},
                 {{"--size", "640x480", "--matrix", "bt709", "--format", "yvu420p"},
                  SHM_MATRIX_BT709,
                  SHM_PIXEL_FORMAT_YVU420P}};
    for (const auto &c : cases) {
        std::vector<std::string> arguments = {"publish",    "cam",       "test:bars", "--fps",
                                              "30000/1001", "--history", "12",        "--sealed"};
        arguments.insert(arguments.end(), c.options.begin(), c.options.end());
        Zevshm publisher(arguments);
        const Reader reader = openStore("cam");
        ASSERT_TRUE(reader);
        shm_reader_format_t format{};
        ASSERT_EQ(shm_reader_get_format(reader.get(), &format), 0);
        EXPECT_EQ(format.pixel_format, c.format);
        EXPECT_EQ(format.frame_count, 12);
        const shm_store_info_t status = storeInfo(reader.get());
        EXPECT_EQ(status.color.matrix, c.matrix);
        EXPECT_EQ(status.color.range, SHM_RANGE_FULL);
        EXPECT_EQ(status.rate_numerator, 30000u);
        EXPECT_EQ(status.rate_denominator, 1001u);
        EXPECT_TRUE(status.sealed);
        publisher.signal(SIGTERM);
        EXPECT_EQ(publisher.wait(), 0);
    }
}

TEST_F(ZevshmPublish, infoAndListSayWhatTheReaderSees)
{
    Zevshm publisher({"publish", "cam", "test:", "--size", "320x240", "--fps", "20"});
    const Reader reader = openStore("cam");
    ASSERT_TRUE(waitForFrames(reader.get(), 20));
    const QJsonObject object = info("cam");
    const QJsonObject video = object["video"].toObject();
    const QJsonObject audio = object["audio"].toObject();
    EXPECT_EQ(object["name"].toString(), "cam");
    EXPECT_EQ(object["directory"].toString().toStdString(), stores.path());
    EXPECT_EQ(object["writerPid"].toInt(), publisher.pid());
    EXPECT_EQ(object["session"].toString().toULongLong(), storeInfo(reader.get()).session);
    EXPECT_EQ(object["readers"].toInt(), 1); // this test; the command does not count itself
    EXPECT_EQ(video["width"].toInt(), 320);
    EXPECT_EQ(video["height"].toInt(), 240);
    EXPECT_EQ(video["pixelFormat"].toString(), "yuv420p");
    EXPECT_EQ(video["matrix"].toString(), "bt601");
    EXPECT_EQ(video["range"].toString(), "full");
    EXPECT_DOUBLE_EQ(video["rate"].toDouble(), 20);
    EXPECT_EQ(video["frameIntervalUs"].toInt(), 50000);
    EXPECT_GE(video["framesPublished"].toInt(), 20);
    EXPECT_GE(video["historyFrames"].toInt(), video["historyMinimum"].toInt());
    EXPECT_EQ(video["historySpanUs"].toInt() % 50000, 0);
    EXPECT_EQ(audio["sampleRate"].toInt(), 48000);
    EXPECT_EQ(audio["channels"].toInt(), 2);
    EXPECT_EQ(audio["streams"].toArray().size(), 1);

    const Result list = run({"list", "--json"});
    const QJsonArray array = QJsonDocument::fromJson(QByteArray::fromStdString(list.output)).array();
    ASSERT_EQ(array.size(), 1);
    EXPECT_EQ(array[0].toObject()["name"].toString(), "cam");
    EXPECT_TRUE(array[0].toObject()["live"].toBool());
    const Result text = run({"info", "cam"});
    EXPECT_EQ(text.code, 0);
    EXPECT_NE(text.output.find("320x240"), std::string::npos);
}

TEST_F(ZevshmPublish, listOfNothing)
{
    const Result text = run({"list"});
    EXPECT_EQ(text.code, 0);
    EXPECT_NE(text.output.find("No stores"), std::string::npos);
    const Result json = run({"list", "--json"});
    EXPECT_EQ(json.code, 0);
    EXPECT_TRUE(QJsonDocument::fromJson(QByteArray::fromStdString(json.output)).array().isEmpty());
}

TEST_F(ZevshmPublish, killedPublisherIsReplacedWithoutCleaningUp)
{
    auto first =
        std::make_unique<Zevshm>(std::vector<std::string>{"publish", "cam", "test:", "--size", "320x240"});
    const Reader before = openStore("cam");
    ASSERT_TRUE(before);
    const uint64_t session = storeInfo(before.get()).session;
    first->signal(SIGKILL);
    EXPECT_EQ(first->wait(), 128 + SIGKILL);
    Zevshm second({"publish", "cam", "test:", "--size", "320x240"});
    const Reader after = openStore("cam");
    ASSERT_TRUE(after);
    EXPECT_NE(storeInfo(after.get()).session, session);
    EXPECT_TRUE(waitForFrames(after.get(), 5));
    second.signal(SIGINT);
    EXPECT_EQ(second.wait(), 0);
    EXPECT_EQ(second.errors(), "");
}

TEST_F(ZevshmPublish, jitterShowsInTheTimestampsAndRepeatsWithItsSeed)
{
    // By place: a machine that is busy may leave out a frame that is late.
    std::map<int64_t, int64_t> deviations[2];
    for (auto &run : deviations) {
        Zevshm publisher({"publish", "cam", "test:", "--size", "320x240", "--fps", "25", "--jitter", "20",
                          "--seed", "9", "--history", "40", "--no-audio"});
        const Reader reader = openStore("cam");
        ASSERT_TRUE(reader);
        const std::vector<int64_t> stamps = collectTimestamps(reader.get(), 30);
        ASSERT_GE(stamps.size(), 30u);
        for (size_t i = 0; i < 30; ++i)
            run[stamps[i] / 40000 - stamps[0] / 40000] = stamps[i] % 40000;
    }
    std::set<int64_t> different;
    size_t common = 0;
    for (const auto &[place, deviation] : deviations[0]) {
        different.insert(deviation);
        EXPECT_GE(deviation, 0);
        EXPECT_LE(deviation, 20000);
        const auto again = deviations[1].find(place);
        if (again == deviations[1].end())
            continue;
        ++common;
        EXPECT_EQ(deviation, again->second) << "frame " << place;
    }
    EXPECT_GT(different.size(), 25u);
    EXPECT_GT(common, 20u);
}

TEST_F(ZevshmPublish, dropsShowAsMissingNumbers)
{
    Zevshm publisher({"publish", "cam", "test:", "--size", "320x240", "--fps", "50", "--drop", "50",
                      "--history", "100", "--no-audio"});
    const Reader reader = openStore("cam");
    ASSERT_TRUE(reader);
    const std::vector<int64_t> stamps = collectTimestamps(reader.get(), 60);
    ASSERT_GE(stamps.size(), 60u);
    const int64_t places = (stamps.back() - stamps.front()) / 20000;
    EXPECT_GT(places, 90);
    for (const int64_t stamp : stamps)
        EXPECT_EQ(stamp % 20000, 0);
}

TEST_F(ZevshmPublish, partsPerMillionShowInTheInterval)
{
    Zevshm publisher({"publish", "cam", "test:", "--size", "320x240", "--fps", "25", "--ppm", "50000",
                      "--no-audio", "--history", "40"});
    const Reader reader = openStore("cam");
    ASSERT_TRUE(reader);
    const std::vector<int64_t> stamps = collectTimestamps(reader.get(), 30);
    ASSERT_GE(stamps.size(), 30u);
    for (size_t i = 1; i < stamps.size(); ++i) {
        const double interval = 40000 / 1.05;
        const double frames = static_cast<double>(stamps[i] - stamps[i - 1]) / interval;
        EXPECT_NEAR(frames, std::round(frames), 0.001);
    }
    EXPECT_LT(stamps[10] - stamps[0], 10 * 40000 * 3);
}

TEST_F(ZevshmPublish, stallLeavesAHole)
{
    Zevshm publisher({"publish", "cam", "test:", "--size", "320x240", "--fps", "25", "--stall", "0.4,0.8",
                      "--history", "60"});
    const Reader reader = openStore("cam");
    ASSERT_TRUE(reader);
    const std::vector<int64_t> stamps = collectTimestamps(reader.get(), 20);
    ASSERT_GE(stamps.size(), 20u);
    int64_t longest = 0;
    for (size_t i = 1; i < stamps.size(); ++i)
        longest = std::max(longest, stamps[i] - stamps[i - 1]);
    EXPECT_GE(longest, 800000);
    EXPECT_TRUE(shm_reader_is_ready(reader.get()));
}

TEST_F(ZevshmPublish, clockStepShiftsTheLabelsOnly)
{
    const int64_t before = wallNow();
    Zevshm publisher(
        {"publish", "cam", "test:", "--size", "320x240", "--fps", "25", "--clock-step", "0.4,3600000"});
    const Reader reader = openStore("cam");
    ASSERT_TRUE(reader);
    EXPECT_TRUE(waitFor([&] { return storeInfo(reader.get()).newest_timestamp > before + 3600000000; }));
    EXPECT_LT(wallNow(), before + 600000000) << "the host's clock was touched";

    Zevshm back(
        {"publish", "back", "test:", "--size", "320x240", "--fps", "25", "--clock-step", "0.4,-3600000"});
    EXPECT_TRUE(waitFor([&] {
        // The store comes anew, because a store's timestamps never go back.
        const Reader other(shm_reader_open("back", 1000));
        const int64_t newest = other ? storeInfo(other.get()).newest_timestamp : 0;
        return newest > 0 && newest < before - 3000000000;
    })) << back.errors();
}
