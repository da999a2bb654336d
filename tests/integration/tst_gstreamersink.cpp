// zevshmsink in pipelines of this process, beside readers of the store.
#include "gstreamerrig.h"

using namespace gstreamer_rig;

namespace {

// Keeps the buffers that come through a pad, up to a number of them.
class Keeper
{
public:
    Keeper(const Pipeline &pipeline, const char *element, const char *pad, size_t most) : m_most(most)
    {
        const Owned<GstElement> owner = pipeline.element(element);
        m_pad = gst_element_get_static_pad(owner.get(), pad);
        m_probe = gst_pad_add_probe(m_pad, GST_PAD_PROBE_TYPE_BUFFER, &Keeper::onBuffer, this, nullptr);
    }
    ~Keeper()
    {
        gst_pad_remove_probe(m_pad, m_probe);
        gst_object_unref(m_pad);
        release();
    }
    size_t count() const
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        return m_buffers.size();
    }
    std::vector<uint8_t> bytes(size_t i) const
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        GstMapInfo map;
        EXPECT_TRUE(gst_buffer_map(m_buffers.at(i), &map, GST_MAP_READ));
        std::vector<uint8_t> result(map.data, map.data + map.size);
        gst_buffer_unmap(m_buffers.at(i), &map);
        return result;
    }
    void release()
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        for (GstBuffer *buffer : m_buffers)
            gst_buffer_unref(buffer);
        m_buffers.clear();
        m_most = 0;
    }

private:
    static GstPadProbeReturn onBuffer(GstPad *, GstPadProbeInfo *info, gpointer self)
    {
        auto *keeper = static_cast<Keeper *>(self);
        const std::lock_guard<std::mutex> guard(keeper->m_mutex);
        if (keeper->m_buffers.size() < keeper->m_most)
            keeper->m_buffers.push_back(gst_buffer_ref(GST_PAD_PROBE_INFO_BUFFER(info)));
        return GST_PAD_PROBE_OK;
    }

    GstPad *m_pad = nullptr;
    gulong m_probe = 0;
    mutable std::mutex m_mutex;
    std::vector<GstBuffer *> m_buffers;
    size_t m_most;
};

TEST_F(GStreamer, PicturesAreWrittenIntoTheStoreWhereTheyAreRead)
{
    // Who makes them writes into the slot; nothing is copied.
    const Pipeline pipeline("videotestsrc is-live=true pattern=ball ! " + kFull +
                            " ! zevshmsink name=sink store=a");
    const Owned<shm_reader_t> reader = openReader("a");
    shm_video_frame_t frame = {};
    uint64_t generation = 0;
    for (int i = 0; i < 20; ++i) {
        frame = lockNext(reader.get(), generation);
        generation = frame.generation;
        // The pattern's black is the ground of every picture.
        EXPECT_EQ(frame.planes[0][0], 16);
        EXPECT_NEAR(frame.planes[1][0], 128, 1);
        shm_reader_unlock_video(reader.get(), &frame);
    }
    EXPECT_TRUE(waitFor([&] { return pipeline.count("sink", "frames-published") >= 20; }));
    EXPECT_EQ(pipeline.count("sink", "frames-copied"), 0u);
    EXPECT_EQ(pipeline.count("sink", "frames-dropped"), 0u);
}

TEST_F(GStreamer, TimestampsAreThePipelinesOnTheWallClock)
{
    const Pipeline pipeline("videotestsrc is-live=true ! " + kFull + " ! zevshmsink store=a");
    const Owned<shm_reader_t> reader = openReader("a");
    ASSERT_TRUE(waitFor([&] {
        shm_video_status_t status = {};
        return shm_reader_get_video_status(reader.get(), &status) == 0 && status.frames_held >= 15;
    }));
    long long times[64];
    const int held = shm_reader_get_video_timestamps(reader.get(), times, 64);
    ASSERT_GE(held, 15);
    for (int i = 1; i < held; ++i)
        EXPECT_NEAR(static_cast<double>(times[i] - times[i - 1]), 40000, 2) << i;
    // A frame is published when it is due, so it was not long ago.
    EXPECT_NEAR(static_cast<double>(nowUs() - times[held - 1]), 0, 1e6);
    shm_store_info_t info = {};
    info.size = sizeof info;
    ASSERT_EQ(shm_reader_get_info(reader.get(), &info), 0);
    EXPECT_EQ(info.rate_numerator, 25u);
    EXPECT_EQ(info.color.matrix, SHM_MATRIX_BT709);
    EXPECT_EQ(info.color.range, SHM_RANGE_FULL);
}

TEST_F(GStreamer, LimitedRangeIsMadeFullUnlessItIsToBeKept)
{
    const std::string white =
        "videotestsrc is-live=true pattern=white ! "
        "video/x-raw,format=NV12,width=64,height=48,framerate=25/1,colorimetry=bt709 ! ";
    const Pipeline full(white + "zevshmsink name=sink store=full");
    const Pipeline kept(white + "zevshmsink name=sink store=kept keep-range=true");
    const Owned<shm_reader_t> fullReader = openReader("full");
    const Owned<shm_reader_t> keptReader = openReader("kept");
    shm_video_frame_t frame = lockNext(fullReader.get(), 0);
    EXPECT_EQ(frame.planes[0][0], 255);
    EXPECT_EQ(frame.planes[1][0], 128);
    EXPECT_EQ(frame.range, SHM_RANGE_FULL);
    shm_reader_unlock_video(fullReader.get(), &frame);
    frame = lockNext(keptReader.get(), 0);
    EXPECT_EQ(frame.planes[0][0], 235);
    EXPECT_EQ(frame.range, SHM_RANGE_LIMITED);
    shm_reader_unlock_video(keptReader.get(), &frame);
    EXPECT_TRUE(waitFor([&] { return full.count("sink", "frames-converted") > 0; }));
    EXPECT_EQ(kept.count("sink", "frames-copied"), 0u);
}

TEST_F(GStreamer, ABufferThatIsHeldElsewhereIsCopied)
{
    // As many as upstream may have slots stay with somebody while the store goes around its slots: they must
    // not change, and frames go on.
    const Pipeline pipeline("videotestsrc is-live=true pattern=snow ! " + kFull +
                            " ! zevshmsink name=sink store=a");
    const Keeper keeper(pipeline, "sink", "video", 8);
    ASSERT_TRUE(waitFor([&] { return keeper.count() == 8; }));
    std::vector<std::vector<uint8_t>> before;
    for (size_t i = 0; i < 8; ++i)
        before.push_back(keeper.bytes(i));
    const guint64 published = pipeline.count("sink", "frames-published");
    ASSERT_TRUE(waitFor([&] { return pipeline.count("sink", "frames-published") >= published + 60; }));
    for (size_t i = 0; i < 8; ++i)
        EXPECT_TRUE(keeper.bytes(i) == before[i]) << i;
    // While they are held there is no slot for anybody upstream.
    EXPECT_GE(pipeline.count("sink", "frames-copied"), 8u + 50u);
    EXPECT_EQ(pipeline.count("sink", "frames-dropped"), 0u);
}

TEST_F(GStreamer, AQueueInFrontOfTheSinkCostsNoFrame)
{
    // It fills before the first frame is due: more buffers are under way than there are slots for upstream.
    const Pipeline pipeline("videotestsrc num-buffers=60 ! " + kFull +
                            " ! queue max-size-buffers=40 ! "
                            "zevshmsink name=sink store=a");
    EXPECT_TRUE(waitFor([&] {
        return pipeline.count("sink", "frames-published") + pipeline.count("sink", "frames-dropped") == 60;
    }));
    EXPECT_EQ(pipeline.count("sink", "frames-dropped"), 0u);
}

TEST_F(GStreamer, SoundMayJoinAndLeave)
{
    const Pipeline pipeline("videotestsrc is-live=true ! " + kFull + " ! zevshmsink name=sink store=a");
    shm_reader_format_t format = {};
    const auto hasAudio = [&](bool wanted) {
        return waitFor([&] {
            const Owned<shm_reader_t> reader(shm_reader_open("a", 1000));
            return reader && shm_reader_get_format(reader.get(), &format) == 0 && format.has_video &&
                   (format.has_audio != 0) == wanted;
        });
    };
    ASSERT_TRUE(hasAudio(false));
    const Owned<GstElement> sink = pipeline.element("sink");
    // A pad that never gets a format keeps nothing from being published once it has gone again.
    GstPad *pad = gst_element_request_pad_simple(sink.get(), "audio");
    ASSERT_NE(pad, nullptr);
    gst_element_release_request_pad(sink.get(), pad);
    gst_object_unref(pad);
    const guint64 published = pipeline.count("sink", "frames-published");
    EXPECT_TRUE(waitFor([&] { return pipeline.count("sink", "frames-published") >= published + 10; }));

    pad = gst_element_request_pad_simple(sink.get(), "audio");
    ASSERT_NE(pad, nullptr);
    Owned<GstElement> source(GST_ELEMENT(gst_object_ref_sink(gst_parse_bin_from_description(
        "audiotestsrc is-live=true ! audio/x-raw,format=S16LE,rate=48000,channels=1", TRUE, nullptr))));
    pipeline.add(source.get());
    GstPad *from = gst_element_get_static_pad(source.get(), "src");
    EXPECT_EQ(gst_pad_link(from, pad), GST_PAD_LINK_OK);
    gst_element_sync_state_with_parent(source.get());
    EXPECT_TRUE(hasAudio(true)) << pipeline.message(GST_MESSAGE_ERROR, 0);
    gst_pad_unlink(from, pad);
    gst_object_unref(from);
    gst_element_set_state(source.get(), GST_STATE_NULL);
    gst_element_release_request_pad(sink.get(), pad);
    gst_object_unref(pad);
    EXPECT_TRUE(hasAudio(false)) << pipeline.message(GST_MESSAGE_ERROR, 0);
}

TEST_F(GStreamer, ReadyTakesTheStoreAwayAndANewNameOn)
{
    const Pipeline pipeline("videotestsrc is-live=true ! " + kFull + " ! zevshmsink name=sink store=first");
    openReader("first");
    pipeline.set(GST_STATE_READY);
    EXPECT_TRUE(waitFor([] { return shm_reader_open("first", 0) == nullptr; }));
    g_object_set(pipeline.element("sink").get(), "store", "second", nullptr);
    pipeline.set(GST_STATE_PLAYING);
    openReader("second");
}

TEST_F(GStreamer, AFormatThatChangesWhileBuffersAreHeldWaitsForThem)
{
    const Pipeline pipeline("videotestsrc is-live=true ! capsfilter name=caps caps=" + kFull +
                            " ! zevshmsink name=sink store=a");
    openReader("a");
    for (int width = 160; width < 164; ++width) {
        Keeper keeper(pipeline, "sink", "video", 1);
        ASSERT_TRUE(waitFor([&] { return keeper.count() == 1; }));
        GstCaps *caps = gst_caps_from_string(
            ("video/x-raw,format=YV12,height=90,framerate=25/1,width=" + std::to_string(width)).c_str());
        g_object_set(pipeline.element("caps").get(), "caps", caps, nullptr);
        gst_caps_unref(caps);
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        keeper.release();
        shm_reader_format_t format = {};
        EXPECT_TRUE(waitFor([&] {
            const Owned<shm_reader_t> reader(shm_reader_open("a", 1000));
            return reader && shm_reader_get_format(reader.get(), &format) == 0 && format.width == width;
        })) << pipeline.message(GST_MESSAGE_ERROR, 0);
    }
}

TEST_F(GStreamer, EveryFormatIsPublishedWithItsPlanesInPlace)
{
    // Red: U below the middle, V at the end; odd sizes, in a slot and copied into one.
    for (const char *format : {"I420", "YV12", "NV12"}) {
        for (const char *between : {"", "identity drop-allocation=true ! "}) {
            const Pipeline pipeline(
                std::string("videotestsrc is-live=true pattern=red ! video/x-raw,format=") + format +
                ",width=61,height=35,framerate=25/1,colorimetry=1:3:5:1 ! " + between +
                "zevshmsink name=sink store=a");
            const Owned<shm_reader_t> reader = openReader("a");
            shm_video_frame_t frame = lockNext(reader.get(), 0);
            ASSERT_NE(frame.planes[0], nullptr);
            EXPECT_EQ(frame.width, 61);
            EXPECT_EQ(frame.height, 35);
            const bool isSemiPlanar = frame.planes[2] == nullptr;
            for (const int row : {0, 17}) {
                const uint8_t *u = frame.planes[1] + row * frame.strides[1];
                const uint8_t *v = isSemiPlanar ? u + 1 : frame.planes[2] + row * frame.strides[2];
                const int last = isSemiPlanar ? 60 : 30;
                EXPECT_LT(u[0], 120) << format << between << row;
                EXPECT_GT(v[0], 200) << format << between << row;
                EXPECT_EQ(u[0], u[last]) << format << between << row;
                EXPECT_EQ(v[0], v[last]) << format << between << row;
            }
            shm_reader_unlock_video(reader.get(), &frame);
            EXPECT_TRUE(waitFor([&] { return pipeline.count("sink", "frames-published") > 0; }));
            EXPECT_EQ(pipeline.count("sink", "frames-copied") > 0, *between != '\0') << format;
        }
    }
}

TEST_F(GStreamer, AnotherSizeOpensTheStoreAnew)
{
    const Pipeline pipeline("videotestsrc is-live=true ! capsfilter name=caps caps=" + kFull +
                            " ! zevshmsink store=a");
    shm_reader_format_t format = {};
    {
        const Owned<shm_reader_t> reader = openReader("a");
        ASSERT_EQ(shm_reader_get_format(reader.get(), &format), 0);
        EXPECT_EQ(format.width, 320);
    }
    GstCaps *caps = gst_caps_from_string("video/x-raw,format=NV12,width=160,height=90,framerate=25/1");
    g_object_set(pipeline.element("caps").get(), "caps", caps, nullptr);
    gst_caps_unref(caps);
    EXPECT_TRUE(waitFor([&] {
        const Owned<shm_reader_t> reader(shm_reader_open("a", 1000));
        return reader && shm_reader_get_format(reader.get(), &format) == 0 && format.width == 160 &&
               format.pixel_format == SHM_PIXEL_FORMAT_NV12;
    }));
}

TEST_F(GStreamer, PictureAndSoundShareAStore)
{
    const Pipeline pipeline("zevshmsink name=sink store=a "
                            "videotestsrc is-live=true ! " +
                            kFull +
                            " ! sink.video "
                            "audiotestsrc is-live=true freq=1000 volume=0.5 samplesperbuffer=480 ! "
                            "audio/x-raw,format=S16LE,rate=48000,channels=2 ! sink.audio");
    const Owned<shm_reader_t> reader = openReader("a");
    shm_reader_format_t format = {};
    ASSERT_EQ(shm_reader_get_format(reader.get(), &format), 0);
    EXPECT_TRUE(format.has_video && format.has_audio);
    EXPECT_EQ(format.sample_rate, 48000);
    EXPECT_EQ(format.channels, 2);
    shm_audio_status_t status = {};
    ASSERT_TRUE(waitFor([&] {
        return shm_reader_get_audio_status(reader.get(), 0, &status) == 0 && status.frames >= 48000;
    }));
    // A second of it is one sine without a break: each sample follows from the two before.
    std::vector<int16_t> samples(2 * 40000);
    ASSERT_EQ(shm_reader_query_audio2(reader.get(), 0, samples.data(), 40000, 1,
                                      status.newest_timestamp - 900000, -1),
              40000);
    const double factor = 2 * std::cos(2 * M_PI * 1000 / 48000);
    double worst = 0;
    double peak = 0;
    for (size_t i = 2; i < 40000; ++i) {
        const double next = factor * samples[2 * (i - 1)] - samples[2 * (i - 2)];
        worst = std::max(worst, std::abs(next - samples[2 * i]));
        peak = std::max<double>(peak, std::abs(samples[2 * i]));
    }
    EXPECT_NEAR(peak, 16384, 20);
    EXPECT_LT(worst, 4); // rounding; a lost sample is hundreds
}

TEST_F(GStreamer, WhatCannotBePublishedIsSaid)
{
    EXPECT_EQ(Pipeline("videotestsrc ! zevshmsink").message(GST_MESSAGE_ERROR),
              "no name for the store; say under which to publish: zevshmsink store=NAME");
    EXPECT_NE(Pipeline("videotestsrc ! zevshmsink store=.hidden").message(GST_MESSAGE_ERROR).find(".hidden"),
              std::string::npos);
    const Owned<shm_writer_t> other = openWriter("taken", {});
    const std::string taken = Pipeline("videotestsrc ! zevshmsink store=taken").message(GST_MESSAGE_ERROR);
    EXPECT_NE(taken.find("store \"taken\""), std::string::npos) << taken;
    EXPECT_NE(taken.find("already published"), std::string::npos) << taken;
}

} // namespace
