// Holds many clients that start a large download and then stop reading,
// the way stalled phones or saturated links look to a server.
//
// Usage:
//   slow_readers --port PORT [--host 127.0.0.1] [--conns 1000] [--path /64m.bin]
//                [--min-read 65536] [--max-read 1048576] [--rcvbuf 65536]
//                [--window 16] [--timeout 60] [--stall 8] [--hold 600]
//                [--pgid SERVER_PGID --max-rss-mb 4096]
//
// Each connection sends one GET, reads between --min-read and --max-read
// bytes of the answer (spread evenly over the connections, the same on every
// run) and then never reads again, keeping the socket open. When every
// connection has reached its amount, or opening stopped (the overall
// --timeout passed, or nothing progressed for --stall seconds), it prints
//   ready held=N
// and keeps holding until SIGTERM or SIGINT, or --hold seconds, whichever is
// first. Then it prints key=value figures, counting how many are still open
// (a server that drops a stalled client shows up as fewer held), and exits.
//
// Some servers hold a whole file in memory per download (cpp-httplib
// reads each one into a string), so 1,000 stalled 64 MiB downloads could
// ask for 64 GB of a shared machine. With --pgid, opening stops as soon as
// the resident memory of the server's process group passes --max-rss-mb
// (stop_reason=server_memory), and at most --window downloads are started
// and not yet stalled at once, which bounds the overshoot.
//
// A small fixed receive buffer (--rcvbuf) stops the kernel's autotuning from
// letting each stalled socket soak up megabytes in the client, so what is
// held is the server's problem, as it would be with a real slow link.
// One thread and epoll over non-blocking sockets, so 1,000 slow clients cost
// the machine little.
#include "slow_readers_client.h"

#include <sys/resource.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace
{

using slow_readers::Client;
using slow_readers::Options;
using slow_readers::State;

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
        else if (a == "--conns")
            o.conns = std::atoi(v);
        else if (a == "--path")
            o.path = v;
        else if (a == "--min-read")
            o.min_read = std::atol(v);
        else if (a == "--max-read")
            o.max_read = std::atol(v);
        else if (a == "--rcvbuf")
            o.rcvbuf = std::atoi(v);
        else if (a == "--window")
            o.window = std::atoi(v);
        else if (a == "--timeout")
            o.timeout = std::atof(v);
        else if (a == "--stall")
            o.stall = std::atof(v);
        else if (a == "--hold")
            o.hold = std::atof(v);
        else if (a == "--pgid")
            o.pgid = std::atoi(v);
        else if (a == "--max-rss-mb")
            o.max_rss_mb = std::atol(v);
        else
            return false;
    }
    return o.port > 0 && o.conns > 0 && o.window > 0 && o.min_read > 0 && o.max_read >= o.min_read;
}

} // namespace

int main(int argc, char **argv)
{
    Options opt;
    if (!ParseArgs(argc, argv, opt)) {
        std::fprintf(stderr,
                     "usage: %s --port PORT [--host 127.0.0.1] [--conns 1000] [--path /64m.bin] "
                     "[--min-read 65536] [--max-read 1048576] [--rcvbuf 65536] [--window 16] "
                     "[--timeout 60] [--stall 8] [--hold 600] [--pgid PGID --max-rss-mb 4096]\n",
                     argv[0]);
        return 2;
    }
    rlimit rl{};
    getrlimit(RLIMIT_NOFILE, &rl);
    rlim_t want = static_cast<rlim_t>(opt.conns) + 64;
    if (rl.rlim_cur < want) {
        rl.rlim_cur = std::min<rlim_t>(rl.rlim_max, want);
        setrlimit(RLIMIT_NOFILE, &rl);
    }

    Client client(opt);
    bool go_on = client.Open();
    std::printf("ready held=%d\n", client.Count(State::Held));
    std::fflush(stdout);
    if (go_on)
        client.Hold();

    std::printf("target=%d\n", opt.conns);
    std::printf("started=%d\n", client.Started());
    std::printf("held=%d\n", client.Count(State::Held));
    std::printf("still_reading=%d\n", client.Count(State::Reading) + client.Count(State::Sending) +
                                          client.Count(State::Connecting));
    std::printf("connect_errors=%d\n", client.ConnectErrors());
    std::printf("closed_by_server=%d\n", client.ClosedByServer());
    std::printf("bytes_read=%lld\n", client.BytesRead());
    std::printf("stop_reason=%s\n", client.StopReason());
    std::printf("open_seconds=%.2f\n", client.OpenSeconds());
    return 0;
}
