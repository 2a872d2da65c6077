/* WebSocket echo server on civetweb, used only as a benchmark peer: every
 * message received on /echo (or any path) is sent back whole with the same
 * opcode.
 *
 * Usage: civetweb_ws_echo --port PORT [--threads N]
 *
 * civetweb runs each WebSocket on a worker thread of its own for as long as
 * it stays open, like its HTTP connections, so --threads (default 1024)
 * caps how many sockets it can hold; the 10,000-socket idle test shows how
 * far that gets. Settings otherwise as for the static peer: tcp_nodelay
 * (an echo is a small write that must not wait for a delayed ACK), a 4096
 * listen backlog, no access log, and a 60 s WebSocket timeout, the same
 * idle timeout every server in the harness gets.
 *
 * It refuses to start when the civetweb build it links has no WebSocket
 * support (mg_check_feature), so the harness reports that instead of a
 * server that answers upgrades with 404.
 */
#include <civetweb.h>

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static int on_data(struct mg_connection *conn, int bits, char *data, size_t len, void *cls)
{
    (void)cls;
    int opcode = bits & 0x0f;
    if (opcode == MG_WEBSOCKET_OPCODE_CONNECTION_CLOSE)
        return 0;
    if (opcode == MG_WEBSOCKET_OPCODE_PING) {
        mg_websocket_write(conn, MG_WEBSOCKET_OPCODE_PONG, data, len);
        return 1;
    }
    if (opcode == MG_WEBSOCKET_OPCODE_PONG)
        return 1;
    /* civetweb hands over whole messages (it reassembles fragments). */
    return mg_websocket_write(conn, opcode, data, len) >= 0;
}

int main(int argc, char **argv)
{
    const char *port = NULL;
    const char *threads = "1024";
    for (int i = 1; i + 1 < argc; i += 2) {
        if (strcmp(argv[i], "--port") == 0)
            port = argv[i + 1];
        else if (strcmp(argv[i], "--threads") == 0)
            threads = argv[i + 1];
    }
    if (port == NULL) {
        fprintf(stderr, "usage: %s --port PORT [--threads N]\n", argv[0]);
        return 2;
    }
    if (!mg_check_feature(16)) {
        fprintf(stderr, "civetweb_ws_echo: this civetweb build has no WebSocket support\n");
        return 1;
    }
    signal(SIGPIPE, SIG_IGN);

    char listen_on[64];
    snprintf(listen_on, sizeof listen_on, "127.0.0.1:%s", port);
    const char *options[] = {"listening_ports",
                             listen_on,
                             "num_threads",
                             threads,
                             "websocket_timeout_ms",
                             "60000",
                             "tcp_nodelay",
                             "1",
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
        fprintf(stderr, "civetweb_ws_echo: mg_start failed on %s\n", listen_on);
        return 1;
    }
    mg_set_websocket_handler(ctx, "/", NULL, NULL, on_data, NULL, NULL);
    fprintf(stderr, "civetweb_ws_echo: echoing on %s with %s workers\n", listen_on, threads);
    for (;;)
        pause();
}
