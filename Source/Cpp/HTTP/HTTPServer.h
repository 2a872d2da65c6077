#ifndef NVQ_HTTP_HTTPSERVER_H
#define NVQ_HTTP_HTTPSERVER_H

#include "HTTP/IHTTPRequestHandler.h"
#include "NVQSockets/Linux/SocketServerLayer.h"

namespace NVQ
{

class CHTTPLayer;

struct SHTTPServerOptions {
    SHTTPServerOptions()
        : m_port(7070), m_strict(false), m_maxHeaderBytes(1024 * 1024), m_maxBodyBytes(1024 * 1024),
          m_keepAfterStream(false)
    {
    }
    // TCP port to listen on (IPv4 and IPv6); 0 picks a free one.
    int m_port;
    // Strict HTTP/1.1 (RFC 9112) instead of the lenient reference parsing:
    // for servers behind a front server or in reach of untrusted clients.
    // Framing by the RFC (Content-Length as digits only, chunked bodies
    // decoded, no Transfer-Encoding with Content-Length, no obs-fold, Host
    // required), pipelined requests answered in order, "Connection: close"
    // and HTTP/1.0 honoured, HEAD answers without body, Expect: 100-continue;
    // every refusal closes the connection.
    bool m_strict;
    // Bounds of what a connection buffers: the header block (beyond it, 400)
    // and a body its handler does not take in pieces (beyond it, "413
    // Payload Too Large"); both close the connection. 1 MiB each.
    long m_maxHeaderBytes;
    long m_maxBodyBytes;
    // A streamed answer (pieces pulled from the handler) whose first piece
    // declared a "Content-Length" field and whose pieces carried exactly that
    // many bytes leaves the connection open for the next request, as a
    // complete answer does; otherwise, and by default, the connection closes
    // after it.
    bool m_keepAfterStream;
};

// The HTTP server a host creates. Use:
//   1. construct it (stopped);
//   2. register handlers, in the order in which they are to be asked;
//   3. StartServer;
//   4. StopServer when done;
//   5. unregister and destroy the handlers, then destroy the server.
// The server does not own the handlers, and must be stopped before it is
// destroyed. The timeouts and limits of the connection framework (idle
// timeout, request timeout, send timeout, connection and worker caps) are
// set through the inherited setters before StartServer.
class CHTTPServer : public CSocketServerLayer
{
  public:
    // localOnly: serve the loopback addresses only.
    explicit CHTTPServer(bool localOnly = false);
    ~CHTTPServer() override;

    // False (with the reason logged at level 1) when the port cannot be
    // listened on or the server already runs.
    virtual bool StartServer(const SHTTPServerOptions &options);
    virtual void StopServer();
    virtual bool IsServerStarted() const;
    // atFront: ask this handler before every other one.
    virtual void RegisterHandler(const IHTTPRequestHandler &handler, bool atFront);
    virtual bool UnregisterHandler(const IHTTPRequestHandler &handler);

  protected:
    CHTTPLayer *GetHTTPLayer() { return m_httpLayer; }

  private:
    CHTTPServer(const CHTTPServer &) = delete;
    CHTTPServer &operator=(const CHTTPServer &) = delete;

    CHTTPLayer *m_httpLayer;
};

} // namespace NVQ

#endif
