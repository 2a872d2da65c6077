// Static file server on cpp-httplib, used only as a benchmark peer.
//
// Usage: httplib_static --port PORT --root DIR [--threads N]
//
// cpp-httplib runs each accepted connection as one job on its task queue and
// keeps the worker for as long as the connection stays alive, so the pool
// size caps concurrent connections. Settings:
//  - a ThreadPool of N workers (default 1024): enough for the
//    1,000-connection test; the library default (max(8, cores - 1)) would
//    leave most of 32 keep-alive connections waiting for a free worker;
//  - set_mount_point("/", root): the library's own static-file path;
//  - keep-alive for up to a million requests per connection with a 60 s idle
//    timeout, the same for every server in the harness (the defaults, 5
//    requests and 5 s, would make wrk reconnect constantly and drop idle
//    connections before the idle test can count them);
//  - TCP_NODELAY, so separately written headers and body are not held back
//    by Nagle waiting for a delayed ACK;
//  - a 4096 listen backlog: Debian's build bakes in a backlog of 5, which
//    turns a burst of connects into SYN retransmissions, so the socket is
//    put back into listen() with the larger queue after binding.
#include <httplib.h>

#include <sys/socket.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

class StaticServer : public httplib::Server {
public:
    int ListeningSocket() const { return svr_sock_; }
};

} // namespace

int main(int argc, char **argv)
{
    int port = 0;
    std::string root;
    size_t threads = 1024;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--port") == 0)
            port = std::atoi(argv[i + 1]);
        else if (std::strcmp(argv[i], "--root") == 0)
            root = argv[i + 1];
        else if (std::strcmp(argv[i], "--threads") == 0)
            threads = static_cast<size_t>(std::atol(argv[i + 1]));
    }
    if (port <= 0 || root.empty() || threads == 0) {
        std::fprintf(stderr, "usage: %s --port PORT --root DIR [--threads N]\n", argv[0]);
        return 2;
    }
    std::signal(SIGPIPE, SIG_IGN);

    StaticServer svr;
    svr.new_task_queue = [threads] { return new httplib::ThreadPool(threads); };
    svr.set_keep_alive_max_count(1000000);
    svr.set_keep_alive_timeout(60);
    svr.set_read_timeout(60);
    svr.set_tcp_nodelay(true);
    svr.set_socket_options([](socket_t sock) {
        int yes = 1;
        setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
    if (!svr.set_mount_point("/", root)) {
        std::fprintf(stderr, "httplib_static: cannot serve %s\n", root.c_str());
        return 1;
    }
    if (!svr.bind_to_port("127.0.0.1", port)) {
        std::fprintf(stderr, "httplib_static: cannot bind 127.0.0.1:%d\n", port);
        return 1;
    }
    if (::listen(svr.ListeningSocket(), 4096) != 0)
        std::perror("httplib_static: listen backlog");
    std::fprintf(stderr, "httplib_static: serving %s on 127.0.0.1:%d with %zu workers\n", root.c_str(), port,
                 threads);
    return svr.listen_after_bind() ? 0 : 1;
}
