#include "storewriter.h"

#include "messages.h"

#include <cerrno>
#include <cstring>

namespace zevshm {

ExitCode exitCodeForWriter(int negativeErrno)
{
    switch (-negativeErrno) {
    case EADDRINUSE:
        return ExitPublished;
    case EACCES:
    case EPERM:
    case ENOENT:
    case ENOTDIR:
    case EROFS:
        return ExitDirectory;
    case ENOMEM:
    case ENOSPC:
    case EMFILE:
    case ENFILE:
    case EFBIG: // the file size limit, which memory objects obey
        return ExitResources;
    case EINVAL:
        return ExitUsage;
    default:
        return ExitInternal;
    }
}

StoreWriter::~StoreWriter()
{
    shm_writer_close(m_writer);
}

void StoreWriter::open(const InputFormat &format, int pixelFormat, uint32_t lentFrames)
{
    shm_writer_params_t params;
    shm_writer_params_init(&params);
    params.name = m_settings.name.c_str();
    params.group = m_settings.group.empty() ? nullptr : m_settings.group.c_str();
    params.flags = (m_settings.sealed ? SHM_WRITER_SEALED : 0) |
                   (m_settings.dmabufOthers ? SHM_WRITER_DMABUF_OTHERS : 0);
    params.memory = m_settings.memory.empty() ? nullptr : m_settings.memory.c_str();
    params.history_frames = m_settings.historyFrames;
    if (format.video) {
        params.width = format.video->width;
        params.height = format.video->height;
        params.pixel_format = pixelFormat;
        params.lent_frames = lentFrames;
        params.color = format.video->color;
        if (format.video->rate) {
            params.rate_numerator = static_cast<uint32_t>(format.video->rate->numerator);
            params.rate_denominator = static_cast<uint32_t>(format.video->rate->denominator);
        }
    }
    if (format.audio) {
        params.sample_rate = format.audio->sampleRate;
        params.channels = format.audio->channels;
        params.audio_streams = 1;
    }
    const std::lock_guard<std::mutex> lock(m_mutex);
    shm_writer_close(m_writer);
    m_writer = nullptr;
    shm_error_t error{};
    const int rc = shm_writer_open(&params, &m_writer, &error);
    if (rc < 0)
        throw Failure(exitCodeForWriter(rc), error.message[0] ? error.message
                                                              : m_settings.name + ": cannot be published (" +
                                                                    std::strerror(-rc) + ")");
    m_format = format;
    m_pixelFormat = pixelFormat;
    shm_writer_set_capture(m_writer, m_capture);
    tellOfExport();
}

void StoreWriter::setCapture(int capture)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_capture = capture;
    if (m_writer)
        shm_writer_set_capture(m_writer, capture);
}

bool StoreWriter::isExportWished() const
{
    const std::string &memory = m_settings.memory;
    return memory == "udmabuf" || memory.rfind("dma-heap:", 0) == 0;
}

void StoreWriter::reportExport()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_writer)
        tellOfExport();
}

// Asked for and not to be had is worth a line; once, however often the store is opened anew.
void StoreWriter::tellOfExport()
{
    if (!isExportWished() || m_exportReported || !m_format.video)
        return;
    shm_writer_stats_t now{};
    now.size = sizeof now;
    if (shm_writer_get_stats(m_writer, &now) != 0 || std::strcmp(now.dmabuf, "yes") == 0)
        return;
    m_exportReported = true;
    const std::string text = now.dmabuf; // "no: " or "yes, but ...: ", and why
    const bool areSome = text.rfind("yes", 0) == 0;
    const size_t colon = text.find(": ");
    say((areSome ? "some frames have no DMA-buf: " : "frames have no DMA-buf: ") +
        text.substr(colon == std::string::npos ? 0 : colon + 2));
}

int StoreWriter::publishAudio(const AudioBlock &block, int64_t labelUs)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return shm_writer_publish_audio(m_writer, 0, block.samples.data(), static_cast<uint32_t>(block.frames),
                                    labelUs);
}

shm_writer_stats_t StoreWriter::stats() const
{
    shm_writer_stats_t stats{};
    stats.size = sizeof stats;
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_writer)
        shm_writer_get_stats(m_writer, &stats);
    return stats;
}

} // namespace zevshm
