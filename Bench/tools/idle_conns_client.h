// idle_conns' client: one event loop over non-blocking sockets that opens
// the connections, sends one request on each (plain, TLS or WebSocket
// upgrade), reads the answer and then holds the socket.
#ifndef BENCH_TOOLS_IDLE_CONNS_CLIENT_H
#define BENCH_TOOLS_IDLE_CONNS_CLIENT_H

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace idle_conns {

using Clock = std::chrono::steady_clock;

struct Options {
    std::string host = "127.0.0.1";
    int port = 0;
    int pid = 0;
    int conns = 10000;
    std::string path = "/1k.bin";
    int window = 256;
    double timeout = 90;
    double stall = 8;
    double settle = 2;
    bool tls = false;
    bool ws = false;
};

enum class State { Connecting, Handshaking, Sending, Reading, Idle, Closed };

struct Conn {
    int fd = -1;
    SSL *ssl = nullptr;
    State state = State::Connecting;
    size_t sent = 0;
    std::string head;        // response bytes until the header block is complete
    bool head_done = false;
    bool chunked = false;
    long long body_left = -1; // -1: length not known (read until close or chunk end)
    std::string tail;         // last bytes of a chunked body, to spot its end
    int status = 0;
};
inline double Seconds(Clock::duration d)
{
    return std::chrono::duration<double>(d).count();
}
class Client {
public:
    Client(const Options &o) : opt_(o), conns_(static_cast<size_t>(o.conns))
    {
        request_ = "GET " + o.path + " HTTP/1.1\r\nHost: " + o.host + ":" + std::to_string(o.port) +
                   "\r\nUser-Agent: idle_conns\r\n" +
                   (o.ws ? "Upgrade: websocket\r\nConnection: Upgrade\r\n"
                           "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n"
                         : "Accept: */*\r\n") +
                   "\r\n";
        if (o.tls) {
            tls_ = SSL_CTX_new(TLS_client_method());
            SSL_CTX_set_verify(tls_, SSL_VERIFY_NONE, nullptr);
            SSL_CTX_set_session_cache_mode(tls_, SSL_SESS_CACHE_OFF);
            SSL_CTX_set_mode(tls_, SSL_MODE_RELEASE_BUFFERS | SSL_MODE_ENABLE_PARTIAL_WRITE);
        }
        std::memset(&addr_, 0, sizeof addr_);
        addr_.sin_family = AF_INET;
        addr_.sin_port = htons(static_cast<uint16_t>(o.port));
        inet_pton(AF_INET, o.host.c_str(), &addr_.sin_addr);
        ep_ = epoll_create1(EPOLL_CLOEXEC);
    }

    // Opens and answers connections until all are idle, the deadline passes,
    // or nothing has moved for the stall period.
    void Open()
    {
        Clock::time_point start = Clock::now();
        last_progress_ = start;
        std::vector<epoll_event> events(1024);
        for (;;) {
            while (in_flight_ < opt_.window && next_ < opt_.conns)
                StartOne();
            if (next_ >= opt_.conns && in_flight_ == 0)
                break;
            Clock::time_point now = Clock::now();
            if (Seconds(now - start) > opt_.timeout) {
                stop_reason_ = "timeout";
                break;
            }
            if (Seconds(now - last_progress_) > opt_.stall) {
                stop_reason_ = "stalled";
                break;
            }
            int n = epoll_wait(ep_, events.data(), static_cast<int>(events.size()), 100);
            for (int i = 0; i < n; ++i)
                Handle(static_cast<size_t>(events[static_cast<size_t>(i)].data.u64), events[static_cast<size_t>(i)].events);
        }
        open_seconds_ = Seconds(Clock::now() - start);
    }

    // Keeps serving events (so closes by the server are noticed) for a while.
    void Settle(double seconds)
    {
        Clock::time_point end = Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
        std::vector<epoll_event> events(1024);
        while (Clock::now() < end) {
            int n = epoll_wait(ep_, events.data(), static_cast<int>(events.size()), 50);
            for (int i = 0; i < n; ++i)
                Handle(static_cast<size_t>(events[static_cast<size_t>(i)].data.u64), events[static_cast<size_t>(i)].events);
        }
    }

    // A socket still counts as held only if the server has not closed it.
    int CountOpen()
    {
        int open = 0;
        for (Conn &c : conns_) {
            if (c.fd < 0 || c.state == State::Closed)
                continue;
            // Over TLS a close_notify would look like data here; Settle has
            // already read it and closed the connection.
            char b;
            ssize_t r = recv(c.fd, &b, 1, MSG_PEEK | MSG_DONTWAIT);
            if (r == 0 || (r < 0 && errno != EAGAIN && errno != EWOULDBLOCK))
                continue;
            ++open;
        }
        return open;
    }

    int Started() const { return next_; }
    int Answered() const { return answered_; }
    int Answered200() const { return answered_200_; }
    int ConnectErrors() const { return connect_errors_; }
    int ClosedByServer() const { return closed_by_server_; }
    int Unanswered() const { return in_flight_; }
    double OpenSeconds() const { return open_seconds_; }
    const char *StopReason() const { return stop_reason_; }

private:
    void StartOne()
    {
        size_t idx = static_cast<size_t>(next_++);
        Conn &c = conns_[idx];
        c.fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (c.fd < 0) {
            ++connect_errors_;
            c.state = State::Closed;
            return;
        }
        int one = 1;
        setsockopt(c.fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        int r = connect(c.fd, reinterpret_cast<sockaddr *>(&addr_), sizeof addr_);
        if (r != 0 && errno != EINPROGRESS) {
            ++connect_errors_;
            close(c.fd);
            c.fd = -1;
            c.state = State::Closed;
            return;
        }
        c.state = State::Connecting;
        epoll_event ev{};
        ev.events = EPOLLOUT | EPOLLIN | EPOLLRDHUP;
        ev.data.u64 = idx;
        epoll_ctl(ep_, EPOLL_CTL_ADD, c.fd, &ev);
        ++in_flight_;
    }

    void Progress() { last_progress_ = Clock::now(); }

    void Fail(Conn &c, bool by_server)
    {
        bool was_in_flight = c.state != State::Idle;
        epoll_ctl(ep_, EPOLL_CTL_DEL, c.fd, nullptr);
        if (c.ssl) {
            SSL_free(c.ssl);
            c.ssl = nullptr;
        }
        close(c.fd);
        c.fd = -1;
        c.state = State::Closed;
        if (was_in_flight)
            --in_flight_;
        if (by_server)
            ++closed_by_server_;
        else
            ++connect_errors_;
        Progress();
    }

    void Handle(size_t idx, uint32_t events)
    {
        Conn &c = conns_[idx];
        if (c.fd < 0 || c.state == State::Closed)
            return;
        if (c.state == State::Connecting) {
            int err = 0;
            socklen_t len = sizeof err;
            getsockopt(c.fd, SOL_SOCKET, SO_ERROR, &err, &len);
            if (err != 0) {
                Fail(c, false);
                return;
            }
            if (!(events & EPOLLOUT))
                return;
            c.state = opt_.tls ? State::Handshaking : State::Sending;
            if (opt_.tls) {
                c.ssl = SSL_new(tls_);
                SSL_set_fd(c.ssl, c.fd);
                SSL_set_connect_state(c.ssl);
            }
            Progress();
        }
        if (c.state == State::Handshaking) {
            int r = SSL_do_handshake(c.ssl);
            if (r != 1) {
                int err = SSL_get_error(c.ssl, r);
                if (err != SSL_ERROR_WANT_READ && err != SSL_ERROR_WANT_WRITE) {
                    ERR_clear_error();
                    Fail(c, true);
                    return;
                }
                // Level-triggered: wait only for what the handshake needs.
                epoll_event ev{};
                ev.events = EPOLLIN | EPOLLRDHUP | (err == SSL_ERROR_WANT_WRITE ? EPOLLOUT : 0u);
                ev.data.u64 = idx;
                epoll_ctl(ep_, EPOLL_CTL_MOD, c.fd, &ev);
                return;
            }
            Progress();
            c.state = State::Sending;
            epoll_event ev{};
            ev.events = EPOLLOUT | EPOLLIN | EPOLLRDHUP;
            ev.data.u64 = idx;
            epoll_ctl(ep_, EPOLL_CTL_MOD, c.fd, &ev);
        }
        if (c.state == State::Sending) {
            while (c.sent < request_.size()) {
                ssize_t w = Send(c, request_.data() + c.sent, request_.size() - c.sent);
                if (w < 0) {
                    if (errno == EAGAIN || errno == EWOULDBLOCK)
                        return;
                    Fail(c, true);
                    return;
                }
                c.sent += static_cast<size_t>(w);
            }
            c.state = State::Reading;
            epoll_event ev{};
            ev.events = EPOLLIN | EPOLLRDHUP;
            ev.data.u64 = idx;
            epoll_ctl(ep_, EPOLL_CTL_MOD, c.fd, &ev);
            Progress();
            return;
        }
        if (!(events & (EPOLLIN | EPOLLRDHUP | EPOLLHUP | EPOLLERR)))
            return;
        char buf[16384];
        for (;;) {
            ssize_t r = Recv(c, buf, sizeof buf);
            if (r > 0) {
                Progress();
                if (c.state == State::Reading)
                    Consume(c, buf, static_cast<size_t>(r));
                continue;
            }
            if (r < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
                return;
            // Orderly close or error. An answer without a length ends here.
            if (c.state == State::Reading && c.head_done && c.body_left < 0 && !c.chunked)
                Finish(c);
            Fail(c, true);
            return;
        }
    }

    // send() and recv(), through TLS when it is on; "try again" is -1 with
    // errno EAGAIN either way, the end of the stream 0.
    ssize_t Send(Conn &c, const char *data, size_t n)
    {
        if (!c.ssl)
            return send(c.fd, data, n, MSG_NOSIGNAL);
        int w = SSL_write(c.ssl, data, static_cast<int>(n));
        if (w > 0)
            return w;
        int err = SSL_get_error(c.ssl, w);
        ERR_clear_error();
        errno = (err == SSL_ERROR_WANT_READ || err == SSL_ERROR_WANT_WRITE) ? EAGAIN : EPIPE;
        return -1;
    }

    ssize_t Recv(Conn &c, char *buf, size_t n)
    {
        if (!c.ssl)
            return recv(c.fd, buf, n, 0);
        int r = SSL_read(c.ssl, buf, static_cast<int>(n));
        if (r > 0)
            return r;
        int err = SSL_get_error(c.ssl, r);
        ERR_clear_error();
        if (err == SSL_ERROR_WANT_READ || err == SSL_ERROR_WANT_WRITE) {
            errno = EAGAIN;
            return -1;
        }
        if (err == SSL_ERROR_ZERO_RETURN)
            return 0;
        errno = ECONNRESET;
        return -1;
    }

    void Consume(Conn &c, const char *data, size_t n)
    {
        if (!c.head_done) {
            c.head.append(data, n);
            size_t end = c.head.find("\r\n\r\n");
            if (end == std::string::npos) {
                if (c.head.size() > 65536)
                    c.head.erase(0, c.head.size() - 4);
                return;
            }
            c.head_done = true;
            std::string lower = c.head.substr(0, end + 2);
            std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char ch) { return std::tolower(ch); });
            if (lower.size() > 12)
                c.status = std::atoi(lower.c_str() + 9);
            size_t cl = lower.find("\r\ncontent-length:");
            if (cl != std::string::npos)
                c.body_left = std::atoll(lower.c_str() + cl + 17);
            c.chunked = lower.find("\r\ntransfer-encoding: chunked") != std::string::npos;
            std::string rest = c.head.substr(end + 4);
            c.head.clear();
            c.head.shrink_to_fit();
            if (opt_.ws && c.status == 101) {
                // Whatever follows the upgrade is WebSocket frames, not a body.
                Finish(c);
                return;
            }
            ConsumeBody(c, rest.data(), rest.size());
            return;
        }
        ConsumeBody(c, data, n);
    }

    void ConsumeBody(Conn &c, const char *data, size_t n)
    {
        if (c.chunked) {
            c.tail.append(data, n);
            if (c.tail.size() > 16)
                c.tail.erase(0, c.tail.size() - 16);
            if (c.tail.size() >= 5 && c.tail.compare(c.tail.size() - 5, 5, "0\r\n\r\n") == 0)
                Finish(c);
            return;
        }
        if (c.body_left < 0)
            return;
        c.body_left -= static_cast<long long>(n);
        if (c.body_left <= 0)
            Finish(c);
    }

    void Finish(Conn &c)
    {
        if (c.state != State::Reading)
            return;
        c.state = State::Idle;
        c.tail.clear();
        c.tail.shrink_to_fit();
        --in_flight_;
        ++answered_;
        if (c.status == 200 || (opt_.ws && c.status == 101))
            ++answered_200_;
    }

    const Options &opt_;
    std::vector<Conn> conns_;
    std::string request_;
    sockaddr_in addr_{};
    SSL_CTX *tls_ = nullptr;
    int ep_ = -1;
    int next_ = 0;
    int in_flight_ = 0;
    int answered_ = 0;
    int answered_200_ = 0;
    int connect_errors_ = 0;
    int closed_by_server_ = 0;
    double open_seconds_ = 0;
    const char *stop_reason_ = "done";
    Clock::time_point last_progress_;
};

} // namespace idle_conns

#endif
