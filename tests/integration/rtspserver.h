// A camera that speaks RTSP, as far as a client needs it to.
#ifndef ZEVSHM_RTSPSERVER_H
#define ZEVSHM_RTSPSERVER_H

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace driver {

// Serves an MPEG transport stream in RTP packets within the RTSP connection, one client after the other; each
// connection is closed after some seconds, as by a camera that starts anew, and the next one starts at the
// stream's beginning.
//
// Threads: one of its own, from construction to destruction.
class RtspServer
{
public:
    // `stream`: its bytes, which last `seconds`; `secondsAConnection`: then it is dropped.
    RtspServer(std::vector<uint8_t> stream, double seconds, double secondsAConnection);
    ~RtspServer();
    RtspServer(const RtspServer &) = delete;
    RtspServer &operator=(const RtspServer &) = delete;

    std::string url() const;
    int plays() const { return m_plays; } // connections that asked for the stream

private:
    void run();
    void serve(int client);
    bool answer(int client, const std::string &request);
    bool send(int client);

    const std::vector<uint8_t> m_stream;
    const double m_bytesASecond;
    const double m_secondsAConnection;
    int m_listener = -1;
    int m_port = 0;
    std::atomic<int> m_plays{0};
    std::atomic<bool> m_over{false};
    std::thread m_thread;
};

} // namespace driver

#endif
