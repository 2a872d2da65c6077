#ifndef NVQ_HTTP_HTTPWEBSOCKETENDPOINT_H
#define NVQ_HTTP_HTTPWEBSOCKETENDPOINT_H

#include "HTTP/IHTTPRequestHandler.h"
#include "HTTP/IWebSocketHandler.h"
#include "HTTP/WebSocketSession.h"
#include "KZF_Base/Linux/KzfTypes.h"

namespace NVQ
{

// The request handler of one WebSocket URI: runs the opening handshake
// (version 13 only; no extension is taken, so compression is declined by not
// confirming it), asks the IWebSocketHandler, and on acceptance answers 101
// and hands the connection to a new CWebSocketSession.
//
// Answers without upgrade: 426 with "Sec-WebSocket-Version: 13" for another
// version or a request that does not ask to upgrade, 400 for a request that
// asks but is malformed (not GET over HTTP/1.1, bad Sec-WebSocket-Key), the
// handler's refusal (403 by default). Register it with the server like any
// handler; it and its IWebSocketHandler must outlive the server's sessions
// (stop the server first).
class CHTTPWebSocketEndpoint : public IHTTPRequestHandler
{
  public:
    // path: the URI it serves, matched exactly (a query string is allowed).
    CHTTPWebSocketEndpoint(const KZF::tstring &path, IWebSocketHandler &handler,
                           const CWebSocketSession::SLimits &limits = CWebSocketSession::SLimits());
    ~CHTTPWebSocketEndpoint() override;

    bool CanProcessUri(const KZF::tstring &uri) override;
    KZF::CRefCountPtr<CHTTPResponse> ProcessRequest(CHTTPRequest &request, int connectionID) override;
    KZF::CRefCountPtr<CHTTPResponse> GetAdditionalResponseData(int connectionID) override;
    bool InterruptProcessing() override { return true; }

    // The upgrade checks alone, for handlers that serve WebSocket beside
    // other answers on one URI: null when the request is a valid upgrade
    // (the key is then in key), else the answer to give.
    static KZF::CRefCountPtr<CHTTPResponse> CheckUpgrade(const CHTTPRequest &request, KZF::tstring &key);
    // The handshake with handler for a request that passed CheckUpgrade.
    static KZF::CRefCountPtr<CHTTPResponse> Upgrade(CHTTPRequest &request, const KZF::tstring &key,
                                                    IWebSocketHandler &handler,
                                                    const CWebSocketSession::SLimits &limits);

  private:
    CHTTPWebSocketEndpoint(const CHTTPWebSocketEndpoint &) = delete;
    CHTTPWebSocketEndpoint &operator=(const CHTTPWebSocketEndpoint &) = delete;

    const KZF::tstring m_path;
    IWebSocketHandler &m_handler;
    const CWebSocketSession::SLimits m_limits;
};

} // namespace NVQ

#endif
