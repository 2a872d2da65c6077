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
#include "ws_load_worker.h"

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace
{

using ws_load::Clock;
using ws_load::Options;
using ws_load::Shared;
using ws_load::Worker;

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
