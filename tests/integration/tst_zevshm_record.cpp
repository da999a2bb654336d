// Recordings: every frame with its time, sound with its picture, and nothing half done that looks whole.
#include "zevshm_driver.h"
#include "zevshm_media.h"
#include "zevshm_ownstore.h"
#include "zevshm_recording.h"

#include <zevshm-pattern/testpattern.h>
#include <zevshm-pattern/tones.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <set>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace driver;
using namespace zevshm;

namespace {

const std::vector<std::string> lossless = {"--video-codec", "ffv1", "--audio-codec", "pcm_s16le"};

std::vector<std::string> operator+(std::vector<std::string> words, const std::vector<std::string> &more)
{
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

class ZevshmRecord : public testing::Test
{
protected:
    StoreDirectory stores;
    std::string file(const std::string &name) const { return stores.file(name); }
    bool isThere(const std::string &name) const { return access(file(name).c_str(), F_OK) == 0; }
    Recording read(const std::string &name) const
    {
        const auto recording = readRecording(file(name));
        EXPECT_TRUE(recording) << name;
        return recording.value_or(Recording());
    }
    static bool waitForReader(const OwnStore &store)
    {
        return waitFor([&] { return store.stats().readers > 0; });
    }
    // Waits until the recorder has fetched all that is published now: until it has looked for more a few
    // times, each of which it waits a little for.
    static bool waitForCapture(const Zevshm &recorder)
    {
        const std::optional<long> before = waitsOfCapture(recorder);
        return waitFor([&] { return waitsOfCapture(recorder).value_or(0) > before.value_or(0) + 5; });
    }
    static std::optional<long> waitsOfCapture(const Zevshm &recorder)
    {
        std::error_code ignored;
        for (const auto &task : std::filesystem::directory_iterator(
                 "/proc/" + std::to_string(recorder.pid()) + "/task", ignored)) {
            std::ifstream status(task.path() / "status");
            bool isCapture = false;
            for (std::string line; std::getline(status, line);) {
                isCapture = isCapture || line == "Name:\tcapture";
                if (isCapture && line.rfind("voluntary_ctxt_switches:", 0) == 0)
                    return std::atol(line.c_str() + line.find(':') + 1);
            }
        }
        return std::nullopt;
    }
    // Of a signal that stops it, too, the threads learn one after the other.
    static bool stop(const Zevshm &process)
    {
        process.signal(SIGSTOP);
        return waitFor([&] {
            std::error_code ignored;
            for (const auto &task : std::filesystem::directory_iterator(
                     "/proc/" + std::to_string(process.pid()) + "/task", ignored)) {
                std::ifstream file(task.path() / "stat");
                const std::string text{std::istreambuf_iterator<char>(file), {}};
                if (text.find(") T ") == std::string::npos)
                    return false;
            }
            return true;
        });
    }
    // Waits until the recorder has the newest frame as its first.
    bool waitForFile(const std::string &name) const
    {
        return waitFor([&] { return isThere(name); });
    }
};

// Every picture's code says the time that it has in the file, and the sound at that time is that frame's.
void expectExact(const Recording &recording, int first)
{
    ASSERT_FALSE(recording.pictures.empty());
    ASSERT_TRUE(recording.pictures[0].code);
    const int64_t originUs = recording.pictures[0].code->timestampUs;
    EXPECT_EQ(recording.pictures[0].us, 0);
    const ToneGenerator tones(OwnStore::sampleRate, 2);
    for (size_t i = 0; i < recording.pictures.size(); ++i) {
        const auto &picture = recording.pictures[i];
        ASSERT_TRUE(picture.code) << i;
        EXPECT_EQ(picture.code->frameNumber, static_cast<uint32_t>(first) + i);
        EXPECT_EQ(picture.us, picture.code->timestampUs - originUs);
        EXPECT_TRUE(picture.isFullRange);
    }
    ASSERT_EQ(recording.sampleRate, OwnStore::sampleRate);
    ASSERT_EQ(recording.channels, 2);
    EXPECT_EQ(recording.soundUs, 0);
    std::vector<int16_t> wanted(recording.samples.size());
    tones.tones(wanted.data(), static_cast<int>(wanted.size() / 2),
                static_cast<int64_t>(first) * OwnStore::samplesAFrame);
    EXPECT_EQ(recording.samples, wanted);
}

} // namespace

TEST_F(ZevshmRecord, everyFrameAndSampleHasItsTime)
{
    OwnStore store("cam", 320, 240);
    store.publish(5); // before it is recorded
    Zevshm recorder(std::vector<std::string>{"record", "cam", file("out.mkv")} + lossless);
    ASSERT_TRUE(waitForFile("out.mkv.part")) << recorder.errors();
    store.publish(100);
    recorder.signal(SIGINT);
    EXPECT_EQ(recorder.wait(), 0) << recorder.errors();
    EXPECT_EQ(recorder.errors(), "");
    const Recording recording = read("out.mkv");
    EXPECT_EQ(recording.pictures.size(), 101u); // with the newest at the start
    expectExact(recording, 4);
    EXPECT_EQ(recording.samples.size(), 101u * OwnStore::samplesAFrame * 2);
    EXPECT_EQ(recording.originUs, recording.pictures.at(0).code->timestampUs);
    EXPECT_NE(recorder.output().find("out.mkv: 101 frames, 00:00:04.040 of sound, 00:00:04.040"),
              std::string::npos)
        << recorder.output();
    EXPECT_NE(recorder.output().find(" 0 lost"), std::string::npos) << recorder.output();
    EXPECT_FALSE(isThere("out.mkv.part"));
    EXPECT_EQ(store.stats().frames_dropped, 0u);
}

TEST_F(ZevshmRecord, aPublishedFileIsRecordedWhole)
{
    MediaPlan plan;
    plan.frames = 60;
    const std::string media = file("media.mkv");
    ASSERT_TRUE(writeMedia(media, plan));
    Zevshm recorder(
        std::vector<std::string>{"record", "cam", file("out.mkv"), "--wait", "60", "--return", "0"} +
        lossless);
    Zevshm publisher({"publish", "cam", media, "--history", "100"});
    const Reader reader = openStore("cam");
    ASSERT_TRUE(reader) << publisher.errors();
    // A machine that is not in time for a frame publishes one less: what counts is what the store had. All of
    // it is in the history.
    std::set<int64_t> timestamps;
    waitFor([&] {
        long long held[SHM_FRAMES_MAX];
        const int count = shm_reader_get_video_timestamps(reader.get(), held, SHM_FRAMES_MAX);
        timestamps.insert(held, held + std::max(count, 0));
        return count < 0;
    });
    const uint64_t published = storeInfo(reader.get()).frames_published;
    EXPECT_EQ(publisher.wait(), 0) << publisher.errors();
    EXPECT_EQ(recorder.wait(), 0) << recorder.errors();
    const Recording recording = read("out.mkv");
    EXPECT_GT(published, 30u);
    EXPECT_EQ(recording.pictures.size(), published);
    ASSERT_FALSE(recording.pictures.empty());
    // Each has its own timestamp of the store, rounded to milliseconds.
    std::optional<int64_t> lastNumber;
    for (const auto &picture : recording.pictures) {
        ASSERT_TRUE(picture.code);
        EXPECT_GT(int64_t{picture.code->frameNumber}, lastNumber.value_or(-1));
        lastNumber = picture.code->frameNumber;
        const auto next = timestamps.lower_bound(recording.originUs + picture.us - 1000);
        ASSERT_NE(next, timestamps.end()) << *lastNumber;
        EXPECT_LE(*next, recording.originUs + picture.us + 1000) << *lastNumber;
        timestamps.erase(timestamps.begin(), std::next(next));
    }
    if (!publisher.errors().empty())
        GTEST_SKIP() << "the sound is not looked at: the machine was too slow for the publisher: "
                     << publisher.errors();
    const ToneGenerator tones(OwnStore::sampleRate, 2);
    int compared = 0;
    for (const auto &picture : recording.pictures) {
        const int64_t number = picture.code->frameNumber;
        EXPECT_NEAR(static_cast<double>(picture.us), static_cast<double>(number * OwnStore::intervalUs),
                    1000);
        const int64_t sample = picture.us * OwnStore::sampleRate / 1000000;
        if (sample * 2 + 200 > static_cast<int64_t>(recording.samples.size()))
            continue;
        const std::vector<int16_t> got(recording.samples.begin() + sample * 2,
                                       recording.samples.begin() + sample * 2 + 200);
        bool isFound = false; // timestamps are rounded to milliseconds, and to samples
        for (int shift = -50; shift <= 50 && !isFound; ++shift) {
            std::vector<int16_t> wanted(200);
            tones.tones(wanted.data(), 100, number * OwnStore::samplesAFrame + shift);
            isFound = got == wanted;
        }
        EXPECT_TRUE(isFound) << "the sound of frame " << number << " is not there";
        ++compared;
    }
    EXPECT_GT(compared, 30);
}

TEST_F(ZevshmRecord, theBeepIsWithTheFlash)
{
    // The second has its sound late: what is measured can be told from what is not.
    for (const auto &[name, offset, container] :
         {std::tuple("cam", 0, ".mkv"), std::tuple("late", 200, ".mp4")}) {
        Zevshm publisher(
            {"publish", name, "test:avsync", "--size", "320x240", "--av-offset", std::to_string(offset)});
        ASSERT_TRUE(openStore(name)) << publisher.errors();
        const std::string out = std::string("out") + container;
        Zevshm recorder({"record", name, file(out), "--seconds", "3.5"});
        EXPECT_EQ(recorder.wait(60000), 0) << recorder.errors();
        const Recording recording = read(out);
        const std::vector<int64_t> flashes = recording.flashes();
        const std::vector<int64_t> beeps = recording.beeps();
        int matched = 0;
        for (const int64_t flash : flashes) {
            for (const int64_t beep : beeps) {
                if (std::abs(beep - flash) > 450000)
                    continue;
                ++matched;
                EXPECT_NEAR(static_cast<double>(beep - flash) / 1000, offset, 40) << out;
            }
        }
        EXPECT_GE(matched, 2) << out << ": " << flashes.size() << " flashes, " << beeps.size() << " beeps";
        EXPECT_LE(recording.pictures.size(), 88u);
        const double soundSeconds =
            static_cast<double>(recording.samples.size()) / recording.channels / recording.sampleRate;
        EXPECT_NEAR(soundSeconds, 3.5, 0.1) << out;
        EXPECT_GT(recording.originUs, 0) << out;
    }
}

TEST_F(ZevshmRecord, theWriterIsNotDisturbed)
{
    OwnStore store("cam", 640, 480);
    store.publish();
    Zevshm recorder(std::vector<std::string>{"record", "cam", file("out.mkv")} + lossless);
    ASSERT_TRUE(waitForFile("out.mkv.part")) << recorder.errors();
    int most = 0;
    for (int i = 0; i < 100; ++i) {
        store.publish(1, 5);
        most = std::max(most, store.stats().locks_held);
    }
    EXPECT_LE(most, 1);
    // Stopped in the middle of anything, it holds one frame at most.
    recorder.signal(SIGSTOP);
    store.publish(60, 2);
    EXPECT_LE(store.stats().locks_held, 1);
    EXPECT_EQ(store.stats().frames_dropped, 0u);
    EXPECT_EQ(store.stats().slots_replaced, 0u);
    recorder.signal(SIGCONT);
    store.publish(20, 5);
    recorder.signal(SIGINT);
    EXPECT_EQ(recorder.wait(), 0) << recorder.errors();
    // What it slept through is counted as lost, and what it has is right.
    const Recording recording = read("out.mkv");
    std::set<uint32_t> numbers;
    const int64_t originUs = recording.pictures.at(0).code->timestampUs;
    for (const auto &picture : recording.pictures) {
        ASSERT_TRUE(picture.code);
        numbers.insert(picture.code->frameNumber);
        EXPECT_EQ(picture.us, picture.code->timestampUs - originUs);
    }
    const size_t lost = static_cast<size_t>(store.number()) - numbers.size();
    EXPECT_GT(lost, 0u);
    EXPECT_NE(recorder.output().find(", " + std::to_string(lost) + " lost"), std::string::npos)
        << recorder.output() << numbers.size();
    EXPECT_NE(recorder.errors().find(std::to_string(lost) + " frames lost"), std::string::npos)
        << recorder.errors();
}

TEST_F(ZevshmRecord, aWriterThatComesBackIsInTheNextFile)
{
    auto store = std::make_unique<OwnStore>("cam", 320, 240);
    store->publish();
    Zevshm recorder(std::vector<std::string>{"record", "cam", file("out.mkv"), "--return", "60"} + lossless);
    ASSERT_TRUE(waitForFile("out.mkv.part")) << recorder.errors();
    store->publish(20);
    ASSERT_TRUE(waitForCapture(recorder)); // what goes with the store
    store.reset();
    store = std::make_unique<OwnStore>("cam", 160, 120);
    store->publish(15);
    ASSERT_TRUE(waitForReader(*store));
    store->publish(5);
    ASSERT_TRUE(waitForFile("out-2.mkv.part")) << recorder.errors();
    recorder.signal(SIGTERM);
    EXPECT_EQ(recorder.wait(), 0) << recorder.errors();
    EXPECT_NE(recorder.errors().find("cam: goes on in " + file("out-2.mkv")), std::string::npos)
        << recorder.errors();
    const Recording first = read("out.mkv");
    EXPECT_EQ(first.pictures.size(), 21u);
    expectExact(first, 0);
    const Recording second = read("out-2.mkv");
    EXPECT_EQ(second.pictures.size(), 20u); // from its beginning on
    expectExact(second, 0);
    EXPECT_EQ(second.pictures.at(0).width, 160);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // they need descriptors of their own
TEST_F(ZevshmRecord, aFileIsCompletedWhenTheStoreCannotBeOpenedAgain)
{
    auto store = std::make_unique<OwnStore>("cam", 320, 240);
    store->publish();
    Zevshm recorder({"record", "cam", file("out.mp4"), "--return", "60"});
    ASSERT_TRUE(waitForFile("out.mp4.part")) << recorder.errors();
    store->publish(30);
    ASSERT_TRUE(waitForCapture(recorder));
    const rlimit few = {3, 3}; // for what it opens from now on
    ASSERT_EQ(prlimit(recorder.pid(), RLIMIT_NOFILE, &few, nullptr), 0);
    store.reset();
    store = std::make_unique<OwnStore>("cam", 320, 240);
    EXPECT_EQ(recorder.wait(), 7) << recorder.errors();
    EXPECT_NE(recorder.errors().find("what was recorded until then is in " + file("out.mp4") + "\n"),
              std::string::npos)
        << recorder.errors();
    EXPECT_NE(recorder.output().find("out.mp4: 31 frames"), std::string::npos) << recorder.output();
    EXPECT_FALSE(isThere("out.mp4.part"));
    EXPECT_EQ(read("out.mp4").pictures.size(), 31u);
}
#endif

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // they allocate in their own way
TEST_F(ZevshmRecord, aFileIsCompletedWhenMemoryRunsOut)
{
    OwnStore store("cam", 640, 480);
    store.publish();
    // An encoder that is too slow, but keeps no frames: what is captured waits.
    Zevshm recorder({"record", "cam", file("out.mp4"), "--video-options",
                     "preset=slower:tune=zerolatency:threads=1:refs=1", "--no-audio"});
    ASSERT_TRUE(waitForFile("out.mp4.part")) << recorder.errors();
    for (int i = 0; i < 5; ++i) { // it has what it needs after these
        const auto size = [&] { return std::filesystem::file_size(file("out.mp4.part")); };
        const auto before = size();
        store.publish();
        ASSERT_TRUE(waitFor([&] { return size() > before; }));
    }
    std::ifstream statm("/proc/" + std::to_string(recorder.pid()) + "/statm");
    rlim_t pages = 0;
    ASSERT_TRUE(statm >> pages);
    const rlim_t bytes = pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + (20u << 20);
    const rlimit limit = {bytes, bytes};
    ASSERT_EQ(prlimit(recorder.pid(), RLIMIT_AS, &limit, nullptr), 0);
    for (int i = 0; i < 2000 && waitsOfCapture(recorder); ++i)
        store.publish(1, 2);
    EXPECT_EQ(recorder.wait(90000), 7) << recorder.errors();
    EXPECT_NE(recorder.errors().find("not enough memory"), std::string::npos) << recorder.errors();
    EXPECT_NE(recorder.errors().find("what was recorded until then is in " + file("out.mp4") + "\n"),
              std::string::npos)
        << recorder.errors();
    EXPECT_FALSE(isThere("out.mp4.part"));
    EXPECT_GT(read("out.mp4").pictures.size(), 5u);
}
#endif

TEST_F(ZevshmRecord, whatAWriterTakesWithItIsCounted)
{
    auto store = std::make_unique<OwnStore>("cam", 320, 240);
    store->publish();
    Zevshm recorder({"record", "cam", file("out.mkv"), "--return", "0"});
    ASSERT_TRUE(waitForFile("out.mkv.part")) << recorder.errors();
    store->publish(10);
    ASSERT_TRUE(waitForCapture(recorder));
    ASSERT_TRUE(stop(recorder));
    store->publish(7, 0);
    store.reset();
    recorder.signal(SIGCONT);
    EXPECT_EQ(recorder.wait(), 0) << recorder.errors();
    EXPECT_NE(recorder.output().find("out.mkv: 11 frames"), std::string::npos) << recorder.output();
    EXPECT_NE(recorder.output().find(", 7 lost\n"), std::string::npos) << recorder.output();
    EXPECT_NE(recorder.errors().find("the last 7 frames lost, because the writer ended"), std::string::npos)
        << recorder.errors();
}

TEST_F(ZevshmRecord, whatIsPublishedBeforeItIsBackIsCounted)
{
    Zevshm publisher({"publish", "cam", "test:", "--size", "320x240", "--history", "4"});
    Zevshm recorder({"record", "cam", file("out.mkv"), "--wait", "60", "--return", "60"});
    ASSERT_TRUE(waitForFile("out.mkv.part")) << recorder.errors();
    // A writer that is stopped is as good as gone, but goes on in the same session.
    publisher.signal(SIGSTOP);
    ASSERT_TRUE(waitFor([&] { return !waitsOfCapture(recorder); }));
    ASSERT_TRUE(stop(recorder));
    publisher.signal(SIGCONT);
    const Reader reader = openStore("cam");
    ASSERT_TRUE(reader);
    const uint64_t before = storeInfo(reader.get()).frames_published;
    ASSERT_TRUE(waitForFrames(reader.get(), before + 40)); // more than are held
    recorder.signal(SIGCONT);
    ASSERT_TRUE(waitFor([&] { return waitsOfCapture(recorder).has_value(); }));
    ASSERT_TRUE(waitForCapture(recorder));
    recorder.signal(SIGINT);
    EXPECT_EQ(recorder.wait(), 0) << recorder.errors();
    EXPECT_FALSE(isThere("out-2.mkv"));
    const std::string output = recorder.output();
    const size_t at = output.rfind(", ");
    ASSERT_NE(at, std::string::npos);
    EXPECT_GE(std::atol(output.c_str() + at + 2), 20) << output;
}

TEST_F(ZevshmRecord, aJumpOfTheTimestampsBeginsANewFile)
{
    OwnStore store("cam", 320, 240);
    store.publish();
    Zevshm recorder(std::vector<std::string>{"record", "cam", file("out.mkv")} + lossless);
    ASSERT_TRUE(waitForFile("out.mkv.part")) << recorder.errors();
    store.publish(10);
    ASSERT_TRUE(waitForCapture(recorder)); // the sound, which is out of its ring after this
    store.skip(60000000);
    store.publish(10);
    ASSERT_TRUE(waitForFile("out-2.mkv.part")) << recorder.errors();
    recorder.signal(SIGINT);
    EXPECT_EQ(recorder.wait(), 0) << recorder.errors();
    const Recording first = read("out.mkv");
    EXPECT_EQ(first.pictures.size(), 11u);
    const Recording second = read("out-2.mkv");
    ASSERT_EQ(second.pictures.size(), 10u);
    expectExact(second, 11);
    EXPECT_EQ(second.originUs - first.originUs, 11 * OwnStore::intervalUs + 60000000);
    // A shorter one is a gap: the picture stands still and the sound is silent.
    EXPECT_NE(recorder.errors().find("jumped"), std::string::npos) << recorder.errors();
}

TEST_F(ZevshmRecord, aGapIsSilent)
{
    OwnStore store("cam", 320, 240);
    store.publish();
    Zevshm recorder(std::vector<std::string>{"record", "cam", file("out.mkv")} + lossless);
    ASSERT_TRUE(waitForFile("out.mkv.part")) << recorder.errors();
    store.publish(10);
    ASSERT_TRUE(waitForCapture(recorder)); // the sound, which is out of its ring after this
    store.skip(5000000);
    store.publish(10);
    recorder.signal(SIGINT);
    EXPECT_EQ(recorder.wait(), 0) << recorder.errors();
    EXPECT_FALSE(isThere("out-2.mkv"));
    const Recording recording = read("out.mkv");
    ASSERT_EQ(recording.pictures.size(), 21u);
    EXPECT_EQ(recording.pictures[11].us, 11 * OwnStore::intervalUs + 5000000);
    const size_t before = size_t{11} * OwnStore::samplesAFrame * 2;
    const size_t gap = size_t{5} * OwnStore::sampleRate * 2;
    ASSERT_EQ(recording.samples.size(), before + gap + size_t{10} * OwnStore::samplesAFrame * 2);
    std::vector<int16_t> wanted(size_t{21} * OwnStore::samplesAFrame * 2);
    ToneGenerator(OwnStore::sampleRate, 2).tones(wanted.data(), 21 * OwnStore::samplesAFrame, 0);
    wanted.insert(wanted.begin() + static_cast<ptrdiff_t>(before), gap, 0);
    EXPECT_EQ(recording.samples, wanted);
}

TEST_F(ZevshmRecord, everyStreamOfSoundIsATrack)
{
    OwnStore store("cam", 320, 240, {true, 3});
    store.publish();
    Zevshm recorder(std::vector<std::string>{"record", "cam", file("out.mkv")} + lossless);
    ASSERT_TRUE(waitForFile("out.mkv.part")) << recorder.errors();
    store.publish(20);
    recorder.signal(SIGINT);
    EXPECT_EQ(recorder.wait(), 0) << recorder.errors();
    const Recording recording = read("out.mkv");
    EXPECT_EQ(recording.tracks, 3);
    expectExact(recording, 0);
}

TEST_F(ZevshmRecord, soundAlone)
{
    OwnStore store("radio", 0, 0, {false, 1});
    store.publish();
    Zevshm recorder({"record", "radio", file("out.wav"), "--seconds", "1"});
    ASSERT_TRUE(waitForReader(store)) << recorder.errors();
    for (int i = 0; i < 1000 && recorder.running(); ++i)
        store.publish(1);
    EXPECT_EQ(recorder.wait(), 0) << recorder.errors();
    const Recording recording = read("out.wav");
    EXPECT_TRUE(recording.pictures.empty());
    ASSERT_EQ(recording.samples.size(), size_t{OwnStore::sampleRate} * 2);
    // It is the store's, from some sample on.
    const ToneGenerator tones(OwnStore::sampleRate, 2);
    bool isFound = false;
    for (int first = 0; first < store.number() * OwnStore::samplesAFrame && !isFound; ++first) {
        int16_t wanted[64];
        tones.tones(wanted, 32, first);
        if (!std::equal(wanted, wanted + 64, recording.samples.begin()))
            continue;
        std::vector<int16_t> all(recording.samples.size());
        tones.tones(all.data(), OwnStore::sampleRate, first);
        isFound = all == recording.samples;
    }
    EXPECT_TRUE(isFound);
}

TEST_F(ZevshmRecord, whatIsKilledDoesNotLookComplete)
{
    OwnStore store("cam", 320, 240);
    store.publish();
    Zevshm recorder({"record", "cam", file("out.mkv")});
    ASSERT_TRUE(waitForFile("out.mkv.part")) << recorder.errors();
    store.publish(20);
    recorder.signal(SIGKILL);
    EXPECT_EQ(recorder.wait(), 128 + SIGKILL);
    EXPECT_FALSE(isThere("out.mkv"));
    EXPECT_TRUE(isThere("out.mkv.part"));
    ASSERT_TRUE(waitFor([&] { return store.stats().readers == 0 && store.stats().locks_held == 0; }));
    // It may be all that there is of something: the next one leaves it alone.
    const Result again = run({"record", "cam", file("out.mkv")});
    EXPECT_EQ(again.code, 10);
    EXPECT_NE(again.errors.find("out.mkv.part: is there from a recording"), std::string::npos)
        << again.errors;
    Zevshm replacing(std::vector<std::string>{"record", "cam", file("out.mkv"), "--overwrite"} + lossless);
    ASSERT_TRUE(waitForReader(store));
    waitFor([&] { return !replacing.running() || store.stats().readers > 0; });
    store.publish(30);
    replacing.signal(SIGHUP);
    EXPECT_EQ(replacing.wait(), 0) << replacing.errors();
    EXPECT_FALSE(isThere("out.mkv.part"));
    EXPECT_GT(read("out.mkv").pictures.size(), 1u);
}

TEST_F(ZevshmRecord, aFullDiskIsToldAndNothingClaimed)
{
    OwnStore store("cam", 320, 240);
    store.publish();
    Zevshm recorder({"record", "cam", file("out.mkv"), "--video-codec", "rawvideo"});
    const rlimit limit = {400000, 400000};
    ASSERT_EQ(prlimit(recorder.pid(), RLIMIT_FSIZE, &limit, nullptr), 0);
    ASSERT_TRUE(waitForReader(store)) << recorder.errors();
    for (int i = 0; i < 2000 && recorder.running(); ++i)
        store.publish(1, 5);
    EXPECT_EQ(recorder.wait(), 10);
    EXPECT_NE(recorder.errors().find("out.mkv: cannot be written (File too large); raise 'ulimit -f'"),
              std::string::npos)
        << recorder.errors();
    EXPECT_NE(recorder.errors().find("what was recorded until then is in " + file("out.mkv.part")),
              std::string::npos)
        << recorder.errors();
    EXPECT_EQ(recorder.output(), "");
    EXPECT_FALSE(isThere("out.mkv"));
    EXPECT_TRUE(isThere("out.mkv.part"));
}

TEST_F(ZevshmRecord, whatCannotBeIsRefusedAtOnce)
{
    const auto expectFailure = [](const Result &result, int code, const std::string &mentions) {
        EXPECT_EQ(result.code, code) << result.errors;
        EXPECT_EQ(result.output, "");
        EXPECT_EQ(std::count(result.errors.begin(), result.errors.end(), '\n'), 1) << result.errors;
        EXPECT_NE(result.errors.find(mentions), std::string::npos) << result.errors;
    };
    OwnStore store("cam", 321, 241);
    store.publish(3);
    expectFailure(run({"record", "cam"}), 2, "FILE is missing");
    expectFailure(run({"record", "cam", file("x.mkv"), "--seconds", "0"}), 2, "--seconds");
    expectFailure(run({"record", "cam", file("x.mkv"), "--no-video", "--no-audio"}), 2, "--no-video");
    expectFailure(run({"record", "cam", file("x.xyz")}), 2, "name it .mkv or .mp4");
    expectFailure(run({"record", "cam", file("x.mkv"), "--container", "nothing"}), 2, "'nothing'");
    expectFailure(run({"record", "cam", file("x.mkv"), "--video-codec", "nothing"}), 2, "'nothing'");
    expectFailure(run({"record", "cam", file("x.mkv"), "--video-codec", "aac"}), 2, "'aac'");
    expectFailure(run({"record", "cam", file("x.mkv"), "--video-options", "fast"}), 2, "--video-options");
    expectFailure(run({"record", "cam", file("x.mkv"), "--video-codec", "ffv1", "--video-options", "fast=1"}),
                  2, "'fast'");
    expectFailure(run({"record", "cam", file("x.mkv")}), 2, "--video-codec ffv1"); // x264 takes even sizes
    expectFailure(run({"record", "cam", file("x.avi")}), 2, "time of every frame");
    expectFailure(run({"record", "cam", file("x.wav")}), 2, "--no-video");
    expectFailure(run({"record", "a/b", file("x.mkv")}), 3, "store name");
    expectFailure(run({"record", "nobody", file("x.mkv")}), 4, "nobody");
    expectFailure(run({"record", "cam", file("no/such/folder.mkv")}), 10, "folder.mkv");
    expectFailure(run({"record", "cam", stores.path()}), 2, "name it .mkv");
    ASSERT_EQ(mkdir(file("folder.mkv").c_str(), 0700), 0);
    expectFailure(run({"record", "cam", file("folder.mkv")}), 10, "name a file");
    std::ofstream(file("old.mkv")) << "precious";
    expectFailure(run({"record", "cam", file("old.mkv")}), 10, "--overwrite");
    EXPECT_EQ(std::filesystem::file_size(file("old.mkv")), 8u);
    for (const auto &entry : std::filesystem::directory_iterator(stores.path()))
        EXPECT_NE(entry.path().extension(), ".part") << entry.path();
}

TEST_F(ZevshmRecord, aStoreThatPublishesNothingLeavesNoFile)
{
    OwnStore store("cam", 320, 240);
    const Result result = run({"record", "cam", file("out.mkv"), "--seconds", "0.1"});
    EXPECT_EQ(result.code, 11);
    EXPECT_NE(result.errors.find("published nothing"), std::string::npos) << result.errors;
    EXPECT_FALSE(isThere("out.mkv"));
    EXPECT_FALSE(isThere("out.mkv.part"));
    OwnStore mute("mute", 320, 240, {true, 0});
    mute.publish();
    EXPECT_EQ(run({"record", "mute", file("out.mkv"), "--no-video"}).code, 11);
}

TEST_F(ZevshmRecord, aTerminalShowsHowFarItIs)
{
    const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(master, 0);
    ASSERT_EQ(grantpt(master), 0);
    ASSERT_EQ(unlockpt(master), 0);
    const int slave = open(ptsname(master), O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(slave, 0);
    fcntl(master, F_SETFL, O_NONBLOCK);
    OwnStore store("cam", 320, 240);
    store.publish();
    Zevshm recorder({"record", "cam", file("out.mkv")}, -1, slave);
    std::string shown;
    EXPECT_TRUE(waitFor([&] {
        store.publish(1, 5);
        char text[1000];
        const ssize_t got = ::read(master, text, sizeof text);
        if (got > 0)
            shown.append(text, static_cast<size_t>(got));
        return shown.find(" frames, 0 lost, ") != std::string::npos;
    })) << shown;
    recorder.signal(SIGINT);
    EXPECT_EQ(recorder.wait(), 0);
    close(slave);
    close(master);
}
