#ifndef TESTS_SUPPORT_TESTCLIENT_H
#define TESTS_SUPPORT_TESTCLIENT_H

// A blocking-with-timeouts TCP client for tests against a real server.

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace NVQTest
{

class CTestClient
{
  public:
    CTestClient() = default;
    ~CTestClient() { Close(); }
    CTestClient(const CTestClient &) = delete;
    CTestClient &operator=(const CTestClient &) = delete;
    CTestClient(CTestClient &&other) noexcept : m_fd(other.m_fd) { other.m_fd = -1; }

    bool Connect(int port, bool ipv6 = false)
    {
        Close();
        struct sockaddr_in6 v6 = {};
        struct sockaddr_in v4 = {};
        v6.sin6_family = AF_INET6;
        v6.sin6_port = v4.sin_port = htons(static_cast<uint16_t>(port));
        v6.sin6_addr = in6addr_loopback;
        v4.sin_family = AF_INET;
        v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const struct sockaddr *address =
            ipv6 ? reinterpret_cast<struct sockaddr *>(&v6) : reinterpret_cast<struct sockaddr *>(&v4);
        m_fd = ::socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (m_fd < 0 || ::connect(m_fd, address, ipv6 ? sizeof(v6) : sizeof(v4)) != 0) {
            Close();
            return false;
        }
        const int on = 1;
        ::setsockopt(m_fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        return true;
    }

    bool Send(const std::string &bytes)
    {
        size_t sent = 0;
        while (sent < bytes.size()) {
            const ssize_t n = ::send(m_fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (n <= 0) {
                if (n < 0 && errno == EINTR)
                    continue;
                return false;
            }
            sent += static_cast<size_t>(n);
        }
        return true;
    }

    // Exactly the next `count` bytes, or fewer when the peer closed or the
    // time is up; bytes beyond them wait for the next call.
    std::string Receive(size_t count, int timeoutMs = 5000)
    {
        std::string received = ReadUntil(timeoutMs, [&](const std::string &r) { return r.size() >= count; });
        if (received.size() > count) {
            m_leftover = received.substr(count);
            received.resize(count);
        }
        return received;
    }

    // One complete answer: the header block, then as many bytes as its
    // Content-Length names (none without one).
    std::string ReceiveAnswer(int timeoutMs = 5000)
    {
        std::string head =
            ReadUntil(timeoutMs, [](const std::string &r) { return r.find("\r\n\r\n") != r.npos; });
        const size_t end = head.find("\r\n\r\n");
        if (end == std::string::npos)
            return head;
        m_leftover = head.substr(end + 4);
        head.resize(end + 4);
        const size_t field = head.find("Content-Length: ");
        return head +
               Receive(field == std::string::npos ? 0 : std::stoul(head.substr(field + 16)), timeoutMs);
    }

    // Reads until the peer closes the connection or the time is up.
    std::string ReceiveUntilClosed(int timeoutMs = 5000)
    {
        return ReadUntil(timeoutMs, [](const std::string &) { return false; });
    }

    // True once the peer has closed (end of stream or reset) within the time.
    bool WaitClosed(int timeoutMs = 5000)
    {
        ReceiveUntilClosed(timeoutMs);
        return m_closed;
    }

    bool IsClosed() const { return m_closed; }
    void ShutdownWrite() { ::shutdown(m_fd, SHUT_WR); }
    // A small receive window keeps a download from landing in socket buffers
    // at once (set before the request).
    void SetReceiveBuffer(int bytes) { ::setsockopt(m_fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof(bytes)); }
    // Leaves with a reset, as a client that aborts a download does.
    void Abort()
    {
        const struct linger hard = {1, 0};
        ::setsockopt(m_fd, SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
        Close();
    }
    int Fd() const { return m_fd; }

    void Close()
    {
        if (m_fd >= 0)
            ::close(m_fd);
        m_fd = -1;
        m_closed = false;
        m_leftover.clear();
    }

  private:
    // The leftover and what arrives until `enough` holds, the peer closes
    // or the time is up.
    template <class TEnough> std::string ReadUntil(int timeoutMs, TEnough enough)
    {
        std::string received;
        received.swap(m_leftover);
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        char buffer[65536];
        while (!enough(received) && !m_closed) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
            struct pollfd wait = {m_fd, POLLIN, 0};
            if (left.count() <= 0 || ::poll(&wait, 1, static_cast<int>(left.count())) <= 0)
                break;
            const ssize_t n = ::recv(m_fd, buffer, sizeof(buffer), 0);
            if (n > 0)
                received.append(buffer, static_cast<size_t>(n));
            else if (n == 0 || errno != EINTR)
                m_closed = true;
        }
        return received;
    }

    int m_fd = -1;
    bool m_closed = false;
    std::string m_leftover;
};

} // namespace NVQTest

#endif
