/* Upload sink on libmicrohttpd, used only as a benchmark peer: every POST to
 * /upload is stored in a new file in a directory, streamed as it arrives.
 *
 * Usage: mhd_upload --port PORT --dir DIR [--threads N]
 *
 * MHD hands a request body to the access handler piece by piece, as it
 * reads it (each call's upload_data is what arrived since the last one, at
 * most its read buffer), and each piece is written to the file at once, so
 * no body is ever held whole in memory: store-to-disk, the same work our
 * upload endpoint does. MHD's post processor is not used: it parses form
 * encodings, and these bodies are raw bytes with a Content-Length.
 *
 * Settings as for the static peer: epoll with an internal pool of N threads
 * (default: the core count), MHD_USE_TURBO, backlog 4096, 60 s timeout. The
 * per-connection memory pool is raised to 256 KiB so each read hands over
 * a larger piece (fewer handler calls and write()s per megabyte).
 */
#include <microhttpd.h>

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static char g_dir[4096];
static atomic_uint g_counter;
static struct MHD_Response *g_created;
static struct MHD_Response *g_failed;
static struct MHD_Response *g_not_found;

struct upload {
    int fd;
    int failed;
};

static enum MHD_Result answer(void *cls, struct MHD_Connection *conn, const char *url, const char *method,
                              const char *version, const char *upload_data, size_t *upload_data_size,
                              void **req_cls)
{
    (void)cls;
    (void)version;
    if (strcmp(method, MHD_HTTP_METHOD_POST) != 0 || strcmp(url, "/upload") != 0) {
        /* Wait for the end of any body before answering, so the answer does
         * not force the connection closed. */
        if (*req_cls == NULL) {
            *req_cls = &g_not_found;
            return MHD_YES;
        }
        if (*upload_data_size != 0) {
            *upload_data_size = 0;
            return MHD_YES;
        }
        return MHD_queue_response(conn, MHD_HTTP_NOT_FOUND, g_not_found);
    }
    struct upload *up = *req_cls;
    if (up == NULL) {
        up = calloc(1, sizeof *up);
        if (up == NULL)
            return MHD_NO;
        char path[4200];
        snprintf(path, sizeof path, "%s/mhd-%u.bin", g_dir, atomic_fetch_add(&g_counter, 1));
        up->fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        up->failed = up->fd < 0;
        *req_cls = up;
        return MHD_YES;
    }
    if (*upload_data_size != 0) {
        const char *p = upload_data;
        size_t left = *upload_data_size;
        while (!up->failed && left > 0) {
            ssize_t w = write(up->fd, p, left);
            if (w < 0 && errno == EINTR)
                continue;
            if (w <= 0) {
                up->failed = 1;
                break;
            }
            p += w;
            left -= (size_t)w;
        }
        *upload_data_size = 0;
        return MHD_YES;
    }
    /* The whole body has been handed over. */
    return MHD_queue_response(conn, up->failed ? MHD_HTTP_INTERNAL_SERVER_ERROR : MHD_HTTP_CREATED,
                              up->failed ? g_failed : g_created);
}

static void completed(void *cls, struct MHD_Connection *conn, void **req_cls,
                      enum MHD_RequestTerminationCode toe)
{
    (void)cls;
    (void)conn;
    (void)toe;
    struct upload *up = *req_cls;
    if (up == NULL || (void *)up == (void *)&g_not_found)
        return;
    if (up->fd >= 0)
        close(up->fd);
    free(up);
    *req_cls = NULL;
}

static struct MHD_Response *fixed(const char *text)
{
    return MHD_create_response_from_buffer(strlen(text), (void *)text, MHD_RESPMEM_PERSISTENT);
}

int main(int argc, char **argv)
{
    int port = 0;
    unsigned threads = (unsigned)sysconf(_SC_NPROCESSORS_ONLN);
    const char *dir = NULL;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (strcmp(argv[i], "--port") == 0)
            port = atoi(argv[i + 1]);
        else if (strcmp(argv[i], "--dir") == 0)
            dir = argv[i + 1];
        else if (strcmp(argv[i], "--threads") == 0)
            threads = (unsigned)atoi(argv[i + 1]);
    }
    if (port <= 0 || dir == NULL || threads == 0) {
        fprintf(stderr, "usage: %s --port PORT --dir DIR [--threads N]\n", argv[0]);
        return 2;
    }
    snprintf(g_dir, sizeof g_dir, "%s", dir);
    signal(SIGPIPE, SIG_IGN);
    g_created = fixed("stored\n");
    g_failed = fixed("could not store\n");
    g_not_found = fixed("not found\n");

    struct sockaddr_in addr;
    memset(&addr, 0, sizeof addr);
    addr.sin_family = AF_INET;
    addr.sin_port = htons((uint16_t)port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    struct MHD_Daemon *d = MHD_start_daemon(
        MHD_USE_EPOLL_INTERNAL_THREAD | MHD_USE_TURBO | MHD_USE_ERROR_LOG, (uint16_t)port, NULL, NULL,
        &answer, NULL, MHD_OPTION_SOCK_ADDR, (struct sockaddr *)&addr, MHD_OPTION_THREAD_POOL_SIZE, threads,
        MHD_OPTION_NOTIFY_COMPLETED, &completed, NULL, MHD_OPTION_CONNECTION_MEMORY_LIMIT, (size_t)256 * 1024,
        MHD_OPTION_CONNECTION_LIMIT, 100000u, MHD_OPTION_CONNECTION_TIMEOUT, 60u,
        MHD_OPTION_LISTEN_BACKLOG_SIZE, 4096u, MHD_OPTION_END);
    if (d == NULL) {
        fprintf(stderr, "mhd_upload: MHD_start_daemon failed on port %d\n", port);
        return 1;
    }
    fprintf(stderr, "mhd_upload: storing POST /upload bodies in %s on 127.0.0.1:%d with %u threads\n", g_dir,
            port, threads);
    for (;;)
        pause();
}
