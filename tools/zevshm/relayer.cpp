#include "relayer.h"

#include "messages.h"
#include "recorder.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <new>

namespace zevshm {

namespace {

constexpr int64_t behindUs = 500000; // the most that waits for the receiver
constexpr int64_t connectLimitUs = 10000000;
constexpr int64_t sendLimitUs = 10000000; // one write that takes longer is a connection that has failed
constexpr int64_t closeLimitUs = 2000000;
constexpr int64_t firstRetryUs = 500000;
constexpr int64_t lastRetryUs = 8000000;
constexpr int64_t dropsSaidEveryUs = 10000000;
// What the kernel holds for a receiver is delay, too: about a second of an ordinary stream.
constexpr const char *tcpSendBuffer = "262144";

std::string schemeOf(const std::string &url)
{
    const size_t colon = url.find(':');
    if (colon == std::string::npos || colon < 2)
        return {};
    const std::string scheme = url.substr(0, colon);
    return std::all_of(scheme.begin(), scheme.end(),
                       [](unsigned char c) { return std::isalnum(c) || c == '+' || c == '-' || c == '.'; })
               ? scheme
               : std::string();
}

bool isFile(const std::string &url)
{
    const std::string scheme = schemeOf(url);
    return scheme.empty() || scheme == "file";
}

std::string pathOf(const std::string &url)
{
    return schemeOf(url) == "file" ? url.substr(5) : url;
}

} // namespace

std::string shownUrl(const std::string &url)
{
    const size_t start = url.find("://");
    if (start == std::string::npos)
        return url;
    const size_t end = url.find_first_of("/?#", start + 3);
    const size_t at = url.substr(0, end).rfind('@');
    return at == std::string::npos || at < start ? url : url.substr(0, start + 3) + "***" + url.substr(at);
}

std::string containerForUrl(const std::string &url)
{
    static const std::map<std::string, std::string> containers = {
        {"rtsp", "rtsp"},   {"rtsps", "rtsp"},  {"rtmp", "flv"},      {"rtmps", "flv"},
        {"udp", "mpegts"},  {"srt", "mpegts"},  {"tcp", "mpegts"},    {"unix", "mpegts"},
        {"pipe", "mpegts"}, {"rist", "mpegts"}, {"rtp", "rtp_mpegts"}};
    const auto found = containers.find(schemeOf(url));
    return found == containers.end() ? std::string() : found->second;
}

void NetworkPatience::allow(int64_t us)
{
    m_untilUs = monotonicUs() + us;
}

void NetworkPatience::stop()
{
    m_stopUntilUs = monotonicUs() + closeLimitUs;
}

int NetworkPatience::isOver(void *self)
{
    const auto *patience = static_cast<NetworkPatience *>(self);
    const int64_t nowUs = monotonicUs();
    return nowUs > patience->m_untilUs || nowUs > patience->m_stopUntilUs ? 1 : 0;
}

Relayer::Relayer(const Settings &settings) : m_settings(settings), m_shownUrl(shownUrl(settings.url)) {}

MediaWriter::Settings Relayer::writerSettings(const std::string &url) const
{
    MediaWriter::Settings settings;
    settings.target = url == m_settings.url ? m_shownUrl : url;
    settings.part = isFile(url) ? "file:" + pathOf(url) : url;
    settings.container = m_settings.container.empty() ? containerForUrl(url) : m_settings.container;
    settings.video = m_settings.video;
    settings.sound = m_settings.sound;
    settings.live = true;
    settings.outputOptions = m_settings.outputOptions;
    if (schemeOf(url) == "tcp")
        settings.outputOptions.emplace("send_buffer_size", tcpSendBuffer);
    settings.interrupt = m_patience.callback();
    return settings;
}

void Relayer::check() const
{
    const std::string scheme = schemeOf(m_settings.url);
    const bool isRtsp = scheme == "rtsp" || scheme == "rtsps"; // no protocol to FFmpeg, but a container
    if (!scheme.empty() && !isRtsp && !avio_find_protocol_name(m_settings.url.c_str()))
        throw Failure(ExitUsage, m_shownUrl + ": this FFmpeg knows no protocol '" + scheme +
                                     "'; 'ffmpeg -protocols' lists them");
    MediaWriter(writerSettings(m_settings.url), {}); // container and encoders are there
    if (isFile(m_settings.url) && std::filesystem::is_regular_file(pathOf(m_settings.url)))
        throw Failure(ExitOutput, m_settings.url + ": is there already; choose another name");
}

void Relayer::stop()
{
    m_patience.stop();
    m_stopToken.stop();
}

uint64_t Relayer::dropped() const
{
    return m_droppedBefore + (m_shownCapture ? m_shownCapture->lost() : 0);
}

std::string Relayer::progressLine() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_shown.connections == 0)
        return m_settings.name + ": waiting";
    char rate[40];
    std::snprintf(rate, sizeof rate, "%.2f Mbit/s", m_bitsPerSecond / 1e6);
    return m_settings.name + " to " + m_shownUrl + ": " + durationText(m_shown.lengthUs) + ", " +
           std::to_string(m_shown.frames) + " frames, " + std::to_string(dropped()) + " dropped, " +
           (m_isConnected ? rate : "not connected");
}

Relayer::Totals Relayer::totals() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    Totals totals = m_shown;
    totals.dropped = dropped();
    return totals;
}

void Relayer::noteProgress()
{
    m_now.bytes = m_bytesBefore + (m_writer ? m_writer->packetBytes() : 0);
    m_now.lengthUs = m_endUs;
    const int64_t nowUs = monotonicUs();
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_shown = m_now;
    m_isConnected = m_writer != nullptr;
    if (nowUs - m_rateFromUs >= 1000000) {
        m_bitsPerSecond = 8e6 * static_cast<double>(m_now.bytes - m_rateFromBytes) /
                          static_cast<double>(nowUs - m_rateFromUs);
        m_rateFromUs = nowUs;
        m_rateFromBytes = m_now.bytes;
    }
}

void Relayer::reportDrops(bool isLast)
{
    uint64_t news = 0;
    {
        const int64_t nowUs = monotonicUs();
        const std::lock_guard<std::mutex> lock(m_mutex);
        news = dropped() - m_droppedSaid;
        if (news == 0 || (!isLast && m_dropsSaidUs && nowUs - *m_dropsSaidUs < dropsSaidEveryUs))
            return;
        m_droppedSaid += news;
        m_dropsSaidUs = nowUs;
    }
    say(m_settings.name + ": " + std::to_string(news) + " frames dropped, because " + m_shownUrl +
        " or encoding is too slow; try --video-options b=1M or preset=ultrafast");
}

void Relayer::run()
{
    ReaderPtr reader = waitForStore(m_settings.name, m_settings.waitUs, m_stopToken);
    if (!reader && !m_stopToken.stopped())
        openStore(m_settings.name); // says why
    m_startedUs = monotonicUs();
    while (reader) {
        openCapture(std::move(reader));
        const bool goesOn = follow();
        disconnect();
        noteProgress();
        if (!goesOn)
            break;
        const int64_t leftUs =
            m_settings.lengthUs ? *m_settings.lengthUs - (monotonicUs() - m_startedUs) : INT64_MAX;
        reader = waitForStore(m_settings.name, std::min(m_settings.returnWaitUs, leftUs), m_stopToken);
        if (!reader && !m_stopToken.stopped() && m_settings.returnWaitUs < leftUs)
            say(m_settings.name + ": its writer has gone; the relay ends");
    }
    noteProgress();
    if (m_now.connections == 0 && !m_stopToken.stopped())
        throw Failure(ExitNoFrame, m_settings.name + ": published nothing to relay; see 'zevshm info " +
                                       m_settings.name + "'");
}

void Relayer::openCapture(ReaderPtr reader)
{
    shm_store_info_t info{};
    info.size = sizeof info;
    shm_reader_get_info(reader.get(), &info);
    if (info.session != m_session) {
        m_resumeUs.reset();
        m_generation = 0;
    }
    m_session = info.session;
    StoreCapture::Settings settings;
    settings.withVideo = m_settings.withVideo;
    settings.withAudio = m_settings.withAudio;
    settings.startUs = m_resumeUs;
    settings.generation = m_generation;
    settings.queueUs = behindUs;
    m_capture = std::make_unique<StoreCapture>(std::move(reader), settings);
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_shownCapture = m_capture.get();
    }
    if (!m_capture->hasVideo() && !m_capture->hasAudio())
        throw Failure(ExitNoFrame, m_settings.name +
                                       ": carries nothing of what is to be relayed; see "
                                       "'zevshm info " +
                                       m_settings.name + "'");
}

bool Relayer::isOver() const
{
    return m_settings.lengthUs && monotonicUs() - m_startedUs >= *m_settings.lengthUs;
}

bool Relayer::follow()
{
    constexpr int lookMs = 50;
    bool isLast = false;
    while (!m_capture->done()) {
        if (!isLast && (m_stopToken.stopped() || isOver())) {
            isLast = true;
            m_capture->stop();
        }
        std::optional<CapturedItem> item = m_capture->next(lookMs);
        if (item)
            take(*item);
        noteProgress();
    }
    return endCapture() && !isLast;
}

bool Relayer::endCapture()
{
    const StoreCapture::End end = m_capture->end();
    m_resumeUs.reset();
    if (end == StoreCapture::End::Jumped && m_capture->resumeUs() > 0)
        m_resumeUs = m_capture->resumeUs();
    m_generation = m_capture->generation();
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_droppedBefore += m_capture->lost();
        m_shownCapture = nullptr;
    }
    m_capture.reset();
    if (end == StoreCapture::End::Failed)
        throw std::bad_alloc();
    if (end == StoreCapture::End::WriterGone && !m_stopToken.stopped())
        say(m_settings.name + ": its writer has gone; waiting for it");
    if (end == StoreCapture::End::Jumped)
        say(m_settings.name + ": its timestamps jumped; " + m_shownUrl + " is opened again");
    return end != StoreCapture::End::Stopped;
}

void Relayer::take(CapturedItem &item)
{
    try {
        if (!m_writer && !connect(item.timestampUs)) {
            m_now.unsent += item.picture ? 1 : 0;
            return;
        }
        m_patience.allow(sendLimitUs);
        m_writer->write(item);
    } catch (const Failure &failure) {
        if (failure.code() != ExitOutput)
            throw;
        m_now.unsent += item.picture ? 1 : 0;
        loseConnection(failure);
        return;
    }
    const int64_t us = item.timestampUs - m_writer->originUs();
    m_endUs = std::max(m_endUs, us);
    if (item.picture) {
        ++m_now.frames;
        m_endUs =
            std::max(m_endUs, us + std::clamp<int64_t>(m_capture->info().frame_interval_us, 0, 1000000));
        m_retryAfterUs = 0; // it works
    }
}

// A file that is complete is not written over.
std::string Relayer::nextUrl() const
{
    if (!isFile(m_settings.url) || m_now.connections == 0)
        return m_settings.url;
    const std::filesystem::path path(pathOf(m_settings.url));
    for (uint64_t number = m_now.connections + 1;; ++number) {
        std::filesystem::path next = path;
        next.replace_filename(path.stem().string() + "-" + std::to_string(number) +
                              path.extension().string());
        if (!std::filesystem::exists(next))
            return next;
    }
}

// False when it is not to be tried yet.
bool Relayer::connect(int64_t timestampUs)
{
    if (monotonicUs() < m_retryAtUs || m_stopToken.stopped())
        return false;
    // Time goes on from where it was, also when the store's went back.
    if (!m_originUs || timestampUs - *m_originUs < m_endUs)
        m_originUs = timestampUs - m_endUs;
    const shm_reader_format_t &format = m_capture->format();
    MediaWriter::Format carried;
    carried.video = m_capture->hasVideo();
    carried.sound = m_capture->hasAudio();
    carried.rate = rateOf(m_capture->info());
    carried.sampleRate = format.sample_rate;
    carried.channels = format.channels;
    carried.streams = std::clamp(m_capture->info().audio_streams, 1, int{SHM_STREAMS_MAX});
    const std::string url = nextUrl();
    auto writer = std::make_unique<MediaWriter>(writerSettings(url), carried);
    const AvPtr<AVFrame> first = describeFrame(format, m_capture->info().color);
    m_patience.allow(connectLimitUs);
    writer->open(carried.video ? first.get() : nullptr, *m_originUs, timestampUs - *m_originUs);
    m_writer = std::move(writer);
    ++m_now.connections;
    if (m_now.connections > 1)
        say(m_settings.name + ": connected again to " + (isFile(url) ? url : m_shownUrl));
    m_isTroubleSaid = false;
    return true;
}

void Relayer::loseConnection(const Failure &failure)
{
    m_patience.allow(0); // what it still holds is late anyway
    if (m_writer)
        m_bytesBefore += m_writer->packetBytes();
    m_writer.reset();
    if (m_now.connections == 0 && monotonicUs() - m_startedUs >= m_settings.waitUs)
        throw Failure(failure);
    m_retryAfterUs = m_retryAfterUs == 0 ? firstRetryUs : std::min(2 * m_retryAfterUs, lastRetryUs);
    m_retryAtUs = monotonicUs() + m_retryAfterUs;
    if (!m_isTroubleSaid)
        say(std::string(failure.what()) + "; trying again");
    m_isTroubleSaid = true;
}

// Sends what is left and says goodbye, where the receiver is still there to hear it.
void Relayer::disconnect()
{
    if (!m_writer)
        return;
    m_patience.allow(closeLimitUs);
    try {
        m_writer->finish();
    } catch (const Failure &) {
        // It has been sent, or it cannot be.
    }
    m_bytesBefore += m_writer->packetBytes();
    m_writer.reset();
}

} // namespace zevshm
