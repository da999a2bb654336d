// Records a store into files.
#ifndef ZEVSHM_RECORDER_H
#define ZEVSHM_RECORDER_H

#include "failure.h"
#include "hostclock.h"
#include "mediawriter.h"

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace zevshm {

// "00:01:02.345"
std::string durationText(int64_t us);

class FileDescriptor // closes it
{
public:
    FileDescriptor() = default;
    ~FileDescriptor() { reset(); }
    FileDescriptor(const FileDescriptor &) = delete;
    FileDescriptor &operator=(const FileDescriptor &) = delete;
    int get() const { return m_fd; }
    void reset(int fd = -1);

private:
    int m_fd = -1;
};

// Usage: checkFile(), run() in a thread, stop() from another one.
// Threads: run() in one; stop() and progressLine() in any; segments() after run() has returned or thrown.
// Errors: Failure out of checkFile() and run(). What was completed before stays and is in segments().
class Recorder
{
public:
    struct Settings
    {
        std::string name;
        std::string file;
        std::optional<int64_t> lengthUs;
        int64_t firstWaitUs = 0;
        int64_t returnWaitUs = 2000000;
        bool overwrite = false;
        bool withVideo = true;
        bool withAudio = true;
        std::string container;
        EncoderChoice video;
        EncoderChoice sound;
    };
    struct Segment // one file
    {
        std::string file;
        uint64_t frames = 0;
        uint64_t lost = 0;
        int64_t lostSoundUs = 0; // of all streams together
        int64_t lengthUs = 0;    // of the picture, or of the sound where there is no picture
        int64_t soundUs = 0;
        uint64_t bytes = 0;
    };

    explicit Recorder(const Settings &settings) : m_settings(settings) {}

    // Fails while nothing has been done yet, when the file cannot be made.
    void checkFile() const;
    void run();
    void stop();

    std::string progressLine() const;
    const std::vector<Segment> &segments() const { return m_segments; }

private:
    enum class Next { End, Store, NewFile }; // after a capture

    void recordAll();
    void openCapture(ReaderPtr reader);
    void endCapture();
    [[noreturn]] void saveAndThrow(const Failure &failure);
    Next follow();
    void startFile(int64_t originUs);
    void take(CapturedItem &item);
    bool isOver() const;
    void finishFile();
    void noteProgress();
    MediaWriter::Settings writerSettings(const std::string &file) const;
    std::string nextFileName() const;

    const Settings m_settings;
    StopToken m_stopToken;

    // the running thread only
    std::unique_ptr<StoreCapture> m_capture;
    std::unique_ptr<MediaWriter> m_writer; // of the file that is open
    uint64_t m_session = 0;
    std::optional<int64_t> m_resumeUs; // where the next capture begins; nothing: at the newest frame
    int64_t m_startedUs = 0;           // monotonic, of the file
    int64_t m_completedUs = 0;         // in the files before
    uint64_t m_lostBefore = 0;         // in this file, by captures before
    int64_t m_lostSoundBeforeUs = 0;
    uint64_t m_generation = 0;  // of the session's newest frame that was taken
    uint64_t m_unseen = 0;      // since then, by a writer that has gone; lost if it stays so
    bool m_isFinishing = false; // the file, or trying
    int64_t m_videoOverUs = 0;  // monotonic, when all frames were there; 0: not yet
    bool m_isSoundOver = false;
    Segment m_open;        // the file that is open
    FileDescriptor m_part; // the same
    std::vector<Segment> m_segments;

    mutable std::mutex m_mutex;
    Segment m_shown; // protected by m_mutex
};

} // namespace zevshm

#endif
