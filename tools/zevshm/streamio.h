// Reads media from pipes without getting stuck in them.
#ifndef ZEVSHM_STREAMIO_H
#define ZEVSHM_STREAMIO_H

#include "ffmpeg.h"
#include "hostclock.h"

namespace zevshm {

// Lets FFmpeg read a pipe, and gives up at once when stopped: FFmpeg's own reader waits in read(), from which
// only a signal handler could take it.
//
// Ownership: takes no descriptor; `fd` is borrowed and must outlive the object. The AVIOContext belongs to
// the object. Threads: one at a time.
class PipeReader
{
public:
    PipeReader(int fd, const StopToken &stopToken);
    ~PipeReader();
    PipeReader(const PipeReader &) = delete;
    PipeReader &operator=(const PipeReader &) = delete;

    AVIOContext *context() const { return m_context; }

private:
    static int read(void *self, uint8_t *buffer, int size);

    int m_fd;
    const StopToken &m_stopToken;
    AVIOContext *m_context = nullptr;
};

} // namespace zevshm

#endif
