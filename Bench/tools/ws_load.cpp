// WebSocket echo load: each connection sends one message, waits for its
// echo, and sends the next, for a fixed time; reports messages per second.
//
// Usage:
//   ws_load --port PORT [--host 127.0.0.1] [--path /echo] [--conns 32]
//           [--size 64] [--duration 10] [--warmup 1] [--threads 2]
//           [--timeout 10]
//
// The client speaks RFC 6455 itself: an HTTP/1.1 upgrade with a fixed
// Sec-WebSocket-Key (the server's 101 is checked; the accept hash is not,
// since no server here has a reason to fake it), then binary messages of
// --size bytes, each one unfragmented and masked as a client must. The mask
// is fixed per run: its purpose is to protect proxies from scripted
// browsers, and no proxy sits between these processes. Frames are built
// once and sent from that buffer, so the client pays one send and a few
// receives per message and stays lighter than the server it drives (the
// harness records both processes' CPU so a reader can check).
//
// Connections are spread over --threads threads (like wrk -t), each with
// its own epoll loop. Messages are counted from the end of the --warmup
// period for --duration seconds. A connection whose echo does not arrive
// within --timeout seconds counts as a timeout and is dropped. Output,
// key=value: ready (connections upgraded), messages, seconds,
// msgs_per_sec, p50_us, p99_us (per-message round trip), errors, timeouts,
// client_cpu (cores used by this process), first_error.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/resource.h>
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
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace
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

bool ParseArgs(int argc, char **argv, Options &o)
{
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (i + 1 >= argc)
            return false;
        const char *v = argv[++i];
        if (a == "--host")
            o.host = v;
        else if (a == "--port")
            o.port = std::atoi(v);
        else if (a == "--path")
            o.path = v;
        else if (a == "--conns")
            o.conns = std::atoi(v);
        else if (a == "--size")
            o.size = static_cast<size_t>(std::atol(v));
        else if (a == "--duration")
            o.duration = std::atof(v);
        else if (a == "--warmup")
            o.warmup = std::atof(v);
        else if (a == "--threads")
            o.threads = std::atoi(v);
        else if (a == "--timeout")
            o.timeout = std::atof(v);
        else
            return false;
    }
    return o.port > 0 && o.conns > 0 && o.size > 0 && o.duration > 0 && o.threads > 0 && o.timeout > 0;
}

std::string BuildFrame(size_t size)
{
    static const unsigned char c_mask[4] = {0x37, 0xfa, 0x21, 0x3d};
    std::string f;
    f.push_back(static_cast<char>(0x82)); // FIN, binary
    if (size < 126) {
        f.push_back(static_cast<char>(0x80 | size));
    } else if (size <= 0xffff) {
        f.push_back(static_cast<char>(0x80 | 126));
        f.push_back(static_cast<char>(size >> 8));
        f.push_back(static_cast<char>(size & 0xff));
    } else {
        f.push_back(static_cast<char>(0x80 | 127));
        for (int shift = 56; shift >= 0; shift -= 8)
            f.push_back(static_cast<char>((static_cast<uint64_t>(size) >> shift) & 0xff));
    }
    f.append(reinterpret_cast<const char *>(c_mask), 4);
    for (size_t i = 0; i < size; ++i)
        f.push_back(static_cast<char>(static_cast<unsigned char>('a' + i % 26) ^ c_mask[i % 4]));
    return f;
}

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

double CpuSeconds()
{
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
           static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

} // namespace

int main(int argc, char **argv)
{
    Options o;
    if (!ParseArgs(argc, argv, o)) {
        std::fprintf(stderr,
                     "usage: %s --port PORT [--host 127.0.0.1] [--path /echo] [--conns 32] [--size 64] "
                     "[--duration 10] [--warmup 1] [--threads 2] [--timeout 10]\n",
                     argv[0]);
        return 2;
    }
    std::string frame = BuildFrame(o.size);
    Shared shared;
    int threads = std::min(o.threads, o.conns);
    Clock::time_point start = Clock::now();
    auto from = start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(o.warmup));
    auto to = from + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(o.duration));
    double cpu0 = CpuSeconds();
    std::vector<std::thread> pool;
    std::vector<std::unique_ptr<Worker>> workers;
    for (int t = 0, first = 0; t < threads; ++t) {
        int count = o.conns / threads + (t < o.conns % threads ? 1 : 0);
        workers.emplace_back(new Worker(o, frame, first, count, shared));
        first += count;
    }
    for (auto &w : workers)
        pool.emplace_back([&w, from, to] { w->Run(from, to); });
    for (std::thread &t : pool)
        t.join();
    double cpu = CpuSeconds() - cpu0;
    double wall = std::chrono::duration<double>(Clock::now() - start).count();

    std::vector<uint32_t> &lat = shared.latencies_us;
    std::sort(lat.begin(), lat.end());
    auto pct = [&lat](double q) {
        return lat.empty()
                   ? 0u
                   : lat[std::min(lat.size() - 1, static_cast<size_t>(q * static_cast<double>(lat.size())))];
    };
    std::printf("conns=%d\n", o.conns);
    std::printf("size=%zu\n", o.size);
    std::printf("ready=%d\n", shared.ready.load());
    std::printf("messages=%lld\n", shared.messages.load());
    std::printf("seconds=%.3f\n", o.duration);
    std::printf("msgs_per_sec=%.0f\n", static_cast<double>(shared.messages.load()) / o.duration);
    std::printf("p50_us=%u\n", pct(0.50));
    std::printf("p99_us=%u\n", pct(0.99));
    std::printf("errors=%d\n", shared.errors.load());
    std::printf("timeouts=%d\n", shared.timeouts.load());
    std::printf("client_cpu=%.2f\n", wall > 0 ? cpu / wall : 0.0);
    if (!shared.first_error.empty())
        std::printf("first_error=%s\n", shared.first_error.c_str());
    return shared.ready.load() > 0 && shared.messages.load() > 0 ? 0 : 1;
}
