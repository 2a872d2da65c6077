/* The floor: the least an HTTP server on this machine can do per request,
 * so every other row can be read as a share of what the kernel, loopback
 * and wrk leave possible.
 *
 * Usage: floor_server --port PORT --root DIR [--threads N]
 *
 * One epoll loop per thread (default: one per core), each with its own
 * SO_REUSEPORT listener so the kernel spreads connections without a shared
 * accept queue or lock. Sockets are non-blocking; each readiness event costs
 * exactly one read() and, for a request, one write() of a canned answer:
 *   GET /1k.bin   -> 200 with DIR/1k.bin (read once at start, 1 KiB) and
 *                    Content-Length, keep-alive
 *   anything else -> a small 404 with Content-Length, keep-alive
 *
 * This is deliberately not a general server. It assumes one complete
 * request arrives per read and that the answer fits the socket buffer in
 * one write, which holds for wrk's small GETs without pipelining; a
 * partial request or a short write closes the connection rather than being
 * handled. Nothing here is meant to be copied into a real server.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

static char g_ok[2048];
static size_t g_ok_len;
static const char g_not_found[] = "HTTP/1.1 404 Not Found\r\nContent-Length: 9\r\n\r\nnot found";
static int g_port;

static int make_listener(void)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    setsockopt(fd, SOL_SOCKET, SO_REUSEPORT, &one, sizeof one);
    struct sockaddr_in addr;
    memset(&addr, 0, sizeof addr);
    addr.sin_family = AF_INET;
    addr.sin_port = htons((uint16_t)g_port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd, (struct sockaddr *)&addr, sizeof addr) != 0 || listen(fd, 4096) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

static void *loop(void *arg)
{
    int lfd = (int)(intptr_t)arg;
    int ep = epoll_create1(EPOLL_CLOEXEC);
    struct epoll_event ev = {.events = EPOLLIN, .data.fd = lfd};
    epoll_ctl(ep, EPOLL_CTL_ADD, lfd, &ev);
    struct epoll_event events[256];
    char buf[4096];
    for (;;) {
        int n = epoll_wait(ep, events, 256, -1);
        for (int i = 0; i < n; ++i) {
            int fd = events[i].data.fd;
            if (fd == lfd) {
                for (;;) {
                    int c = accept4(lfd, NULL, NULL, SOCK_NONBLOCK | SOCK_CLOEXEC);
                    if (c < 0)
                        break;
                    int one = 1;
                    setsockopt(c, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
                    struct epoll_event cev = {.events = EPOLLIN, .data.fd = c};
                    epoll_ctl(ep, EPOLL_CTL_ADD, c, &cev);
                }
                continue;
            }
            ssize_t r = read(fd, buf, sizeof buf - 1);
            if (r < 0 && (errno == EAGAIN || errno == EINTR))
                continue;
            if (r <= 0) {
                close(fd); /* also leaves the epoll set */
                continue;
            }
            buf[r] = '\0';
            int ok = strncmp(buf, "GET /1k.bin ", 12) == 0;
            const char *answer = ok ? g_ok : g_not_found;
            size_t len = ok ? g_ok_len : sizeof g_not_found - 1;
            if (write(fd, answer, len) != (ssize_t)len)
                close(fd);
        }
    }
    return NULL;
}

int main(int argc, char **argv)
{
    const char *root = NULL;
    int threads = (int)sysconf(_SC_NPROCESSORS_ONLN);
    for (int i = 1; i + 1 < argc; i += 2) {
        if (strcmp(argv[i], "--port") == 0)
            g_port = atoi(argv[i + 1]);
        else if (strcmp(argv[i], "--root") == 0)
            root = argv[i + 1];
        else if (strcmp(argv[i], "--threads") == 0)
            threads = atoi(argv[i + 1]);
    }
    if (g_port <= 0 || root == NULL || threads <= 0) {
        fprintf(stderr, "usage: %s --port PORT --root DIR [--threads N]\n", argv[0]);
        return 2;
    }
    char path[4096];
    snprintf(path, sizeof path, "%s/1k.bin", root);
    char body[1024];
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0 || read(fd, body, sizeof body) != (ssize_t)sizeof body) {
        fprintf(stderr, "floor_server: cannot read 1024 bytes from %s\n", path);
        return 1;
    }
    close(fd);
    int head = snprintf(g_ok, sizeof g_ok, "HTTP/1.1 200 OK\r\nContent-Length: %zu\r\n\r\n", sizeof body);
    memcpy(g_ok + head, body, sizeof body);
    g_ok_len = (size_t)head + sizeof body;

    signal(SIGPIPE, SIG_IGN);
    struct rlimit rl;
    if (getrlimit(RLIMIT_NOFILE, &rl) == 0) {
        rl.rlim_cur = rl.rlim_max;
        setrlimit(RLIMIT_NOFILE, &rl);
    }
    for (int t = 0; t < threads; ++t) {
        int lfd = make_listener();
        if (lfd < 0) {
            fprintf(stderr, "floor_server: cannot listen on 127.0.0.1:%d: %s\n", g_port, strerror(errno));
            return 1;
        }
        pthread_t th;
        if (t + 1 < threads) {
            pthread_create(&th, NULL, loop, (void *)(intptr_t)lfd);
            pthread_detach(th);
        } else {
            fprintf(stderr, "floor_server: 127.0.0.1:%d, %d loops\n", g_port, threads);
            loop((void *)(intptr_t)lfd);
        }
    }
    return 0;
}
