// What the tests of the GStreamer elements share: pipelines in words, readers and writers of the store beside
// them, and a process of its own for a pipeline.
#ifndef GSTREAMERRIG_H
#define GSTREAMERRIG_H

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

namespace gstreamer_rig {

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

inline Owned<shm_reader_t> openReader(const char *name)
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
inline shm_video_frame_t lockNext(shm_reader_t *reader, uint64_t after)
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

inline Owned<shm_writer_t> openWriter(const char *name, const WriterSettings &settings)
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

inline int64_t nowUs()
{
    return g_get_real_time();
}

// Every plane has a value of its own, which changes from frame to frame.
inline void publish(shm_writer_t *writer, int number, int64_t timestamp)
{
    shm_writer_frame_t frame = {};
    ASSERT_EQ(shm_writer_acquire(writer, &frame), 0);
    for (int i = 0; i < 3 && frame.planes[i] != nullptr; ++i)
        std::memset(frame.planes[i], number + 64 * i,
                    static_cast<size_t>(frame.strides[i]) *
                        static_cast<size_t>(i == 0 ? frame.height : frame.height / 2));
    ASSERT_EQ(shm_writer_publish(writer, &frame, timestamp), 0);
}

inline GstVideoInfo infoOf(GstSample *sample)
{
    GstVideoInfo info;
    gst_video_info_init(&info);
    EXPECT_TRUE(gst_video_info_from_caps(&info, gst_sample_get_caps(sample)));
    return info;
}

inline uint8_t componentValue(GstSample *sample, guint component)
{
    GstVideoInfo info = infoOf(sample);
    GstVideoFrame frame;
    EXPECT_TRUE(gst_video_frame_map(&frame, &info, gst_sample_get_buffer(sample), GST_MAP_READ));
    const uint8_t value = *static_cast<const uint8_t *>(GST_VIDEO_FRAME_COMP_DATA(&frame, component));
    gst_video_frame_unmap(&frame);
    return value;
}

inline int64_t unixTimeUs(GstSample *sample)
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
            execl("/proc/self/exe", "gstreamer", "--play", pipeline.c_str(), nullptr);
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

inline const std::string kFull =
    "video/x-raw,format=I420,width=320,height=180,framerate=25/1,colorimetry=1:3:5:1";

class GStreamer : public testing::Test
{
protected:
    testing_shm::StoreDirectory directory;
};

} // namespace gstreamer_rig

#endif
