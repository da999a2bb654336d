#include "recorder.h"

#include "failure.h"
#include "messages.h"
#include "report.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <new>
#include <unistd.h>

namespace zevshm {

namespace {

constexpr int64_t soundTailUs = 500000; // the longest time that the last sound is waited for
constexpr int64_t lateUs = 1000000;     // a store that has stopped publishing does not reach its end

std::string partName(const std::string &file)
{
    return file + ".part";
}

bool isThere(const std::string &path)
{
    return access(path.c_str(), F_OK) == 0;
}

std::string folderOf(const std::string &file)
{
    const std::filesystem::path path(file);
    return path.has_parent_path() ? path.parent_path().string() : ".";
}

[[noreturn]] void failOutput(const std::string &path, int error, const std::string &remedy)
{
    throw Failure(ExitOutput, path + ": cannot be created (" + std::strerror(error) + "); " + remedy);
}

// What has been written is on the disk, and has the name, when this returns; the name is on the disk, too,
// where the folder can be synchronized. Closes `written`, so that it needs no descriptor more than there was.
void complete(FileDescriptor &written, const std::string &part, const std::string &file, bool overwrite)
{
    const bool isSynced = fsync(written.get()) == 0 || errno == EINVAL || errno == EROFS;
    const int error = errno;
    written.reset();
    if (!isSynced)
        throw Failure(ExitOutput,
                      part + ": cannot be written (" + std::strerror(error) + "); check the free space");
    int rc = overwrite ? -1 : renameat2(AT_FDCWD, part.c_str(), AT_FDCWD, file.c_str(), RENAME_NOREPLACE);
    // Not every file system can do that.
    if (overwrite || (rc != 0 && (errno == EINVAL || errno == ENOSYS)))
        rc = rename(part.c_str(), file.c_str());
    if (rc != 0)
        throw Failure(ExitOutput, file + ": cannot be created (" + std::strerror(errno) +
                                      "); the complete recording is " + part);
    FileDescriptor folder;
    folder.reset(open(folderOf(file).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder.get() >= 0)
        fsync(folder.get());
}

Failure outOfMemory(const std::string &store)
{
    return Failure(ExitResources, store + ": there is not enough memory to go on recording it; end other "
                                          "programs or publish smaller frames");
}

} // namespace

void FileDescriptor::reset(int fd)
{
    if (m_fd >= 0)
        close(m_fd);
    m_fd = fd;
}

std::string durationText(int64_t us)
{
    const int64_t ms = (us + 500) / 1000;
    char text[40];
    std::snprintf(text, sizeof text, "%02d:%02d:%02d.%03d", static_cast<int>(ms / 3600000),
                  static_cast<int>(ms / 60000 % 60), static_cast<int>(ms / 1000 % 60),
                  static_cast<int>(ms % 1000));
    return text;
}

MediaWriter::Settings Recorder::writerSettings(const std::string &file) const
{
    MediaWriter::Settings settings;
    settings.target = file;
    settings.part = partName(file);
    settings.container = m_settings.container;
    settings.video = m_settings.video;
    settings.sound = m_settings.sound;
    return settings;
}

void Recorder::checkFile() const
{
    const std::string &file = m_settings.file;
    MediaWriter(writerSettings(file), {}); // container and encoders are there
    if (std::filesystem::is_directory(file))
        failOutput(file, EISDIR, "name a file");
    if (access(folderOf(file).c_str(), W_OK | X_OK) != 0)
        failOutput(file, errno, "check the path and its permissions");
    if (m_settings.overwrite)
        return;
    if (isThere(file))
        throw Failure(ExitOutput, file + ": is there already; choose another name or give --overwrite");
    if (isThere(partName(file)))
        throw Failure(ExitOutput, partName(file) + ": is there from a recording that goes on, or that was "
                                                   "cut short; rename it, remove it or give --overwrite");
}

void Recorder::stop()
{
    m_stopToken.stop();
}

std::string Recorder::progressLine() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_shown.file.empty())
        return m_settings.name + ": waiting";
    return m_shown.file + ": " + durationText(m_shown.lengthUs) + ", " + std::to_string(m_shown.frames) +
           " frames, " + std::to_string(m_shown.lost) + " lost, " + byteText(m_shown.bytes);
}

void Recorder::noteProgress()
{
    if (m_writer) {
        m_open.bytes = static_cast<uint64_t>(m_writer->bytes());
        m_open.soundUs = m_writer->soundEndUs();
        if (m_open.frames == 0)
            m_open.lengthUs = m_open.soundUs;
        m_open.lost = m_lostBefore + (m_capture ? m_capture->lost() : 0);
        m_open.lostSoundUs = m_lostSoundBeforeUs + (m_capture ? m_capture->lostSoundUs() : 0);
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_shown = m_writer ? m_open : Segment();
}

void Recorder::run()
{
    try {
        recordAll();
    } catch (const Failure &failure) {
        saveAndThrow(failure);
    } catch (const std::bad_alloc &) {
        endCapture(); // what waits in it is memory
        saveAndThrow(outOfMemory(m_settings.name));
    }
}

// What was recorded is completed, where it can be, before it is said what went wrong.
void Recorder::saveAndThrow(const Failure &failure)
{
    endCapture();
    if (!m_writer)
        throw Failure(failure);
    std::string kept = partName(m_open.file);
    if (m_open.frames == 0 && m_open.soundUs == 0) {
        m_writer.reset();
        unlink(kept.c_str());
        throw Failure(failure);
    }
    if (!m_isFinishing) {
        try {
            finishFile();
            kept = m_open.file;
        } catch (const Failure &) {
            // What is there of it is in the part. The first failure is what has to be mended.
        } catch (const std::bad_alloc &) {
        }
    }
    m_writer.reset();
    throw Failure(failure.code(),
                  std::string(failure.what()) + "; what was recorded until then is in " + kept);
}

void Recorder::endCapture()
{
    if (!m_capture)
        return;
    m_lostBefore += m_capture->lost();
    m_lostSoundBeforeUs += m_capture->lostSoundUs();
    m_capture.reset();
}

void Recorder::recordAll()
{
    ReaderPtr reader = waitForStore(m_settings.name, m_settings.firstWaitUs, m_stopToken);
    if (m_settings.firstWaitUs > 0)
        m_resumeUs = 0; // who waits for a store wants all of it, also when it has come first
    if (!reader)
        openStore(m_settings.name); // says why
    while (reader) {
        openCapture(std::move(reader));
        const Next next = follow();
        if (next == Next::End)
            break;
        if (next == Next::NewFile)
            finishFile();
        reader = waitForStore(m_settings.name, m_settings.returnWaitUs, m_stopToken);
        if (!reader && !m_stopToken.stopped())
            say(m_settings.name + ": its writer has gone; the recording ends");
    }
    finishFile();
    if (m_segments.empty())
        throw Failure(ExitNoFrame, m_settings.name + ": published nothing to record; see 'zevshm info " +
                                       m_settings.name + "'");
}

void Recorder::openCapture(ReaderPtr reader)
{
    shm_store_info_t info{};
    info.size = sizeof info;
    shm_reader_get_info(reader.get(), &info);
    StoreCapture::Settings settings;
    settings.withVideo = m_settings.withVideo;
    settings.withAudio = m_settings.withAudio;
    if (info.session != m_session && m_session != 0) {
        finishFile();
        m_resumeUs = 0;
        m_generation = 0;
    }
    m_unseen = 0; // it is seen now, or counted by the capture
    settings.startUs = m_resumeUs;
    settings.generation = m_generation;
    if (m_writer)
        settings.soundStartUs = m_writer->originUs() + m_writer->soundEndUs();
    else
        m_startedUs = monotonicUs();
    m_session = info.session;
    m_capture = std::make_unique<StoreCapture>(std::move(reader), settings);
    if (!m_capture->hasVideo() && !m_capture->hasAudio())
        throw Failure(ExitNoFrame, m_settings.name +
                                       ": carries nothing of what is to be recorded; see "
                                       "'zevshm info " +
                                       m_settings.name + "'");
}

Recorder::Next Recorder::follow()
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
    m_resumeUs = m_capture->resumeUs();
    m_generation = m_capture->generation();
    m_unseen = m_capture->unseen();
    const StoreCapture::End end = m_capture->end();
    endCapture();
    if (end == StoreCapture::End::Failed)
        throw outOfMemory(m_settings.name);
    if (isLast || end == StoreCapture::End::Stopped)
        return Next::End;
    if (end == StoreCapture::End::Jumped) {
        say(m_settings.name + ": its timestamps jumped; goes on in the next file");
        return Next::NewFile;
    }
    return Next::Store;
}

bool Recorder::isOver() const
{
    if (!m_settings.lengthUs)
        return false;
    const int64_t now = monotonicUs();
    if (now - m_startedUs > *m_settings.lengthUs - m_completedUs + lateUs)
        return true;
    const bool isVideoOver = !m_capture->hasVideo() || m_videoOverUs != 0;
    const bool isSoundOver =
        !m_capture->hasAudio() || m_isSoundOver || (m_videoOverUs != 0 && now - m_videoOverUs > soundTailUs);
    return isVideoOver && isSoundOver;
}

void Recorder::take(CapturedItem &item)
{
    if (!m_writer)
        startFile(item.timestampUs);
    const int64_t startUs = item.timestampUs - m_writer->originUs();
    const int64_t limitUs = m_settings.lengthUs ? *m_settings.lengthUs - m_completedUs : INT64_MAX;
    if (item.picture) {
        if (startUs >= limitUs) {
            if (m_videoOverUs == 0)
                m_videoOverUs = monotonicUs();
            return;
        }
        m_writer->write(item);
        ++m_open.frames;
        m_open.lengthUs = startUs + m_capture->info().frame_interval_us;
        return;
    }
    const auto channels = static_cast<size_t>(m_capture->format().channels);
    const int rate = m_capture->format().sample_rate;
    if (limitUs != INT64_MAX) {
        const int64_t left = std::max<int64_t>((limitUs - startUs) * rate / 1000000, 0);
        if (static_cast<uint64_t>(left) * channels <= item.samples.size()) {
            item.samples.resize(static_cast<size_t>(left) * channels);
            m_isSoundOver = true;
        }
    }
    if (!item.samples.empty())
        m_writer->write(item);
}

std::string Recorder::nextFileName() const
{
    if (m_segments.empty())
        return m_settings.file;
    const std::filesystem::path path(m_settings.file);
    for (size_t number = m_segments.size() + 1;; ++number) {
        std::filesystem::path next = path;
        next.replace_filename(path.stem().string() + "-" + std::to_string(number) +
                              path.extension().string());
        if (m_settings.overwrite || (!isThere(next) && !isThere(partName(next))))
            return next;
    }
}

void Recorder::startFile(int64_t originUs)
{
    const std::string file = nextFileName();
    const shm_reader_format_t &format = m_capture->format();
    MediaWriter::Format carried;
    carried.video = m_capture->hasVideo();
    carried.sound = m_capture->hasAudio();
    carried.rate = rateOf(m_capture->info());
    carried.sampleRate = format.sample_rate;
    carried.channels = format.channels;
    carried.streams = std::clamp(m_capture->info().audio_streams, 1, int{SHM_STREAMS_MAX});
    auto writer = std::make_unique<MediaWriter>(writerSettings(file), carried);
    const std::string part = partName(file);
    const int fd =
        open(part.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | (m_settings.overwrite ? 0 : O_EXCL), 0666);
    if (fd < 0)
        failOutput(part, errno, "check the path, its permissions and the free space");
    m_part.reset(fd);
    m_open = Segment();
    m_open.file = file;
    m_isFinishing = false;
    m_lostBefore = 0;
    m_lostSoundBeforeUs = 0;
    m_videoOverUs = 0;
    m_isSoundOver = false;
    m_writer = std::move(writer);
    const AvPtr<AVFrame> first = describeFrame(format, m_capture->info().color);
    m_writer->open(carried.video ? first.get() : nullptr, originUs);
    if (!m_segments.empty())
        say(m_settings.name + ": goes on in " + file);
}

void Recorder::finishFile()
{
    if (!m_writer)
        return;
    m_isFinishing = true;
    m_lostBefore += m_unseen;
    m_writer->finish();
    noteProgress();
    const std::string part = partName(m_open.file);
    complete(m_part, part, m_open.file, m_settings.overwrite);
    std::error_code ignored;
    const auto bytes = std::filesystem::file_size(m_open.file, ignored);
    m_open.bytes = ignored ? m_open.bytes : bytes;
    m_writer.reset();
    m_completedUs += m_open.lengthUs;
    m_segments.push_back(m_open);
    const std::string remedy =
        "because encoding or the disk is too slow; try --video-options preset=ultrafast";
    if (m_open.lost > m_unseen)
        say(m_open.file + ": " + std::to_string(m_open.lost - m_unseen) + " frames lost, " + remedy);
    if (m_unseen > 0)
        say(m_open.file + ": the last " + std::to_string(m_unseen) +
            " frames lost, because the writer ended right after them; let it stay a moment");
    if (m_open.lostSoundUs > 0)
        say(m_open.file + ": " + durationText(m_open.lostSoundUs) + " of sound lost, " + remedy);
    m_unseen = 0;
}

} // namespace zevshm
