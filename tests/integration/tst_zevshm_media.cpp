// Media files: cadence, colors, loops, scaling, pipes, pictures.
#include "zevshm_driver.h"
#include "zevshm_media.h"

#include "ffmpeg.h"

#include <zevshm-pattern/blockcode.h>

#include <gtest/gtest.h>

#include <cmath>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using namespace driver;
using namespace zevshm;

namespace {

class ZevshmMedia : public testing::Test
{
protected:
    StoreDirectory stores;
    std::string media(const MediaPlan &plan)
    {
        const std::string path = stores.file("media.mkv");
        EXPECT_TRUE(writeMedia(path, plan));
        return path;
    }
};

std::optional<BlockCode> code(const shm_video_frame_t &frame)
{
    return decodeBlockCode(frame.planes[0], frame.strides[0], frame.width, frame.height);
}

// A store's frame in full-range RGB, computed here from the definition of the matrix.
std::vector<uint8_t> toRgb(const shm_video_frame_t &frame, bool nv12, Matrix matrix, bool limited)
{
    const double kr = matrix == Matrix::Bt601 ? 0.299 : 0.2126;
    const double kb = matrix == Matrix::Bt601 ? 0.114 : 0.0722;
    std::vector<uint8_t> rgb;
    for (int y = 0; y < frame.height; ++y) {
        for (int x = 0; x < frame.width; ++x) {
            double luma = frame.planes[0][y * frame.strides[0] + x];
            double u = nv12 ? frame.planes[1][y / 2 * frame.strides[1] + x / 2 * 2]
                            : frame.planes[1][y / 2 * frame.strides[1] + x / 2];
            double v = nv12 ? frame.planes[1][y / 2 * frame.strides[1] + x / 2 * 2 + 1]
                            : frame.planes[2][y / 2 * frame.strides[2] + x / 2];
            u -= 128;
            v -= 128;
            if (limited) {
                luma = (luma - 16) * 255 / 219;
                u *= 255.0 / 224;
                v *= 255.0 / 224;
            }
            const double r = luma + 2 * (1 - kr) * v;
            const double b = luma + 2 * (1 - kb) * u;
            const double g = (luma - kr * r - kb * b) / (1 - kr - kb);
            for (const double value : {r, g, b})
                rgb.push_back(static_cast<uint8_t>(std::lround(std::fmin(255, std::fmax(0, value)))));
        }
    }
    return rgb;
}

void expectSameBars(const std::vector<uint8_t> &got, const std::vector<uint8_t> &wanted, int width,
                    int height, const std::string &what)
{
    ASSERT_EQ(got.size(), wanted.size()) << what;
    for (int bar = 0; bar < TestPattern::bars; ++bar) {
        const int x0 = TestPattern::barEdge(bar, width) + 6;
        const int x1 = TestPattern::barEdge(bar + 1, width) - 6;
        const Means a = means(got, width, x0, x1, 4, height - 4);
        const Means b = means(wanted, width, x0, x1, 4, height - 4);
        EXPECT_NEAR(a.r, b.r, 2) << what << " bar " << bar;
        EXPECT_NEAR(a.g, b.g, 2) << what << " bar " << bar;
        EXPECT_NEAR(a.b, b.b, 2) << what << " bar " << bar;
        const Rgb ideal = TestPattern::barColor(bar);
        EXPECT_NEAR(a.r, ideal.r, 4) << what << " bar " << bar;
        EXPECT_NEAR(a.g, ideal.g, 4) << what << " bar " << bar;
        EXPECT_NEAR(a.b, ideal.b, 4) << what << " bar " << bar;
    }
}

// Overwrites the video packets [first, end) and leaves the container as it is. How many there were.
int damageVideo(const std::string &path, int first, int end)
{
    struct Place
    {
        int64_t at;
        int size;
    };
    std::vector<Place> places;
    {
        AVFormatContext *opened = nullptr;
        if (avformat_open_input(&opened, path.c_str(), nullptr, nullptr) < 0)
            return 0;
        const AvPtr<AVFormatContext> format(opened);
        const int video = av_find_best_stream(opened, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
        const AvPtr<AVPacket> packet(av_packet_alloc());
        for (int number = 0; av_read_frame(opened, packet.get()) == 0; av_packet_unref(packet.get())) {
            if (packet->stream_index != video)
                continue;
            if (number >= first && number < end && packet->pos >= 0)
                places.push_back({packet->pos, packet->size});
            ++number;
        }
    }
    std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
    for (const Place &place : places) {
        // A block's header comes before its payload.
        file.seekp(place.at + 16);
        file << std::string(static_cast<size_t>(place.size - 16), '\xff');
    }
    return file ? static_cast<int>(places.size()) : 0;
}

} // namespace

TEST_F(ZevshmMedia, colorsAreThoseOfFfmpegsOwnDecode)
{
    for (const Matrix matrix : {Matrix::Bt601, Matrix::Bt709}) {
        for (const bool tagged : {true, false}) {
            MediaPlan plan;
            // Untagged: 480 lines mean BT.601 and 720 lines BT.709.
            plan.width = matrix == Matrix::Bt601 ? 640 : 1280;
            plan.height = matrix == Matrix::Bt601 ? 480 : 720;
            if (tagged)
                std::tie(plan.width, plan.height) = std::pair(480, 320);
            plan.kind = PatternKind::Bars;
            plan.matrix = matrix;
            plan.tagMatrix = tagged;
            plan.frames = 5;
            const std::string path = media(plan);
            const std::vector<uint8_t> wanted = decodeFirstFrame(path, matrix);
            for (const char *format : {"yuv420p", "nv12"}) {
                for (const bool keepRange : {false, true}) {
                    const std::string what = std::string(format) +
                                             (matrix == Matrix::Bt601 ? " 601" : " 709") +
                                             (tagged ? " tagged" : "") + (keepRange ? " kept" : "");
                    std::vector<std::string> arguments = {"publish", "cam",      path,
                                                          "--loop",  "--format", format};
                    if (keepRange)
                        arguments.push_back("--keep-range");
                    Zevshm publisher(arguments);
                    const Reader reader = openStore("cam");
                    ASSERT_TRUE(waitForFrames(reader.get(), 1)) << publisher.errors();
                    const Frame frame(reader.get());
                    ASSERT_TRUE(frame);
                    const shm_store_info_t status = storeInfo(reader.get());
                    EXPECT_EQ(status.color.matrix,
                              matrix == Matrix::Bt601 ? SHM_MATRIX_BT601 : SHM_MATRIX_BT709)
                        << what;
                    EXPECT_EQ(status.color.range, keepRange ? SHM_RANGE_LIMITED : SHM_RANGE_FULL) << what;
                    expectSameBars(toRgb(*frame, std::string(format) == "nv12", matrix, keepRange), wanted,
                                   plan.width, plan.height, what);
                    if (!keepRange) { // white and black are at the ends of the range
                        EXPECT_GE(frame->planes[0][50 * frame->strides[0] + 8], 254) << what;
                        EXPECT_LE(frame->planes[0][50 * frame->strides[0] + plan.width - 8], 1) << what;
                    }
                    // The picture that the tool writes itself.
                    const std::string png = stores.file("shot.png");
                    ASSERT_EQ(run({"snapshot", "cam", png}).code, 0);
                    expectSameBars(decodeFirstFrame(png, matrix), wanted, plan.width, plan.height,
                                   what + " png");
                }
            }
        }
    }
}

TEST_F(ZevshmMedia, loopsWithoutAGapInPictureAndSound)
{
    MediaPlan plan;
    plan.frames = 10; // 0.4 s
    Zevshm publisher({"publish", "cam", media(plan), "--loop", "--history", "60"});
    const Reader reader = openStore("cam");
    ASSERT_TRUE(waitForFrames(reader.get(), 45)) << publisher.errors();
    long long stamps[SHM_FRAMES_MAX];
    const int held = shm_reader_get_video_timestamps(reader.get(), stamps, SHM_FRAMES_MAX);
    ASSERT_GE(held, 40);
    std::set<uint32_t> numbers;
    for (int i = 0; i < held; ++i) {
        const Frame frame(reader.get(), stamps[i], SHM_VIDEO_EXACT);
        if (!frame)
            continue; // has left the history meanwhile
        const auto read = code(*frame);
        ASSERT_TRUE(read);
        numbers.insert(read->frameNumber);
        if (i > 0) {
            // A frame may be left out on a starved machine; what comes is on the cadence.
            EXPECT_EQ((stamps[i] - stamps[i - 1]) % 40000, 0) << i;
        }
    }
    EXPECT_EQ(numbers.size(), 10u);

    shm_audio_status_t audio{};
    ASSERT_TRUE(waitFor(
        [&] { return shm_reader_get_audio_status(reader.get(), 0, &audio) == 0 && audio.frames >= 72000; }));
    std::vector<int16_t> samples(2 * 62400); // 1.3 s: three seams
    ASSERT_EQ(shm_reader_query_audio2(reader.get(), 0, samples.data(), 1, 62400,
                                      audio.newest_timestamp - 1400000, -1),
              1);
    int silent = 0;
    int longestSilence = 0;
    for (size_t i = 0; i < 62400; ++i) {
        silent = samples[2 * i] == 0 && samples[2 * i + 1] == 0 ? silent + 1 : 0;
        longestSilence = std::max(longestSilence, silent);
    }
    EXPECT_LT(longestSilence, 48) << "a hole in the sound at the seam";
}

TEST_F(ZevshmMedia, endsWithTheFileAndRemovesTheStore)
{
    MediaPlan plan;
    plan.frames = 12;
    Zevshm publisher({"publish", "cam", media(plan)});
    const Reader reader = openStore("cam");
    ASSERT_TRUE(reader);
    EXPECT_EQ(publisher.wait(), 0);
    EXPECT_EQ(publisher.errors(), "");
    EXPECT_EQ(shm_reader_is_ready(reader.get()), 0);
    EXPECT_FALSE(stores.hasSocket("cam"));
}

TEST_F(ZevshmMedia, declaresTheRateOfTheContainer)
{
    MediaPlan plan;
    plan.rate = 50;
    plan.frames = 50;
    Zevshm publisher({"publish", "cam", media(plan), "--loop"});
    const Reader reader = openStore("cam");
    ASSERT_TRUE(reader);
    const shm_store_info_t status = storeInfo(reader.get());
    EXPECT_DOUBLE_EQ(static_cast<double>(status.rate_numerator) / status.rate_denominator, 50);
}

TEST_F(ZevshmMedia, repeatsFramesForAHigherRate)
{
    MediaPlan plan;
    plan.frames = 25;
    Zevshm publisher({"publish", "cam", media(plan), "--loop", "--fps", "50", "--history", "60"});
    const Reader reader = openStore("cam");
    ASSERT_TRUE(waitForFrames(reader.get(), 40)) << publisher.errors();
    EXPECT_EQ(storeInfo(reader.get()).frame_interval_us, 20000);
    long long stamps[SHM_FRAMES_MAX];
    const int held = shm_reader_get_video_timestamps(reader.get(), stamps, SHM_FRAMES_MAX);
    std::vector<uint32_t> numbers;
    for (int i = 0; i < held; ++i) {
        const Frame frame(reader.get(), stamps[i], SHM_VIDEO_EXACT);
        if (frame)
            numbers.push_back(code(*frame)->frameNumber);
    }
    size_t repeated = 0;
    for (size_t i = 1; i < numbers.size(); ++i)
        repeated += numbers[i] == numbers[i - 1];
    EXPECT_NEAR(static_cast<double>(repeated), static_cast<double>(numbers.size()) / 2, 6);
}

TEST_F(ZevshmMedia, scalesToTheSizeAskedFor)
{
    MediaPlan plan;
    plan.width = 640;
    plan.height = 480;
    Zevshm publisher({"publish", "cam", media(plan), "--loop", "--size", "322x242", "--format", "nv12"});
    const Reader reader = openStore("cam");
    ASSERT_TRUE(waitForFrames(reader.get(), 1)) << publisher.errors();
    const Frame frame(reader.get());
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->width, 322);
    EXPECT_EQ(frame->height, 242);
    EXPECT_TRUE(code(*frame));
}

TEST_F(ZevshmMedia, resamplesSound)
{
    Zevshm publisher({"publish", "cam", media({}), "--loop", "--audio-rate", "44100", "--audio-channels", "1",
                      "--no-video"});
    const Reader reader = openStore("cam");
    ASSERT_TRUE(reader);
    shm_reader_format_t format{};
    ASSERT_EQ(shm_reader_get_format(reader.get(), &format), 0);
    EXPECT_EQ(format.has_video, 0);
    EXPECT_EQ(format.sample_rate, 44100);
    EXPECT_EQ(format.channels, 1);
    shm_audio_status_t audio{};
    EXPECT_TRUE(waitFor(
        [&] { return shm_reader_get_audio_status(reader.get(), 0, &audio) == 0 && audio.frames >= 22050; }));
}

TEST_F(ZevshmMedia, readsStandardInputAndFifos)
{
    MediaPlan plan;
    plan.frames = 25;
    const std::string path = media(plan);
    const auto feed = [&path](int fd) {
        std::ifstream file(path, std::ios::binary);
        std::vector<char> bytes((std::istreambuf_iterator<char>(file)), {});
        for (size_t at = 0; at < bytes.size();) {
            const ssize_t written = write(fd, bytes.data() + at, bytes.size() - at);
            if (written <= 0)
                break;
            at += static_cast<size_t>(written);
        }
        close(fd);
    };
    std::signal(SIGPIPE, SIG_IGN);
    {
        int ends[2];
        ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
        Zevshm publisher({"publish", "cam", "-"}, ends[0]);
        close(ends[0]);
        std::thread feeder(feed, ends[1]);
        const Reader reader = openStore("cam");
        EXPECT_TRUE(reader && waitForFrames(reader.get(), 5)) << publisher.errors();
        EXPECT_EQ(publisher.wait(), 0);
        feeder.join();
    }
    const std::string fifo = stores.file("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    {
        Zevshm publisher({"publish", "cam", fifo});
        std::thread feeder([&] { feed(open(fifo.c_str(), O_WRONLY | O_CLOEXEC)); });
        const Reader reader = openStore("cam");
        EXPECT_TRUE(reader && waitForFrames(reader.get(), 5)) << publisher.errors();
        EXPECT_EQ(publisher.wait(), 0);
        feeder.join();
    }
    {
        // A pipe that nothing comes through is left at once.
        Zevshm publisher({"publish", "cam", fifo});
        int writer = -1; // can be opened as soon as the publisher reads
        ASSERT_TRUE(
            waitFor([&] { return (writer = open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC)) >= 0; }));
        publisher.signal(SIGINT);
        EXPECT_EQ(publisher.wait(), 0);
        close(writer);
    }
}

TEST_F(ZevshmMedia, truncatedFileEndsWithItsLastFrame)
{
    const std::string path = media({});
    struct stat status
    {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    ASSERT_EQ(truncate(path.c_str(), status.st_size / 2), 0);
    Zevshm publisher({"publish", "cam", path});
    const Reader reader = openStore("cam");
    ASSERT_TRUE(reader && waitForFrames(reader.get(), 3)) << publisher.errors();
    EXPECT_EQ(publisher.wait(), 0);
}

// A machine that is busy makes the publisher say that it came late, too.
std::string withoutLateness(const std::string &errors)
{
    std::istringstream lines(errors);
    std::string rest;
    for (std::string line; std::getline(lines, line);)
        if (line.find("the input is slower than real time") == std::string::npos)
            rest += line + '\n';
    return rest;
}

// What is damaged is left out, the rest is published, and it is said once.
TEST_F(ZevshmMedia, damagedPartsOfAFileAreSkipped)
{
    MediaPlan plan;
    plan.frames = 30;
    const std::string path = media(plan);
    ASSERT_EQ(damageVideo(path, 10, 15), 5);
    const std::string message =
        "zevshm: " + path + ": parts are damaged and are skipped; check it with 'ffprobe'\n";
    {
        Zevshm publisher({"publish", "cam", path, "--loop"});
        const Reader reader = openStore("cam");
        ASSERT_TRUE(reader) << publisher.errors();
        // Beyond the damage, and round again.
        std::set<uint32_t> numbers;
        int rounds = 0;
        uint32_t last = 0;
        EXPECT_TRUE(waitFor([&] {
            const Frame frame(reader.get());
            const auto read = frame ? code(*frame) : std::nullopt;
            if (read) {
                numbers.insert(read->frameNumber);
                rounds += read->frameNumber < last ? 1 : 0;
                last = read->frameNumber;
            }
            return rounds >= 2 && numbers.count(29);
        })) << publisher.errors();
        EXPECT_TRUE(publisher.running());
        for (uint32_t number = 10; number < 15; ++number)
            EXPECT_EQ(numbers.count(number), 0u) << number;
        EXPECT_GE(numbers.size(), 10u); // those up to the next key frame are lost, too
        publisher.signal(SIGTERM);
        EXPECT_EQ(publisher.wait(), 0);
        EXPECT_EQ(withoutLateness(publisher.errors()), message);
    }
    const Result once = run({"publish", "cam", path});
    EXPECT_EQ(once.code, 0);
    EXPECT_EQ(withoutLateness(once.errors), message);

    // A container that is whole around pictures of which none is.
    plan.withAudio = false;
    const std::string hollow = media(plan);
    ASSERT_EQ(damageVideo(hollow, 0, 30), 30);
    const Result nothing = run({"publish", "cam", hollow});
    EXPECT_EQ(nothing.code, 9);
    EXPECT_NE(nothing.errors.find("nothing in it could be decoded"), std::string::npos) << nothing.errors;
    EXPECT_FALSE(stores.hasSocket("cam"));
}

TEST_F(ZevshmMedia, changedSizeOpensTheStoreAnew)
{
    // Two raw pictures of different sizes in a row, as a camera that is set differently sends them.
    const std::string path = stores.file("sizes.mjpeg");
    {
        std::ofstream file(path, std::ios::binary);
        for (const int width : {320, 480}) {
            const AvPtr<AVCodecContext> encoder(
                avcodec_alloc_context3(avcodec_find_encoder(AV_CODEC_ID_MJPEG)));
            encoder->width = width;
            encoder->height = 240;
            encoder->pix_fmt = AV_PIX_FMT_YUVJ420P;
            encoder->time_base = {1, 25};
            ASSERT_GE(avcodec_open2(encoder.get(), nullptr, nullptr), 0);
            const AvPtr<AVFrame> frame(av_frame_alloc());
            frame->width = width;
            frame->height = 240;
            frame->format = AV_PIX_FMT_YUVJ420P;
            ASSERT_GE(av_frame_get_buffer(frame.get(), 0), 0);
            for (int plane = 0; plane < 3; ++plane)
                std::fill_n(frame->data[plane], frame->linesize[plane] * (plane ? 120 : 240),
                            static_cast<uint8_t>(128));
            const AvPtr<AVPacket> packet(av_packet_alloc());
            for (int i = 0; i < 25; ++i) {
                frame->pts = i;
                ASSERT_GE(avcodec_send_frame(encoder.get(), frame.get()), 0);
                ASSERT_EQ(avcodec_receive_packet(encoder.get(), packet.get()), 0);
                file.write(reinterpret_cast<const char *>(packet->data), packet->size);
                av_packet_unref(packet.get());
            }
        }
    }
    const auto width = [](const std::string &store) {
        const Reader reader(shm_reader_open(store.c_str(), 200));
        shm_reader_format_t format{};
        return reader && shm_reader_get_format(reader.get(), &format) == 0 ? format.width : 0;
    };
    Zevshm publisher({"publish", "cam", path, "--loop"});
    EXPECT_TRUE(waitFor([&] { return width("cam") == 320; })) << publisher.errors();
    EXPECT_TRUE(waitFor([&] { return width("cam") == 480; })) << publisher.errors();
    EXPECT_NE(publisher.errors().find("changed to 480x240"), std::string::npos);

    Zevshm scaled({"publish", "fixed", path, "--size", "320x240"});
    const Reader reader = openStore("fixed");
    ASSERT_TRUE(reader);
    const uint64_t session = storeInfo(reader.get()).session;
    EXPECT_TRUE(waitForFrames(reader.get(), 30));
    EXPECT_EQ(storeInfo(reader.get()).session, session);
}

TEST_F(ZevshmMedia, picturesThatWereTakenSidewaysStandUpright)
{
    MediaPlan plan;
    plan.width = 480;
    plan.height = 320;
    plan.kind = PatternKind::Bars;
    plan.frames = 5;
    // Turned clockwise by a quarter, the bars run downwards from white at the top.
    plan.turnClockwise = 90;
    const std::string path = media(plan);
    for (const char *format : {"yuv420p", "nv12"}) {
        Zevshm publisher({"publish", "cam", path, "--loop", "--format", format});
        const Reader reader = openStore("cam");
        ASSERT_TRUE(waitForFrames(reader.get(), 1)) << publisher.errors();
        const Frame frame(reader.get());
        ASSERT_TRUE(frame);
        ASSERT_EQ(frame->width, 320);
        ASSERT_EQ(frame->height, 480);
        const std::vector<uint8_t> rgb = toRgb(*frame, std::string(format) == "nv12", Matrix::Bt601, false);
        for (int bar = 0; bar < TestPattern::bars; ++bar) {
            const Means seen = means(rgb, 320, 4, 316, TestPattern::barEdge(bar, 480) + 6,
                                     TestPattern::barEdge(bar + 1, 480) - 6);
            const Rgb ideal = TestPattern::barColor(bar);
            EXPECT_NEAR(seen.r, ideal.r, 4) << format << " bar " << bar;
            EXPECT_NEAR(seen.g, ideal.g, 4) << format << " bar " << bar;
            EXPECT_NEAR(seen.b, ideal.b, 4) << format << " bar " << bar;
        }
        EXPECT_EQ(publisher.errors(), "");
        publisher.signal(SIGTERM);
        EXPECT_EQ(publisher.wait(), 0);
    }
    // The other way round the first bar comes last; the size asked for is that of the upright picture.
    plan.turnClockwise = -90;
    Zevshm publisher({"publish", "left", media(plan), "--loop", "--size", "160x240"});
    const Reader reader = openStore("left");
    ASSERT_TRUE(waitForFrames(reader.get(), 1)) << publisher.errors();
    const Frame frame(reader.get());
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->width, 160);
    EXPECT_EQ(frame->height, 240);
    EXPECT_LT(frame->planes[0][10 * frame->strides[0] + 80], 10);
    EXPECT_GT(frame->planes[0][230 * frame->strides[0] + 80], 245);
}

TEST_F(ZevshmMedia, saysWhatItDoesNotPutRight)
{
    const auto said = [&](const MediaPlan &plan, const std::vector<std::string> &more = {}) {
        std::vector<std::string> arguments = {"publish", "cam", media(plan)};
        arguments.insert(arguments.end(), more.begin(), more.end());
        const Result result = run(arguments);
        EXPECT_EQ(result.code, 0);
        return result.errors;
    };
    MediaPlan plan;
    plan.frames = 3;
    EXPECT_EQ(said(plan), "");
    plan.interlaced = true;
    EXPECT_NE(said(plan).find("is interlaced"), std::string::npos);
    plan.interlaced = false;
    plan.mirrored = true;
    EXPECT_NE(said(plan).find("mirrored"), std::string::npos);
    plan.mirrored = false;
    plan.pixelAspect = 1.5;
    EXPECT_NE(said(plan).find("--size 480x240"), std::string::npos);
    EXPECT_EQ(said(plan, {"--size", "480x240"}), "");
    plan.turnClockwise = 90;
    EXPECT_NE(said(plan).find("--size 240x480"), std::string::npos);
}
