// Sends a store on to a media server or another machine.
#ifndef ZEVSHM_RELAYER_H
#define ZEVSHM_RELAYER_H

#include "failure.h"
#include "hostclock.h"
#include "mediawriter.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace zevshm {

// The URL without what its user would not want on a screen: name and password become "***".
std::string shownUrl(const std::string &url);

// FFmpeg's name of the container that receivers at such a URL understand; empty: by its ending.
std::string containerForUrl(const std::string &url);

// Ends FFmpeg's waiting for a network: after the time that is allowed for a step, or soon after a stop.
// Threads: stop() in any, the others in the one that uses the network.
class NetworkPatience
{
public:
    void allow(int64_t us);
    void stop();
    AVIOInterruptCB callback() { return {&NetworkPatience::isOver, this}; }

private:
    static int isOver(void *self);

    int64_t m_untilUs = INT64_MAX; // monotonic
    std::atomic<int64_t> m_stopUntilUs{INT64_MAX};
};

// Follows a store and sends what it publishes, as it comes. What the receiver takes too slowly is dropped
// half a second behind; what fails is connected again after 0.5 s, 1 s, 2 s and so on up to 8 s. When the
// writer has gone the output is closed; with the next writer it is opened anew, with that one's format.
// Timestamps of the output go on over all that: they are the store's, less the first.
//
// Usage: run() in a thread, stop() from another one.
// Threads: run() in one; stop(), progressLine(), totals() and reportDrops() in any, also while run() waits
// for the network. Errors: Failure out of run(): no store in time, an output that could not be opened at the
// start, encoders that do not fit.
class Relayer
{
public:
    struct Settings
    {
        std::string name;
        std::string url;
        std::optional<int64_t> lengthUs;
        int64_t waitUs = 0; // for the store, and then for the receiver
        int64_t returnWaitUs = INT64_MAX;
        bool withVideo = true;
        bool withAudio = true;
        std::string container;
        EncoderChoice video;
        EncoderChoice sound;
        std::map<std::string, std::string> outputOptions;
    };
    struct Totals
    {
        uint64_t frames = 0;  // sent
        uint64_t dropped = 0; // because the receiver or the encoder was too slow
        uint64_t unsent = 0;  // while there was no connection
        uint64_t connections = 0;
        int64_t bytes = 0;    // of packets
        int64_t lengthUs = 0; // of the store's time, from the first frame to the last
    };

    explicit Relayer(const Settings &settings);

    // Fails while nothing has been done yet, when there is no way to such a URL.
    void check() const;
    void run();
    void stop();

    std::string progressLine() const;
    Totals totals() const;
    // Says what has been dropped, not for every frame, but so that nobody has to look for it.
    void reportDrops(bool isLast);

private:
    void openCapture(ReaderPtr reader);
    bool follow(); // false at the end
    void take(CapturedItem &item);
    bool connect(int64_t timestampUs);
    void disconnect();
    void loseConnection(const Failure &failure);
    bool isOver() const;
    bool endCapture(); // true when another one can follow
    void noteProgress();
    uint64_t dropped() const; // with the mutex
    MediaWriter::Settings writerSettings(const std::string &url) const;
    std::string nextUrl() const;

    const Settings m_settings;
    const std::string m_shownUrl;
    StopToken m_stopToken;
    mutable NetworkPatience m_patience;

    // the running thread only
    std::unique_ptr<StoreCapture> m_capture;
    std::unique_ptr<MediaWriter> m_writer; // connected
    uint64_t m_session = 0;
    std::optional<int64_t> m_resumeUs;
    uint64_t m_generation = 0;
    int64_t m_startedUs = 0;           // monotonic
    std::optional<int64_t> m_originUs; // the store's timestamp of the output's time 0
    int64_t m_endUs = 0;               // in the output's time, of what was sent
    int64_t m_retryAtUs = 0;           // monotonic
    int64_t m_retryAfterUs = 0;        // grows
    bool m_isTroubleSaid = false;
    int64_t m_bytesBefore = 0; // by connections before
    Totals m_now;

    mutable std::mutex m_mutex;
    Totals m_shown; // protected by m_mutex, as are the next
    const StoreCapture *m_shownCapture = nullptr;
    uint64_t m_droppedBefore = 0; // by captures before
    uint64_t m_droppedSaid = 0;
    std::optional<int64_t> m_dropsSaidUs; // monotonic
    bool m_isConnected = false;
    double m_bitsPerSecond = 0;
    int64_t m_rateFromUs = 0;
    int64_t m_rateFromBytes = 0;
};

} // namespace zevshm

#endif
