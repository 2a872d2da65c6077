#include "SocketServerCore.h"

#include "EventLoop.h"
#include "SocketConnection.h"
#ifdef NVQ_WITH_TLS
#include "TlsContext.h"
#endif

#include "NVQSockets/Linux/SocketServerLayer.h"

#include "KZF_Utilities/Linux/Logger.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/tcp.h>
#include <thread>
#include <time.h>
#include <unistd.h>

namespace NVQ
{

namespace
{

// Notices of newcomers admitted or refused at the cap: at most one a second.
constexpr int c_capLogIntervalMs = 1000;
// Level of those notices: above the failures, below the per-connection
// notices, so a device owner can turn them on alone.
constexpr int c_capLogLevel = 5;

// The connection NewConnectionRequested is about, on the accepting thread.
thread_local CSocketConnection *t_pAccepting = nullptr;

void logFailure(const char *function, int line, const char *format, int value, int error)
{
    KZF::CLogger::GetInstance().LogMessage(1, __FILE__, line, function, KZF::CLogger::c_noneObjPtr, format,
                                           value, std::strerror(error));
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
      m_maxWorkers(CSocketServerLayer::c_defaultMaxWorkers),
      m_loopCount(CSocketServerLayer::c_defaultLoopCount), m_connectionCount(0), m_layer(layer),
      m_localOnly(localOnly), m_listenFds{-1, -1, -1, -1}, m_listenCount(0), m_tlsFirst(0), m_port(0),
      m_tlsListenPort(0), m_threadCount(0), m_spareCount(0), m_stopThreads(false), m_watchWoken(false),
      m_drained(0), m_refused(0), m_lastCapLogMs(0)
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
    // Accepted sockets inherit it: no system call per connection.
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
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

int CSocketServerCore::OpenPort(int port, int backlog, bool ipv4Only, int *fds, int &count)
{
    if (port < 0 || port > 65535) {
        logFailure("StartServer", __LINE__, "SocketServerLayer : cannot listen on port %d: %s", port, EINVAL);
        return -1;
    }
    // With port 0 the IPv6 socket must share the port the kernel picked for
    // IPv4, which another program may hold: try a few picks.
    for (int attempt = 0; attempt < 8; ++attempt) {
        int error = 0;
        const int v4 = OpenListener(AF_INET, port, backlog, error);
        if (v4 < 0) {
            logFailure("StartServer", __LINE__, "SocketServerLayer : cannot listen on port %d: %s", port,
                       error);
            return -1;
        }
        struct sockaddr_in bound;
        socklen_t length = sizeof(bound);
        ::getsockname(v4, reinterpret_cast<struct sockaddr *>(&bound), &length);
        const int actualPort = ntohs(bound.sin_port);
        fds[0] = v4;
        count = 1;
        if (!ipv4Only) {
            const int v6 = OpenListener(AF_INET6, actualPort, backlog, error);
            if (v6 >= 0) {
                fds[count++] = v6;
            } else if (error == EADDRINUSE) {
                ::close(v4);
                count = 0;
                if (port == 0)
                    continue;
                logFailure("StartServer", __LINE__, "SocketServerLayer : cannot listen on port %d (IPv6): %s",
                           port, error);
                return -1;
            }
            // Otherwise the machine has no IPv6: IPv4 alone serves.
        }
        return actualPort;
    }
    logFailure("StartServer", __LINE__, "SocketServerLayer : cannot listen on port %d: %s", port, EADDRINUSE);
    return -1;
}

bool CSocketServerCore::Open(int port, int backlog, bool ipv4Only)
{
    const bool tls = HasTlsCertificate();
    const int tlsPort = m_tlsPort.load();
    if (!tls && tlsPort >= 0) {
        logFailure("StartServer", __LINE__, "SocketServerLayer : no certificate for the TLS port %d: %s",
                   tlsPort, ENOENT);
        return false;
    }
    int count = 0;
    const int actualPort = OpenPort(port, backlog, ipv4Only, m_listenFds, count);
    if (actualPort < 0)
        return false;
    m_listenCount = count;
    m_port = actualPort;
    // With a certificate: HTTPS alone on the one port, or plain HTTP there
    // and HTTPS on the second.
    m_tlsFirst = tls && tlsPort < 0 ? 0 : count;
    m_tlsListenPort = tls && tlsPort < 0 ? actualPort : 0;
    if (tls && tlsPort >= 0) {
        const int actualTlsPort = OpenPort(tlsPort, backlog, ipv4Only, m_listenFds + m_listenCount, count);
        if (actualTlsPort < 0) {
            Close();
            return false;
        }
        m_listenCount += count;
        m_tlsListenPort = actualTlsPort;
    }

    int loops = m_loopCount.load();
    if (loops <= 0)
        loops = std::max(1, static_cast<int>(std::thread::hardware_concurrency()));
    {
        std::lock_guard<std::mutex> lock(m_threadMutex);
        m_stopThreads = false;
    }
    for (int i = 0; i < loops; ++i) {
        m_loops.emplace_back(new CEventLoop(*this, i));
        if (!m_loops.back()->Open(m_listenFds, m_listenCount) || !SpawnThread(m_loops.back().get())) {
            const int error = errno;
            m_loops.back()->SetStopped();
            logFailure("StartServer", __LINE__, "SocketServerLayer : cannot start on port %d: %s", port,
                       error);
            Close();
            return false;
        }
    }
    return true;
}

void CSocketServerCore::StopLoops()
{
    // Every loop closes its connections (delivering their close
    // notifications) and ends once none is left, also those whose delivery
    // blocks elsewhere and comes back later. The watchdog still runs: a loop
    // whose owner blocks (maybe waiting for exactly this close) moves on.
    for (auto &loop : m_loops)
        loop->Post(CEventLoop::eTaskStop);
    std::unique_lock<std::mutex> lock(m_threadMutex);
    m_threadChanged.wait(lock, [this] {
        for (auto &loop : m_loops) {
            if (!loop->HasStopped())
                return false;
        }
        return true;
    });
}

void CSocketServerCore::Close()
{
    StopLoops();
    {
        std::lock_guard<std::mutex> lock(m_threadMutex);
        m_stopThreads = true;
    }
    m_threadChanged.notify_all();
    std::vector<std::unique_ptr<SThread>> threads;
    {
        std::lock_guard<std::mutex> lock(m_threadMutex);
        threads.swap(m_threads);
    }
    for (auto &thread : threads)
        pthread_join(thread->m_thread, nullptr);
    {
        std::lock_guard<std::mutex> lock(m_threadMutex);
        m_threadCount = 0;
        m_spareCount = 0;
    }
    m_loops.clear();
    for (int i = 0; i < m_listenCount; ++i)
        ::close(m_listenFds[i]);
    m_listenCount = 0;
    m_tlsFirst = 0;
    m_port = 0;
    m_tlsListenPort = 0;
}
bool CSocketServerCore::NotifyNewConnection(CSocketConnection &connection)
{
    t_pAccepting = &connection;
    const bool taken =
        m_layer.NotifyForNewConnection(connection.GetRemoteSocketAddress(), connection.GetLocalAddress());
    t_pAccepting = nullptr;
    return taken;
}

void CSocketServerCore::NotifyConnectionClosed(CSocketConnection &connection)
{
    if (m_layer.HasNotifications())
        m_layer.NotifyForConnectionClosed(connection, connection.GetRemoteSocketAddress(),
                                          connection.GetLocalAddress());
}

KZF::CRefCountPtr<INVQDataLayer> CSocketServerCore::CreateConnectionPoint(const INVQConnectionAddress &first,
                                                                          const INVQConnectionAddress &second)
{
    CSocketConnection *connection = t_pAccepting;
    if (connection == nullptr || &first != &connection->GetRemoteSocketAddress() ||
        &second != &connection->GetLocalAddress())
        return KZF::CRefCountPtr<INVQDataLayer>();
    return KZF::CRefCountPtr<INVQDataLayer>(connection);
}

CEventLoop *CSocketServerCore::FindOldestIdle()
{
    CEventLoop *oldest = nullptr;
    int64_t since = CEventLoop::c_noIdle;
    for (auto &loop : m_loops) {
        const int64_t loopSince = loop->GetOldestIdleSince();
        if (loopSince < since) {
            since = loopSince;
            oldest = loop.get();
        }
    }
    return oldest;
}

void CSocketServerCore::CountAtCap(bool admitted)
{
    (admitted ? m_drained : m_refused).fetch_add(1, std::memory_order_relaxed);
    KZF::CLogger &logger = KZF::CLogger::GetInstance();
    const int64_t now = monotonicMilliseconds();
    int64_t last = m_lastCapLogMs.load(std::memory_order_relaxed);
    if (now - last < c_capLogIntervalMs || !m_lastCapLogMs.compare_exchange_strong(last, now))
        return;
    const int drained = m_drained.exchange(0);
    const int refused = m_refused.exchange(0);
    if (logger.IsEnabled(c_capLogLevel))
        logger.LogMessage(c_capLogLevel, __FILE__, __LINE__, "Accept", KZF::CLogger::c_noneObjPtr,
                          "SocketServerLayer : at the cap of %d connections: closed %d idle ones to admit "
                          "newcomers, refused %d",
                          m_maxConnections.load(), drained, refused);
}

bool CSocketServerCore::SetTlsCertificate(const std::string &certificateChain, const std::string &privateKey,
                                          bool fromFiles)
{
#ifdef NVQ_WITH_TLS
    std::string error;
    if (m_tls.Load(certificateChain, privateKey, fromFiles, error))
        return true;
    KZF::CLogger::GetInstance().LogMessage(1, __FILE__, __LINE__, "SetTlsCertificate",
                                           KZF::CLogger::c_noneObjPtr, "SocketServerLayer : %s",
                                           error.c_str());
#else
    (void)certificateChain;
    (void)privateKey;
    (void)fromFiles;
    KZF::CLogger::GetInstance().LogMessage(1, __FILE__, __LINE__, "SetTlsCertificate",
                                           KZF::CLogger::c_noneObjPtr,
                                           "SocketServerLayer : built without TLS (NVQ_WITH_TLS off)");
#endif
    return false;
}

void CSocketServerCore::SetTlsSessionTickets(bool on)
{
#ifdef NVQ_WITH_TLS
    m_tls.SetSessionTickets(on);
#else
    (void)on;
#endif
}

bool CSocketServerCore::HasTlsCertificate() const
{
#ifdef NVQ_WITH_TLS
    return m_tls.IsLoaded();
#else
    return false;
#endif
}

CSocketTransport *CSocketServerCore::NewTlsTransport(int fd)
{
#ifdef NVQ_WITH_TLS
    return m_tls.NewTransport(fd);
#else
    (void)fd;
    return nullptr;
#endif
}

void CSocketServerCore::LogAcceptFailure(int error)
{
    logFailure("Accept", __LINE__, "SocketServerLayer : accept paused on port %d: %s", m_port.load(), error);
}

} // namespace NVQ
