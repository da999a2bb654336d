// zevshmsrc in pipelines of this process and of others, beside writers of the store and beside zevshmsink.
#include "gstreamerrig.h"

using namespace gstreamer_rig;

namespace {

TEST_F(GStreamer, FramesAreReadWhereTheyLie)
{
    // Of this size the planes lie in the store where the format has them, which an appsink relies on.
    WriterSettings settings;
    settings.width = 512;
    settings.height = 256;
    const Owned<shm_writer_t> writer = openWriter("a", settings);
    std::optional<Pipeline> pipeline("zevshmsrc store=a ! appsink name=out sync=false");
    const Owned<shm_reader_t> reader = openReader("a");
    const int64_t begin = nowUs();
    ASSERT_TRUE(waitFor([&] {
        shm_store_info_t info = {};
        info.size = sizeof info;
        return shm_reader_get_info(reader.get(), &info) == 0 && info.readers == 2;
    }));
    publish(writer.get(), 1, begin);
    Owned<GstSample> sample = pipeline->pull();
    ASSERT_TRUE(sample);
    EXPECT_EQ(unixTimeUs(sample.get()), begin);
    // All that come after it come, in order.
    const GstClockTime first = GST_BUFFER_PTS(gst_sample_get_buffer(sample.get()));
    for (int i = 2; i <= 10; ++i) {
        publish(writer.get(), i, begin + 40000 * i);
        sample = pipeline->pull();
        ASSERT_TRUE(sample);
        const GstClockTime pts = GST_BUFFER_PTS(gst_sample_get_buffer(sample.get()));
        EXPECT_EQ((pts - first) / GST_USECOND, 40000u * static_cast<unsigned>(i)) << i;
        EXPECT_EQ(unixTimeUs(sample.get()), begin + 40000 * i);
        EXPECT_EQ(componentValue(sample.get(), 0), i);
        EXPECT_EQ(componentValue(sample.get(), 1), i + 64);
        EXPECT_EQ(componentValue(sample.get(), 2), i + 128);
        GstMemory *memory = gst_buffer_peek_memory(gst_sample_get_buffer(sample.get()), 0);
        EXPECT_TRUE(GST_MEMORY_IS_READONLY(memory));
    }
    // Its memory is the store's: what lies there is held as long as the sample is.
    const auto held = [&] {
        shm_writer_stats_t stats = {};
        stats.size = sizeof stats;
        return shm_writer_get_stats(writer.get(), &stats) == 0 ? stats.locks_held : -1;
    };
    EXPECT_TRUE(waitFor([&] { return held() == 1; })) << held();
    const GstVideoInfo video = infoOf(sample.get());
    EXPECT_EQ(video.colorimetry.matrix, GST_VIDEO_COLOR_MATRIX_BT709);
    EXPECT_EQ(video.colorimetry.range, GST_VIDEO_COLOR_RANGE_0_255);
    EXPECT_EQ(video.fps_n, 25);
    sample.reset();
    pipeline.reset(); // an appsink has a reference of its own
    EXPECT_TRUE(waitFor([&] { return held() == 0; })) << held();
}

TEST_F(GStreamer, EveryFormatArrivesWithItsPlanesInPlace)
{
    for (const SHM_PIXEL_FORMAT format :
         {SHM_PIXEL_FORMAT_YUV420P, SHM_PIXEL_FORMAT_YVU420P, SHM_PIXEL_FORMAT_NV12}) {
        WriterSettings settings;
        settings.format = format;
        settings.width = 318; // whose rows are padded
        const Owned<shm_writer_t> writer = openWriter("a", settings);
        // One sink that takes planes wherever they lie, and one that does not say so.
        const Pipeline pipeline(
            "zevshmsrc store=a ! tee name=t ! queue ! videoconvert ! "
            "video/x-raw,format=AYUV,colorimetry=1:3:5:1 ! appsink name=converted sync=false "
            "t. ! queue ! appsink name=out sync=false");
        std::thread publisher([&] {
            for (int i = 0; i < 200 && writer; ++i) {
                publish(writer.get(), 40, nowUs());
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
        });
        const Owned<GstSample> sample = pipeline.pull();
        const Owned<GstSample> converted = pipeline.pull("converted");
        publisher.join();
        ASSERT_TRUE(sample && converted) << format;
        EXPECT_EQ(componentValue(sample.get(), 0), 40);
        EXPECT_EQ(componentValue(sample.get(), 1), 104);
        EXPECT_EQ(componentValue(sample.get(), 2), format == SHM_PIXEL_FORMAT_NV12 ? 104 : 168);
        EXPECT_EQ(infoOf(sample.get()).width, 318);
        EXPECT_NEAR(componentValue(converted.get(), 0), 40, 1);
    }
}

TEST_F(GStreamer, TheSourceGoesOnWithTheNextWriter)
{
    const Pipeline pipeline("zevshmsrc store=a ! appsink name=out sync=false max-buffers=2 drop=true");
    // It waits, and says so.
    const std::string waiting = pipeline.message(GST_MESSAGE_INFO);
    EXPECT_NE(waiting.find("waiting: "), std::string::npos) << waiting;
    EXPECT_NE(waiting.find("\"a\""), std::string::npos) << waiting;
    {
        const Ticker ticker("a", {});
        const Owned<GstSample> sample = pipeline.pull();
        ASSERT_TRUE(sample);
        EXPECT_EQ(infoOf(sample.get()).width, 320);
    }
    WriterSettings other;
    other.width = 160;
    other.height = 90;
    const Ticker ticker("a", other);
    EXPECT_TRUE(waitFor([&] {
        const Owned<GstSample> sample = pipeline.pull();
        return sample && infoOf(sample.get()).width == 160;
    }));
}

TEST_F(GStreamer, SoundArrivesAsItWasPublished)
{
    WriterSettings settings;
    settings.width = settings.height = 0;
    settings.sampleRate = 48000;
    const Owned<shm_writer_t> writer = openWriter("a", settings);
    const Pipeline pipeline("zevshmsrc store=a media=audio ! appsink name=out sync=false");
    // A ramp: every sample says where it belongs.
    std::atomic<bool> stop{false};
    std::thread publisher([&] {
        int16_t value = 0;
        const int64_t begin = nowUs();
        for (int block = 0; !stop; ++block) {
            std::vector<int16_t> samples(2 * 480);
            for (size_t i = 0; i < 480; ++i, ++value)
                samples[2 * i] = samples[2 * i + 1] = static_cast<int16_t>(value & 0x7fff);
            shm_writer_publish_audio(writer.get(), 0, samples.data(), 480, begin + 10000 * block);
            std::this_thread::sleep_until(std::chrono::system_clock::time_point(
                std::chrono::microseconds(begin + 10000 * (block + 1))));
        }
    });
    int expected = -1;
    int breaks = 0;
    int64_t stamp = -1;
    for (int i = 0; i < 100; ++i) {
        const Owned<GstSample> sample = pipeline.pull();
        if (!sample)
            break;
        GstMapInfo map;
        gst_buffer_map(gst_sample_get_buffer(sample.get()), &map, GST_MAP_READ);
        const auto *values = reinterpret_cast<const int16_t *>(map.data);
        for (size_t n = 0; n < map.size / 4; ++n) {
            breaks += expected >= 0 && values[2 * n] != expected;
            expected = (values[2 * n] + 1) & 0x7fff;
        }
        gst_buffer_unmap(gst_sample_get_buffer(sample.get()), &map);
        EXPECT_TRUE(stamp < 0 || unixTimeUs(sample.get()) - stamp == 10000) << i;
        stamp = unixTimeUs(sample.get());
    }
    stop = true;
    publisher.join();
    EXPECT_GE(expected, 0);
    EXPECT_EQ(breaks, 0);
    const std::string none = Pipeline("zevshmsrc store=a ! fakesink").message(GST_MESSAGE_ERROR);
    EXPECT_EQ(none, "store \"a\" has no video; read its sound with media=audio, or publish it with video");
}

TEST_F(GStreamer, AStoreThatIsPassedOnKeepsItsTimestamps)
{
    const Owned<shm_writer_t> writer = openWriter("first", {});
    const Pipeline pipeline("zevshmsrc store=first ! identity ! zevshmsink store=second");
    std::vector<int64_t> published;
    Owned<shm_reader_t> reader;
    for (int i = 0; i < 400 && !reader; ++i) {
        published.push_back(nowUs());
        publish(writer.get(), i % 60, published.back());
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        reader.reset(shm_reader_open("second", 1000));
    }
    ASSERT_TRUE(reader);
    shm_video_frame_t frame = lockNext(reader.get(), 0);
    EXPECT_EQ(std::count(published.begin(), published.end(), frame.timestamp), 1);
    shm_reader_unlock_video(reader.get(), &frame);
}

TEST_F(GStreamer, NothingOldComesAfterAPause)
{
    WriterSettings settings;
    settings.sampleRate = 48000;
    for (const std::string media : {"video", "audio"}) {
        const Ticker ticker("a", settings);
        const Pipeline pipeline("zevshmsrc store=a media=" + media + " ! appsink name=out sync=false");
        GstClockTime last = GST_CLOCK_TIME_NONE;
        for (int i = 0; i < 40; ++i) {
            if (i == 20) {
                pipeline.set(GST_STATE_PAUSED);
                std::this_thread::sleep_for(std::chrono::milliseconds(800));
                // What had come before it.
                while (pipeline.pull("out", 0)) {
                }
                pipeline.set(GST_STATE_PLAYING);
            }
            const Owned<GstSample> sample = pipeline.pull();
            ASSERT_TRUE(sample) << media << i;
            const GstClockTime pts = GST_BUFFER_PTS(gst_sample_get_buffer(sample.get()));
            // A pipeline's time stops before its source does: that much may be there twice, at the pause.
            const GstClockTime slack = i == 20 || i == 21 ? 100 * GST_MSECOND : 0;
            EXPECT_TRUE(i == 0 || pts + slack > last) << media << i << ": " << pts << " after " << last;
            // The first may have waited in the sink.
            EXPECT_TRUE(i <= 20 || nowUs() - unixTimeUs(sample.get()) < 700000) << media << i;
            last = pts;
        }
    }
}

TEST_F(GStreamer, AWriterWithAnotherClockIsReadByArrival)
{
    // One that counts from when it began, as if the epoch had been then.
    std::atomic<bool> stop{false};
    std::thread writing([&] {
        const Owned<shm_writer_t> writer = openWriter("a", {});
        for (int n = 1; !stop; ++n) {
            publish(writer.get(), n % 60, 1000000 + 20000 * n);
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    });
    const Pipeline pipeline("zevshmsrc store=a ! appsink name=out sync=false");
    GstClockTime last = 0;
    for (int i = 0; i < 10; ++i) {
        const Owned<GstSample> sample = pipeline.pull();
        if (!sample)
            break;
        const GstClockTime pts = GST_BUFFER_PTS(gst_sample_get_buffer(sample.get()));
        EXPECT_GT(pts, last) << i;
        EXPECT_LT(pts, 20 * GST_SECOND) << i;
        EXPECT_EQ(unixTimeUs(sample.get()), -1);
        last = pts;
    }
    EXPECT_GT(last, 0u);
    stop = true;
    writing.join();
}

TEST_F(GStreamer, ASmallStoreIsNotHeldAsAWhole)
{
    // Eight frames of history and eight beyond: with more of them kept the writer would hang up.
    WriterSettings settings;
    settings.width = 512;
    settings.height = 256;
    settings.history = 8;
    const Ticker ticker("a", settings);
    const Pipeline pipeline("zevshmsrc store=a ! appsink name=out sync=false");
    std::vector<Owned<GstSample>> kept;
    for (int i = 0; i < 80; ++i) {
        kept.push_back(pipeline.pull());
        ASSERT_TRUE(kept.back()) << i;
        EXPECT_EQ(i > 0 && GST_BUFFER_FLAG_IS_SET(gst_sample_get_buffer(kept.back().get()),
                                                  GST_BUFFER_FLAG_DISCONT),
                  false)
            << i;
    }
    size_t inPlace = 0;
    for (const auto &sample : kept)
        inPlace +=
            GST_MEMORY_IS_READONLY(gst_buffer_peek_memory(gst_sample_get_buffer(sample.get()), 0)) ? 1 : 0;
    EXPECT_GE(inPlace, 4u);
    EXPECT_LE(inPlace, 8u);
}

TEST_F(GStreamer, WhatCannotBeReadIsSaid)
{
    EXPECT_EQ(Pipeline("zevshmsrc ! fakesink").message(GST_MESSAGE_ERROR),
              "no name of a store; say which to read: zevshmsrc store=NAME (zevshm list shows them)");
    const Owned<shm_writer_t> silent = openWriter("silent", {});
    EXPECT_EQ(Pipeline("zevshmsrc store=silent media=audio ! fakesink").message(GST_MESSAGE_ERROR),
              "store \"silent\" has no sound; read its video with media=video, or publish it with sound");
}

TEST_F(GStreamer, BuffersThatDownstreamKeepsOutliveThePipeline)
{
    Owned<GstSample> kept;
    {
        const Ticker ticker("a", {});
        Pipeline pipeline("zevshmsrc store=a ! appsink name=out sync=false");
        kept = pipeline.pull();
        ASSERT_TRUE(kept);
        // More than there are locks: what is beyond is copied, and the stream goes on.
        std::vector<Owned<GstSample>> many;
        for (int i = 0; i < 40; ++i) {
            many.push_back(pipeline.pull());
            ASSERT_TRUE(many.back()) << i;
        }
    }
    const uint8_t value = componentValue(kept.get(), 0);
    EXPECT_EQ(componentValue(kept.get(), 1), value + 64);
}

TEST_F(GStreamer, KilledProcessesOnEitherSideAreReplaced)
{
    const std::string publishing = "videotestsrc is-live=true ! " + kFull + " ! zevshmsink store=a";
    Launch first(publishing);
    const Pipeline pipeline("zevshmsrc store=a ! appsink name=out sync=false max-buffers=2 drop=true");
    ASSERT_TRUE(pipeline.pull());
    first.kill();
    const Launch second(publishing);
    // Frames of the second writer: later than its start.
    const int64_t restarted = nowUs();
    EXPECT_TRUE(waitFor([&] {
        const Owned<GstSample> sample = pipeline.pull();
        return sample && unixTimeUs(sample.get()) > restarted;
    }));
    // Readers that die with frames in their hands leave no lock.
    const Owned<shm_reader_t> reader = openReader("a");
    shm_store_info_t info = {};
    info.size = sizeof info;
    const auto readers = [&] { return shm_reader_get_info(reader.get(), &info) == 0 ? info.readers : -1; };
    {
        const Launch victim("zevshmsrc store=a ! fakesink");
        ASSERT_TRUE(waitFor([&] { return readers() == 3; }));
    }
    EXPECT_TRUE(waitFor([&] { return readers() == 2 && info.locks_held <= 3; }));
}

} // namespace
