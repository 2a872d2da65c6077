#ifndef NVQSOCKETS_LINUX_SOCKETSERVERLAYER_H
#define NVQSOCKETS_LINUX_SOCKETSERVERLAYER_H

#include "KZF_Utilities/Linux/Thread.h"
#include "NVQSockets/Linux/INVQMultiPointLayer.h"

namespace NVQ
{

class CSocketServerCore;

// TCP server on epoll.
//
// The layer's own thread accepts connections (delivering NewConnectionRequested
// one at a time), enforces the timeouts and watches the workers. Connections
// are served by an elastic pool of worker threads: a worker takes one ready
// connection at a time and runs its whole data notification (a complete
// exchange, however long) before it takes another. Idle connections cost no
// thread, only a small record. When every worker has been stuck for a moment
// (slow clients, long exchanges) another one is started, up to a cap; workers
// idle for a while exit down to a minimum.
//
// Notifications: one new-connection notification at a time; one data
// notification at a time per connection; a connection's close notification is
// delivered once, on the thread that serves the connection, either after its
// data notification or at once from inside SendData when a write fails.
// NewConnectionRequested gives the client's address first and the server's
// own second.
class CSocketServerLayer : public CNVQMultiPointLayerBase, public KZF::CThread
{
  public:
    // Documented defaults of the knobs below.
    static constexpr int c_defaultIdleTimeoutMs = 60000;
    static constexpr int c_defaultRequestTimeoutMs = 30000;
    static constexpr int c_defaultSendTimeoutMs = 30000;
    static constexpr int c_defaultMaxConnections = 10000;
    static constexpr int c_defaultMaxWorkers = 256;

    // localOnly: listen on the loopback addresses only (127.0.0.1 and ::1)
    // instead of every interface.
    explicit CSocketServerLayer(bool localOnly = false);
    // Stops the server if it still runs.
    ~CSocketServerLayer() override;

    // Starts listening on `port` (0: any free port, see GetPort) for IPv4 and,
    // unless ipv4Only, IPv6, and serving connections. backlog is the listen
    // queue length, -1 for the system's maximum. False, with the reason logged
    // at level 1, when the server cannot listen or already runs.
    bool StartServer(int port, int backlog, bool ipv4Only);

    // Stops accepting, closes every connection (waking any send that waits
    // for a peer), and returns once no notification runs any more and every
    // close notification has been delivered. The server can start again.
    void StopServer();

    bool IsServerStarted() const;
    // The port listened on while started; 0 when stopped.
    int GetPort() const;

    // A kept-alive connection that sends nothing for this long is closed.
    void SetIdleTimeout(int milliseconds);
    // A request whose first bytes arrived but that was not answered within
    // this long is given up and the connection closed (slow senders).
    void SetRequestTimeout(int milliseconds);
    // A write that the peer does not take for this long breaks the connection.
    void SetSendTimeout(int milliseconds);
    // Connections beyond this many are closed as soon as they are accepted.
    void SetMaxConnections(int count);
    // Cap of the worker pool (at least 1).
    void SetMaxWorkers(int count);

    int GetIdleTimeout() const;
    int GetRequestTimeout() const;
    int GetSendTimeout() const;
    int GetMaxConnections() const;
    int GetMaxWorkers() const;

    // Live connections and worker threads, for monitoring.
    int GetConnectionCount() const;
    int GetWorkerCount() const;

    KZF::CRefCountPtr<INVQDataLayer> CreateConnectionPoint(const INVQConnectionAddress &first,
                                                           const INVQConnectionAddress &second) override;
    void CloseConnection(INVQDataLayer &connection) override;

  protected:
    int Run() override;
    void OnStopRequested() override;

  private:
    friend class CSocketServerCore;
    CSocketServerCore *m_pCore;
};

} // namespace NVQ

#endif
