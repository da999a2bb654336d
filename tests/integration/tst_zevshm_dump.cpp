// What a store still holds, in files: the same frames, the same samples, the same times.
#include "zevshm_driver.h"
#include "zevshm_ownstore.h"
#include "zevshm_recording.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace driver;
using namespace zevshm;

namespace {

constexpr int64_t intervalUs = OwnStore::intervalUs;
constexpr int samplesAFrame = OwnStore::samplesAFrame;

class ZevshmDump : public testing::Test
{
protected:
    StoreDirectory stores;
    std::string folder(const std::string &name = "out") const { return stores.file(name); }
    QJsonObject dumped(const std::string &name = "out") const
    {
        std::ifstream file(folder(name) + "/timestamps.json");
        const std::string text{std::istreambuf_iterator<char>(file), {}};
        QJsonParseError error{};
        const QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(text), &error);
        EXPECT_EQ(error.error, QJsonParseError::NoError) << text;
        return document.object();
    }
    static std::vector<int64_t> heldTimestamps(const char *name)
    {
        const Reader reader = openStore(name);
        long long held[SHM_FRAMES_MAX];
        const int count = shm_reader_get_video_timestamps(reader.get(), held, SHM_FRAMES_MAX);
        return {held, held + std::max(count, 0)};
    }
    size_t fileCount(const std::string &name = "out") const
    {
        const std::filesystem::directory_iterator entries(folder(name));
        return static_cast<size_t>(std::distance(begin(entries), end(entries)));
    }
};

int64_t integer(const QJsonValue &value)
{
    return static_cast<int64_t>(value.toDouble(-1));
}

void expectFailure(const Result &result, int code, const std::string &mentions)
{
    EXPECT_EQ(result.code, code) << result.errors;
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(std::count(result.errors.begin(), result.errors.end(), '\n'), 1) << result.errors;
    EXPECT_NE(result.errors.find(mentions), std::string::npos) << result.errors;
}

} // namespace

TEST_F(ZevshmDump, everythingHeldIsWrittenWithItsTime)
{
    OwnStore store("cam", 320, 240, {true, 2});
    store.publish(60, 0); // more than is held
    const std::vector<int64_t> held = heldTimestamps("cam");
    ASSERT_GE(held.size(), 19u);
    const Result result = run({"dump", "cam", folder()});
    ASSERT_EQ(result.code, 0) << result.errors;
    EXPECT_EQ(result.output + result.errors, "");
    EXPECT_EQ(heldTimestamps("cam"), held);

    const QJsonObject object = dumped();
    EXPECT_EQ(object["name"].toString(), "cam");
    EXPECT_EQ(object["session"].toString().toULongLong(), store.stats().session);
    const QJsonObject video = object["video"].toObject();
    EXPECT_EQ(video["width"].toInt(), 320);
    EXPECT_EQ(video["height"].toInt(), 240);
    EXPECT_EQ(video["matrix"].toString(), "bt601");
    EXPECT_EQ(video["range"].toString(), "full");
    EXPECT_EQ(video["missed"].toInt(-1), 0);
    const QJsonArray frames = video["frames"].toArray();
    ASSERT_EQ(static_cast<size_t>(frames.size()), held.size());
    for (int i = 0; i < frames.size(); ++i) {
        const QJsonObject frame = frames[i].toObject();
        EXPECT_EQ(integer(frame["timestamp"]), held[static_cast<size_t>(i)]);
        const auto picture = readRecording(folder() + "/" + frame["file"].toString().toStdString());
        ASSERT_TRUE(picture && picture->pictures.size() == 1) << i;
        EXPECT_EQ(picture->pictures[0].width, 320);
    }

    const QJsonArray streams = object["audio"].toObject()["streams"].toArray();
    ASSERT_EQ(streams.size(), 2);
    const int64_t firstUs = store.nowUs() - store.number() * intervalUs;
    for (int i = 0; i < 2; ++i) {
        const QJsonObject stream = streams[i].toObject();
        EXPECT_EQ(stream["file"].toString().toStdString(), "sound-" + std::to_string(i) + ".wav");
        const auto sound = readRecording(folder() + "/" + stream["file"].toString().toStdString());
        ASSERT_TRUE(sound);
        EXPECT_EQ(sound->sampleRate, 48000);
        ASSERT_EQ(sound->channels, 2);
        EXPECT_EQ(static_cast<int64_t>(sound->samples.size() / 2), integer(stream["frames"]));
        EXPECT_GE(integer(stream["frames"]), 2 * 48000);
        // To the newest sample, from the one that the timestamp says.
        const int64_t from = (integer(stream["timestamp"]) - firstUs) * 48 / 1000;
        EXPECT_EQ(from + integer(stream["frames"]), int64_t{store.number()} * samplesAFrame);
        std::vector<int16_t> wanted(sound->samples.size());
        ToneGenerator(48000, 2).tones(wanted.data(), static_cast<int>(wanted.size() / 2), from);
        for (int16_t &sample : wanted)
            sample = static_cast<int16_t>(sample / (i + 1));
        EXPECT_EQ(sound->samples, wanted) << i;
    }
    EXPECT_EQ(fileCount(), held.size() + 2 + 1);
    EXPECT_EQ(store.stats().frames_dropped, 0u);
}

TEST_F(ZevshmDump, onlyTheLast)
{
    OwnStore store("cam", 320, 240);
    store.publish(40, 0);
    ASSERT_EQ(run({"dump", "cam", folder(), "--last", "200"}).code, 0);
    const QJsonObject object = dumped();
    const QJsonArray frames = object["video"].toObject()["frames"].toArray();
    ASSERT_EQ(frames.size(), 6); // the newest, and five that are up to 200 ms older
    const int64_t newest = store.nowUs() - intervalUs;
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(integer(frames[i].toObject()["timestamp"]), newest - (5 - i) * intervalUs);
    const QJsonObject stream = object["audio"].toObject()["streams"].toArray()[0].toObject();
    EXPECT_EQ(integer(stream["timestamp"]), newest - 200000);
    EXPECT_EQ(integer(stream["frames"]), 6 * samplesAFrame);
}

TEST_F(ZevshmDump, y4mHasTheSamplesAsTheyAre)
{
    for (const int format : {SHM_PIXEL_FORMAT_YUV420P, SHM_PIXEL_FORMAT_YVU420P, SHM_PIXEL_FORMAT_NV12}) {
        const std::string name = shm_pixel_format_name(format);
        OwnStore store("cam", 161, 121, {true, 0, format});
        store.publish(12, 0);
        ASSERT_EQ(run({"dump", "cam", folder(name), "--format", "y4m"}).code, 0);
        const QJsonArray frames = dumped(name)["video"].toObject()["frames"].toArray();
        EXPECT_TRUE(dumped(name)["audio"].isNull());
        ASSERT_EQ(frames.size(), 12);
        EXPECT_EQ(fileCount(name), 2u);

        std::ifstream file(folder(name) + "/frames.y4m", std::ios::binary);
        std::string line;
        std::getline(file, line);
        EXPECT_EQ(line.rfind("YUV4MPEG2 W161 H121 F25:1 Ip A1:1 C420", 0), 0u) << line;
        EXPECT_NE(line.find("XCOLORRANGE=FULL"), std::string::npos) << line;
        // Planes as the pattern draws them, one after the other.
        std::vector<uint8_t> y(161 * 121), u(81 * 61), v(81 * 61);
        TestPattern pattern(PatternKind::Moving, 161, 121, Matrix::Bt601);
        for (int i = 0; i < 12; ++i) {
            EXPECT_EQ(frames[i].toObject()["file"].toString(), "frames.y4m");
            EXPECT_EQ(frames[i].toObject()["index"].toInt(-1), i);
            PlaneSet planes;
            planes.width = 161;
            planes.height = 121;
            planes.planes[0] = y.data();
            planes.planes[1] = u.data();
            planes.planes[2] = v.data();
            planes.strides[0] = 161;
            planes.strides[1] = planes.strides[2] = 81;
            pattern.draw(planes, static_cast<uint32_t>(i), integer(frames[i].toObject()["timestamp"]), 0);
            std::getline(file, line);
            ASSERT_EQ(line, "FRAME");
            for (const auto *plane : {&y, &u, &v}) {
                std::vector<uint8_t> got(plane->size());
                file.read(reinterpret_cast<char *>(got.data()), static_cast<std::streamsize>(got.size()));
                EXPECT_EQ(got, *plane) << name << " frame " << i;
            }
        }
        EXPECT_EQ(file.peek(), std::ifstream::traits_type::eof());
        // And FFmpeg reads it.
        const auto read = readRecording(folder(name) + "/frames.y4m");
        ASSERT_TRUE(read);
        EXPECT_EQ(read->pictures.size(), 12u);
    }
}

TEST_F(ZevshmDump, pngsShowTheFramesOfALivePublisher)
{
    Zevshm publisher({"publish", "cam", "test:", "--size", "320x240", "--history", "30"});
    const Reader reader = openStore("cam");
    ASSERT_TRUE(reader && waitForFrames(reader.get(), 30)) << publisher.errors();
    ASSERT_EQ(run({"dump", "cam", folder()}).code, 0);
    ASSERT_EQ(run({"dump", "cam", folder("raw"), "--format", "y4m", "--no-audio"}).code, 0);
    EXPECT_FALSE(std::filesystem::exists(folder("raw") + "/sound-0.wav"));
    const QJsonArray frames = dumped("raw")["video"].toObject()["frames"].toArray();
    const auto raw = readRecording(folder("raw") + "/frames.y4m");
    ASSERT_TRUE(raw);
    ASSERT_EQ(raw->pictures.size(), static_cast<size_t>(frames.size()));
    EXPECT_GE(frames.size() + dumped("raw")["video"].toObject()["missed"].toInt(), 30);
    for (int i = 0; i < frames.size(); ++i) {
        const auto &code = raw->pictures[static_cast<size_t>(i)].code;
        ASSERT_TRUE(code);
        EXPECT_EQ(code->timestampUs, integer(frames[i].toObject()["timestamp"]));
    }
    const QJsonArray pngs = dumped()["video"].toObject()["frames"].toArray();
    ASSERT_GT(pngs.size(), 0);
    for (int i = 0; i < pngs.size(); ++i) {
        const auto png = readRecording(folder() + "/" + pngs[i].toObject()["file"].toString().toStdString());
        ASSERT_TRUE(png && png->pictures.size() == 1);
        ASSERT_TRUE(png->pictures[0].code) << i;
        EXPECT_EQ(png->pictures[0].code->timestampUs, integer(pngs[i].toObject()["timestamp"]));
    }
}

TEST_F(ZevshmDump, soundAlone)
{
    OwnStore store("radio", 0, 0, {false, 1});
    store.publish(20, 0);
    ASSERT_EQ(run({"dump", "radio", folder(), "--last", "100"}).code, 0);
    EXPECT_TRUE(dumped()["video"].isNull());
    EXPECT_EQ(integer(dumped()["audio"].toObject()["streams"].toArray()[0].toObject()["frames"]), 4800);
}

TEST_F(ZevshmDump, aDumpThatFailsLeavesNothing)
{
    OwnStore store("cam", 320, 240);
    store.publish(20, 0);
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    const rlimit small = {500000, before.rlim_max}; // inherited by the tool
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    const Result result = run({"dump", "cam", folder(), "--format", "y4m"});
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    expectFailure(result, 10, "frames.y4m: cannot be written (File too large)");
    EXPECT_FALSE(std::filesystem::exists(folder()));
}

TEST_F(ZevshmDump, aDumpThatIsEndedLeavesNothing)
{
    OwnStore store("cam", 1920, 1080, {true, 0});
    store.publish(20, 0);
    for (const int number : {SIGINT, SIGTERM}) {
        Zevshm dump({"dump", "cam", folder()}); // takes seconds to compress them
        ASSERT_TRUE(waitFor([&] { return std::filesystem::exists(folder() + "/frame-0001.png"); }));
        dump.signal(number);
        EXPECT_EQ(dump.wait(), 1) << dump.errors();
        EXPECT_NE(dump.errors().find("nothing of the dump is left"), std::string::npos) << dump.errors();
        EXPECT_FALSE(std::filesystem::exists(folder()));
    }
}

TEST_F(ZevshmDump, soundThatIsTooOldIsSaidToBeLeftOut)
{
    OwnStore store("cam", 320, 240);
    store.publish(5, 0);
    store.stopSound();
    store.publish(10, 0);
    const Result result = run({"dump", "cam", folder(), "--last", "100"});
    EXPECT_EQ(result.code, 0);
    EXPECT_NE(result.errors.find("cam: the sound of stream 0 is left out, because its newest is older"),
              std::string::npos)
        << result.errors;
    const QJsonObject stream = dumped()["audio"].toObject()["streams"].toArray()[0].toObject();
    EXPECT_TRUE(stream["file"].isNull());
    EXPECT_EQ(dumped()["video"].toObject()["frames"].toArray().size(), 3);
}

TEST_F(ZevshmDump, whatCannotBeIsRefusedAtOnce)
{
    OwnStore store("cam", 320, 240);
    expectFailure(run({"dump", "cam", folder()}), 11, "holds nothing");
    EXPECT_FALSE(std::filesystem::exists(folder()));
    store.publish();
    expectFailure(run({"dump", "cam"}), 2, "DIR is missing");
    expectFailure(run({"dump", "cam", folder(), "--last", "-1"}), 2, "--last");
    expectFailure(run({"dump", "cam", folder(), "--format", "gif"}), 2, "--format");
    expectFailure(run({"dump", "cam", folder(), "--no-video", "--no-audio"}), 2, "--no-video");
    expectFailure(run({"dump", "a/b", folder()}), 3, "store name");
    expectFailure(run({"dump", "nobody", folder()}), 4, "nobody");
    expectFailure(run({"dump", "cam", folder("no/such/folder")}), 10, "no/such/folder");
    ASSERT_EQ(mkdir(folder("full").c_str(), 0700), 0);
    std::ofstream(folder("full") + "/precious") << "precious";
    expectFailure(run({"dump", "cam", folder("full")}), 10, "is not empty");
    EXPECT_EQ(fileCount("full"), 1u);
    expectFailure(run({"dump", "cam", folder("full") + "/precious"}), 10, "is not a folder");
    ASSERT_EQ(mkdir(folder("empty").c_str(), 0700), 0);
    EXPECT_EQ(run({"dump", "cam", folder("empty") + "/"}).code, 0);
    EXPECT_EQ(fileCount("empty"), 3u);
}
