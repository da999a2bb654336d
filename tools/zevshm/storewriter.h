// The store that is published to.
#ifndef ZEVSHM_STOREWRITER_H
#define ZEVSHM_STOREWRITER_H

#include "failure.h"
#include "input.h"

#include <shm/shm_writer.h>

#include <mutex>
#include <string>

namespace zevshm {

struct StoreSettings
{
    std::string name;
    std::string group; // empty: this user only
    int pixelFormat = SHM_PIXEL_FORMAT_YUV420P;
    uint32_t historyFrames = 0;
    bool sealed = false;
    std::string memory; // as shm_writer_params_t says; empty: memfd
    bool dmabufOthers = false;
};

// Which exit code an error of the store's library means.
ExitCode exitCodeForWriter(int negativeErrno);

// Owns a shm_writer_t and can replace it by one of another format: readers see the store go and come.
//
// Threads: video calls and open() in one thread, publishAudio() in one, stats() and reportExport() in any.
// Errors: Failure out of open(); the rest answers as libshm does.
class StoreWriter
{
public:
    explicit StoreWriter(const StoreSettings &settings) : m_settings(settings) {}
    ~StoreWriter();
    StoreWriter(const StoreWriter &) = delete;
    StoreWriter &operator=(const StoreWriter &) = delete;

    void open(const InputFormat &format) { open(format, m_settings.pixelFormat); }
    // With a pixel format of the input's own, and with so many slots that may be acquired at once.
    void open(const InputFormat &format, int pixelFormat, uint32_t lentFrames = 1);
    // How frames come into the store (shm_capture), also into those that are opened after this.
    void setCapture(int capture);
    // Frames are to have DMA-bufs; stats() says whether they do.
    bool isExportWished() const;
    const InputFormat &format() const { return m_format; }
    int pixelFormat() const { return m_pixelFormat; }

    int acquireForDevice(shm_writer_frame_t &frame)
    {
        return shm_writer_acquire_for_device(m_writer, &frame);
    }
    int acquire(shm_writer_frame_t &frame) { return shm_writer_acquire(m_writer, &frame); }
    int publish(shm_writer_frame_t &frame, int64_t labelUs)
    {
        return shm_writer_publish(m_writer, &frame, labelUs);
    }
    void abandon(shm_writer_frame_t &frame) { shm_writer_abandon(m_writer, &frame); }
    int publishAudio(const AudioBlock &block, int64_t labelUs);

    shm_writer_stats_t stats() const;
    // Says why frames that were to have DMA-bufs have none; open() does, and memory that is added later may
    // lack them too.
    void reportExport();

private:
    void tellOfExport();

    const StoreSettings m_settings;
    int m_pixelFormat = m_settings.pixelFormat;
    bool m_exportReported = false;
    int m_capture = SHM_CAPTURE_NONE;
    InputFormat m_format;
    mutable std::mutex m_mutex; // held while the writer is replaced, and by threads other than the video's
    shm_writer_t *m_writer = nullptr; // owned
};

} // namespace zevshm

#endif
