// Measures what a server pays to hold idle keep-alive connections.
//
// Usage:
//   idle_conns --port PORT --pid SERVER_PID [--host 127.0.0.1] [--conns 10000]
//              [--path /1k.bin] [--window 256] [--timeout 90] [--stall 8]
//              [--settle 2] [--tls] [--ws]
//
// It reads the resident memory and thread count of the server's whole
// process tree (the PID and all its descendants, so nginx's or h2o's
// master and workers are counted together), then opens the connections, sends
// one GET on each and reads the complete answer, keeps every socket open,
// waits for the server to settle and reads the same figures again. Results
// go to stdout as key=value lines.
//
// It never hangs on a server that cannot keep up: opening stops when the
// overall timeout passes or when no connection has made progress for
// --stall seconds (a thread-per-connection server that ran out of workers
// leaves the rest unanswered), and the figures are taken with whatever it
// managed to hold.
//
// --tls speaks HTTPS (OpenSSL, no certificate check: the harness makes a
// self-signed one): each connection completes its handshake, sends the
// request and reads the answer over TLS, and is then held like the others,
// so the figures show what a server keeps per idle TLS connection. The
// client asks for no session ticket to be reused, and its own buffers are
// released while idle (SSL_MODE_RELEASE_BUFFERS) so 10,000 of them stay
// cheap here.
//
// --ws asks each connection to upgrade to a WebSocket (the request is the
// RFC 6455 handshake, to --path) and counts a 101 answer as done; the socket
// is then held as an idle WebSocket.
//
// One event loop over non-blocking sockets is used instead of a thread or
// process per socket, so the client itself stays light at 10,000 sockets;
// at most --window connections are in flight at once so a burst of SYNs
// does not overflow the server's listen queue and stall in retransmission.
#include "idle_conns_client.h"

#include <dirent.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

using idle_conns::Client;
using idle_conns::Options;

struct TreeFigures {
    long long rss_kb = 0;
    long long threads = 0;
    int processes = 0;
};

// Reads the parent of every process once and collects the descendants of
// root, so a master process and the workers it forked are measured together.
std::set<int> ProcessTree(int root)
{
    std::map<int, std::vector<int>> children;
    if (DIR *d = opendir("/proc")) {
        while (dirent *e = readdir(d)) {
            int pid = std::atoi(e->d_name);
            if (pid <= 0)
                continue;
            std::ifstream f("/proc/" + std::to_string(pid) + "/stat");
            std::string line;
            if (!std::getline(f, line))
                continue;
            // The command name sits in parentheses and may hold spaces.
            size_t close = line.rfind(')');
            if (close == std::string::npos)
                continue;
            std::istringstream rest(line.substr(close + 1));
            std::string state;
            int ppid = 0;
            rest >> state >> ppid;
            children[ppid].push_back(pid);
        }
        closedir(d);
    }
    std::set<int> tree;
    std::vector<int> todo{root};
    while (!todo.empty()) {
        int pid = todo.back();
        todo.pop_back();
        if (!tree.insert(pid).second)
            continue;
        for (int child : children[pid])
            todo.push_back(child);
    }
    return tree;
}

TreeFigures MeasureTree(int root)
{
    TreeFigures fig;
    for (int pid : ProcessTree(root)) {
        std::ifstream f("/proc/" + std::to_string(pid) + "/status");
        if (!f)
            continue;
        ++fig.processes;
        std::string line;
        while (std::getline(f, line)) {
            if (line.rfind("VmRSS:", 0) == 0)
                fig.rss_kb += std::atoll(line.c_str() + 6);
            else if (line.rfind("Threads:", 0) == 0)
                fig.threads += std::atoll(line.c_str() + 8);
        }
    }
    return fig;
}
bool ParseArgs(int argc, char **argv, Options &o)
{
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--tls") {
            o.tls = true;
            continue;
        }
        if (a == "--ws") {
            o.ws = true;
            continue;
        }
        if (i + 1 >= argc)
            return false;
        const char *v = argv[++i];
        if (a == "--host")
            o.host = v;
        else if (a == "--port")
            o.port = std::atoi(v);
        else if (a == "--pid")
            o.pid = std::atoi(v);
        else if (a == "--conns")
            o.conns = std::atoi(v);
        else if (a == "--path")
            o.path = v;
        else if (a == "--window")
            o.window = std::atoi(v);
        else if (a == "--timeout")
            o.timeout = std::atof(v);
        else if (a == "--stall")
            o.stall = std::atof(v);
        else if (a == "--settle")
            o.settle = std::atof(v);
        else
            return false;
    }
    return o.port > 0 && o.pid > 0 && o.conns > 0 && o.window > 0;
}
} // namespace

int main(int argc, char **argv)
{
    Options opt;
    if (!ParseArgs(argc, argv, opt)) {
        std::fprintf(stderr,
                     "usage: %s --port PORT --pid SERVER_PID [--host 127.0.0.1] [--conns 10000] "
                     "[--path /1k.bin] [--window 256] [--timeout 90] [--stall 8] [--settle 2] [--tls] [--ws]\n",
                     argv[0]);
        return 2;
    }

    // Each socket is a descriptor: without a raised limit the client, not the
    // server, would be what gives up.
    rlimit rl{};
    getrlimit(RLIMIT_NOFILE, &rl);
    rlim_t want = static_cast<rlim_t>(opt.conns) + 64;
    if (rl.rlim_cur < want) {
        rl.rlim_cur = std::min<rlim_t>(rl.rlim_max, want);
        setrlimit(RLIMIT_NOFILE, &rl);
        getrlimit(RLIMIT_NOFILE, &rl);
    }
    if (rl.rlim_cur < want) {
        std::fprintf(stderr, "idle_conns: open-file limit %llu is below %llu; the client will run short\n",
                     static_cast<unsigned long long>(rl.rlim_cur), static_cast<unsigned long long>(want));
    }

    TreeFigures before = MeasureTree(opt.pid);
    if (before.processes == 0) {
        std::fprintf(stderr, "idle_conns: no process %d\n", opt.pid);
        return 1;
    }

    Client client(opt);
    client.Open();
    client.Settle(opt.settle);
    int held = client.CountOpen();
    TreeFigures after = MeasureTree(opt.pid);

    std::printf("target=%d\n", opt.conns);
    std::printf("started=%d\n", client.Started());
    std::printf("answered=%d\n", client.Answered());
    std::printf("answered_200=%d\n", client.Answered200());
    std::printf("unanswered=%d\n", client.Unanswered());
    std::printf("connect_errors=%d\n", client.ConnectErrors());
    std::printf("closed_by_server=%d\n", client.ClosedByServer());
    std::printf("held_open=%d\n", held);
    std::printf("stop_reason=%s\n", client.StopReason());
    std::printf("open_seconds=%.2f\n", client.OpenSeconds());
    std::printf("processes=%d\n", after.processes);
    std::printf("rss_before_kb=%lld\n", before.rss_kb);
    std::printf("rss_after_kb=%lld\n", after.rss_kb);
    std::printf("threads_before=%lld\n", before.threads);
    std::printf("threads_after=%lld\n", after.threads);
    std::fflush(stdout);
    // The sockets close when the process exits; the harness stops the server
    // right after, so there is no need to tear them down one by one.
    return 0;
}
