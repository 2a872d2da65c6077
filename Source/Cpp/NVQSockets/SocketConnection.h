#ifndef NVQSOCKETS_SOCKETCONNECTION_H
#define NVQSOCKETS_SOCKETCONNECTION_H

#include "NVQCommon/Linux/INVQNotification.h"
#include "NVQSockets/Linux/INVQConnectionAddress.h"
#include "NVQSockets/Linux/INVQDataLayer.h"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/uio.h>

namespace NVQ
{

class CSocketServerCore;
class CSocketConnection;

// An IPv4 or IPv6 socket address, printed the usual way; IPv4 addresses
// mapped into IPv6 print as plain IPv4.
class CSocketAddress : public INVQConnectionAddress
{
  public:
    CSocketAddress();
    void Set(const struct sockaddr *address, socklen_t length);
    KZF::tstring ToString() const override;

  private:
    union {
        struct sockaddr m_any;
        struct sockaddr_in m_v4;
        struct sockaddr_in6 m_v6;
    } m_address;
};

// The server's own end of a connection, looked up only when printed: most
// connections are never logged, and the lookup is a system call.
class CLocalSocketAddress : public INVQConnectionAddress
{
  public:
    explicit CLocalSocketAddress(const CSocketConnection &connection) : m_connection(connection) {}
    KZF::tstring ToString() const override;

  private:
    const CSocketConnection &m_connection;
};

// Per worker thread: the connection it serves and the buffer in which that
// connection's writes gather until the notification ends. Streamed answers
// come in pieces of about 8 KiB: gathering several per send saves a system
// call for each.
struct SWorkerContext {
    static const size_t c_bufferSize = 65536;
    CSocketConnection *m_pConnection = nullptr;
    size_t m_used = 0;
    unsigned char m_buffer[c_bufferSize];
};

// One accepted TCP connection: the data layer handed to the library.
//
// Ownership: the server's connection list holds one reference while the
// socket is open, a worker holds one while it serves the connection, and a
// registered notification holds one until it unregisters, so the object
// outlives every party that may still call it.
//
// Threads: exactly one thread owns an open connection at a time, either the
// epoll set (armed, one-shot) or the worker that took its event. Only the
// owner reads, flushes, closes the socket or settles the connection's state;
// other threads only mark it broken and shut its socket down, which makes it
// report an event.
class CSocketConnection : public INVQDataLayer
{
  public:
    CSocketConnection(CSocketServerCore &core, int fd, const struct sockaddr *remote, socklen_t remoteLength);
    ~CSocketConnection() override;

    int ReadData(void *buffer, int size) override;
    int SendData(const void *data, int size) override;
    void RegisterNotification(INVQDataLayerNotification &notification) override;
    void UnregisterNotification(INVQDataLayerNotification &notification) override;
    void Close() override;

    int GetFd() const { return m_fd.load(std::memory_order_acquire); }
    const CSocketAddress &GetRemoteAddress() const { return m_remoteAddress; }
    const CLocalSocketAddress &GetLocalAddress() const { return m_localAddress; }
    bool IsRegistered();

    // Worker side. A notification begins with the context attached and the
    // per-notification flags cleared; it ends with the buffered bytes put on
    // the wire.
    // Ownership passes between workers through the one-shot epoll set. The
    // kernel orders the re-arm before the next event, but the memory model
    // knows nothing of it: taking the connection's lock on both sides makes
    // the previous owner's work visible to the next.
    void TakeOver();
    bool HandBack(int epollFd);

    void BeginNotification(SWorkerContext &context);
    void EndNotification(SWorkerContext &context);
    void DeliverDataReceived();
    // Delivers the close notification unless it was delivered already.
    void DeliverConnectionClosed();
    // Marks the connection failed: later writes are dropped. Safe from any
    // thread.
    void MarkBroken() { m_broken.store(true, std::memory_order_release); }

    bool IsBroken() const { return m_broken.load(std::memory_order_acquire); }
    bool IsPeerClosed() const { return m_peerClosed; }
    bool IsClosedByServer() const { return m_closedByServer.load(std::memory_order_acquire); }
    bool WroteInNotification() const { return m_wrote; }
    bool ReadInNotification() const { return m_read; }

    // After a close by the server: sends the FIN and drops what the peer
    // still sends. True once the peer has closed too (or failed), false
    // while it may still send.
    bool Linger();
    bool IsLingering() const { return m_lingering; }

    // Closes the socket (once).
    void CloseSocket();

    // Deadline of the current wait (idle, or receiving a request), in
    // milliseconds of the coarse monotonic clock; checked by the reaper while
    // no worker serves the connection.
    std::atomic<int64_t> m_deadline;
    std::atomic<bool> m_busy;
    bool m_requestStarted;
    bool m_expired; // reaper bookkeeping, under the list lock

    // Links of the server's connection list, under its lock.
    CSocketConnection *m_pPrev;
    CSocketConnection *m_pNext;

  private:
    template <class TCall> void Deliver(TCall call);
    bool WriteAll(struct iovec *parts, int count);
    void Fail();
    bool OwnedByCurrentWorker() const;

    CSocketServerCore &m_core;
    std::atomic<int> m_fd;
    CSocketAddress m_remoteAddress;
    CLocalSocketAddress m_localAddress;

    std::atomic<bool> m_broken;
    std::atomic<bool> m_closedByServer;
    std::atomic<bool> m_closeDelivered;
    bool m_lingering;
    bool m_peerClosed;
    bool m_drained; // a short read emptied the socket during this notification
    bool m_wrote;
    bool m_read;

    std::mutex m_notificationMutex; // guards the three fields below
    INVQDataLayerNotification *m_pNotification;
    int m_activeDeliveries;
    bool m_unregisterWaiting;
};

} // namespace NVQ

#endif
