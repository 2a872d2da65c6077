// A server for measuring the library's own cost: every request gets the same
// 1 KiB answer from a handler that does no work of its own.
//
//   nvq_bench_server [--port N] [--body BYTES]
//
// Runs until SIGINT or SIGTERM.

#include "HTTP/HTTPServer.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/resource.h>
#include <unistd.h>

namespace
{

class CFixedHandler : public NVQ::IHTTPRequestHandler
{
  public:
    explicit CFixedHandler(size_t size) : m_body(size, 'x') {}

    bool CanProcessUri(const KZF::tstring &) override { return true; }
    KZF::CRefCountPtr<NVQ::CHTTPResponse> ProcessRequest(NVQ::CHTTPRequest &, int) override
    {
        NVQ::CHTTPResponse *response = new NVQ::CHTTPResponse();
        response->SetCode(200);
        response->SetPhrase("OK");
        response->SetData(reinterpret_cast<const unsigned char *>(m_body.data()),
                          static_cast<long>(m_body.size()));
        response->SetIsLast(true);
        return KZF::CRefCountPtr<NVQ::CHTTPResponse>(response);
    }
    KZF::CRefCountPtr<NVQ::CHTTPResponse> GetAdditionalResponseData(int) override
    {
        return KZF::CRefCountPtr<NVQ::CHTTPResponse>();
    }
    bool InterruptProcessing() override { return true; }

  private:
    std::string m_body;
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
    size_t body = 1024;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--port") == 0)
            options.m_port = std::atoi(argv[i + 1]);
        else if (std::strcmp(argv[i], "--body") == 0)
            body = static_cast<size_t>(std::atol(argv[i + 1]));
    }
    struct rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);

    CFixedHandler handler(body);
    NVQ::CHTTPServer server;
    server.SetMaxConnections(20000);
    server.RegisterHandler(handler, false);
    if (!server.StartServer(options)) {
        std::fprintf(stderr, "cannot listen on port %d\n", options.m_port);
        return 1;
    }
    std::printf("listening on port %d\n", server.GetPort());
    std::fflush(stdout);
    while (!s_stop)
        pause();
    server.StopServer();
    server.UnregisterHandler(handler);
    return 0;
}
