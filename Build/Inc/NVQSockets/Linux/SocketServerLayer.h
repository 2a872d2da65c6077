#ifndef NVQSOCKETS_LINUX_SOCKETSERVERLAYER_H
#define NVQSOCKETS_LINUX_SOCKETSERVERLAYER_H

#include "KZF_Utilities/Linux/Thread.h"
#include "NVQSockets/Linux/INVQMultiPointLayer.h"

#include <string>

namespace NVQ
{

class CSocketServerCore;

// TCP server on epoll.
//
// Connections are served by event loops, one per core by default, each a
// thread with its own epoll set. A connection belongs to one loop from accept
// to close, so its notifications never overlap and no lock is taken on its
// path. Writes never wait for the peer: what the kernel does not take stays
// queued and goes out as the peer reads, and a writer that produces data on
// demand stops when the connection reports itself not writable and goes on
// at OnDataSent. Idle connections cost no thread, only a small record.
//
// Notification code may block (a handler waiting on a slow source): when a
// delivery runs for longer than a moment, the loop's other connections move
// to a fresh thread and the blocked one finishes on its own; at most
// SetMaxWorkers threads are ever used for this.
//
// The layer's own thread watches the loops. Notifications: one
// new-connection notification at a time; one data notification at a time per
// connection; a connection's close notification is delivered once, after its
// data notification or at once from inside SendData when a write fails (or,
// for a delivery that is blocked, while it still runs). NewConnectionRequested
// gives the client's address first and the server's own second.
class CSocketServerLayer : public CNVQMultiPointLayerBase, public KZF::CThread
{
  public:
    // Documented defaults of the knobs below.
    static constexpr int c_defaultIdleTimeoutMs = 60000;
    static constexpr int c_defaultRequestTimeoutMs = 30000;
    static constexpr int c_defaultSendTimeoutMs = 30000;
    static constexpr int c_defaultMaxConnections = 10000;
    static constexpr int c_defaultMaxWorkers = 256;
    // 0: one loop per core.
    static constexpr int c_defaultLoopCount = 0;

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

    // Stops accepting, closes every connection, and returns once no
    // notification runs any more and every close notification has been
    // delivered (a delivery that blocks keeps it waiting). The server can
    // start again.
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
    // At this many connections, a newcomer is admitted by closing the
    // connection that has been idle longest; it is refused (closed as soon as
    // it is accepted) only when none is idle.
    void SetMaxConnections(int count);
    // Cap of the threads serving connections: the loops plus those that took
    // over from a loop blocked in a delivery (at least 1).
    void SetMaxWorkers(int count);
    // Event loops (0: one per core); takes effect at the next StartServer.
    void SetLoopCount(int count);

    int GetIdleTimeout() const;
    int GetRequestTimeout() const;
    int GetSendTimeout() const;
    int GetMaxConnections() const;
    int GetMaxWorkers() const;
    int GetLoopCount() const;

    // HTTPS (TLS 1.2 and 1.3). With a certificate set before StartServer the
    // StartServer port speaks TLS only; after SetTlsPort it stays plain and
    // the TLS port is listened on as well. Without a certificate nothing
    // changes.

    // The certificate chain (PEM, leaf first) and its private key (PEM,
    // unencrypted), as file names (fromFiles) or as the PEM text. Allowed
    // while serving: connections accepted from then on use the new one,
    // open ones keep theirs. False, with the reason logged at level 1, when
    // they cannot be read, do not belong together, or the library was built
    // without TLS; the certificate in use then stays.
    bool SetTlsCertificate(const std::string &certificateChain, const std::string &privateKey,
                           bool fromFiles);
    // Session tickets (on by default: one per full handshake) let a client
    // that comes back skip the key exchange. Off, every connection makes a
    // fresh one and no ticket key is kept. Allowed while serving, for the
    // connections accepted from then on.
    void SetTlsSessionTickets(bool on);
    // The second port, for HTTPS next to plain HTTP (0: any free one, see
    // GetTlsPort); -1 (the default): none. Takes effect at the next
    // StartServer, which fails when no certificate is set.
    void SetTlsPort(int port);
    // The port listened on for HTTPS while started; 0 when none.
    int GetTlsPort() const;
    // False when the library was built without TLS.
    static bool IsTlsAvailable();

    // Live connections and threads serving them, for monitoring.
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
