#include "monitorrecorder.h"

#include <pulse/pulseaudio.h>

#include <algorithm>
#include <cmath>

namespace {

const pa_usec_t accountIntervalUs = 50000;
const int tickFrames = 12;
const int ticksPerSecond = 4;
const int distinctTicks = 16; // then they look the same again
const double lostUs = 1000;   // ticks fit each other within this

} // namespace

struct MonitorRecorder::Streams
{
    // The sample of the tick stream that is heard at a time of the wall clock.
    struct Account
    {
        double at;
        double index;
    };

    pa_threaded_mainloop *loop = nullptr;
    pa_context *context = nullptr;
    pa_stream *recorder = nullptr;
    pa_stream *ticker = nullptr;
    int rate = 0;
    // Locked by the loop while it runs.
    std::vector<int16_t> samples;
    std::vector<Account> accounts;
    int64_t written = 0;
    // Known at the end.
    std::vector<size_t> recordedTicks;
    std::vector<double> heardTicks;
    double spread = 0;

    static void onState(pa_context *, void *self) { static_cast<Streams *>(self)->wake(); }
    static void onStreamState(pa_stream *, void *self) { static_cast<Streams *>(self)->wake(); }
    void wake() { pa_threaded_mainloop_signal(loop, 0); }

    static void onRecorded(pa_stream *stream, size_t, void *data)
    {
        auto &samples = static_cast<Streams *>(data)->samples;
        const void *fragment = nullptr;
        size_t bytes = 0;
        while (pa_stream_readable_size(stream) > 0 && pa_stream_peek(stream, &fragment, &bytes) == 0 &&
               bytes > 0) {
            const size_t before = samples.size();
            samples.resize(before + bytes / 2); // a hole reads as silence
            if (fragment)
                std::copy_n(static_cast<const int16_t *>(fragment), bytes / 2, &samples[before]);
            pa_stream_drop(stream);
        }
    }

    static void onWanted(pa_stream *stream, size_t bytes, void *data)
    {
        auto *self = static_cast<Streams *>(data);
        std::vector<int16_t> samples(bytes / 2);
        for (int16_t &sample : samples)
            sample = self->isTick(self->written++) ? tick : int16_t(0);
        pa_stream_write(stream, samples.data(), 2 * samples.size(), nullptr, 0, PA_SEEK_RELATIVE);
    }

    // A pulse, and another one whose distance tells the number.
    bool isTick(int64_t index) const
    {
        const int64_t into = index % interval();
        const int64_t other = secondPulse(index / interval() % distinctTicks);
        return into < tickFrames || (into >= other && into < other + tickFrames);
    }
    int interval() const { return rate / ticksPerSecond; }
    int64_t secondPulse(int64_t number) const { return (number + 2) * rate / 1000; }

    static void onTimer(pa_mainloop_api *, pa_time_event *event, const timeval *, void *data)
    {
        auto *self = static_cast<Streams *>(data);
        if (!self->ticker)
            return; // stop() has been here
        if (pa_operation *operation = pa_stream_update_timing_info(self->ticker, &Streams::onTiming, self))
            pa_operation_unref(operation);
        pa_context_rttime_restart(self->context, event, pa_rtclock_now() + accountIntervalUs);
    }

    // The sink has taken what is before the read index, and has yet to play its latency.
    static void onTiming(pa_stream *stream, int success, void *data)
    {
        auto *self = static_cast<Streams *>(data);
        const pa_timing_info *info = success ? pa_stream_get_timing_info(stream) : nullptr;
        if (!info || !info->playing || info->read_index_corrupt)
            return;
        const double latency = static_cast<double>(info->sink_usec) * self->rate / 1e6;
        const double at =
            static_cast<double>(info->timestamp.tv_sec) * 1e6 + static_cast<double>(info->timestamp.tv_usec);
        self->accounts.push_back({at, static_cast<double>(info->read_index) / 2 - latency});
    }

    bool waitFor(bool (*isReady)(Streams *), bool (*isFailed)(Streams *))
    {
        while (!isReady(this)) {
            if (isFailed(this))
                return false;
            pa_threaded_mainloop_wait(loop);
        }
        return true;
    }
    bool waitFor(pa_stream *stream)
    {
        while (pa_stream_get_state(stream) != PA_STREAM_READY) {
            if (!PA_STREAM_IS_GOOD(pa_stream_get_state(stream)))
                return false;
            pa_threaded_mainloop_wait(loop);
        }
        return true;
    }
    bool connect(const QString &sink, int latencyMs);
    void judge();
};

bool MonitorRecorder::Streams::connect(const QString &sink, int latencyMs)
{
    if (pa_context_connect(context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0 ||
        pa_threaded_mainloop_start(loop) < 0)
        return false;
    if (!waitFor([](Streams *s) { return pa_context_get_state(s->context) == PA_CONTEXT_READY; },
                 [](Streams *s) { return !PA_CONTEXT_IS_GOOD(pa_context_get_state(s->context)); }))
        return false;

    const pa_sample_spec format{PA_SAMPLE_S16LE, static_cast<uint32_t>(rate), 1};
    const auto any = static_cast<uint32_t>(-1);
    recorder = pa_stream_new(context, "recorder", &format, nullptr);
    pa_stream_set_state_callback(recorder, &Streams::onStreamState, this);
    pa_stream_set_read_callback(recorder, &Streams::onRecorded, this);
    const pa_buffer_attr recording{any, any, any, any, static_cast<uint32_t>(rate * latencyMs / 1000 * 2)};
    const QByteArray monitor = (sink + QStringLiteral(".monitor")).toUtf8();
    if (pa_stream_connect_record(recorder, monitor.constData(), &recording, PA_STREAM_ADJUST_LATENCY) < 0 ||
        !waitFor(recorder))
        return false;

    ticker = pa_stream_new(context, "ticker", &format, nullptr);
    pa_stream_set_state_callback(ticker, &Streams::onStreamState, this);
    pa_stream_set_write_callback(ticker, &Streams::onWanted, this);
    // So long a buffer that it asks for no latency of its own.
    const pa_buffer_attr ticking{any, static_cast<uint32_t>(2 * rate * 2), any, any, any};
    return pa_stream_connect_playback(ticker, sink.toUtf8().constData(), &ticking, pa_stream_flags_t(0),
                                      nullptr, nullptr) == 0 &&
           waitFor(ticker);
}

MonitorRecorder::MonitorRecorder() = default;

MonitorRecorder::~MonitorRecorder()
{
    stop();
}

bool MonitorRecorder::start(const QString &sink, int rate, int latencyMs)
{
    stop();
    streams = std::make_unique<Streams>();
    streams->rate = rate;
    streams->loop = pa_threaded_mainloop_new();
    streams->context = pa_context_new(pa_threaded_mainloop_get_api(streams->loop), "recorder");
    pa_context_set_state_callback(streams->context, &Streams::onState, streams.get());
    pa_threaded_mainloop_lock(streams->loop);
    const bool isRecording = streams->connect(sink, latencyMs);
    if (isRecording)
        pa_context_rttime_new(streams->context, pa_rtclock_now(), &Streams::onTimer, streams.get());
    pa_threaded_mainloop_unlock(streams->loop);
    return isRecording;
}

void MonitorRecorder::stop()
{
    if (!streams || !streams->loop)
        return;
    pa_threaded_mainloop_lock(streams->loop);
    for (pa_stream *stream : {streams->ticker, streams->recorder}) {
        if (!stream)
            continue;
        pa_stream_disconnect(stream);
        pa_stream_unref(stream);
    }
    streams->recorder = nullptr;
    streams->ticker = nullptr;
    pa_context_disconnect(streams->context);
    pa_context_unref(streams->context);
    pa_threaded_mainloop_unlock(streams->loop);
    pa_threaded_mainloop_stop(streams->loop);
    pa_threaded_mainloop_free(streams->loop);
    streams->loop = nullptr;
    streams->judge();
}

// Every tick found in the recording, and when it was heard: by the account that is nearest in time.
void MonitorRecorder::Streams::judge()
{
    std::vector<double> offsets; // when the tick stream's sample 0 would have been heard
    offsets.reserve(accounts.size());
    for (const Account &account : accounts)
        offsets.push_back(account.at - account.index * 1e6 / rate);
    if (offsets.empty())
        return;
    std::vector<double> sorted = offsets;
    std::sort(sorted.begin(), sorted.end());
    spread = sorted[sorted.size() * 95 / 100] - sorted[sorted.size() * 5 / 100];
    const double middle = sorted[sorted.size() / 2];

    int64_t before = -1;
    for (size_t i = 0; i + static_cast<size_t>(interval()) < samples.size(); ++i) {
        if (samples[i] > tick / 2)
            continue;
        const auto isPulse = [&](int64_t at) { return samples[i + static_cast<size_t>(at)] < tick / 2; };
        int number = 0;
        while (number < distinctTicks && !isPulse(secondPulse(number) + tickFrames / 2))
            ++number;
        if (number < distinctTicks) {
            // Those that were lost at the beginning, or on the way, are fewer than look different.
            const int64_t n =
                before + 1 + (number - (before + 1) % distinctTicks + distinctTicks) % distinctTicks;
            before = n;
            const double roughly = middle + static_cast<double>(n) * 1e6 / ticksPerSecond;
            const auto near =
                std::min_element(accounts.begin(), accounts.end(), [&](const Account &a, const Account &b) {
                    return std::abs(a.at - roughly) < std::abs(b.at - roughly);
                });
            recordedTicks.push_back(i);
            heardTicks.push_back(offsets[static_cast<size_t>(near - accounts.begin())] +
                                 static_cast<double>(n) * 1e6 / ticksPerSecond);
        }
        i += static_cast<size_t>(interval() / 2);
    }
}

const std::vector<int16_t> &MonitorRecorder::samples() const
{
    return streams->samples;
}

double MonitorRecorder::heardAt(size_t index) const
{
    const std::vector<size_t> &recorded = streams->recordedTicks;
    const auto after = std::upper_bound(recorded.begin(), recorded.end(), index);
    if (after == recorded.begin() || after == recorded.end())
        return 0;
    const auto i = static_cast<size_t>(after - recorded.begin());
    const double sampleUs = 1e6 / streams->rate;
    const double fromBefore =
        streams->heardTicks[i - 1] + static_cast<double>(index - recorded[i - 1]) * sampleUs;
    const double fromAfter = streams->heardTicks[i] - static_cast<double>(recorded[i] - index) * sampleUs;
    return std::abs(fromBefore - fromAfter) < lostUs ? (fromBefore + fromAfter) / 2 : 0;
}

double MonitorRecorder::spreadUs() const
{
    return streams->spread;
}

int MonitorRecorder::ticks() const
{
    return static_cast<int>(streams->recordedTicks.size());
}
