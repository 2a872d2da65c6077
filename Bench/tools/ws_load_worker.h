// ws_load's worker: one thread with its own epoll loop over its share of
// the connections, each upgraded and then sending a message and waiting for
// its echo in turn; the counts and round trips go to the shared record.
#ifndef BENCH_TOOLS_WS_LOAD_WORKER_H
#define BENCH_TOOLS_WS_LOAD_WORKER_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

namespace ws_load
{

using Clock = std::chrono::steady_clock;

struct Options {
    std::string host = "127.0.0.1";
    int port = 0;
    std::string path = "/echo";
    int conns = 32;
    size_t size = 64;
    double duration = 10;
    double warmup = 1;
    int threads = 2;
    double timeout = 10;
};

enum class State { Connecting, Upgrading, Sending, Waiting, Dead };

struct Conn {
    int fd = -1;
    State state = State::Connecting;
    size_t sent = 0;
    std::string in;     // received bytes not yet consumed
    size_t payload = 0; // payload bytes of the current message received so far
    Clock::time_point sent_at;
};

struct Shared {
    std::atomic<int> ready{0};
    std::atomic<long long> messages{0};
    std::atomic<int> errors{0};
    std::atomic<int> timeouts{0};
    std::mutex lock;
    std::vector<uint32_t> latencies_us;
    std::string first_error;

    void Error(const std::string &why)
    {
        ++errors;
        std::lock_guard<std::mutex> guard(lock);
        if (first_error.empty())
            first_error = why;
    }
};

class Worker
{
  public:
    Worker(const Options &o, const std::string &frame, int first, int count, Shared &shared)
        : opt_(o), frame_(frame), conns_(static_cast<size_t>(count)), shared_(shared)
    {
        (void)first;
        upgrade_ = "GET " + o.path + " HTTP/1.1\r\nHost: " + o.host + ":" + std::to_string(o.port) +
                   "\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                   "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n";
    }

    void Run(Clock::time_point measure_from, Clock::time_point measure_to)
    {
        from_ = measure_from;
        to_ = measure_to;
        ep_ = epoll_create1(EPOLL_CLOEXEC);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(static_cast<uint16_t>(opt_.port));
        inet_pton(AF_INET, opt_.host.c_str(), &addr.sin_addr);
        for (size_t i = 0; i < conns_.size(); ++i) {
            Conn &c = conns_[i];
            c.fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
            int one = 1;
            setsockopt(c.fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
            if (connect(c.fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) != 0 &&
                errno != EINPROGRESS) {
                Kill(c, std::string("connect: ") + std::strerror(errno));
                continue;
            }
            c.sent_at = Clock::now();
            epoll_event ev{};
            ev.events = EPOLLIN | EPOLLOUT;
            ev.data.u64 = i;
            epoll_ctl(ep_, EPOLL_CTL_ADD, c.fd, &ev);
        }
        std::vector<epoll_event> events(256);
        Clock::time_point last_check = Clock::now();
        while (Clock::now() < to_) {
            int n = epoll_wait(ep_, events.data(), static_cast<int>(events.size()), 50);
            for (int i = 0; i < n; ++i)
                Handle(conns_[events[static_cast<size_t>(i)].data.u64],
                       events[static_cast<size_t>(i)].events);
            Clock::time_point now = Clock::now();
            if (now - last_check > std::chrono::milliseconds(200)) {
                last_check = now;
                for (Conn &c : conns_) {
                    if (c.state != State::Dead &&
                        std::chrono::duration<double>(now - c.sent_at).count() > opt_.timeout) {
                        ++shared_.timeouts;
                        Kill(c, "");
                    }
                }
            }
        }
        for (Conn &c : conns_)
            if (c.fd >= 0)
                close(c.fd);
        close(ep_);
        shared_.messages += messages_;
        std::lock_guard<std::mutex> guard(shared_.lock);
        shared_.latencies_us.insert(shared_.latencies_us.end(), latencies_.begin(), latencies_.end());
    }

  private:
    void Kill(Conn &c, const std::string &why)
    {
        if (!why.empty())
            shared_.Error(why);
        if (c.fd >= 0)
            close(c.fd);
        c.fd = -1;
        c.state = State::Dead;
    }

    void Want(Conn &c, uint32_t events)
    {
        epoll_event ev{};
        ev.events = events;
        ev.data.u64 = static_cast<uint64_t>(&c - conns_.data());
        epoll_ctl(ep_, EPOLL_CTL_MOD, c.fd, &ev);
    }

    // Sends from buf at c.sent; true once all of it is out.
    bool Push(Conn &c, const std::string &buf)
    {
        while (c.sent < buf.size()) {
            ssize_t w = send(c.fd, buf.data() + c.sent, buf.size() - c.sent, MSG_NOSIGNAL);
            if (w < 0) {
                if (errno != EAGAIN && errno != EWOULDBLOCK)
                    Kill(c, std::string("send: ") + std::strerror(errno));
                return false;
            }
            c.sent += static_cast<size_t>(w);
        }
        return true;
    }

    void StartMessage(Conn &c)
    {
        c.state = State::Sending;
        c.sent = 0;
        c.payload = 0;
        c.sent_at = Clock::now();
        if (Push(c, frame_)) {
            c.state = State::Waiting;
            Want(c, EPOLLIN);
        } else if (c.state != State::Dead) {
            Want(c, EPOLLIN | EPOLLOUT);
        }
    }

    void Handle(Conn &c, uint32_t events)
    {
        if (c.state == State::Dead)
            return;
        if (c.state == State::Connecting) {
            int err = 0;
            socklen_t len = sizeof err;
            getsockopt(c.fd, SOL_SOCKET, SO_ERROR, &err, &len);
            if (err) {
                Kill(c, std::string("connect: ") + std::strerror(err));
                return;
            }
            if (!(events & EPOLLOUT))
                return;
            c.state = State::Upgrading;
            c.sent = 0;
        }
        if (c.state == State::Upgrading && c.sent < upgrade_.size()) {
            if (!Push(c, upgrade_))
                return;
            Want(c, EPOLLIN);
            return;
        }
        if (c.state == State::Sending && (events & EPOLLOUT)) {
            if (Push(c, frame_)) {
                c.state = State::Waiting;
                Want(c, EPOLLIN);
            }
            if (c.state == State::Dead)
                return;
        }
        if (!(events & (EPOLLIN | EPOLLHUP | EPOLLERR)))
            return;
        char buf[65536];
        for (;;) {
            ssize_t r = recv(c.fd, buf, sizeof buf, 0);
            if (r > 0) {
                c.in.append(buf, static_cast<size_t>(r));
                if (!Consume(c))
                    return;
                continue;
            }
            if (r < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
                return;
            Kill(c, r == 0 ? "closed by the server" : std::string("recv: ") + std::strerror(errno));
            return;
        }
    }

    // Parses what arrived; false when the connection died.
    bool Consume(Conn &c)
    {
        if (c.state == State::Upgrading) {
            size_t end = c.in.find("\r\n\r\n");
            if (end == std::string::npos) {
                if (c.in.size() > 16384) {
                    Kill(c, "upgrade answer too long");
                    return false;
                }
                return true;
            }
            if (c.in.compare(0, 12, "HTTP/1.1 101") != 0) {
                Kill(c, "upgrade refused: " + c.in.substr(0, c.in.find("\r\n")));
                return false;
            }
            c.in.erase(0, end + 4);
            ++shared_.ready;
            StartMessage(c);
            if (c.state == State::Dead)
                return false;
        }
        // Frames from a server are unmasked; a message may come in fragments.
        for (;;) {
            if (c.in.size() < 2)
                return true;
            const unsigned char *p = reinterpret_cast<const unsigned char *>(c.in.data());
            bool fin = p[0] & 0x80;
            int opcode = p[0] & 0x0f;
            uint64_t len = p[1] & 0x7f;
            size_t head = 2;
            if (len == 126) {
                if (c.in.size() < 4)
                    return true;
                len = (static_cast<uint64_t>(p[2]) << 8) | p[3];
                head = 4;
            } else if (len == 127) {
                if (c.in.size() < 10)
                    return true;
                len = 0;
                for (int i = 0; i < 8; ++i)
                    len = (len << 8) | p[2 + i];
                head = 10;
            }
            if (p[1] & 0x80)
                head += 4; // a masking server is wrong, but its frame can still be skipped
            if (c.in.size() < head + len)
                return true;
            c.in.erase(0, head + static_cast<size_t>(len));
            if (opcode == 0x8) {
                Kill(c, "close frame from the server");
                return false;
            }
            if (opcode >= 0x8)
                continue; // ping or pong: not part of the echo
            c.payload += static_cast<size_t>(len);
            if (!fin)
                continue;
            if (c.state != State::Waiting || c.payload != opt_.size) {
                Kill(c, "echo of " + std::to_string(c.payload) + " bytes, expected " +
                            std::to_string(opt_.size));
                return false;
            }
            Clock::time_point now = Clock::now();
            if (now >= from_ && now < to_) {
                ++messages_;
                latencies_.push_back(static_cast<uint32_t>(std::min<long long>(
                    UINT32_MAX,
                    std::chrono::duration_cast<std::chrono::microseconds>(now - c.sent_at).count())));
            }
            StartMessage(c);
            if (c.state == State::Dead)
                return false;
        }
    }

    const Options &opt_;
    const std::string &frame_;
    std::vector<Conn> conns_;
    Shared &shared_;
    std::string upgrade_;
    int ep_ = -1;
    Clock::time_point from_, to_;
    long long messages_ = 0;
    std::vector<uint32_t> latencies_;
};

} // namespace ws_load

#endif
