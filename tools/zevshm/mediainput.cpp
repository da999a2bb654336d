#include "mediainput.h"

#include "color.h"
#include "failure.h"
#include "messages.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace zevshm {

namespace {

constexpr int64_t firstBackoffUs = 500000;
constexpr int64_t longestBackoffUs = 8000000;
constexpr int maximumChannels = SHM_CHANNELS_MAX;

std::string seconds(int64_t us)
{
    const std::string tenths = std::to_string((us + 50000) / 100000);
    return (tenths.size() > 1 ? tenths.substr(0, tenths.size() - 1) : "0") + "." + tenths.back() + " s";
}

} // namespace

MediaInput::MediaInput(const Settings &settings, SharedClock &clock, StopToken &stopToken)
    : m_settings(settings), m_name(settings.input), m_clock(clock), m_stopToken(stopToken)
{}

MediaInput::~MediaInput()
{
    MediaInput::stop();
}

void MediaInput::start()
{
    m_demuxer = std::make_unique<Demuxer>(m_name, Demuxer::Wishes{m_settings.withVideo, m_settings.withAudio},
                                          m_stopToken);
    m_demuxer->open();
    m_live = m_demuxer->isLive();
    m_hasVideo = m_demuxer->hasVideo();
    m_hasAudio = m_demuxer->hasAudio();
    m_rate = m_settings.rate ? m_settings.rate : m_demuxer->rate();
    if (m_hasAudio) {
        const AudioFormat source = m_demuxer->audioFormat();
        m_audioFormat.sampleRate =
            m_settings.sampleRate.value_or(source.sampleRate > 0 ? source.sampleRate : 48000);
        m_audioFormat.channels =
            m_settings.channels.value_or(std::clamp(source.channels, 1, maximumChannels));
        m_audioConverter = std::make_unique<AudioConverter>(m_audioFormat);
        m_blocks.emplace(m_audioFormat.sampleRate, m_audioFormat.channels,
                         std::max(1, m_audioFormat.sampleRate / 100));
    }
    m_snap.emplace(m_demuxer->rate(), m_demuxer->videoTickUs());
    if (m_settings.rate)
        m_rateConversion.emplace(*m_settings.rate);
    m_thread = std::thread([this] { run(); });
}

void MediaInput::stop()
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_stopToken.stop();
    }
    m_changed.notify_all();
    if (m_thread.joinable())
        m_thread.join();
}

std::optional<InputFormat> MediaInput::waitForFormat()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    const auto ready = [this] {
        return m_ended || m_stopToken.stopped() || !(m_hasVideo ? m_video.empty() : m_audio.empty());
    };
    // The stop flag has a lock of its own and may be set by a signal's handling thread: look again now and
    // then.
    while (!ready())
        m_changed.wait_for(lock, std::chrono::milliseconds(100));
    if (m_failure)
        std::rethrow_exception(m_failure);
    if (m_stopToken.stopped())
        return std::nullopt;
    InputFormat format;
    if (m_hasVideo && !m_video.empty())
        format.video = m_video.front().format;
    if (m_hasAudio && (format.video || !m_audio.empty()))
        format.audio = m_audioFormat;
    if (!format.video && !format.audio)
        throw Failure(ExitMedia,
                      m_name.display + ": nothing in it could be decoded; check it with 'ffprobe'");
    return format;
}

void MediaInput::run()
{
    std::exception_ptr failure;
    try {
        const Demuxer::Sink sink{
            [this](AvPtr<AVFrame> frame, int64_t ptsUs) { onVideo(std::move(frame), ptsUs); },
            [this](const AVFrame &frame, int64_t ptsUs) { onAudio(frame, ptsUs); }};
        bool damageSaid = false;
        while (!m_stopToken.stopped()) {
            const Demuxer::Result result = m_demuxer->step(sink);
            if (m_demuxer->damaged() && !damageSaid) {
                damageSaid = true;
                say(m_name.display + ": parts are damaged and are skipped; check it with 'ffprobe'");
            }
            if (result == Demuxer::Result::Again)
                continue;
            if (m_stopToken.stopped())
                break;
            if (m_live) {
                if (!openAgain())
                    break;
            } else if (m_settings.loop && !m_name.isPipe) { // a pipe has no beginning to go back to
                if (!startOver())
                    break;
            } else {
                if (result == Demuxer::Result::Failed)
                    say(m_name.display + ": ends early (" + m_demuxer->lastError() +
                        "); check it with 'ffprobe'");
                break;
            }
        }
        if (m_blocks) {
            m_blocks->flush();
            takeBlocks();
        }
    } catch (...) {
        failure = std::current_exception();
    }
    end(failure);
}

void MediaInput::end(std::exception_ptr failure)
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_ended = true;
        m_failure = std::move(failure);
    }
    m_changed.notify_all();
}

bool MediaInput::openAgain()
{
    say(m_name.display + ": dropped (" + m_demuxer->lastError() + "); the store stays, connecting again");
    m_demuxer.reset(); // the port that it listens on has to be free for the next one
    for (int64_t backoffUs = firstBackoffUs;; backoffUs = std::min(2 * backoffUs, longestBackoffUs)) {
        if (!m_stopToken.waitUntil(monotonicUs() + backoffUs))
            return false;
        try {
            auto fresh =
                std::make_unique<Demuxer>(m_name, Demuxer::Wishes{m_hasVideo, m_hasAudio}, m_stopToken);
            fresh->open();
            m_demuxer = std::move(fresh);
            break;
        } catch (const Failure &failure) {
            if (m_stopToken.stopped())
                return false;
            say(std::string(failure.what()) + "; next attempt in " +
                seconds(std::min(2 * backoffUs, longestBackoffUs)));
        }
    }
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_video.clear();
        m_audio.clear();
    }
    // The stream's own times start anew: so does the place of its first frame on our clock.
    m_clock.reset();
    m_baseUs.reset();
    m_offsetUs = 0;
    m_snap.emplace(m_demuxer->rate(), m_demuxer->videoTickUs());
    if (m_settings.rate)
        m_rateConversion.emplace(*m_settings.rate);
    else
        m_rate = m_demuxer->rate(); // it may have been set differently meanwhile
    if (m_hasAudio) {
        m_audioConverter = std::make_unique<AudioConverter>(m_audioFormat);
        m_blocks.emplace(m_audioFormat.sampleRate, m_audioFormat.channels,
                         std::max(1, m_audioFormat.sampleRate / 100));
    }
    say(m_name.display + ": connected again");
    return true;
}

bool MediaInput::startOver()
{
    if (!m_passHasFrames)
        return false; // a pass without a frame would spin
    if (!m_demuxer->rewind()) {
        // What cannot be searched can be opened again.
        auto fresh = std::make_unique<Demuxer>(m_name, Demuxer::Wishes{m_hasVideo, m_hasAudio}, m_stopToken);
        fresh->open();
        m_demuxer = std::move(fresh);
    }
    m_passHasFrames = false;
    m_offsetUs = m_passEndUs;
    m_snap.emplace(m_demuxer->rate(), m_demuxer->videoTickUs());
    return true;
}

int64_t MediaInput::mediaTime(int64_t ptsUs, bool isVideo)
{
    if (!m_baseUs) {
        // Sound may come first out of a file; media time 0 is the first picture all the same.
        const auto videoStart = m_live || isVideo ? std::nullopt : m_demuxer->videoStartUs();
        m_baseUs = videoStart.value_or(ptsUs);
    }
    return ptsUs - *m_baseUs + m_offsetUs;
}

void MediaInput::onVideo(AvPtr<AVFrame> frame, int64_t ptsUs)
{
    const int64_t mediaUs = mediaTime(m_snap->snap(ptsUs), true);
    const auto known = m_demuxer->rate();
    m_passEndUs = mediaUs + (known ? intervalUs(*known) : 40000);
    m_passHasFrames = true;
    if (m_live && m_clock.arrived(mediaUs, m_settings.latencyUs))
        say(m_name.display + ": its timestamps jumped; followed");
    if (!m_remarked)
        remark(*frame);

    const std::shared_ptr<AVFrame> picture(frame.release(), AvDelete{});
    if (!m_rateConversion) {
        push(mediaUs, picture);
        return;
    }
    const RateConversion::Places places = m_rateConversion->accept(mediaUs);
    for (int64_t place = places.first; place < places.own && m_previous; ++place)
        push(m_rateConversion->placeUs(place), m_previous);
    if (places.take)
        push(m_rateConversion->placeUs(places.own), picture);
    m_previous = picture;
}

// What a picture looks wrong by and we do nothing about is said, with what helps; once.
void MediaInput::remark(const AVFrame &frame)
{
    m_remarked = true;
    const std::optional<Turn> turn = m_demuxer->turn();
    if (!turn)
        say(m_name.display + ": wants to be shown mirrored or at an angle and is published as stored; "
                             "convert it with 'ffmpeg' first, which applies that");
    if (isInterlaced(frame))
        say(m_name.display + ": is interlaced and is published with both fields in one frame; deinterlace it "
                             "with 'ffmpeg -vf yadif' first, if moving edges look like combs");
    const double aspect = m_demuxer->pixelAspect(frame);
    if (m_settings.scaled || std::abs(aspect - 1) < 0.01)
        return;
    // Only ever enlarged: nothing of the picture is lost.
    auto width = std::lround(frame.width * std::max(aspect, 1.0));
    auto height = std::lround(frame.height / std::min(aspect, 1.0));
    if (swapsSides(turn.value_or(Turn::None)))
        std::swap(width, height);
    say(m_name.display + ": its pixels are not square and it is published as stored; --size " +
        std::to_string(width) + "x" + std::to_string(height) + " gives it its shape");
}

void MediaInput::push(int64_t mediaUs, const std::shared_ptr<AVFrame> &picture)
{
    VideoItem item;
    item.mediaUs = mediaUs;
    item.picture = picture;
    item.turn = m_demuxer->turn().value_or(Turn::None);
    item.format.width = picture->width;
    item.format.height = picture->height;
    item.format.color = colorOf(*picture);
    if (item.turn != Turn::None)
        item.format.color.siting = SHM_SITING_UNKNOWN; // what lay beside the luma may lie above it now
    if (swapsSides(item.turn))
        std::swap(item.format.width, item.format.height);
    item.format.rate = m_rate;
    waitForRoom();
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_video.push_back(std::move(item));
    }
    m_changed.notify_all();
}

void MediaInput::onAudio(const AVFrame &frame, int64_t ptsUs)
{
    int64_t mediaUs = mediaTime(ptsUs, false);
    if (!m_hasVideo) {
        m_passHasFrames = true;
        m_passEndUs =
            mediaUs + (frame.sample_rate > 0 ? av_rescale(frame.nb_samples, 1000000, frame.sample_rate) : 0);
        if (m_live && m_clock.arrived(mediaUs, m_settings.latencyUs))
            say(m_name.display + ": its timestamps jumped; followed");
    }
    const std::vector<int16_t> &samples = m_audioConverter->convert(&frame, mediaUs);
    m_blocks->add(samples.data(), static_cast<int>(samples.size()) / m_audioFormat.channels, mediaUs);
    takeBlocks();
}

void MediaInput::takeBlocks()
{
    while (std::optional<AudioBlock> block = m_blocks->next()) {
        if (block->mediaUs < 0 && m_hasVideo)
            continue; // before the first picture
        waitForRoom();
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_audio.push_back(std::move(*block));
        }
        m_changed.notify_all();
    }
}

// Reads on while any stream is low, because a container may hold its streams in lumps; the hard limits keep a
// stream that never comes from filling the memory with the other one.
void MediaInput::waitForRoom()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    const auto room = [this] {
        if (m_stopToken.stopped())
            return true;
        if (m_live) {
            // Never wait for a live stream's consumer: that would only move the queue into the network.
            while (m_video.size() > mostQueuedFrames)
                m_video.pop_front();
            while (m_audio.size() > mostQueuedBlocks)
                m_audio.pop_front();
            return true;
        }
        if (!m_formatTaken && m_video.empty() && m_hasVideo) {
            // Nobody takes sound before the first picture has told the format.
            while (m_audio.size() > mostQueuedBlocks)
                m_audio.pop_front();
            return true;
        }
        if (m_video.size() >= mostQueuedFrames || m_audio.size() >= mostQueuedBlocks)
            return false;
        return (m_hasVideo && m_video.size() < queuedFrames) || (m_hasAudio && m_audio.size() < queuedBlocks);
    };
    while (!room())
        m_changed.wait_for(lock, std::chrono::milliseconds(100));
}

bool MediaInput::nextVideo(VideoItem &item)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    while (m_video.empty() && !m_ended && !m_stopToken.stopped())
        m_changed.wait_for(lock, std::chrono::milliseconds(100));
    if (m_stopToken.stopped() || m_video.empty())
        return false;
    item = std::move(m_video.front());
    m_video.pop_front();
    lock.unlock();
    m_changed.notify_all();
    return true;
}

bool MediaInput::nextAudio(AudioBlock &block)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    while (m_audio.empty() && !m_ended && !m_stopToken.stopped())
        m_changed.wait_for(lock, std::chrono::milliseconds(100));
    if (m_stopToken.stopped() || m_audio.empty())
        return false;
    block = std::move(m_audio.front());
    m_audio.pop_front();
    lock.unlock();
    m_changed.notify_all();
    return true;
}

void MediaInput::fillVideo(const shm_writer_frame_t &slot, int pixelFormat, const VideoFormat &store,
                           const VideoItem &item, uint64_t, int64_t)
{
    m_converter.convert(*item.picture, slot, pixelFormat, store.color, item.turn);
}

} // namespace zevshm
