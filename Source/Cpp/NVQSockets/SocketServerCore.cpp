#include "SocketServerCore.h"

#include "NVQSockets/Linux/SocketServerLayer.h"

#include "KZF_Utilities/Linux/Logger.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <thread>
#include <time.h>
#include <unistd.h>

namespace NVQ
{

namespace
{

// Workers beyond the minimum that saw no event for this long exit.
constexpr int c_workerIdleExitMs = 10000;
// While every worker is busy, the watcher looks this often whether any of
// them made progress; if none did, one more worker is started.
constexpr int c_watchIntervalMs = 10;
// A connection closed by the server reads and drops the peer's bytes for at
// most this long before its socket is closed anyway.
constexpr int c_lingerTimeoutMs = 5000;
// Checks with a free worker before the watcher stops looking closely.
constexpr int c_calmChecksBeforeRest = 50;
// After running out of file descriptors, accepting pauses this long.
constexpr int c_acceptPauseMs = 100;
// Accepts per round, so a flood of connections cannot starve the timers.
constexpr int c_acceptBurst = 64;
// Worker stacks: exchanges need little, and small stacks keep a large pool
// affordable on 32-bit devices.
constexpr size_t c_workerStackSize = 512 * 1024;

void logFailure(const char *function, int line, const char *format, int value, int error)
{
    KZF::CLogger::GetInstance().LogMessage(1, __FILE__, line, function, KZF::CLogger::c_noneObjPtr, format,
                                           value, std::strerror(error));
}

void drainEventFd(int fd)
{
    uint64_t value;
    while (::read(fd, &value, sizeof(value)) > 0) {
    }
}

void signalEventFd(int fd)
{
    const uint64_t one = 1;
    ssize_t written = ::write(fd, &one, sizeof(one));
    (void)written;
}

} // namespace

int64_t monotonicMilliseconds()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

CSocketServerCore::CSocketServerCore(CSocketServerLayer &layer, bool localOnly)
    : m_idleTimeoutMs(CSocketServerLayer::c_defaultIdleTimeoutMs),
      m_requestTimeoutMs(CSocketServerLayer::c_defaultRequestTimeoutMs),
      m_sendTimeoutMs(CSocketServerLayer::c_defaultSendTimeoutMs),
      m_maxConnections(CSocketServerLayer::c_defaultMaxConnections),
      m_maxWorkers(CSocketServerLayer::c_defaultMaxWorkers), m_layer(layer),
      m_localOnly(localOnly), m_listenFds{-1, -1}, m_listenCount(0), m_port(0), m_epollFd(-1),
      m_acceptorWakeFd(-1), m_workerStopFd(-1), m_acceptPausedUntil(0), m_pAccepting(nullptr),
      m_pFirst(nullptr), m_connectionCount(0), m_stopping(false),
      m_minWorkers(std::max(2, static_cast<int>(std::thread::hardware_concurrency()))), m_workerCount(0),
      m_idleWorkers(0), m_busyWorkers(0), m_progress(0), m_watcherAlerted(false), m_stopWorkers(false),
      m_lastProgress(0), m_watchClosely(false), m_calmChecks(0)
{
}

CSocketServerCore::~CSocketServerCore()
{
    Close();
}

int CSocketServerCore::OpenListener(int family, int port, int backlog, int &error)
{
    const int fd = ::socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        error = errno;
        return -1;
    }
    const int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    int result;
    if (family == AF_INET6) {
        // Separate IPv4 and IPv6 sockets, so that loopback-only serving works
        // for both and IPv4 clients show their own addresses.
        ::setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof(on));
        struct sockaddr_in6 address;
        std::memset(&address, 0, sizeof(address));
        address.sin6_family = AF_INET6;
        address.sin6_port = htons(static_cast<uint16_t>(port));
        address.sin6_addr = m_localOnly ? in6addr_loopback : in6addr_any;
        result = ::bind(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof(address));
    } else {
        struct sockaddr_in address;
        std::memset(&address, 0, sizeof(address));
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr.s_addr = htonl(m_localOnly ? INADDR_LOOPBACK : INADDR_ANY);
        result = ::bind(fd, reinterpret_cast<struct sockaddr *>(&address), sizeof(address));
    }
    if (result != 0 || ::listen(fd, backlog < 0 ? SOMAXCONN : backlog) != 0) {
        error = errno;
        ::close(fd);
        return -1;
    }
    return fd;
}

bool CSocketServerCore::Open(int port, int backlog, bool ipv4Only)
{
    if (port < 0 || port > 65535) {
        logFailure("StartServer", __LINE__, "SocketServerLayer : cannot listen on port %d: %s", port, EINVAL);
        return false;
    }
    // With port 0 the IPv6 socket must share the port the kernel picked for
    // IPv4, which another program may hold: try a few picks.
    for (int attempt = 0; attempt < 8; ++attempt) {
        int error = 0;
        const int v4 = OpenListener(AF_INET, port, backlog, error);
        if (v4 < 0) {
            logFailure("StartServer", __LINE__, "SocketServerLayer : cannot listen on port %d: %s", port,
                       error);
            return false;
        }
        struct sockaddr_in bound;
        socklen_t length = sizeof(bound);
        ::getsockname(v4, reinterpret_cast<struct sockaddr *>(&bound), &length);
        const int actualPort = ntohs(bound.sin_port);
        m_listenFds[0] = v4;
        m_listenCount = 1;
        if (!ipv4Only) {
            const int v6 = OpenListener(AF_INET6, actualPort, backlog, error);
            if (v6 >= 0) {
                m_listenFds[m_listenCount++] = v6;
            } else if (error == EADDRINUSE) {
                ::close(v4);
                m_listenCount = 0;
                if (port == 0)
                    continue;
                logFailure("StartServer", __LINE__, "SocketServerLayer : cannot listen on port %d (IPv6): %s",
                           port, error);
                return false;
            }
            // Otherwise the machine has no IPv6: IPv4 alone serves.
        }
        m_port = actualPort;
        break;
    }
    if (m_listenCount == 0) {
        logFailure("StartServer", __LINE__, "SocketServerLayer : cannot listen on port %d: %s", port,
                   EADDRINUSE);
        return false;
    }

    m_epollFd = ::epoll_create1(EPOLL_CLOEXEC);
    m_acceptorWakeFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    m_workerStopFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    struct epoll_event stopEvent;
    stopEvent.events = EPOLLIN; // level-triggered: every worker sees it
    stopEvent.data.ptr = &m_workerStopFd;
    if (m_epollFd < 0 || m_acceptorWakeFd < 0 || m_workerStopFd < 0 ||
        ::epoll_ctl(m_epollFd, EPOLL_CTL_ADD, m_workerStopFd, &stopEvent) != 0) {
        logFailure("StartServer", __LINE__, "SocketServerLayer : cannot start on port %d: %s", port, errno);
        Close();
        return false;
    }
    m_stopping = false;
    m_stopWorkers = false;
    m_acceptPausedUntil = 0;
    for (int i = 0; i < m_minWorkers; ++i) {
        if (!SpawnWorker()) {
            logFailure("StartServer", __LINE__, "SocketServerLayer : cannot start workers on port %d: %s",
                       port, errno);
            Close();
            return false;
        }
    }
    return true;
}

void CSocketServerCore::Close()
{
    for (int i = 0; i < m_listenCount; ++i)
        ::close(m_listenFds[i]);
    m_listenCount = 0;
    m_port = 0;

    // Every connection is broken and shut down: idle ones report an event,
    // and a worker blocked in a send wakes up. The workers settle them all
    // and deliver their close notifications.
    m_stopping = true;
    {
        std::unique_lock<std::mutex> lock(m_listMutex);
        for (CSocketConnection *c = m_pFirst; c != nullptr; c = c->m_pNext) {
            c->MarkBroken();
            const int fd = c->GetFd();
            if (fd >= 0)
                ::shutdown(fd, SHUT_RDWR);
        }
        m_settled.wait(lock, [this] { return m_connectionCount.load() == 0 && m_busyWorkers.load() == 0; });
    }

    m_stopWorkers = true;
    if (m_workerStopFd >= 0)
        signalEventFd(m_workerStopFd);
    std::vector<pthread_t> workers;
    {
        std::lock_guard<std::mutex> lock(m_poolMutex);
        workers.swap(m_workers);
        workers.insert(workers.end(), m_exitedWorkers.begin(), m_exitedWorkers.end());
        m_exitedWorkers.clear();
    }
    for (pthread_t worker : workers)
        pthread_join(worker, nullptr);
    m_workerCount = 0;
    m_idleWorkers = 0;

    for (int *fd : {&m_epollFd, &m_acceptorWakeFd, &m_workerStopFd}) {
        if (*fd >= 0)
            ::close(*fd);
        *fd = -1;
    }
    m_stopping = false;
}

void CSocketServerCore::WakeAcceptor()
{
    if (m_acceptorWakeFd >= 0)
        signalEventFd(m_acceptorWakeFd);
}

int CSocketServerCore::ReaperPeriodMs() const
{
    const int shortest = std::min(m_idleTimeoutMs.load(), m_requestTimeoutMs.load());
    return std::clamp(shortest / 4, 10, 1000);
}

void CSocketServerCore::RunAcceptor()
{
    int64_t nextReap = monotonicMilliseconds() + ReaperPeriodMs();
    while (!m_layer.IsStopRequested()) {
        const int64_t before = monotonicMilliseconds();
        struct pollfd fds[3];
        int count = 0;
        fds[count++] = {m_acceptorWakeFd, POLLIN, 0};
        const bool paused = before < m_acceptPausedUntil;
        if (!paused) {
            for (int i = 0; i < m_listenCount; ++i)
                fds[count++] = {m_listenFds[i], POLLIN, 0};
        }
        int timeout = static_cast<int>(std::max<int64_t>(0, nextReap - before));
        if (m_watchClosely)
            timeout = std::min(timeout, c_watchIntervalMs);
        if (paused)
            timeout = std::min<int>(timeout, static_cast<int>(m_acceptPausedUntil - before));
        const int ready = ::poll(fds, static_cast<nfds_t>(count), timeout);
        if (ready < 0 && errno != EINTR) {
            logFailure("RunAcceptor", __LINE__, "SocketServerLayer : poll failed on port %d: %s",
                       m_port.load(), errno);
            std::this_thread::sleep_for(std::chrono::milliseconds(c_watchIntervalMs));
        }
        if (m_layer.IsStopRequested())
            break;
        const int64_t now = monotonicMilliseconds();
        // Timeouts may have been shortened since the last round.
        nextReap = std::min(nextReap, now + ReaperPeriodMs());
        if (ready > 0) {
            if (fds[0].revents & POLLIN)
                drainEventFd(m_acceptorWakeFd);
            for (int i = 1; i < count; ++i) {
                if (fds[i].revents & POLLIN)
                    AcceptFrom(fds[i].fd, now);
            }
        }
        WatchWorkers();
        if (now >= nextReap) {
            Reap(now);
            nextReap = now + ReaperPeriodMs();
        }
    }
}

void CSocketServerCore::AcceptFrom(int listenFd, int64_t now)
{
    for (int burst = 0; burst < c_acceptBurst; ++burst) {
        struct sockaddr_storage remote;
        socklen_t remoteLength = sizeof(remote);
        const int fd = ::accept4(listenFd, reinterpret_cast<struct sockaddr *>(&remote), &remoteLength,
                                 SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED || errno == EPROTO)
                continue;
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                // Level-triggered polling would spin on the waiting connection.
                logFailure("AcceptFrom", __LINE__, "SocketServerLayer : accept paused on port %d: %s",
                           m_port.load(), errno);
                m_acceptPausedUntil = now + c_acceptPauseMs;
            }
            return;
        }
        if (m_connectionCount.load() >= m_maxConnections.load()) {
            ::close(fd);
            continue;
        }
        const int on = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));

        CSocketConnection *connection =
            new CSocketConnection(*this, fd, reinterpret_cast<struct sockaddr *>(&remote), remoteLength);
        connection->AddRef(); // the list's reference
        connection->m_deadline = now + m_idleTimeoutMs.load();
        Link(*connection);

        m_pAccepting = connection;
        const bool taken =
            m_layer.NotifyForNewConnection(connection->GetRemoteAddress(), connection->GetLocalAddress());
        m_pAccepting = nullptr;
        if (!taken || !connection->IsRegistered()) {
            // Nobody will ever read it.
            FinishConnection(*connection);
            continue;
        }
        struct epoll_event event;
        event.events = EPOLLIN | EPOLLRDHUP | EPOLLONESHOT;
        event.data.ptr = connection;
        if (::epoll_ctl(m_epollFd, EPOLL_CTL_ADD, fd, &event) != 0) {
            connection->MarkBroken();
            connection->DeliverConnectionClosed();
            FinishConnection(*connection);
        }
    }
}

KZF::CRefCountPtr<INVQDataLayer> CSocketServerCore::CreateConnectionPoint(const INVQConnectionAddress &first,
                                                                          const INVQConnectionAddress &second)
{
    CSocketConnection *connection = m_pAccepting;
    if (connection == nullptr || &first != &connection->GetRemoteAddress() ||
        &second != &connection->GetLocalAddress())
        return KZF::CRefCountPtr<INVQDataLayer>();
    return KZF::CRefCountPtr<INVQDataLayer>(connection);
}

void CSocketServerCore::Link(CSocketConnection &connection)
{
    std::lock_guard<std::mutex> lock(m_listMutex);
    connection.m_pPrev = nullptr;
    connection.m_pNext = m_pFirst;
    if (m_pFirst != nullptr)
        m_pFirst->m_pPrev = &connection;
    m_pFirst = &connection;
    ++m_connectionCount;
}

void CSocketServerCore::Unlink(CSocketConnection &connection)
{
    std::lock_guard<std::mutex> lock(m_listMutex);
    if (connection.m_pPrev != nullptr)
        connection.m_pPrev->m_pNext = connection.m_pNext;
    else
        m_pFirst = connection.m_pNext;
    if (connection.m_pNext != nullptr)
        connection.m_pNext->m_pPrev = connection.m_pPrev;
    connection.m_pPrev = connection.m_pNext = nullptr;
    --m_connectionCount;
}

void CSocketServerCore::ShutdownConnection(CSocketConnection &connection)
{
    // Under the list lock the socket cannot be closed by its owner meanwhile.
    std::lock_guard<std::mutex> lock(m_listMutex);
    const int fd = connection.GetFd();
    if (fd >= 0)
        ::shutdown(fd, SHUT_RDWR);
}

void CSocketServerCore::Reap(int64_t now)
{
    std::lock_guard<std::mutex> lock(m_listMutex);
    for (CSocketConnection *c = m_pFirst; c != nullptr; c = c->m_pNext) {
        if (c->m_expired || c->m_busy.load(std::memory_order_acquire) ||
            c->m_deadline.load(std::memory_order_relaxed) > now)
            continue;
        // Its owner (the epoll set) reports the shut-down socket to a
        // worker, which closes it like a peer close.
        c->m_expired = true;
        const int fd = c->GetFd();
        if (fd >= 0)
            ::shutdown(fd, SHUT_RDWR);
    }
}

void CSocketServerCore::AlertWatcher()
{
    if (!m_watcherAlerted.exchange(true))
        WakeAcceptor();
}

void CSocketServerCore::WatchWorkers()
{
    JoinExitedWorkers();
    const unsigned progress = m_progress.load();
    if (m_idleWorkers.load() > 0) {
        // Under load the idle count touches 0 all the time; staying watchful
        // for a while keeps each of those moments from costing a wake-up.
        if (m_watchClosely && ++m_calmChecks < c_calmChecksBeforeRest)
            return;
        m_watchClosely = false;
        m_watcherAlerted = false;
        m_lastProgress = progress;
        return;
    }
    m_calmChecks = 0;
    // Every worker is inside an exchange. Busy but moving is fine; stuck
    // since the last look means new events would wait: add a worker.
    if (m_watchClosely && progress == m_lastProgress && m_workerCount.load() < m_maxWorkers.load())
        SpawnWorker();
    m_watchClosely = true;
    m_lastProgress = progress;
}

bool CSocketServerCore::SpawnWorker()
{
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, c_workerStackSize);
    std::lock_guard<std::mutex> lock(m_poolMutex);
    pthread_t thread;
    ++m_workerCount;
    const int result = pthread_create(&thread, &attributes, &CSocketServerCore::WorkerMain, this);
    pthread_attr_destroy(&attributes);
    if (result != 0) {
        --m_workerCount;
        errno = result;
        return false;
    }
    m_workers.push_back(thread);
    return true;
}

void CSocketServerCore::JoinExitedWorkers()
{
    std::vector<pthread_t> exited;
    {
        std::lock_guard<std::mutex> lock(m_poolMutex);
        exited.swap(m_exitedWorkers);
    }
    for (pthread_t worker : exited)
        pthread_join(worker, nullptr);
}

void *CSocketServerCore::WorkerMain(void *self)
{
    static_cast<CSocketServerCore *>(self)->WorkerLoop();
    return nullptr;
}

bool CSocketServerCore::TryRetire()
{
    int count = m_workerCount.load();
    while (count > m_minWorkers) {
        if (m_workerCount.compare_exchange_weak(count, count - 1)) {
            std::lock_guard<std::mutex> lock(m_poolMutex);
            const pthread_t self = pthread_self();
            m_workers.erase(std::remove_if(m_workers.begin(), m_workers.end(),
                                           [self](pthread_t t) { return pthread_equal(t, self); }),
                            m_workers.end());
            m_exitedWorkers.push_back(self);
            return true;
        }
    }
    return false;
}

void CSocketServerCore::WorkerLoop()
{
    SWorkerContext context;
    for (;;) {
        ++m_idleWorkers;
        struct epoll_event event;
        // One event at a time: an exchange may take long, and events taken
        // together would wait behind it.
        const int ready = ::epoll_wait(m_epollFd, &event, 1, c_workerIdleExitMs);
        if (m_idleWorkers.fetch_sub(1) == 1)
            AlertWatcher();
        if (ready < 0) {
            if (errno == EINTR)
                continue;
            return;
        }
        if (ready == 0) {
            if (m_stopWorkers.load() || TryRetire())
                return;
            continue;
        }
        if (event.data.ptr == &m_workerStopFd) {
            if (m_stopWorkers.load())
                return;
            continue;
        }
        CSocketConnection &connection = *static_cast<CSocketConnection *>(event.data.ptr);
        ++m_busyWorkers;
        ProcessEvent(connection, event.events, context);
        --m_busyWorkers;
        ++m_progress;
        if (m_stopping.load()) {
            std::lock_guard<std::mutex> lock(m_listMutex);
            m_settled.notify_all();
        }
    }
}

void CSocketServerCore::ProcessEvent(CSocketConnection &connection, uint32_t events, SWorkerContext &context)
{
    connection.AddRef();
    connection.TakeOver();
    if (!connection.IsBroken() && !connection.IsClosedByServer()) {
        connection.BeginNotification(context);
        connection.DeliverDataReceived();
        connection.EndNotification(context);
    }
    Settle(connection, events);
    connection.ReleaseRef();
}

void CSocketServerCore::Settle(CSocketConnection &connection, uint32_t events)
{
    if (connection.IsClosedByServer()) {
        const bool firstTime = !connection.IsLingering();
        if (connection.Linger()) {
            FinishConnection(connection);
            return;
        }
        if (firstTime)
            connection.m_deadline.store(monotonicMilliseconds() + c_lingerTimeoutMs,
                                        std::memory_order_relaxed);
        if (!connection.HandBack(m_epollFd))
            FinishConnection(connection);
        return;
    }
    if (connection.IsBroken() || connection.IsPeerClosed() || (events & (EPOLLHUP | EPOLLERR)) != 0 ||
        !connection.IsRegistered()) {
        connection.DeliverConnectionClosed();
        FinishConnection(connection);
        return;
    }
    // An answer ends the request: wait for the next one as an idle
    // connection. Bytes without an answer start (or continue) a request,
    // which must be complete within the request timeout.
    const int64_t now = monotonicMilliseconds();
    if (connection.WroteInNotification()) {
        connection.m_requestStarted = false;
        connection.m_deadline.store(now + m_idleTimeoutMs.load(), std::memory_order_relaxed);
    } else if (connection.ReadInNotification() && !connection.m_requestStarted) {
        connection.m_requestStarted = true;
        connection.m_deadline.store(now + m_requestTimeoutMs.load(), std::memory_order_relaxed);
    }
    if (!connection.HandBack(m_epollFd)) {
        connection.MarkBroken();
        connection.DeliverConnectionClosed();
        FinishConnection(connection);
    }
}

void CSocketServerCore::FinishConnection(CSocketConnection &connection)
{
    // Off the list first: from then on no other thread touches the socket.
    Unlink(connection);
    if (m_layer.HasNotifications())
        m_layer.NotifyForConnectionClosed(connection, connection.GetRemoteAddress(),
                                          connection.GetLocalAddress());
    connection.CloseSocket();
    connection.ReleaseRef(); // the list's reference
    if (m_stopping.load()) {
        std::lock_guard<std::mutex> lock(m_listMutex);
        m_settled.notify_all();
    }
}

} // namespace NVQ
