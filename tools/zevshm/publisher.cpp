#include "publisher.h"

#include "cadence.h"
#include "messages.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace zevshm {

namespace {

constexpr int64_t startDelayUs = 30000;    // time to convert the first frame
constexpr int64_t moveOnUs = 200000;       // a file that is later than this is moved on
constexpr int64_t audioGiveUpUs = 1000000; // live sound older than this is left out
constexpr int64_t lastSoundUs = 100000;    // the store stays for so long after the last of it
constexpr int lateInRowMost = 4;           // then one is published all the same: a slow picture beats none

int64_t blockEndUs(const AudioBlock &block, int sampleRate)
{
    return block.mediaUs + (static_cast<int64_t>(block.frames) * 1000000 + sampleRate / 2) / sampleRate;
}

} // namespace

Publisher::Publisher(Input &input, StoreWriter &store, SharedClock &clock, StopToken &stopToken,
                     const Settings &settings)
    : m_input(input), m_store(store), m_clock(clock), m_stopToken(stopToken), m_settings(settings),
      m_faults(settings.faults)
{}

Publisher::~Publisher()
{
    m_stopToken.stop();
    if (m_video.joinable())
        m_video.join();
    if (m_audio.joinable())
        m_audio.join();
}

InputFormat Publisher::storeFormat(const InputFormat &input, const Settings &settings)
{
    InputFormat store = input;
    if (store.video) {
        if (settings.size)
            std::tie(store.video->width, store.video->height) = *settings.size;
        if (!settings.keepRange)
            store.video->color.range = SHM_RANGE_FULL;
    }
    return store;
}

void Publisher::run(std::function<void()> wake)
{
    m_wake = std::move(wake);
    m_clock.observe();
    m_startUs = monotonicUs() + startDelayUs;
    if (!m_input.anchorsClock()) {
        if (m_settings.firstWallUs) // the label of media time 0 is exactly that instant
            m_startUs = *m_settings.firstWallUs - m_clock.labelFor(0);
        m_clock.anchor(0, m_startUs);
    }
    const bool hasVideo = m_store.format().video.has_value();
    const bool hasAudio = m_store.format().audio.has_value();
    m_running = (hasVideo ? 1 : 0) + (hasAudio ? 1 : 0);
    if (hasVideo)
        m_video = std::thread([this] {
            try {
                videoLoop();
            } catch (...) {
                m_failure = std::current_exception();
                m_stopToken.stop();
            }
            ended();
        });
    if (hasAudio)
        m_audio = std::thread([this] {
            audioLoop();
            ended();
        });
}

void Publisher::ended()
{
    --m_running;
    m_wake();
}

void Publisher::join()
{
    if (m_video.joinable())
        m_video.join();
    if (m_audio.joinable())
        m_audio.join();
    if (m_failure)
        std::rethrow_exception(m_failure);
}

Publisher::Counters Publisher::counters() const
{
    return {m_published, m_late, m_withheld, m_noSlot, m_refused};
}

void Publisher::videoLoop()
{
    VideoItem item;
    int64_t lastDueUs = m_startUs;
    for (uint64_t number = 0; m_input.nextVideo(item); ++number) {
        if (number == 0)
            m_seen = item.format;
        followFormat(item);
        publishFrame(item, number);
        lastDueUs = m_clock.dueAt(item.mediaUs);
    }
    // The last frame is shown for its time, too.
    if (m_store.format().video->rate)
        m_stopToken.waitUntil(lastDueUs + intervalUs(*m_store.format().video->rate));
}

void Publisher::followFormat(const VideoItem &item)
{
    if (item.format == m_seen)
        return;
    m_seen = item.format;
    InputFormat changed = m_store.format();
    changed.video = item.format;
    changed = storeFormat(changed, m_settings);
    if (*changed.video == *m_store.format().video)
        return;
    char rate[32] = "";
    if (item.format.rate)
        std::snprintf(rate, sizeof rate, " %.6g fps",
                      static_cast<double>(item.format.rate->numerator) / item.format.rate->denominator);
    say("the input changed to " + std::to_string(item.format.width) + "x" +
        std::to_string(item.format.height) + " " + shm_matrix_name(item.format.color.matrix) + rate +
        "; the store is opened anew");
    m_store.open(changed);
}

// The store takes timestamps that go back only when the host's clock really went back, and here it did not.
void Publisher::followStepBack(int64_t labelShiftUs)
{
    if (labelShiftUs < m_lastShiftUs)
        m_store.open(m_store.format());
    m_lastShiftUs = labelShiftUs;
}

Publisher::Timing Publisher::checkTiming(int64_t dueUs, int64_t interval, int inRow)
{
    const int64_t lateUs = monotonicUs() - dueUs;
    if (lateUs <= std::max<int64_t>(interval, 20000))
        return Timing::OnTime;
    if (!m_input.isLive() && lateUs > moveOnUs) {
        m_clock.shift(lateUs);
        say("the input is slower than real time; moved on by " + std::to_string(lateUs / 1000) + " ms");
        return Timing::OnTime;
    }
    return m_input.isLive() && !m_input.anchorsClock()
               ? Timing::TooLate // a generated frame costs nothing to leave out
               : (inRow < lateInRowMost ? Timing::TooLate : Timing::OnTime);
}

void Publisher::publishFrame(const VideoItem &item, uint64_t number)
{
    const int64_t interval = m_store.format().video->rate ? intervalUs(*m_store.format().video->rate) : 40000;
    if (const int64_t step = m_clock.observe())
        say("the wall clock was set by " + std::to_string(step / 1000) + " ms; timestamps follow");
    if (checkTiming(m_clock.dueAt(item.mediaUs), interval, m_lateInRow) == Timing::TooLate) {
        ++m_lateInRow;
        ++m_late;
        return;
    }
    m_lateInRow = 0;

    const int64_t evenDueUs = m_clock.dueAt(item.mediaUs);
    const Faults::Verdict verdict = m_faults.video(number, elapsed(evenDueUs));
    const int64_t dueUs = std::max(evenDueUs + verdict.delayUs, m_lastDueUs + 1);
    if (verdict.withheld) {
        ++m_withheld;
        m_stopToken.waitUntil(dueUs);
        return;
    }
    followStepBack(verdict.labelShiftUs);
    const int64_t labelUs = m_clock.labelFor(dueUs) + verdict.labelShiftUs;

    shm_writer_frame_t slot{};
    const int acquired = m_store.acquire(slot);
    if (acquired < 0) {
        if (acquired != -EAGAIN)
            throw Failure(ExitInternal, std::string("the store gives no slot (") + std::strerror(-acquired) +
                                            "); start publishing again");
        ++m_noSlot;
        m_stopToken.waitUntil(dueUs);
        return;
    }
    try {
        m_input.fillVideo(slot, m_store.pixelFormat(), *m_store.format().video, item, number, labelUs);
    } catch (...) {
        m_store.abandon(slot);
        throw;
    }
    if (!m_stopToken.waitUntil(dueUs)) {
        m_store.abandon(slot);
        return;
    }
    const int published = m_store.publish(slot, labelUs);
    if (published == 0) {
        ++m_published;
        m_lastDueUs = dueUs;
    } else if (published == -EEXIST) {
        ++m_refused;
    } else {
        throw Failure(ExitInternal, std::string("a frame cannot be published (") + std::strerror(-published) +
                                        "); start publishing again");
    }
}

void Publisher::audioLoop()
{
    const int sampleRate = m_store.format().audio->sampleRate;
    const bool alone = !m_store.format().video;
    AudioBlock block;
    while (m_input.nextAudio(block)) {
        if (alone) {
            if (const int64_t step = m_clock.observe())
                say("the wall clock was set by " + std::to_string(step / 1000) + " ms; timestamps follow");
        }
        const int64_t lateUs = monotonicUs() - m_clock.dueAt(blockEndUs(block, sampleRate));
        if (lateUs > audioGiveUpUs && m_input.isLive())
            continue;
        if (alone && !m_input.isLive() && lateUs > moveOnUs)
            m_clock.shift(lateUs);
        if (!m_stopToken.waitUntil(m_clock.dueAt(blockEndUs(block, sampleRate))))
            return;
        const int64_t startUs = m_clock.dueAt(block.mediaUs);
        const Faults::Verdict verdict = m_faults.audio(elapsed(startUs));
        if (verdict.withheld)
            continue;
        if (alone)
            followStepBack(verdict.labelShiftUs);
        const int64_t labelUs = m_clock.labelFor(startUs) + verdict.labelShiftUs;
        m_input.fillAudio(block, labelUs);
        m_store.publishAudio(block, labelUs);
    }
    // Nothing wakes those who read sound: they look now and then, and are to find the last of it, too.
    m_stopToken.waitUntil(monotonicUs() + lastSoundUs);
}

} // namespace zevshm
