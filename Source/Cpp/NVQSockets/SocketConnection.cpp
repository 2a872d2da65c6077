#include "SocketConnection.h"

#include "SocketServerCore.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <sys/epoll.h>
#include <unistd.h>

namespace NVQ
{

namespace
{

// The worker context of the calling thread, while it serves a connection.
thread_local SWorkerContext *t_pWorkerContext = nullptr;

// Connections whose notifications this thread is inside of, innermost last:
// a notification that unregisters itself must not wait for its own delivery.
constexpr int c_maxNesting = 8;
thread_local const CSocketConnection *t_delivering[c_maxNesting];
thread_local int t_depth = 0;

int ownDeliveries(const CSocketConnection *connection)
{
    const int tracked = std::min(t_depth, c_maxNesting);
    return static_cast<int>(std::count(t_delivering, t_delivering + tracked, connection));
}

// Unregistering while another thread delivers is rare; one condition shared
// by every connection keeps the per-connection record small.
std::condition_variable_any s_deliveryEnded;

// Writes at or above this size go to the kernel straight from the caller's
// memory, together with what is buffered, instead of being copied. Below it,
// copying costs less than the system call it saves.
constexpr size_t c_copyLimit = 16384;

// Bytes read and dropped per event while closing gracefully, so that one
// chatty peer cannot hold a worker.
constexpr size_t c_lingerDrainLimit = 65536;

} // namespace

CSocketAddress::CSocketAddress()
{
    std::memset(&m_address, 0, sizeof(m_address));
}

void CSocketAddress::Set(const struct sockaddr *address, socklen_t length)
{
    std::memset(&m_address, 0, sizeof(m_address));
    if (address != nullptr)
        std::memcpy(&m_address, address, std::min<size_t>(length, sizeof(m_address)));
}

KZF::tstring CSocketAddress::ToString() const
{
    char host[INET6_ADDRSTRLEN] = "";
    char text[INET6_ADDRSTRLEN + 16];
    if (m_address.m_any.sa_family == AF_INET) {
        inet_ntop(AF_INET, &m_address.m_v4.sin_addr, host, sizeof(host));
        std::snprintf(text, sizeof(text), "%s:%u", host, ntohs(m_address.m_v4.sin_port));
    } else if (m_address.m_any.sa_family == AF_INET6) {
        const struct in6_addr &ip = m_address.m_v6.sin6_addr;
        if (IN6_IS_ADDR_V4MAPPED(&ip)) {
            inet_ntop(AF_INET, &ip.s6_addr[12], host, sizeof(host));
            std::snprintf(text, sizeof(text), "%s:%u", host, ntohs(m_address.m_v6.sin6_port));
        } else {
            inet_ntop(AF_INET6, &ip, host, sizeof(host));
            std::snprintf(text, sizeof(text), "[%s]:%u", host, ntohs(m_address.m_v6.sin6_port));
        }
    } else {
        return KZF::tstring("unknown");
    }
    return KZF::tstring(text);
}

KZF::tstring CLocalSocketAddress::ToString() const
{
    struct sockaddr_storage storage;
    socklen_t length = sizeof(storage);
    const int fd = m_connection.GetFd();
    if (fd < 0 || getsockname(fd, reinterpret_cast<struct sockaddr *>(&storage), &length) != 0)
        return KZF::tstring("unknown");
    CSocketAddress address;
    address.Set(reinterpret_cast<struct sockaddr *>(&storage), length);
    return address.ToString();
}

CSocketConnection::CSocketConnection(CSocketServerCore &core, int fd, const struct sockaddr *remote,
                                     socklen_t remoteLength)
    : m_deadline(0), m_busy(false), m_requestStarted(false), m_expired(false), m_pPrev(nullptr),
      m_pNext(nullptr), m_core(core), m_fd(fd), m_localAddress(*this), m_broken(false),
      m_closedByServer(false), m_closeDelivered(false), m_lingering(false), m_peerClosed(false),
      m_drained(false), m_wrote(false), m_read(false), m_pNotification(nullptr), m_activeDeliveries(0),
      m_unregisterWaiting(false)
{
    m_remoteAddress.Set(remote, remoteLength);
}

CSocketConnection::~CSocketConnection()
{
    const int fd = m_fd.exchange(-1);
    if (fd >= 0)
        ::close(fd);
}

bool CSocketConnection::OwnedByCurrentWorker() const
{
    return t_pWorkerContext != nullptr && t_pWorkerContext->m_pConnection == this;
}

int CSocketConnection::ReadData(void *buffer, int size)
{
    const int fd = GetFd();
    if (fd < 0 || size <= 0 || m_peerClosed)
        return 0;
    if (IsBroken())
        return -1;
    // A short read emptied the socket; anything arriving later is reported
    // by a new event, so another read now would only find nothing.
    if (m_drained && OwnedByCurrentWorker())
        return 0;
    for (;;) {
        const ssize_t n = ::recv(fd, buffer, static_cast<size_t>(size), 0);
        if (n > 0) {
            m_read = true;
            if (n < size)
                m_drained = true;
            return static_cast<int>(n);
        }
        if (n == 0) {
            m_peerClosed = true;
            return 0;
        }
        if (errno == EINTR)
            continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            m_drained = true;
            return 0;
        }
        MarkBroken();
        return -1;
    }
}

int CSocketConnection::SendData(const void *data, int size)
{
    if (IsBroken()) {
        // Broken by another thread (StopServer, the reaper) while this one
        // was busy elsewhere: the writer learns of the close now.
        DeliverConnectionClosed();
        return -1;
    }
    if (size < 0 || IsClosedByServer() || GetFd() < 0)
        return -1;
    if (size == 0)
        return 0;
    m_wrote = true;
    SWorkerContext *context = OwnedByCurrentWorker() ? t_pWorkerContext : nullptr;
    const size_t length = static_cast<size_t>(size);
    if (context != nullptr && length < c_copyLimit &&
        context->m_used + length <= SWorkerContext::c_bufferSize) {
        std::memcpy(context->m_buffer + context->m_used, data, length);
        context->m_used += length;
        return size;
    }
    struct iovec parts[2];
    int count = 0;
    if (context != nullptr && context->m_used > 0) {
        parts[count].iov_base = context->m_buffer;
        parts[count].iov_len = context->m_used;
        ++count;
        context->m_used = 0;
    }
    parts[count].iov_base = const_cast<void *>(data);
    parts[count].iov_len = length;
    ++count;
    if (!WriteAll(parts, count)) {
        Fail();
        return -1;
    }
    return size;
}

bool CSocketConnection::WriteAll(struct iovec *parts, int count)
{
    const int fd = GetFd();
    if (fd < 0)
        return false;
    while (count > 0) {
        struct msghdr message;
        std::memset(&message, 0, sizeof(message));
        message.msg_iov = parts;
        message.msg_iovlen = static_cast<size_t>(count);
        const ssize_t n = ::sendmsg(fd, &message, MSG_NOSIGNAL);
        if (n >= 0) {
            size_t sent = static_cast<size_t>(n);
            while (count > 0 && sent >= parts->iov_len) {
                sent -= parts->iov_len;
                ++parts;
                --count;
            }
            if (count > 0) {
                parts->iov_base = static_cast<char *>(parts->iov_base) + sent;
                parts->iov_len -= sent;
            }
            continue;
        }
        if (errno == EINTR)
            continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK)
            return false;
        // The peer is not taking data: wait for room, up to the send timeout.
        // StopServer shuts the socket down, which ends this wait at once.
        if (IsBroken())
            return false;
        struct pollfd waitFor = {fd, POLLOUT, 0};
        int ready;
        do
            ready = ::poll(&waitFor, 1, m_core.GetSendTimeout());
        while (ready < 0 && errno == EINTR);
        if (ready <= 0)
            return false;
    }
    return true;
}

void CSocketConnection::Fail()
{
    MarkBroken();
    // The close is reported at once, on the writing thread, so that an
    // exchange for a peer that is gone stops at its next step.
    DeliverConnectionClosed();
}

void CSocketConnection::TakeOver()
{
    std::lock_guard<std::mutex> lock(m_notificationMutex);
    m_busy.store(true, std::memory_order_relaxed);
}

bool CSocketConnection::HandBack(int epollFd)
{
    std::lock_guard<std::mutex> lock(m_notificationMutex);
    m_busy.store(false, std::memory_order_relaxed);
    struct epoll_event event;
    event.events = EPOLLIN | EPOLLRDHUP | EPOLLONESHOT;
    event.data.ptr = this;
    return ::epoll_ctl(epollFd, EPOLL_CTL_MOD, GetFd(), &event) == 0;
}

void CSocketConnection::BeginNotification(SWorkerContext &context)
{
    context.m_pConnection = this;
    context.m_used = 0;
    t_pWorkerContext = &context;
    m_drained = false;
    m_wrote = false;
    m_read = false;
}

void CSocketConnection::EndNotification(SWorkerContext &context)
{
    if (context.m_used > 0 && !IsBroken() && GetFd() >= 0) {
        struct iovec part = {context.m_buffer, context.m_used};
        if (!WriteAll(&part, 1))
            Fail();
    }
    context.m_used = 0;
    context.m_pConnection = nullptr;
    t_pWorkerContext = nullptr;
}

template <class TCall> void CSocketConnection::Deliver(TCall call)
{
    INVQDataLayerNotification *notification;
    {
        std::lock_guard<std::mutex> lock(m_notificationMutex);
        notification = m_pNotification;
        if (notification == nullptr)
            return;
        ++m_activeDeliveries;
    }
    const bool tracked = t_depth < c_maxNesting;
    if (tracked)
        t_delivering[t_depth] = this;
    ++t_depth;
    call(*notification);
    --t_depth;
    std::lock_guard<std::mutex> lock(m_notificationMutex);
    --m_activeDeliveries;
    if (m_unregisterWaiting)
        s_deliveryEnded.notify_all();
}

void CSocketConnection::DeliverDataReceived()
{
    Deliver([this](INVQDataLayerNotification &notification) { notification.OnDataReceived(*this); });
}

void CSocketConnection::DeliverConnectionClosed()
{
    if (m_closeDelivered.exchange(true))
        return;
    Deliver([this](INVQDataLayerNotification &notification) { notification.OnConnectionClosed(*this); });
}

bool CSocketConnection::IsRegistered()
{
    std::lock_guard<std::mutex> lock(m_notificationMutex);
    return m_pNotification != nullptr;
}

void CSocketConnection::RegisterNotification(INVQDataLayerNotification &notification)
{
    {
        std::lock_guard<std::mutex> lock(m_notificationMutex);
        INVQDataLayerNotification *previous = m_pNotification;
        if (previous == &notification)
            return;
        m_pNotification = &notification;
        notification.AddNotificationRef();
        if (previous != nullptr) {
            // The replaced registration hands its hold on the connection over.
            previous->ReleaseNotificationRef();
            return;
        }
    }
    AddRef(); // the registration keeps the connection alive
}

void CSocketConnection::UnregisterNotification(INVQDataLayerNotification &notification)
{
    {
        std::unique_lock<std::mutex> lock(m_notificationMutex);
        const bool registered = m_pNotification == &notification;
        if (registered)
            m_pNotification = nullptr;
        const int own = ownDeliveries(this);
        if (m_activeDeliveries > own) {
            m_unregisterWaiting = true;
            s_deliveryEnded.wait(lock, [this, own] { return m_activeDeliveries <= own; });
            m_unregisterWaiting = false;
        }
        if (!registered)
            return;
        notification.ReleaseNotificationRef();
    }
    ReleaseRef(); // may destroy this connection: nothing may follow
}

void CSocketConnection::Close()
{
    if (m_closedByServer.exchange(true))
        return;
    if (OwnedByCurrentWorker()) {
        // Everything written so far goes out before the close; the worker
        // closes the socket when the notification ends.
        SWorkerContext &context = *t_pWorkerContext;
        if (context.m_used > 0 && !IsBroken()) {
            struct iovec part = {context.m_buffer, context.m_used};
            if (!WriteAll(&part, 1))
                MarkBroken();
        }
        context.m_used = 0;
        return;
    }
    // Another thread owns the socket: wake it, and it settles the close.
    m_core.ShutdownConnection(*this);
}

bool CSocketConnection::Linger()
{
    const int fd = GetFd();
    if (fd < 0 || IsBroken())
        return true;
    if (!m_lingering) {
        // Our FIN goes out after everything written; the peer's own bytes
        // are then read and dropped until it closes, since closing a socket
        // with unread input sends a reset that can destroy the answer's tail
        // on its way to the peer.
        m_lingering = true;
        ::shutdown(fd, SHUT_WR);
    }
    unsigned char scratch[4096];
    for (size_t drained = 0; drained < c_lingerDrainLimit;) {
        const ssize_t n = ::recv(fd, scratch, sizeof(scratch), 0);
        if (n > 0) {
            drained += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        return n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK);
    }
    return false;
}

void CSocketConnection::CloseSocket()
{
    const int fd = m_fd.exchange(-1);
    if (fd >= 0)
        ::close(fd);
}

} // namespace NVQ
