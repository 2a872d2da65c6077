// slow_readers' client: one thread and epoll over non-blocking sockets
// that opens the connections, reads each answer up to a random point and
// then stops reading, holding the sockets until a signal or --hold runs out.
#ifndef BENCH_TOOLS_SLOW_READERS_CLIENT_H
#define BENCH_TOOLS_SLOW_READERS_CLIENT_H

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace slow_readers
{

using Clock = std::chrono::steady_clock;

struct Options {
    std::string host = "127.0.0.1";
    int port = 0;
    int conns = 1000;
    std::string path = "/64m.bin";
    long min_read = 64 * 1024;
    long max_read = 1024 * 1024;
    int rcvbuf = 64 * 1024;
    int window = 16;
    double timeout = 60;
    double stall = 8;
    double hold = 600;
    int pgid = 0;
    long max_rss_mb = 4096;
};

// Resident memory, in MiB, of every process in a process group.
inline long GroupRssMb(int pgid)
{
    long pages = 0;
    if (DIR *d = opendir("/proc")) {
        while (dirent *e = readdir(d)) {
            int pid = std::atoi(e->d_name);
            if (pid <= 0)
                continue;
            std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
            std::string line;
            if (!std::getline(stat, line))
                continue;
            // The command name sits in parentheses and may hold spaces.
            size_t close = line.rfind(')');
            if (close == std::string::npos)
                continue;
            std::istringstream rest(line.substr(close + 1));
            std::string state;
            int ppid = 0, pgrp = 0;
            rest >> state >> ppid >> pgrp;
            if (pgrp != pgid)
                continue;
            std::ifstream statm("/proc/" + std::to_string(pid) + "/statm");
            long size = 0, resident = 0;
            if (statm >> size >> resident)
                pages += resident;
        }
        closedir(d);
    }
    return pages * (sysconf(_SC_PAGESIZE) / 1024) / 1024;
}

enum class State { Connecting, Sending, Reading, Held, Closed };

struct Conn {
    int fd = -1;
    State state = State::Connecting;
    size_t sent = 0;
    long want = 0; // bytes of the answer (head included) to read before stalling
    long got = 0;
};

inline double Seconds(Clock::duration d)
{
    return std::chrono::duration<double>(d).count();
}

class Client
{
  public:
    explicit Client(const Options &o) : opt_(o), conns_(static_cast<size_t>(o.conns))
    {
        request_ = "GET " + o.path + " HTTP/1.1\r\nHost: " + o.host + ":" + std::to_string(o.port) +
                   "\r\nUser-Agent: slow_readers\r\nAccept: */*\r\n\r\n";
        addr_.sin_family = AF_INET;
        addr_.sin_port = htons(static_cast<uint16_t>(o.port));
        inet_pton(AF_INET, o.host.c_str(), &addr_.sin_addr);
        ep_ = epoll_create1(EPOLL_CLOEXEC);
        for (int i = 0; i < o.conns; ++i) {
            long span = o.max_read - o.min_read;
            conns_[static_cast<size_t>(i)].want = o.min_read + (o.conns > 1 ? span * i / (o.conns - 1) : 0);
        }
        sigset_t mask;
        sigemptyset(&mask);
        sigaddset(&mask, SIGTERM);
        sigaddset(&mask, SIGINT);
        sigprocmask(SIG_BLOCK, &mask, nullptr);
        sig_fd_ = signalfd(-1, &mask, SFD_NONBLOCK | SFD_CLOEXEC);
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.u64 = c_signal_tag;
        epoll_ctl(ep_, EPOLL_CTL_ADD, sig_fd_, &ev);
    }

    // Opens connections and reads each one's share; returns false when a
    // signal asked to stop already.
    bool Open()
    {
        Clock::time_point start = Clock::now();
        last_progress_ = start;
        std::vector<epoll_event> events(1024);
        Clock::time_point last_rss_check = start;
        for (;;) {
            if (opt_.pgid > 0 && Seconds(Clock::now() - last_rss_check) > 0.2) {
                last_rss_check = Clock::now();
                if (GroupRssMb(opt_.pgid) > opt_.max_rss_mb) {
                    stop_reason_ = "server_memory";
                    break;
                }
            }
            while (in_flight_ < opt_.window && next_ < opt_.conns)
                Start(next_++);
            if (next_ >= opt_.conns && in_flight_ == 0) {
                stop_reason_ = "done";
                break;
            }
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
            for (int i = 0; i < n; ++i) {
                if (events[static_cast<size_t>(i)].data.u64 == c_signal_tag)
                    return false;
                Handle(events[static_cast<size_t>(i)].data.u64, events[static_cast<size_t>(i)].events);
            }
        }
        open_seconds_ = Seconds(Clock::now() - start);
        // Those that never got their share are held as they are; edge-triggered,
        // so unread data does not wake the holding loop over and over.
        for (size_t i = 0; i < conns_.size(); ++i) {
            if (conns_[i].state == State::Closed || conns_[i].state == State::Held || conns_[i].fd < 0)
                continue;
            epoll_event ev{};
            ev.events = EPOLLRDHUP | EPOLLET;
            ev.data.u64 = i;
            epoll_ctl(ep_, EPOLL_CTL_MOD, conns_[i].fd, &ev);
        }
        return true;
    }

    // Holds until a signal or the hold time, noticing connections the server ends.
    void Hold()
    {
        Clock::time_point start = Clock::now();
        std::vector<epoll_event> events(1024);
        while (Seconds(Clock::now() - start) < opt_.hold) {
            int n = epoll_wait(ep_, events.data(), static_cast<int>(events.size()), 200);
            for (int i = 0; i < n; ++i) {
                uint64_t tag = events[static_cast<size_t>(i)].data.u64;
                if (tag == c_signal_tag)
                    return;
                Conn &c = conns_[tag];
                if (events[static_cast<size_t>(i)].events & (EPOLLHUP | EPOLLERR | EPOLLRDHUP))
                    Close(c, true);
            }
        }
    }

    int Count(State s) const
    {
        return static_cast<int>(std::count_if(conns_.begin(), conns_.end(),
                                              [s](const Conn &c) { return c.fd >= 0 && c.state == s; }));
    }
    int Started() const { return next_; }
    int ConnectErrors() const { return connect_errors_; }
    int ClosedByServer() const { return closed_by_server_; }
    long long BytesRead() const { return bytes_read_; }
    const char *StopReason() const { return stop_reason_; }
    double OpenSeconds() const { return open_seconds_; }

  private:
    static constexpr uint64_t c_signal_tag = ~0ULL;

    void Start(int idx)
    {
        Conn &c = conns_[static_cast<size_t>(idx)];
        c.fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (c.fd < 0) {
            ++connect_errors_;
            c.state = State::Closed;
            return;
        }
        // Before connect, so the window announced in the handshake is small too.
        setsockopt(c.fd, SOL_SOCKET, SO_RCVBUF, &opt_.rcvbuf, sizeof opt_.rcvbuf);
        ++in_flight_;
        int r = connect(c.fd, reinterpret_cast<const sockaddr *>(&addr_), sizeof addr_);
        if (r != 0 && errno != EINPROGRESS) {
            ++connect_errors_;
            Close(c, false);
            return;
        }
        epoll_event ev{};
        ev.events = EPOLLOUT | EPOLLIN | EPOLLRDHUP;
        ev.data.u64 = static_cast<uint64_t>(idx);
        epoll_ctl(ep_, EPOLL_CTL_ADD, c.fd, &ev);
    }

    void Close(Conn &c, bool by_server)
    {
        if (c.state == State::Closed)
            return;
        if (c.state != State::Held)
            --in_flight_;
        if (by_server)
            ++closed_by_server_;
        close(c.fd);
        c.fd = -1;
        c.state = State::Closed;
    }

    void Handle(uint64_t idx, uint32_t events)
    {
        Conn &c = conns_[idx];
        if (c.state == State::Closed || c.state == State::Held)
            return;
        if (c.state == State::Connecting) {
            int err = 0;
            socklen_t len = sizeof err;
            getsockopt(c.fd, SOL_SOCKET, SO_ERROR, &err, &len);
            if (err != 0 || (events & EPOLLERR)) {
                ++connect_errors_;
                Close(c, false);
                return;
            }
            if (!(events & EPOLLOUT))
                return;
            c.state = State::Sending;
        }
        if (c.state == State::Sending) {
            while (c.sent < request_.size()) {
                ssize_t w = send(c.fd, request_.data() + c.sent, request_.size() - c.sent, MSG_NOSIGNAL);
                if (w < 0) {
                    if (errno != EAGAIN && errno != EWOULDBLOCK)
                        Close(c, true);
                    return;
                }
                c.sent += static_cast<size_t>(w);
            }
            c.state = State::Reading;
            epoll_event ev{};
            ev.events = EPOLLIN | EPOLLRDHUP;
            ev.data.u64 = idx;
            epoll_ctl(ep_, EPOLL_CTL_MOD, c.fd, &ev);
            last_progress_ = Clock::now();
            return;
        }
        char buf[65536];
        while (c.got < c.want) {
            size_t room = static_cast<size_t>(std::min<long>(static_cast<long>(sizeof buf), c.want - c.got));
            ssize_t r = recv(c.fd, buf, room, 0);
            if (r > 0) {
                c.got += r;
                bytes_read_ += r;
                last_progress_ = Clock::now();
                continue;
            }
            if (r < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
                return;
            Close(c, true);
            return;
        }
        // Stop reading for good: from now on only the end of the connection matters.
        c.state = State::Held;
        --in_flight_;
        epoll_event ev{};
        ev.events = EPOLLRDHUP | EPOLLET;
        ev.data.u64 = idx;
        epoll_ctl(ep_, EPOLL_CTL_MOD, c.fd, &ev);
    }

    const Options &opt_;
    std::vector<Conn> conns_;
    std::string request_;
    sockaddr_in addr_{};
    int ep_ = -1;
    int sig_fd_ = -1;
    int next_ = 0;
    int in_flight_ = 0;
    int connect_errors_ = 0;
    int closed_by_server_ = 0;
    long long bytes_read_ = 0;
    double open_seconds_ = 0;
    const char *stop_reason_ = "signal";
    Clock::time_point last_progress_;
};

} // namespace slow_readers

#endif
