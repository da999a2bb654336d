// The GStreamer elements, in pipelines of this process and of others, beside readers and writers of the store
// itself.
#include "../unit/store_directory.h"
#include "../waiting.h"

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>
#include <shm/shm_reader.h>
#include <shm/shm_writer.h>

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace {

struct Unref
{
    void operator()(GstElement *object) const { gst_object_unref(object); }
    void operator()(GstSample *sample) const { gst_sample_unref(sample); }
    void operator()(GstMessage *message) const { gst_message_unref(message); }
    void operator()(shm_reader_t *reader) const { shm_reader_close(reader); }
    void operator()(shm_writer_t *writer) const { shm_writer_close(writer); }
};
template <class T>
using Owned = std::unique_ptr<T, Unref>;

// A pipeline in words, played; stopped at the end.
class Pipeline
{
public:
    explicit Pipeline(const std::string &description)
    {
        GError *error = nullptr;
        m_pipeline.reset(gst_parse_launch(description.c_str(), &error));
        EXPECT_EQ(error, nullptr) << error->message;
        g_clear_error(&error);
        gst_element_set_state(m_pipeline.get(), GST_STATE_PLAYING);
    }
    ~Pipeline() { stop(); }
    void stop() { set(GST_STATE_NULL); }
    void set(GstState state) const { gst_element_set_state(m_pipeline.get(), state); }
    void add(GstElement *element) const { gst_bin_add(GST_BIN(m_pipeline.get()), element); }

    Owned<GstElement> element(const char *name) const
    {
        return Owned<GstElement>(gst_bin_get_by_name(GST_BIN(m_pipeline.get()), name));
    }
    guint64 count(const char *name, const char *property) const
    {
        guint64 value = 0;
        g_object_get(element(name).get(), property, &value, nullptr);
        return value;
    }
    // Null when none came in time.
    Owned<GstSample> pull(const char *sink = "out", int seconds = 20) const
    {
        return Owned<GstSample>(gst_app_sink_try_pull_sample(
            GST_APP_SINK(element(sink).get()), static_cast<GstClockTime>(seconds) * GST_SECOND));
    }
    // The text of the first message of that kind.
    std::string message(GstMessageType type, int seconds = 20) const
    {
        GstBus *bus = gst_element_get_bus(m_pipeline.get());
        const Owned<GstMessage> message(
            gst_bus_timed_pop_filtered(bus, static_cast<GstClockTime>(seconds) * GST_SECOND, type));
        gst_object_unref(bus);
        if (!message)
            return "no message";
        GError *error = nullptr;
        gchar *debug = nullptr;
        if (type == GST_MESSAGE_ERROR)
            gst_message_parse_error(message.get(), &error, &debug);
        else if (type == GST_MESSAGE_INFO)
            gst_message_parse_info(message.get(), &error, &debug);
        const std::string text = error != nullptr ? error->message : "";
        g_clear_error(&error);
        g_free(debug);
        return text;
    }

private:
    Owned<GstElement> m_pipeline;
};

Owned<shm_reader_t> openReader(const char *name)
{
    Owned<shm_reader_t> reader;
    EXPECT_TRUE(waitFor([&] {
        reader.reset(shm_reader_open(name, 1000));
        return reader != nullptr;
    })) << "no store "
        << name;
    return reader;
}

// Locks the frame after the one of that generation.
shm_video_frame_t lockNext(shm_reader_t *reader, uint64_t after)
{
    shm_video_frame_t frame = {};
    EXPECT_TRUE(waitFor([&] {
        shm_reader_wait_video(reader, after, 100);
        return shm_reader_lock_video(reader, &frame, SHM_VIDEO_NEWEST) == 0 && frame.generation > after;
    }));
    return frame;
}

struct WriterSettings
{
    int width = 320, height = 180;
    SHM_PIXEL_FORMAT format = SHM_PIXEL_FORMAT_YUV420P;
    shm_color_t color = {SHM_MATRIX_BT709, SHM_RANGE_FULL, SHM_TRANSFER_BT709, SHM_SITING_LEFT};
    int sampleRate = 0;
    unsigned history = 0;
};

Owned<shm_writer_t> openWriter(const char *name, const WriterSettings &settings)
{
    shm_writer_params_t params;
    shm_writer_params_init(&params);
    params.name = name;
    params.width = settings.width;
    params.height = settings.height;
    params.pixel_format = settings.width > 0 ? settings.format : SHM_PIXEL_FORMAT_NONE;
    params.color = settings.color;
    params.history_frames = settings.history;
    params.rate_numerator = settings.width > 0 ? 25 : 0;
    params.rate_denominator = settings.width > 0 ? 1 : 0;
    params.sample_rate = settings.sampleRate;
    params.channels = settings.sampleRate > 0 ? 2 : 0;
    shm_writer_t *writer = nullptr;
    shm_error_t error = {};
    EXPECT_EQ(shm_writer_open(&params, &writer, &error), 0) << error.message;
    return Owned<shm_writer_t>(writer);
}

int64_t nowUs()
{
    return g_get_real_time();
}

// Every plane has a value of its own, which changes from frame to frame.
void publish(shm_writer_t *writer, int number, int64_t timestamp)
{
    shm_writer_frame_t frame = {};
    ASSERT_EQ(shm_writer_acquire(writer, &frame), 0);
    for (int i = 0; i < 3 && frame.planes[i] != nullptr; ++i)
        std::memset(frame.planes[i], number + 64 * i,
                    static_cast<size_t>(frame.strides[i]) *
                        static_cast<size_t>(i == 0 ? frame.height : frame.height / 2));
    ASSERT_EQ(shm_writer_publish(writer, &frame, timestamp), 0);
}

GstVideoInfo infoOf(GstSample *sample)
{
    GstVideoInfo info;
    gst_video_info_init(&info);
    EXPECT_TRUE(gst_video_info_from_caps(&info, gst_sample_get_caps(sample)));
    return info;
}

uint8_t componentValue(GstSample *sample, guint component)
{
    GstVideoInfo info = infoOf(sample);
    GstVideoFrame frame;
    EXPECT_TRUE(gst_video_frame_map(&frame, &info, gst_sample_get_buffer(sample), GST_MAP_READ));
    const uint8_t value = *static_cast<const uint8_t *>(GST_VIDEO_FRAME_COMP_DATA(&frame, component));
    gst_video_frame_unmap(&frame);
    return value;
}

int64_t unixTimeUs(GstSample *sample)
{
    GstCaps *caps = gst_caps_new_empty_simple("timestamp/x-unix");
    const GstReferenceTimestampMeta *meta =
        gst_buffer_get_reference_timestamp_meta(gst_sample_get_buffer(sample), caps);
    gst_caps_unref(caps);
    return meta != nullptr ? static_cast<int64_t>(meta->timestamp / 1000) : -1;
}

// Publishes so many frames a second from now on, under the wall clock, until it goes.
class Ticker
{
public:
    Ticker(const char *name, const WriterSettings &settings, int hz = 50)
        : m_thread([this, name, settings, hz] {
              const Owned<shm_writer_t> writer = openWriter(name, settings);
              const std::vector<int16_t> silence(static_cast<size_t>(2 * settings.sampleRate / hz));
              for (int n = 1; !m_stop; ++n) {
                  publish(writer.get(), n % 60, nowUs());
                  if (settings.sampleRate > 0)
                      shm_writer_publish_audio(writer.get(), 0, silence.data(),
                                               static_cast<uint32_t>(silence.size() / 2), nowUs());
                  std::this_thread::sleep_for(std::chrono::milliseconds(1000 / hz));
              }
          })
    {}
    ~Ticker()
    {
        m_stop = true;
        m_thread.join();
    }

private:
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

// A process of its own that plays a pipeline until it is killed: this program again, because gst-launch-1.0
// could not load what is built with a sanitizer.
class Launch
{
public:
    explicit Launch(const std::string &pipeline)
    {
        m_child = fork();
        if (m_child == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            execl("/proc/self/exe", "tst_gstreamer", "--play", pipeline.c_str(), nullptr);
            _exit(127);
        }
    }
    ~Launch() { kill(); }
    void kill()
    {
        if (m_child > 0) {
            ::kill(m_child, SIGKILL);
            waitpid(m_child, nullptr, 0);
        }
        m_child = -1;
    }

private:
    pid_t m_child = -1;
};

int play(const char *description)
{
    const Pipeline pipeline(description);
    std::fprintf(stderr, "%s\n", pipeline.message(GST_MESSAGE_ERROR, 100).c_str());
    return 1;
}

// GStreamer with our plugin and those that the tests use: all that a machine has would take long to load, and
// leaks.
class Plugins
{
public:
    Plugins()
    {
        if (mkdtemp(m_folder.data()) == nullptr)
            std::abort();
        for (const auto &entry : std::filesystem::directory_iterator(ZEV_GST_SYSTEM_PLUGINS)) {
            const std::string name = entry.path().filename();
            for (const char *used : {"coreelements", "app", "videotestsrc", "audiotestsrc", "videoconvert"}) {
                if (name.rfind("libgst" + std::string(used), 0) == 0 && name.find(".so") != std::string::npos)
                    std::filesystem::create_symlink(entry.path(), m_folder + "/" + name);
            }
        }
        setenv("GST_PLUGIN_SYSTEM_PATH", m_folder.c_str(), 1);
        setenv("GST_PLUGIN_PATH", ZEV_GST_PLUGIN_PATH, 1);
        setenv("GST_REGISTRY", (m_folder + "/registry").c_str(), 1);
        setenv("GST_REGISTRY_FORK", "no", 1); // the scanner is not built with our sanitizers
    }
    ~Plugins()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_folder, ignored);
    }

private:
    std::string m_folder = "/tmp/zev-gst-XXXXXX";
};

const std::string kFull = "video/x-raw,format=I420,width=320,height=180,framerate=25/1,colorimetry=1:3:5:1";

class GStreamer : public testing::Test
{
protected:
    testing_shm::StoreDirectory directory;
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

int main(int argc, char **argv)
{
    if (argc == 3 && std::strcmp(argv[1], "--play") == 0) {
        gst_init(nullptr, nullptr);
        return play(argv[2]);
    }
    testing::InitGoogleTest(&argc, argv);
    const Plugins plugins;
    gst_init(&argc, &argv);
    const int result = RUN_ALL_TESTS();
    gst_deinit();
    return result;
}
