// FFmpeg's program as a sender of MPEG transport streams, over UDP or SRT.
#ifndef ZEVSHM_STREAMSENDER_H
#define ZEVSHM_STREAMSENDER_H

#include <string>
#include <sys/types.h>
#include <vector>

namespace driver {

// Runs a program of FFmpeg's to its end; false when it is not there or fails.
bool runFfmpeg(std::vector<std::string> arguments);

// Sends moving 320x240 pictures in real time. Killed when it is forgotten.
class StreamSender
{
public:
    explicit StreamSender(std::string url, int rate = 25);
    ~StreamSender();
    StreamSender(const StreamSender &) = delete;
    StreamSender &operator=(const StreamSender &) = delete;

    // Starts it, and again when it has ended: the kernel refuses datagrams while nobody listens, which ends
    // it. False when there is no such program.
    bool keepSending();

private:
    const std::string m_url;
    const int m_rate;
    pid_t m_pid = -1;
};

} // namespace driver

#endif
