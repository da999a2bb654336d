#include "rtspserver.h"

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace driver {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int lookMs = 100; // how often the end is looked for
constexpr size_t packetBytes = 7 * 188;

bool sendAll(int socket, const void *bytes, size_t count)
{
    const auto *from = static_cast<const char *>(bytes);
    while (count > 0) {
        const ssize_t sent = ::send(socket, from, count, MSG_NOSIGNAL);
        if (sent <= 0)
            return false;
        from += sent;
        count -= static_cast<size_t>(sent);
    }
    return true;
}

bool readable(int descriptor, int timeoutMs)
{
    pollfd wait{descriptor, POLLIN, 0};
    return poll(&wait, 1, timeoutMs) > 0;
}

} // namespace

RtspServer::RtspServer(std::vector<uint8_t> stream, double seconds, double secondsAConnection)
    : m_stream(std::move(stream)), m_bytesASecond(static_cast<double>(m_stream.size()) / seconds),
      m_secondsAConnection(secondsAConnection)
{
    m_listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(m_listener, reinterpret_cast<sockaddr *>(&address), sizeof address);
    listen(m_listener, 4);
    getsockname(m_listener, reinterpret_cast<sockaddr *>(&address), &length);
    m_port = ntohs(address.sin_port);
    m_thread = std::thread([this] { run(); });
}

RtspServer::~RtspServer()
{
    m_over = true;
    m_thread.join();
    close(m_listener);
}

std::string RtspServer::url() const
{
    return "rtsp://127.0.0.1:" + std::to_string(m_port) + "/camera";
}

void RtspServer::run()
{
    while (!m_over) {
        if (!readable(m_listener, lookMs))
            continue;
        const int client = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0)
            continue;
        serve(client);
        close(client);
    }
}

void RtspServer::serve(int client)
{
    std::string received;
    while (!m_over) {
        if (!readable(client, lookMs))
            continue;
        char bytes[2048];
        const ssize_t count = recv(client, bytes, sizeof bytes, 0);
        if (count <= 0)
            return;
        received.append(bytes, static_cast<size_t>(count));
        for (size_t end; (end = received.find("\r\n\r\n")) != std::string::npos;) {
            const std::string request = received.substr(0, end + 2);
            received.erase(0, end + 4);
            if (!answer(client, request))
                return;
        }
    }
}

// False: the connection has ended.
bool RtspServer::answer(int client, const std::string &request)
{
    const size_t number = request.find("CSeq:");
    std::string reply =
        "RTSP/1.0 200 OK\r\n" +
        (number == std::string::npos ? std::string()
                                     : request.substr(number, request.find("\r\n", number) + 2 - number)) +
        "Session: 1\r\n";
    std::string body;
    if (request.rfind("OPTIONS", 0) == 0)
        reply += "Public: OPTIONS, DESCRIBE, SETUP, PLAY, TEARDOWN\r\n";
    if (request.rfind("DESCRIBE", 0) == 0)
        body = "v=0\r\no=- 0 0 IN IP4 127.0.0.1\r\ns=camera\r\nt=0 0\r\nm=video 0 RTP/AVP 33\r\n"
               "a=control:track0\r\n";
    if (request.rfind("SETUP", 0) == 0)
        reply += "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n";
    if (!body.empty())
        reply += "Content-Type: application/sdp\r\nContent-Length: " + std::to_string(body.size()) + "\r\n";
    reply += "\r\n" + body;
    if (!sendAll(client, reply.data(), reply.size()) || request.rfind("TEARDOWN", 0) == 0)
        return false;
    return request.rfind("PLAY", 0) != 0 || send(client);
}

bool RtspServer::send(int client)
{
    ++m_plays;
    const Clock::time_point start = Clock::now();
    uint16_t sequence = 0;
    for (size_t at = 0; at + packetBytes <= m_stream.size() && !m_over; at += packetBytes) {
        const double due = static_cast<double>(at) / m_bytesASecond;
        if (due > m_secondsAConnection)
            return false;
        std::this_thread::sleep_until(start + std::chrono::duration<double>(due)); // the stream's own pace
        const auto time = static_cast<uint32_t>(due * 90000);
        const uint8_t head[16] = {'$',
                                  0, // channel
                                  (packetBytes + 12) >> 8,
                                  (packetBytes + 12) & 0xff,
                                  0x80,
                                  33, // MPEG transport stream
                                  static_cast<uint8_t>(sequence >> 8),
                                  static_cast<uint8_t>(sequence),
                                  static_cast<uint8_t>(time >> 24),
                                  static_cast<uint8_t>(time >> 16),
                                  static_cast<uint8_t>(time >> 8),
                                  static_cast<uint8_t>(time),
                                  0,
                                  0,
                                  0,
                                  1};
        ++sequence;
        if (!sendAll(client, head, sizeof head) || !sendAll(client, m_stream.data() + at, packetBytes))
            return false;
    }
    return false;
}

} // namespace driver
