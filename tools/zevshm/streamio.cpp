#include "streamio.h"

#include <cerrno>
#include <poll.h>
#include <unistd.h>

namespace zevshm {

namespace {
constexpr int bufferBytes = 65536;
constexpr int pollMs = 100; // the longest time a stop goes unnoticed
} // namespace

PipeReader::PipeReader(int fd, const StopToken &stopToken) : m_fd(fd), m_stopToken(stopToken)
{
    auto *buffer = static_cast<unsigned char *>(av_malloc(bufferBytes));
    m_context = buffer ? avio_alloc_context(buffer, bufferBytes, 0, this, &PipeReader::read, nullptr, nullptr)
                       : nullptr;
    if (!m_context)
        av_free(buffer);
}

PipeReader::~PipeReader()
{
    if (m_context)
        av_freep(&m_context->buffer); // FFmpeg may have replaced the one it was given
    avio_context_free(&m_context);
}

int PipeReader::read(void *self, uint8_t *buffer, int size)
{
    const auto *reader = static_cast<PipeReader *>(self);
    for (;;) {
        if (reader->m_stopToken.stopped())
            return AVERROR_EXIT;
        pollfd poller{reader->m_fd, POLLIN, 0};
        const int ready = poll(&poller, 1, pollMs);
        if (ready == 0 || (ready < 0 && errno == EINTR))
            continue;
        const ssize_t got = ::read(reader->m_fd, buffer, static_cast<size_t>(size));
        if (got > 0)
            return static_cast<int>(got);
        if (got == 0)
            return AVERROR_EOF;
        if (errno != EINTR && errno != EAGAIN)
            return AVERROR(errno);
    }
}

} // namespace zevshm
