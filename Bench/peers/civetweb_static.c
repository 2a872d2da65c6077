/* Static file server on civetweb, used only as a benchmark peer.
 *
 * Usage: civetweb_static --port PORT --root DIR [--threads N]
 *
 * civetweb gives each connection a worker thread for as long as it stays
 * open, so the worker count caps concurrent connections. Settings:
 *  - num_threads N (default 1024): enough workers for the 1,000-connection
 *    test; a 10,000-thread pool is not an ordinary deployment, so the idle
 *    test shows how far the ordinary one gets;
 *  - keep-alive on with a 60 s idle timeout, the same for every server in
 *    the harness (civetweb's own default of 500 ms would drop idle
 *    connections before the idle test can count them);
 *  - tcp_nodelay, because civetweb writes headers and body separately and
 *    Nagle would hold the body back for a delayed ACK;
 *  - no access log, no directory listing, a 4096 listen backlog, and a
 *    larger accepted-connection queue so bursts wait instead of being
 *    refused.
 * civetweb answers a missing file with "Connection: close" whatever the
 * settings, so in the 404 test wrk reconnects after every answer.
 */
#include <civetweb.h>

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

int main(int argc, char **argv)
{
    const char *port = NULL;
    const char *root = NULL;
    const char *threads = "1024";
    for (int i = 1; i + 1 < argc; i += 2) {
        if (strcmp(argv[i], "--port") == 0)
            port = argv[i + 1];
        else if (strcmp(argv[i], "--root") == 0)
            root = argv[i + 1];
        else if (strcmp(argv[i], "--threads") == 0)
            threads = argv[i + 1];
    }
    if (port == NULL || root == NULL) {
        fprintf(stderr, "usage: %s --port PORT --root DIR [--threads N]\n", argv[0]);
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);

    char listen_on[64];
    snprintf(listen_on, sizeof listen_on, "127.0.0.1:%s", port);
    const char *options[] = {"listening_ports",
                             listen_on,
                             "document_root",
                             root,
                             "num_threads",
                             threads,
                             "enable_keep_alive",
                             "yes",
                             "keep_alive_timeout_ms",
                             "60000",
                             "tcp_nodelay",
                             "1",
                             "enable_directory_listing",
                             "no",
                             "listen_backlog",
                             "4096",
                             "connection_queue",
                             "1024",
                             NULL};

    mg_init_library(0);
    struct mg_callbacks callbacks;
    memset(&callbacks, 0, sizeof callbacks);
    struct mg_context *ctx = mg_start(&callbacks, NULL, options);
    if (ctx == NULL) {
        fprintf(stderr, "civetweb_static: mg_start failed on %s\n", listen_on);
        return 1;
    }
    fprintf(stderr, "civetweb_static: serving %s on %s with %s workers\n", root, listen_on, threads);
    for (;;)
        pause();
}
