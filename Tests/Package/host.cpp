#include "HTTP/HTTPDefaultHandler.h"
#include "HTTP/HTTPServer.h"

#include <cstdio>
#include <cstdlib>

int main(int argc, char **argv)
{
    NVQ::CHTTPDefaultHandler files(argc > 1 ? argv[1] : "."); // serve this directory
    NVQ::CHTTPServer server;
    server.RegisterHandler(files, false);
    NVQ::SHTTPServerOptions options; // port 7070, unless given
    if (argc > 2)
        options.m_port = std::atoi(argv[2]);
    if (!server.StartServer(options))
        return 1;
    std::printf("serving on http://localhost:%d/ (Enter stops)\n", server.GetPort());
    std::fflush(stdout);
    std::getchar();
    server.StopServer();
    server.UnregisterHandler(files);
}
