#ifndef NVQ_HTTP_HTTPLAYER_H
#define NVQ_HTTP_HTTPLAYER_H

#include "HTTP/HTTPRequest.h"
#include "HTTP/IHTTPRequestHandler.h"
#include "KZF_Base/Linux/CriticalSection.h"
#include "KZF_Base/Linux/RefCountPtr.h"
#include "NVQCommon/Linux/INVQNotification.h"
#include "NVQSockets/Linux/INVQMultiPointLayer.h"

#include <list>
#include <map>

namespace NVQ
{

class CHTTPConnectionPoint;

// Between the connection framework and the connection points: creates one
// connection point per accepted connection, owns them by connection ID, and
// keeps the ordered registry of handlers that connection points choose from.
class CHTTPLayer : private INVQMultiPointLayerNotification
{
  public:
    // Registers for new-connection notifications of `layer`.
    explicit CHTTPLayer(INVQMultiPointLayer &layer);
    // No layer: nothing is registered.
    CHTTPLayer();
    // Unregisters, then releases every connection point still held.
    ~CHTTPLayer() override;

    // The first registered handler whose CanProcessUri takes the request's
    // URI, or null.
    IHTTPRequestHandler *FindHandler(const CHTTPRequest &request);

    // atFront puts the handler ahead of all others; duplicates are kept.
    // Not while requests are dispatched: register before the server starts.
    void RegisterHandler(const IHTTPRequestHandler &handler, bool atFront);
    // Removes the front-most entry of the handler; false when there is none.
    bool UnregisterHandler(const IHTTPRequestHandler &handler);

    // Connections accepted from now on speak strict HTTP/1.1 (see
    // CHTTPConnectionPoint::SetStrict). Before the server starts.
    void SetStrict(bool strict) { m_strict = strict; }
    // Connections accepted from now on keep a streamed answer's connection
    // when its length held (see CHTTPConnectionPoint::SetKeepAfterStream).
    void SetKeepAfterStream(bool keep) { m_keepAfterStream = keep; }
    // The buffering bounds of new connections (CHTTPConnectionPoint::SetLimits).
    void SetLimits(long maxHeaderBytes, long maxBodyBytes)
    {
        m_maxHeaderBytes = maxHeaderBytes;
        m_maxBodyBytes = maxBodyBytes;
    }

    // A connection point leaves the table (its connection closed).
    void OnConnectionPointClosed(CHTTPConnectionPoint &connectionPoint);

    // Number of connection points in the table, for monitoring and tests.
    size_t GetConnectionPointCount();

  private:
    bool NewConnectionRequested(INVQMultiPointLayer &layer, const INVQConnectionAddress &first,
                                const INVQConnectionAddress &second) override;
    void OnConnectionClosed(INVQDataLayer &connection, const INVQConnectionAddress &first,
                            const INVQConnectionAddress &second) override;
    int NextConnectionID();

    INVQMultiPointLayer *m_pMultiPointLayer;
    std::list<IHTTPRequestHandler *> m_handlers;
    int m_lastConnectionID;
    std::map<int, KZF::CRefCountPtr<CHTTPConnectionPoint>> m_connectionPoints;
    KZF::CCriticalSection m_lock;
    bool m_strict;
    long m_maxHeaderBytes;
    long m_maxBodyBytes;
    bool m_keepAfterStream;
};

} // namespace NVQ

#endif
