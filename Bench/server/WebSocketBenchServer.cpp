// The WebSocket side of the benchmark: an echo on /echo that sends every
// message back whole, text or binary as it came, from the connection's own
// thread, with the library's default limits (1 MiB messages).
//
//   nvq_bench_ws [--port N] [--loops N]
//
// Runs until SIGINT or SIGTERM.

#include "HTTP/HTTPServer.h"
#include "HTTP/HTTPWebSocketEndpoint.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/resource.h>
#include <unistd.h>

namespace
{

class CEchoHandler : public NVQ::IWebSocketHandler
{
  public:
    bool AcceptUpgrade(SUpgrade &) override { return true; }
    void OnOpen(NVQ::CWebSocketSession &) override {}
    void OnMessage(NVQ::CWebSocketSession &session, bool isText, const unsigned char *data,
                   size_t size) override
    {
        if (isText)
            session.SendText(reinterpret_cast<const char *>(data), size);
        else
            session.SendBinary(data, size);
    }
    void OnClosed(NVQ::CWebSocketSession &, int) override {}
};

volatile std::sig_atomic_t s_stop = 0;

void onSignal(int)
{
    s_stop = 1;
}

} // namespace

int main(int argc, char **argv)
{
    NVQ::SHTTPServerOptions options;
    int loops = 0;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--port") == 0)
            options.m_port = std::atoi(argv[i + 1]);
        else if (std::strcmp(argv[i], "--loops") == 0)
            loops = std::atoi(argv[i + 1]);
    }
    struct rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
    std::signal(SIGPIPE, SIG_IGN);

    CEchoHandler echo;
    NVQ::CHTTPWebSocketEndpoint endpoint("/echo", echo);
    NVQ::CHTTPServer server;
    // Room for the idle test's 10,000 connections plus the harness's probes.
    server.SetMaxConnections(20000);
    server.SetLoopCount(loops);
    server.RegisterHandler(endpoint, false);
    if (!server.StartServer(options)) {
        std::fprintf(stderr, "cannot listen on port %d\n", options.m_port);
        return 1;
    }
    std::printf("listening on port %d\n", server.GetPort());
    std::fflush(stdout);
    while (!s_stop)
        pause();
    server.StopServer();
    server.UnregisterHandler(endpoint);
    return 0;
}
