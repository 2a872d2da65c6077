/* Static file server on libmicrohttpd, used only as a benchmark peer.
 *
 * Usage: mhd_static --port PORT --root DIR [--threads N]
 *
 * Settings, chosen as a careful operator would for static files on a
 * 2-core machine:
 *  - epoll with an internal thread pool of N threads (default: the core
 *    count), because one event loop per core is the library's fastest mode
 *    for many connections and thread-per-connection cannot hold 10k sockets;
 *  - MHD_USE_TURBO: the documented "generally safe" optimistic read/write/
 *    accept mode meant for exactly this kind of load;
 *  - file bodies via MHD_create_response_from_fd64, so the library can use
 *    sendfile() instead of copying through user space;
 *  - one shared, persistent 404 response instead of building one per miss;
 *  - a listen backlog of 4096 and a connection limit well above 10,000 so
 *    bursts of connects are queued rather than dropped;
 *  - a 60 s idle timeout, the same for every server in the harness, so the
 *    idle-connection test measures the cost of holding a connection rather
 *    than how early a server gives up on it.
 */
#include <microhttpd.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static char g_root[4096];
static struct MHD_Response *g_not_found;

static int path_is_safe(const char *url)
{
    /* MHD has already percent-decoded the path; refusing any ".." segment
     * keeps requests inside the root without realpath() on every hit. */
    if (url[0] != '/')
        return 0;
    for (const char *p = url; (p = strstr(p, "..")) != NULL; p += 2) {
        int starts = (p == url) || p[-1] == '/';
        int ends = p[2] == '\0' || p[2] == '/';
        if (starts && ends)
            return 0;
    }
    return 1;
}

static enum MHD_Result answer(void *cls, struct MHD_Connection *conn, const char *url,
                              const char *method, const char *version, const char *upload_data,
                              size_t *upload_data_size, void **req_cls)
{
    (void)cls;
    (void)version;
    (void)upload_data;
    if (strcmp(method, MHD_HTTP_METHOD_GET) != 0 && strcmp(method, MHD_HTTP_METHOD_HEAD) != 0)
        return MHD_NO;
    /* Answering on the first call, before MHD has confirmed the request has
     * no body, makes this MHD release mark the connection "must close", which
     * would turn every keep-alive test into a reconnect test. */
    static int headers_seen;
    if (*req_cls == NULL) {
        *req_cls = &headers_seen;
        return MHD_YES;
    }
    if (*upload_data_size != 0) {
        *upload_data_size = 0;
        return MHD_YES;
    }

    char path[8192];
    int fd = -1;
    struct stat st;
    if (path_is_safe(url) && snprintf(path, sizeof path, "%s%s", g_root, url) < (int)sizeof path) {
        fd = open(path, O_RDONLY | O_CLOEXEC);
        if (fd >= 0 && (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))) {
            close(fd);
            fd = -1;
        }
    }
    if (fd < 0)
        return MHD_queue_response(conn, MHD_HTTP_NOT_FOUND, g_not_found);

    /* The response owns fd and closes it when destroyed. */
    struct MHD_Response *resp = MHD_create_response_from_fd64((uint64_t)st.st_size, fd);
    if (resp == NULL) {
        close(fd);
        return MHD_NO;
    }
    MHD_add_response_header(resp, MHD_HTTP_HEADER_CONTENT_TYPE, "application/octet-stream");
    enum MHD_Result ret = MHD_queue_response(conn, MHD_HTTP_OK, resp);
    MHD_destroy_response(resp);
    return ret;
}

int main(int argc, char **argv)
{
    int port = 0;
    unsigned threads = (unsigned)sysconf(_SC_NPROCESSORS_ONLN);
    const char *root = NULL;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (strcmp(argv[i], "--port") == 0)
            port = atoi(argv[i + 1]);
        else if (strcmp(argv[i], "--root") == 0)
            root = argv[i + 1];
        else if (strcmp(argv[i], "--threads") == 0)
            threads = (unsigned)atoi(argv[i + 1]);
    }
    if (port <= 0 || root == NULL || threads == 0) {
        fprintf(stderr, "usage: %s --port PORT --root DIR [--threads N]\n", argv[0]);
        return 2;
    }
    snprintf(g_root, sizeof g_root, "%s", root);
    size_t n = strlen(g_root);
    while (n > 1 && g_root[n - 1] == '/')
        g_root[--n] = '\0';

    signal(SIGPIPE, SIG_IGN);

    static const char body[] = "<html><body>404 Not Found</body></html>";
    g_not_found = MHD_create_response_from_buffer(sizeof body - 1, (void *)body, MHD_RESPMEM_PERSISTENT);
    MHD_add_response_header(g_not_found, MHD_HTTP_HEADER_CONTENT_TYPE, "text/html");

    struct sockaddr_in addr;
    memset(&addr, 0, sizeof addr);
    addr.sin_family = AF_INET;
    addr.sin_port = htons((uint16_t)port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);

    struct MHD_Daemon *d = MHD_start_daemon(
        MHD_USE_EPOLL_INTERNAL_THREAD | MHD_USE_TURBO | MHD_USE_ERROR_LOG, (uint16_t)port, NULL, NULL,
        &answer, NULL, MHD_OPTION_SOCK_ADDR, (struct sockaddr *)&addr, MHD_OPTION_THREAD_POOL_SIZE,
        threads, MHD_OPTION_CONNECTION_LIMIT, 100000u, MHD_OPTION_CONNECTION_TIMEOUT, 60u,
        MHD_OPTION_LISTEN_BACKLOG_SIZE, 4096u, MHD_OPTION_END);
    if (d == NULL) {
        fprintf(stderr, "mhd_static: MHD_start_daemon failed on port %d\n", port);
        return 1;
    }
    fprintf(stderr, "mhd_static: serving %s on 127.0.0.1:%d with %u threads\n", g_root, port, threads);
    for (;;)
        pause();
}
