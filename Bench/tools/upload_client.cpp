// Uploads large request bodies to a server and measures the request bytes
// per second it takes in.
//
// Usage:
//   upload_client --port PORT [--host 127.0.0.1] [--path /upload] [--method POST]
//                 [--clients 4] [--uploads 4] [--size 67108864] [--timeout 120]
//
// Each of --clients threads sends --uploads requests one after the other,
// each on a new connection, each with a body of --size bytes and a
// Content-Length, then reads the answer head and expects a 2xx status. The
// body is streamed from one 1 MiB buffer sent over and over, so the client
// touches little memory and costs one copy into the kernel per byte. A
// "%d" in --path is replaced with the client's number, for servers that
// store each body under its request path.
//
// Output, key=value: uploads_ok, uploads_failed, body_bytes (of the uploads
// that succeeded), seconds (first connect to last answer), mbps (10^6 bytes
// per second), and the first failure's reason. Socket timeouts make sure a
// server that stops reading cannot hang the run.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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
    std::string path = "/upload";
    std::string method = "POST";
    int clients = 4;
    int uploads = 4;
    long long size = 64LL * 1024 * 1024;
    int timeout = 120;
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
        else if (a == "--method")
            o.method = v;
        else if (a == "--clients")
            o.clients = std::atoi(v);
        else if (a == "--uploads")
            o.uploads = std::atoi(v);
        else if (a == "--size")
            o.size = std::atoll(v);
        else if (a == "--timeout")
            o.timeout = std::atoi(v);
        else
            return false;
    }
    return o.port > 0 && o.clients > 0 && o.uploads > 0 && o.size > 0 && o.timeout > 0;
}

std::vector<char> s_chunk(1 << 20);
std::atomic<int> s_ok{0};
std::atomic<int> s_failed{0};
std::atomic<long long> s_bytes{0};
std::mutex s_reason_lock;
std::string s_first_reason;

void Fail(const std::string &why)
{
    ++s_failed;
    std::lock_guard<std::mutex> guard(s_reason_lock);
    if (s_first_reason.empty())
        s_first_reason = why;
}

// One upload on a fresh connection; returns an empty string or why it failed.
std::string UploadOnce(const Options &o, const sockaddr_in &addr, const std::string &path)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return "socket failed";
    timeval tv{o.timeout, 0};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    std::string why;
    if (connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) != 0) {
        why = std::string("connect: ") + std::strerror(errno);
        close(fd);
        return why;
    }
    std::string head = o.method + " " + path + " HTTP/1.1\r\nHost: " + o.host + ":" + std::to_string(o.port) +
                       "\r\nUser-Agent: upload_client\r\nContent-Type: application/octet-stream\r\n"
                       "Content-Length: " +
                       std::to_string(o.size) + "\r\nConnection: close\r\n\r\n";
    bool ok = send(fd, head.data(), head.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(head.size());
    long long left = o.size;
    while (ok && left > 0) {
        size_t n = static_cast<size_t>(std::min<long long>(left, static_cast<long long>(s_chunk.size())));
        ssize_t w = send(fd, s_chunk.data(), n, MSG_NOSIGNAL);
        if (w <= 0) {
            why = std::string("sending the body: ") + (w < 0 ? std::strerror(errno) : "no progress");
            ok = false;
            break;
        }
        left -= w;
    }
    // Also after a failed send: the server may have answered why it stopped.
    std::string answer;
    char buf[4096];
    while (answer.find("\r\n\r\n") == std::string::npos && answer.size() < 65536) {
        ssize_t r = recv(fd, buf, sizeof buf, 0);
        if (r <= 0)
            break;
        answer.append(buf, static_cast<size_t>(r));
    }
    int status = answer.size() > 12 ? std::atoi(answer.c_str() + 9) : 0;
    if (!ok && status)
        why += " (answered " + std::to_string(status) + ")";
    else if (ok && (status < 200 || status > 299))
        why = status ? "status " + std::to_string(status) : "no answer";
    ok = ok && status >= 200 && status <= 299;
    close(fd);
    return ok ? std::string() : why;
}

} // namespace

int main(int argc, char **argv)
{
    Options o;
    if (!ParseArgs(argc, argv, o)) {
        std::fprintf(stderr,
                     "usage: %s --port PORT [--host 127.0.0.1] [--path /upload] [--method POST] "
                     "[--clients 4] [--uploads 4] [--size 67108864] [--timeout 120]\n",
                     argv[0]);
        return 2;
    }
    for (size_t i = 0; i < s_chunk.size(); ++i)
        s_chunk[i] = static_cast<char>((i * 131 + 7) & 0xff);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(o.port));
    inet_pton(AF_INET, o.host.c_str(), &addr.sin_addr);

    Clock::time_point start = Clock::now();
    std::vector<std::thread> threads;
    for (int c = 0; c < o.clients; ++c) {
        threads.emplace_back([&o, &addr, c] {
            std::string path = o.path;
            size_t at = path.find("%d");
            if (at != std::string::npos)
                path.replace(at, 2, std::to_string(c));
            for (int u = 0; u < o.uploads; ++u) {
                std::string why = UploadOnce(o, addr, path);
                if (!why.empty()) {
                    Fail(why);
                    return; // a server that refused once would refuse again
                }
                ++s_ok;
                s_bytes += o.size;
            }
        });
    }
    for (std::thread &t : threads)
        t.join();
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    std::printf("clients=%d\n", o.clients);
    std::printf("uploads_ok=%d\n", s_ok.load());
    std::printf("uploads_failed=%d\n", s_failed.load());
    std::printf("body_bytes=%lld\n", s_bytes.load());
    std::printf("seconds=%.3f\n", seconds);
    std::printf("mbps=%.1f\n", seconds > 0 ? static_cast<double>(s_bytes.load()) / seconds / 1e6 : 0.0);
    if (!s_first_reason.empty())
        std::printf("failure=%s\n", s_first_reason.c_str());
    return s_failed.load() ? 1 : 0;
}
